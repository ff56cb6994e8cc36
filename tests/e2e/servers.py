"""Local servers for downloads under Wine: an HTTPS file server whose resources can misbehave in
any way a test scripts, a CONNECT proxy, a plain HTTP server for PAC scripts, and certificates made
by openssl at test time.

Servers listen on 127.0.0.1 on an ephemeral port and stop by themselves after LIFETIME. URLs name
the host "localhost", which the certificates name (WinHTTP under Wine refuses IP literals in the
name check).
"""
import contextlib
import hashlib
import http.server
import pathlib
import re
import select
import socket
import socketserver
import ssl
import subprocess
import threading
import time

LIFETIME = 300.0
DROP = object()  # a script step: end the connection there, without a TLS goodbye


class Certificates:
    """A test CA and leaf certificates, as PEM files in a folder, made by openssl."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.ca = self._make("ca", "kesclient test CA", ca=True)
        self.other_ca = self._make("other-ca", "another CA", ca=True)
        self.self_signed = self._make("self-signed", "localhost")
        self.localhost = self._make("localhost", "localhost", issuer=self.ca)
        self.wrong_host = self._make("wrong-host", "wrong.example", issuer=self.ca)
        self.expired = self._make("expired", "localhost", issuer=self.ca, dates=("20200101000000Z", "20200201000000Z"))

    def _make(self, name, host, ca=False, issuer=None, dates=None):
        key, pem, config = (self.folder / f"{name}.{ext}" for ext in ("key", "pem", "cnf"))
        leaf = f"subjectAltName = DNS:{host}\nextendedKeyUsage = serverAuth\nkeyUsage = critical,digitalSignature\n"
        # `openssl ca` takes explicit validity dates, which an expired certificate needs.
        config.write_text(f"[ca]\ndefault_ca = test\n[test]\ndatabase = {self.folder / name}.db\nnew_certs_dir = "
                          f"{self.folder}\nrand_serial = yes\ndefault_md = sha256\npolicy = any\nunique_subject = no\n"
                          f"[any]\ncommonName = supplied\n[req]\ndistinguished_name = dn\n[dn]\n[leaf]\n{leaf}"
                          "[authority]\nbasicConstraints = critical,CA:true\nkeyUsage = critical,keyCertSign,cRLSign\n")
        (self.folder / f"{name}.db").write_text("")
        openssl = ["openssl", "req", "-new", "-key", key, "-subj", f"/CN={host}", "-config", config]
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key],
                       check=True, capture_output=True, timeout=60)
        if issuer is None:
            openssl += ["-x509", "-days", "30", "-extensions", "authority" if ca else "leaf", "-out", pem]
        else:
            csr = subprocess.run(openssl, check=True, capture_output=True, timeout=60).stdout
            validity = ["-startdate", dates[0], "-enddate", dates[1]] if dates else ["-days", "30"]
            openssl = ["openssl", "ca", "-batch", "-notext", "-in", "/dev/stdin", "-out", pem, "-cert", issuer.pem,
                       "-keyfile", issuer.key, "-extensions", "leaf", "-config", config, *validity]
        subprocess.run(openssl, check=True, capture_output=True, timeout=60, input=csr if issuer else None)
        return Identity(pem, key)


class Identity:
    def __init__(self, pem, key):
        self.pem, self.key = pathlib.Path(pem), pathlib.Path(key)

    def sha1(self):
        return hashlib.sha1(ssl.PEM_cert_to_DER_cert(self.pem.read_text())).hexdigest()

    def sha256(self):
        return hashlib.sha256(ssl.PEM_cert_to_DER_cert(self.pem.read_text())).hexdigest()


class Resource:
    """What a path serves, and how it misbehaves.

    cut_after / stall_after: bytes sent before the connection drops / the server goes quiet (the
    first `faults` answers only); length: the Content-Length announced (None: the true one; False:
    none, the body ends at the close); redirect: a Location instead of the body; rate: bytes per
    second; script: answers http.server will not write. It is called with the first byte of the
    Range asked for (None without one) and returns the answer's raw steps (bytes to send, seconds
    to wait, DROP), or nothing for the ordinary answer.
    """

    def __init__(self, body=b"", etag=None, ranges=True, cut_after=None, stall_after=None, faults=1,
                 length=None, redirect=None, status=200, rate=None, script=None):
        self.body, self.etag, self.ranges, self.faults, self.status = body, etag, ranges, faults, status
        self.cut_after, self.stall_after, self.length, self.redirect = cut_after, stall_after, length, redirect
        self.rate, self.script = rate, script


def head(status, *headers):
    """The status line and header lines of a scripted answer."""
    return ("\r\n".join([f"HTTP/1.1 {status} Scripted", *headers, "Connection: close"]) + "\r\n\r\n").encode()


def chunked(data, size=65536):
    """data in chunked transfer coding, without the closing chunk."""
    return b"".join(b"%x\r\n%s\r\n" % (len(data[i:i + size]), data[i:i + size]) for i in range(0, len(data), size))


def drip(data, seconds):
    """data a byte at a time, `seconds` apart."""
    for byte in data:
        yield bytes([byte])
        yield seconds


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        owner = self.server.owner
        # Through a proxy WinHTTP may send the absolute form, which the server must accept.
        path = re.sub(r"^https?://[^/]*", "", self.path).split("?", 1)[0]
        wanted = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range") or "")
        with owner.lock:
            owner.requests.append({"path": path, "headers": {k.lower(): v for k, v in self.headers.items()}})
            resource = owner.resources.get(path)
            faulty = resource is not None and resource.faults > 0
            if faulty and (resource.cut_after is not None or resource.stall_after is not None):
                resource.faults -= 1
        if resource is None:
            return self._simple(404)
        steps = resource.script and resource.script(int(wanted.group(1)) if wanted else None)
        if steps:
            return self._play(steps)
        if resource.redirect:
            return self._simple(302, f"Location: {resource.redirect}")
        if resource.status != 200:
            return self._simple(resource.status)
        body, status, start = resource.body, 200, 0
        validator = self.headers.get("If-Range")
        if resource.ranges and wanted and validator in (None, resource.etag):
            start = int(wanted.group(1))
            if start >= len(body):
                return self._simple(416)
            status = 206
        payload = body[start:]
        self.send_response(status)
        if status == 206:
            self.send_header("Content-Range", f"bytes {start}-{len(body) - 1}/{len(body)}")
        if resource.etag:
            self.send_header("ETag", resource.etag)
        if resource.length is False:
            self.send_header("Connection", "close")
            self.close_connection = True
        else:
            self.send_header("Content-Length", str(len(payload) if resource.length is None else resource.length))
        self.end_headers()
        cut = resource.cut_after if faulty else None
        stall = resource.stall_after if faulty else None
        with contextlib.suppress(OSError):
            if cut is not None or stall is not None:
                self.wfile.write(payload[:cut if cut is not None else stall])
                self.wfile.flush()
                self.close_connection = True
                if cut is not None:
                    self.connection.shutdown(socket.SHUT_RDWR)
                else:
                    owner.stopping.wait(owner.stall_seconds)
                return
            step = 1 << 20 if resource.rate is None else max(1, resource.rate // 20)
            began = time.monotonic()
            for offset in range(0, len(payload), step):
                if resource.rate is not None:  # paced against the start: no drift from sleep jitter
                    ahead = began + offset / resource.rate - time.monotonic()
                    if ahead > 0 and owner.stopping.wait(ahead):
                        return
                self.wfile.write(payload[offset:offset + step])

    def _play(self, steps):
        self.close_connection = True
        with contextlib.suppress(OSError):
            for step in steps:
                if step is DROP:
                    return self.connection.shutdown(socket.SHUT_RDWR)
                if isinstance(step, (int, float)):
                    if self.server.owner.stopping.wait(step):
                        return
                    continue
                self.wfile.write(step)
                self.wfile.flush()

    def _simple(self, status, *headers):
        self.send_response(status)
        for header in headers:
            self.send_header(*header.split(": ", 1))
        self.send_header("Content-Length", "0")
        self.end_headers()


class _ThreadingServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


class _Running:
    """Serves in a thread; stops on stop(), at the end of a with block, or after LIFETIME."""
    requests = None

    def _start(self, server):
        self._server, self.port, self.stopping = server, server.server_address[1], threading.Event()
        server.owner = self
        threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True).start()
        self._timer = threading.Timer(LIFETIME, self.stop)
        self._timer.daemon = True
        self._timer.start()

    def stop(self):
        if not self.stopping.is_set():
            self.stopping.set()
            self._timer.cancel()
            self._server.shutdown()
            self._server.server_close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()


class HttpsServer(_Running):
    """Serves its resources over TLS with the identity given, or over plain HTTP without one
    (PAC scripts, which WinHTTP fetches so)."""

    def __init__(self, identity, stall_seconds=30.0):
        self.resources, self.requests, self.lock, self.stall_seconds = {}, [], threading.Lock(), stall_seconds
        self.scheme = "https" if identity else "http"
        server = _ThreadingServer(("127.0.0.1", 0), _Handler)
        if identity:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(identity.pem, identity.key)
            # The handshake happens in the handler's thread, so a slow client cannot block accept().
            server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
        self._start(server)

    def url(self, path):
        return f"{self.scheme}://localhost:{self.port}{path}"

    def add(self, path, resource):
        self.resources[path] = resource
        return self.url(path)


def pac_server(script):
    """A plain HTTP server of one PAC script; its URL is pac_server(...).url("/proxy.pac")."""
    server = HttpsServer(None)
    server.add("/proxy.pac", Resource(script.encode()))
    return server


class ConnectProxy(_Running):
    """Tunnels CONNECT requests to 127.0.0.1 only (or refuses them all), and records them."""

    def __init__(self, refuse=False):
        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                client, owner, head_ = self.request, self.server.owner, b""
                client.settimeout(30)
                while b"\r\n\r\n" not in head_ and len(head_) < 65536:
                    chunk = client.recv(4096)
                    if not chunk:
                        return
                    head_ += chunk
                line = head_.split(b"\r\n", 1)[0].decode("latin-1")
                owner.requests.append(line)
                match = re.fullmatch(r"CONNECT (localhost|127\.0\.0\.1):(\d+) HTTP/1\.[01]", line)
                if refuse or not match:
                    return client.sendall(b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n")
                upstream = socket.create_connection(("127.0.0.1", int(match.group(2))), timeout=30)
                client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
                upstream.sendall(head_.split(b"\r\n\r\n", 1)[1])
                with contextlib.suppress(OSError), upstream:
                    while not owner.stopping.is_set():
                        for source in select.select([client, upstream], [], [], 0.5)[0]:
                            data = source.recv(1 << 16)
                            if not data:
                                return
                            (upstream if source is client else client).sendall(data)

        class Server(socketserver.ThreadingTCPServer):
            daemon_threads = True
            allow_reuse_address = True

        self.requests = []
        self._start(Server(("127.0.0.1", 0), Handler))

    @property
    def address(self):
        # By address, not "localhost": Wine's WinHTTP skips the CONNECT when the proxy's host name
        # equals the server's.
        return f"127.0.0.1:{self.port}"


def unused_port():
    """A port nothing listens on (a mirror that is down)."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
