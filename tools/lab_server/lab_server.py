#!/usr/bin/python3
"""An update server for the bench: serves a folder of releases to real devices.

    lab_server --port 8080 releases/

answers version queries (a POST to any path that ends in update.asp) from
releases/APP/VERSION/FILE, serves the files, and prints one line a request. The
same port takes orders from a person or a test (where the environment names a
proxy, curl needs --noproxy '*' for them):

    curl http://127.0.0.1:8080/                        what it offers
    curl -d '{"path": "/files/*", "cut_after": 1000}' http://127.0.0.1:8080/lab/rules
    curl -X DELETE http://127.0.0.1:8080/lab/rules     everything works again
    curl http://127.0.0.1:8080/lab/requests            what was asked, as JSON

Rules are described in faults.py, the folder in releases.py.
"""

from __future__ import annotations

import argparse
import email.utils
import json
import os
import re
import select
import socketserver
import sys
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any, BinaryIO

sys.dont_write_bytecode = True  # nothing beside the sources, which may be installed ones

from faults import REPLIES, Rule, RuleBook
from releases import Query, ReleaseFolder, reply_xml

CHUNK = 256 * 1024
QUERY_MAX = 64 * 1024
REQUESTS_KEPT = 10_000
# Nothing listens there: a connection is refused at once.
DEAD_SOURCE = "http://127.0.0.1:1/dead"


@dataclass
class Answer:
    """What a good server would send; a rule may spoil it afterwards."""

    status: int
    body: bytes | BinaryIO
    headers: dict[str, str] = field(default_factory=dict)
    # Bytes of the body to send; announced as Content-Length.
    length: int = 0

    def __post_init__(self) -> None:
        if isinstance(self.body, bytes):
            self.length = len(self.body)


class LabServer(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, address: tuple[str, int], releases: ReleaseFolder, check_key: bool) -> None:
        super().__init__(address, Handler)
        self.releases = releases
        self.check_key = check_key
        self.rules = RuleBook()
        self.requests: list[dict[str, Any]] = []
        self._print_lock = threading.Lock()

    def server_bind(self) -> None:
        # Not HTTPServer's own, which asks a name server what this machine is called.
        socketserver.TCPServer.server_bind(self)

    def begin(self, request: dict[str, Any]) -> None:
        with self._print_lock:
            del self.requests[:-REQUESTS_KEPT]
            self.requests.append(request)

    def say(self, line: str) -> None:
        with self._print_lock:
            print(time.strftime("%H:%M:%S"), line, flush=True)

    def handle_error(self, request: Any, client_address: Any) -> None:
        error = sys.exc_info()[1]
        if not isinstance(error, OSError):  # a client that left is everyday life
            super().handle_error(request, client_address)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.0"
    server_version = "lab-server/1.0"
    timeout = 60
    server: LabServer

    # ---- what is asked ----

    def do_POST(self) -> None:
        length = min(int(self.headers.get("Content-Length", 0)), QUERY_MAX)
        body = self.rfile.read(length)
        if self.path == "/lab/rules":
            self.add_rules(body)
        elif self.path.split("?")[0].endswith("update.asp"):
            self.answer(lambda rule: self.version_reply(rule, body))
        else:
            self.answer(lambda rule: Answer(404, b"no such page\n"))

    def do_GET(self) -> None:
        if self.path == "/":
            self.plain(200, self.overview().encode())
        elif self.path in ("/lab/rules", "/lab/requests"):
            rules = self.path == "/lab/rules"
            found = self.server.rules.to_json() if rules else self.server.requests
            self.plain(200, json.dumps(found, indent=1).encode() + b"\n")
        elif self.path.startswith("/files/"):
            self.answer(self.file_reply)
        else:
            self.answer(lambda rule: Answer(404, b"no such page\n"))

    do_HEAD = do_GET

    def do_DELETE(self) -> None:
        if self.path == "/lab/rules":
            self.server.rules.clear()
        elif self.path == "/lab/requests":
            self.server.requests.clear()
        self.plain(200, b"")

    def add_rules(self, body: bytes) -> None:
        try:
            given = json.loads(body)
            for values in given if isinstance(given, list) else [given]:
                self.server.rules.add(Rule.from_json(values))
        except (ValueError, TypeError) as error:
            self.plain(400, f"{error}\n".encode())
            return
        self.plain(200, b"")

    def overview(self) -> str:
        folder = self.server.releases
        newest = [folder.newest(app) for app in folder.apps()]
        lines = [f"{r.app} {r.version}: {', '.join(n for n, _ in r.files)}" for r in newest if r]
        rules = [json.dumps(rule) for rule in self.server.rules.to_json()]
        return "\n".join([str(__doc__), "Newest releases:", *lines, "", "Rules:", *rules, ""])

    # ---- what a good server would answer ----

    def version_reply(self, rule: Rule, form: bytes) -> Answer:
        query = Query.parse(form)
        asked = " ".join(f"{app}={version}" for app, version in query.apps.items())
        self.note["form"] = form.decode("utf-8", "replace")
        self.note["device"] = query.device
        self.note["apps"] = query.apps
        if self.server.check_key and not query.key_is_right():
            self.remark = "wrong register key, expected " + query.register_key()
            return Answer(403, b"wrong register key\n")
        newer = self.server.releases.newer_than(query.apps)
        listed = ", ".join(f"{r.app} {r.version}" for r in newer) or "nothing newer"
        self.remark = f"sn={query.device.get('sn', '').strip()} {asked} -> {listed}"
        base = "http://" + self.headers.get("Host", "127.0.0.1")
        dead = [f"{DEAD_SOURCE}/{n}" for n in range(rule.dead_sources)]
        return Answer(200, reply_xml(newer, base, dead), {"Content-Type": "text/xml"})

    def file_reply(self, rule: Rule) -> Answer:
        path = self.server.releases.file(self.path.split("?")[0])
        if path is None:
            return Answer(404, b"no such file\n")
        file = path.open("rb")
        facts = os.fstat(file.fileno())
        size = facts.st_size
        headers = {
            "Content-Type": "application/octet-stream",
            "Accept-Ranges": "bytes",
            "ETag": f'"{size:x}-{facts.st_mtime_ns:x}"',
            "Last-Modified": email.utils.formatdate(facts.st_mtime, usegmt=True),
        }
        part = None if rule.ignore_range else self.range_asked(size, headers)
        if part is None:
            return Answer(200, file, headers, size)
        first, last = part
        if first > last:
            file.close()
            return Answer(416, b"", {"Content-Range": f"bytes */{size}"})
        file.seek(first)
        self.remark = f"({first}-{last}/{size})"
        headers["Content-Range"] = f"bytes {first}-{last}/{size}"
        return Answer(206, file, headers, last - first + 1)

    def range_asked(self, size: int, headers: dict[str, str]) -> tuple[int, int] | None:
        """First and last byte; first beyond last when there is no such part."""
        asked = re.fullmatch(r"bytes=(\d*)-(\d*)", self.headers.get("Range", ""))
        proof = self.headers.get("If-Range")
        if asked is None or asked[0] == "bytes=-":
            return None
        if proof is not None and proof not in (headers["ETag"], headers["Last-Modified"]):
            return None
        if not asked[1]:
            return max(0, size - int(asked[2])), size - 1
        last = min(int(asked[2]), size - 1) if asked[2] else size - 1
        return int(asked[1]), last

    # ---- sending, with everything that a rule does to it ----

    def answer(self, good: Callable[[Rule], Answer]) -> None:
        rule = self.server.rules.take(self.command, self.path)
        self.remark = ""
        self.sent = 0
        self.note: dict[str, Any] = {
            "method": self.command, "path": self.path, "range": self.headers.get("Range"),
            "from": self.client_address[0], "status": 0, "sent": 0, "done": False,
        }
        self.server.begin(self.note)
        try:
            self.send_spoiled(rule, good(rule))
        except OSError as error:
            self.remark += f" [{error.strerror or error}]"
        self.note.update(sent=self.sent, done=True)
        line = f"{self.command} {self.path} {self.note['status'] or '-'} {self.sent} bytes"
        self.server.say(f"{line} {self.remark.strip()}".rstrip())

    def send_spoiled(self, rule: Rule, answer: Answer) -> None:
        if rule.delay:
            rule.gone.wait(rule.delay)
        if rule.silent:
            self.hold(rule)
        if rule.silent or rule.drop:
            self.remark += " [dropped]"
            return
        if rule.status is not None:
            answer = Answer(rule.status, b"fault on demand\n" * 4)
        if rule.body is not None or rule.reply is not None:
            body = REPLIES[rule.reply] if rule.body is None else rule.body.encode()
            answer = Answer(answer.status, body)
        announced = answer.length if rule.content_length is None else rule.content_length
        if announced >= 0:
            answer.headers["Content-Length"] = str(announced)
        if rule.location is not None:
            answer.headers["Location"] = rule.location
        if rule.header_pad:
            answer.headers["X-Padding"] = "x" * rule.header_pad
        self.note["status"] = answer.status
        self.transmit(rule, self.head(answer), counted=False)
        if self.command != "HEAD":
            self.send_body(rule, answer)

    def head(self, answer: Answer) -> bytes:
        reason = self.responses.get(answer.status, ("Fault",))[0]
        lines = [f"{self.protocol_version} {answer.status} {reason}",
                 f"Server: {self.server_version}", f"Date: {self.date_time_string()}"]
        lines += [f"{name}: {value}" for name, value in answer.headers.items()]
        return "\r\n".join([*lines, "", ""]).encode()

    def send_body(self, rule: Rule, answer: Answer) -> None:
        if isinstance(answer.body, bytes):
            self.transmit(rule, answer.body)
            return
        left = answer.length
        with answer.body as file:
            while left > 0 and (block := file.read(min(left, CHUNK))):
                left -= len(block)
                self.transmit(rule, block)

    def transmit(self, rule: Rule, data: bytes, counted: bool = True) -> None:
        while data:
            size = len(data)
            if counted and rule.cut_after is not None and self.sent + size > rule.cut_after:
                self.push(rule, data[:rule.cut_after - self.sent])
                self.sent = rule.cut_after
                raise OSError(0, "cut")
            if counted and rule.stall_after is not None and self.sent + size > rule.stall_after:
                size = rule.stall_after - self.sent
                if size <= 0:
                    self.note["sent"] = self.sent
                    self.hold(rule)
                    rule = Rule()
                    continue
            self.push(rule, data[:size])
            self.sent += size if counted else 0
            data = data[size:]

    def push(self, rule: Rule, data: bytes) -> None:
        if rule.rate is None:
            self.wfile.write(data)
            return
        step = max(1, int(rule.rate / 10))
        for start in range(0, len(data), step):
            self.wfile.write(data[start:start + step])
            rule.gone.wait(step / rule.rate)

    def hold(self, rule: Rule) -> None:
        """Waits until the rule is taken away; ends the answer when the client leaves."""
        while not rule.gone.wait(0.05):
            readable, _, _ = select.select([self.connection], [], [], 0)
            if readable and not self.connection.recv(1):
                raise OSError(0, "client left")

    def plain(self, status: int, body: bytes) -> None:
        answer = Answer(status, body, {"Content-Length": str(len(body))})
        self.wfile.write(self.head(answer) + body)

    def log_message(self, format: str, *args: Any) -> None:
        self.server.say(format % args)


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("releases", type=Path, help="folder of APP/VERSION/FILE")
    parser.add_argument("--address", default="127.0.0.1", help="address to listen on")
    parser.add_argument("--port", type=int, default=8080, help="0: the kernel chooses")
    parser.add_argument("--rules", type=Path, help="JSON file of a rule or a list of them")
    parser.add_argument("--any-key", action="store_true", help="accept any register key")
    return parser.parse_args()


def main() -> int:
    given = arguments()
    if not given.releases.is_dir():
        print(f"lab_server: no folder {given.releases}", file=sys.stderr)
        return 2
    server = LabServer((given.address, given.port), ReleaseFolder(given.releases),
                       check_key=not given.any_key)
    if given.rules:
        rules = json.loads(given.rules.read_text())
        for values in rules if isinstance(rules, list) else [rules]:
            server.rules.add(Rule.from_json(values))
    print(f"lab server on http://{given.address}:{server.server_address[1]}/ "
          f"offers {given.releases}", flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
