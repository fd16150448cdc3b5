#!/usr/bin/python3
"""Plays the life of one device in minutes: did it grow, and did every daily run come?

    tests/system/long_life [--days 1000] [--seed 1]

Only time is not real: both clocks of the daemon go forth by 75 s where a daily run may be
due, else by 20 minutes, and all that becomes due by a step is done before the next. Half of
the life is one process; then it is killed now and then. Ends with 1 when a promise is
broken: a daily run that no rule explains, a file handed over that is not complete, an app
that is not up to date after a day without faults, growth.
"""

from __future__ import annotations

import argparse
import calendar
import os
import random
import shutil
import sys
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.append(str(Path(__file__).resolve().parents[1] / "support"))

from lab import (
    DEADLINE, INCREMENTAL, MANUAL, App, Device, LabServer, Scratch, UpdateRequest, wait_for)

ZONE = "CET-1CEST,M3.5.0,M10.5.0/3"
HOUR, DAY = 3600, 86_400
# All steps are multiples of 15 s, and none ends at the edge of a minute.
BIRTH = calendar.timegm((2027, 1, 1, 12, 0, 5))
CLOSE, FAR = 75, 1200
DAILY_TIMES = ((2, 30),) * 3 + ((20, 15), (23, 55))  # summer time skips and repeats the first
JUMPS = (3 * HOUR, -3 * HOUR, 25 * HOUR, -25 * HOUR, -20_000 * DAY)
FAULTS = ({"drop": True}, {"method": "POST", "status": 503}, {"method": "POST", "reply": "garbage"},
          {"path": "*/b", "cut_after": 9000}, {"path": "*/a", "status": 404})
COMMANDS = ("http update all", "http background-update all", "http check-version", "write")
FILES = {"http_client.running", ".http_update", ".http_client_cli", ".tech_support", "a", "b",
         ".http_reg_server_dump", "startup-config", "http_recode.txt", "history.json"}
MEMORY_MAX_KIB = 1024  # what is promised of it at rest


class Life:
    def __init__(self, scratch: Scratch, seed: int) -> None:
        self.random = random.Random(seed)
        self.device, self.server = Device(scratch), LabServer(scratch)
        self.server.say = lambda line: None
        self.wall, self.passed = BIRTH, 0
        self.manual_mode = self.off = self.spoilt = False
        self.events: list[tuple[int, Callable[[], None]]] = []
        self.apps: dict[str, tuple[App, bool, bool]] = {}  # app, manual, installs what it gets
        self.installed = {f"app{n}": "1" for n in range(6)}
        self.made: dict[str, dict[str, bytes]] = {}
        self.counts: Counter[str] = Counter()
        self.device.syslog_file.touch()
        self.log = self.device.syslog_file.open()
        self.device.clock.used = True
        self.newest = dict(self.installed)
        for name in self.newest:
            self.publish(name)
        self.start()
        self.configure(f"http update server {self.server.host} port {self.server.port}",
                       daily=DAILY_TIMES[0])

    def broke(self, what: str) -> None:
        self.counts["broken promises"] += 1
        print(f"BROKEN on day {self.passed // DAY}: {what}", flush=True)

    # ---- time, and the rule of the daily run ----

    def due(self, wall: int) -> bool:
        now = time.localtime(wall)
        return ((now.tm_hour - self.daily[0]) * HOUR + (now.tm_min - self.daily[1]) * 60
                + now.tm_sec) % DAY < 600

    def shift(self, seconds: int) -> None:
        self.wall += seconds
        self.passed += seconds
        self.device.clock.set(self.wall - int(time.time()), self.passed)

    def step(self, seconds: int = CLOSE, stalled: str = "") -> None:
        """Lets time pass and holds what the daemon did against the rule."""
        self.shift(seconds)
        due = self.due(self.wall)
        if self.off:
            self.held += ["the device was off"] * due
            return
        if stalled:
            self.server.wait_stalled(stalled, 9000)
        else:
            self.device.clock.settle()
        log, now = self.log.read(), time.monotonic() + self.passed
        began = log.count("auto_time happen")
        apart = now - self.last_run
        may = due and not self.manual_mode and apart > HOUR - 5
        if began > may or (may and not began and apart > HOUR + 5):
            self.broke(f"{began} daily runs at {time.ctime(self.wall)}, {apart:.0f} s apart")
        nobody = began > 0 and all(manual for _, manual, _ in self.apps.values())
        met = "timer: There are business modules in the upgrading" in log
        reasons = {"the mode was manual": due and self.manual_mode, "no app was there": nobody,
                   "it met an operator's run": met, "an hour had not passed": due and not began}
        self.held += [reason for reason, holds in reasons.items() if holds]
        if began and not nobody:
            self.last_run = now
            if not met:
                self.ran()

    def ran(self) -> None:
        offset = time.localtime(self.wall).tm_gmtoff
        if self.runs:
            self.explain("doubled", ["the daemon was started anew"] * self.restarted + [
                "the clock was set"] * self.jumped + ["summer time ended"] * (offset < self.offset))
        self.runs, self.offset, self.restarted, self.jumped = self.runs + 1, offset, False, False

    def explain(self, what: str, reasons: list[str]) -> None:
        self.counts[f"daily runs {what}: {(reasons or ['?'])[0]}"] += 1
        if not reasons:
            self.broke(f"a daily run {what}, and no rule explains it")

    def stride(self) -> int:
        return CLOSE if any(self.due(self.wall + s) for s in range(0, FAR + CLOSE, CLOSE)) else FAR

    def play(self, until: int) -> None:
        """Plays on; a day begins at noon, far from every daily time."""
        self.runs, self.held, self.restarted, self.jumped = 0, [], False, False
        noon = time.localtime(self.wall).tm_gmtoff
        while self.passed < until:
            while self.events and self.events[0][0] <= self.passed:
                self.events.pop(0)[1]()
            self.step(self.stride())
        if not self.runs:
            self.explain("missed", self.held + ["the clock was set"] * self.jumped + [
                "summer time began"] * (noon < time.localtime(self.wall).tm_gmtoff))
        elif not self.spoilt and not self.manual_mode:
            new = {(name, self.newest[name]) for name, app in self.apps.items() if app[2]}
            wait_for(lambda: new <= set(self.device.versions().items()), f"for {new}")

    # ---- the device, its apps, its server ----

    def start(self) -> None:
        self.shift(0)
        self.device.clock.follow()
        self.device.start("-di", TZ=ZONE)
        self.threads = self.device.held()[1]  # without the one that waits for a download program
        self.off, self.restarted, self.last_run = False, True, float("-inf")
        self.first = None
        for name in self.apps:
            self.join(name)

    def kill(self) -> None:
        self.device.kill()
        self.device.apps.clear()
        self.off = self.spoilt = True
        self.counts["the daemon was killed"] += 1

    def configure(self, *lines: str, daily: tuple[int, int]) -> None:
        self.daily = daily
        self.device.cli("configure", *lines, "http update time daily %02d:%02d" % daily, "end",
                        "write")

    def set_manual(self, manual: bool) -> None:
        self.manual_mode = manual
        self.configure("http update mode manual" if manual else "no http update mode",
                       daily=self.random.choice(DAILY_TIMES))

    def set_clock(self, seconds: int) -> None:
        self.wall += seconds
        self.jumped = self.spoilt = True
        self.counts["the clock was set"] += 1

    def operate(self, command: str) -> None:
        if not self.off:
            # A server or the apps may be away just now.
            assert self.device.begin(command).process.wait(DEADLINE) in (0, 3, 5), command
            self.device.cli(options=("--tech-support", str(self.device.root / "bundle")))
            self.counts["operator's commands"] += 1
            wait_for(lambda: "state: free" in self.device.cli("http update display-progress"))

    def publish(self, name: str) -> None:
        shutil.rmtree(self.server.folder / name, ignore_errors=True)
        self.newest[name] = str(int(self.newest[name]) + 1)
        self.made[name] = self.server.release(name, self.newest[name], {"a": 3000, "b": 30_000})

    def answer(self, app: App, request: UpdateRequest) -> tuple[int, str]:
        for path in map(Path, request.files):
            if path.read_bytes() != self.made[request.app][path.name]:
                self.broke(f"{path} was handed over, but is not complete")
        self.counts["updates handed over"] += 1
        if request.files[-1].endswith("b"):  # else more is to come
            self.installed[request.app] = request.records["version"]
        return 0, self.installed[request.app]

    def join(self, name: str, good: bool = False) -> None:
        """Of five apps one is in manual mode; of ten one fails to install, one never answers."""
        flags = self.random.choice((0, 0, INCREMENTAL, INCREMENTAL) + (MANUAL,) * (not good))
        answer = self.answer if good else self.random.choice(
            (self.answer,) * 8 + (lambda app, request: (1, ""), lambda app, request: None))
        app = self.device.app(name, self.installed[name], flags, answer=answer)
        self.apps[name] = app, flags == MANUAL, flags != MANUAL and answer == self.answer

    def leave(self, name: str) -> None:
        app, _, _ = self.apps.pop(name)
        self.device.apps.remove(app)
        app.die()
        self.device.clock.settle()

    # ---- what befalls it ----

    def cross_daily_run(self, operator: bool) -> None:
        """Has the next daily run meet an operator's run, or end by a kill in a download."""
        names = [name for name, (_, _, good) in self.apps.items() if good]
        while not self.off and self.stride() == CLOSE and not self.due(self.wall + CLOSE):
            self.step()
        if not self.due(self.wall + CLOSE) or self.off or self.manual_mode or not names or (
                self.passed < self.last_run - time.monotonic() + HOUR):
            return
        self.server.heal()
        self.publish(names[0])
        self.spoilt = True
        if operator:
            self.server.fault(method="POST", delay=0.5, times=1)
            asked = len(self.server.queries())
            self.device.cli("http background-update all")
            wait_for(lambda: len(self.server.queries()) > asked)
            self.step()
            self.operate("http check-version")
        else:
            path = f"{names[0]}/{self.newest[names[0]]}/b"
            self.server.fault(path="*/" + path, stall_after=9000)
            self.step(stalled=path)
            self.kill()
            self.server.heal()
            self.start()

    def day(self, rough: bool) -> None:
        """Draws what happens until the next noon, and plays it."""
        noon, chance, choice = self.passed // DAY * DAY, self.random.random, self.random.choice
        run = noon + next((s for s in range(0, DAY, CLOSE) if self.due(self.wall + s)), 14 * HOUR)
        moments = [noon + self.random.randrange(20 * HOUR), run - 300, run + 160, run + 700]
        self.spoilt = bool(self.server.rules.to_json())
        nobody = chance() < 0.02
        for name in self.newest:
            if chance() < 0.3:
                self.publish(name)
            if name in self.apps and (nobody or chance() < 0.15):
                self.leave(name)
            if name not in self.apps and not nobody and chance() < 0.5:
                self.join(name)
        if self.manual_mode or chance() < 0.04:
            self.set_manual(not self.manual_mode)
        if not self.spoilt and chance() < 0.12:
            self.spoilt = True
            self.counts["server outages"] += 1
            self.server.fault(**choice(FAULTS))
            self.events.append((choice(moments) + choice((HOUR, DAY, 3 * DAY)), self.server.heal))
        if chance() < 0.08:
            begin, seconds = choice(moments), choice(JUMPS)
            end = min(begin + self.random.randrange(HOUR, DAY), noon + 23 * HOUR)
            self.events += [(begin, lambda: self.set_clock(seconds)),
                            (end, lambda: self.set_clock(-seconds))]
        if chance() < 0.3:
            self.events.append((choice(moments), lambda: self.operate(choice(COMMANDS))))
        if chance() < 0.02:
            self.events.append((run - 300, lambda: self.cross_daily_run(operator=True)))
        elif rough and chance() < 0.05:
            self.events.append((run - 300, lambda: self.cross_daily_run(operator=False)))
        elif rough and chance() < 0.05:
            begin = choice(moments)
            self.events += [(begin, self.kill), (begin + choice((60, HOUR, 3 * HOUR)), self.start)]
        self.events.sort(key=lambda event: event[0])
        self.play(noon + DAY)

    def sample(self) -> None:
        """Prints what the daemon holds at rest; it may not have grown."""
        wait_for(lambda: self.device.held()[1] == self.threads, "for the download program to end")
        descriptors, threads = self.device.held()
        left = [path.name for top in ("t", "d", "apps")
                for path in (self.device.root / top).rglob("*") if not path.is_dir()]
        now = (self.device.own_kib(), descriptors - len(self.apps), threads)
        first = self.first = self.first or now
        if now[0] > MEMORY_MAX_KIB or now[1:] != first[1:] or set(left) - FILES:
            self.broke(f"growth from {first} to {now}; strange files: {set(left) - FILES}")
        print("{:5}{:9}{:9}{:13}{:9}{:7}".format(
            self.passed // DAY, self.device.starts, *now, len(left)), flush=True)

    def end(self) -> None:
        """A day without faults, after which nothing is left to do."""
        self.server.heal()
        self.set_manual(False)
        for name in self.newest:
            if name in self.apps:
                self.leave(name)
            self.join(name, good=True)
        self.events, self.spoilt = [], False
        self.play(self.passed // DAY * DAY + DAY)
        self.sample()
        if self.device.resume() or any(self.device.disk(n) != self.made[n] for n in self.made):
            self.broke(f"something is left to do: {self.device.resume()}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--days", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    given = parser.parse_args()
    os.environ["TZ"] = ZONE
    time.tzset()
    scratch, begin = Scratch(), time.monotonic()
    try:
        life = Life(scratch, given.seed)
        print("  day  process  own KiB  descriptors  threads  files")
        for day in range(given.days):
            life.day(rough=day >= given.days / 2)
            if day % max(5, given.days // 20) == 4 and not life.off:
                life.sample()
        life.end()
    finally:
        scratch.close()
    print(f"{given.days + 1} days in {time.monotonic() - begin:.0f} s")
    for what in sorted(life.counts):
        print(f"{life.counts[what]:6} {what}")
    return 1 if life.counts["broken promises"] else 0


if __name__ == "__main__":
    sys.exit(main())
