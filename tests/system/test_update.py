"""The main job: apps register, an operator updates them, they have their new files."""

import os
import re
import shutil
import signal

from lab import INCREMENTAL, MANUAL, ONE_FILE, SECOND_LIST, Device, LabServer, Scratch, wait_for

WAIT = "Downloading updated files, please wait...\n"
QUIT = "Press Ctrl+C to quit\n"


def with_server(body: str) -> str:
    return f"{WAIT}{QUIT}Update module with server 127.0.0.1:\r\n{body}"


def test_all_apps_get_their_files_and_answer(device: Device, server: LabServer) -> None:
    alpha_files = server.release("alpha", "2.0", {"a.bin": 300_000, "b.txt": b"", "c.cfg": 1})
    beta_files = server.release("beta", "1.1", {"image": 5_000_000})
    server.release("gamma", "3.0", {"g": 10})
    alpha, beta, gamma = device.app("alpha"), device.app("beta"), device.app("gamma", "3.0")

    table = device.cli("http check-version")
    assert table == (
        "Business modules need to be updated: alpha, beta.\n"
        "    app-name           version          filename\n"
        "--------------- -------------------- ------------------------\n"
        "alpha           2.0                  a.bin                    \n"
        "alpha           2.0                  b.txt                    \n"
        "alpha           2.0                  c.cfg                    \n"
        "beta            1.1                  image                    \n")
    assert device.disk("alpha") == {}, "a check downloads nothing"

    assert device.cli("http update all") == with_server(
        "alpha, beta: download and notify successfully.\n")
    assert device.disk("alpha") == alpha_files
    assert device.disk("beta") == beta_files
    wait_for(lambda: device.versions() == {"alpha": "2.0", "beta": "1.1", "gamma": "3.0"})
    assert [r.files for r in alpha.requests] == [
        [device.saved("alpha") + name for name in ("a.bin", "b.txt", "c.cfg")]]
    assert alpha.request().records == {"version": "2.0", "filecnt": "3"}
    assert len(beta.requests) == 1 and gamma.requests == []

    assert device.cli("http update all") == (
        "Update module with server 127.0.0.1:\r\n"
        "%notice: All the bussiness modules are the latest versions.\n")
    query = server.queries()[-1]
    assert query["apps"] == {"alpha": "2.0", "beta": "1.1", "gamma": "3.0"}
    assert query["device"]["sn"] == "SN0001" and query["device"]["localIp"] == "127.0.0.1"


def test_only_the_named_apps_are_asked_about(device: Device, server: LabServer) -> None:
    for name in ("alpha", "beta", "gamma"):
        server.release(name, "2.0", {f"{name}.bin": 1000})
        device.app(name)
    assert device.cli("http update beta gamma nobody") == with_server(
        "beta, gamma: download and notify successfully.\n")
    assert device.disk("alpha") == {}
    assert server.queries()[0]["apps"] == {"beta": "1.0", "gamma": "1.0"}
    unregistered = "%notice: The bussiness modules haven't registered.\n"
    assert device.cli("http update nobody", "bogus", status=5) == unregistered


def test_device_is_what_its_files_say(scratch: Scratch, server: LabServer) -> None:
    device = Device(scratch)
    cpu = min(os.sched_getaffinity(0))
    for name, text in {"proc/setmac/SerialNO": "SN 1+2", "proc/setmac/projectid": "Router:9",
                       "proc/macaddr": "00d0.f822.33aa",
                       "etc/http_client/cpu.rule": f"http_client {cpu}"}.items():
        (device.files / name).write_text(text)
    device.start()
    assert os.sched_getaffinity(device.daemon.pid) == {cpu}
    device.use(server)
    for name, version in {"alpha": "1:0", "empty": "", "a&b": "2 0"}.items():
        device.app(name, version)
    device.cli("http check-version")
    query = server.queries()[0]
    assert query["status"] == 200, "its key is right"
    assert re.fullmatch(
        r"bin=LAB_EG3210%20Release\(1\.0\)&product=Router%3A9&sn=SN%201\+2&mac=00d0\.f822\.33aa"
        r"&hardware=1\.00&chset=1&timestamp=(\d+)&randomCode=\1&registerKey=[0-9a-f]{32}"
        r"&localIp=127\.0\.0\.1&dataType=component&alpha=1%3A0&a&b=2%200", query["form"])


def test_replies_that_contradict_themselves(device: Device, server: LabServer) -> None:
    """Each app's element counts for itself; nothing lands outside an app's folder."""
    server.release("x", "1", {"file": 4})
    sources = f"<downpath>http://{server.host}:{server.port}/files/x/1/file</downpath>"

    def files(*names: str) -> str:
        return "".join(f'<file name="{name}">{sources}<version>v1</version></file>'
                       for name in names)

    facts = ("t<!--c--><?p i?><a/><b><c>1</c></b><d>2<e/>3</d><f><![CDATA[4]]></f>"
             f"<g>{'t' * 1024}</g><h>{'t' * 1023}</h>")  # ten nodes with the count; fifty count
    rows = {  # announced count, files, how many arrive
        "facts": ("0", facts + "".join(f"<i{n}>{n}</i{n}>" for n in range(11, 60)), 0),
        "longest": ("1", files("p" * (255 - len(device.saved("longest")))), 1),
        "blanks": (" 3abc", files("a", "b", "c"), 3), "fewer": ("2", files("a", "b", "c"), 2),
        "letters": ("x1", files("a"), None),
        "many": ("101", files(*"a" * 101), None), "negative": ("-1", files("a"), None),
        "wraps": ("000004294967297", files("a"), None),
        "nameless": ("3", files("a") + "<file/>" + files("c"), None),
        "climbs": ("2", files("../outside", "outside"), None),
        "long": ("2", files("a", "n" * 250), None),
        "slashless": ("2", files("f", "folderf"), None),
    }
    body = "".join(f'<app name="{name}"><filecnt>{count}</filecnt>{listed}</app>'
                   for name, (count, listed, _) in rows.items())
    server.fault(method="POST", body=f"""<filelist>{body}
        <app name="unasked"><filecnt>0</filecnt></app><app name="stranger"/></filelist>""")
    precious = [device.root / "apps/outside", device.root / "apps/folderf"]
    precious[0].parent.mkdir()
    for path in precious:
        path.write_text("precious")
    app = device.connect(lambda app, request: (0, "2.0"))
    for name in [*rows, "unasked"]:
        save = device.root / "apps/folder" if name == "slashless" else device.saved(name)
        assert app.register(name, "1.0", save) == 0
    assert "fewer           v1                   a  " in device.cli("http check-version")
    bad = [name for name, row in rows.items() if row[2] is None]
    assert device.cli("http update " + " ".join(rows), status=3) == with_server(
        "".join(f"{name}: The server response message format is wrong.\n" for name in bad)
        + "facts, longest, blanks, fewer: download and notify successfully.\n")
    wait_for(lambda: len(app.requests) == 4)
    assert {r.app: len(r.files) for r in app.requests} == {
        "facts": 0, "longest": 1, "blanks": 3, "fewer": 2}
    assert app.request().records == {"filecnt": "0", "d": "2", "h": "t" * 1023,
                                     **{f"i{n}": str(n) for n in range(11, 51)}}
    assert [path.read_text() for path in precious] == ["precious"] * 2
    assert all(device.disk(name) == {} for name in bad)


def test_nobody_to_update(device: Device) -> None:
    nobody = "%notice: No bussiness modules registration.\n"
    for command in ("http update all", "http background-update all", "http check-version"):
        assert device.cli(command, status=5) == nobody
    assert device.cli("http update display-progress") == (
        "state: free\nupdate-app:\ncurrent-app: \n"
        "----------------------------------\nupdated-result:\n")


def test_one_file_manual_and_incremental_apps(device: Device, server: LabServer) -> None:
    for name in ("single", "manual", "increment"):
        server.release(name, "2.0", {"1": 100, "2": 100, "3": 100})
    single = device.app("single", flags=ONE_FILE)
    manual = device.app("manual", flags=MANUAL)
    increment = device.app("increment", flags=INCREMENTAL)
    assert device.cli("http update all") == with_server(
        "single, manual, increment: download and notify successfully.\n")
    assert [len(app.request().files) for app in (single, manual, increment)] == [1, 3, 3]
    assert list(device.disk("single")) == ["1"]


def test_save_path_comes_from_the_reply_when_the_app_has_none(
        device: Device, server: LabServer) -> None:
    folder = f"{device.root}/given/here/"
    made = server.release("alpha", "2.0", {"a.bin": 1000}, savepath=f"\n  {folder} ")
    server.release("beta", "2.0", {"b.bin": 1000})
    alpha = device.app("alpha", save="")
    device.app("beta", save="")
    server.fault(method="POST", dead_sources=9)
    assert device.cli("http update all", status=3) == (
        WAIT + QUIT + "Update module with server 127.0.0.1:\r\n"
        "beta: The server response message format is wrong.\n"
        "alpha: download and notify successfully.\n")
    assert alpha.request().files == [folder + "a.bin"]
    assert (device.root / "given/here/a.bin").read_bytes() == made["a.bin"]


def test_second_list_with_one_server_dead(
        device: Device, server: LabServer, scratch: Scratch) -> None:
    other = LabServer(scratch)
    other.release("alpha", "2.0", {"a.bin": 1000})
    device.configure("http update server 127.0.0.2 port 1",
                     f"http update server {other.host} port {other.port}", second=True)
    device.app("alpha")
    dead = "%notice: Communicate with the server failed.\n"
    assert device.cli("http check-version", status=3, options=SECOND_LIST).startswith(
        f"Check version from server: 127.0.0.2\r\n{dead}"
        "Check version from server: 127.0.0.1\r\nBusiness modules need to be updated: alpha.\n")
    assert device.cli("http update all", status=3, options=SECOND_LIST) == (
        f"Update module with server 127.0.0.2:\r\n{dead}" + with_server(
            "alpha: download and notify successfully.\n"))
    assert server.requests == [], "the first list is another list"
    device.configure("no http update server", second=True)
    assert device.cli("http update all", status=3, options=SECOND_LIST) == "", "nobody to ask"


def test_what_one_server_can_not_deliver_the_next_one_may(
        device: Device, server: LabServer, scratch: Scratch) -> None:
    other = LabServer(scratch)
    for each in (server, other):
        each.release("alpha", "2.0", {"a.bin": 1000})
    server.fault(path="/files/*", status=404)
    device.configure(*(f"http update server {host} port {port}" for host, port in (
        (server.host, server.port), (other.host, other.port), ("localhost", other.port))),
        second=True)
    device.app("alpha", answer=lambda app, request: None)  # busy when the third is asked
    shown = device.cli("http update all", options=SECOND_LIST)
    for text in (": Download failed.", "alpha: download and notify", ": Suspend, "):
        assert text in shown


def test_background_update_and_a_second_run_refused(device: Device, server: LabServer) -> None:
    made = server.release("alpha", "2.0", {"a.bin": 200_000})
    app = device.app("alpha")
    server.fault(path="/files/*", stall_after=100_000)
    device.cli("debug http-client info")
    assert device.cli("http background-update alpha") == "Successfully into the background.\n"
    server.wait_stalled("a.bin", 100_000)

    busy = ("%notice: There are business modules in the upgrading, "
            "please wait for a moment.\n")
    for command in ("http update all", "http background-update all"):
        assert device.cli(command, status=4) == busy
    wait_for(lambda: "down_size: 100000\n" in device.cli("http update display-progress"))
    assert device.cli("http update display-progress") == (
        "state: running\nupdate-app: alpha.\ncurrent-app: alpha\nfile_num: 1\ndown_num: 0\n"
        f"cur_file: {device.saved('alpha')}a.bin\nfile_size: 200000\ndown_size: 100000\n"
        "----------------------------------\nupdated-result:\nalpha: Downloading.\r\n")
    assert "alpha           2.0" in device.cli("http check-version"), "a check goes beside a run"

    server.heal()
    wait_for(lambda: app.requests)
    assert device.disk("alpha") == made
    device.wait_log("alpha: download and notify successfully.")
    wait_for(lambda: "state: free\n" in device.cli("http update display-progress"))
    assert device.cli("http update display-progress").endswith(
        "updated-result:\nalpha: Notice the business module to upgrade successfully.\r\n")


def test_cancel_in_the_middle_of_a_large_file(device: Device, server: LabServer) -> None:
    server.release("alpha", "2.0", {"a.bin": 100, "b.bin": 20_000_000, "c.bin": 100})
    server.release("beta", "2.0", {"b.bin": 100})
    alpha, beta = device.app("alpha"), device.app("beta")
    # Beyond 32 bits where there is room for it.
    size = 5_000_000_000 if shutil.disk_usage(device.root).free > 7_000_000_000 else 20_000_000
    server.fault(path="*/b.bin", stall_after=10_000_000, content_length=size)
    update = device.begin("http update all")
    server.wait_stalled("alpha/2.0/b.bin", 10_000_000)
    wait_for(lambda: QUIT in update.output())
    wait_for(lambda: f"\nfile_size: {size}\ndown_size: 10000000\n" in device.cli(
        "http update display-progress"))
    update.process.send_signal(signal.SIGINT)
    assert re.sub(r"\.+Download", "Download", update.finish(-signal.SIGINT)) == with_server(
        "alpha: The user cancels the upgrade process\n"
        "beta: haven't started to download.\n").replace(
            QUIT, QUIT + "Download fail, Operation canceled\r\n")
    assert device.disk("alpha") == {} and device.disk("beta") == {}
    assert alpha.requests == [] and beta.requests == []
    server.heal()
    assert "alpha, beta: download and notify" in device.cli("http update all")
