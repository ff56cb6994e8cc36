"""One Wine prefix for the session, reset for each test; certificates; servers stopped after each test."""
import os
import shutil

import pytest

from harness import BIN, DRIVER, FOLDER, ROOT, TOOL, Downloads, WinePrefix
from packages import Packages
from servers import Certificates


@pytest.fixture(scope="session")
def prefix():
    for program in (TOOL, DRIVER, BIN / "kesclient.dll"):
        if not program.exists():
            pytest.fail(f"{program} is missing: build the windows preset first")
    # A prefix of one's own when several test runs share the machine.
    wine = WinePrefix(os.environ.get("UPDATETOOL_E2E_PREFIX") or ROOT / "build" / "e2e" / "prefix")
    wine.create()
    yield wine
    wine.kill_server()
    shutil.rmtree(wine.path, ignore_errors=True)


@pytest.fixture
def wine(prefix):
    prefix.reset()
    return prefix


@pytest.fixture
def packages(wine):
    yield (folder := Packages(wine))
    folder.remove()


@pytest.fixture(scope="session")
def certs(prefix, tmp_path_factory):
    """The test CA is in the machine's Root store for the session."""
    made = Certificates(tmp_path_factory.mktemp("certs"))
    assert prefix.run(DRIVER, "--add-root", prefix.windows_path(made.ca.pem)).code == 0
    yield made
    prefix.run(DRIVER, "--remove-root", prefix.windows_path(made.ca.pem))


@pytest.fixture
def servers():
    """servers(server) stops the server at the end of the test."""
    started = []
    yield lambda server: started.append(server) or server
    for server in started:
        server.close()


@pytest.fixture
def downloads(prefix, certs, servers):
    shutil.rmtree(prefix.unix_path(FOLDER).parent, ignore_errors=True)
    return Downloads(prefix, certs, servers)
