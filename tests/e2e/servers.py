"""A scriptable HTTPS server, a CONNECT proxy, certificates. URLs say "localhost": Wine's WinHTTP refuses IPs."""
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
import typing

DROP = object()  # a step of an answer: end the connection there, without a TLS goodbye


class Certificates:
    """A test CA and leaf certificates as PEM files in a folder."""

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
        # `openssl ca` takes explicit validity dates, which an expired certificate needs.
        config.write_text(f"[ca]\ndefault_ca = test\n[test]\ndatabase = {self.folder / name}.db\nnew_certs_dir = "
                          f"{self.folder}\nrand_serial = yes\ndefault_md = sha256\npolicy = any\nunique_subject = no\n"
                          f"[any]\ncommonName = supplied\n[req]\ndistinguished_name = dn\n[dn]\n[leaf]\nsubjectAltName"
                          f" = DNS:{host}\nextendedKeyUsage = serverAuth\nkeyUsage = critical,digitalSignature\n"
                          "[authority]\nbasicConstraints = critical,CA:true\nkeyUsage = critical,keyCertSign,cRLSign\n")
        (self.folder / f"{name}.db").write_text("")
        def run(*command, **more):
            return subprocess.run(command, check=True, capture_output=True, timeout=60, **more).stdout
        run("openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key)
        run("openssl", "ca", "-batch", "-notext", "-in", "/dev/stdin", "-out", pem, "-config", config, "-extensions",
            "authority" if ca else "leaf", *(["-cert", issuer.pem, "-keyfile", issuer.key] if issuer else
                                             ["-selfsign", "-keyfile", key]),
            *(["-startdate", dates[0], "-enddate", dates[1]] if dates else ["-days", "30"]),
            input=run("openssl", "req", "-new", "-key", key, "-subj", f"/CN={host}", "-config", config))
        return Identity(pem, key)


class Identity(typing.NamedTuple):
    pem: pathlib.Path
    key: pathlib.Path
    def sha(self, algorithm="sha256"):
        return hashlib.new(algorithm, ssl.PEM_cert_to_DER_cert(self.pem.read_text())).hexdigest()


def head(status, *headers):
    return ("\r\n".join([f"HTTP/1.1 {status} Scripted", *headers, "Connection: close"]) + "\r\n\r\n").encode()


class Resource:
    """What a path serves. fault: (bytes sent, then DROP or seconds of silence), the first answer
    only; rate: bytes per second; script(first byte of the Range asked for, or None): the steps of
    an answer (bytes, seconds to wait, DROP), or nothing for the ordinary one."""

    def __init__(self, body=b"", etag=None, ranges=True, fault=None, rate=None, script=None):
        self.body, self.etag, self.ranges, self.fault, self.rate, self.script = body, etag, ranges, fault, rate, script

    def answer(self, start, validator):
        if steps := self.script and self.script(start):
            return steps
        ranged = self.ranges and start is not None and validator in (None, self.etag)
        if ranged and start >= len(self.body):
            return [head(416, "Content-Length: 0")]
        body, size = self.body[start if ranged else 0:], len(self.body)
        steps = [head(206 if ranged else 200, *[f"Content-Range: bytes {start}-{size - 1}/{size}"] * ranged,
                      f"Content-Length: {len(body)}", *[f"ETag: {self.etag}"] * bool(self.etag))]
        if self.fault:
            (sent, then), self.fault = self.fault, None
            return steps + [body[:sent], then]
        step = self.rate // 20 if self.rate else len(body) or 1  # at a rate: 20 writes a second
        return steps + [p for i in range(0, len(body), step) for p in (body[i:i + step], 0.05 * bool(self.rate))]


class _Handler(http.server.BaseHTTPRequestHandler):
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
            steps = resource.answer(int(wanted.group(1)) if wanted else None, self.headers.get("If-Range")) \
                if resource else [head(404, "Content-Length: 0")]
        self.close_connection = True
        with contextlib.suppress(OSError):
            for step in steps:
                if step is DROP:
                    return self.connection.shutdown(socket.SHUT_RDWR)
                if not isinstance(step, bytes):
                    if owner.stopping.wait(step):
                        return
                    continue
                self.wfile.write(step)
                self.wfile.flush()


class _Running:
    """Serves in a thread until close()."""

    def _start(self, server):
        self._server, self.port, self.stopping = server, server.server_address[1], threading.Event()
        server.owner, server.daemon_threads = self, True
        threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True).start()

    def close(self):
        if not self.stopping.is_set():
            self.stopping.set()
            self._server.shutdown()
            self._server.server_close()


class HttpsServer(_Running):
    """Over TLS with the identity given; over plain HTTP without one (PAC scripts, which WinHTTP fetches so)."""

    def __init__(self, identity):
        self.resources, self.requests, self.lock = {}, [], threading.Lock()
        self.scheme = "https" if identity else "http"
        server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), _Handler)
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


class ConnectProxy(_Running):
    """Tunnels CONNECT requests to 127.0.0.1 only (or refuses them all), and records them."""

    def __init__(self, refuse=False):
        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                client, owner, asked = self.request, self.server.owner, b""
                client.settimeout(30)
                while b"\r\n\r\n" not in asked and len(asked) < 65536:
                    if not (chunk := client.recv(4096)):
                        return
                    asked += chunk
                line = asked.split(b"\r\n", 1)[0].decode("latin-1")
                owner.requests.append(line)
                match = re.fullmatch(r"CONNECT (localhost|127\.0\.0\.1):(\d+) HTTP/1\.[01]", line)
                if refuse or not match:
                    return client.sendall(b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n")
                upstream = socket.create_connection(("127.0.0.1", int(match.group(2))), timeout=30)
                client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
                upstream.sendall(asked.split(b"\r\n\r\n", 1)[1])
                with contextlib.suppress(OSError), upstream:
                    while not owner.stopping.is_set():
                        for source in select.select([client, upstream], [], [], 0.5)[0]:
                            if not (data := source.recv(1 << 16)):
                                return
                            (upstream if source is client else client).sendall(data)

        self.requests = []
        self._start(socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler))
        # By address, not "localhost": Wine's WinHTTP skips the CONNECT when the proxy's host name equals the server's.
        self.address = f"127.0.0.1:{self.port}"
