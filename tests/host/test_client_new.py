"""The command-line service over its real socket: what can be typed, sessions side by
side, terminals that misbehave."""

import os
import resource
import socket
import stat
import struct
import time

import pytest
from lab import DEADLINE, Device, Sample, wait_for

OPEN, COMMAND, KEY, HELP, COMPLETE, PING = 1, 2, 3, 4, 5, 6
REFUSAL, END, BYE, PONG = 17, 18, 20, 21
RECORD = "[] no=0 context=0 debug=0 []\n"  # of "show record"


class Terminal:
    """An operator's program, as bare as it can be."""

    def __init__(self, device: Device | Sample, opens: bool = True) -> None:
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(device.work / ".http_client_cli"))
        self.socket.settimeout(DEADLINE)
        self.stream = self.socket.makefile("rb")
        assert not opens or self.open() == ""

    def open(self) -> str:
        self.send(OPEN, struct.pack("II", 1, 0))
        return self.finish()

    def send(self, kind: int, payload: bytes = b"", length: int | None = None) -> bool:
        head = struct.pack("HHI", kind, 0, len(payload) if length is None else length)
        try:
            self.socket.sendall(head + payload)
        except OSError:
            return False  # which shows in what is received, too
        return True

    def start(self, line: str) -> None:
        self.send(COMMAND, line.encode())

    def next(self) -> tuple[int, str]:
        head = self.stream.read(8)
        if len(head) < 8:
            return BYE, "lost"
        kind, _, length = struct.unpack("HHI", head)
        return kind, self.stream.read(length).decode()

    def finish(self) -> str:
        """Output to the end of the command; refusals in angle brackets, the reason of
        a closed session in square ones."""
        output = ""
        while True:
            kind, text = self.next()
            if kind == END:
                return output
            if kind == BYE:
                return f"{output}[{text}]"
            output += f"<{text}>" if kind == REFUSAL else text

    def run(self, line: str) -> str:
        self.start(line)
        return self.finish()

    def ask(self, kind: int, line: str) -> str:
        self.send(kind, line.encode())
        return self.next()[1]


def test_lines_are_taken_or_refused(device: Device) -> None:
    terminal, fits = Terminal(device), "w" * 255
    device.app("alpha")
    unknown = "%notice: The bussiness modules haven't registered.\n"
    for name in ("a", "display  b "):  # neither "all" nor "display-progress"
        assert terminal.run(f"http update {name}") == unknown
    for line, refusal in {
        "http update all b": 'Unexpected word: "b"',
        "configure": None,
        "http update mode": 'Incomplete command after "mode"',
        f"http update server {fits}w": f'Too long (at most 255 bytes): "{fits[:64]}..."',
        "http update server h port 65536": 'Out of range (1 to 65535): "65536"',
        "http update server h port 0": 'Out of range (1 to 65535): "0"',
        "http update server h port 8x": 'Not a number (1 to 65535): "8x"',
        "http update time daily 24:00": 'Not a time of day (hh:mm, 00:00 to 23:59): "24:00"',
        "http update s": 'Ambiguous word: "s" (source_ip, server)',
        "http\0": "Line with a zero byte",
        "http\x7f\x1b": 'Unknown word: "http??"',
        "http update server h9 p 8": None,
        "no http update server h p 8": None,
        " ht up  mo\tman\r": None,
        f"http update source_ip {fits}": "Invalid source ip address. ",
    }.items():
        answer = terminal.run(line)
        assert refusal is None or answer == f"<% {refusal}\n>", line
        assert refusal is not None or "<" not in answer, line
    assert terminal.run("show running-config").startswith(
        "http update mode manual\nhttp update server h9 port 8\n")


def test_help_and_completion_show_what_may_follow(device: Device) -> None:
    terminal = Terminal(device)
    apps = terminal.ask(HELP, "http update a b")
    assert apps.startswith("  LINE                  Files:") and apps.endswith("\n  <cr>\n")
    terminal.run("configure")
    for kind, line, shown in [
        (HELP, "no http update mode ", "  <cr>\n  manual                manual update files\n"),
        (HELP, "http update server h port ", "  <1-65535>             default 80\n"),
        (HELP, "http x mode ", '% Unknown word: "x"\n'),
        (COMPLETE, "http update s", "source_ip\nserver\n"),
        (COMPLETE, "http update time daily ", ""),
    ]:
        assert terminal.ask(kind, line) == shown, line


@pytest.mark.parametrize("saved, count, log", [
    (None, 0, []),
    (b"! comment\n\nhttp update server first\nhttp updat servr x\nhttp update server bad%s\n"
     b"\x7fELF\nhttp update server last\r\nconfigure\nno http", 5,
     ['line 4: % Unknown word: "servr"', "line 5: % Invalid server bad%s.",
      'line 6: % Unknown word: "?ELF"', 'line 8: % Unknown word: "configure"',
      "line 9: % Incomplete"]),
    (bytes(3000) + b"\xff\n" + b"x\n" * 509, 501, ["10 more damaged lines"]),
    (b"!" * 300_000, 1, ["too large"]),
    (b"open to all", 1, ["others own it or may write to it"]),
    ("a pipe", 2, ["not a plain file", "moved to "]),
], ids=["missing", "damaged", "many", "huge", "open", "pipe"])
def test_any_saved_configuration(sample: Sample, saved: bytes | str | None, count: int,
                                 log: list[str]) -> None:
    (sample.work / ".http_client_cli").write_text("stale")
    if isinstance(saved, str):
        os.mkfifo(sample.config)
    elif saved is not None:
        sample.config.write_bytes(saved)
        sample.config.chmod(0o666 if saved == b"open to all" else 0o600)
    sample.start()
    assert saved != "a pipe" or Terminal(sample).run("write") == ""
    assert (sample.work / ".http_client_cli").stat().st_mode == stat.S_IFSOCK | 0o600
    lines = sample.log.read_text().splitlines() if sample.log.exists() else []
    assert len(lines) == count, lines
    assert all(text in line for text, line in zip(reversed(log), reversed(lines))), lines
    if len(log) > 2:
        assert Terminal(sample).run("show running-config") == "http update server last\n"


def test_write_saves_the_whole_file_or_keeps_the_old_one(sample: Sample) -> None:
    sample.start(umask=0)
    terminal = Terminal(sample)
    terminal.run("configure")
    terminal.run("http update server saved")
    assert terminal.run("write") == ""
    saved = sample.config.read_text()
    assert saved.endswith("\nhttp update server saved\n")
    assert sample.config.stat().st_mode == stat.S_IFREG | 0o600
    sample.config.with_suffix(".new").mkdir()
    terminal.run("no http update server")
    assert terminal.run("write").startswith("<% Not saved: "), "and says why"
    assert sample.config.read_text() == saved


def test_threads_are_named_early_late_or_never(sample: Sample) -> None:
    sample.start()
    terminal = Terminal(sample)
    terminal.start("work hold")
    terminal.send(KEY, b"x\x03")
    assert terminal.finish() == "holding\nstopped\n", "prints before it is named"
    assert terminal.run("work stray") == "handler\n", "a thread of no command"
    assert terminal.run("work end-first") == "", "the end is final, the next thread a stranger"
    assert terminal.run("show record") == RECORD
    talkers = {f"chatter{n}": Terminal(sample) for n in range(4)}
    for name, talker in talkers.items():
        talker.start(f"work {name}")
    for name, talker in talkers.items():
        assert talker.finish() == f"{name}.\n" * 500, "outputs do not mix"


def test_next_command_waits_and_a_terminal_that_leaves_stops_its_own(sample: Sample) -> None:
    sample.start()
    terminal, leaver = Terminal(sample), Terminal(sample)
    for each in (terminal, leaver):
        each.start("work hold")
        assert each.next()[1] == "holding\n"
    leaver.socket.shutdown(socket.SHUT_RDWR)
    wait_for(lambda: sample.ended() == 1)
    terminal.start("show record")
    assert Terminal(sample).run("show record") == RECORD, "others are not kept"
    terminal.send(KEY, b"\x03")
    assert [terminal.finish(), terminal.finish()] == ["stopped\n", RECORD]


def test_terminal_that_does_not_read_holds_nobody(sample: Sample) -> None:
    sample.start()
    sleeper = Terminal(sample)
    sleeper.start("work flood")
    assert Terminal(sample).run("show record") == RECORD, "the loop goes on"
    assert sample.ended() == 0, "the thread waits for its terminal"
    wait_for(lambda: sample.ended() == 1, "but not for ever")
    late = Terminal(sample)
    late.start("work flood")
    time.sleep(0.2)  # to overrun it, if it could
    output = late.finish()
    assert len(output) == 4096 * 1024 and output.endswith("4095\n")


def test_malformed_peer_costs_only_itself(sample: Sample) -> None:
    sample.start()
    for opens, kind, payload, length, answer in [
        (False, COMMAND, b"write", None, "malformed"), (False, OPEN, b"releases", None, "releases"),
        (True, COMMAND, b"", 0xffffffff, "malformed"),
    ]:
        terminal = Terminal(sample, opens)
        terminal.send(kind, payload, length)
        assert answer in terminal.finish()
    hurried, deaf = Terminal(sample), Terminal(sample)
    for _ in range(40):
        hurried.start("work hold")
    assert "[too many commands at once]" in hurried.finish()
    # Answers that nobody reads must not pile up without bound.
    assert not all(deaf.send(HELP) for _ in range(100_000))
    later = Terminal(sample)
    later.send(77, b"of a later release")
    assert later.run("show record") == RECORD


def test_idlest_terminal_gives_way(sample: Sample) -> None:
    sample.start()
    many = [Terminal(sample) for _ in range(16)]
    for held in many[:2]:
        held.start("work hold")
        assert held.next()[1] == "holding\n"
    many[2].send(PING)
    assert many[2].next()[0] == PONG, "which no person has typed"
    many[3].ask(HELP, "")
    for idlest in (many[2], many[4]):
        many.append(Terminal(sample))
        assert idlest.finish() == "[idle for longest, and another terminal needs the place]"
        many.remove(idlest)
    for held in many[2:]:
        held.start("work hold")
        assert held.next()[1] == "holding\n"
    assert Terminal(sample, opens=False).open() == "[too many sessions are open]"
    for held in many:
        held.send(KEY, b"\x03")
        assert held.finish() == "stopped\n"


def test_unread_configuration_is_read_later_and_never_lost(sample: Sample) -> None:
    def allow(descriptors: int) -> None:
        resource.prlimit(sample.process.pid, resource.RLIMIT_NOFILE, (descriptors, 64))

    sample.config.write_text("http update server saved\n")
    sample.start()
    held = len(os.listdir(f"/proc/{sample.process.pid}/fd"))
    sample.end()
    (sample.scratch.root / "sample.out").unlink()
    sample.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (held, 64)))
    waits = Terminal(sample, opens=False)
    allow(held + 1)
    assert waits.open() == "", "who came while descriptors were short"
    assert waits.run("show running-config") == ""
    for line in ("configure", "write"):
        assert "read yet: Too many open files" in waits.run(line)
    allow(64)
    assert waits.run("configure") == ""
    assert waits.run("show running-config") == "http update server saved\n"
    assert sample.config.read_text() == "http update server saved\n"
