"""Answers that http.server will not write: contradicting or impossible headers, chunked bodies cut
short, a byte now and then. A Scripted resource sits in an HttpsServer like any Resource; its
script writes the raw bytes of the answer, step by step.

A script is called with the first byte of the Range asked for (None without one) and returns the
steps, or None for the ordinary answer of the resource. A step is bytes to send, a number of
seconds to wait (cut short when the server stops), or DROP to end the connection there.
"""
import contextlib
import re
import socket

from servers import HttpsServer, Resource, _Handler

DROP = object()


class Scripted(Resource):
    def __init__(self, body=b"", script=lambda start: None, etag=None):
        super().__init__(body, etag=etag)
        self.script = script


def head(status, *headers):
    """The status line and header lines of an answer."""
    lines = [f"HTTP/1.1 {status} Scripted", *headers, "Connection: close"]
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


def chunked(data, size=65536):
    """data in chunked transfer coding, without the closing chunk."""
    return b"".join(b"%x\r\n%s\r\n" % (len(data[i:i + size]), data[i:i + size]) for i in range(0, len(data), size))


def drip(data, seconds):
    """data a byte at a time, `seconds` apart."""
    for byte in data:
        yield bytes([byte])
        yield seconds


class _ScriptedHandler(_Handler):
    def do_GET(self):
        owner = self.server.owner
        path = re.sub(r"^https?://[^/]*", "", self.path).split("?", 1)[0]
        resource = owner.resources.get(path)
        match = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range") or "")
        steps = resource.script(int(match.group(1)) if match else None) if isinstance(resource, Scripted) else None
        if steps is None:
            return super().do_GET()
        with owner.lock:
            owner.requests.append({"path": path, "headers": {k.lower(): v for k, v in self.headers.items()}})
        self.close_connection = True
        with contextlib.suppress(OSError):
            for step in steps:
                if step is DROP:
                    self.connection.shutdown(socket.SHUT_RDWR)  # no TLS goodbye
                    return
                if isinstance(step, (int, float)):
                    if owner.stopping.wait(step):
                        return
                    continue
                self.wfile.write(step)
                self.wfile.flush()


class FaultServer(HttpsServer):
    """An HttpsServer that also serves Scripted resources."""

    def __init__(self, identity):
        super().__init__(identity)
        # No connection can have been accepted yet: the handler class is read per connection.
        self._server.RequestHandlerClass = _ScriptedHandler
