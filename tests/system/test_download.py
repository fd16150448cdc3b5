"""The download program beside the daemon: confined, expendable, and sparing of the line."""

import os
import random
import subprocess
from pathlib import Path

import pytest
from lab import BIN_DIR, Device, LabServer, Scratch, wait_for

PROGRAM = BIN_DIR.parent / "libexec/http_client/http_client_download"
SOURCES = ["{base}/files/alpha/2.0/a.bin?first", "{base}/files/alpha/2.0/a.bin?second"]


def program(device: Device) -> Path | None:
    """The process of the download program."""
    children = [child for task in Path(f"/proc/{device.daemon.pid}/task").glob("*/children")
                for child in task.read_text().split()]
    return Path("/proc", children[0]) if children else None


def test_program_is_confined_and_expendable(device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 3_000_000},
                          files=[{"name": "a.bin", "downpaths": SOURCES}])
    app = device.app("alpha")
    held = device.held()
    server.fault(path="*a.bin?first", stall_after=1_000_000)
    update = device.begin("http update all")
    server.wait_stalled("a.bin.first", 1_000_000)

    process = program(device)
    status = dict(line.split(":\t", 1) for line in (process / "status").read_text().splitlines())
    assert status["NoNewPrivs"] == "1" and status["Seccomp"] == "2"
    assert status["CapPrm"] == status["CapEff"] == status["CapInh"] == "0000000000000000"
    assert os.geteuid() != 0 or ("0" not in status["Uid"].split() + status["Gid"].split()
                                 and status["Groups"].split() == [])
    # What it is handed comes when the server's first words have been judged.
    wait_for(lambda: {name for fd in (process / "fd").iterdir()
                      if (name := os.readlink(fd)).startswith("/") and name != "/dev/null"} == {
        device.saved("alpha") + "a.bin", f"{device.root}/daemon1.err"}, "for its two files")
    assert (process / "environ").read_bytes() == b""
    assert "libcurl" in (process / "maps").read_text()
    daemon = Path(f"/proc/{device.daemon.pid}/maps")
    assert "libcurl" not in daemon.read_text()

    # Its death costs the source that it was talking to.
    os.kill(int(process.name), 9)
    assert update.finish().endswith("alpha: download and notify successfully.\n")
    assert device.disk("alpha") == made and app.request().files
    assert "download program: has ended: signal 9" in device.syslog()
    # Nothing stays of it.
    wait_for(lambda: program(device) is None and device.held() == held, "for the program to end")
    assert "libcurl" not in daemon.read_text()


def test_program_can_do_nothing_but_transfer() -> None:
    tried = subprocess.run([PROGRAM, "--self-test"], capture_output=True, text=True, check=True)
    results = dict(line.rsplit(" ", 1) for line in tried.stdout.splitlines())
    assert results.pop("stream socket") == "0" and len(results) > 10
    assert set(results.values()) == {"1"}, results  # EPERM


@pytest.fixture
def device_in_time(scratch: Scratch, server: LabServer) -> Device:
    """One whose clocks the test sets."""
    made = Device(scratch)
    made.clock.used = True
    made.start(speed=6000)
    made.use(server)
    return made


def test_stalled_server_is_given_up(device_in_time: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 200_000})
    device_in_time.app("alpha")
    server.fault(path="*/a.bin", stall_after=100_000)
    update = device_in_time.begin("http update all")
    server.wait_stalled("a.bin", 100_000)
    device_in_time.clock.pass_time(121)
    assert update.finish(3).endswith("alpha: Download failed.\n")


@pytest.mark.parametrize("broken", range(3))
def test_broken_run_costs_the_line_little(device_in_time: Device, server: LabServer,
                                          broken: int) -> None:
    device, chance = device_in_time, random.Random(broken)
    size = 1 << 20
    made = server.release("alpha", "2.0", {f"{n}.bin": size for n in range(10)})
    app = device.app("alpha")
    for name in chance.sample(list(made), 2):
        server.fault(path=f"*/{name}", cut_after=chance.randrange(1, size), times=1)
    device.daily_in(minutes=0)
    wait_for(lambda: app.requests, "for the hand-over")
    assert device.disk("alpha") == made
    assert sum(r["sent"] for r in server.asked("bin")) <= 1.02 * size * len(made)
