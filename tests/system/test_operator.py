"""What the operator and technical support see: reports whole, at their limits."""

import tarfile

from lab import Device, LabServer, wait_for


def test_reports_at_rest(device: Device) -> None:
    assert device.cli("http update display-progress") == (
        "state: free\nupdate-app:\ncurrent-app: \n"
        "----------------------------------\nupdated-result:\n")
    assert device.cli("show http-update info version") == (
        "app-id             app-name                        version           \n"
        "------ ------------------------------- ------------------------------\n")


def test_twenty_apps_with_the_longest_names(device: Device, server: LabServer) -> None:
    names = [f"app-{n:02}-".ljust(31, "x") for n in range(20)]
    version = "1.0-".ljust(31, "y")
    files = {"f".ljust(60, "z"): 10}
    connections = [device.connect() for _ in range(2)]
    for n, name in enumerate(names):
        server.release(name, "2.0", files)
        assert connections[n % 2].register(name, version, device.saved(name)) == 0
    assert connections[0].register("one-more", "1.0") == 10

    def listed(limit: int, text: str) -> str:
        """The names as a list, cut where the report cuts it."""
        line = (text + "".join(f" {name}," for name in names))[:limit - 1]
        return line[:-1] + ".\n"

    table = device.cli("http check-version").splitlines(keepends=True)
    assert table[0] == listed(704, "Business modules need to be updated:")
    row = "%-15.15s %-20.20s %-25.25s\n"
    assert table[3:] == [row % (name, "2.0", next(iter(files))) for name in names]
    shown = device.cli("http update all").splitlines(keepends=True)
    succeeded = "".join(f"{name}, " for name in names)
    assert shown[-1] == succeeded[:-2] + ": download and notify successfully.\n"
    progress = device.cli("http update display-progress").splitlines(keepends=True)
    assert progress[1] == "update-app:" + listed(640, "")
    wait_for(lambda: list(device.versions().values()) == ["2.0"] * 20)
    rows = device.cli("show http-update test").splitlines()[-20:]
    assert [row.split(maxsplit=1)[1] for row in rows] == [
        f"{n:<6d} {name:15.15s} {'2.0':20s} free  " for n, name in enumerate(names)]
    assert device.cli("show http-update info version").splitlines()[2:] == [
        f"{n:<6d} {name:31s} {'2.0':31s}" for n, name in enumerate(names)]
    assert "Files:" + names[0] in device.cli("http update ?")


def test_debug_switches(device: Device) -> None:
    everything = ["info", "connect", "register", "error", "download"]
    for command, left in (("debug http-client error", ["error"]), ("debug all", everything),
                          ("no debug http-client", []), ("debug http-client", everything),
                          ("no debug all", [])):
        device.cli(command)
        assert device.cli("show debugging").splitlines()[1:] == [
            f"  http-client {word} debugging is on" for word in left]
    device.app("alpha")
    assert "alpha" not in device.syslog() and "[alpha] reg add" in device.dump()
    device.cli("debug http-client register")
    device.app("beta")
    device.wait_log("[beta] reg add")


def test_support_bundle(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 10})
    device.app("alpha")
    device.cli("http update all")
    wait_for(lambda: device.versions() == {"alpha": "2.0"})
    bundle = device.root / "support.tar.gz"
    device.cli(options=("--tech-support", str(bundle)))
    with tarfile.open(bundle) as tar:
        members = {m.name.rsplit("/", 1)[-1]: tar.extractfile(m).read().decode()
                   for m in tar.getmembers() if m.isfile()}
    reports = "".join(text for name, text in members.items() if "dump" not in name)
    for report in ("http update display-progress", "show http-update test",
                   "show http-update info resume"):
        assert device.cli(report) in reports, report
    assert members["http_reg_server_dump"] == device.dump()
    assert len(members) == 3, "two reports and the one dump file that exists"
