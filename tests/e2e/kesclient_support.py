"""What the content client's end-to-end tests share: a prefix of their own, certificates, the
driver and its result codes.

The driver exits with the library's result code and prints its log as "[level] message" lines.
"""
import hashlib
import io
import os
import shutil
import tarfile
import time

import pytest

from servers import Certificates, ConnectProxy, HttpsServer, PacServer, Resource, unused_port
from wine import BIN, ROOT, WinePrefix

DRIVER = BIN / "kesclient_driver.exe"
SUCCESS, PEM_FILE_FAILED, INVALID_THUMBPRINT, DOWNLOAD_FAILED, VERIFY_FAILED = 0, 1, 5, 7, 8
CERTIFICATE_ERROR, WRONG_SIZE, WRONG_CHECKSUM, INVALID_URI = 9, 10, 11, 12
FOLDER = r"C:\kes\download"


@pytest.fixture(scope="session")
def prefix():
    """A prefix of their own: these tests change the machine's root store for a while, and must
    not meet the tool's scenarios, which may run in build/e2e at the same time."""
    for program in (DRIVER, BIN / "kesclient.dll"):
        if not program.exists():
            pytest.fail(f"{program} is missing: build the windows preset first")
    wine = WinePrefix(os.environ.get("KESCLIENT_E2E_PREFIX") or ROOT / "build" / "e2e-kesclient" / "prefix")
    wine.create()
    yield wine
    wine.destroy()


@pytest.fixture(scope="session")
def certs(tmp_path_factory):
    return Certificates(tmp_path_factory.mktemp("certs"))


@pytest.fixture
def folder(wine):
    path = wine.unix_path(FOLDER)
    shutil.rmtree(path.parent, ignore_errors=True)
    yield path
    shutil.rmtree(path.parent, ignore_errors=True)


@pytest.fixture
def system_root(wine, certs):
    """The test CA in the machine's Root store for the length of one test."""
    assert wine.run(DRIVER, "--add-root", windows(certs.ca.pem))[0] == 0
    yield
    assert wine.run(DRIVER, "--remove-root", windows(certs.ca.pem))[0] == 0


def windows(path):
    """A Unix path as Wine's Z: drive shows it."""
    return "Z:" + str(path).replace("/", "\\")


class Run:
    def __init__(self, code, out, seconds):
        self.code, self.out, self.seconds = code, out, seconds

    def lines(self, level):
        return [line for line in self.out.splitlines() if line.startswith(f"[{level}]")]


def download(wine, urls, body=None, trust="pin", certs=None, pins=(), checksum=None, size=None, payload="exe",
             proxies=(), pac=None, env=None, extra=(), background=False):
    """Runs the driver; checksum and size default to those of body. In the background: the
    started process, for a test to end as it likes."""
    args = ["--folder", FOLDER, "--payload", payload]
    for url in urls:
        args += ["--url", url]
    if trust == "pin":
        args += ["--trust", "none"]
        for pin in pins or (certs.localhost.sha256(),):
            args += ["--pin", pin]
    elif trust == "system":
        args += ["--trust", "system"]
    else:
        args += ["--trust", "pem:" + windows(trust)]
    if checksum is None and body is not None:
        checksum = hashlib.sha256(body).hexdigest()
    if checksum:
        args += ["--checksum", checksum]
    if size is None and body is not None:
        size = len(body)
    if size:
        args += ["--size", str(size)]
    for proxy in proxies:
        args += ["--proxy", proxy]
    if pac:
        args += ["--pac", pac]
    if background:
        return wine.start(DRIVER, *args, *extra, extra_env=env)
    started = time.monotonic()
    code, out, _ = wine.run(DRIVER, *args, *extra, extra_env=env, timeout=180)
    return Run(code if code >= 0 else code + 256, out, time.monotonic() - started)


def leftovers(folder):
    return sorted(p.name for p in folder.iterdir()) if folder.exists() else []


def tar_archive(entries, compress=True, format=tarfile.PAX_FORMAT):
    """A tar or tar.gz package of (name, content) pairs, and of TarInfo entries without data."""
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w:gz" if compress else "w", format=format) as archive:
        for entry in entries:
            if isinstance(entry, tarfile.TarInfo):
                archive.addfile(entry)
                continue
            name, content = entry
            info = tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return data.getvalue()
