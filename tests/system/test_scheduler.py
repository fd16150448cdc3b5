"""The daemon by itself: daily runs at the configured time, resume runs of what failed."""

import os
import re
import signal
import time

import pytest
from lab import INCREMENTAL, MANUAL, App, Device, LabServer, Scratch, UpdateRequest, wait_for

# A minute of the daemon's timers takes 10 ms, a resume delay at most 1.2 s.
SPEED = 6000
DAY = 86_400
EMPTY = "resume-list is empty\n"


def let_minutes_pass() -> None:
    """Long enough for a wrong run to begin."""
    time.sleep(50 * 60 / SPEED)


@pytest.fixture
def device(scratch: Scratch, server: LabServer) -> Device:
    made = Device(scratch)
    made.clock.used = True
    made.start("-di", speed=SPEED)
    made.use(server)
    return made


def test_daily_runs_stay_an_hour_apart_whatever_the_clock_does(
        device: Device, server: LabServer) -> None:
    for name in ("alpha", "manual"):
        server.release(name, "2.0", {f"{name}.bin": 1000})
    device.app("alpha")
    manual = device.app("manual", flags=MANUAL)
    device.daily_in(minutes=-5)
    wait_for(lambda: device.versions() == {"alpha": "2.0", "manual": "1.0"})
    assert [q["apps"] for q in server.queries()] == [{"alpha": "1.0"}]

    def runs_become(count: int) -> None:
        wait_for(lambda: len(server.queries()) >= count, f"for run {count}")
        let_minutes_pass()
        assert len(server.queries()) == count

    device.clock.set(wall=-DAY, monotonic=0)  # set back a day: the same time again
    manual.set_mode("manual", False)
    runs_become(1)
    device.clock.set(wall=DAY, monotonic=3400)  # set forth: less than an hour has passed
    runs_become(1)
    device.clock.set(wall=DAY, monotonic=3700)
    runs_become(2)
    assert device.versions() == {"alpha": "2.0", "manual": "2.0"}
    device.clock.pass_time(40_000)
    runs_become(2)
    device.clock.pass_time(DAY - 40_000)
    runs_become(3)


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


def install_parts(app: App, request: UpdateRequest) -> tuple[int, str]:
    """Has the new version only when the last file has come."""
    return 0, request.records["version"] if request.files[-1].endswith("g3") else ""


def test_a_week(device: Device, server: LabServer) -> None:
    made = {}

    def release(app: str, version: str, *names: str) -> None:
        made[app] = server.release(app, version, {n: 50_000 for n in names})

    def settled(**versions: str) -> None:
        """The apps have these versions, and nothing is left to do."""
        wait_for(lambda: device.versions() == versions, f"for {versions}")
        # The file is written at an app's end; the list lacks an app being fetched.
        wait_for(lambda: device.resume() == {}, "for the resume file to empty")
        assert device.cli("show http-update info resume") == EMPTY

    # The device is put into service; its configuration is saved.
    release("alpha", "2.0", "a1", "a2")
    release("beta", "2.0", "b1")
    device.app("alpha")
    device.app("beta", flags=MANUAL)
    device.daily_in(minutes=-2)
    device.cli("write")
    settled(alpha="2.0", beta="1.0")

    # Another day an app joins. One of its files is not to be had until later, and the
    # power goes meanwhile.
    first = device.app("gamma", flags=INCREMENTAL, answer=install_parts)
    release("gamma", "2.0", "g1", "g2", "g3")
    server.fault(path="*/g2", status=503)
    device.clock.pass_time(DAY)
    saved = {"gamma": [device.saved("gamma") + name for name in ("g2", "g3")]}
    wait_for(lambda: device.resume() == saved)
    server.fault(method="POST", silent=True)  # no more tries
    device.kill()
    device.start()
    count, left, _, _, *rows = device.cli("show http-update info resume").splitlines()
    assert count == "retry-count: 5" and "retry-time: 00:2" < left <= "retry-time: 00:30:00"
    assert [row.split()[0] for row in rows] == ["gamma", "gamma"]
    device.kill()
    server.heal()
    device.start("-di", speed=SPEED)
    device.app("alpha", "2.0")
    device.app("beta", flags=MANUAL)
    second = device.app("gamma", flags=INCREMENTAL, answer=install_parts)
    settled(alpha="2.0", beta="1.0", gamma="2.0")
    assert [len(first.request().files), len(second.request().files)] == [1, 2]

    # The power goes in the middle of a download, and comes back.
    release("alpha", "3.0", "a1", "a2")
    server.fault(path="*/3.0/a2", stall_after=30_000)
    device.clock.pass_time(DAY)
    server.wait_stalled("3.0/a2", 30_000)
    device.kill()
    server.heal()
    device.start("-di", speed=SPEED)
    device.app("alpha", "2.0")
    device.app("beta", flags=MANUAL)
    settled(alpha="3.0", beta="1.0")

    # The operator takes over, also across a restart.
    device.configure("http update mode manual")
    device.cli("write")
    assert "beta: download and notify successfully." in device.cli("http update all")
    asked = len(server.queries())
    device.clock.pass_time(DAY)
    device.kill()
    device.start("-di", speed=SPEED)
    device.wait_log("http update mode is manual", 50)
    assert len(server.queries()) == asked
    release("beta", "2.1", "b1")
    device.app("alpha", "3.0")
    device.app("beta", "2.0")
    device.configure("no http update mode")
    settled(alpha="3.0", beta="2.1")
    assert all(device.disk(name) == made[name] for name in made)
    assert device.resume_file.read_text() == '<?xml version="1.0"?>\n<filelist/>\n'
    then = re.search(r"daily (\d\d:\d\d)", device.cli("show running-config"))
    assert then is not None
    assert re.sub(r"(?m)^\d+ +(?=\d)", "FD ", device.cli("show http-update test")) == (
        "update mode:    auto-update\n"
        f"update server:  127.0.0.1\nupdate port:    {server.port}\n"
        "update uri:     /qb/11.x/update.asp\n"
        f"update time:    {then[1]}\n"
        "pro SerialNo:   SN0001\npro Name:       EG3210\n"
        "software:       LAB_EG3210 Release(1.0)\nhardware:       1.00\n"
        "mac:            00:11:22:33:44:55\nupdate source_ip:  0.0.0.0\n"
        "app-id     app-name      version            status\n"
        "------ --------------- -------------------- ------\n"
        "FD 0      alpha           3.0                  free  \n"
        "FD 1      beta            2.1                  free  \n")
    assert device.configure("no http update time") == ""
    device.daemon.terminate()
    assert device.daemon.wait(30) == -signal.SIGTERM
    device.daemon = None
