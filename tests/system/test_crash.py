"""The daemon loses its power, its disk or its single place, and goes on."""

import contextlib
import subprocess
from pathlib import Path

from lab import BIN_DIR, Device, LabServer, Scratch, wait_for


def test_second_instance_leaves_the_first_alone(device: Device) -> None:
    lock = (device.work / "http_client.running").read_bytes()
    assert lock == f"{device.daemon.pid}\0".encode()
    second = subprocess.run([BIN_DIR / "http_client.elf"], env=device.environment(), timeout=30,
                            capture_output=True, check=False)
    assert second.returncode == 0
    assert "only instance is running [" in device.dump()
    assert (device.work / "http_client.running").read_bytes() == lock
    assert device.versions() == {}


def test_what_it_makes_is_open_to_all(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a": 1})
    device.app("alpha")
    device.cli("http update all")
    folders = (device.work, device.resume_file.parent, device.work / ".http_update",
               Path(device.saved("alpha")), Path(device.saved("alpha")) / "a")
    assert [oct(path.stat().st_mode & 0o777) for path in folders] == ["0o777"] * 4 + ["0o644"]


def test_wrong_options_end_the_start(scratch: Scratch) -> None:
    device = Device(scratch)
    for options in (["-dx"], ["word"], ["-d", "a"]):
        wrong = subprocess.run([BIN_DIR / "http_client.elf", *options], text=True, timeout=30,
                               env=device.environment(), capture_output=True, check=False)
        assert wrong.returncode == 1 and wrong.stdout.startswith("Error: invalid option")


def test_full_disk(small_disk: Path, device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 20_000, "b.bin": 38_000})
    server.release("beta", "2.0", {"large": 100_000})
    alpha, beta = (device.app(name, save=f"{small_disk}/") for name in ("alpha", "beta"))
    # Too large from the beginning; then a disk that fills up meanwhile.
    full = "Update module with server 127.0.0.1:\r\n%s: Not enough flash.\n"
    assert device.cli("http update beta", status=3).endswith(full % "beta")
    server.fault(path="*/b.bin", stall_after=10_000)
    update = device.begin("http update alpha")
    server.wait_stalled("b.bin", 10_000)
    filler = small_disk / "filler"
    with contextlib.suppress(OSError), filler.open("wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))
    server.heal()
    assert update.finish(3).endswith(full % "alpha")
    assert list(small_disk.iterdir()) == [filler] and alpha.requests == beta.requests == []
    filler.unlink()
    assert device.cli("http update alpha").endswith("alpha: download and notify successfully.\n")
    assert {p.name: p.read_bytes() for p in small_disk.iterdir()} == made
