"""Releases on disk, the version query that asks for them and the reply that lists them.

A folder of releases is APP/VERSION/FILE. Hidden files are not part of a release;
the hidden file .release.json in a VERSION folder may describe it further:

    {"savepath": "/data/alpha/",            directory for an app that named none
     "elements": {"note": "restart needed"}, texts passed on to the app
     "filecnt": 2,                           announced count, if not the real one
     "files": [{"name": "a.bin",             names and sources, if not the folder's
                "downpaths": ["{base}/files/alpha/2.0/a.bin"]}]}

"{base}" stands for this server's own address.
"""

from __future__ import annotations

import hashlib
import json
import re
import xml.etree.ElementTree as ET
from dataclasses import dataclass, field
from pathlib import Path
from urllib.parse import quote, unquote

KEY_STRING = "3f6a2d9e81c47b05e9d2a6c4f01b738e"
# Every pair behind this one is an app and its version.
LAST_FIXED_KEY = "dataType"


@dataclass(frozen=True)
class Query:
    """One version query: what the device says of itself, and its apps."""

    device: dict[str, str]
    apps: dict[str, str]

    @classmethod
    def parse(cls, body: bytes) -> Query:
        device: dict[str, str] = {}
        apps: dict[str, str] = {}
        target = device
        for pair in body.decode("utf-8", "replace").split("&"):
            key, _, value = pair.partition("=")
            # A plus sign is a plus sign here: devices send blanks as %20.
            target[key] = unquote(value)
            if key == LAST_FIXED_KEY:
                target = apps
        return cls(device, apps)

    def register_key(self) -> str:
        keys = ("sn", "bin", "product", "timestamp", "randomCode")
        source = "".join(self.device.get(key, "") for key in keys) + KEY_STRING
        return hashlib.md5(source.encode()).hexdigest()

    def key_is_right(self) -> bool:
        return self.device.get("registerKey") == self.register_key()


@dataclass(frozen=True)
class Release:
    """One version of one app; files are (name, sources) in the order listed."""

    app: str
    version: str
    files: list[tuple[str, list[str]]]
    filecnt: int
    savepath: str = ""
    elements: dict[str, str] = field(default_factory=dict)

    @classmethod
    def read(cls, folder: Path) -> Release:
        app, version = folder.parent.name, folder.name
        describing = folder / ".release.json"
        extra = json.loads(describing.read_text()) if describing.exists() else {}
        here = "{base}/files/%s/%s/" % (quote(app), quote(version))
        named = extra.get("files", [{"name": path.name} for path in visible(folder)])
        files = [(f["name"], f.get("downpaths", [here + quote(f["name"])])) for f in named]
        return cls(app, version, files, extra.get("filecnt", len(files)),
                   extra.get("savepath", ""), extra.get("elements", {}))


def visible(folder: Path) -> list[Path]:
    return sorted(path for path in folder.iterdir() if not path.name.startswith("."))


def version_order(version: str) -> list[tuple[int, int, str]]:
    """Numbers in a version compare as numbers: 1.10 is newer than 1.9."""
    parts = re.findall(r"\d+|\D+", version)
    return [(1, int(part), "") if part.isdigit() else (0, 0, part) for part in parts]


class ReleaseFolder:
    """The releases as they lie on disk at this moment; nothing is kept."""

    def __init__(self, root: Path) -> None:
        self.root = root

    def apps(self) -> list[str]:
        return [path.name for path in visible(self.root) if path.is_dir()]

    def newest(self, app: str) -> Release | None:
        if app not in self.apps():
            return None
        versions = [path for path in visible(self.root / app) if path.is_dir()]
        if not versions:
            return None
        return Release.read(max(versions, key=lambda path: version_order(path.name)))

    def newer_than(self, apps: dict[str, str]) -> list[Release]:
        found = [self.newest(app) for app in apps]
        return [r for r in found if r is not None and r.version != apps[r.app]]

    def file(self, url_path: str) -> Path | None:
        """The file behind /files/APP/VERSION/FILE; nothing outside the folder."""
        parts = [unquote(part) for part in url_path.split("/")[2:]]
        if len(parts) != 3 or any(p.startswith(".") or "/" in p or not p for p in parts):
            return None
        path = self.root.joinpath(*parts)
        return path if path.is_file() else None


def reply_xml(releases: list[Release], base: str, dead_sources: list[str]) -> bytes:
    """The reply that lists releases; dead_sources come before every real one."""
    root = ET.Element("filelist")
    for release in releases:
        app = ET.SubElement(root, "app", name=release.app)
        ET.SubElement(app, "version").text = release.version
        ET.SubElement(app, "filecnt").text = str(release.filecnt)
        if release.savepath:
            ET.SubElement(app, "savepath").text = release.savepath
        for name, text in release.elements.items():
            ET.SubElement(app, name).text = text
        for name, sources in release.files:
            file = ET.SubElement(app, "file", name=name)
            for source in dead_sources + sources:
                ET.SubElement(file, "downpath").text = source.replace("{base}", base)
    ET.indent(root)
    # A file stays on one line: white space in it would be a text of its own,
    # which the device passes on to the app.
    for file in root.iter("file"):
        file.text = None
        for source in file:
            source.tail = None
    return ET.tostring(root, encoding="utf-8", xml_declaration=True) + b"\n"
