"""The tool's download step under Wine: updatetool.exe finds an update in state DOWNLOAD, hands it to
kesclient.dll, which fetches it from local HTTPS servers into the workspace, and the run records the
outcome in the update key and its log."""
import contextlib
import hashlib
import os

import pytest

from download_scenario import (RecordingHttpsServer, contents, install_pem_bundle, machine_root,
                               metadata, package_values, remove_pem_bundle, tar_gz, windows_path)
from scenario import CURRENT_ROOT, arrange, run, settings, update_key, values
from servers import Certificates, ConnectProxy, Resource, unused_port

KEY_ID = "{e2e-download}"
KEY = update_key(CURRENT_ROOT, KEY_ID)
BODY = os.urandom(1024 * 1024 + 321)  # a few progress lines, and room to cut half-way
ERR_FAILURE = -1  # every download run ends with it; the outcome is in RESULT


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    return Certificates(tmp_path_factory.mktemp("download-certs"))


@pytest.fixture
def workspace(wine):
    """The tool's workspace, where the package must land (the `wine` fixture empties it)."""
    yield wine.temp_folder() / "updatetool-data"
    remove_pem_bundle(wine)


def download_update(package, certtype="THUMBPRINT", **extra):
    """An update the service has just moved to DOWNLOAD."""
    return {KEY: {"STATE": "DOWNLOAD", "AGENT": "OTHER", "ARCH": "64-BitAgent", "CERTTYPE": certtype,
                  **package, **extra}}


def pinned(certs):
    return {"METADATA": metadata(certs.localhost.sha1().upper())}


def stored(wine):
    found = values(wine, KEY)
    assert found is not None, "the update key is gone"
    return found


def client_lines(result, level):
    return [m for m in result.messages if m.startswith(f"[{level}] kesclient: ")]


def assert_failed(wine, result, code, name):
    """A failed attempt with no attempts left: FAILURE, DONE, the client's error name, and the
    log's line for it beside the client's own error line."""
    assert result.code == ERR_FAILURE
    key = stored(wine)
    assert (key["STATE"], key["RESULT"], key["ERRORCODE"]) == ("DONE", "FAILURE", name), key
    assert f"Util_DoDownload: download failed: {code} [{name}]" in result.messages, result.log
    assert "Util_DoDownload: download done" not in result.messages
    assert any(name in line for line in client_lines(result, "ERROR")), result.log


def assert_delivered(wine, workspace, result, name="setup.exe", body=BODY):
    assert result.code == ERR_FAILURE
    key = stored(wine)
    assert (key["STATE"], key["RESULT"], key["ERRORCODE"]) == ("WAIT", "OK", ""), key
    assert key["FILENAME"].lower() == windows_path(wine, workspace / name).lower()
    assert (workspace / name).read_bytes() == body
    assert "Util_DoDownload: download done" in result.messages, result.log
    assert not any(m.startswith("Util_DoDownload: download failed") for m in result.messages)


# -- trust ----------------------------------------------------------------------------------------

def trust_setup(wine, certs, certtype, trusted):
    """Update values, settings and server identity for one trust mode. An untrusted set-up still
    has the test CA in the machine's Root store, so a mode that fell back to the system store
    would let the download through."""
    extra, keys = {}, {}
    identity = certs.localhost
    if certtype == "CERT_PEM":
        path = install_pem_bundle(wine, certs.ca.pem if trusted else certs.other_ca.pem)
        keys = {CURRENT_ROOT: {"AgentInstallPath": path}}
    elif certtype == "THUMBPRINT":
        # The matching pin second: every THUMBPRINT item counts, not just the first.
        pins = [certs.other_ca.sha1(), certs.localhost.sha1().upper()] if trusted else [certs.self_signed.sha1()]
        extra = {"METADATA": metadata(*pins)}
    elif not trusted:
        identity = certs.self_signed
    in_root = certtype == "CERT_SYSTEM_CA" or not trusted
    return extra, keys, identity, in_root


@pytest.mark.parametrize("certtype", ["CERT_PEM", "THUMBPRINT", "CERT_SYSTEM_CA"])
def test_trusted_server_delivers_the_package_and_the_update_waits(wine, tool, certs, servers, workspace,
                                                                  certtype):
    extra, keys, identity, in_root = trust_setup(wine, certs, certtype, trusted=True)
    server = servers(RecordingHttpsServer(identity))
    url = server.add("/packages/setup.exe", Resource(BODY, etag='"v1"'))
    arrange(wine, settings(), keys, download_update(package_values(BODY, [url]), certtype=certtype, **extra))

    with machine_root(wine, certs.ca.pem) if in_root else contextlib.nullcontext():
        result = run(wine, tool)

    assert_delivered(wine, workspace, result)
    assert contents(workspace) == ["setup.exe"]
    # The client's lines arrive in the tool's log with their level.
    info = client_lines(result, "INFO")
    assert any(f"[{KEY_ID}] done: {len(BODY)} bytes in " in line for line in info), result.log
    assert any("SHA-256 verified" in line for line in info), result.log
    assert ("UtilManageUpdateState: Update key: " + KEY_ID + " new state: WAIT result: OK") in result.messages


@pytest.mark.parametrize("certtype, code, name", [
    ("CERT_PEM", 9, "KESCLIENT_HTTP_CERTIFICATE_ERROR"),      # signed by a CA the bundle lacks
    ("THUMBPRINT", 5, "KESCLIENT_INVALID_THUMBPRINT"),        # another certificate's pin
    ("CERT_SYSTEM_CA", 9, "KESCLIENT_HTTP_CERTIFICATE_ERROR"),  # self-signed
])
def test_untrusted_server_fails_and_leaves_no_package(wine, tool, certs, servers, workspace, certtype, code,
                                                      name):
    extra, keys, identity, _ = trust_setup(wine, certs, certtype, trusted=False)
    server = servers(RecordingHttpsServer(identity))
    url = server.add("/packages/setup.exe", Resource(BODY, etag='"v1"'))
    arrange(wine, settings(), keys, download_update(package_values(BODY, [url]), certtype=certtype, **extra))

    with machine_root(wine, certs.ca.pem):
        result = run(wine, tool)

    assert_failed(wine, result, code, name)
    assert contents(workspace) == []


# -- locations and proxies ------------------------------------------------------------------------

def test_first_mirror_down_second_serves(wine, tool, certs, servers, workspace):
    server = servers(RecordingHttpsServer(certs.localhost))
    down = f"https://localhost:{unused_port()}/packages/setup.exe"
    good = server.add("/packages/setup.exe", Resource(BODY))
    arrange(wine, settings(), download_update(package_values(BODY, [down, good]), **pinned(certs)))

    result = run(wine, tool)

    assert_delivered(wine, workspace, result)
    assert any("trying the next location" in line for line in client_lines(result, "WARNING")), result.log
    assert [r["path"] for r in server.requests] == ["/packages/setup.exe"]


def test_proxy_from_the_update_key_carries_the_download(wine, tool, certs, servers, workspace):
    server = servers(RecordingHttpsServer(certs.localhost))
    proxy = servers(ConnectProxy())
    url = server.add("/packages/setup.exe", Resource(BODY))
    arrange(wine, settings(), download_update(package_values(BODY, [url]), PROXY=[proxy.address],
                                              **pinned(certs)))

    result = run(wine, tool)

    assert_delivered(wine, workspace, result)
    assert proxy.requests == [f"CONNECT localhost:{server.port} HTTP/1.1"]


# -- resume ---------------------------------------------------------------------------------------

def test_cut_download_is_resumed_by_the_next_run(wine, tool, certs, servers, workspace):
    server = servers(RecordingHttpsServer(certs.localhost))
    cut = len(BODY) // 2
    url = server.add("/packages/setup.exe", Resource(BODY, etag='"v1"', cut_after=cut))
    # One attempt left after the first, and a short wait instead of five minutes.
    arrange(wine, settings(max_retry=1, retry_wait_ms=1000),
            download_update(package_values(BODY, [url]), **pinned(certs)))

    first = run(wine, tool)

    key = stored(wine)
    assert (key["STATE"], key["RESULT"], key["RETRY"]) == ("READY", "PROGRESS", "1"), key
    assert key["ERRORCODE"] == "KESCLIENT_DOWNLOAD_FAILED"
    assert "Util_DoDownload: download failed: 7 [KESCLIENT_DOWNLOAD_FAILED]" in first.messages, first.log
    assert {"Util_UpdateDone: wait for 0 mins", "Util_UpdateDone: done waiting"} <= set(first.messages)
    assert not (workspace / "setup.exe").exists()
    assert (workspace / "setup.exe.partial").stat().st_size == cut

    # What the service does before it starts the tool again.
    arrange(wine, {KEY: {"STATE": "DOWNLOAD"}})
    second = run(wine, tool)

    assert_delivered(wine, workspace, second)
    assert contents(workspace) == ["setup.exe"]
    resumed = server.requests[-1]["headers"]
    assert (resumed.get("range"), resumed.get("if-range")) == (f"bytes={cut}-", '"v1"')
    answer = server.answers[-1]
    assert answer["status"] == 206
    assert answer["headers"]["content-range"] == f"bytes {cut}-{len(BODY) - 1}/{len(BODY)}"
    assert answer["headers"]["content-length"] == str(len(BODY) - cut)
    assert any(f"received {len(BODY) - cut} bytes in " in line for line in client_lines(second, "INFO")), second.log


# -- integrity ------------------------------------------------------------------------------------

@pytest.mark.parametrize("change, code, name", [
    ({"FILESIZE": str(len(BODY) - 1)}, 10, "KESCLIENT_WRONG_SIZE_ERROR"),
    ({"FILESIZE": str(len(BODY) + 1)}, 10, "KESCLIENT_WRONG_SIZE_ERROR"),
    ({"CHECKSUM": hashlib.sha256(BODY[:-1] + b"!").hexdigest()}, 11, "KESCLIENT_WRONG_CHECKSUM_ERROR"),
], ids=["size-one-short", "size-one-over", "checksum"])
def test_package_that_does_not_match_the_update_fails(wine, tool, certs, servers, workspace, change, code,
                                                      name):
    server = servers(RecordingHttpsServer(certs.localhost))
    url = server.add("/packages/setup.exe", Resource(BODY))
    arrange(wine, settings(), download_update(package_values(BODY, [url], **change), **pinned(certs)))

    result = run(wine, tool)

    assert_failed(wine, result, code, name)
    assert contents(workspace) == []


# -- tar packages ---------------------------------------------------------------------------------

def test_tar_gz_package_is_extracted_and_filename_points_into_it(wine, tool, certs, servers, workspace):
    archive = tar_gz([("pkg/bin/setup.exe", BODY), ("pkg/readme.txt", b"read me")])
    server = servers(RecordingHttpsServer(certs.localhost))
    url = server.add("/packages/agent-8.13.tar.gz", Resource(archive))
    arrange(wine, settings(), download_update(package_values(archive, [url]), RELATIVEFOLDERPATH=r"pkg\bin",
                                              PACKAGEFILENAME="setup.exe", **pinned(certs)))

    result = run(wine, tool)

    assert_delivered(wine, workspace, result, name="pkg/bin/setup.exe")
    assert (workspace / "pkg" / "readme.txt").read_bytes() == b"read me"
    # The archive itself is not kept.
    assert contents(workspace) == ["pkg", "pkg/bin", "pkg/bin/setup.exe", "pkg/readme.txt"]
    assert "Util_DoDownload: localPath: " in "\n".join(result.messages)
    assert any(m.endswith("payloadType: KesClientPayloadType::TAR") for m in result.messages), result.log


def test_tar_with_a_parent_entry_is_refused_and_writes_nothing(wine, tool, certs, servers, workspace):
    # A good entry first: an extractor that stopped at the bad one would have written it already.
    archive = tar_gz([("pkg/setup.exe", BODY), ("../evil.txt", b"outside")])
    server = servers(RecordingHttpsServer(certs.localhost))
    url = server.add("/packages/agent-8.13.tar.gz", Resource(archive))
    arrange(wine, settings(), download_update(package_values(archive, [url]), RELATIVEFOLDERPATH="pkg",
                                              PACKAGEFILENAME="setup.exe", **pinned(certs)))

    beside = sorted(p.name for p in workspace.parent.iterdir() if p != workspace)

    result = run(wine, tool)

    assert_failed(wine, result, 8, "KESCLIENT_VERIFY_FAILED")
    assert contents(workspace) == []
    assert sorted(p.name for p in workspace.parent.iterdir() if p != workspace) == beside
