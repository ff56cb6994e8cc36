"""kesclient.dll over real TLS, through kesclient_driver.exe or (via="tool") updatetool.exe: no file lands under
its final name unverified, and a partial stays only with a resume record. Rows: harness.Case, run by Downloads."""
import hashlib
import io
import os
import re
import tarfile
import time

import pytest

from harness import (BODY, DRIVER, CERTIFICATE_ERROR, DOWNLOAD_FAILED, INVALID_THUMBPRINT, INVALID_URI, PEM_FILE_FAILED,
                     SUCCESS, VERIFY_FAILED, WRONG_CHECKSUM, WRONG_SIZE, Case, metadata, row)
from servers import DROP, ConnectProxy, HttpsServer, Resource, head

CUT, V1, STALL = 300_000, '"v1"', (1 << 20) + 100_000
NEW, BIG = os.urandom(len(BODY)), os.urandom(3 * 1024 * 1024 + 123)
PARTIAL = ["setup.exe.partial", "setup.exe.resume"]
QUICK = {"KESCLIENT_STALL_TIMEOUT_MS": "1500", "KESCLIENT_CONNECT_TIMEOUT_MS": "1500"}
SOCKS_ONLY = 'function FindProxyForURL(url, host) { return "SOCKS 127.0.0.1:1080"; }'
LENGTH = "Content-Length: {}".format


def scripted(*steps):
    return Resource(script=lambda start: list(steps))


def answer(*steps, **arguments):
    return dict(urls=[scripted(*steps)], **arguments)


def moved(url):
    return scripted(head(302, f"Location: {url}", LENGTH(0)))


def ranged(body, first, etag=V1):
    """A 206 to a Range request for body from byte first(start), whatever was asked."""
    return Resource(body, etag=etag, script=lambda start: start and [head(206, LENGTH(len(body) - first(start)), (
        f"Content-Range: bytes {first(start)}-{len(body) - 1}/{len(body)}"), f"ETag: {etag}"), body[first(start):]])


def cut(at=CUT, **arguments):
    return dict(urls=[Resource(BODY, etag=V1, fault=(at, DROP))], **arguments)


def resumed(first=CUT):
    def check(c, run):
        asked = c.server.requests[-1]["headers"]
        return (asked.get("range"), asked.get("if-range")) == (f"bytes={first}-", V1)
    return check


def mirrors(*kinds):
    make = {"down": lambda c: c.down(), "404": lambda c: c.server.url("/404/setup.exe"),
            "cut": lambda c: c.server.add("/cut/setup.exe", Resource(BODY, etag=V1, fault=(CUT, DROP))),
            "pin": lambda c: c.serve(path="/pin/setup.exe", identity=c.certs.self_signed),
            "size": lambda c: c.server.add("/size/setup.exe", Resource(BODY + b"x")),
            "checksum": lambda c: c.server.add("/checksum/setup.exe", Resource(bytes(len(BODY)))),
            "http": lambda c: c.server.add("/http/setup.exe", moved(f"http://localhost:{c.server.port}/x"))}
    return lambda c: c.serve() and dict(urls=[make[kind](c) for kind in kinds], env=QUICK)


def proxy(c, refuse=False, name="proxy"):
    setattr(c, name, c.servers(ConnectProxy(refuse)))
    return getattr(c, name).address


def pac(c, script):
    c.pac = c.servers(HttpsServer(None))
    return c.pac.add("/proxy.pac", Resource(script.encode()))


def pac_setup(script, listed):
    return lambda c: c.serve() and dict(pac=pac(c, script) if script else c.down().replace("https", "http") + ".pac",
                                        proxies=[proxy(c)] * listed, env=QUICK)


def through(server_requests, proxied):
    return lambda c, run: (len(c.server.requests), len(c.proxy.requests)) == (server_requests, proxied)


def tunnelled(c, run):
    return c.proxy.requests == [f"CONNECT localhost:{c.server.port} HTTP/1.1"]


def tar(*entries, old={}):
    """A tar package, over files already there (old: name -> bytes, or None for a folder)."""
    def setup(c):
        for name, content in old.items():
            (path := c.destination() / name).parent.mkdir(parents=True, exist_ok=True)
            path.mkdir() if content is None else path.write_bytes(content)
        data = io.BytesIO()
        with tarfile.open(fileobj=data, mode="w:gz", format=tarfile.PAX_FORMAT) as archive:
            for name, content in entries:
                (info := tarfile.TarInfo(name)).size = len(content)
                archive.addfile(info, io.BytesIO(content))
        return dict(urls=[c.serve(Resource(data.getvalue()), "/package.tar.gz")], body=data.getvalue(), payload="tar")
    return setup


def holds(tree):
    """The package's folder is this tree (None: an empty folder)."""
    read = lambda p: {q.name: read(q) if q.is_dir() else q.read_bytes() for q in p.iterdir()} or None  # noqa: E731
    return lambda c, run: read(c.destination() / "pkg") == tree


def moved_aside(c, run):
    [aside] = c.wine.workspace.parent.glob("updatetool-data.untrusted-*")
    planted = aside.read_bytes()
    aside.unlink()
    named = re.compile(r"GetWorkspace: .*\\updatetool-data \(a file, owner [^)]*\) cannot be trusted, moved it "
                       r"aside to .*\\updatetool-data\.untrusted-\d{14}$", re.I)
    return planted == b"planted" and any(named.match(line) for line in run.messages)


TABLE = [
    # -- trust: each mode, and each way a server can fall short of it
    row("pin-sha1", lambda c: dict(pins=[c.certs.localhost.sha("sha1")]), SUCCESS),
    row("pem", lambda c: dict(trust=c.certs.ca.pem), SUCCESS, says="SHA-256 verified"),
    row("system", dict(trust="system"), SUCCESS, says=f"done: {len(BODY)} bytes in"),
    row("pin-mismatch", lambda c: dict(pins=[c.certs.self_signed.sha()]), INVALID_THUMBPRINT),
    row("pin-of-the-issuer", lambda c: dict(pins=[c.certs.ca.sha()]), INVALID_THUMBPRINT),
    row("pem-other-ca", lambda c: dict(trust=c.certs.other_ca.pem), CERTIFICATE_ERROR),
    row("pem-missing", lambda c: dict(trust=c.certs.folder / "none.pem"), PEM_FILE_FAILED,
        check=lambda c, run: c.server.requests == []),
    # A pinned certificate passes whatever its dates, name or chain; a PEM bundle or the store refuse it.
    *[row(f"{mode}-{name.replace('_', '-')}", lambda c, mode=mode, name=name: dict(
        urls=[c.serve(identity=getattr(c.certs, name))], pins=[getattr(c.certs, name).sha()],
        trust=c.certs.ca.pem if mode == "pem" else mode), SUCCESS if mode == "pin" else CERTIFICATE_ERROR)
      for mode in ("pin", "pem", "system") for name in ("expired", "wrong_host", "self_signed")],
    # -- framing and lengths
    row("chunked-cut-with-validator", dict(urls=[Resource(BODY, etag=V1, script=lambda start: start is None and [
        head(200, "Transfer-Encoding: chunked", f"ETag: {V1}"), b"%x\r\n%s\r\n" % (CUT, BODY[:CUT]), DROP])]),
        SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL), check=resumed()),
    row("chunked-cut-no-validator", answer(head(200, "Transfer-Encoding: chunked"), b"%x\r\n%s\r\n" % (
        CUT, BODY[:CUT]), DROP), DOWNLOAD_FAILED),
    # Read as 32 bits, 2^32 + n would pass for the n bytes expected.
    row("length-above-4GiB", answer(head(200, LENGTH((1 << 32) + len(BODY))), BODY), WRONG_SIZE,
        says=f"announces {(1 << 32) + len(BODY)} bytes"),
    *[row(name, answer(head(200, *lengths), BODY), DOWNLOAD_FAILED, says="Content-Length") for name, lengths in [
        ("length-negative", [LENGTH(-1)]),
        ("length-twice", [LENGTH(len(BODY)), LENGTH(len(BODY) + 10)]),
        ("length-list", [LENGTH(f"{len(BODY)}, {len(BODY) + 10}")])]],
    row("bytes-past-the-length", answer(head(200, LENGTH(len(BODY))), BODY + b"surplus"), SUCCESS),
    row("size-announced-differs", dict(size=len(BODY) - 1, checksum=""), WRONG_SIZE),
    row("no-length-overlong", answer(head(200), BODY + b"more", checksum=""), WRONG_SIZE),
    row("short-with-length", answer(head(200, LENGTH(len(BODY) + 10)), BODY, DROP, size=len(BODY) + 10, checksum=""),
        DOWNLOAD_FAILED),
    row("short-without-length", answer(head(200), BODY[:-5], checksum=""), DOWNLOAD_FAILED),
    # -- integrity
    row("checksum-wrong", dict(checksum="sha512:" + hashlib.sha512(b"other").hexdigest()), WRONG_CHECKSUM),
    row("checksum-sha512", dict(checksum="SHA512:" + hashlib.sha512(BODY).hexdigest().upper()), SUCCESS),
    row("checksum-none", dict(checksum=""), SUCCESS, says="no checksum"),
    # -- resume: the second run finds another answer to its Range request
    row("cut-then-resumed", cut(), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL), check=resumed()),
    *[row(name, cut(checksum=""), SUCCESS, first=(DOWNLOAD_FAILED, PARTIAL), check=check,
          again=dict(urls=[second], body=second.body)) for name, second, check in [
        ("changed-between-runs", Resource(NEW, etag='"v2"'),  # asked, got the whole new file
         lambda c, run: c.server.requests[-1]["headers"]["if-range"] == V1),
        ("resume-answered-200", Resource(BODY, etag=V1, ranges=False), None),
        ("resume-answered-from-0", ranged(BODY, lambda start: 0), None),
        ("resume-answered-before-the-end", ranged(BODY, lambda start: start - 1000), None),
        ("resume-answered-416", Resource(BODY, etag=V1, script=lambda start: start and [head(416, LENGTH(0))]), None),
        # The server ignores If-Range: only the 206's own validator tells that the file changed.
        ("resume-changed-if-range-ignored", ranged(NEW, lambda start: start, '"v2"'), None)]],
    # -- time
    row("stall-before-the-headers", answer(60, env=QUICK), DOWNLOAD_FAILED, check=lambda c, run: run.seconds < 10),
    row("stall-after-the-headers", answer(head(200, LENGTH(len(BODY)), f"ETag: {V1}"), 60, env=QUICK),
        DOWNLOAD_FAILED, check=lambda c, run: run.seconds < 10),
    # Each byte well within the stall timeout, 12 s of them against a run limit of 3: what came is kept.
    row("drip-bounded-by-the-run", answer(head(200, LENGTH(len(BODY)), f"ETag: {V1}"), *[
        x for byte in BODY[:24] for x in (bytes([byte]), 0.5)], env=dict(QUICK, KESCLIENT_RUN_TIMEOUT_MS="3000")),
        DOWNLOAD_FAILED, kept=PARTIAL, says="time limit of the run reached", check=lambda c, run: run.seconds < 8),
    row("stall-mid-body-next-mirror", lambda c: dict(urls=[c.serve(Resource(BODY, fault=(100_000, 20)),
                                                                   "/stall/setup.exe"), c.serve()], env=QUICK),
        SUCCESS, says="stalled", check=lambda c, run: run.seconds < 15),
    row("whole-run-bounded", lambda c: dict(urls=[c.serve(Resource(BIG, etag=V1, fault=(STALL, 30)), f"/{n}/setup.exe")
                                                  for n in (1, 2)], body=BIG, env=dict(
        KESCLIENT_RUN_TIMEOUT_MS="2000", KESCLIENT_STALL_TIMEOUT_MS="60000")),
        DOWNLOAD_FAILED, kept=PARTIAL, says="time limit of the run", check=lambda c, run: run.seconds < 10 and (
            # Whole buffers at least: a large read cut by the time limit loses what it gathered.
            1 << 20 <= (c.destination() / "setup.exe.partial").stat().st_size <= STALL)),
    # -- mirrors: all tried; the first failure that says something about server or content wins
    row("mirror-down-then-served", lambda c: dict(urls=[c.down(), c.serve()]), SUCCESS,
        says="trying the next location"),
    row("mirror-503-then-served", lambda c: dict(urls=[c.serve(scripted(head(503, LENGTH(0))), "/503/setup.exe"),
                                                       c.serve()]), SUCCESS, says="trying the next location"),
    row("checksum-outranks-down", lambda c: dict(urls=[c.serve(Resource(b"x" * len(BODY))), c.down()]), WRONG_CHECKSUM),
    row("mirrors-down-404-cut", mirrors("down", "404", "cut"), DOWNLOAD_FAILED, kept=PARTIAL, says="location 3 of 3"),
    row("mirrors-down-pin-size-checksum", mirrors("down", "pin", "size", "checksum"), INVALID_THUMBPRINT,
        says="location 4 of 4"),
    row("mirrors-404-size-pin", mirrors("404", "size", "pin"), WRONG_SIZE, says="location 3 of 3"),
    row("mirrors-cut-http-checksum", mirrors("cut", "http", "checksum"), INVALID_URI, says="location 3 of 3"),
    # -- proxies and PAC
    row("proxies-in-order", lambda c: c.serve() and dict(proxies=[c.down()[8:].split("/")[0], proxy(
        c, True, "refusing"), "socks5://x:1", proxy(c)]), SUCCESS, says="socks5://x:1",
        check=lambda c, run: tunnelled(c, run) and c.refusing.requests == c.proxy.requests),
    row("pac-before-the-list", lambda c: c.serve() and dict(proxies=[proxy(c, name="listed")], pac=pac(
        c, f'function FindProxyForURL(url, host) {{ return "PROXY {proxy(c)}"; }}')), SUCCESS,
        check=lambda c, run: tunnelled(c, run) and c.listed.requests == [] and c.pac.requests),
    row("pac-unreachable-alone", pac_setup(None, False), DOWNLOAD_FAILED, check=through(0, 0)),
    row("pac-unreachable-with-list", pac_setup(None, True), SUCCESS, check=through(1, 1)),
    # Wine's PAC engine drops SOCKS entries and answers DIRECT (the DLL's own refusal is unit-tested).
    row("pac-socks-only-alone", pac_setup(SOCKS_ONLY, False), SUCCESS, check=through(1, 0)),
    row("pac-socks-only-with-list", pac_setup(SOCKS_ONLY, True), SUCCESS, check=through(1, 0)),
    # -- redirects: followed within https, the pin held at every hop
    row("redirect-followed", lambda c: c.serve(path="/files/setup-1.2.exe") and dict(
        urls=[moved("/files/setup-1.2.exe")]),
        SUCCESS, check=lambda c, run: [r["path"] for r in c.server.requests] == ["/setup.exe", "/files/setup-1.2.exe"]),
    row("redirect-to-another-certificate", lambda c: dict(urls=[moved(c.serve(identity=c.certs.self_signed))]),
        INVALID_THUMBPRINT),
    row("redirect-to-http", lambda c: c.serve() and dict(urls=[moved(f"http://localhost:{c.server.port}/setup.exe")]),
        INVALID_URI, check=lambda c, run: len(c.server.requests) == 1),
    row("redirect-to-ftp", dict(urls=[moved("ftp://localhost/setup.exe")]), INVALID_URI),
    row("plain-http", lambda c: dict(urls=[c.down().replace("https", "http")]), INVALID_URI),
    # -- tar packages
    row("tar-over-an-old-version", tar(("pkg/setup.exe", BODY), ("pkg/docs/readme.txt", b"hi"), old={"pkg/setup.exe": b"old"}),
        SUCCESS, kept=["pkg"], check=holds({"setup.exe": BODY, "docs": {"readme.txt": b"hi"}})),
    row("tar-placement-fails-put-back", tar(("pkg/a.txt", b"a"), ("pkg/b.txt", b"b"), ("pkg/setup.exe", BODY), old={
        "pkg/setup.exe": None, "pkg/b.txt": b"old b"}), VERIFY_FAILED, kept=["pkg"], check=holds({"b.txt": b"old b",
                                                                                                   "setup.exe": None})),
    # -- through the tool: the update key's values reach the DLL
    row("tool-thumbprint-other", lambda c: dict(pins=[c.certs.self_signed.sha("sha1")]), INVALID_THUMBPRINT,
        via="tool"),
    # the server's own thumbprint in METADATA widens neither the PEM file nor the system store
    row("tool-pem-other-ca", lambda c: dict(trust=c.certs.other_ca.pem, key={
        "METADATA": metadata(c.certs.localhost.sha("sha1").upper())}), CERTIFICATE_ERROR, via="tool"),
    row("tool-system-self-signed", lambda c: dict(urls=[c.serve(identity=c.certs.self_signed)], trust="system", key={
        "METADATA": metadata(c.certs.self_signed.sha("sha1").upper())}), CERTIFICATE_ERROR, via="tool"),
    row("tool-planted-workspace", lambda c: c.wine.workspace.write_bytes(b"planted") and {}, SUCCESS, via="tool",
        check=moved_aside),  # what any user can create in the temp folder
    row("tool-proxy", lambda c: dict(proxies=[proxy(c)]), SUCCESS, via="tool", check=tunnelled),
    row("tool-checksum-wrong", dict(checksum=hashlib.sha256(BODY[:-1] + b"!").hexdigest()), WRONG_CHECKSUM, via="tool"),
    row("tool-cut-then-resumed", cut(at=len(BODY) // 2), SUCCESS, via="tool", first=(DOWNLOAD_FAILED, PARTIAL),
        check=resumed(len(BODY) // 2)),
    row("tool-tar", lambda c: dict(tar(("pkg/bin/setup.exe", BODY), ("pkg/readme.txt", b"read me"))(c), key={
        "RELATIVEFOLDERPATH": r"pkg\bin", "PACKAGEFILENAME": "setup.exe"}), SUCCESS, kept=["pkg"], via="tool",
        check=lambda c, run: run.stored["FILENAME"].lower().endswith(r"\updatetool-data\pkg\bin\setup.exe")),
]


@pytest.mark.parametrize("case", TABLE)
def test_download(downloads, case):
    downloads.check(case)


def test_killed_download_resumes_from_its_last_checkpoint(downloads):
    # The body is flushed and recorded as a resume point every 32 MiB while it arrives, so a
    # process killed without a word loses at most that much.
    body = os.urandom(40 << 20)
    url = downloads.serve(Resource(body, etag=V1, fault=(36 << 20, 60)))
    resume = downloads.destination() / "setup.exe.resume"
    first = downloads.wine.start(DRIVER, *downloads.fetch("args", [url], body))
    try:
        for _ in range(600):
            if not resume.exists():
                time.sleep(0.1)
    finally:
        first.kill()
        first.wait()
    assert resume.exists()
    downloads.check(Case(dict(urls=[url], body=body), SUCCESS, check=resumed(32 << 20)))
