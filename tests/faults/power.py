"""What a power cut leaves of a tree: rebuilt from the shim's journal."""

from __future__ import annotations

import os
import shutil
from pathlib import Path

Names = dict[str, tuple[str, str] | int | None]  # path to its object; None: a folder
Content = tuple[bytes, dict[str, bytes], int]  # bytes, attributes, mode


class Disk:
    """Folders of a device whose names and bytes count as safe only when synced.

    A file is one object whatever its names: ("old", path) from before the start,
    or a number of its own.
    """

    LOSSES = ("absent", "zeroed", "short", "torn")

    def __init__(self, root: Path, parts: tuple[str, ...], kept: Path) -> None:
        """Called before the start: what lies in the parts of the root is safe."""
        self.root, self.parts, self.kept = root, parts, kept
        for part in parts:
            shutil.copytree(root / part, kept / part)

    def cut(self, journal: Path, loss: str) -> None:
        """Leaves what a power cut may leave of what the daemon has done by now.

        absent: what was not synced never happened, names included. Otherwise all
        names are there; bytes that were not synced are zeroed, missing (short), or
        there in their first half (torn).
        """
        names, safe, copies = self._replay(journal)
        chosen = safe if loss == "absent" else names
        inside = [str(self.root / part) for part in self.parts]
        found = {path: None if thing is None else
                 self._content(path, thing, copies.get(thing), loss)
                 for path, thing in chosen.items() if path.startswith(tuple(inside))}
        for folder in inside:
            shutil.rmtree(folder)
            os.mkdir(folder)
        for path in sorted(found):  # what lies in a folder that is not safe is gone with it
            if not os.path.isdir(os.path.dirname(path)):
                continue
            if (content := found[path]) is None:
                os.mkdir(path)
                continue
            data, marks, mode = content
            Path(path).write_bytes(data)
            os.chmod(path, mode)
            for name, value in marks.items():
                os.setxattr(path, name, value)

    def _replay(self, journal: Path) -> tuple[Names, Names, dict]:
        """All names, those that are safe, and of each object what was last synced."""
        names: Names = {}
        for part in self.parts:
            for path in (self.kept / part).rglob("*"):
                name = str(self.root / path.relative_to(self.kept))
                names[name] = None if path.is_dir() else ("old", name)
        safe, copies = dict(names), {}
        log = journal / "log"
        for number, line in enumerate(log.read_text().splitlines() if log.exists() else []):
            what, path, other = line.split("\t")
            path = path.rstrip("/")
            if what in ("create", "mkdir"):
                names[path] = number if what == "create" else None
            elif what == "unlink":
                names.pop(path, None)
            elif what == "rename" and path in names:
                names[other] = names.pop(path)
            elif what == "sync" and path in names:
                copies[names[path]] = journal / other
            elif what == "syncdir":
                safe = {n: t for n, t in safe.items() if os.path.dirname(n) != path}
                safe |= {n: t for n, t in names.items() if os.path.dirname(n) == path}
        return names, safe, copies

    def _content(self, path: str, thing: object, copy: Path | None, loss: str) -> Content:
        if copy is None and isinstance(thing, tuple):
            copy = self.kept / Path(thing[1]).relative_to(self.root)
        safe, marks, mode = read(copy) if copy else (b"", {}, 0o600)
        if loss == "absent" or not os.path.exists(path):
            return safe, marks, mode
        data, marks, mode = read(Path(path))
        same = len(os.path.commonprefix([safe, data]))
        if loss == "short":
            return data[:same], marks, mode
        kept = same if loss == "zeroed" else (same + len(data)) // 2
        return data[:kept] + bytes(len(data) - kept), marks, mode


def read(path: Path) -> Content:
    marks = {name: os.getxattr(path, name) for name in os.listxattr(path)}
    return path.read_bytes(), marks, path.stat().st_mode & 0o7777
