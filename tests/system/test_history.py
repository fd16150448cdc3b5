"""What an operator is told about runs: their outcome, their reason, and what comes next."""

import json
import re
from pathlib import Path
from typing import Any

from lab import Device, LabServer, wait_for


def history_file(device: Device) -> Path:
    return device.data / "oam/http_client/history.json"


def runs(device: Device) -> list[dict[str, Any]]:
    return json.loads(history_file(device).read_text())["runs"]


def status(device: Device) -> str:
    """The report, its paragraphs on one line each."""
    report = device.cli("show http-update status")
    assert all(len(line) < 80 for line in report.splitlines()), report
    return re.sub(r"\n {14}", " ", report)


def test_status_names_the_reason_of_each_failure(device: Device, server: LabServer) -> None:
    assert "Last run:     none yet" in status(device)
    assert re.fullmatch(r"HTTPC NOTICE: version \S+ started; asks \S+:80; next \d\d:\d\d \w+\n",
                        device.syslog())
    assert "it would do nothing" in status(device) and "(time configured)" in status(device)
    server.release("alpha", "2.0", {"a.bin": 1000, "b.bin": 40_000})
    app = device.app("alpha", answer=lambda app, request: (7, "") if app.requests else (0, "1.0"))
    place = f"127.0.0.1:{server.port}"
    for fault, reason in [
            ({"path": "*/b.bin", "status": 404}, f"alpha: b.bin from {place}: HTTP 404"),
            ({"path": "*/b.bin", "cut_after": 9}, f"b.bin from {place}: the connection broke off"),
            ({"method": "POST", "status": 503}, f"{place}: HTTP 503"),
            ({"method": "POST", "drop": True}, f"{place}: connection "),
            ({"method": "POST", "body": "<html/>"}, "reply unusable: it is no list of updates")]:
        server.fault(**fault)
        device.cli("http update all", status=3)
        assert f"failed (number {len(runs(device))}) " in status(device)
        assert reason in status(device), fault
        assert re.search(f"WARNING: foreground update: failed: .*{re.escape(reason)}.*; next ",
                         device.syslog().splitlines()[-1]), fault
        server.heal()
    device.cli("http update all")
    wait_for(lambda: len(app.requests) == 1)
    wait_for(lambda: "Last success: foreground, today" in status(device))
    device.cli("http update all")
    wait_for(lambda: "failed (number 7) alpha: the app answered with failure 7" in status(device))
    assert "\nHTTPC WARNING: app alpha answered with failure 7\n" in device.syslog()
    for host, reason in [("127.0.0.1 port 9", "127.0.0.1:9: connection refused"),
                         ("nowhere.invalid", "no address for nowhere.invalid")]:
        device.configure("no http update server", f"http update server {host}")
        device.cli("http update all", status=3)
        assert reason in status(device)
    device.configure("http update mode manual")
    assert "Next daily:   none, " in status(device)
    lines = device.cli("show http-update history").splitlines()
    assert [line.split()[0] for line in lines[2:]] == [str(n) for n in range(9, 0, -1)]
    assert all(len(line) < 80 for line in lines)
    details = device.cli("show http-update history 7")
    assert "alpha, 1.0 to 2.0: downloaded and handed over" in details
    assert "2 of 2 files, 41000 bytes fetched, 0 were there" in details
    assert "the app answered with failure 7" in details
    assert device.cli("show http-update history 10", status=1) == "% No run 10 in the history\n"


def test_history_outlives_the_daemon(device: Device, server: LabServer) -> None:
    """Also a run in the middle; a file that is spoilt costs itself only and is kept."""
    server.release("alpha", "2.0", {"a.bin": 400_000})
    device.app("alpha")
    server.fault(path="*/a.bin", stall_after=30_000)
    device.cli("http background-update all")
    server.wait_stalled("a.bin", 30_000)
    assert "background update, downloading a.bin for alpha" in wait_for(
        lambda: "(7%)" in status(device) and status(device))
    device.kill()
    server.heal()
    device.start()
    assert "interrupted, the daemon was ended (number 1)" in status(device)
    device.app("alpha")
    device.use(server)
    device.cli("http update all")
    assert [(run["number"], run["outcome"]) for run in runs(device)] == [
        (2, "updated"), (1, "interrupted")]
    history_file(device).write_text(history_file(device).read_text()[:-40])
    device.kill()
    device.start()
    assert "The history can't be read" in device.cli("show http-update history")
    device.app("alpha", "2.0")
    device.use(server)
    device.cli("http update all")
    assert [run["number"] for run in runs(device)][:2] == [3, 2], "what could be read stays"
    assert history_file(device).with_suffix(".json.damaged").exists()


def test_resumed_bytes_are_told_apart(device: Device, server: LabServer) -> None:
    device.kill()
    device.start(speed=6000)
    device.use(server)
    server.release("alpha", "2.0", {"a.bin": 400_000})
    device.app("alpha")
    server.fault(path="*/a.bin", cut_after=300_000, times=1)
    device.daily_in(minutes=0)
    retry = wait_for(lambda: history_file(device).exists() and [
        run for run in runs(device) if run["kind"] == "retry" and run["outcome"] == "updated"])
    assert [(a["resumed_bytes"], a["fetched_bytes"]) for a in retry[0]["apps"]] == [
        (283_616, 116_384)]
    wait_for(lambda: runs(device)[-1]["apps"] and "answer" in retry_app(device))
    assert retry_app(device)["answer"]["version"] == "2.0", "the timer writes what apps answer"


def retry_app(device: Device) -> dict[str, Any]:
    return next(run for run in runs(device) if run["kind"] == "retry")["apps"][0]
