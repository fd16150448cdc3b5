"""Look-ups against DNS servers on the loopback interface."""

import contextlib
import socket
import threading
import time

import pytest
from lab import Probe


class DnsServer:
    """Answers queries by the first label: a number N with 10.0.0.N, "refused" and "nodata"
    with that, "silent" never, anything else as unknown."""

    def __init__(self, answers: bool = True) -> None:
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.name = "127.0.0.1:%d" % self.socket.getsockname()[1]
        self.asked: list[bytes] = []
        self.peer = ""
        if answers:
            threading.Thread(target=self.serve, daemon=True).start()

    def serve(self) -> None:
        with contextlib.suppress(OSError):  # the test is over
            while True:
                query, peer = self.socket.recvfrom(512)
                self.asked.append(query)
                self.peer = peer[0]
                label = query[13:13 + query[12]].decode()
                question = query[12:query.index(0, 12) + 5]
                number = int(label) if label.isdigit() else 0
                code = 5 if label == "refused" else 0 if number or label == "nodata" else 3
                reply = query[:2] + bytes([0x81, 0x80 | code, 0, 1, 0, number != 0, 0, 0, 0, 0])
                if number:  # the name again, type A, class IN, a minute to live, four bytes
                    question += b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4" + bytes([10, 0, 0, number])
                if label != "silent":
                    self.socket.sendto(reply + question, peer)


@pytest.fixture
def server():
    made = DnsServer()
    yield made
    made.socket.close()


def test_names_resolve_and_failures_are_told_apart(probe: Probe, server: DnsServer) -> None:
    def resolve(name: str, source: str = "0.0.0.0", servers: str = server.name) -> str:
        # LOCALDOMAIN stands for resolv.conf's search list.
        return probe.run("resolve", source, name, DNS_CLIENT_SERVERS=servers,
                         LOCALDOMAIN="stranger.test").rstrip()

    for name, result in {"7.test": "10.0.0.7", "8.test.": "10.0.0.8", "missing.test": "refused",
                         "nodata.test": "refused", "refused.test": "result 4",
                         "a..b": "refused"}.items():
        assert resolve(name) == result, name
    assert not any(b"stranger" in query for query in server.asked)
    assert resolve("missing") == "refused"
    assert any(b"stranger" in query for query in server.asked), "short names use the list"
    assert resolve("9.test", "127.0.0.2") == "10.0.0.9" and server.peer == "127.0.0.2"
    assert resolve("10.test", "192.0.2.1") == "result 4", "not an address of this machine"
    for name, result in {"7.test": "result 5", "localhost": "127.0.0.1", "a.localhost": "127.0.0.1",
                         "LocalHost.": "127.0.0.1", "notlocalhost": "result 5"}.items():
        assert resolve(name, servers="not a server") == result, name


def test_silent_servers_end_in_time_and_hold_nobody_else(probe: Probe, server: DnsServer) -> None:
    deaf = DnsServer(answers=False)  # one round later the other one is asked
    begin = time.monotonic()
    assert probe.run("resolve", "0.0.0.0", "silent.test", "1.test",
                     DNS_CLIENT_SERVERS=f"{deaf.name},{server.name}") == "10.0.0.1\nresult 3\n"
    assert time.monotonic() - begin < 10, "three rounds of two servers take 14 s"


def test_only_host_names_are_accepted(probe: Probe) -> None:
    label = "a" * 63
    full = f"{label}.{label}.{label}."
    good = [full + "b" * 61, "update.example.com", "h.", "3com.a-b_c.x1"]
    bad = [full + "b" * 62, label + "a.com", ".", "", "a..b", "-a.com", "a-.com", "a b.com",
           "255.255.255.255"]
    assert probe.run("names", *good) == "1" * len(good)
    assert probe.run("names", *bad) == "0" * len(bad)
