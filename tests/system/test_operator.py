"""What the operator and technical support see: reports whole, at their limits."""

import re
import tarfile

from lab import Device, LabServer, wait_for


def test_twenty_apps_with_the_longest_names(device: Device, server: LabServer) -> None:
    names = [f"app-{n:02}-".ljust(31, "x") for n in range(20)]
    version = "1.0-".ljust(31, "y")
    file = "f".ljust(60, "z")
    connections = [device.connect() for _ in range(2)]
    for n, name in enumerate(names):
        server.release(name, "2.0", {file: 10})
        assert connections[n % 2].register(name, version, device.saved(name)) == 0
    assert connections[0].register("one-more", "1.0") == 10

    def listed(limit: int, text: str) -> str:
        """The names as a list, cut where the report cuts it."""
        line = (text + "".join(f" {name}," for name in names))[:limit - 1]
        return line[:-1] + ".\n"

    table = device.cli("http check-version").splitlines(keepends=True)
    assert table[0] == listed(704, "Business modules need to be updated:")
    assert table[3:] == [f"{name:15.15} {'2.0':20} {file:25.25}\n" for name in names]
    shown = device.cli("http update all").splitlines(keepends=True)
    succeeded = "".join(f"{name}, " for name in names)
    assert shown[-1] == succeeded[:-2] + ": download and notify successfully.\n"
    progress = device.cli("http update display-progress").splitlines(keepends=True)
    assert progress[1] == "update-app:" + listed(640, "")
    wait_for(lambda: list(device.versions().values()) == ["2.0"] * 20)
    rows = device.cli("show http-update test").splitlines()[-20:]
    assert [row.split(maxsplit=1)[1] for row in rows] == [
        f"{n:<6d} {name:15.15s} {'2.0':20s} free  " for n, name in enumerate(names)]
    assert device.cli("show http-update info version") == (
        "app-id             app-name                        version           \n"
        "------ ------------------------------- ------------------------------\n") + "".join(
        f"{n:<6d} {name:31s} {'2.0':31s}\n" for n, name in enumerate(names))
    assert "Files:" + names[0] in device.cli("http update ?")


def test_configuration_lines(device: Device) -> None:
    """Each comes and goes with its command; defaults and the second list write none."""
    device.configure("no http update server", "no http update time")
    device.configure("http update server second", second=True)
    for line in ("http update mode manual", "http update source_ip 10.1",
                 "http update server h1 port 65535", "http update time daily 03:05"):
        device.configure(line)
        assert device.cli("show running-config") == line + "\n"
        assert line.split()[-1] in device.cli("show http-update test")
        device.configure("no " + " ".join(line.split()[:3]))
        assert device.cli("show running-config") == ""
    assert device.configure("no http update server h1", status=1) == (
        "% The configuration not founded\r\n\r\n")
    device.cli("configure", "http update source_ip 255.255.255.255", status=1)
    device.configure("http update server h1", "http update server h2 port 8080")
    assert device.cli("show running-config") == "http update server h2 port 8080\n"
    full = device.configure(*(f"http update server {n}" for n in "abc"), status=1, second=True)
    assert full == "% The number of update server can't exceed 3\r\n\r\n"


def test_debug_switches(device: Device) -> None:
    everything = ["info", "connect", "register", "error", "download"]
    for command, left in (("debug all", everything), ("no debug http-client", []),
                          ("debug http-client", everything), ("no debug all", []),
                          ("debug http-client register", ["register"])):
        device.cli(command)
        assert device.cli("show debugging").splitlines()[1:] == [
            f"  http-client {word} debugging is on" for word in left]
    device.app("alpha")
    device.wait_log("[alpha] reg add")


def test_support_bundle(device: Device, server: LabServer) -> None:
    device.app("alpha")
    device.configure("http update time daily 03:05")
    assert re.sub(r"(?m)^\d+ +(?=\d)", "FD ", device.cli("show http-update test")) == (
        "update mode:    auto-update\n"
        f"update server:  127.0.0.1\nupdate port:    {server.port}\n"
        "update uri:     /qb/11.x/update.asp\n"
        "update time:    03:05\n"
        "pro SerialNo:   SN0001\npro Name:       EG3210\n"
        "software:       LAB_EG3210 Release(1.0)\nhardware:       1.00\n"
        "mac:            00:11:22:33:44:55\nupdate source_ip:  0.0.0.0\n"
        "app-id     app-name      version            status\n"
        "------ --------------- -------------------- ------\n"
        "FD 0      alpha           1.0                  free  \n")
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
    assert members["running-config.txt"] == device.cli("show running-config")
