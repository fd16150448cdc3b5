"""Apps that misbehave during an update run."""

import socket
import struct
import time

from lab import Device, LabServer, wait_for


def test_app_that_fails_keeps_its_version_and_is_asked_again(
        device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    answers = iter([(5, "no room"), (0, "2.0")])
    device.app("alpha", answer=lambda app, request: next(answers))
    for version in ("1.0", "2.0"):
        assert "alpha: download and notify" in device.cli("http update all")
        wait_for(lambda: "busy" not in device.cli("show http-update test"))
        assert device.versions() == {"alpha": version}


def test_busy_app_is_left_out_until_it_answers(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    server.release("beta", "2.0", {"b.bin": 1000})
    alpha = device.app("alpha", answer=lambda app, request: (1, "working on it"))
    device.app("beta", version="")
    assert device.cli("http check-version").startswith(
        "Business modules need to be updated: alpha.")
    assert "alpha: download and notify" in device.cli("http update all")
    suspended = ("%notice: Suspend, some business modules are upgrading or haven't registered "
                 "release.\n")
    assert device.cli("http update all", status=3).endswith(suspended)
    assert device.cli("http check-version", status=3) == suspended
    rows = device.cli("show http-update test").splitlines()[-2:]
    assert [row.split()[1:] for row in rows] == [["0", "alpha", "1.0", "busy"],
                                                 ["1", "beta", "free"]]
    alpha.reply("alpha", 0, "2.0")
    wait_for(lambda: device.versions() == {"alpha": "2.0", "beta": "unknown"})


def test_apps_that_leave_during_the_run(device: Device, server: LabServer) -> None:
    """One deregisters, one dies; the third on the list still gets its files."""
    for name in ("leaves", "dies", "stays"):
        server.release(name, "2.0", {f"{name}.bin": 1000})
    leaves, dies, stays = (device.app(name) for name in ("leaves", "dies", "stays"))
    server.fault(path="/files/leaves/*", stall_after=500)
    update = device.begin("http update all")
    server.wait_stalled("leaves.bin", 500)
    leaves.deregister("leaves")
    dies.die()
    wait_for(lambda: device.versions() == {"stays": "1.0"})
    server.heal()
    # The app being fetched is gone when it should be told; the next is gone before.
    assert update.finish(3).endswith("stays: download and notify successfully.\n")
    assert device.disk("leaves") == {} and device.disk("dies") == {}
    assert stays.request().files == [device.saved("stays") + "stays.bin"]
    assert "[leaves]<-->have no find in reg" in device.dump()


def test_check_names_only_who_is_still_there(device: Device, server: LabServer) -> None:
    for name in ("leaves", "stays"):
        server.release(name, "2.0", {"file": 1})
    leaves, _ = device.app("leaves"), device.app("stays")
    server.fault(method="POST", stall_after=10)
    check = device.begin("http check-version")
    server.wait_stalled("^POST", 10)
    leaves.deregister("leaves")
    wait_for(lambda: device.versions() == {"stays": "1.0"})
    server.heal()
    assert check.finish().startswith("Business modules need to be updated: stays.\n")


def test_ten_connections_and_the_eleventh(device: Device) -> None:
    apps = [device.app(f"app{n}") for n in range(10)]
    assert device.connect().hung_up.wait(30)
    assert apps[1].register("app0", "1.0") == 12
    apps[9].die()
    wait_for(lambda: "app9" not in device.versions())
    device.app("app10")


def test_half_packets_end_their_connections(device: Device) -> None:
    half = [device.connect() for _ in range(8)]
    for app in half:
        app.socket.sendall(struct.pack("HHH6x", 1, app.REGIST, 196))
    well = device.app("well")
    wait_for(lambda: all(app.hung_up.is_set() for app in half))
    assert well.register("more", "1.0") == 0


def test_app_that_never_reads_is_given_up(device: Device, server: LabServer) -> None:
    """Update requests pile up until its connection is full; the run goes on without it."""
    names = [f"mute{n:02}" for n in range(14)]
    for name in names + ["well"]:
        server.release(name, "2.0", {name: 1}, elements={f"e{n}": "x" * 1000 for n in range(25)})
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as mute:
        mute.connect(str(device.work / ".http_update"))
        for name in names:
            mute.sendall(struct.pack("HHH6xI32s32s128s", 1, 1, 196, 0, name.encode(), b"1.0",
                                     device.saved(name).encode()))
        wait_for(lambda: len(device.versions()) == len(names))
        well = device.app("well")
        started = time.monotonic()
        shown = device.cli("http update all", status=3)
        assert shown.endswith("127.0.0.1:\r\nwell: download and notify successfully.\n")
        assert time.monotonic() - started < 50
    assert "update req send fail" in device.dump()
    assert len(well.request().records) > 20
    wait_for(lambda: device.versions() == {"well": "2.0"})
