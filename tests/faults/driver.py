#!/usr/bin/python3
"""Fails, kills and cuts off from power the daemon at every call that can fail.

    run                          every point of every scene, by two workers
    run --sample 700             as many, drawn by --seed
    run --scene start --kind once
    run --scene start --kind once --point malloc:1f3a5b7c9d2e4f60:1:ENOMEM

A point is a call path of a scene and one of its first occurrences there. Kinds:
once (the call fails), ever (it and all of its group fail until they are mended),
kill (the process ends there) and cut (so does the power: what was not synced is
absent, zeroed, short or torn). A call path is that of this build: a point names the
same call as long as the programs stay the same. HTTP_CLIENT_BIN names another
folder of programs. Ends with 1 when a promise was broken.
"""

from __future__ import annotations

import argparse
import ctypes
import errno
import functools
import json
import multiprocessing
import os
import random
import re
import resource
import signal
import subprocess
import sys
from collections import Counter
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from multiprocessing import util
from pathlib import Path

sys.dont_write_bytecode = True
from device import BIN_DIR, EVER, KILL, ONCE, PROMISES, SCENES, SHIM, Device, play  # noqa: E402
from power import Disk  # noqa: E402

KINDS = {"once": ONCE, "ever": EVER, "kill": KILL, "cut": KILL}
OCCURRENCES = {"once": 2, "ever": 1, "kill": 2, "cut": 6}  # of a call path, the first
# What only reads leaves the disk as the call before it did.
READS = ("read", "pread", "access", "stat", "lstat", "fstat", "fstatat", "fstatvfs", "statvfs",
         "fgetxattr", "lgetxattr", "fcntl")
ALLOC, DESCRIPTOR, DISK, NETWORK, LOOP, THREAD, GROWTH, WAIT = (1 << n for n in range(8))
GROUPS = {ALLOC: "ENOMEM", DESCRIPTOR: "EMFILE", DISK: "EIO", NETWORK: "ENOBUFS", LOOP: "ENOMEM",
          THREAD: "EAGAIN", GROWTH: "ENOSPC"}
SHORT = -1
# How a call fails once; the others as the first of their groups does. What waits can be
# interrupted, too.
ERRORS = {
    "open": "EMFILE EIO", "write": "ENOSPC EIO SHORT", "rename": "EIO ENOSPC",
    "mkdir": "ENOSPC EIO", "fsetxattr": "ENOSPC ENOTSUP", "ftruncate": "EIO",
    "fgetxattr": "EIO ENOTSUP", "socket": "EMFILE ENOBUFS", "accept4": "EMFILE ECONNABORTED",
    "connect": "ECONNREFUSED ETIMEDOUT", "send": "ECONNRESET SHORT", "sendmsg": "ECONNRESET",
    "recv": "ECONNRESET", "recvmsg": "ECONNRESET", "epoll_ctl": "ENOMEM ENOSPC"}


@dataclass(frozen=True)
class Point:
    scene: str
    kind: str
    detail: str  # the error, or the loss by a power cut
    call: str
    path: int
    occurrence: int
    groups: int
    frames: tuple[tuple[str, int], ...]

    def words(self) -> str:
        return (f"--scene {self.scene} --kind {self.kind} "
                f"--point {self.call}:{self.path:016x}:{self.occurrence}:{self.detail}")


def details(kind: str, call: str, groups: int) -> list[tuple[str, int]]:
    """Each way in which a call is spoiled, and the groups that fail with it."""
    if kind == "ever":
        return [(word, bit) for bit, word in GROUPS.items() if groups & bit]
    if kind == "once":
        usual = next((word for bit, word in GROUPS.items() if groups & bit), "")
        words = [*ERRORS.get(call, usual).split(), *(["EINTR"] if groups & WAIT else [])]
    else:
        changes = groups & DISK and call not in READS
        words = ["SIGKILL"] if kind == "kill" else Disk.LOSSES if changes else []
    return [(word, 0) for word in words]


# ---- in the workers

def begin() -> None:
    global device
    device = Device()
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG: not without the parent
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    util.Finalize(None, device.close, exitpriority=10)
    signal.signal(signal.SIGTERM, lambda *_: (device.close(), os._exit(1)))


def count(scene: str) -> tuple[str, list[tuple], tuple[int, int], dict[str, str]]:
    """Every call of a scene without faults, and the descriptors and threads at its end."""
    calls: dict[int, tuple] = {}
    held, broken = (0, 0), {}
    for _ in range(3):
        device.patience = 4
        play(device, scene)
        broken |= device.found
        held = max(held, device.held())
        for call in device.counted:
            calls[call[0]] = max(call, calls.get(call[0], call), key=lambda c: c[1])
    return scene, list(calls.values()), held, broken


def attempt(work: tuple[Point, tuple[int, int]]) -> dict:
    """What the fault broke, and what it broke but not again with more patience."""
    point, held = work
    error = {"SHORT": SHORT}.get(point.detail, getattr(errno, point.detail, 0))
    loss = point.detail if point.kind == "cut" else ""
    seen: list[dict[str, str]] = []
    for device.patience in (1, 3, 9, 9):  # a machine may be busy, a path taken by chance only
        if seen and (not seen[-1] or len(seen) == 3):
            break
        try:
            if play(device, point.scene, KINDS[point.kind], loss, held, path=point.path,
                    error=error, occurrence=point.occurrence, groups=point.groups):
                seen.append(dict(device.found))
        except Exception as fault:  # of the driver itself: it must be seen, too
            seen.append({"end": f"{type(fault).__name__}: {fault}"})
    broken = seen[-1] if seen else {}
    unsteady = {p: text for s in seen for p, text in s.items() if p not in broken}
    stack = [name for frame in point.frames for name in functions(*frame)] if broken else []
    return {"words": point.words(), "scene": point.scene, "kind": point.kind, "call": point.call,
            "reached": bool(seen), "stack": stack, "broken": broken, "unsteady": unsteady}


@functools.cache
def functions(library: str, offset: int) -> list[str]:
    """The project's functions that lie there, inlined ones first."""
    if not library.startswith(str(BIN_DIR.parent)) or library == str(SHIM):
        return []
    text = subprocess.run(["addr2line", "-Cfip", "-e", library, hex(offset)],
                          stdout=subprocess.PIPE, text=True, check=True).stdout
    found = re.findall(r"^(?: \(inlined by\) )?(.*) at (\S+)", text, re.M)
    return [f"{name.replace('(anonymous namespace)::', '').split('(')[0]} ({Path(place).name})"
            for name, place in found if "/include/c++/" not in place]


# ---- in the parent

def points(scene: str, calls: list[tuple], kinds: list[str]) -> list[Point]:
    return [Point(scene, kind, detail, call, path, occurrence, fails, frames)
            for path, hits, groups, call, frames in calls for kind in kinds
            for occurrence in range(1, min(hits, OCCURRENCES[kind]) + 1)
            for detail, fails in details(kind, call, groups)]


def show(result: dict) -> None:
    if result["broken"]:
        print(result["words"], " < ".join(result["stack"][:4]), result["broken"], sep="\n    ",
              flush=True)


def report(results: list[dict]) -> str:
    """Points by scene, and by promise those that broke it."""
    reached = [r for r in results if r["reached"]]
    tried = Counter((r["scene"], r["kind"]) for r in reached)
    broken = Counter((promise, r["kind"]) for r in reached for promise in r["broken"])
    text = [f"not reached: {r['words']}" for r in results if not r["reached"]]
    for title, rows, cells in ("points", SCENES, tried), ("failures", PROMISES, broken):
        text += ["", f"{title:10}" + "".join(f"{kind:>8}" for kind in KINDS)]
        text += [f"{row:10}" + "".join(f"{cells[row, k]:8}" for k in KINDS) for row in rows]
    text += ["", f"{len(reached)} points tried, {sum(bool(r['broken']) for r in reached)} failed, "
             f"{sum(bool(r['unsteady']) for r in reached)} unsteady, "
             f"{len(results) - len(reached)} not reached"]
    return "\n".join(text)


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=int, metavar="POINTS", help="try so many only")
    parser.add_argument("--seed", type=int, default=1, help="of a sample")
    parser.add_argument("--scene", choices=SCENES, action="append")
    parser.add_argument("--kind", choices=KINDS, action="append")
    parser.add_argument("--point", metavar="CALL:PATH:OCCURRENCE:DETAIL")
    parser.add_argument("--jobs", type=int, default=2, help="points tried at the same time")
    parser.add_argument("--json", type=Path, default=Path(os.devnull), help="file for a line of "
                        "each point; the points that it has are not tried again")
    return parser.parse_args()


def main() -> int:
    given = arguments()
    results = [json.loads(line) for line in given.json.open()] if given.json.is_file() else []
    for result in results:
        show(result)
    done = {r["words"] for r in results}
    with ProcessPoolExecutor(given.jobs, multiprocessing.get_context("fork"), begin) as pool:
        every, held = [], {}
        for scene, calls, holds, broken in pool.map(count, given.scene or SCENES):
            if broken:
                print(f"{scene} fails without a fault: {broken}")
                return 2
            held[scene] = holds
            every += points(scene, calls, given.kind or list(KINDS))
        every = [p for p in every
                 if p.words().endswith(given.point or "") and p.words() not in done]
        if given.sample:
            random.Random(given.seed).shuffle(every)
            del every[given.sample:]
        print(f"{len(every)} points", flush=True)
        with given.json.open("a", buffering=1) as file:
            for result in pool.map(attempt, [(p, held[p.scene]) for p in every]):
                results.append(result)
                file.write(json.dumps(result) + "\n")
                show(result)
    print(report(results))
    return 1 if any(r["broken"] for r in results) or not results else 0


if __name__ == "__main__":
    sys.exit(main())
