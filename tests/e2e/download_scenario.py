"""Set-up for the tool's download runs: an update key in state DOWNLOAD for each trust mode, the
agent's PEM bundle, the test CA in the machine's Root store, a server that also records its
answers, and tar archives."""
import contextlib
import hashlib
import io
import pathlib
import shutil
import tarfile

from servers import HttpsServer, _Handler
from wine import BIN

DRIVER = BIN / "kesclient_driver.exe"  # changes the machine's Root store for the system-store mode
AGENT_INSTALL_PATH = r"C:\e2e-agent"


class RecordingHttpsServer(HttpsServer):
    """An HTTPS server that also keeps the status and headers of every answer it sends, so that a
    test sees what went over the wire (a 206 with only the rest of the file, say)."""

    def __init__(self, identity, **kwargs):
        self.answers = []
        super().__init__(identity, **kwargs)
        self._server.RequestHandlerClass = _RecordingHandler


class _RecordingHandler(_Handler):
    def send_response(self, code, message=None):
        self.server.owner.answers.append({"status": code, "headers": {}})
        super().send_response(code, message)

    def send_header(self, keyword, value):
        answers = self.server.owner.answers
        if answers:
            answers[-1]["headers"][keyword.lower()] = value
        super().send_header(keyword, value)


def metadata(*thumbprints):
    """A METADATA property bag with other items around the THUMBPRINT ones, as the service sends."""
    items = ['<ITEM name="PRODUCT">e2e</ITEM>']
    items += [f'<ITEM name="THUMBPRINT">{pin}</ITEM>' for pin in thumbprints]
    items += ['<ITEM name="SIGNER">none</ITEM>']
    return "<PROPERTYBAG>" + "".join(items) + "</PROPERTYBAG>"


def package_values(body, urls, **extra):
    """Update-key values naming the package: its locations, size and SHA-256."""
    values = {"URL": list(urls), "FILESIZE": str(len(body)), "CHECKSUM": hashlib.sha256(body).hexdigest()}
    values.update(extra)
    return values


def install_pem_bundle(wine, pem):
    """Puts a CA file where CERT_PEM looks for it; returns the AgentInstallPath setting's value."""
    folder = wine.unix_path(AGENT_INSTALL_PATH + r"\cert")
    folder.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(pem, folder / "cacert.pem")
    return AGENT_INSTALL_PATH


def remove_pem_bundle(wine):
    shutil.rmtree(wine.unix_path(AGENT_INSTALL_PATH), ignore_errors=True)


@contextlib.contextmanager
def machine_root(wine, pem):
    """The certificate in the machine's Root store while the block runs."""
    if not DRIVER.exists():
        raise AssertionError(f"{DRIVER} is missing: build the windows preset first")
    assert wine.run(DRIVER, "--add-root", z_drive(pem))[0] == 0
    try:
        yield
    finally:
        assert wine.run(DRIVER, "--remove-root", z_drive(pem))[0] == 0


def z_drive(path):
    """A Unix path as Wine's Z: drive shows it."""
    return "Z:" + str(path).replace("/", "\\")


def windows_path(wine, unix_path):
    """A path inside the prefix's drive C as Windows programs name it."""
    relative = pathlib.Path(unix_path).relative_to(wine.path / "drive_c")
    return "C:\\" + str(relative).replace("/", "\\")


def tar_gz(entries):
    """A gzip-compressed tar of (name, bytes) entries, names taken as given (no normalising)."""
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w:gz", format=tarfile.PAX_FORMAT) as archive:
        for name, content in entries:
            info = tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return data.getvalue()


def contents(folder):
    """Every file and folder below folder, as sorted relative paths."""
    folder = pathlib.Path(folder)
    if not folder.exists():
        return []
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*"))
