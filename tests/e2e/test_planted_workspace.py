"""A file planted where the workspace belongs before a download run: the run moves it aside, says
so, and downloads into a private workspace of its own in the same run."""
import re

import pytest

from download_scenario import RecordingHttpsServer, metadata, package_values, windows_path
from scenario import CURRENT_ROOT, arrange, run, settings, update_key, values
from servers import Certificates, Resource

KEY = update_key(CURRENT_ROOT, "{e2e-planted}")
BODY = b"package " * 4096


@pytest.fixture
def temp(wine):
    """The tool's temp folder; what the run moved aside is removed afterwards."""
    yield wine.temp_folder()
    for aside in wine.temp_folder().glob("updatetool-data.untrusted-*"):
        aside.unlink()


def test_planted_file_is_moved_aside_and_the_download_completes(wine, tool, servers, tmp_path, temp):
    certs = Certificates(tmp_path)
    url = servers(RecordingHttpsServer(certs.localhost)).add("/packages/setup.exe", Resource(BODY))
    arrange(wine, settings(), {KEY: {"STATE": "DOWNLOAD", "AGENT": "OTHER", "ARCH": "64-BitAgent",
                                     "CERTTYPE": "THUMBPRINT", "METADATA": metadata(certs.localhost.sha1()),
                                     **package_values(BODY, [url])}})
    (temp / "updatetool-data").write_bytes(b"planted")

    result = run(wine, tool)

    aside = list(temp.glob("updatetool-data.untrusted-*"))
    assert [path.read_bytes() for path in aside] == [b"planted"], aside
    assert re.fullmatch(r"updatetool-data\.untrusted-\d{14}", aside[0].name)
    line = (f"GetWorkspace: {windows_path(wine, temp / 'updatetool-data')} (a file, owner ) cannot be "
            f"trusted, moved it aside to {windows_path(wine, aside[0])}").lower()
    owners = [re.sub(r"owner [^)]*\)", "owner )", m.lower(), count=1) for m in result.messages]
    assert line in owners, result.log
    key = values(wine, KEY)
    assert (key["STATE"], key["RESULT"]) == ("WAIT", "OK"), key
    assert (temp / "updatetool-data" / "setup.exe").read_bytes() == BODY
