"""Local servers for end-to-end downloads: HTTPS file servers with fault modes, a CONNECT proxy and
a plain HTTP server for PAC scripts, with certificates made by openssl at test time.

Every server listens on 127.0.0.1 on an ephemeral port, runs in daemon threads, and stops itself
after a bounded lifetime even if a test forgets to. URLs use the host name "localhost", which the
certificates name (WinHTTP under Wine refuses IP literals in the name check).
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

LIFETIME = 300.0  # seconds a server lives at most


# -- certificates ---------------------------------------------------------------------------------

class Certificates:
    """A test CA and leaf certificates, as PEM files in a folder."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.ca = self._self_signed("ca", "/CN=kesclient test CA", ca=True)
        self.localhost = self._signed("localhost", "DNS:localhost")
        self.wrong_host = self._signed("wrong-host", "DNS:wrong.example")
        self.expired = self._signed("expired", "DNS:localhost", dates=("20200101000000Z", "20200201000000Z"))
        self.self_signed = self._self_signed("self-signed", "/CN=localhost", san="DNS:localhost")
        self.other_ca = self._self_signed("other-ca", "/CN=another CA", ca=True)

    def _openssl(self, *args, config=None):
        cmd = ["openssl", *args] + (["-config", str(config)] if config else [])
        subprocess.run(cmd, check=True, cwd=self.folder, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                       timeout=60)

    def _key(self, name):
        key = self.folder / f"{name}.key"
        self._openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", str(key))
        return key

    def _self_signed(self, name, subject, ca=False, san=None):
        key = self._key(name)
        pem = self.folder / f"{name}.pem"
        extensions = ["-addext", "basicConstraints=critical,CA:true",
                      "-addext", "keyUsage=critical,keyCertSign,cRLSign"] if ca else \
                     ["-addext", f"subjectAltName={san}", "-addext", "extendedKeyUsage=serverAuth"]
        self._openssl("req", "-x509", "-new", "-key", str(key), "-out", str(pem), "-days", "30",
                      "-subj", subject, *extensions)
        return Identity(pem, key)

    def _signed(self, name, san, dates=None):
        key = self._key(name)
        csr = self.folder / f"{name}.csr"
        pem = self.folder / f"{name}.pem"
        self._openssl("req", "-new", "-key", str(key), "-out", str(csr), "-subj", "/CN=" + san.split(":", 1)[1])
        # `openssl ca` takes explicit validity dates, which an expired certificate needs.
        database = self.folder / f"{name}.db"
        database.write_text("")
        config = self.folder / f"{name}.cnf"
        config.write_text(
            "[ca]\ndefault_ca = test\n"
            f"[test]\ndatabase = {database}\nnew_certs_dir = {self.folder}\nrand_serial = yes\n"
            "default_md = sha256\npolicy = anything\ncopy_extensions = none\nunique_subject = no\n"
            "[anything]\ncommonName = supplied\n"
            f"[leaf]\nsubjectAltName = {san}\nextendedKeyUsage = serverAuth\nbasicConstraints = CA:false\n"
            "keyUsage = critical,digitalSignature\n")
        start, end = dates or (None, None)
        validity = ["-startdate", start, "-enddate", end] if dates else ["-days", "30"]
        self._openssl("ca", "-batch", "-notext", "-in", str(csr), "-out", str(pem), "-cert", str(self.ca.pem),
                      "-keyfile", str(self.ca.key), "-extensions", "leaf", *validity, config=config)
        return Identity(pem, key)


class Identity:
    def __init__(self, pem, key):
        self.pem = pathlib.Path(pem)
        self.key = pathlib.Path(key)

    def der(self):
        return ssl.PEM_cert_to_DER_cert(self.pem.read_text())

    def sha1(self):
        return hashlib.sha1(self.der()).hexdigest()

    def sha256(self):
        return hashlib.sha256(self.der()).hexdigest()


# -- HTTPS file server ----------------------------------------------------------------------------

class Resource:
    """What a path serves, and how it misbehaves.

    cut_after:   bytes sent before the connection is dropped (first `faults` answers only)
    stall_after: bytes sent before the server stops sending (first `faults` answers only)
    length:      the Content-Length to announce instead of the true one (None: true length;
                 False: none, the body ends when the connection closes)
    redirect:    a Location to answer with instead of the body
    rate:        bytes per second the body is sent at (None: as fast as the client reads)
    """

    def __init__(self, body=b"", etag=None, ranges=True, cut_after=None, stall_after=None, faults=1,
                 length=None, redirect=None, status=200, rate=None):
        self.body = body
        self.etag = etag
        self.ranges = ranges
        self.cut_after = cut_after
        self.stall_after = stall_after
        self.faults = faults
        self.length = length
        self.redirect = redirect
        self.status = status
        self.rate = rate


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        owner = self.server.owner
        # Through a tunnel WinHTTP may send the absolute form, which servers must accept.
        path = re.sub(r"^https?://[^/]*", "", self.path).split("?", 1)[0]
        with owner.lock:
            owner.requests.append({"path": path, "headers": {k.lower(): v for k, v in self.headers.items()}})
            resource = owner.resources.get(path)
            faulty = resource is not None and resource.faults > 0
            if faulty and (resource.cut_after is not None or resource.stall_after is not None):
                resource.faults -= 1
        if resource is None:
            return self._simple(404)
        if resource.redirect:
            self.send_response(302)
            self.send_header("Location", resource.redirect)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if resource.status != 200:
            return self._simple(resource.status)

        body, status, start = resource.body, 200, 0
        wanted = self.headers.get("Range")
        validator = self.headers.get("If-Range")
        match = re.fullmatch(r"bytes=(\d+)-", wanted or "")
        if resource.ranges and match and (validator is None or validator == resource.etag):
            start = int(match.group(1))
            if start >= len(body):
                return self._simple(416)
            status = 206
        payload = body[start:]
        self.send_response(status)
        if status == 206:
            self.send_header("Content-Range", f"bytes {start}-{len(body) - 1}/{len(body)}")
        if resource.etag:
            self.send_header("ETag", resource.etag)
        if resource.length is None:
            self.send_header("Content-Length", str(len(payload)))
        elif resource.length is not False:
            self.send_header("Content-Length", str(resource.length))
        if resource.length is False:
            self.send_header("Connection", "close")
            self.close_connection = True
        self.end_headers()

        limit = resource.cut_after if faulty and resource.cut_after is not None else None
        stall = resource.stall_after if faulty and resource.stall_after is not None else None
        with contextlib.suppress(OSError):
            if limit is not None:
                self.wfile.write(payload[:limit])
                self.wfile.flush()
                self.close_connection = True
                self.connection.shutdown(socket.SHUT_RDWR)  # drop without a TLS goodbye
                return
            if stall is not None:
                self.wfile.write(payload[:stall])
                self.wfile.flush()
                owner.stopping.wait(owner.stall_seconds)
                self.close_connection = True
                return
            view = memoryview(payload)
            step = 1 << 20 if resource.rate is None else max(1, resource.rate // 20)
            began = time.monotonic()
            for offset in range(0, len(view), step):
                if resource.rate is not None:  # paced against the start: no drift from sleep jitter
                    ahead = began + offset / resource.rate - time.monotonic()
                    if ahead > 0 and owner.stopping.wait(ahead):
                        return
                self.wfile.write(view[offset:offset + step])

    def _simple(self, status):
        self.send_response(status)
        self.send_header("Content-Length", "0")
        self.end_headers()


class _ThreadingServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    allow_reuse_address = True


class _Running:
    """Serves in a thread; stops on stop(), at the end of a with block, or after LIFETIME."""

    def _start(self, server):
        self._server = server
        self.port = server.server_address[1]
        self.stopping = threading.Event()
        self._thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True)
        self._thread.start()
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
    def __init__(self, identity, stall_seconds=30.0):
        self.resources = {}
        self.requests = []
        self.lock = threading.Lock()
        self.stall_seconds = stall_seconds
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(identity.pem, identity.key)
        server = _ThreadingServer(("127.0.0.1", 0), _Handler)
        # The handshake happens in the handler's thread, so a slow client cannot block accept().
        server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
        server.owner = self
        self._start(server)

    def url(self, path):
        return f"https://localhost:{self.port}{path}"

    def add(self, path, resource):
        self.resources[path] = resource
        return self.url(path)


# -- plain HTTP (PAC scripts) ---------------------------------------------------------------------

class PacServer(_Running):
    def __init__(self, script):
        owner = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def log_message(self, *args):
                pass

            def do_GET(self):
                owner.requests.append(self.path)
                data = script.encode()
                self.send_response(200)
                self.send_header("Content-Type", "application/x-ns-proxy-autoconfig")
                self.send_header("Content-Length", str(len(data)))
                self.end_headers()
                self.wfile.write(data)

        self.requests = []
        self._start(_ThreadingServer(("127.0.0.1", 0), Handler))

    @property
    def url(self):
        return f"http://localhost:{self.port}/proxy.pac"


# -- CONNECT proxy --------------------------------------------------------------------------------

class ConnectProxy(_Running):
    """Tunnels CONNECT requests to 127.0.0.1 only, and records them."""

    def __init__(self, refuse=False):
        owner = self

        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                client = self.request
                client.settimeout(30)
                head = b""
                while b"\r\n\r\n" not in head and len(head) < 65536:
                    chunk = client.recv(4096)
                    if not chunk:
                        return
                    head += chunk
                line = head.split(b"\r\n", 1)[0].decode("latin-1")
                owner.requests.append(line)
                match = re.fullmatch(r"CONNECT (localhost|127\.0\.0\.1):(\d+) HTTP/1\.[01]", line)
                if refuse or not match:
                    client.sendall(b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n")
                    return
                upstream = socket.create_connection(("127.0.0.1", int(match.group(2))), timeout=30)
                client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
                rest = head.split(b"\r\n\r\n", 1)[1]
                if rest:
                    upstream.sendall(rest)
                self._relay(client, upstream)

            @staticmethod
            def _relay(a, b):
                sockets = [a, b]
                with contextlib.suppress(OSError), b:
                    while not owner.stopping.is_set():
                        readable, _, _ = select.select(sockets, [], [], 0.5)
                        for source in readable:
                            data = source.recv(1 << 16)
                            if not data:
                                return
                            (b if source is a else a).sendall(data)

        class Server(socketserver.ThreadingTCPServer):
            daemon_threads = True
            allow_reuse_address = True

        self.requests = []
        self._start(Server(("127.0.0.1", 0), Handler))

    @property
    def address(self):
        # By address, not "localhost": Wine's WinHTTP skips the CONNECT when the proxy's host name
        # equals the server's, whatever the ports.
        return f"127.0.0.1:{self.port}"


def unused_port():
    """A port nothing listens on (for a mirror that is down)."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(predicate, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(0.05)
    return predicate()
