from __future__ import annotations

from collections.abc import Iterator

import pytest
from lab import Device, LabServer, Probe, Sample, Scratch


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
