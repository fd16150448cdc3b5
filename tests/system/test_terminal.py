"""What a person at a terminal sees of a device beside the given output."""

import io
import re

import pexpect
from lab import BIN_DIR, DEADLINE, Device, LabServer

# What the progress line leaves among the output: itself, on the row below where the output
# stands in the middle of one, and its end.
DRAWN = re.compile(r"(\r\r\n)?alpha: file [^\r]*\r(\x1b\[A\x1b\[\d+C)?|\x1b\[J")


def spawn(device: Device, *arguments: str, columns: int = 80) -> pexpect.spawn:
    return pexpect.spawn(str(BIN_DIR / "http_client_cli"), list(arguments), timeout=DEADLINE,
                         env=device.environment(TERM="vt100"), encoding="utf-8", echo=False,
                         dimensions=(8, columns))


def test_progress_line_disturbs_no_output(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 3_500_000, "b.bin": 10})
    device.app("alpha")
    server.fault(path="*a.bin", stall_after=1_000_000)
    child = spawn(device, "-c", "http update all", columns=40)
    child.logfile_read = io.StringIO()
    child.expect_exact(".\r\r\nalpha: file 1 of 2, 28% of 3.5 MB")
    child.sendintr()
    child.expect(pexpect.EOF)
    output = DRAWN.sub("", child.logfile_read.getvalue())
    assert re.fullmatch(
        r"Downloading updated files, please wait...\r\nPress Ctrl\+C to quit\r\n"
        r"\.+Download fail, Operation canceled\r\r\nUpdate module with server 127.0.0.1:\r\r\n"
        r"alpha: The user cancels the upgrade process\r\n", output), output


def test_pages_and_hints(device: Device) -> None:
    for name in ("alpha", "beta"):
        device.app(name)
    child = spawn(device)
    child.expect_exact("http_client> ")
    for keys, *shown in [
        ("show http-update test\r", "update mode: ", "SN0001\r\n", "--More--"),
        ("\r", "software: ", "--More--"), (" ", "beta", "http_client> "),
        ("show http-update test\r", "--More--"), ("q", "\rhttp_client> "),
        ("show http-update test | inc update s\r", "source_ip:  0.0.0.0\r\nhttp_client> "),
        ("http background-update x alpha \r",
         "Not registered: x. Registered: alpha, beta.\r\n", "http_client> "),
        ("configure\r", "(config)# "),
        ("http update source_ip 999.1.1.1\r", "% Invalid source ip address. \r\n999.1.1.1 can't"),
        ("http update server 10.1.1.256\r", "10.1.1.256 can't be an address: "),
        ("http update server host.name\r", "(config)# "),
        ("no http update server\r", "(config)# "),
    ]:
        child.send(keys)
        for text in shown:
            child.expect_exact(text)
            assert "can't" not in child.before
