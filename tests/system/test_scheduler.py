"""The daemon by itself: daily runs at the configured time, resume runs of what failed."""

import time
from pathlib import Path

import pytest
from lab import INCREMENTAL, MANUAL, Device, LabServer, Scratch, wait_for

# A minute of the daemon's timers takes 10 ms, a resume delay at most 1.2 s.
SPEED = 6000
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


def test_daily_run_once_a_day_whatever_the_clock_does(
        device: Device, server: LabServer) -> None:
    for name in ("alpha", "manual"):
        server.release(name, "2.0", {f"{name}.bin": 1000})
    device.app("alpha")
    manual = device.app("manual", flags=MANUAL)
    let_minutes_pass()
    assert server.queries() == []
    device.daily_in(minutes=-5)
    wait_for(lambda: device.versions() == {"alpha": "2.0", "manual": "1.0"})
    assert [q["apps"] for q in server.queries()] == [{"alpha": "1.0"}]

    def runs_become(count: int) -> None:
        wait_for(lambda: len(server.queries()) >= count, f"for run {count}")
        let_minutes_pass()
        assert len(server.queries()) == count

    device.clock.set(wall=-86_400, monotonic=0)  # set back a day: the same time again
    manual.set_mode("manual", False)
    runs_become(1)
    device.clock.set(wall=86_400, monotonic=3400)  # set forth: less than an hour has passed
    runs_become(1)
    device.clock.set(wall=86_400, monotonic=3700)
    runs_become(2)
    assert device.versions() == {"alpha": "2.0", "manual": "2.0"}
    device.clock.pass_time(40_000)
    runs_become(2)
    device.clock.pass_time(86_400 - 40_000)
    runs_become(3)
    device.configure("http update mode manual")
    device.clock.pass_time(86_400)
    runs_become(3)
    device.wait_log("http update mode is manual")
    device.configure("no http update mode")
    runs_become(4)


def test_window_runs_past_midnight(device: Device, server: LabServer) -> None:
    device.app("alpha")
    now = device.clock.now()
    to_midnight = 86_400 - now.tm_hour * 3600 - now.tm_min * 60 - now.tm_sec
    device.configure("http update time daily 23:55")
    device.clock.pass_time(to_midnight + 310)
    let_minutes_pass()
    assert server.queries() == [], "00:05:10 is too late"
    device.clock.set(device.clock.wall - 130, device.clock.monotonic)
    wait_for(server.queries)


def test_interrupted_download_is_resumed_not_repeated(
        device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 400_000, "c.bin": 10})
    app = device.app("alpha")
    server.fault(path="*/b.bin", cut_after=300_000, times=1)
    server.fault(path="*/b.bin", drop=True)
    device.daily_in(minutes=0)
    paths = [device.saved("alpha") + name for name in made]
    wait_for(lambda: device.resume() == {"alpha": paths})
    report = device.cli("show http-update info resume")
    assert report.startswith("retry-count: ") and report.endswith(
        "app-name        NO. filename\n"
        "--------------- --- ------------------------------------------------\n" + "".join(
            f"alpha           {n}   {path:48.48}\n" for n, path in enumerate(paths, 1)))
    assert app.requests == [] and device.disk("alpha")["a.bin"] == made["a.bin"]

    server.heal()
    wait_for(lambda: app.requests)
    assert app.request().files == paths and device.disk("alpha") == made
    assert [r["range"] for r in server.requests("b.bin")][-1] == "bytes=300000-"
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


def test_entry_is_given_up_after_five_resume_runs(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 1000})
    app = device.app("alpha")
    server.fault(path="*/b.bin", status=404)
    device.daily_in(minutes=0)
    wait_for(lambda: len(server.requests("b.bin")) == 6, "for five resume runs")
    wait_for(lambda: device.cli("show http-update info resume") == EMPTY)
    let_minutes_pass()
    assert len(server.requests("b.bin")) == 6
    assert device.disk("alpha") == {} and device.resume() == {} and app.requests == []


def test_entry_of_an_app_that_stays_away(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    server.fault(path="*/a.bin", cut_after=500)
    app = device.app("alpha")
    device.daily_in(minutes=0)
    wait_for(device.resume)
    app.deregister("alpha")
    wait_for(lambda: device.cli("show http-update info resume") == EMPTY)
    assert device.disk("alpha") == {}, "its partial file goes with it"


def test_incremental_app_is_told_of_what_came(device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {name: 1000 for name in "abcde"})
    answers = iter([(0, ""), (0, "2.0")])
    app = device.app("alpha", flags=INCREMENTAL, answer=lambda app, request: next(answers))
    server.fault(path="*/c", status=503)
    device.daily_in(minutes=0)
    first, rest = ([device.saved("alpha") + n for n in names] for names in ("ab", "cde"))
    wait_for(lambda: device.resume() == {"alpha": rest})
    assert app.request().files == first
    server.heal()
    wait_for(lambda: len(app.requests) == 2)
    assert app.request(1).files == rest and device.disk("alpha") == made
    wait_for(lambda: device.versions() == {"alpha": "2.0"})


def test_list_and_configuration_outlive_a_power_cut(device: Device, server: LabServer) -> None:
    for name in ("alpha", "beta"):
        server.release(name, "2.0", {f"{name}1": 1000, f"{name}2": 1000})
        server.fault(path=f"*/{name}2", status=404)
        device.app(name)
    device.daily_in(minutes=0)
    wait_for(lambda: list(device.resume()) == ["beta", "alpha"])
    device.daily_in(minutes=720)
    lines = device.cli("show running-config")
    device.cli("write")
    device.kill()

    for app in device.apps:
        app.die()
    device.start(speed=1)
    assert device.cli("show running-config") == lines
    report = device.cli("show http-update info resume").splitlines()
    assert [line.split()[0] for line in report[4:]] == ["alpha", "alpha", "beta", "beta"]
    assert report[:2] == ["retry-count: 5", report[1]] and report[1] <= "retry-time: 00:30:00"
    device.kill()
    device.start(speed=SPEED)
    server.heal()
    apps = [device.app("alpha"), device.app("beta")]
    wait_for(lambda: all(app.requests for app in apps))
    wait_for(lambda: device.cli("show http-update info resume") == EMPTY)


def test_damaged_files_cost_only_what_is_damaged(scratch: Scratch, server: LabServer) -> None:
    device = Device(scratch)
    device.resume_file.parent.mkdir(parents=True)
    bad = ["", "<app name='none'><filecnt>2</filecnt><file name='/a'/></app>",
           "<app><filecnt>1</filecnt><file name='/b'/></app>",
           "<app name='zero'><filecnt>0</filecnt></app>"]
    good = f"<app name='alpha'><filecnt>1</filecnt><file name='{device.saved('alpha')}x'/></app>"
    config = device.resume_file.with_name("startup-config")
    config.write_text("http update mode manual\nhttp update server\nnonsense \x01\xff\n"
                      "http update source_ip 127.0.0.9\n", encoding="latin-1")
    bomb = "<!DOCTYPE filelist [<!ENTITY x 'y'>]>"
    for text, report in ((f"<filelist>{good}{''.join(bad)}</filelist>", "alpha"),
                         (f"{bomb}<filelist>{good}</filelist>", "empty"),
                         ("<filelist><app", "empty"), ("\0" * 100, "empty")):
        device.resume_file.write_text(text)
        device.start()
        shown = device.cli("show http-update info resume")
        assert (shown == EMPTY) == (report == "empty") and shown.count("/apps/alpha/x") == (
            report == "alpha")
        lines = device.cli("show running-config")
        assert "http update mode manual\n" in lines and "source_ip 127.0.0.9\n" in lines
        device.kill()


def test_no_half_written_resume_file(device: Device, server: LabServer) -> None:
    """A directory that can't be written costs the file, not the daemon."""
    server.release("alpha", "2.0", {"a.bin": 1000})
    server.fault(path="*/a.bin", status=404)
    device.app("alpha")
    folder = device.resume_file.parent
    folder.rename(folder.with_name("away"))
    Path(folder).write_text("in the way")
    device.daily_in(minutes=0)
    wait_for(lambda: len(server.requests("a.bin")) > 1)
    folder.unlink()
    wait_for(lambda: device.resume_file.exists() or len(server.requests("a.bin")) >= 6)
    assert [p.name for p in folder.glob("*")] in (["http_recode.txt"], [])
