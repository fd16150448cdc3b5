"""The daemon by itself: daily runs at the configured time, resume runs of what failed."""

import os

import pytest
from lab import Device, LabServer, Scratch, wait_for

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
