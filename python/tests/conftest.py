import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import tarnwell  # noqa: E402

NOW = "2026-11-25T20:00:00Z"


@pytest.fixture(autouse=True)
def home(tmp_path, monkeypatch):
    """A home of the test's own: the keychain lives outside the container."""
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "home"))
    return tmp_path / "home"


@pytest.fixture
def container(tmp_path):
    return tmp_path / "phone"


@pytest.fixture
def phone(container):
    """A fresh installation in UTC, its clock pinned; closed after the test
    whatever happened, so that no later test finds the process Busy."""
    installation = tarnwell.Installation(container, time_zone="UTC", now=NOW)
    yield installation
    installation.close()


@pytest.fixture
def command_line(container):
    """Runs the `tarnwell` binary on the test's container: its JSON."""
    binary = os.environ.get("TARNWELL_BINARY")
    if not binary:
        pytest.skip("TARNWELL_BINARY is not set")

    def run(*words):
        done = subprocess.run([binary, "--container", str(container), "--now", NOW, "--tz", "UTC", "--json", *words],
                              capture_output=True, text=True, check=True)
        return json.loads(done.stdout)

    return run
