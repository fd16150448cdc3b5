"""The device under faults: its daemon, apps and operator, the scenes that they play,
and the promises that must hold afterwards."""

from __future__ import annotations

import contextlib
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ET
from collections.abc import Callable
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

import lab  # noqa: E402
from lab import BIN_DIR, App, UpdateRequest  # noqa: E402
from power import Disk  # noqa: E402

SPEED = 10_000  # a minute of the daemon's timers takes 6 ms
HALF_DAY, DAY = 43_200, 86_400
RESUME_GIVES_UP_S = 5 * 1800 / SPEED  # five resume runs without the app end its entry
SHIM = BIN_DIR.parent / "lib/libfaults.so"
SIZES = {"alpha": {"a.bin": 60_000, "b.bin": 100_000, "c.bin": 20_000}, "beta": {"d.bin": 5_000},
         "probe": {"p.bin": 1_000}}
OLD = {name: b"installed " + name.encode() for name in [*SIZES["alpha"], "keep.cfg"]}
NEW_SETTING = "http update source_ip 127.0.0.1"
PROMISES = ("end", "app", "operator", "support", "command", "daily", "files", "installed",
            "resume", "config", "left", "free", "idle")
COUNT, ONCE, EVER, KILL = range(4)


class Page:
    """The page shared with shim.cpp, whose layout this is."""

    HEAD, ENTRY, ENTRIES = struct.Struct("QIiIIIIII"), struct.Struct("QII16s24Q"), 1 << 15
    ARMED, HIT, MENDED = 24, 28, 32

    def __init__(self, path: Path) -> None:
        self.path = path

    def reset(self, kind: int = COUNT, path: int = 0, occurrence: int = 0, error: int = 0,
              groups: int = 0) -> None:
        self.path.unlink(missing_ok=True)
        self.file = self.path.open("w+b", buffering=0)
        self.file.truncate(self.HEAD.size + self.ENTRIES * self.ENTRY.size)
        self.file.write(self.HEAD.pack(path, occurrence, error, kind, groups, 0, 0, 0, 0))

    def set(self, at: int, value: bool = True) -> None:
        os.pwrite(self.file.fileno(), struct.pack("I", value), at)

    def hit(self) -> bool:
        return os.pread(self.file.fileno(), 4, self.HIT) != bytes(4)

    def calls(self, process: int) -> list[tuple]:
        """Path, hits, groups, call and frames, as (library, offset), of every call."""
        maps = [(int(low, 16), int(high, 16), int(offset, 16), name) for low, high, offset, name in
                re.findall(r"^(\w+)-(\w+) \S+ (\w+) \S+ \d+ +(/.*)$",
                           Path(f"/proc/{process}/maps").read_text(), re.M)]
        entries = self.ENTRY.iter_unpack(self.path.read_bytes()[self.HEAD.size:])
        return [(path, hits, groups, call.rstrip(b"\0").decode(), tuple(
            (name, frame - low + offset) for frame in frames for low, high, offset, name in maps
            if low <= frame < high)) for path, hits, groups, call, *frames in entries if path]


class Device(lab.Device):
    def __init__(self) -> None:
        super().__init__(lab.Scratch())
        self.config = self.data / "oam/http_client/startup-config"
        self.output = self.root / "output"
        self.page = Page(self.root / "page")
        self.shim = self.root / "faults.so"  # as the clock's library: a name without blanks
        self.shim.symlink_to(SHIM)
        self.patience, self.acting, self.fed_at = 1.0, False, 0.0
        self.server = lab.LabServer(self.scratch)
        self.server.say = lambda line: None
        self.new = {app: self.server.release(app, "2.0", files) for app, files in SIZES.items()}
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(str(self.root / "manager"))
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self) -> None:
        """What the daemon tells the service manager."""
        while word := self.manager.recv(64):
            self.is_ready |= word == b"READY=1"
            self.fed_at = time.monotonic()

    def close(self) -> None:
        self.stop()
        self.scratch.close()

    # ---- the daemon

    def reset(self) -> None:
        """A device with the last version of its apps, saved settings, and no daemon."""
        self.stop()
        for name in ("t", "d", "apps", "journal", "kept"):
            shutil.rmtree(self.root / name, ignore_errors=True)
            (self.root / name).mkdir()
        self.clock.set(wall=0, monotonic=0)
        self.server.heal()
        self.server.requests.clear()
        self.connected: dict[str, App] = {}
        self.version = dict.fromkeys(SIZES, "1.0")
        self.handed: set[str] = set()
        self.reported = False  # that the settings are saved
        self.found: dict[str, str] = {}  # promise to what broke it
        daily = time.strftime("%H:%M", time.gmtime(time.time() + HALF_DAY))
        self.settings = sorted([f"http update server 127.0.0.1 port {self.server.port}",
                                f"http update time daily {daily}"])
        self.config.parent.mkdir(parents=True)
        Path(self.saved("alpha")).mkdir()
        for path, text in {self.output: b"", self.syslog_file: b"", self.root / "boot": b"first",
                           self.config: "".join(f"{s}\n" for s in self.settings).encode(),
                           **{Path(self.saved("alpha")) / n: d for n, d in OLD.items()}}.items():
            path.write_bytes(text)
            path.chmod(0o600)

    def start(self) -> None:
        for app in self.connected.values():
            app.die()
        self.connected.clear()
        paths = {"FAULTS_PAGE": "page", "CLOCK_SHIFT_FILE": "clock",
                 "FAULTS_JOURNAL": "journal", "FAULTS_BOOT_ID": "boot", "NOTIFY_SOCKET": "manager"}
        environment = self.environment(
            **{name: str(self.root / path) for name, path in paths.items()},
            TQ_THREAD_SPEED=str(SPEED), LD_PRELOAD=f"{self.shim} {self.clock.library}")
        self.is_ready, self.started = False, time.monotonic()
        with self.output.open("ab") as output:
            self.daemon = subprocess.Popen([BIN_DIR / "http_client.elf"], stdin=subprocess.DEVNULL,
                                           stdout=output, stderr=output, env=environment)
        self.wait(lambda: self.is_ready, 1.5)

    def stop(self) -> None:
        if self.daemon is not None:
            self.daemon.kill()
            self.daemon.wait()

    def settle(self) -> None:
        """Waits until the admin thread has made its loop, too."""
        before, now = (), self.held()
        while before != now:
            time.sleep(0.015)
            before, now = now, self.held()

    def starved(self) -> bool:
        """Whether the service manager's watchdog would end the daemon."""
        now = time.monotonic()
        return not self.wait(lambda: self.fed_at > now, 1) and not self.ended()

    def ended(self) -> bool:
        return self.daemon.poll() is not None

    def wait(self, condition: Callable[[], Any], seconds: float = 2.0) -> bool:
        """Whether the condition comes true in time, and before the daemon ends."""
        end = time.monotonic() + seconds * self.patience
        while not condition():
            if time.monotonic() > end or self.ended():
                return bool(condition())
            time.sleep(0.004)
        return True

    def broke(self, promise: str, how: str) -> None:
        self.found.setdefault(promise, how)

    # ---- its operator and its apps

    def cli(self, *commands: str, bundle: bool = False) -> str | None:
        """What the commands print, refusals included; None when they fail or hang."""
        words = [word for command in commands for word in ("-c", command)]
        if bundle:
            words = ["--tech-support", str(self.root / "bundle.tar.gz")]
        with subprocess.Popen([BIN_DIR / "http_client_cli", *words], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env=self.environment()) as process:
            try:
                if self.acting:  # what a lasting fault holds up goes on when it is gone
                    with contextlib.suppress(subprocess.TimeoutExpired):
                        process.wait(0.4)
                    if process.poll() is None:
                        self.page.set(Page.MENDED)
                output, _ = process.communicate(timeout=1.5 * self.patience)
            except subprocess.TimeoutExpired:
                process.kill()
                if self.acting and not self.ended():
                    self.broke("command", f"{' '.join(words)} hangs")
                return None
        return output.decode(errors="replace") if process.returncode == 0 else None

    def answer(self, app: App, request: UpdateRequest) -> tuple[int, str]:
        there = {Path(p).name: Path(p).read_bytes() for p in request.files if os.path.exists(p)}
        if there != self.new.get(request.app):
            self.broke("files", f"{request.app} was handed over incomplete: {sorted(there)}")
        self.version[request.app] = "2.0"
        self.handed.add(request.app)
        return 0, "2.0"

    def registers(self, name: str) -> bool:
        """Registers the app, on a new connection if its old one is gone."""
        app = self.connected.get(name)
        if app is not None and not app.hung_up.is_set() and app.registered.get(name) == 0:
            return True
        try:
            if app is not None:
                app.die()
            app = self.connected[name] = App(self.work / ".http_update", self.answer)
            texts = (name.encode(), self.version[name].encode(), self.saved(name).encode())
            app.send(App.REGIST, struct.pack("I32s32s128s", 0, *texts))
        except OSError:
            return False
        self.wait(lambda: name in app.registered or app.hung_up.is_set(), 0.5)
        return app.registered.get(name) == 0

    def listed(self) -> bool:
        """Whether the saved resume list names alpha."""
        try:
            return "alpha" in self.resume()
        except ET.ParseError as error:
            self.broke("resume", f"the saved list is torn: {error}")
        return False

    def whole(self, app: str) -> bool:
        return self.new[app].items() <= self.disk(app).items()


# ---- the scenes: what lies there before the start, what happens before the faults,
# and what happens under them

def nothing(device: Device) -> None:
    pass


def seed_nothing(device: Device) -> None:
    shutil.rmtree(device.data / "oam")


def seed_list(device: Device) -> None:
    files = "".join(f'<file name="{device.saved("alpha")}{name}"/>' for name in SIZES["alpha"])
    device.resume_file.write_text('<?xml version="1.0"?>\n<filelist><app name="alpha"><filecnt>'
                                  f"{len(SIZES['alpha'])}</filecnt>{files}</app></filelist>\n")


def register(device: Device) -> None:
    device.registers("alpha")
    device.registers("beta")


def play_register(device: Device) -> None:
    register(device)
    with contextlib.suppress(OSError, KeyError):  # turned away
        beta = device.connected["beta"]
        beta.set_mode("beta", True)
        beta.set_mode("beta", False)
        beta.deregister("beta")
        beta.registered.clear()
    device.registers("beta")


def play_daily(device: Device) -> None:
    """The second file breaks off; a resume run half an hour later fetches the rest."""
    device.server.fault(path="*/b.bin", times=1, cut_after=70_000)
    device.clock.pass_time(HALF_DAY)
    device.wait(lambda: {"alpha", "beta"} <= device.handed and not device.listed(), 1)


def play_operator(device: Device) -> None:
    device.cli("http update all")
    device.wait(lambda: {"alpha", "beta"} <= device.handed, 0.2)


def play_first(device: Device) -> None:
    device.reported = device.cli("configure", *device.settings, "end", "write") == ""


def play_write(device: Device) -> None:
    device.reported = device.cli("configure", NEW_SETTING, "end", "write") == ""


def play_support(device: Device) -> None:
    device.cli(bundle=True)


Step = Callable[[Device], None]
SCENES: dict[str, tuple[Step, Step, Step]] = {
    "first": (seed_nothing, nothing, play_first),
    "start": (seed_list, nothing, nothing),
    "register": (nothing, nothing, play_register),
    "daily": (nothing, register, play_daily),
    "operator": (nothing, register, play_operator),
    "write": (nothing, nothing, play_write),
    "support": (nothing, nothing, play_support),
}
FROM_START = ("first", "start")  # the start itself is part of the scene


# ---- the promises

def check_end(device: Device) -> None:
    """A process that ended by itself says why."""
    status, said = device.daemon.wait(), device.output.read_bytes()
    if status <= 0 or not said:
        device.broke("end", f"status {status}, {'with' if said else 'without'} a word")


def check_installed(device: Device, runs: bool) -> None:
    """What no server was asked for is as it was. Of a run or an entry that was given up
    by then the file whose turn it was is deleted, begun or not."""
    fetched = {Path(r["path"]).name for r in device.server.asked("^GET")}
    there = device.disk("alpha")
    if lost := [name for name in [name for name in OLD if name not in fetched][runs:]
                if there.get(name) != OLD[name]]:
        device.broke("installed", f"{lost}, which no run fetched, are gone or changed")


def check_list(device: Device, listed: bool) -> None:
    """What was on the saved list is on the list, or with its app."""
    shown = device.cli("show http-update info resume") if listed else None
    in_time = time.monotonic() < device.started + RESUME_GIVES_UP_S
    if shown is None or "alpha" in shown or device.wait(lambda: "alpha" in device.handed, 0.5):
        return
    if in_time:
        device.broke("resume", "the app is on no list any more")


def check_config(device: Device, restarted: bool, scene: str) -> None:
    """What is saved is the old or the new, the new after a success, and in force."""
    shown = device.cli("show running-config")
    if shown is None:
        return
    saved = lines(device.config.read_text() if device.config.exists() else "")
    old = device.settings
    right = {"write": [old, sorted([*old, NEW_SETTING])], "first": [[], old]}.get(scene, [old])
    if saved not in right and (device.reported or scene != "first" or not set(saved) < set(old)):
        device.broke("config", f"saved is {saved}")
    elif device.reported and saved != right[-1]:
        device.broke("config", "reported as saved, and lost")
    elif lines(shown) != saved and (restarted or len(right) == 1):
        device.broke("config", f"running is {lines(shown)}, saved {saved}")


def check_doors(device: Device) -> None:
    if not device.wait(lambda: device.cli(bundle=True) is not None):
        device.broke("support", "no bundle comes")
    for name in SIZES:
        if not device.wait(lambda: device.registers(name)):
            device.broke("app", f"{name} can't register")


def check_daily(device: Device) -> None:
    """The next days' runs serve every app; of several, as one may be on its way."""
    if "operator" not in device.found:
        device.cli("configure", *device.settings, "end")
    elif not device.config.exists():
        return  # nobody could tell it of a server
    for _ in range(3):
        device.clock.pass_time(HALF_DAY if device.clock.wall == 0 else DAY)
        if device.wait(lambda: device.handed == set(SIZES), 1.5):
            break
        for name in SIZES:
            device.registers(name)
    if device.handed != set(SIZES):
        device.broke("daily", f"no run for {sorted(set(SIZES) - device.handed)}")
    elif not all(device.whole(app) for app in SIZES):
        device.broke("files", "a file changed after it was handed over")


def check_rest(device: Device, held: tuple[int, int]) -> None:
    def free() -> bool:
        shown = device.cli("http update display-progress", "show http-update test")
        return shown is not None and "state: free" in shown and "busy" not in shown

    def busy_ns() -> int:
        with contextlib.suppress(OSError):
            return sum(int(path.read_text().split()[0]) for path in
                       Path(f"/proc/{device.daemon.pid}/task").glob("*/schedstat"))
        return 0

    def idle() -> bool:  # at this speed the timers take a fiftieth
        begin, spent = time.monotonic_ns(), busy_ns()
        time.sleep(0.05)
        return busy_ns() - spent < (time.monotonic_ns() - begin) // 6

    if "operator" not in device.found and not device.wait(free):
        device.broke("free", "a run or an app stays busy")
    if not device.wait(lambda: not device.listed()):
        device.broke("resume", "an app that is done stays on the list")
    if held != (0, 0) and not device.wait(
            lambda: all(now <= then for now, then in zip(device.held(), held))):
        device.broke("left", f"descriptors, threads: {device.held()}, not {held}")
    if not device.wait(idle):
        device.broke("idle", "a loop turns without end")


def play(device: Device, scene: str, kind: int = COUNT, loss: str = "",
         held: tuple[int, int] = (0, 0), **point: int) -> bool:
    """Plays the scene with the fault at the point; whether the point was reached. What
    broke is in device.found, and what was counted in device.counted."""
    seed, before, act = SCENES[scene]
    device.reset()
    seed(device)
    listed = device.listed()
    disk = Disk(device.root, ("d", "apps"), device.root / "kept") if loss else None
    device.page.reset(kind, **point)
    device.page.set(Page.ARMED, scene in FROM_START)
    device.start()
    if scene not in FROM_START:
        device.settle()
        before(device)
        device.page.set(Page.ARMED)
    device.acting = True
    act(device)
    device.acting = False
    device.page.set(Page.ARMED, False)
    if kind == COUNT:
        device.counted = device.page.calls(device.daemon.pid)
    if kind == EVER:
        device.wait(device.ended, 0.05)  # at a start nothing else gives it time
    device.page.set(Page.MENDED)
    hit = device.page.hit()
    if hit or kind == COUNT:
        keep_promises(device, scene, kind, disk, loss, listed, held)
    return hit


def keep_promises(device: Device, scene: str, kind: int, disk: Disk | None, loss: str,
                  listed: bool, held: tuple[int, int]) -> None:
    if kind == KILL:
        device.daemon.wait()
    restarted = False
    for _ in range(2):  # it may also end late, in the middle of what is asked of it
        starved = not restarted and device.starved()
        if starved:
            device.stop()
        if starved or device.ended():
            if not starved and (kind != KILL or restarted):
                check_end(device)
            revive(device, None if restarted else disk, loss)
            restarted, listed = True, device.listed()
        check_installed(device, scene in ("start", "daily", "operator"))
        if device.wait(lambda: device.cli("show debugging") is not None):
            check_list(device, listed)
            check_config(device, restarted, scene)
        else:
            device.broke("operator", "no command is answered")
        check_doors(device)
        check_daily(device)
        check_rest(device, held)
        if not device.ended():
            return
        for promise in set(device.found) - {"end", "files", "installed"}:
            del device.found[promise]
    device.found["end"] = f"ends again and again, status {device.daemon.poll()}"


def revive(device: Device, disk: Disk | None, loss: str) -> None:
    """Starts the daemon again, after a power cut if there is a disk that lost it."""
    for app in device.connected.values():  # what was sent to it is still looked at
        app.hung_up.wait(1)
    if disk is not None:
        disk.cut(device.root / "journal", loss)
        shutil.rmtree(device.tmp)
        device.tmp.mkdir()
        (device.root / "boot").write_text("second")
    if lost := [app for app in sorted(device.handed) if not device.whole(app)]:
        device.broke("files", f"what was handed over to {lost} did not survive")
    device.start()


def lines(text: str) -> list[str]:
    return sorted(line for line in text.splitlines() if not line.startswith("!"))
