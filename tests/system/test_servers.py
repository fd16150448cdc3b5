"""Servers that fail, lie or attack: each ends in its code, in bounded time and memory."""

import signal

from lab import Device, LabServer, wait_for

FAILED = "%notice: Communicate with the server failed.\n"
FORMAT = "%notice: The server response message format is wrong.\n"
GOOD = "alpha: download and notify successfully.\n"

REPLIES = {
    "not found": (dict(status=404), FAILED),
    "redirect": (dict(status=302, location="/elsewhere"), FAILED),
    "garbage": (dict(reply="garbage"), FORMAT),
    "nothing": (dict(drop=True), FAILED),
    "doctype": (dict(reply="doctype"), FORMAT),
    "no length": (dict(content_length=-1), FAILED),
    "length beyond the body": (dict(content_length=100_000), FAILED),
}


def test_every_bad_reply_has_its_code(device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 1000})
    app = device.app("alpha")
    device.cli("http check-version")
    held = device.held()
    for name, (rule, text) in REPLIES.items():
        server.fault(method="POST", **rule)
        assert device.cli("http check-version", status=3) == text, name
        assert device.cli("http update all", status=3) == (
            f"Update module with server 127.0.0.1:\r\n{text}"), name
        server.heal()
    wait_for(lambda: all(now <= before for now, before in zip(device.held(), held)))
    assert app.requests == [] and device.disk("alpha") == {}
    assert device.cli("http update all").endswith(GOOD)
    assert device.disk("alpha") == made


def test_large_reply_leaves_no_memory_behind(device: Device, server: LabServer) -> None:
    device.app("alpha")
    own = device.own_kib()
    server.fault(method="POST", reply="wide")
    for command in ("http check-version", "http update all"):
        assert device.cli(command).endswith(
            "%notice: All the bussiness modules are the latest versions.\n")
        assert device.own_kib() - own < 4096, f"{command}: its document takes 65,000"


def test_silent_server_holds_only_those_who_asked(device: Device, server: LabServer) -> None:
    device.app("alpha")
    server.fault(method="POST", silent=True)
    checks = [device.begin("http check-version") for _ in range(2)]
    wait_for(lambda: len(server.queries()) == 2)
    assert device.versions() == {"alpha": "1.0"}
    server.heal()  # it hangs up
    assert [check.finish(3) for check in checks] == [FAILED] * 2


def test_ctrl_c_ends_a_query(device: Device, server: LabServer) -> None:
    device.app("alpha")
    cancelled = "%notice: The user cancels the upgrade process\n"
    server.fault(method="POST", silent=True)
    for command, heading in (("http check-version", ""),
                             ("http update all", "Update module with server 127.0.0.1:\r\n")):
        asked = len(server.queries())
        command = device.begin(command)
        wait_for(lambda: len(server.queries()) > asked)
        command.process.send_signal(signal.SIGINT)
        assert command.finish(-signal.SIGINT) == heading + cancelled
    assert device.cli("http update display-progress").startswith("state: free\n")


def test_failed_download_leaves_nothing(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 1000})
    app = device.app("alpha")
    for rule in (dict(status=404), dict(status=302, location="http://127.0.0.1:1/"),
                 dict(drop=True), dict(cut_after=500), dict(content_length=-1)):
        server.fault(path="*/b.bin", **rule)
        assert device.cli("http update all", status=3).endswith(": Download failed.\n"), rule
        assert device.disk("alpha") == {} and app.requests == []
        server.heal()
    assert device.cli("http update all").endswith(GOOD)


def test_sources_are_tried_in_order(device: Device, server: LabServer) -> None:
    device.app("alpha")
    base = f"{server.host}:{server.port}"
    sources = [" \n", f" http://{base}/x ", "HTTP://localhost/y", f"{base}/" + "u" * 300,
               *(f"{base}/{n}" for n in range(5, 12))]
    listed = "".join(f"<downpath>{source}</downpath>" for source in sources)
    server.fault(method="POST", body=f"""<filelist><app name="alpha"><filecnt>1</filecnt>
        <file name="a">{listed}</file></app></filelist>""")
    assert device.cli("http update all", status=3).endswith("alpha: Download failed.\n")
    longest = f"http://{base}/".ljust(255, "u").removeprefix(f"http://{base}")
    assert [r["path"] for r in server.asked("^GET")] == [
        "/x", longest, *(f"/{n}" for n in range(5, 11))], "ten, each of 255 bytes at most"


def test_server_with_a_name_asked_from_a_source_address(
        device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 1000})
    device.app("alpha")
    device.configure("no http update server", f"http update server localhost port {server.port}",
                     "http update source_ip 127.0.0.7")
    assert device.cli("http update all").endswith(f"with server localhost:\r\n{GOOD}")
    assert {r["from"] for r in server.requests} == {"127.0.0.7"}
    assert server.queries()[0]["device"]["localIp"] == "127.0.0.7"
    device.configure("http update source_ip 203.0.113.7")  # not one of this machine
    assert device.cli("http check-version", status=3) == FAILED
    device.configure("no http update source_ip")
    device.cli("http check-version")
    assert server.queries()[-1]["from"] == "127.0.0.1"
