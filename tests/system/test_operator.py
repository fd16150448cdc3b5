"""What the operator and technical support see: reports whole, at their limits."""

import os
import re
import socket
import subprocess
import tarfile
import threading
from collections.abc import Iterator

import pytest
from dnslib import RR
from dnslib.server import BaseResolver, DNSLogger, DNSServer
from lab import BIN_DIR, Device, LabServer, Scratch, wait_for

PROGRESS_AT_REST = ("state: free\nupdate-app:\ncurrent-app: \n"
                    "----------------------------------\nupdated-result:\n")


def test_reports_at_rest(device: Device) -> None:
    assert device.cli("http update display-progress") == PROGRESS_AT_REST
    assert device.cli("show http-update info version") == (
        "app-id             app-name                        version           \n"
        "------ ------------------------------- ------------------------------\n")
    assert device.cli("show http-update info resume") == "resume-list is empty\n"
    assert device.cli("show debugging") == ""


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
    help_text = device.cli("http update ?")
    assert "Files:" + names[0] in help_text


def test_configuration_lines(device: Device) -> None:
    """Each line comes and goes with its command; defaults write none."""
    device.configure("no http update server", "no http update time")
    for line in ("http update mode manual", "http update source_ip 10.1",
                 "http update server h1.example port 80", "http update time daily 00:00"):
        device.configure(line)
        shown = device.cli("show running-config")
        if line.endswith("00:00") and not shown:
            continue  # the random default is this very minute
        assert shown == line + "\n"
        word = re.match(r"http update \w+", line)
        device.configure(f"no {word[0]}")
        assert device.cli("show running-config") == ""
    not_there = "% The configuration not founded\r\n\r\n"
    assert device.configure("no http update server h1.example") == not_there
    device.configure("http update server h1", "http update server h2 port 8080")
    assert device.cli("show running-config") == "http update server h2 port 8080\n"
    for bad in ("http update server h port 0", "http update server h port 65536",
                "http update time daily 24:00", "http update time daily 3:60",
                "http update source_ip 255.255.255.255", "http update mode auto", "http nonsense"):
        device.cli("configure", bad, status=1)
        assert device.errors().startswith("% ")
    assert device.cli("show running-config") == "http update server h2 port 8080\n"


def test_debug_switches(device: Device) -> None:
    for commands, mask in ((["debug http-client error", "debug http-client info"], "ie"),
                           (["no debug http-client info"], "e"), (["debug all"], "icred"),
                           (["no debug http-client"], ""), (["debug http-client"], "icred"),
                           (["no debug all"], "")):
        device.cli(*commands)
        words = {"i": "info", "c": "connect", "r": "register", "e": "error", "d": "download"}
        assert device.cli("show debugging") == (
            "http-client debugging status:\r\n" if mask else "") + "".join(
            f"  http-client {words[letter]} debugging is on\r\n" for letter in mask)
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


class Names(BaseResolver):
    """Knows one name; everything else is not there."""

    askers: set[str] = set()

    def resolve(self, request, handler):  # noqa: ANN001, ANN201 (the library's types)
        self.askers.add(handler.client_address[0])
        reply = request.reply()
        if str(request.q.qname) == "update.lab.":
            reply.add_answer(*RR.fromZone("update.lab. 60 A 127.0.0.1"))
        else:
            reply.header.rcode = 3
        return reply


@pytest.fixture
def name_server() -> Iterator[str]:
    quiet = DNSLogger(logf=lambda text: None)
    server = DNSServer(Names(), address="127.0.0.1", port=0, logger=quiet)
    server.start_thread()
    yield "127.0.0.1:%d" % server.server.server_address[1]
    server.stop()


def test_server_with_a_name(scratch: Scratch, server: LabServer, name_server: str) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 1000})
    device = Device(scratch)
    device.start(DNS_CLIENT_SERVERS=name_server)
    device.app("alpha")
    failed = "%notice: Communicate with the server failed.\n"
    for name, answer in (("nowhere.lab", failed), ("not a name", failed), ("a" * 127, failed)):
        device.cli("configure", f"http update server {name.replace(' ', '_')}")
        assert device.cli("http check-version") == answer
    device.configure(f"http update server update.lab port {server.port}")
    # Its files are named by the same host, which is looked up from the source address.
    device.configure("http update source_ip 127.0.0.7")
    Names.askers.clear()
    assert device.cli("http update all").endswith(
        "with server update.lab:\r\nalpha: download and notify successfully.\n")
    assert device.disk("alpha") == made and Names.askers == {"127.0.0.7"}


def test_two_operators_and_one_that_does_not_read(device: Device, server: LabServer) -> None:
    device.app("alpha")
    server.fault(method="POST", silent=True)
    checks = [device.begin("http check-version") for _ in range(2)]
    wait_for(lambda: len(server.queries()) == 2)
    # A terminal that sends nonsense, and one that never reads what it asked for.
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as nonsense:
        nonsense.connect(str(device.work / ".http_client_cli"))
        nonsense.sendall(os.urandom(5000))
        stopped = device.begin(*["show http-update test"] * 2000)
        stopped.process.send_signal(19)  # SIGSTOP
        assert device.versions() == {"alpha": "1.0"}
    stopped.process.kill()
    server.heal()
    for check in checks:
        assert check.finish() == "%notice: Communicate with the server failed.\n"


def test_service_manager_is_told(scratch: Scratch) -> None:
    """Ready once, then a sign of life a minute, and a stop by SIGTERM."""
    device = Device(scratch)
    heard: list[bytes] = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(scratch.root / "notify"))
        threading.Thread(target=lambda: [heard.append(manager.recv(500)) for _ in range(4)],
                         daemon=True).start()
        device.start(speed=600, NOTIFY_SOCKET=str(scratch.root / "notify"), WATCHDOG_USEC="120000")
        wait_for(lambda: len(heard) == 4)
    text = b"\n".join(heard).decode()
    assert text.count("READY=1") == 1 and text.count("WATCHDOG=1") >= 2
    device.daemon.terminate()
    assert device.daemon.wait(30) == -15
    device.daemon = None
    assert subprocess.run([BIN_DIR / "http_client_cli", "-c", "show debugging"], check=False,
                          env=device.environment(), capture_output=True).returncode == 2
