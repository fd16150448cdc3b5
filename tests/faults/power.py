"""What a power cut leaves of a tree: rebuilt from the shim's journal."""

from __future__ import annotations

import os
import shutil
from pathlib import Path


class Disk:
    """Folders of a device whose names and bytes count as safe only when synced.

    A file is one object whatever its names: ("old", path) from before the start,
    or a number of its own. Every path of the tree maps to its object, or to None
    for a folder.
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
        made = {}
        for path, thing in chosen.items():
            if thing is not None and all(str(p) in chosen for p in self._parents(path)):
                made[path] = self._bytes(path, thing, copies.get(thing), loss)
        folders = [p for p, thing in chosen.items()
                   if thing is None and all(str(q) in chosen for q in self._parents(p))]
        for part in self.parts:
            shutil.rmtree(self.root / part, ignore_errors=True)
        for path in [str(self.root / part) for part in self.parts] + folders:
            os.makedirs(path, exist_ok=True)
        for path, (data, marks, mode) in made.items():
            Path(path).write_bytes(data)
            os.chmod(path, mode)
            for name, value in marks.items():
                os.setxattr(path, name, value)

    def _parents(self, path: str) -> list[Path]:
        return [p for p in Path(path).parents if len(p.parts) > len(self.root.parts) + 1]

    def _replay(self, journal: Path) -> tuple[dict, dict, dict]:
        names: dict[str, object] = {}
        for part in self.parts:
            for path in (self.kept / part).rglob("*"):
                name = str(self.root / path.relative_to(self.kept))
                names[name] = None if path.is_dir() else ("old", name)
        safe, copies, count = dict(names), {}, 0
        log = journal / "log"
        for line in log.read_text().splitlines() if log.exists() else []:
            what, path, other = line.split("\t")
            path = path.rstrip("/")
            count += 1
            if what == "create":
                names[path] = count
            elif what == "mkdir":
                names[path] = None
            elif what == "unlink":
                names.pop(path, None)
            elif what == "rename" and path in names:
                names[other] = names.pop(path)
            elif what == "sync" and path in names:
                copies[names[path]] = journal / other
            elif what == "syncdir":
                for name in {*names, *safe}:
                    if os.path.dirname(name) == path:
                        safe.pop(name, None)
                        if name in names:
                            safe[name] = names[name]
        inside = tuple(f"{self.root / part}/" for part in self.parts)
        return ({p: t for p, t in names.items() if p.startswith(inside)},
                {p: t for p, t in safe.items() if p.startswith(inside)}, copies)

    def _bytes(self, path: str, thing: object, copy: Path | None,
               loss: str) -> tuple[bytes, dict[str, bytes], int]:
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


def read(path: Path) -> tuple[bytes, dict[str, bytes], int]:
    marks = {name: os.getxattr(path, name) for name in os.listxattr(path)}
    return path.read_bytes(), marks, path.stat().st_mode & 0o7777
