"""Servers that fail, lie or attack: each ends in its code, in bounded time and memory."""

import time

import pytest
from lab import Device, LabServer, wait_for

FAILED = "%notice: Communicate with the server failed.\n"
FORMAT = "%notice: The server response message format is wrong.\n"

REPLIES = {
    "not found": (dict(status=404), FAILED),
    "redirect": (dict(status=302, location="/elsewhere"), FAILED),
    "garbage": (dict(reply="garbage"), FORMAT),
    "login page": (dict(reply="other-root"), FORMAT),
    "empty": (dict(reply="empty"), FORMAT),
    "nothing": (dict(drop=True), FAILED),
    "doctype": (dict(reply="doctype"), FORMAT),
    "nesting": (dict(reply="deep"), FORMAT),
    "nul": (dict(reply="nul"), FORMAT),
    "header too long": (dict(header_pad=4000), FAILED),
    "no length": (dict(content_length=-1), FAILED),
    "length too large": (dict(content_length=2_097_153), FAILED),
    "length beyond the body": (dict(content_length=100_000), FAILED),
    "length short of the body": (dict(content_length=20), FORMAT),
    "cut": (dict(cut_after=50), FAILED),
}


def test_every_bad_reply_has_its_code(device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 1000})
    app = device.app("alpha")
    device.cli("http check-version")
    held = device.held()
    for name, (rule, text) in REPLIES.items():
        server.fault(method="POST", **rule)
        assert device.cli("http check-version") == text, name
        assert device.cli("http update all") == (
            f"Update module with server 127.0.0.1:\r\n{text}"), name
        server.heal()
    # Nothing is left over, and nothing spins.
    wait_for(lambda: all(now <= before for now, before in zip(device.held(), held)))
    used = device.cpu_seconds()
    time.sleep(1)
    assert device.cpu_seconds() - used < 0.2
    with open(f"/proc/{device.daemon.pid}/status", encoding="ascii") as status:
        peak_kb = next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))
    # Sanitizers keep shadow memory; 200 MB is far below what a bomb would take.
    assert peak_kb < 200_000 or "san" in str(device.daemon.args), peak_kb
    assert app.requests == [] and device.disk("alpha") == {}
    assert "alpha: download and notify" in device.cli("http update all")
    assert device.disk("alpha") == made


def test_reply_that_dribbles_in_is_read(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    device.app("alpha")
    server.fault(method="POST", rate=200)
    assert "alpha           2.0                  a.bin" in device.cli("http check-version")


def test_silent_server_can_be_waited_for_while_others_work(
        device: Device, server: LabServer) -> None:
    device.app("alpha")
    server.fault(method="POST", silent=True)
    check = device.begin("http check-version")
    wait_for(lambda: server.queries())
    assert device.versions() == {"alpha": "1.0"}
    server.heal()  # it hangs up
    assert check.finish() == FAILED


DOWNLOADS = {
    "not found": dict(status=404),
    "redirect": dict(status=302, location="http://127.0.0.1:1/"),
    "server error": dict(status=500),
    "nothing": dict(drop=True),
    "cut": dict(cut_after=500),
    "no length": dict(content_length=-1),
    "length beyond the file": dict(content_length=2000, times=1),
}


@pytest.mark.parametrize("name", DOWNLOADS)
def test_failed_download_leaves_nothing(device: Device, server: LabServer, name: str) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 1000})
    app = device.app("alpha")
    server.fault(path="*/b.bin", **DOWNLOADS[name])
    assert device.cli("http update all").endswith("alpha: Download failed.\n")
    assert device.disk("alpha") == {} and app.requests == []
    server.heal()
    assert device.cli("http update all").endswith("alpha: download and notify successfully.\n")


def test_a_dead_source_is_followed_by_the_next(device: Device, server: LabServer) -> None:
    """The second source answers 404, the third breaks off, the fourth has the file."""
    made = server.release("alpha", "2.0", {"a.bin": 100_000}, files=[
        {"name": "a.bin", "downpaths": [
            "127.0.0.1:1/a.bin", "{base}/missing", "{base}/files/alpha/2.0/a.bin?1",
            " {base}/files/alpha/2.0/a.bin\n"]}])
    device.app("alpha")
    server.fault(path="*a.bin[?]1", cut_after=50_000)
    assert device.cli("http update all").endswith("alpha: download and notify successfully.\n")
    assert device.disk("alpha") == made


@pytest.mark.parametrize("name", ["../x", "/etc/x", "sub/x", "../alpha/x", "..", "."])
def test_no_file_outside_the_save_path(device: Device, server: LabServer, name: str) -> None:
    """Not even when the name's last part is listed, too."""
    server.release("alpha", "2.0", {"x": 1000}, files=[
        {"name": name, "downpaths": ["{base}/files/alpha/2.0/x"]},
        {"name": "x", "downpaths": ["{base}/files/alpha/2.0/x"]}])
    app = device.app("alpha")
    before = {p for p in device.root.rglob("*") if "apps" not in p.parts}
    shown = device.cli("http update all")
    assert "alpha: " in shown and "successfully" not in shown
    assert device.disk("alpha") == {} and app.requests == []
    after = {p for p in device.root.rglob("*") if "apps" not in p.parts}
    assert all(p.name.startswith("cli") for p in after - before)
    assert [p.name for p in (device.root / "apps").rglob("*")] in ([], ["alpha"])


COUNTS = {"101": (101, 101), "too many announced": (3, 2), "none": (0, 0), "100": (100, 100)}


@pytest.mark.parametrize("name", COUNTS)
def test_number_of_files(device: Device, server: LabServer, name: str) -> None:
    announced, real = COUNTS[name]
    server.release("alpha", "2.0", {f"f{n}": 1 for n in range(real)}, filecnt=announced)
    app = device.app("alpha")
    good = name in ("none", "100")
    assert device.cli("http update all").endswith(
        "alpha: download and notify successfully.\n" if good
        else "alpha: The server response message format is wrong.\n")
    assert len(device.disk("alpha")) == (real if good else 0)
    wait_for(lambda: len(app.requests) == good)


def test_source_address_is_used_for_query_and_download(
        device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    device.app("alpha")
    device.cli("configure", "http update source_ip 300.1.1.1", status=1)
    assert device.errors() == "% Invalid source ip address. \n"
    device.configure("http update source_ip 127.0.0.7")
    assert device.cli("http update all").endswith("alpha: download and notify successfully.\n")
    assert {r["from"] for r in server.requests()} == {"127.0.0.7"}
    assert server.queries()[0]["device"]["localIp"] == "127.0.0.7"
    # An address that the device doesn't have fails every exchange.
    device.configure("http update source_ip 203.0.113.7")
    assert device.cli("http check-version") == FAILED
    device.configure("no http update source_ip")
    device.cli("http check-version")
    assert server.queries()[-1]["from"] == "127.0.0.1"
