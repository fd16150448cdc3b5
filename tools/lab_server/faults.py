"""Faults on demand: rules that spoil the answers to some requests.

A rule is a JSON object. "path" and "method" (patterns, all by default) choose
requests, "skip" leaves the first so many alone, "times" ends the rule after so
many. The first rule that matches a request is the only one that acts. The rest
of the object says what goes wrong:

    delay: S            wait S seconds before answering
    silent: true        answer nothing, keep the connection until the rule goes
    drop: true          close the connection without an answer
    status: N           this status, with a small error page
    location: URL       a Location header (with status 302, say)
    reply: NAME         this body instead: empty, garbage, other-root, doctype,
                        nul, deep, wide
    body: TEXT          the same with a text of your own
    content_length: N   announce N bytes whatever is sent; -1: no such header
    header_pad: N       N bytes of padding in the header
    stall_after: N      stop after N bytes of the body until the rule goes
    cut_after: N        close the connection after N bytes of the body
    rate: N             send N bytes a second, header included
    ignore_range: true  send the whole file to a request for a part of it
    dead_sources: N     list N sources that don't exist before each real one
"""

from __future__ import annotations

import threading
from dataclasses import dataclass, field, fields
from fnmatch import fnmatchcase
from typing import Any

DOCTYPE = """<?xml version="1.0"?>
<!DOCTYPE filelist [<!ENTITY big "%s">]>
<filelist><app name="alpha"><version>%s</version></app></filelist>
""" % ("x" * 100_000, "&big;" * 20_000)

REPLIES: dict[str, bytes] = {
    "empty": b"",
    "garbage": b"\x1f\x8b\x00 this is no XML <<<< %s%n&&",
    "other-root": b"<?xml version='1.0'?><html><body>Please log in</body></html>",
    "doctype": DOCTYPE.encode(),
    "nul": b"<filelist>\x00<app name='alpha'/></filelist>",
    "deep": b"<filelist>" + b"<a>" * 400_000,
    "wide": b"<filelist>" + b"<a/>" * 520_000 + b"</filelist>",
}


@dataclass
class Rule:
    path: str = "*"
    method: str = "*"
    skip: int = 0
    times: int | None = None
    delay: float = 0
    silent: bool = False
    drop: bool = False
    status: int | None = None
    location: str | None = None
    reply: str | None = None
    body: str | None = None
    content_length: int | None = None
    header_pad: int = 0
    stall_after: int | None = None
    cut_after: int | None = None
    rate: float | None = None
    ignore_range: bool = False
    dead_sources: int = 0
    # Set when the rule is taken away: what it holds up goes on.
    gone: threading.Event = field(default_factory=threading.Event, repr=False, compare=False)

    @classmethod
    def from_json(cls, values: dict[str, Any]) -> Rule:
        known = {f.name for f in fields(cls)} - {"gone"}
        unknown = set(values) - known
        if unknown:
            raise ValueError("unknown in a rule: " + ", ".join(sorted(unknown)))
        if values.get("reply") is not None and values["reply"] not in REPLIES:
            raise ValueError("reply is one of " + ", ".join(REPLIES))
        return cls(**values)

    def to_json(self) -> dict[str, Any]:
        blank = Rule()
        names = [f.name for f in fields(self) if f.name != "gone"]
        return {n: getattr(self, n) for n in names if getattr(self, n) != getattr(blank, n)}


class RuleBook:
    """The rules in force. Threads: any."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._rules: list[Rule] = []

    def add(self, rule: Rule) -> None:
        with self._lock:
            self._rules.append(rule)

    def clear(self) -> None:
        with self._lock:
            rules, self._rules = self._rules, []
        for rule in rules:
            rule.gone.set()

    def to_json(self) -> list[dict[str, Any]]:
        with self._lock:
            return [rule.to_json() for rule in self._rules]

    def take(self, method: str, path: str) -> Rule:
        """The rule for a request, used up by one; a rule without effect if none."""
        with self._lock:
            for rule in self._rules:
                if not fnmatchcase(path, rule.path) or not fnmatchcase(method, rule.method):
                    continue
                if rule.skip > 0:
                    rule.skip -= 1
                elif rule.times is None or rule.times > 0:
                    rule.times = None if rule.times is None else rule.times - 1
                    return rule
        return Rule()
