"""The collection service the tests upload to, and the trace they replay."""

import json
import os
import pathlib
import subprocess
import urllib.request

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
TRACE = REPOSITORY / "data" / "traces" / "brixton-evening.gpx"


def collector_program() -> str:
    program = os.environ.get("ROVALIS_COLLECTOR", str(REPOSITORY / "build/release/tools/collector/rovalis-collector"))
    if not os.access(program, os.X_OK):
        pytest.fail(f"no collection service at {program}; build rovalis-collector or set ROVALIS_COLLECTOR")
    return program


class Collector:
    def __init__(self, url: str):
        self.url = url

    def get(self, path: str):
        with urllib.request.urlopen(self.url + path, timeout=60) as answer:
            return json.load(answer)


@pytest.fixture
def collector():
    """rovalis-collector on a free loopback port, in memory; its first line names its URL."""
    process = subprocess.Popen([collector_program(), "--port", "0"], stdout=subprocess.PIPE, text=True)
    try:
        first = process.stdout.readline().strip()
        if not first.startswith("rovalis-collector listening on "):
            pytest.fail(f"the collection service did not start: {first!r}")
        yield Collector(first.rsplit(" ", 1)[1])
    finally:
        process.terminate()
        process.communicate(timeout=30)


@pytest.fixture
def trace() -> pathlib.Path:
    return TRACE
