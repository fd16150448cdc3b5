"""http_client_cli end to end against a daemon with sample commands."""

import os
import shlex
import signal
import socket
import socketserver
import stat
import struct
import subprocess
import tarfile
import threading

import pexpect
import pytest
from lab import BIN_DIR, DEADLINE, Sample, wait_for

CLI = str(BIN_DIR / "http_client_cli")
RECORD = "[] no=0 context=0 debug=0 []\n"


@pytest.fixture
def daemon(sample):
    sample.start()
    return sample


def run(sample, *arguments, stdin="", **more):
    done = subprocess.run([CLI, *arguments], env=sample.environment, input=stdin, text=True,
                          timeout=DEADLINE, **{"stdout": subprocess.PIPE,
                                               "stderr": subprocess.PIPE, **more})
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("arguments, stdin, status, output, errors", [
    (["-c", "show record", "-c", "no debug record info"], "", 0,
     RECORD + "[] no=1 context=2 debug=1 []\n", ""),
    (["--second-list", "-c", "show rec"], "", 0, RECORD.replace("context=0", "context=1"), ""),
    (["-c", "bogus", "-c", "show record"], "", 1, RECORD, '% Unknown word: "bogus"\n'),
    (["-c", "debug all", "-c", "no debug all", "-c", "show debugging", "-c", "no work x"], "", 1,
     "debug switch 1\ndebug switch 2\ndebug switch 3\n", '% Unknown word: "work"\n'),
    ([], "# comment\n\nshow record\r\nconfigure\nhttp update server h\nshow run\nend\n", 0,
     RECORD + "http update server h\n", ""),
    ([], "configure\nhttp update server bad%s\n" + "x" * 70000 + "\nshow record", 1, RECORD,
     "% Invalid server bad%s. \n% Line too long (at most 1023 bytes)\n"),
    (["-c", "show ? | b run | ex rec", "-c", "work x y | inc", "-c", "# | inc", "-c", "show run | x",
      "-c", "show record| include 0", "-c", "show record | e no | i x|y"], "", 1,
     "  running-config        The present configuration\n",
     '% Incomplete command after "include"\n% Unexpected word: "|"\n% Unknown word: "record|"\n'),
], ids=["commands", "second list", "refused", "debug", "standard input", "bad input", "filters"])
def test_batch(daemon, arguments, stdin, status, output, errors):
    assert run(daemon, *arguments, stdin=stdin) == (status, output, errors)


def test_troubles_end_with_status_2(daemon):
    with open("/dev/full", "w") as full:
        status, _, errors = run(daemon, "-c", "show record", stdout=full)
    assert status == 2 and "standard output: " in errors
    assert run(daemon, "--timeout", "1", "-c", "work hold", "-c", "show record") == (
        2, "holding\n", "http_client_cli: not done within 1 s\n")
    wait_for(lambda: daemon.ended() == 1, "for the command to be stopped, too")
    daemon.end()
    status, output, errors = run(daemon, "-c", "write")
    assert status == 2 and output == ""
    assert errors.startswith(f"http_client_cli: no daemon at {daemon.work}/")
    for arguments in (["--bogus"], ["-c"], ["left over"], ["--tech-support", "x", "-c", "write"],
                      ["--timeout", "0"], ["--timeout", "1x"]):
        assert run(daemon, *arguments)[:2] == (2, ""), arguments


def spawn(sample):
    child = pexpect.spawn(shlex.quote(CLI), env=sample.environment, timeout=DEADLINE,
                          encoding="utf-8", dimensions=(24, 80))
    child.expect_exact("http_client> ")
    return child


def test_terminal_until_the_daemon_dies(daemon):
    child = spawn(daemon)
    for keys, *shown in [
        ("conf\t\r", "igure ", "http_client(config)# "),
        ("http update s?", "server                help\r\n", "http update s"),  # no Enter
        ("\t" + "h" * 150 + "?", "hostname\r\n", "http_client(config)# "),  # several rows
        ("\x03", "http_client(config)# "),  # cleared, not run
        ("e\t", "end\r\nexit\r\n"),  # two words begin with it
        ("\x15http update server grün\rshow run\rend\r", "\nhttp update server grün\r\n",
         "http_client> "),  # pasted lines
        ("work hold\r", "holding"),
        ("\x03", "stopped", "http_client> "),
        ("\x1b[A\x01bogus \r", '% Unknown word: "bogus"', "http_client> "),  # the last line
        ("half", "half"),
    ]:
        child.send(keys)
        for text in shown:
            child.expect_exact(text)
            assert "\x1b[A" not in child.before, "what was shown must stay"
    daemon.process.kill()
    for shown in ("\r\n", "http_client_cli: the daemon has closed the session", "leaves)..."):
        child.expect_exact(shown)
    child.sendintr()
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 2


def test_terminal_outlives_the_daemon(daemon):
    child = spawn(daemon)
    child.send("configure\r")
    child.expect_exact("(config)# ")
    daemon.process.kill()
    child.expect_exact("leaves)...\r\n")
    (daemon.scratch.root / "sample.out").unlink()
    daemon.start()
    child.expect_exact("http_client_cli: connected again, in exec mode\r\nhttp_client> ")
    child.send("show record\r")
    child.expect_exact(RECORD.rstrip())


def test_terminal_helps_a_person(daemon):
    history = daemon.scratch.root / ".http_client_history"
    history.write_text("show record\n")
    history.chmod(0o600)
    child = spawn(daemon)
    for keys, shown in [
        ("\x1b[A\r", RECORD),
        ("shwo record\r", f"{' ' * 13}^\n% Unknown word: \"shwo\"\nDid you mean \"show\"?\n"),
        ("show Recrd x\r", f"{' ' * 18}^\n% Unknown word: \"Recrd\"\nDid you mean \"record\"?\n"),
        ("show x | inc y\r", f"{' ' * 18}^\n% Unknown word: \"x\"\nhttp_client> "),
        ("work\r", f"{' ' * 18}^\n% Incomplete command after \"work\"\n"),
        ("work flood\r", "4095\nhttp_client> "),  # runs: not a page at a time
        ("show record | in\t?", "  TEXT\n"), ("no\r", RECORD),
        ("help work\r", "  WORD                  kind\n"),
        ("configure\r", "(config)# "), ("http update server h\r", "(config)# "),
        ("quit\r", "Not saved (\"write\" saves it):\n+ http update server h\n"),
    ]:
        child.send(keys)
        child.expect_exact(shown.replace("\n", "\r\n"))
    child.expect(pexpect.EOF)
    assert history.read_text().startswith("show record\nshow record\nshwo record\n")
    assert stat.S_IMODE(history.stat().st_mode) == 0o600
    child = spawn(daemon)
    child.send("write\r")
    child.expect_exact("Saved.\r\nhttp_client> ")  # between prompts Ctrl+D is lost
    child.sendeof()
    child.expect(pexpect.EOF)
    assert "Not saved" not in child.before
    assert history.read_text().endswith("\nquit\nwrite\n")


def test_silence_is_allowed_to_commands_not_to_the_daemon(daemon):
    def begin(directory):
        return subprocess.Popen([CLI, "-c", "work hold", "-c", "show record"], text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env={**daemon.environment,
                                                             "TMPDIR": str(directory)})
    patient = begin(daemon.scratch.root)
    assert patient.stdout.read(8) == "holding\n"
    stopped = daemon.scratch.root / "s/oam/http_client"
    stopped.mkdir(parents=True)
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(stopped / ".http_client_cli"))
        server.listen()
        waiting = begin(daemon.scratch.root / "s")
        with server.accept()[0] as connection:
            connection.sendall(struct.pack("HHI4B", 18, 0, 4, 0, 0, 0, 1))  # opened; knows pings
            assert waiting.communicate(timeout=DEADLINE) == (
                "", "http_client_cli: the daemon does not answer\n")
    assert waiting.returncode == 2
    patient.send_signal(signal.SIGINT)
    assert patient.communicate(timeout=DEADLINE) == ("stopped\n", "")
    assert patient.returncode == -signal.SIGINT, "as a shell's loop has to see it"


class Support(socketserver.StreamRequestHandler):
    def handle(self):
        self.wfile.write(self.server.answers.get(self.rfile.readline(), b""))


def test_support_bundle_says_what_it_lacks(daemon):
    root = daemon.scratch.root
    for name in "ab":
        (root / name).mkdir()
        (root / name / ".dump").write_text(name)
    (root / "link").symlink_to(root / "a/.dump")
    os.mkfifo(root / "pipe")
    for name, script in (("systemctl", "echo stopped; exit 3"), ("journalctl", "exit 127")):
        (root / name).write_text(f"#!/bin/sh\n{script}\n")
        (root / name).chmod(0o755)
    daemon.environment["PATH"] = f"{root}:{os.environ['PATH']}"
    daemon.config.write_text("saved")
    bundle = root / "bundle.tar.gz"
    bundle.write_text("old")
    bundle.chmod(0o644)

    def write():
        status, _, errors = run(daemon, "--tech-support", str(bundle))
        with tarfile.open(bundle) as tar:
            members = {m.name: tar.extractfile(m).read().decode() for m in tar.getmembers()}
        index = dict(line.split(maxsplit=1) for line in members["index.txt"].splitlines())
        return status, [line.split("/")[-1] for line in errors.splitlines()], members, index

    path = daemon.work / ".tech_support"
    path.unlink()
    with socketserver.UnixStreamServer(str(path), Support) as server:
        server.answers = {
            b"report 0\n": b"complete 5\nzero\n", b"report 1\n": b"complete 5\nzer",
            b"files\n": "".join(f"{root}/{name}\n" for name in (
                "a/.dump", "b/.dump", "link", "pipe", "gone")).encode()}
        thread = threading.Thread(target=server.serve_forever, args=(0.01,))
        thread.start()
        status, errors, members, index = write()
        server.shutdown()
        thread.join()
    assert status == 1 and stat.S_IMODE(bundle.stat().st_mode) == 0o600
    assert errors == ["http_client_cli: report-1.txt: left out: cut short",
                      "link: left out: Too many levels of symbolic links",
                      "pipe: left out: not a plain file"]
    assert members | {"index.txt": "", "version.txt": ""} == {
        "report-0.txt": "zero\n", "dump": "a", "1-dump": "b", "running-config.txt": "",
        "startup-config": "saved", "unit.txt": "stopped\n", "index.txt": "", "version.txt": ""}
    assert index["journal.txt"] == "none: no journalctl here"
    assert index["status.txt"].startswith("none: % Unknown word"), "an older daemon"
    daemon.end()
    (daemon.work / ".http_reg_server_dump").write_text("last words")
    status, errors, members, index = write()
    assert status == 1 and members["http_reg_server_dump"] == "last words"
    assert "no daemon" in index["status.txt"] and "startup-config" in members
    assert run(daemon, "--tech-support", str(root / "no/x"))[0] == 2
    assert not list(root.glob("bundle.tar.gz.*"))
