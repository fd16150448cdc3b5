#!/usr/bin/python3
"""Fails, kills and cuts off from power the daemon at every call that can fail.

    run                          every point of every scene, by two workers
    run --sample 120             as many as two minutes allow, drawn anew each time
    run --scene start --kind once
    run --scene start --kind once --point malloc:1f3a5b7c9d2e4f60:1:ENOMEM

A point is a call path of a scene and one of its first occurrences there. Kinds:
once (the call fails), ever (it and all of its group fail until they are mended),
kill (the process ends there) and cut (so does the power: what was not synced is
absent, zeroed, short or torn). A call path is that of this build: a point names the
same call as long as the programs stay the same. HTTP_CLIENT_BIN names another
folder of programs.
"""

from __future__ import annotations

import argparse
import errno
import json
import multiprocessing
import os
import random
import resource
import signal
import subprocess
import sys
import time
from collections import Counter, defaultdict
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from multiprocessing import util
from pathlib import Path

sys.dont_write_bytecode = True
import device as lab  # noqa: E402
from device import BIN_DIR, EVER, KILL, ONCE, PROMISES, SCENES, Device, play  # noqa: E402
from power import Disk  # noqa: E402

KINDS = ("once", "ever", "kill", "cut")
SHORT = -1
ALLOC, DESCRIPTOR, DISK, NETWORK, LOOP, WAIT, THREAD, GROWTH = (1 << n for n in range(8))
GROUPS = {ALLOC: "ENOMEM", DESCRIPTOR: "EMFILE", DISK: "EIO", NETWORK: "ENOBUFS", LOOP: "ENOMEM",
          THREAD: "EAGAIN", GROWTH: "ENOSPC"}
# How each call fails once; the others as their group does.
ERRORS = {
    "open": "EMFILE EIO", "read": "EIO EINTR", "write": "ENOSPC EIO EINTR SHORT",
    "rename": "EIO ENOSPC", "mkdir": "ENOSPC EIO", "fsetxattr": "ENOSPC ENOTSUP",
    "ftruncate": "EIO", "fgetxattr": "EIO ENOTSUP", "fcntl": "ENOLCK", "socket": "EMFILE ENOBUFS",
    "accept4": "EMFILE ECONNABORTED EINTR", "connect": "ECONNREFUSED ETIMEDOUT EINTR",
    "send": "ECONNRESET EINTR SHORT", "sendmsg": "ECONNRESET EINTR", "sendto": "ENOBUFS EINTR",
    "recv": "ECONNRESET EINTR", "recvmsg": "ECONNRESET EINTR", "epoll_ctl": "ENOMEM ENOSPC"}
# Of one call path: the first occurrences that are tried.
OCCURRENCES = {"once": 2, "ever": 2, "kill": 2, "cut": 6}


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
    bits = [bit for bit in GROUPS if groups & bit]
    if kind == "ever":
        return [(GROUPS[bit], bit) for bit in bits]
    if kind == "kill":
        return [("SIGKILL", 0)]
    if kind == "cut":
        return [(loss, 0) for loss in Disk.LOSSES] if groups & DISK else []
    return [(word, 0) for word in ERRORS.get(call, GROUPS[bits[0]] if bits else "EINTR").split()]


def is_own(library: str) -> bool:
    return library.startswith(str(BIN_DIR.parent)) and library != str(lab.SHIM)


# ---- in the workers

def begin() -> None:
    global device, confirmed
    device, confirmed = Device(), set()
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


def cause(point: Point, found: dict[str, str]) -> tuple:
    """The same for points that fail in the same way at the same place."""
    own = [frame for frame in point.frames if is_own(frame[0])]
    return point.scene, point.kind, tuple(own[:3]), frozenset(found)


def attempt(work: tuple[Point, tuple[int, int], float]) -> tuple[Point, str, dict, dict] | None:
    """What the fault broke, and what it broke once but not again; None: too late."""
    point, held, deadline = work
    if deadline and time.monotonic() > deadline:
        return None
    kind = {"once": ONCE, "ever": EVER}.get(point.kind, KILL)
    error = {"SHORT": SHORT}.get(point.detail, getattr(errno, point.detail, 0))
    loss = point.detail if point.kind == "cut" else ""
    seen: list[dict[str, str]] = []
    for device.patience in (1, 1, 2.5, 2.5):  # a machine may be busy, a path taken by chance only
        if len(seen) == 2 or (seen and (not seen[0] or cause(point, seen[0]) in confirmed)):
            break
        try:
            if play(device, point.scene, kind, loss, held, path=point.path, error=error,
                    occurrence=point.occurrence, groups=point.groups):
                seen.append(dict(device.found))
        except Exception as fault:  # of the driver itself: it must be seen, too
            seen.append({"end": f"{type(fault).__name__}: {fault}"})
    if not seen:
        return point, "not reached", {}, {}
    broken = {p: text for p, text in seen[-1].items() if p in seen[0]}
    confirmed.add(cause(point, broken))
    return point, "tried", broken, {p: t for s in seen for p, t in s.items() if p not in broken}


# ---- in the parent

def points(scene: str, calls: list[tuple], kinds: list[str]) -> list[Point]:
    return [Point(scene, kind, detail, call, path, occurrence, fails, frames)
            for path, hits, groups, call, frames in calls for kind in kinds
            for occurrence in range(1, min(hits, OCCURRENCES[kind]) + 1)
            for detail, fails in details(kind, call, groups)]


def places(frames_of: list[tuple[tuple[str, int], ...]]) -> dict[tuple, list[str]]:
    """For each stack the functions of the project in it, innermost first."""
    wanted = defaultdict(set)
    for frames in frames_of:
        for library, offset in frames:
            if is_own(library):
                wanted[library].add(offset)
    names: dict[tuple[str, int], list[str]] = {}
    for library, offsets in wanted.items():
        text = subprocess.run(["addr2line", "-Cfai", "-e", library, *map(hex, offsets)],
                              stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
        while text:
            inlined = names[library, int(text.pop(0), 16)] = []
            while text and not text[0].startswith("0x"):
                name = text.pop(0).replace("(anonymous namespace)::", "").split("(")[0]
                place = text.pop(0)
                if "/include/c++/" not in place:
                    inlined.append(f"{name} ({os.path.basename(place).split()[0]})")
    return {frames: [name for f in frames for name in names.get(f, ())] for frames in frames_of}


def table(results: list[tuple]) -> str:
    """Promise by scene: points tried and, behind a slash, those that broke it."""
    tried, broken = Counter(), Counter()
    for point, state, found, _ in results:
        tried[point.scene, point.kind] += state == "tried"
        broken.update((promise, point.scene, point.kind) for promise in found)
    rows = [f"{'promise':10} {'scene':10}" + "".join(f"{kind:>14}" for kind in KINDS)]
    for promise in PROMISES:
        for scene in SCENES:
            cells = [f"{tried[scene, k]}/{broken[promise, scene, k]}" for k in KINDS]
            if any(tried[scene, k] for k in KINDS):
                rows.append(f"{promise:10} {scene:10}" + "".join(f"{c:>14}" for c in cells))
    return "\n".join(rows)


def report(results: list[tuple], total: int) -> str:
    """The table, and the failures by cause: a lasting fault breaks things far from its point."""
    failed = [r for r in results if r[2]]
    where = places(list({r[0].frames for r in failed}))
    groups = defaultdict(list)
    for point, _, found, _ in failed:
        stack = where[point.frames][:3]
        cause = "for ever" if point.kind == "ever" else "in " + " < ".join(stack)
        groups[point.call, cause, tuple(found)].append((point, found))
    text = [table(results), ""]
    for (call, cause, _), members in sorted(groups.items(), key=lambda item: -len(item[1])):
        point, found = members[0]
        kinds = ", ".join(sorted({m[0].kind for m in members}))
        text += [f"{len(members)} points ({kinds}): {call} {cause}",
                 *(f"    {promise}: {reason}" for promise, reason in found.items()),
                 f"    tests/faults/run {point.words()}", ""]
    states = Counter(r[1] for r in results)
    text.append(f"{states['tried']} of {total} points tried, {len(failed)} failed, "
                f"{sum(bool(r[3]) for r in results)} unsteady, {states['not reached']} not reached")
    return "\n".join(text)


def save(path: Path, results: list[tuple], total: int) -> None:
    bad = [r for r in results if r[2] or r[3]]
    where = places(list({r[0].frames for r in bad}))
    tried = Counter((r[0].scene, r[0].kind, r[1]) for r in results)
    path.write_text(json.dumps({
        "points": total, "tried": [[*key, count] for key, count in tried.items()],
        "broken": [{"point": p.words(), "scene": p.scene, "kind": p.kind, "call": p.call,
                    "error": p.detail, "stack": where[p.frames], "promises": found,
                    "unsteady": unsteady} for p, _, found, unsteady in bad]}, indent=1))


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=float, metavar="SECONDS", help="stop after so long")
    parser.add_argument("--scene", choices=SCENES, action="append")
    parser.add_argument("--kind", choices=KINDS, action="append")
    parser.add_argument("--point", metavar="CALL:PATH:OCCURRENCE:DETAIL")
    parser.add_argument("--seed", type=int, default=time.time_ns() & 0xFFFF, help="of a sample")
    parser.add_argument("--jobs", type=int, default=2, help="points tried at the same time")
    parser.add_argument("--json", type=Path, help="file for the result")
    return parser.parse_args()


def main() -> int:
    given = arguments()
    begin_time = time.monotonic()
    with ProcessPoolExecutor(given.jobs, multiprocessing.get_context("fork"), begin) as pool:
        every, held = [], {}
        for scene, calls, holds, broken in pool.map(count, given.scene or SCENES):
            if broken:
                print(f"{scene} fails without a fault: {broken}")
                return 2
            held[scene] = holds
            every += points(scene, calls, given.kind or list(KINDS))
        if given.point:
            every = [p for p in every if p.words().endswith(f"--point {given.point}")]
        deadline = 0.0
        if given.sample:
            random.Random(given.seed).shuffle(every)
            deadline = begin_time + given.sample
        print(f"{len(every)} points" + (f", seed {given.seed}" if given.sample else ""), flush=True)
        results = []
        for done in pool.map(attempt, [(p, held[p.scene], deadline) for p in every]):
            if done is not None:
                results.append(done)
                if done[2]:
                    stack = places([done[0].frames])[done[0].frames]
                    print(done[0].words(), " < ".join(stack[:4]), str(done[2]), sep="\n    ",
                          flush=True)
    print(report(results, len(every)))
    if given.json:
        save(given.json, results, len(every))
    return 1 if any(r[2] for r in results) or not results else 0


if __name__ == "__main__":
    sys.exit(main())
