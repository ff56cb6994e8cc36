"""kesclient.dll under Wine, driven by kesclient_driver.exe against local HTTPS servers: trust modes,
mirrors and proxies, integrity, resume, tar packages and redirects.
"""
import hashlib
import os
import shutil
import time

import pytest

from kesclient_support import *  # noqa: F401,F403 - fixtures, the driver and its result codes
from servers import ConnectProxy, HttpsServer, PacServer, Resource, unused_port
from wine import wait_for

BODY = os.urandom(3 * 1024 * 1024 + 123)


# -- trust ----------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["pin-sha1", "pin-sha256", "pin-colons", "pem", "system"])
def test_each_trust_mode_downloads_a_verified_file(request, wine, certs, folder, servers, mode):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/pkg/setup.exe", Resource(BODY, etag='"v1"'))
    pins = {"pin-sha1": [certs.localhost.sha1()], "pin-sha256": [certs.other_ca.sha256(), certs.localhost.sha256()],
            "pin-colons": [":".join(certs.localhost.sha1()[i:i + 2] for i in range(0, 40, 2)).upper()]}
    if mode == "system":
        request.getfixturevalue("system_root")
    trust = "pin" if mode.startswith("pin") else mode if mode == "system" else certs.ca.pem
    run = download(wine, [url], BODY, trust=trust, certs=certs, pins=pins.get(mode, ()))
    assert run.code == SUCCESS, run.out
    assert (folder / "setup.exe").read_bytes() == BODY
    assert leftovers(folder) == ["setup.exe"]
    assert any("SHA-256 verified" in line for line in run.lines("info"))
    assert any(f"done: {len(BODY)} bytes in" in line for line in run.lines("info"))


@pytest.mark.parametrize("case, code", [
    ("pin-mismatch", INVALID_THUMBPRINT),
    ("pem-self-signed", CERTIFICATE_ERROR),
    ("pem-other-ca", CERTIFICATE_ERROR),
    ("pem-wrong-host", CERTIFICATE_ERROR),
    ("pem-expired", CERTIFICATE_ERROR),
    ("system-self-signed", CERTIFICATE_ERROR),
    ("system-expired", CERTIFICATE_ERROR),
])
def test_untrusted_server_is_refused_and_nothing_is_kept(request, wine, certs, folder, servers, case, code):
    identity = {"self-signed": certs.self_signed, "wrong-host": certs.wrong_host, "expired": certs.expired}.get(
        case.split("-", 1)[1], certs.localhost)
    server = servers(HttpsServer(identity))
    url = server.add("/setup.exe", Resource(BODY))
    if case.startswith("system"):
        request.getfixturevalue("system_root")
    trust = {"pin": "pin", "pem": certs.other_ca.pem if case == "pem-other-ca" else certs.ca.pem,
             "system": "system"}[case.split("-")[0]]
    run = download(wine, [url], BODY, trust=trust, certs=certs, pins=[certs.self_signed.sha256()])
    assert run.code == code, run.out
    assert leftovers(folder) == []


@pytest.mark.parametrize("content", [None, b"", b"-----BEGIN CERTIFICATE-----\nnot base64!\n-----END CERTIFICATE-----\n",
                                     b"-----BEGIN CERTIFICATE-----\nTWFu\n-----END CERTIFICATE-----\n"])
def test_unusable_pem_bundle_fails_before_any_connection(wine, certs, folder, servers, tmp_path, content):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY))
    bundle = tmp_path / "bundle.pem"
    if content is not None:
        bundle.write_bytes(content)
    run = download(wine, [url], BODY, trust=bundle)
    assert run.code == PEM_FILE_FAILED, run.out
    assert server.requests == []


# -- mirrors and proxies --------------------------------------------------------------------------

def test_first_mirror_down_then_second_serves(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    good = server.add("/setup.exe", Resource(BODY))
    run = download(wine, [f"https://localhost:{unused_port()}/setup.exe", good], BODY, certs=certs)
    assert run.code == SUCCESS, run.out
    assert any("trying the next location" in line for line in run.lines("warning"))
    assert (folder / "setup.exe").read_bytes() == BODY


def test_content_failure_outranks_a_mirror_that_is_down(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    bad = server.add("/setup.exe", Resource(b"x" * len(BODY)))
    run = download(wine, [bad, f"https://localhost:{unused_port()}/setup.exe"], BODY, certs=certs)
    assert run.code == WRONG_CHECKSUM, run.out
    assert leftovers(folder) == []


def test_proxies_are_tried_in_order(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY))
    refusing = servers(ConnectProxy(refuse=True))
    proxy = servers(ConnectProxy())
    run = download(wine, [url], BODY, certs=certs,
                   proxies=[f"localhost:{unused_port()}", refusing.address, "socks5://x:1", proxy.address])
    assert run.code == SUCCESS, run.out
    assert refusing.requests == [f"CONNECT localhost:{server.port} HTTP/1.1"]
    assert proxy.requests == [f"CONNECT localhost:{server.port} HTTP/1.1"]
    assert any("socks5://x:1" in line for line in run.lines("warning"))


def test_pac_answer_comes_before_the_list(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY))
    from_pac = servers(ConnectProxy())
    listed = servers(ConnectProxy())
    pac = servers(PacServer(f'function FindProxyForURL(url, host) {{ return "PROXY {from_pac.address}"; }}'))
    run = download(wine, [url], BODY, certs=certs, pac=pac.url, proxies=[listed.address])
    assert run.code == SUCCESS, run.out
    assert pac.requests, "the PAC script was not fetched"
    assert from_pac.requests == [f"CONNECT localhost:{server.port} HTTP/1.1"]
    assert listed.requests == []


# -- integrity ------------------------------------------------------------------------------------

@pytest.mark.parametrize("resource, size, code", [
    (Resource(BODY), len(BODY) - 1, WRONG_SIZE),                           # announced size differs
    (Resource(BODY + b"more", length=False), len(BODY), WRONG_SIZE),       # no length, too many bytes
    (Resource(BODY, length=len(BODY) + 10, cut_after=len(BODY)), len(BODY) + 10, DOWNLOAD_FAILED),
    (Resource(BODY[:-5], length=False), len(BODY), DOWNLOAD_FAILED),       # short body, clean close
], ids=["announced", "overlong", "short-with-length", "short-without-length"])
def test_size_is_counted_against_what_was_announced(wine, certs, folder, servers, resource, size, code):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", resource)
    run = download(wine, [url], BODY, certs=certs, size=size, checksum="")
    assert run.code == code, run.out
    assert not (folder / "setup.exe").exists()


def test_wrong_checksum_deletes_everything(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY, etag='"v1"'))
    run = download(wine, [url], BODY, certs=certs, checksum="sha512:" + hashlib.sha512(b"other").hexdigest())
    assert run.code == WRONG_CHECKSUM, run.out
    assert leftovers(folder) == []


def test_sha512_checksum_and_a_missing_checksum_warns(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY))
    run = download(wine, [url], BODY, certs=certs, checksum="SHA512:" + hashlib.sha512(BODY).hexdigest().upper())
    assert run.code == SUCCESS, run.out
    run = download(wine, [url], BODY, certs=certs, checksum="")
    assert run.code == SUCCESS, run.out
    assert any("no checksum" in line for line in run.lines("warning"))


# -- resume ---------------------------------------------------------------------------------------

def test_cut_connection_is_resumed_by_the_next_run(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    cut = 1_500_000
    url = server.add("/setup.exe", Resource(BODY, etag='"v1"', cut_after=cut))
    first = download(wine, [url], BODY, certs=certs)
    assert first.code == DOWNLOAD_FAILED, first.out
    assert not (folder / "setup.exe").exists()
    assert (folder / "setup.exe.partial").stat().st_size == cut

    second = download(wine, [url], BODY, certs=certs)
    assert second.code == SUCCESS, second.out
    assert server.requests[-1]["headers"]["range"] == f"bytes={cut}-"
    assert server.requests[-1]["headers"]["if-range"] == '"v1"'
    assert (folder / "setup.exe").read_bytes() == BODY
    assert leftovers(folder) == ["setup.exe"]


def test_killed_download_resumes_from_its_last_checkpoint(wine, certs, folder, servers):
    # The body is flushed and recorded as a resume point every 32 MiB while it arrives, so a
    # process killed without a word loses at most that much.
    body = os.urandom(40 << 20)
    server = servers(HttpsServer(certs.localhost, stall_seconds=60))
    url = server.add("/setup.exe", Resource(body, etag='"v1"', stall_after=36 << 20))
    first = download(wine, [url], body, certs=certs, background=True)
    try:
        assert wait_for(lambda: (folder / "setup.exe.resume").exists(), timeout=60)
    finally:
        first.kill()
        first.communicate()
    second = download(wine, [url], body, certs=certs)
    assert second.code == SUCCESS, second.out
    assert server.requests[-1]["headers"]["range"] == f"bytes={32 << 20}-"
    assert (folder / "setup.exe").read_bytes() == body


def test_changed_file_starts_over(wine, certs, folder, servers):
    # Without a checksum, which would tell the new file from the old one by itself.
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY, etag='"v1"', cut_after=1_000_000))
    assert download(wine, [url], BODY, certs=certs, checksum="").code == DOWNLOAD_FAILED
    new = os.urandom(len(BODY))
    server.add("/setup.exe", Resource(new, etag='"v2"'))
    run = download(wine, [url], new, certs=certs, checksum="")
    assert run.code == SUCCESS, run.out
    assert server.requests[-1]["headers"]["if-range"] == '"v1"'  # asked, and got the whole new file
    assert (folder / "setup.exe").read_bytes() == new


def test_stall_moves_on_to_the_next_mirror(wine, certs, folder, servers):
    stalling = servers(HttpsServer(certs.localhost, stall_seconds=20))
    good = servers(HttpsServer(certs.localhost))
    urls = [stalling.add("/setup.exe", Resource(BODY, stall_after=100_000)), good.add("/setup.exe", Resource(BODY))]
    run = download(wine, urls, BODY, certs=certs, env={"KESCLIENT_STALL_TIMEOUT_MS": "1500"})
    assert run.code == SUCCESS, run.out
    assert run.seconds < 15
    assert any("stalled" in line for line in run.lines("warning")), run.out


def test_whole_run_is_bounded(wine, certs, folder, servers):
    stalling = servers(HttpsServer(certs.localhost, stall_seconds=30))
    stall = (1 << 20) + 100_000
    urls = [stalling.add(f"/{n}/setup.exe", Resource(BODY, etag='"v1"', stall_after=stall)) for n in (1, 2)]
    run = download(wine, urls, BODY, certs=certs,
                   env={"KESCLIENT_RUN_TIMEOUT_MS": "2000", "KESCLIENT_STALL_TIMEOUT_MS": "60000"})
    assert run.code == DOWNLOAD_FAILED, run.out
    assert run.seconds < 10
    assert any("time limit of the run" in line for line in run.lines("error")), run.out
    assert leftovers(folder) == ["setup.exe.partial", "setup.exe.resume"], run.out  # kept for the next run
    # Whole buffers at least: a large read cut by the time limit loses what it gathered.
    assert 1 << 20 <= (folder / "setup.exe.partial").stat().st_size <= stall


# -- tar packages ---------------------------------------------------------------------------------

def test_tar_gz_package_is_extracted_into_the_folder(wine, certs, folder, servers):
    archive = tar_archive([("pkg/setup.exe", BODY), ("pkg/docs/readme.txt", b"hello")])
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/package.tar.gz", Resource(archive))
    folder.mkdir(parents=True)
    (folder / "pkg").mkdir()
    (folder / "pkg" / "setup.exe").write_bytes(b"old version")
    run = download(wine, [url], archive, certs=certs, payload="tar")
    assert run.code == SUCCESS, run.out
    assert (folder / "pkg" / "setup.exe").read_bytes() == BODY
    assert (folder / "pkg" / "docs" / "readme.txt").read_bytes() == b"hello"
    assert leftovers(folder) == ["pkg"]  # no archive, no staging folder


def test_failed_placement_puts_everything_back(wine, certs, folder, servers):
    archive = tar_archive([("pkg/a.txt", b"new a"), ("pkg/b.txt", b"new b"), ("pkg/setup.exe", BODY)])
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/package.tgz", Resource(archive))
    (folder / "pkg" / "setup.exe").mkdir(parents=True)  # a folder where the archive has a file
    (folder / "pkg" / "b.txt").write_bytes(b"old b")
    run = download(wine, [url], archive, certs=certs, payload="tar")
    assert run.code == VERIFY_FAILED, run.out
    assert sorted(p.name for p in (folder / "pkg").iterdir()) == ["b.txt", "setup.exe"]
    assert (folder / "pkg" / "b.txt").read_bytes() == b"old b"
    assert leftovers(folder) == ["pkg"]


# -- locations and redirects ----------------------------------------------------------------------

def test_redirect_to_https_is_followed_and_checked(wine, certs, folder, servers):
    server = servers(HttpsServer(certs.localhost))
    other = servers(HttpsServer(certs.self_signed))
    url = server.add("/setup.exe", Resource(redirect="/files/setup-1.2.exe"))
    server.add("/files/setup-1.2.exe", Resource(BODY))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == SUCCESS, run.out
    assert [r["path"] for r in server.requests] == ["/setup.exe", "/files/setup-1.2.exe"]
    assert (folder / "setup.exe").read_bytes() == BODY

    # The pin holds at every hop: a redirect to a server with another certificate is refused.
    server.add("/setup.exe", Resource(redirect=other.add("/setup.exe", Resource(BODY))))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == INVALID_THUMBPRINT, run.out


@pytest.mark.parametrize("target", ["http://localhost:{port}/setup.exe", "ftp://localhost/setup.exe"])
def test_redirect_away_from_https_is_refused(wine, certs, folder, servers, target):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(redirect=target.format(port=server.port)))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == INVALID_URI, run.out
    assert len(server.requests) == 1
    assert leftovers(folder) == []


def test_plain_http_location_is_refused(wine, certs, folder):
    run = download(wine, [f"http://localhost:{unused_port()}/setup.exe"], BODY, certs=certs)
    assert run.code == INVALID_URI, run.out
