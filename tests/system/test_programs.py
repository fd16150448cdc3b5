"""What programs are told: the JSON document and the figures of a monitoring system."""

import json
import re
from typing import Any

import jsonschema
from lab import SOURCE_DIR, Device, LabServer, wait_for

SCHEMA = json.loads((SOURCE_DIR / "docs/status.schema.json").read_text())


def document(device: Device, status: int = 0) -> dict[str, Any]:
    text = device.cli(status=status, options=("--json",))
    assert text.endswith("}\n") and text.count("\n") == 1
    told = json.loads(text)
    jsonschema.Draft202012Validator(SCHEMA).validate(told)
    return told


def test_document_holds_what_the_reports_tell(device: Device, server: LabServer) -> None:
    device.kill()
    assert "Connection refused" in document(device, status=2)["error"]["message"]
    device.start(speed=30)
    device.use(server)
    server.release("alpha", "2.0", {"a.bin": 400_000, "b.bin": 10})
    device.app('be"ta\x1b', "1\\\u00e4\n")
    device.app("alpha", answer=lambda app, request: (7, ""))
    server.fault(path="*/b.bin", status=404)
    device.configure("http update server 127.0.0.1 port 9", second=True)
    device.configure("http update source_ip 127.0.0.1")
    device.daily_in(minutes=0)
    told = wait_for(lambda: (d := document(device))["resume"] and not d["status"]["running"] and d)
    assert [(app["id"], app["name"], app["version"], app["busy"]) for app in told["apps"]] == [
        (0, 'be"ta?', "1\\\u00e4?", False), (1, "alpha", "1.0", False)]
    assert [(s["list"], s["port"]) for s in told["servers"]] == [(2, 9), (1, server.port)]
    assert told["settings"]["source_address"] == "127.0.0.1"
    run = told["history"]["runs"][0]
    assert (run["kind"], run["outcome"], run["number"]) == ("daily", "failed", 1)
    assert [s.get("cause", {}).get("number") for s in run["servers"]] == [111, None]
    assert run["apps"][0]["cause"]["reason"] == "http-status"
    assert [(r["app"], r["file"][-5:], r["state"]) for r in told["resume"]] == [
        ("alpha", "a.bin", "fetched"), ("alpha", "b.bin", "begun")]
    assert told["status"]["next_retry"]["retries_left"] == 5

    server.heal()
    server.fault(path="*/a.bin", stall_after=100_000)
    command = device.begin("http update alpha")
    server.wait_stalled("a.bin", 100_000)
    told = wait_for(lambda: (d := document(device))["progress"]["current"].get("size_bytes") and d)
    assert told["history"]["runs"][0]["outcome"] == "running"
    assert told["progress"]["current"]["size_bytes"] == 400_000
    server.heal()
    command.process.kill()
    wait_for(lambda: not document(device)["status"]["running"])
    device.cli("http update alpha")
    wait_for(lambda: document(device)["status"]["last_run"]["message"].endswith("failure 7"))
    history = device.data / "oam/http_client/history.json"
    history.write_text(history.read_text()[:-40])
    assert [error["part"] for error in document(device)["errors"]] == ["history"]


LINE = re.compile(r'# (?:HELP \w+ \w.*|TYPE \w+ (?:counter|gauge))|'
                  r'http_client_(\w+(?:\{\w+="[^"\\]+"(?:,\w+="[^"\\]+")*\})?) (\d+)')


def figures(device: Device) -> dict[str, int]:
    lines = [LINE.fullmatch(line) for line in (device.root / "a.prom").read_text().splitlines()]
    return {line[1]: int(line[2]) for line in lines if line[1]}  # each of them fits


def test_figures_go_on_after_a_restart(device: Device, server: LabServer) -> None:
    path = device.root / "a.prom"
    device.kill()
    device.start(HTTP_CLIENT_METRICS_FILE=str(path))
    server.release("alpha", "2.0", {"a.bin": 1000})
    device.app("alpha")
    device.use(server)
    device.cli("http update all")
    first = figures(device)
    assert first['runs_total{kind="foreground",outcome="succeeded"}'] == 1
    assert (first["fetched_bytes_total"], first["apps_registered"]) == (1000, 1)
    assert (first["last_run_success"], first["retries_left"]) == (1, 5)
    assert "next_run_timestamp_seconds" in first
    device.kill()
    device.start(HTTP_CLIENT_METRICS_FILE=str(path))
    device.app("alpha", "2.0")
    device.configure("http update mode manual", "http update server 127.0.0.1 port 9")
    device.cli("http update all", status=3)
    second = figures(device)
    assert second['runs_total{kind="foreground",outcome="failed"}'] == 1
    assert (second["last_run_success"], second["fetched_bytes_total"]) == (0, 1000)
    assert second["last_success_timestamp_seconds"] == first["last_success_timestamp_seconds"]
    assert "next_run_timestamp_seconds" not in second
    path.unlink()
    path.mkdir()  # nothing can take its place
    device.cli("http update all", "http update all", status=3)
    assert device.syslog().count("figures can't be written: ") == 1
