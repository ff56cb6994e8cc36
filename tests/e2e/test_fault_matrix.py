"""kesclient.dll against servers that misbehave: bodies cut short, impossible lengths, resumes the
server answers wrongly, stalls and drips, mirrors that each fail their own way, proxy scripts that
lead nowhere, and certificates that are not what the trust mode asks for.

Whatever happens, no file lands under its final name unless verified, and a partial file stays only
when the next run can resume it.
"""
import os

import pytest

from fault_server import DROP, FaultServer, Scripted, chunked, drip, head
from kesclient_support import *  # noqa: F401,F403 - fixtures, the driver and its result codes
from servers import ConnectProxy, HttpsServer, PacServer, Resource, unused_port

BODY = os.urandom(1024 * 1024 + 4321)
CUT = 300_000
PARTIAL = ["setup.exe.partial", "setup.exe.resume"]
QUICK = {"KESCLIENT_STALL_TIMEOUT_MS": "1500", "KESCLIENT_CONNECT_TIMEOUT_MS": "1500"}


def length(n):
    return f"Content-Length: {n}"


# -- framing --------------------------------------------------------------------------------------

@pytest.mark.parametrize("etag, kept", [('"v1"', PARTIAL), (None, [])], ids=["validator", "no-validator"])
def test_chunked_body_cut_short_is_kept_only_when_resumable(wine, certs, folder, servers, etag, kept):
    server = servers(FaultServer(certs.localhost))
    tag = [f"ETag: {etag}"] if etag else []
    url = server.add("/setup.exe", Scripted(BODY, lambda start: [
        head(200, "Transfer-Encoding: chunked", *tag), chunked(BODY[:CUT]), DROP], etag=etag))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == DOWNLOAD_FAILED, run.out
    assert leftovers(folder) == kept, run.out
    if kept:
        assert (folder / "setup.exe.partial").stat().st_size == CUT
        server.add("/setup.exe", Resource(BODY, etag=etag))
        run = download(wine, [url], BODY, certs=certs)
        assert run.code == SUCCESS, run.out
        assert server.requests[-1]["headers"]["range"] == f"bytes={CUT}-"
        assert leftovers(folder) == ["setup.exe"]


@pytest.mark.parametrize("answer, code, logged", [
    # Read as 32 bits, 2^32 + n would pass for the n bytes expected.
    ([head(200, length((1 << 32) + len(BODY))), BODY], WRONG_SIZE, f"announces {(1 << 32) + len(BODY)} bytes"),
    ([head(200, length(-1)), BODY], DOWNLOAD_FAILED, "Content-Length"),
    ([head(200, length(len(BODY)), length(len(BODY) + 10)), BODY], DOWNLOAD_FAILED, "Content-Length"),
    ([head(200, f"Content-Length: {len(BODY)}, {len(BODY) + 10}"), BODY], DOWNLOAD_FAILED, "Content-Length"),
], ids=["above-4GiB", "negative", "two-headers", "list"])
def test_impossible_length_is_refused(wine, certs, folder, servers, answer, code, logged):
    server = servers(FaultServer(certs.localhost))
    url = server.add("/setup.exe", Scripted(script=lambda start: answer))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == code, run.out
    assert any(logged in line for line in run.lines("warning")), run.out
    assert leftovers(folder) == []


def test_bytes_past_the_announced_length_are_not_part_of_the_file(wine, certs, folder, servers):
    server = servers(FaultServer(certs.localhost))
    url = server.add("/setup.exe", Scripted(script=lambda start: [head(200, length(len(BODY))), BODY + b"surplus"]))
    run = download(wine, [url], BODY, certs=certs)
    assert run.code == SUCCESS, run.out
    assert (folder / "setup.exe").read_bytes() == BODY
    assert leftovers(folder) == ["setup.exe"]


# -- resume ---------------------------------------------------------------------------------------

NEW = os.urandom(len(BODY))


def range_answer(body, first, etag='"v1"'):
    """A 206 for body from byte `first`, whatever was asked."""
    return [head(206, f"Content-Range: bytes {first}-{len(body) - 1}/{len(body)}", length(len(body) - first),
                 f"ETag: {etag}"), body[first:]]


@pytest.mark.parametrize("second, expected", [
    (Resource(BODY, etag='"v1"', ranges=False), BODY),
    (Scripted(BODY, lambda start: start and range_answer(BODY, 0), etag='"v1"'), BODY),
    (Scripted(BODY, lambda start: start and range_answer(BODY, start - 1000), etag='"v1"'), BODY),
    (Scripted(BODY, lambda start: start and [head(416, length(0))], etag='"v1"'), BODY),
    # The server ignores If-Range: only the 206's own validator tells that the file changed.
    (Scripted(NEW, lambda start: start and range_answer(NEW, start, '"v2"'), etag='"v2"'), NEW),
], ids=["200-to-range", "range-from-0", "range-before-the-end", "416", "changed-and-if-range-ignored"])
def test_resume_answered_wrongly_starts_over(wine, certs, folder, servers, second, expected):
    # Without a checksum, which would catch a spliced file by itself (and discard it).
    server = servers(FaultServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY, etag='"v1"', cut_after=CUT))
    assert download(wine, [url], BODY, certs=certs, checksum="").code == DOWNLOAD_FAILED
    assert leftovers(folder) == PARTIAL
    server.add("/setup.exe", second)
    run = download(wine, [url], expected, certs=certs, checksum="")
    assert run.code == SUCCESS, run.out
    assert server.requests[-1]["headers"].get("range") in (None, f"bytes={CUT}-")
    assert (folder / "setup.exe").read_bytes() == expected
    assert leftovers(folder) == ["setup.exe"]


# -- time -----------------------------------------------------------------------------------------

@pytest.mark.parametrize("steps", [
    [60],                                         # TLS up, no answer
    [head(200, length(len(BODY)), 'ETag: "v1"'), 60],  # answer, no body
], ids=["before-the-headers", "after-the-headers"])
def test_stall_with_nothing_received_leaves_nothing(wine, certs, folder, servers, steps):
    server = servers(FaultServer(certs.localhost))
    url = server.add("/setup.exe", Scripted(script=lambda start: steps))
    run = download(wine, [url], BODY, certs=certs, env=QUICK)
    assert run.code == DOWNLOAD_FAILED, run.out
    assert run.seconds < 10
    assert leftovers(folder) == []


def test_slow_drip_is_bounded_by_the_run(wine, certs, folder, servers):
    # Each byte comes well within the stall timeout: only the run's own limit ends this. The drip
    # lasts 12 s, against a limit of 3.
    server = servers(FaultServer(certs.localhost))
    url = server.add("/setup.exe", Scripted(script=lambda start: [
        head(200, length(len(BODY)), 'ETag: "v1"'), *drip(BODY[:24], 0.5)]))
    run = download(wine, [url], BODY, certs=certs, env=dict(QUICK, KESCLIENT_RUN_TIMEOUT_MS="3000"))
    assert run.code == DOWNLOAD_FAILED, run.out
    assert run.seconds < 8, run.out
    assert "time limit of the run reached" in run.out
    assert leftovers(folder) == PARTIAL  # what did arrive is kept for the next run


# -- mirrors and proxies --------------------------------------------------------------------------

@pytest.mark.parametrize("mirrors, code, kept", [
    (["down", "404", "cut"], DOWNLOAD_FAILED, PARTIAL),
    (["down", "pin", "size", "checksum"], INVALID_THUMBPRINT, []),
    (["404", "size", "pin"], WRONG_SIZE, []),
    (["cut", "http", "checksum"], INVALID_URI, []),
])
def test_every_mirror_failing_reports_the_first_telling_failure(wine, certs, folder, servers, mirrors, code, kept):
    server = servers(HttpsServer(certs.localhost))
    other = servers(HttpsServer(certs.self_signed))
    make = {
        "down": lambda: f"https://localhost:{unused_port()}/setup.exe",
        "404": lambda: server.url("/404/setup.exe"),
        "cut": lambda: server.add("/cut/setup.exe", Resource(BODY, etag='"v1"', cut_after=CUT)),
        "pin": lambda: other.add("/pin/setup.exe", Resource(BODY)),
        "size": lambda: server.add("/size/setup.exe", Resource(BODY + b"x")),
        "checksum": lambda: server.add("/checksum/setup.exe", Resource(bytes(len(BODY)))),
        "http": lambda: server.add("/http/setup.exe", Resource(redirect=f"http://localhost:{server.port}/setup.exe")),
    }
    run = download(wine, [make[kind]() for kind in mirrors], BODY, certs=certs, env=QUICK)
    assert run.code == code, run.out
    for n in range(1, len(mirrors) + 1):
        assert f"location {n} of {len(mirrors)}" in run.out
    assert leftovers(folder) == kept, run.out


SOCKS_ONLY = 'function FindProxyForURL(url, host) { return "SOCKS 127.0.0.1:1080"; }'


@pytest.mark.parametrize("script, listed, code, proxied", [
    (None, False, DOWNLOAD_FAILED, 0),  # never direct behind a PAC that cannot be read
    (None, True, SUCCESS, 1),
    # Wine's PAC evaluation drops SOCKS entries and answers DIRECT, which reads like a script that
    # says so (the SOCKS refusal of the DLL's own parsing is unit-tested).
    (SOCKS_ONLY, False, SUCCESS, 0),
    (SOCKS_ONLY, True, SUCCESS, 0),
], ids=["unreachable-alone", "unreachable-with-list", "socks-only-alone", "socks-only-with-list"])
def test_pac_without_a_usable_proxy(wine, certs, folder, servers, script, listed, code, proxied):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/setup.exe", Resource(BODY))
    pac = servers(PacServer(script)).url if script else f"http://localhost:{unused_port()}/proxy.pac"
    proxy = servers(ConnectProxy())
    run = download(wine, [url], BODY, certs=certs, pac=pac, proxies=[proxy.address] if listed else [], env=QUICK)
    assert run.code == code, run.out
    assert (len(server.requests), len(proxy.requests)) == (int(code == SUCCESS), proxied)
    assert leftovers(folder) == (["setup.exe"] if code == SUCCESS else [])


# -- certificates ---------------------------------------------------------------------------------
# Untrusted, expired and wrong-host certificates under a PEM bundle and the system store, and a pin
# that names another certificate, are in test_kesclient_download.py.

@pytest.mark.parametrize("case, code", [
    ("pin-expired", SUCCESS),      # the pin names the exact certificate: dates do not decide
    ("pin-wrong-host", SUCCESS),   # nor does the name
    ("pin-self-signed", SUCCESS),  # nor the chain
    ("pin-of-the-issuer", INVALID_THUMBPRINT),
    ("system-wrong-host", CERTIFICATE_ERROR),
])
def test_certificate_faults_per_trust_mode(request, wine, certs, folder, servers, case, code):
    identity = {"expired": certs.expired, "wrong-host": certs.wrong_host, "self-signed": certs.self_signed,
                "of-the-issuer": certs.localhost}[case.split("-", 1)[1]]
    server = servers(HttpsServer(identity))
    url = server.add("/setup.exe", Resource(BODY))
    if case.startswith("system"):
        request.getfixturevalue("system_root")
    pin = certs.ca.sha256() if case == "pin-of-the-issuer" else identity.sha256()
    run = download(wine, [url], BODY, trust="pin" if case.startswith("pin") else "system", certs=certs, pins=[pin])
    assert run.code == code, run.out
    assert leftovers(folder) == (["setup.exe"] if code == SUCCESS else [])
