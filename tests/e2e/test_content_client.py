"""kesclient.dll over real TLS to local servers, through kesclient_driver.exe and, for the rows
marked tool, through updatetool.exe with the update key's values: trust modes, the fault matrix
(framing, lengths, resume answered wrongly, stalls, mirrors), proxies and PAC, redirects, integrity
and tar packages. Whatever happens, no file lands under its final name unless verified, and a
partial file stays only when a resume record lets the next run continue it.

A row is one line of harness.Case; Downloads (harness.py) runs it."""
import hashlib
import io
import os
import re
import tarfile

import pytest

from harness import (BODY, DRIVER, CERTIFICATE_ERROR, DOWNLOAD_FAILED, INVALID_THUMBPRINT, INVALID_URI, PEM_FILE_FAILED,
                     SUCCESS, VERIFY_FAILED, WRONG_CHECKSUM, WRONG_SIZE, Case, metadata, wait_for)
from servers import DROP, ConnectProxy, Resource, chunked, drip, head, pac_server

CUT = 300_000
V1 = '"v1"'
NEW = os.urandom(len(BODY))
BIG = os.urandom(3 * 1024 * 1024 + 123)
STALL = (1 << 20) + 100_000
PARTIAL = ["setup.exe.partial", "setup.exe.resume"]
QUICK = {"KESCLIENT_STALL_TIMEOUT_MS": "1500", "KESCLIENT_CONNECT_TIMEOUT_MS": "1500"}
SOCKS_ONLY = 'function FindProxyForURL(url, host) { return "SOCKS 127.0.0.1:1080"; }'


def row(id, setup, code, **options):
    return pytest.param(Case(setup, code, **options), id=id)


def length(n):
    return f"Content-Length: {n}"


def scripted(*steps):
    return Resource(script=lambda start: list(steps))


def range_answer(body, first, etag=V1):
    """A 206 for body from byte `first`, whatever was asked."""
    return [head(206, f"Content-Range: bytes {first}-{len(body) - 1}/{len(body)}", length(len(body) - first),
                 f"ETag: {etag}"), body[first:]]


def cut(c, etag=V1, at=CUT):
    return dict(urls=[c.serve(Resource(BODY, etag=etag, cut_after=at))])


def resumed(c, run, first=CUT):
    asked = c.server.requests[-1]["headers"]
    return (asked.get("range"), asked.get("if-range")) == (f"bytes={first}-", V1)


def pin(identity, **options):
    return lambda c: dict(urls=[c.serve(identity=getattr(c.certs, identity))], pins=[
        getattr(c.certs, identity).sha256()], **options)


def served_by(identity, trust, **options):
    return lambda c: dict(urls=[c.serve(identity=getattr(c.certs, identity))], trust=trust(c), **options)


def mirrors(*kinds):
    make = {"down": lambda c: c.down(), "404": lambda c: c.server.url("/404/setup.exe"),
            "cut": lambda c: c.server.add("/cut/setup.exe", Resource(BODY, etag=V1, cut_after=CUT)),
            "pin": lambda c: c.serve(path="/pin/setup.exe", identity=c.certs.self_signed),
            "size": lambda c: c.server.add("/size/setup.exe", Resource(BODY + b"x")),
            "checksum": lambda c: c.server.add("/checksum/setup.exe", Resource(bytes(len(BODY)))),
            "http": lambda c: c.server.add("/http/setup.exe", Resource(redirect=f"http://localhost:{c.server.port}/x"))}
    return lambda c: c.serve() and dict(urls=[make[kind](c) for kind in kinds], env=QUICK)


def pac(script, listed):
    def setup(c):
        c.serve()
        proxy(c)
        c.pac = c.servers(pac_server(script)) if script else None
        return dict(pac=c.pac.url("/proxy.pac") if script else c.down().replace("https", "http") + ".pac",
                    proxies=[c.proxy.address] if listed else [], env=QUICK)
    return setup


def proxy(c, refuse=False):
    c.proxy = c.servers(ConnectProxy(refuse))
    return c.proxy


def tunnelled(c, run):
    return c.proxy.requests == [f"CONNECT localhost:{c.server.port} HTTP/1.1"]


def proxies_in_order(c):
    c.serve()
    c.refusing = c.servers(ConnectProxy(refuse=True))
    return dict(proxies=[c.down()[len("https://"):].split("/")[0], c.refusing.address, "socks5://x:1", proxy(c).address])


def pac_before_the_list(c):
    c.serve()
    c.listed = c.servers(ConnectProxy())
    c.pac = c.servers(pac_server(f'function FindProxyForURL(url, host) {{ return "PROXY {proxy(c).address}"; }}'))
    return dict(pac=c.pac.url("/proxy.pac"), proxies=[c.listed.address])


def through(c, run, server_requests, proxied):
    return (len(c.server.requests), len(c.proxy.requests)) == (server_requests, proxied)


def tar_archive(entries, compress=True):
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w:gz" if compress else "w", format=tarfile.PAX_FORMAT) as archive:
        for name, content in entries:
            info = tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return data.getvalue()


def tar_over_old_version(c):
    archive = tar_archive([("pkg/setup.exe", BODY), ("pkg/docs/readme.txt", b"hello")])
    (c.destination("driver") / "pkg").mkdir(parents=True)
    (c.destination("driver") / "pkg" / "setup.exe").write_bytes(b"old version")
    return dict(urls=[c.serve(Resource(archive), "/package.tar.gz")], body=archive, payload="tar")


def tar_that_cannot_be_placed(c):
    archive = tar_archive([("pkg/a.txt", b"new a"), ("pkg/b.txt", b"new b"), ("pkg/setup.exe", BODY)])
    (c.destination("driver") / "pkg" / "setup.exe").mkdir(parents=True)  # a folder where the archive has a file
    (c.destination("driver") / "pkg" / "b.txt").write_bytes(b"old b")
    return dict(urls=[c.serve(Resource(archive), "/package.tgz")], body=archive, payload="tar")


def pinned_too(identity):
    return {"METADATA": metadata(identity.sha1().upper())}


def plant_at_the_workspace(c):
    c.wine.workspace.write_bytes(b"planted")  # what any user can create in the temp folder
    return {}


def moved_aside(c, run):
    aside = list(c.wine.workspace.parent.glob("updatetool-data.untrusted-*"))
    contents = [path.read_bytes() for path in aside]
    for path in aside:
        path.unlink()
    named = re.compile(r"GetWorkspace: .*\\updatetool-data \(a file, owner [^)]*\) cannot be trusted, moved it "
                       r"aside to .*\\updatetool-data\.untrusted-\d{14}$", re.I)
    return contents == [b"planted"] and any(named.match(line) for line in run.messages)


def tar_for_the_tool(c):
    archive = tar_archive([("pkg/bin/setup.exe", BODY), ("pkg/readme.txt", b"read me")])
    return dict(urls=[c.serve(Resource(archive), "/packages/agent-8.13.tar.gz")], body=archive, payload="tar",
                key={"RELATIVEFOLDERPATH": r"pkg\bin", "PACKAGEFILENAME": "setup.exe"})


def redirected(target):
    def setup(c):
        c.serve()
        return dict(urls=[c.serve(Resource(redirect=target(c)))])
    return setup


def placed(c, run):
    pkg = c.destination("driver") / "pkg"
    return (pkg / "setup.exe").read_bytes() == BODY and (pkg / "docs" / "readme.txt").read_bytes() == b"hello"


def put_back(c, run):
    pkg = c.destination("driver") / "pkg"
    return sorted(p.name for p in pkg.iterdir()) == ["b.txt", "setup.exe"] and (pkg / "b.txt").read_bytes() == b"old b"


TABLE = [
    # -- trust: each mode, and each way a server can fall short of it
    row("pin-sha1", lambda c: dict(pins=[c.certs.localhost.sha1()]), SUCCESS),
    row("pem", lambda c: dict(trust=c.certs.ca.pem), SUCCESS, says="SHA-256 verified"),
    row("system", lambda c: dict(trust="system"), SUCCESS, says=f"done: {len(BODY)} bytes in"),
    row("pin-mismatch", lambda c: dict(pins=[c.certs.self_signed.sha256()]), INVALID_THUMBPRINT),
    row("pin-expired", pin("expired"), SUCCESS),  # the pin names the exact certificate: dates do not decide
    row("pin-wrong-host", pin("wrong_host"), SUCCESS),  # nor does the name
    row("pin-self-signed", pin("self_signed"), SUCCESS),  # nor the chain
    row("pin-of-the-issuer", lambda c: dict(pins=[c.certs.ca.sha256()]), INVALID_THUMBPRINT),
    row("pem-self-signed", served_by("self_signed", lambda c: c.certs.ca.pem), CERTIFICATE_ERROR),
    row("pem-other-ca", lambda c: dict(trust=c.certs.other_ca.pem), CERTIFICATE_ERROR),
    row("pem-wrong-host", served_by("wrong_host", lambda c: c.certs.ca.pem), CERTIFICATE_ERROR),
    row("pem-expired", served_by("expired", lambda c: c.certs.ca.pem), CERTIFICATE_ERROR),
    row("system-self-signed", served_by("self_signed", lambda c: "system"), CERTIFICATE_ERROR),
    row("system-expired", served_by("expired", lambda c: "system"), CERTIFICATE_ERROR),
    row("system-wrong-host", served_by("wrong_host", lambda c: "system"), CERTIFICATE_ERROR),
    row("pem-missing", lambda c: dict(trust=c.certs.folder / "none.pem"), PEM_FILE_FAILED,
        check=lambda c, run: c.server.requests == []),
    # -- framing and lengths
    row("chunked-cut-with-validator", lambda c: dict(urls=[c.serve(Resource(BODY, etag=V1, script=lambda start: start is None and [
        head(200, "Transfer-Encoding: chunked", f"ETag: {V1}"), chunked(BODY[:CUT]), DROP]))]), SUCCESS,
        first=(DOWNLOAD_FAILED, PARTIAL), check=resumed),
    row("chunked-cut-no-validator", lambda c: dict(urls=[c.serve(scripted(
        head(200, "Transfer-Encoding: chunked"), chunked(BODY[:CUT]), DROP))]), DOWNLOAD_FAILED),
    # Read as 32 bits, 2^32 + n would pass for the n bytes expected.
    row("length-above-4GiB", lambda c: dict(urls=[c.serve(scripted(head(200, length((1 << 32) + len(BODY))), BODY))]),
        WRONG_SIZE, says=f"announces {(1 << 32) + len(BODY)} bytes"),
    row("length-negative", lambda c: dict(urls=[c.serve(scripted(head(200, length(-1)), BODY))]), DOWNLOAD_FAILED,
        says="Content-Length"),
    row("length-twice", lambda c: dict(urls=[c.serve(scripted(head(200, length(len(BODY)), length(len(BODY) + 10)),
                                                              BODY))]), DOWNLOAD_FAILED, says="Content-Length"),
    row("length-list", lambda c: dict(urls=[c.serve(scripted(head(200, f"{length(len(BODY))}, {len(BODY) + 10}"),
                                                             BODY))]), DOWNLOAD_FAILED, says="Content-Length"),
    row("bytes-past-the-length", lambda c: dict(urls=[c.serve(scripted(head(200, length(len(BODY))), BODY + b"surplus"))]),
        SUCCESS),
    row("size-announced-differs", lambda c: dict(size=len(BODY) - 1, checksum=""), WRONG_SIZE),
    row("no-length-overlong", lambda c: dict(urls=[c.serve(Resource(BODY + b"more", length=False))], checksum=""),
        WRONG_SIZE),
    row("short-with-length", lambda c: dict(urls=[c.serve(Resource(BODY, length=len(BODY) + 10, cut_after=len(BODY)))],
                                            size=len(BODY) + 10, checksum=""), DOWNLOAD_FAILED),
    row("short-without-length", lambda c: dict(urls=[c.serve(Resource(BODY[:-5], length=False))], checksum=""),
        DOWNLOAD_FAILED),
    # -- integrity
    row("checksum-wrong", lambda c: dict(checksum="sha512:" + hashlib.sha512(b"other").hexdigest()), WRONG_CHECKSUM),
    row("checksum-sha512", lambda c: dict(checksum="SHA512:" + hashlib.sha512(BODY).hexdigest().upper()), SUCCESS),
    row("checksum-none", lambda c: dict(checksum=""), SUCCESS, says="no checksum"),
    # -- resume
    row("cut-then-resumed", cut, SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL), check=resumed),
    row("changed-between-runs", lambda c: cut(c) | dict(checksum=""), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL),
        again=lambda c: c.swap(Resource(NEW, etag='"v2"'), body=NEW),
        check=lambda c, run: c.server.requests[-1]["headers"]["if-range"] == V1),  # asked, got the whole new file
    row("resume-answered-200", lambda c: cut(c) | dict(checksum=""), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL),
        again=lambda c: c.swap(Resource(BODY, etag=V1, ranges=False))),
    row("resume-answered-from-0", lambda c: cut(c) | dict(checksum=""), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL),
        again=lambda c: c.swap(Resource(BODY, etag=V1, script=lambda start: start and range_answer(BODY, 0)))),
    row("resume-answered-before-the-end", lambda c: cut(c) | dict(checksum=""), SUCCESS,
        first=(DOWNLOAD_FAILED, PARTIAL),
        again=lambda c: c.swap(Resource(BODY, etag=V1, script=lambda start: start and range_answer(BODY, start - 1000)))),
    row("resume-answered-416", lambda c: cut(c) | dict(checksum=""), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL),
        again=lambda c: c.swap(Resource(BODY, etag=V1, script=lambda start: start and [head(416, length(0))]))),
    # The server ignores If-Range: only the 206's own validator tells that the file changed.
    row("resume-changed-if-range-ignored", lambda c: cut(c) | dict(checksum=""), SUCCESS,
        first=(DOWNLOAD_FAILED, PARTIAL), again=lambda c: c.swap(Resource(NEW, etag='"v2"', script=lambda start: start and
                                                                          range_answer(NEW, start, '"v2"')), body=NEW)),
    # -- time
    row("stall-before-the-headers", lambda c: dict(urls=[c.serve(scripted(60))], env=QUICK), DOWNLOAD_FAILED,
        check=lambda c, run: run.seconds < 10),
    row("stall-after-the-headers", lambda c: dict(urls=[c.serve(scripted(head(200, length(len(BODY)), f"ETag: {V1}"), 60))],
                                                  env=QUICK), DOWNLOAD_FAILED, check=lambda c, run: run.seconds < 10),
    # Each byte well within the stall timeout, 12 s of them against a run limit of 3: what came is kept.
    row("drip-bounded-by-the-run", lambda c: dict(urls=[c.serve(scripted(head(200, length(len(BODY)), f"ETag: {V1}"),
                                                                         *drip(BODY[:24], 0.5)))],
                                                  env=dict(QUICK, KESCLIENT_RUN_TIMEOUT_MS="3000")),
        DOWNLOAD_FAILED, kept=PARTIAL, says="time limit of the run reached", check=lambda c, run: run.seconds < 8),
    row("stall-mid-body-next-mirror", lambda c: dict(urls=[c.https(stall_seconds=20).add("/setup.exe", Resource(
        BODY, stall_after=100_000)), c.serve()], env=QUICK), SUCCESS, says="stalled",
        check=lambda c, run: run.seconds < 15),
    row("whole-run-bounded", lambda c: dict(urls=[c.serve(Resource(BIG, etag=V1, stall_after=STALL), f"/{n}/setup.exe")
                                                  for n in (1, 2)], body=BIG,
                                            env={"KESCLIENT_RUN_TIMEOUT_MS": "2000", "KESCLIENT_STALL_TIMEOUT_MS": "60000"}),
        DOWNLOAD_FAILED, kept=PARTIAL, says="time limit of the run", check=lambda c, run: run.seconds < 10 and (
            # Whole buffers at least: a large read cut by the time limit loses what it gathered.
            1 << 20 <= (c.destination("driver") / "setup.exe.partial").stat().st_size <= STALL)),
    # -- mirrors: all tried; the first failure that says something about server or content wins
    row("mirror-down-then-served", lambda c: dict(urls=[c.down(), c.serve()]), SUCCESS, says="trying the next location"),
    row("mirror-503-then-served", lambda c: dict(urls=[c.serve(Resource(status=503), "/down/setup.exe"),
                                                       c.serve(path="/up/setup.exe")]), SUCCESS,
        says="trying the next location"),
    row("checksum-outranks-down", lambda c: dict(urls=[c.serve(Resource(b"x" * len(BODY))), c.down()]), WRONG_CHECKSUM),
    row("mirrors-down-404-cut", mirrors("down", "404", "cut"), DOWNLOAD_FAILED, kept=PARTIAL, says="location 3 of 3"),
    row("mirrors-down-pin-size-checksum", mirrors("down", "pin", "size", "checksum"), INVALID_THUMBPRINT,
        says="location 4 of 4"),
    row("mirrors-404-size-pin", mirrors("404", "size", "pin"), WRONG_SIZE, says="location 3 of 3"),
    row("mirrors-cut-http-checksum", mirrors("cut", "http", "checksum"), INVALID_URI, says="location 3 of 3"),
    # -- proxies and PAC
    row("proxies-in-order", proxies_in_order, SUCCESS, says="socks5://x:1",
        check=lambda c, run: tunnelled(c, run) and c.refusing.requests == c.proxy.requests),
    row("pac-before-the-list", pac_before_the_list, SUCCESS,
        check=lambda c, run: tunnelled(c, run) and c.listed.requests == [] and c.pac.requests),
    row("pac-unreachable-alone", pac(None, False), DOWNLOAD_FAILED, check=lambda c, run: through(c, run, 0, 0)),
    row("pac-unreachable-with-list", pac(None, True), SUCCESS, check=lambda c, run: through(c, run, 1, 1)),
    # Wine's PAC engine drops SOCKS entries and answers DIRECT (the DLL's own refusal is unit-tested).
    row("pac-socks-only-alone", pac(SOCKS_ONLY, False), SUCCESS, check=lambda c, run: through(c, run, 1, 0)),
    row("pac-socks-only-with-list", pac(SOCKS_ONLY, True), SUCCESS, check=lambda c, run: through(c, run, 1, 0)),
    # -- redirects: followed within https, the pin held at every hop
    row("redirect-followed", redirected(lambda c: c.server.add("/files/setup-1.2.exe", Resource(BODY)) and
                                        "/files/setup-1.2.exe"), SUCCESS,
        check=lambda c, run: [r["path"] for r in c.server.requests] == ["/setup.exe", "/files/setup-1.2.exe"]),
    row("redirect-to-another-certificate", redirected(lambda c: c.serve(identity=c.certs.self_signed)),
        INVALID_THUMBPRINT),
    row("redirect-to-http", redirected(lambda c: f"http://localhost:{c.server.port}/setup.exe"), INVALID_URI,
        check=lambda c, run: len(c.server.requests) == 1),
    row("redirect-to-ftp", redirected(lambda c: "ftp://localhost/setup.exe"), INVALID_URI),
    row("plain-http", lambda c: dict(urls=[c.down().replace("https", "http")]), INVALID_URI),
    # -- tar packages
    row("tar-over-an-old-version", tar_over_old_version, SUCCESS, kept=["pkg"], check=placed),
    row("tar-placement-fails-put-back", tar_that_cannot_be_placed, VERIFY_FAILED, kept=["pkg"], check=put_back),
    # -- through the tool: the update key's values reach the DLL
    row("tool-thumbprint-second", lambda c: dict(pins=[c.certs.other_ca.sha1(), c.certs.localhost.sha1().upper()]),
        SUCCESS, via="tool", says="SHA-256 verified"),
    row("tool-pem", lambda c: dict(trust=c.certs.ca.pem), SUCCESS, via="tool",
        says="Agent::IsHostX64: host system: 64-bit"),  # the host line stands in a download run's log too
    row("tool-system", lambda c: dict(trust="system"), SUCCESS, via="tool"),
    row("tool-thumbprint-other", lambda c: dict(pins=[c.certs.self_signed.sha1()]), INVALID_THUMBPRINT,
        via="tool"),
    # the server's own thumbprint in METADATA widens neither the PEM file nor the system store
    row("tool-pem-other-ca", lambda c: dict(trust=c.certs.other_ca.pem, key=pinned_too(c.certs.localhost)),
        CERTIFICATE_ERROR, via="tool"),
    row("tool-system-self-signed", lambda c: dict(urls=[c.serve(identity=c.certs.self_signed)], trust="system",
                                                  key=pinned_too(c.certs.self_signed)), CERTIFICATE_ERROR, via="tool"),
    row("tool-planted-workspace", plant_at_the_workspace, SUCCESS, via="tool", check=moved_aside),
    row("tool-proxy", lambda c: dict(proxies=[proxy(c).address]), SUCCESS, via="tool", check=tunnelled),
    row("tool-checksum-wrong", lambda c: dict(checksum=hashlib.sha256(BODY[:-1] + b"!").hexdigest()), WRONG_CHECKSUM,
        via="tool"),
    row("tool-cut-then-resumed", lambda c: cut(c, at=len(BODY) // 2), SUCCESS, via="tool",
        first=(DOWNLOAD_FAILED, PARTIAL), check=lambda c, run: resumed(c, run, len(BODY) // 2)),
    row("tool-tar", tar_for_the_tool, SUCCESS, kept=["pkg"], via="tool",
        check=lambda c, run: run.stored["FILENAME"].lower().endswith(r"\updatetool-data\pkg\bin\setup.exe")),
]


@pytest.mark.parametrize("case", TABLE)
def test_download(downloads, case):
    downloads.check(case)


def test_killed_download_resumes_from_its_last_checkpoint(downloads):
    # The body is flushed and recorded as a resume point every 32 MiB while it arrives, so a
    # process killed without a word loses at most that much.
    body = os.urandom(40 << 20)
    url = downloads.serve(Resource(body, etag=V1, stall_after=36 << 20))
    downloads.server.stall_seconds = 60
    first = downloads.wine.start(DRIVER, *downloads.driver_args([url], body))
    try:
        assert wait_for(lambda: (downloads.destination("driver") / "setup.exe.resume").exists(), timeout=60)
    finally:
        first.kill()
        first.wait()
    downloads.check(Case(lambda c: dict(urls=[url], body=body), SUCCESS,
                         check=lambda c, run: resumed(c, run, 32 << 20)))
