"""Fixtures for end-to-end scenarios: one Wine prefix per session, a clean product registry and
log folders for every test."""
import os
import pathlib
import shutil

import pytest

from wine import BIN, CURRENT_ROOT, LEGACY_ROOT, ROOT, TOOL, WinePrefix


@pytest.fixture(scope="session")
def prefix():
    if not TOOL.exists():
        pytest.fail(f"{TOOL} is missing: build the windows preset first")
    # A prefix of one's own when several test runs share the machine.
    wine = WinePrefix(os.environ.get("UPDATETOOL_E2E_PREFIX") or ROOT / "build" / "e2e" / "prefix")
    wine.create()
    yield wine
    wine.destroy()


@pytest.fixture
def wine(prefix):
    """The session's prefix with no product keys, no logs and no workspace left from other tests."""
    def clean():
        for key in (r"HKEY_LOCAL_MACHINE\Software\Quorvane", r"HKEY_LOCAL_MACHINE\Software\Tessix, Inc."):
            prefix.delete_key(key)
        shutil.rmtree(prefix.temp_folder() / "updatetool-data", ignore_errors=True)
        shutil.rmtree(prefix.unix_path(r"C:\logs"), ignore_errors=True)
    clean()
    prefix.unix_path(r"C:\logs").mkdir()  # the logs root the tests name; the tool adds its subfolder
    yield prefix
    clean()


@pytest.fixture
def servers():
    """Starts servers for one test and stops them at its end."""
    started = []

    def start(server):
        started.append(server)
        return server

    yield start
    for server in started:
        server.stop()


@pytest.fixture
def tool():
    return TOOL


def pytest_report_header(config):
    return [f"tool: {TOOL}", f"bin: {BIN}"]


__all__ = ["CURRENT_ROOT", "LEGACY_ROOT", "pathlib"]
