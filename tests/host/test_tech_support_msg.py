"""The support service over its real socket."""

import socket
import stat

import pytest
from lab import DEADLINE, Sample

COMPLETE = b"complete 10\n100% of 0\n"  # of "report 0"
BIG = 819_200  # a step of the sample's reports
LIMIT, NOTICE = 1_048_576, b"\n(the report was cut here)\n"
CONNECTIONS_MAX = 4


def dial(sample: Sample) -> socket.socket:
    made = socket.socket(socket.AF_UNIX)
    made.connect(str(sample.work / ".tech_support"))
    made.settimeout(DEADLINE)
    return made


def read_all(peer: socket.socket) -> bytes:
    with peer.makefile("rb") as stream:
        return stream.read()


def ask(sample: Sample, request: bytes) -> bytes:
    with dial(sample) as peer:
        peer.sendall(request)
        if not request.endswith(b"\n"):
            peer.shutdown(socket.SHUT_WR)
        return read_all(peer)


@pytest.fixture
def support(sample: Sample) -> Sample:
    (sample.work / ".tech_support").write_text("left over")
    sample.start()
    return sample


def test_answers_by_the_protocol(support: Sample) -> None:
    for request, reply in {
        b"report 0\nreport 1\n": COMPLETE, b"report 1\n": b"no report\n", b"report -1\n": b"",
        b"report 1x\n": b"", b"report 0": b"", b"r" * 64: b"",
        b"files\n": b"/tmp/%s dump\n/tmp/second\n",
    }.items():
        assert ask(support, request) == reply, request
    assert (support.work / ".tech_support").stat().st_mode == stat.S_IFSOCK | 0o600
    text = (b"100% of 3\n" + b"x" * LIMIT)[:LIMIT - len(NOTICE)] + NOTICE
    assert ask(support, b"report 3\n") == b"complete %d\n" % LIMIT + text


def test_stalled_peers_make_room_for_newer_ones(support: Sample) -> None:
    silent = [dial(support) for _ in range(CONNECTIONS_MAX)]
    deaf = dial(support)
    deaf.sendall(b"report 2\n")
    assert deaf.recv(1, socket.MSG_PEEK)
    assert ask(support, b"report 0\n") == COMPLETE
    assert read_all(silent[0]) == b"", "the oldest had to go"
    silent[3].sendall(b"repo")
    silent[3].sendall(b"rt 1\n")
    assert read_all(silent[3]) == b"no report\n"
    assert read_all(deaf) == b"complete 819210\n100% of 2\n" + b"x" * BIG
