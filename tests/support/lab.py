"""Verbs of the whole-system tests: a lab update server, a device with its daemon,
and apps, played by this process so that they can misbehave.
"""

from __future__ import annotations

import contextlib
import ctypes
import json
import os
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import xml.etree.ElementTree as ET
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, TypeVar

SOURCE_DIR = Path(__file__).resolve().parents[2]
sys.path.append(str(SOURCE_DIR / "tools/lab_server"))

import lab_server  # noqa: E402
from faults import Rule  # noqa: E402
from releases import ReleaseFolder  # noqa: E402

BIN_DIR = Path(os.environ.get("HTTP_CLIENT_BIN", SOURCE_DIR / "build/release/bin"))
# A machine busy with other tests and a sanitizer is slow; a failure may be late.
DEADLINE = 60.0
T = TypeVar("T")

ONE_FILE, MANUAL, INCREMENTAL = 1, 2, 4
SECOND_LIST = ("--second-list",)
SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|WARNING: \w+Sanitizer|runtime error:")


def wait_for(condition: Callable[[], T], what: str = "", deadline: float = DEADLINE) -> T:
    """The first true value of condition; fails when none comes in time."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {deadline:.0f} s in vain {what or condition}")
        time.sleep(0.02)


def content(name: str, size: int) -> bytes:
    """Bytes that look random and are the same for the same name."""
    return random.Random(name).randbytes(size)


class Scratch:
    """Everything of one test: its folder and what has to be ended after it."""

    def __init__(self) -> None:
        # Short: prefixes are cut at 31 characters and socket paths at 107.
        self.root = Path(tempfile.mkdtemp(prefix="hc", dir="/tmp"))
        self.at_end: list[Callable[[], None]] = []  # the last first
        self.reports: list[str] = []

    def spawn(self, name: str, command: list[str | Path], **more: Any) -> subprocess.Popen[str]:
        with (self.root / f"{name}.out").open("w") as out, (
                self.root / f"{name}.err").open("w") as err:
            process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=out, stderr=err, text=True, **more)
        self.at_end += [process.wait, process.kill]
        return process

    def output(self, name: str) -> str:
        # Bytes, because line ends are part of what is compared.
        return (self.root / f"{name}.out").read_bytes().decode(errors="replace")

    def close(self) -> None:
        for step in reversed(self.at_end):
            step()
        for path in sorted(self.root.glob("*.err")):
            text = path.read_text(errors="replace")
            if SANITIZER_REPORT.search(text):
                self.reports.append(f"{path.name}:\n{text}")
        shutil.rmtree(self.root)
        assert not self.reports, "\n".join(self.reports)


class Probe:
    """Calls of the host's libraries: host_probe.cpp."""

    def __init__(self, scratch: Scratch) -> None:
        self.root = scratch.root

    def run(self, *arguments: str, **environment: str) -> str:
        done = subprocess.run(
            [BIN_DIR / "host_probe", *arguments], capture_output=True, timeout=DEADLINE,
            env={"HTTP_CLIENT_DEVICE_ROOT": str(self.root),
                 "PRINTK_SYSLOG_FILE": str(self.root / "log"), **environment})
        assert done.returncode == 0, done.stderr
        return done.stdout.decode()


class Sample:
    """The program of sample commands and reports: sample_daemon.cpp."""

    def __init__(self, scratch: Scratch) -> None:
        self.scratch = scratch
        root = scratch.root
        self.work = root / "oam/http_client"
        self.work.mkdir(parents=True)
        self.config, self.log = self.work / "startup-config", root / "log"
        self.process: subprocess.Popen[str] | None = None
        self.environment = {**os.environ, "TMPDIR": str(root), "DATA_VEMO_DIR": str(root),
                            "PRINTK_SYSLOG_FILE": str(self.log), "TERM": "xterm",
                            "LC_ALL": "C.UTF-8", "HOME": str(root)}

    def start(self, **more: Any) -> None:
        self.process = self.scratch.spawn("sample", [BIN_DIR / "sample_daemon"],
                                          env=self.environment, **more)
        wait_for(lambda: self.scratch.output("sample"), "for the sample daemon")

    def ended(self) -> int:
        """Threads of commands that have said everything."""
        return self.scratch.output("sample").count("ended")

    def end(self) -> None:
        """In good order, so that a leak shows in the exit status."""
        subprocess.run([BIN_DIR / "http_client_cli", "-c", "work quit"], env=self.environment,
                       timeout=DEADLINE, check=True)
        assert self.process.wait(DEADLINE) == 0


class LabServer(lab_server.LabServer):
    """The lab update server, in this process, on a folder of releases of its own."""

    def __init__(self, scratch: Scratch) -> None:
        self.folder = Path(tempfile.mkdtemp(dir=scratch.root))
        super().__init__(("127.0.0.1", 0), ReleaseFolder(self.folder), check_key=True)
        self.host, self.port = self.server_address
        threading.Thread(target=self.serve_forever, args=(0.01,), daemon=True).start()
        scratch.at_end += [self.server_close, self.shutdown]

    def release(self, app: str, version: str, contents: dict[str, int | bytes],
                **described: Any) -> dict[str, bytes]:
        """Puts a release on the server; a number makes that many bytes."""
        folder = self.folder / app / version
        folder.mkdir(parents=True)
        made = {name: what if isinstance(what, bytes) else content(app + version + name, what)
                for name, what in contents.items()}
        past = time.time() - 60  # what changed in this very second proves nothing
        for name, data in made.items():
            (folder / name).write_bytes(data)
            os.utime(folder / name, (past, past))
        if described:
            (folder / ".release.json").write_text(json.dumps(described))
        return made

    def fault(self, **rule: Any) -> None:
        self.rules.add(Rule(**rule))

    def heal(self) -> None:
        self.rules.clear()

    def asked(self, pattern: str) -> list[dict[str, Any]]:
        """Requests whose method and path the pattern fits."""
        return [r for r in list(self.requests) if re.search(pattern, f"{r['method']} {r['path']}")]

    def queries(self) -> list[dict[str, Any]]:
        return self.asked("^POST")

    def wait_stalled(self, pattern: str, sent: int) -> None:
        wait_for(lambda: any(r["sent"] >= sent and not r["done"] for r in self.asked(pattern)),
                 f"for {pattern} to stall")


@dataclass
class UpdateRequest:
    app: str
    files: list[str]
    records: dict[str, str] = field(default_factory=dict)

    @classmethod
    def parse(cls, payload: bytes) -> UpdateRequest:
        name, count, rest = struct.unpack_from("32sHH", payload)
        assert rest == len(payload) - 36 and payload.endswith(bytes(4))
        at, files, records = 36, [], {}
        for _ in range(count):
            length = payload[at] or 256
            files.append(payload[at + 1:at + length].decode())
            at += length + 1
        while at < len(payload) - 4:
            name_length, text_length = struct.unpack_from("HH", payload, at)
            at += 4
            key = payload[at:at + name_length - 1].decode()
            records[key] = payload[at + name_length:at + name_length + text_length - 1].decode()
            at += name_length + text_length
        return cls(name.rstrip(b"\0").decode(), files, records)


# An app's answer to an update request: (result, text), or None to stay silent.
Answer = Callable[["App", UpdateRequest], tuple[int, str] | None]


def install(app: App, request: UpdateRequest) -> tuple[int, str]:
    return 0, request.records["version"]


class App:
    """One registration connection with one app or more on it."""

    REGIST, REGIST_RSP, UPDATE_REQ, UPDATE_RSP, DEREGIST, MODE = 1, 2, 3, 4, 6, 7

    def __init__(self, socket_path: Path, answer: Answer = install) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(str(socket_path))
        self.answer = answer
        self.registered: dict[str, int] = {}
        self.requests: list[UpdateRequest] = []
        self.hung_up = threading.Event()
        threading.Thread(target=self._listen, daemon=True).start()

    def register(self, name: str, version: str, save: str | Path = "", flags: int = 0) -> int:
        self.registered.pop(name, None)
        self.send(self.REGIST, struct.pack("I32s32s128s", flags, name.encode(), version.encode(),
                                           str(save).encode()))
        wait_for(lambda: name in self.registered or self.hung_up.is_set(), f"to register {name}")
        return self.registered.get(name, -1)

    def send(self, kind: int, payload: bytes) -> None:
        self.socket.sendall(struct.pack("HHH6x", 1, kind, len(payload)) + payload)

    def reply(self, name: str, result: int, text: str = "") -> None:
        self.send(self.UPDATE_RSP, struct.pack("i32s32s", result, name.encode(), text.encode()))

    def request(self, number: int = 0) -> UpdateRequest:
        wait_for(lambda: len(self.requests) > number, f"for update request {number}")
        return self.requests[number]

    def set_mode(self, name: str, manual: bool) -> None:
        self.send(self.MODE, struct.pack("32si", name.encode(), int(manual)))

    def deregister(self, name: str) -> None:
        self.send(self.DEREGIST, name.encode() + b"\0")

    def die(self) -> None:
        # Closing alone would leave it open while the listening thread reads.
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()

    def _listen(self) -> None:
        try:
            with self.socket.makefile("rb") as stream:
                while len(header := stream.read(12)) == 12:
                    _, kind, length = struct.unpack("HHH6x", header)
                    self._receive(kind, stream.read(length))
        except (OSError, ValueError):
            pass  # the test closed its own side
        self.hung_up.set()

    def _receive(self, kind: int, payload: bytes) -> None:
        if kind == self.REGIST_RSP:
            result, name = struct.unpack("i32s", payload)
            self.registered[name.rstrip(b"\0").decode()] = result
        elif kind == self.UPDATE_REQ:
            request = UpdateRequest.parse(payload)
            answer = self.answer(self, request)
            self.requests.append(request)
            if answer is not None:
                self.reply(request.app, *answer)


@dataclass
class Command:
    """http_client_cli at work."""

    process: subprocess.Popen[str]
    output: Callable[[], str]

    def finish(self, status: int = 0) -> str:
        code = self.process.wait(DEADLINE)
        assert code == status, f"exit status {code}: {self.output()}"
        return self.output()


class Device:
    """A device: its directories and device files, the daemon, its operator."""

    def __init__(self, scratch: Scratch) -> None:
        self.scratch = scratch
        self.root = scratch.root
        self.tmp, self.data, self.files = (self.root / n for n in ("t", "d", "r"))
        self.work = self.tmp / "oam/http_client"
        self.resume_file = self.data / "oam/http_client/http_recode.txt"
        self.syslog_file = self.root / "syslog"
        self.clock = ClockShift(self.root / "clock")
        self.daemon: subprocess.Popen[str] | None = None
        self.commands = 0
        self.starts = 0
        self.apps: list[App] = []
        self.tmp.mkdir()
        self.data.mkdir()
        for path, text in {"proc/setmac/SerialNO": "SN0001", "proc/setmac/projectid": "EG3210",
                           "proc/macaddr": "00:11:22:33:44:55\n",
                           "etc/http_client/device.conf":
                           "os_name=LAB\nproject=_EG3210\nrelease_type=Release\n"
                           "release=1.0\nhw_version=1.00\n"}.items():
            (self.files / path).parent.mkdir(parents=True, exist_ok=True)
            (self.files / path).write_text(text)

    # ---- the daemon ----

    def environment(self, **more: str) -> dict[str, str]:
        return {"PATH": os.environ["PATH"], "TZ": "UTC", "TMPDIR": str(self.tmp),
                "DATA_VEMO_DIR": str(self.data), "HTTP_CLIENT_DEVICE_ROOT": str(self.files),
                "PRINTK_SYSLOG_FILE": str(self.syslog_file),
                # Nothing of a test may ask a real name server, or a proxy.
                "DNS_CLIENT_SERVERS": "127.0.0.1:9", "http_proxy": "http://127.0.0.1:9",
                "ASAN_OPTIONS": "verify_asan_link_order=0", **more}

    def start(self, *options: str, speed: int = 1, **environment: str) -> None:
        self.starts += 1
        more = dict(environment, TQ_THREAD_SPEED=str(speed))
        if self.clock.used:
            more |= {"LD_PRELOAD": str(self.clock.library),
                     "CLOCK_SHIFT_FILE": str(self.clock.path)}
        self.daemon = self.scratch.spawn(
            f"daemon{self.starts}", [BIN_DIR / "http_client.elf", *options],
            env=self.environment(**more), cwd=self.root)
        self.scratch.at_end.append(self.close)
        wait_for(self.ready, "for the daemon to be ready")

    def ready(self) -> bool:
        assert self.daemon is not None and self.daemon.poll() is None, "the daemon has ended: " + (
            self.root / f"daemon{self.starts}.err").read_text()
        for name in (".http_update", ".http_client_cli"):
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
                if probe.connect_ex(str(self.work / name)) != 0:
                    return False
        return True

    def held(self) -> tuple[int, int]:
        """Descriptors and threads of the daemon."""
        process = Path(f"/proc/{self.daemon.pid}")
        return len(list(process.glob("fd/*"))), len(list(process.glob("task/*")))

    def own_kib(self) -> int:
        """Memory that only the daemon has; 0 under a sanitizer, whose heap keeps all."""
        process = Path(f"/proc/{self.daemon.pid}")
        if re.search(r"lib[at]san", (process / "maps").read_text()):
            return 0
        return int(re.search(r"Anonymous: *(\d+)", (process / "smaps_rollup").read_text())[1])

    def kill(self) -> None:
        """Ends the daemon, and its apps, as a power cut would."""
        assert self.daemon is not None and self.daemon.poll() is None, "the daemon had ended"
        for app in self.apps:
            app.die()
        self.daemon.kill()
        self.daemon.wait()
        self.daemon = None

    def close(self) -> None:
        ended = None if self.daemon is None else self.daemon.poll()
        if ended is not None:
            self.scratch.reports.append(f"the daemon ended by itself, status {ended}")
        self.daemon = None

    # ---- its apps ----

    def connect(self, answer: Answer = install) -> App:
        app = App(self.work / ".http_update", answer)
        self.apps.append(app)
        return app

    def app(self, name: str, version: str = "1.0", flags: int = 0, save: str | Path | None = None,
            answer: Answer = install) -> App:
        """Registers an app on a connection of its own, saving to a folder of its own."""
        app = self.connect(answer)
        assert app.register(name, version, self.saved(name) if save is None else save, flags) == 0
        return app

    def saved(self, app: str) -> str:
        return f"{self.root}/apps/{app}/"

    def disk(self, app: str) -> dict[str, bytes]:
        """The files in an app's folder."""
        return {p.name: p.read_bytes() for p in sorted(Path(self.saved(app)).glob("*"))}

    # ---- its operator ----

    def begin(self, *commands: str, options: tuple[str, ...] = ()) -> Command:
        self.commands += 1
        name = f"cli{self.commands}"
        words = [word for command in commands for word in ("-c", command)]
        process = self.scratch.spawn(name, [BIN_DIR / "http_client_cli", *options, *words],
                                     env=self.environment(), start_new_session=True)
        return Command(process, lambda: self.scratch.output(name))

    def cli(self, *commands: str, status: int = 0, options: tuple[str, ...] = ()) -> str:
        return self.begin(*commands, options=options).finish(status)

    def configure(self, *lines: str, status: int = 0, second: bool = False) -> str:
        return self.cli("configure", *lines, "end", status=status, options=second * SECOND_LIST)

    def use(self, server: LabServer) -> None:
        """Asks this server; the daily run is half a day away."""
        assert self.configure(f"http update server {server.host} port {server.port}") == ""
        self.daily_in(minutes=720)

    def daily_in(self, minutes: int) -> None:
        then = time.gmtime(time.time() + self.clock.wall + minutes * 60)
        self.configure(time.strftime("http update time daily %H:%M", then))

    def versions(self) -> dict[str, str]:
        rows = self.cli("show http-update info version").splitlines()[2:]
        return {row.split()[1]: row.split()[2] for row in rows}

    # ---- what it leaves behind ----

    def syslog(self) -> str:
        return self.syslog_file.read_text() if self.syslog_file.exists() else ""

    def dump(self) -> str:
        return (self.work / ".http_reg_server_dump").read_bytes().decode()

    def wait_log(self, text: str, count: int = 1) -> None:
        wait_for(lambda: self.syslog().count(text) >= count, f"for {text!r} in the log")

    def resume(self) -> dict[str, list[str]]:
        """The resume file: app to file paths, in order; empty when there is none."""
        if not self.resume_file.exists():
            return {}
        return {app.get("name", ""): [f.get("name", "") for f in app.findall("file")]
                for app in ET.parse(self.resume_file).getroot()}


class ClockShift:
    """Both clocks of the daemon: clock_shift.cpp adds the seconds in a shared file."""

    def __init__(self, path: Path) -> None:
        self.path = path
        path.write_bytes(bytes(40))
        self.used = False
        # A name for LD_PRELOAD, which takes a blank in a path for its end.
        self.library = path.with_suffix(".so")
        self.library.symlink_to(BIN_DIR.parent / "lib/libclock_shift.so")
        self.set(wall=0, monotonic=0)

    def set(self, wall: int, monotonic: int) -> None:
        self.wall, self.monotonic = wall, monotonic
        with self.path.open("r+b") as file:
            file.write(struct.pack("qq", wall, monotonic))

    def pass_time(self, seconds: int) -> None:
        self.set(self.wall + seconds, self.monotonic + seconds)

    def follow(self) -> None:
        """Has the event loops notice within 1 ms what a shift makes due."""
        with self.path.open("r+b") as file:
            file.write(struct.pack("qqq", self.wall, self.monotonic, 1_000_000))

    def settle(self) -> None:
        """Waits until both loops have done all that is due."""
        def turns() -> tuple[int, ...]:
            return struct.unpack_from("qq", self.path.read_bytes(), 24)

        before, end = turns(), time.monotonic() + DEADLINE
        while any(now < then + 2 for now, then in zip(turns(), before, strict=True)):
            assert time.monotonic() < end, "an event loop does not turn"
            time.sleep(0.0005)


def private_mounts() -> bool:
    """Gives this process mounts of its own, which go away with it; false if refused."""
    new_mounts = 0x00020000
    if ctypes.CDLL(None, use_errno=True).unshare(new_mounts) != 0:
        return False
    return subprocess.run(["mount", "--make-rprivate", "/"], check=False).returncode == 0
