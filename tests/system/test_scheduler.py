"""The daemon by itself: daily runs at the configured time, resume runs of what failed."""

import os
import re
import struct
from pathlib import Path

import pytest
from lab import INCREMENTAL, Device, LabServer, Scratch, wait_for

# A minute of the daemon's timers takes 10 ms, a resume delay at most 1.2 s.
SPEED = 6000
EMPTY = "resume-list is empty\n"


@pytest.fixture
def device(scratch: Scratch, server: LabServer) -> Device:
    made = Device(scratch)
    made.clock.used = True
    made.start("-di", speed=SPEED)
    made.use(server)
    return made


def test_interrupted_download_is_resumed_not_repeated(
        device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 400_000, "c.bin": 10})
    app = device.app("alpha")
    server.fault(path="*/b.bin", cut_after=300_000, times=1)
    server.fault(path="*/b.bin", drop=True)
    device.daily_in(minutes=0)
    paths = [device.saved("alpha") + name for name in made]
    wait_for(lambda: device.resume() == {"alpha": paths})
    server.fault(method="POST", silent=True)  # no more tries meanwhile
    device.wait_log("alpha: Download failed.")
    report = device.cli("show http-update info resume")
    assert report.startswith("retry-count: ") and report.endswith(
        "app-name        NO. filename\n"
        "--------------- --- ------------------------------------------------\n" + "".join(
            f"alpha           {n}   {path:48.48}\n" for n, path in enumerate(paths, 1)))
    assert app.requests == [] and device.disk("alpha")["a.bin"] == made["a.bin"]

    server.heal()
    wait_for(lambda: app.requests)
    assert app.request().files == paths and device.disk("alpha") == made
    assert [r["range"] for r in server.asked("b.bin")][-1] == "bytes=283616-"
    assert [r["range"] for r in server.asked("a.bin")][1:] == ["bytes=999-999"] * (
        len(server.asked("a.bin")) - 1), "complete files are not fetched again"
    assert not any(os.listxattr(path) for path in paths), "what the app has is clean"
    wait_for(lambda: device.cli("show http-update info resume") == EMPTY)
    assert device.resume() == {}


def test_file_that_changed_is_fetched_afresh(device: Device, server: LabServer) -> None:
    """Neither the part of another file of the name nor a complete old one is gone on with."""
    server.release("alpha", "2.0", {"a.bin": 400_000, "b.bin": 5000})
    app = device.app("alpha")
    assert "successfully" in device.cli("http update all")
    made = server.release("alpha", "2.1", {"a.bin": 500_000, "b.bin": 6000})
    server.fault(path="*/2.1/a.bin", cut_after=300_000, times=1)
    server.fault(path="*/a.bin", drop=True)
    device.daily_in(minutes=0)
    wait_for(device.resume)
    made["a.bin"] = made["a.bin"][::-1]
    (server.folder / "alpha/2.1/a.bin").write_bytes(made["a.bin"])
    server.heal()
    wait_for(lambda: len(app.requests) == 2)
    assert device.disk("alpha") == made


@pytest.fixture
def stepped(scratch: Scratch, server: LabServer) -> Device:
    """A device whose time goes on in steps, and in a zone of its own."""
    made = Device(scratch)
    made.clock.used = True
    made.clock.follow()
    made.start("-di", TZ="ZZZ-5:30")
    made.use(server)
    return made


def step(device: Device, seconds: int) -> None:
    device.clock.pass_time(seconds)
    device.clock.settle()


def run_daily(device: Device) -> None:
    device.daily_in(minutes=330)
    step(device, 75)


CUT, FULL = dict(cut_after=1), dict(content_length=10**15)
FAILURES = {  # flags; the file that fails, and how; then what is handed over, listed, on disk
    "whole": (0, "b", CUT, ("", "abc", "ab"), ("", "", "")),
    "full": (0, "b", FULL, ("", "abc", "a"), ("", "", "")),
    "parts": (INCREMENTAL, "b", CUT | dict(times=6), ("a", "bc", "ab"), ("ab", "", "ab")),
    "first": (INCREMENTAL, "a", CUT, ("", "abc", "a"), ("", "", "")),
    "back": (0, "b", CUT, ("", "abc", "ab"), ("", "abc", "ab")),
    "front": (0, "b", CUT, ("", "abc", "ab"), ("", "", "")),
}


def test_failure_is_recorded_and_retried_five_times(stepped: Device, server: LabServer) -> None:
    device, apps = stepped, {}
    for name, (flags, file, rule, _, _) in FAILURES.items():
        server.release(name, "2.0", dict.fromkeys("abc", 1000))
        server.fault(path=f"*/{name}/*/{file}", **rule)
        apps[name] = device.app(name, flags=flags, answer=lambda app, request: (0, "1.0"))
    server.fault(path="*/parts/*/c", **CUT)
    device.app("other", "9.0")

    def states() -> dict[str, tuple[str, str, str]]:
        shown = device.cli("show http-update info resume")
        return {name: tuple("".join(Path(path).name for path in paths) for paths in (
            [file for request in app.requests for file in request.files],
            re.findall(rf"(?m)^{name} +\d +(\S+)", shown), device.disk(name)))
                for name, app in apps.items()}

    assert device.cli("http update parts", status=3).endswith("parts: Download failed.\n")
    assert states() == dict.fromkeys(apps, ("", "", "")), "the operator is told, and that is all"
    run_daily(device)
    wait_for(lambda: apps["parts"].requests)
    assert states() == {name: row[3] for name, row in FAILURES.items()}
    for name in ("back", "front"):
        apps[name].die()
    for left in (5, 4, 3, 2, 1):
        assert states() == {name: row[3] for name, row in FAILURES.items()}
        assert re.match(f"retry-count: {left}\nretry-time: 0[0-2]:..:..\n",
                        device.cli("show http-update info resume"))
        step(device, 7260)
        assert list(server.queries()[-1]["apps"]) == ["whole", "full", "parts", "first"]
    wait_for(lambda: len(apps["parts"].requests) == 2)
    assert states() == {name: row[4] for name, row in FAILURES.items()}
    assert device.cli("show http-update info resume").startswith("retry-count: 5\n")


def test_resume_run_goes_by_what_was_stored(stepped: Device, server: LabServer) -> None:
    device = stepped
    server.release("alpha", "2.0", {"a": 1000, "b": 1000})
    app = device.app("alpha")
    server.fault(path="*/b", status=404)
    run_daily(device)
    assert list(device.resume()) == ["alpha"] and list(device.disk("alpha")) == ["a"]
    server.heal()
    operators = server.release("alpha", "2.1", {"b": 1000})
    assert "successfully" in device.cli("http update all")
    assert device.resume() == {} and device.disk("alpha") == operators, "he was faster"

    step(device, 3600)
    made = server.release("alpha", "2.2", {"a": 1000, "b": 1000})
    server.fault(path="*/b", status=404)
    run_daily(device)
    app.send(9, struct.pack("32s128s", b"alpha", b"/nowhere/"))
    server.heal()
    step(device, 7260)
    assert app.request(1).files == [device.saved("alpha") + name for name in made]
    assert device.disk("alpha") == made
