"""http_client_cli end to end against a daemon with sample commands."""

import os
import shutil
import signal
import socketserver
import stat
import subprocess
import tarfile
import tempfile
import threading
from pathlib import Path

import pexpect
import pytest

BIN = Path(os.environ["HTTP_CLIENT_BIN"])
CLI = str(BIN / "http_client_cli")
WAIT_S = 20
NOTHING = "words=[] no=0 context=0 debug=0 v1=0 v2=0 s1=[] s2=[]\n"


@pytest.fixture
def root():
    path = Path(tempfile.mkdtemp(prefix="hc-", dir="/tmp"))  # short, as the prefixes are
    (path / "oam/http_client").mkdir(parents=True)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def env(root):
    return {**os.environ, "TMPDIR": str(root), "DATA_VEMO_DIR": str(root), "TERM": "xterm",
            "LC_ALL": "C.UTF-8", "PRINTK_SYSLOG_FILE": str(root / "log")}


@pytest.fixture
def daemon(env):
    process = subprocess.Popen([str(BIN / "cli_test_daemon")], env=env, stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"ready\n"
    yield process
    process.kill()
    process.wait()
    process.stdout.close()


def run(env, *arguments, stdin=""):
    done = subprocess.run([CLI, *arguments], env=env, input=stdin, capture_output=True, text=True,
                          timeout=WAIT_S)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("arguments, stdin, status, output, errors", [
    (["-c", "show http-update", "-c", "no debug http-client info"], "", 0,
     NOTHING + NOTHING.replace("no=0 context=0 debug=0", "no=1 context=2 debug=1"), ""),
    (["--second-list", "-c", "show http-update"], "", 0,
     NOTHING.replace("context=0", "context=1"), ""),
    (["-c", "bogus", "-c", "show http-update"], "", 1, NOTHING, '% Unknown word: "bogus"\n'),
    (["-c", "exit", "-c", "bogus"], "", 0, "", ""),
    (["-c", "show http-update?"], "", 0, "  http-update           http auto update state\n", ""),
    ([], "# comment\n\nshow http-update\r\nconfigure\nhttp update server h\nshow run\nend\n", 0,
     NOTHING + "http update server h port 80\n", ""),
    ([], "configure\nhttp update server bad%s\n" + "x" * 70000 + "\nshow http-update", 1, NOTHING,
     "% Invalid server bad%s. \n% Line too long (at most 1023 bytes)\n"),
], ids=["commands", "second list", "refused", "exit", "help", "standard input", "bad input"])
def test_batch(env, daemon, arguments, stdin, status, output, errors):
    assert run(env, *arguments, stdin=stdin) == (status, output, errors)


def test_no_daemon_and_bad_usage(env, root):
    status, output, errors = run(env, "-c", "write")
    assert (status, output) == (2, "")
    assert errors.startswith(f"http_client_cli: no daemon at {root}/oam/http_client/")
    for arguments in (["--bogus"], ["-c"], ["left over"], ["--tech-support", "x", "-c", "write"]):
        assert run(env, *arguments)[:2] == (2, ""), arguments
    assert run(env, "--help")[0] == 0


def start_hold(env):
    process = subprocess.Popen([CLI, "-c", "work hold", "-c", "show http-update"], env=env,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "holding\n"
    return process


def test_interrupt_stops_the_command_alone(env, daemon):
    process = start_hold(env)
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=WAIT_S) == ("stopped\n" + NOTHING, "")
    assert process.returncode == 0


def test_daemon_that_dies_is_noticed(env, daemon):
    running = start_hold(env)
    idle = subprocess.Popen([CLI], env=env, stdin=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True)
    prompt = pexpect.spawn(CLI, env=env, timeout=WAIT_S)
    prompt.expect_exact("http_client> ")
    daemon.kill()
    for process in (running, idle):
        assert process.wait(WAIT_S) == 2
        assert process.stderr.read() == "http_client_cli: the daemon has closed the session\n"
        process.communicate()
    prompt.expect_exact("the daemon has closed the session")
    prompt.expect(pexpect.EOF)
    prompt.close()
    assert prompt.exitstatus == 2


def test_terminal(env, daemon):
    child = pexpect.spawn(CLI, env=env, timeout=WAIT_S, encoding="utf-8", dimensions=(24, 80))
    child.expect_exact("http_client> ")
    child.send("conf\t\r")
    child.expect_exact("igure ")
    child.expect_exact("http_client(config)# ")
    child.send("http update m?")  # no Enter
    child.expect_exact("mode                  http update mode\r\n")
    child.expect_exact("http update m")  # the line is kept
    child.setwinsize(24, 40)
    child.send("\tman\x03")  # cleared, not run
    child.expect_exact("http_client(config)# ")
    child.send("e\t")  # two words begin with it
    child.expect_exact("end\r\nexit\r\n")
    child.send("\x15http update server grün\rshow run\rend\r")  # pasted lines
    child.expect_exact("http update server grün port 80\r\n")
    child.expect_exact("http_client> ")
    child.send("work hold\r")
    child.expect_exact("holding")
    child.send("\x03")
    child.expect_exact("stopped")
    child.expect_exact("http_client> ")
    child.send("\x1b[A\x01bogus \r")  # the last line again, changed
    child.expect_exact('% Unknown word: "bogus"')
    child.expect_exact("http_client> ")
    child.send("\x04")
    child.expect(pexpect.EOF)
    child.close()
    assert child.exitstatus == 1


class Support(socketserver.StreamRequestHandler):
    def handle(self):
        self.wfile.write(self.server.answers.get(self.rfile.readline(), b""))


@pytest.fixture
def support(root):
    path = str(root / "oam/http_client/.tech_support")
    with socketserver.UnixStreamServer(path, Support) as server:
        server.answers = {b"report 0\n": b"complete 5\nzero\n", b"report 1\n": b"no report\n"}
        thread = threading.Thread(target=server.serve_forever, args=(0.01,))
        thread.start()
        yield server
        server.shutdown()
        thread.join()


def test_support_bundle(env, root, support):
    dumps = {"a/.dump": b"A" * 700, "b/.dump": b"", "link": None, "pipe": None, "gone": None}
    for name, content in dumps.items():
        (root / name).parent.mkdir(exist_ok=True)
        if content is not None:
            (root / name).write_bytes(content)
    (root / "link").symlink_to(root / "a/.dump")
    os.mkfifo(root / "pipe")
    support.answers[b"files\n"] = "".join(f"{root}/{name}\n" for name in dumps).encode()
    bundle = root / "bundle.tar.gz"
    bundle.write_text("old")
    bundle.chmod(0o644)
    status, _, errors = run(env, "--tech-support", str(bundle))
    assert status == 0
    assert [line.split("/")[-1] for line in errors.splitlines()] == [
        "http_client_cli: report-1.txt: no such report",
        "link: Too many levels of symbolic links", "pipe: not a plain file, left out"]
    assert stat.S_IMODE(bundle.stat().st_mode) == 0o600
    with tarfile.open(bundle) as tar:
        members = {member.name: tar.extractfile(member).read() for member in tar.getmembers()}
    assert members == {"report-0.txt": b"zero\n", "dump": b"A" * 700, "1-dump": b""}
    assert not list(root.glob("bundle.tar.gz.*"))


def test_no_bundle_without_service_or_place(env, root, support):
    assert run(env, "--tech-support", str(root / "nowhere/x.tar.gz"))[0] == 2
    support.answers = {}
    assert run(env, "--tech-support", str(root))[0] == 2  # a directory
    assert sorted(path.name for path in root.iterdir()) == ["oam"]
    (root / "oam/http_client/.tech_support").unlink()
    assert run(env, "--tech-support", str(root / "x.tar.gz"))[0] == 2
