from __future__ import annotations

import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from lab import Device, LabServer, Probe, Sample, Scratch, private_mounts


@pytest.fixture
def scratch() -> Iterator[Scratch]:
    made = Scratch()
    yield made
    made.close()


@pytest.fixture
def probe(scratch: Scratch) -> Probe:
    return Probe(scratch)


@pytest.fixture
def sample(scratch: Scratch) -> Iterator[Sample]:
    made = Sample(scratch)
    yield made
    if made.process is not None and made.process.poll() is None:
        made.end()


@pytest.fixture
def server(scratch: Scratch) -> LabServer:
    return LabServer(scratch)


@pytest.fixture
def device(scratch: Scratch, server: LabServer) -> Device:
    """A device whose daemon runs and asks the server."""
    made = Device(scratch)
    made.start()
    made.use(server)
    return made


@pytest.fixture
def small_disk(scratch: Scratch) -> Path:
    """A 64 KiB file system that only this process and its children see."""
    if not private_mounts():
        pytest.skip("mounting is not permitted here")
    disk = scratch.root / "disk"
    disk.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", disk], check=True)
    scratch.at_end.insert(0, lambda: subprocess.run(["umount", "-l", disk], check=True))
    return disk
