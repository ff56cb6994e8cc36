"""A Wine prefix whose wineserver stays up for the session (ending it plays a restart); the content-client table."""
import codecs
import hashlib
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time
from typing import Callable, NamedTuple, Optional

import pytest

from servers import HttpsServer, Resource

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("UPDATETOOL_BIN") or ROOT / "build" / "windows" / "bin")  # another build's bin/
TOOL, DRIVER = BIN / "updatetool.exe", BIN / "kesclient_driver.exe"
CURRENT_ROOT = r"HKEY_LOCAL_MACHINE\Software\Quorvane\Lumenar"
LEGACY_ROOT = r"HKEY_LOCAL_MACHINE\Software\Tessix, Inc.\Tessix KDX"
LOGS = r"C:\logs"  # InstallLogsDir of settings(); the tool adds its subfolder
TELEMETRY = LOGS + r"\updatetool\UpdateToolTelemetryData.json"
STAMP = re.compile(r"^\d{4}-\d{2}-\d{2} \d{2}\.\d{2}\.\d{2}: ")
VALUE = re.compile(r"(?m)^ {4}(\S.*?) {4}REG_\w+(?: {4}(.*?))?\r?$")


def update_key(key_id, root=CURRENT_ROOT):
    return f"{root}\\Agent\\Update\\{key_id}"


def volatile_key(root=CURRENT_ROOT):
    return root + r"\Agent\UpdateStatusVolatile"


def settings(max_retry=0, retry_wait_ms=0):  # retry settings that keep a failing run from waiting five minutes
    return {CURRENT_ROOT: {"InstallLogsDir": LOGS},
            CURRENT_ROOT + r"\Agent\Update": {"MAXDOWNLOADANDUPGRADERETRY": str(max_retry),
                                              "RetryWaitPeriod": str(retry_wait_ms)}}


class Raw(NamedTuple):
    """Value data as bytes of any registry type (3: REG_BINARY): what no well-behaved writer stores."""
    data: bytes
    kind: int = 3


def _reg_data(data):
    if isinstance(data, int):
        return f"dword:{data:08x}"
    if isinstance(data, str):
        return '"' + data.replace("\\", "\\\\").replace('"', '\\"') + '"'
    if isinstance(data, list):  # REG_MULTI_SZ
        data = Raw("".join(item + "\0" for item in data).encode("utf-16-le") + b"\0\0", 7)
    return f"hex({data.kind:x}):" + ",".join(f"{b:02x}" for b in data.data)


def read_log(path):
    """A tool log's text: UTF-16LE after a BOM; a lone surrogate stays one."""
    raw = pathlib.Path(path).read_bytes()
    assert raw[:2] == codecs.BOM_UTF16_LE, "log must start with FF FE"
    return raw[2:].decode("utf-16-le", "surrogatepass")


def messages(text):
    return [STAMP.sub("", line) for line in text.replace("\r\n", "\n").split("\n") if line.strip()]


class Run:
    """Exit code (signed: Wine hands back codes modulo 256), console output, seconds, the tool's log."""

    def __init__(self, code, out, seconds, log=None):
        self.code, self.out, self.seconds, self.log = code - 256 if code > 127 else code, out, seconds, log
        self.messages = messages(log if log is not None else out)

    def says(self, text):
        return any(text in line for line in self.messages)


class WinePrefix:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.env = dict(os.environ, WINEPREFIX=str(self.path), WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=")

    def create(self):
        self.kill_server()
        shutil.rmtree(self.path, ignore_errors=True)
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self._quiet("wineboot", "-i", timeout=300)
        self.restart()

    def kill_server(self):
        for flag in ("-k", "-w"):
            self._quiet("wineserver", flag)

    def restart(self):
        """A machine restart: every process ends, volatile keys vanish. The prefix's services start
        once with their output discarded: they inherit the first program's handles, would hold a pipe."""
        self.kill_server()
        self._quiet("wineserver", "-p")
        self._quiet("wine", "cmd", "/c", "exit", timeout=120)

    def _quiet(self, *command, timeout=60):
        subprocess.run(command, env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=timeout)

    def unix_path(self, windows_path):
        return self.path / "drive_c" / windows_path.split(":", 1)[1].lstrip("\\").replace("\\", "/")

    def windows_path(self, unix_path):
        path = pathlib.Path(unix_path)
        if path.is_relative_to(self.path / "drive_c"):
            return "C:\\" + str(path.relative_to(self.path / "drive_c")).replace("/", "\\")
        return "Z:" + str(path).replace("/", "\\")

    @property
    def workspace(self):
        """%TEMP%\\updatetool-data (Wine's layout differs between versions)."""
        users = self.path / "drive_c" / "users"
        return [p for p in sorted(users.glob("*/Temp")) + sorted(users.glob("*/AppData/Local/Temp"))
                if p.parent.name != "Public"][0] / "updatetool-data"

    def reset(self):
        self.import_reg("\n\n".join("[-" + root.rsplit("\\", 1)[0] + "]" for root in (CURRENT_ROOT, LEGACY_ROOT)))
        for path in (self.workspace, self.unix_path(LOGS), self.unix_path(AGENT_INSTALL_PATH)):
            path.unlink() if path.is_file() or path.is_symlink() else shutil.rmtree(path, ignore_errors=True)
        self.unix_path(LOGS).mkdir()

    def import_reg(self, body):
        """regedit reads multi-strings right only from UTF-16LE with a BOM."""
        text = "Windows Registry Editor Version 5.00\n\n" + body + "\n"
        path = self.path / "import.reg"
        path.write_bytes(codecs.BOM_UTF16_LE + text.replace("\n", "\r\n").encode("utf-16-le", "surrogatepass"))
        self._quiet("wine", "regedit", "/S", str(path))

    def arrange(self, *key_sets):
        """Writes {key: {value name: data}} sets in one regedit run; later sets add to earlier ones."""
        merged = {}
        for keys in key_sets:
            for key, named in keys.items():
                merged.setdefault(key, {}).update(named)
        self.import_reg("\n\n".join("\n".join([f"[{key}]"] + [f'"{name}"={_reg_data(data)}' for name, data in
                                                              named.items()]) for key, named in merged.items()))

    def query(self, *args):
        """`reg query` output, None for a missing key; asked again when it fails or prints nothing (under load)."""
        for _ in range(3):
            result = subprocess.run(["wine", "reg", "query", *args], env=self.env, stdin=subprocess.DEVNULL,
                                    capture_output=True, timeout=120)
            if (text := result.stdout.decode("utf-8", "replace")).strip() and result.returncode == 0:
                return text
            if result.returncode and "Unable to find the specified registry key" in text:
                return None
            time.sleep(0.5)
        raise AssertionError(f"reg query {args} failed: {result.returncode} {text!r}")

    def values(self, key):
        text = self.query(key)
        return None if text is None else dict(VALUE.findall(text))

    def telemetry(self):
        return json.loads(self.unix_path(TELEMETRY).read_text(encoding="utf-8"))["updateTool"]

    def start(self, program, *args, env=None, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL):
        return subprocess.Popen(["wine", str(program), *args], env=dict(self.env, **(env or {})), stdin=stdin,
                                stdout=stdout, stderr=subprocess.DEVNULL)

    def run(self, program, *args, env=None, timeout=120):
        # Output to a file, not a pipe: after a restart the prefix's services start again holding
        # the program's handles, and a pipe would never close.
        with tempfile.TemporaryFile() as output:
            started = time.monotonic()
            code = subprocess.run(["wine", str(program), *args], env=dict(self.env, **(env or {})), timeout=timeout,
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL).returncode
            output.seek(0)
            return Run(code, output.read().decode("utf-8", "replace"), time.monotonic() - started)

    def log_files(self):  # every test's settings() name the logs folder
        return sorted(self.unix_path(LOGS + r"\updatetool").glob("*.log"))

    def tool(self, *args, env=None, timeout=120):
        """A tool run with its log, removed: a next run in the same second would write over it."""
        run = self.run(TOOL, *args, env=env, timeout=timeout)
        [log] = self.log_files()
        run = Run(run.code, run.out, run.seconds, read_log(log))
        log.unlink()
        return run


# -- the content-client table ---------------------------------------------------------------------
NAMES = ("SUCCESS PEM_FILE_FAILED CREATE_CLIENT_FAILED INIT_FAILED DOWNLOAD_PENDING INVALID_THUMBPRINT "
         "QUEUE_DOWNLOAD_FAILED DOWNLOAD_FAILED VERIFY_FAILED HTTP_CERTIFICATE_ERROR WRONG_SIZE_ERROR "
         "WRONG_CHECKSUM_ERROR TRANSFER_INVALID_URI_ERROR").split()
SUCCESS, PEM_FILE_FAILED, INVALID_THUMBPRINT, DOWNLOAD_FAILED, VERIFY_FAILED = 0, 1, 5, 7, 8
CERTIFICATE_ERROR, WRONG_SIZE, WRONG_CHECKSUM, INVALID_URI = 9, 10, 11, 12
BODY = os.urandom(1024 * 1024 + 4321)
FOLDER = r"C:\kes\download"  # the driver's destination
AGENT_INSTALL_PATH = r"C:\e2e-agent"  # where the tool looks for the CERT_PEM bundle (\cert\cacert.pem)
KEY_ID = "{e2e-download}"


class Case(NamedTuple):
    """setup: fetch's arguments or c -> them; kept: the destination's names (default: the file on success);
    check(c, run): more; first: (code, kept) of an earlier run, again: what changes after it."""
    setup: object
    code: int
    kept: Optional[list] = None
    says: Optional[str] = None
    check: Optional[Callable] = None
    first: Optional[tuple] = None
    again: dict = {}
    via: str = "driver"


def row(id, setup, code, **options):
    return pytest.param(Case(setup, code, **options), id=id)


def metadata(*pins):
    """A METADATA property bag with other items around the THUMBPRINT ones, as the service sends."""
    items = "".join(f'<ITEM name="THUMBPRINT">{pin}</ITEM>' for pin in pins)
    return f'<PROPERTYBAG><ITEM name="PRODUCT">e2e</ITEM>{items}<ITEM name="SIGNER">none</ITEM></PROPERTYBAG>'


class Downloads:
    """The test CA is in the Root store throughout: a mode that fell back to it would let an untrusted server in."""

    def __init__(self, wine, certs, servers):
        self.wine, self.certs, self.servers, self.server = wine, certs, servers, None

    def serve(self, resource=None, path="/setup.exe", identity=None):
        """A URL of the resource on the test's server, or on one of its own for another certificate."""
        self.server = self.server or self.servers(HttpsServer(self.certs.localhost))
        return (self.servers(HttpsServer(identity)) if identity else self.server).add(path, resource or Resource(BODY))

    @staticmethod
    def down():
        with socket.socket() as probe:  # a port nothing listens on
            probe.bind(("127.0.0.1", 0))
            return f"https://localhost:{probe.getsockname()[1]}/setup.exe"

    def fetch(self, via, urls=(), body=BODY, trust="pin", pins=None, checksum=None, size=None, payload="exe",
              proxies=(), pac=None, env=None, key=None):
        """One download (via "args": the driver's arguments); checksum and size default to the body's,
        pins to the server's own; a Resource among the URLs is served at /setup.exe."""
        urls = [self.serve(u) if isinstance(u, Resource) else u for u in urls or [Resource(BODY)]]
        pins = pins or [self.certs.localhost.sha()]
        checksum = hashlib.sha256(body).hexdigest() if checksum is None else checksum
        size = str(len(body) if size is None else size or "")
        if via != "tool":
            args = ["--folder", FOLDER, "--payload", payload, "--trust",
                    {"pin": "none", "system": "system"}.get(trust) or "pem:" + self.wine.windows_path(trust)]
            for flag, values in (("--url", urls), ("--pin", pins if trust == "pin" else []), ("--proxy", proxies),
                                 ("--pac", [pac] * bool(pac)), ("--checksum", [checksum] * bool(checksum)),
                                 ("--size", [size] * bool(size))):
                args += [arg for value in values for arg in (flag, value)]
            return args if via == "args" else self.wine.run(DRIVER, *args, env=env, timeout=180)
        if trust not in ("pin", "system"):
            bundle = self.wine.unix_path(AGENT_INSTALL_PATH + r"\cert\cacert.pem")
            bundle.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(trust, bundle)
        self.wine.arrange(settings(max_retry=1), {CURRENT_ROOT: {"AgentInstallPath": AGENT_INSTALL_PATH}, update_key(
            KEY_ID): {"STATE": "DOWNLOAD", "RESULT": "", "RETRY": "0", "AGENT": "OTHER", "ARCH": "64-BitAgent",
                      "URL": urls, "CHECKSUM": checksum, "FILESIZE": size, "CERTTYPE": {
                          "pin": "THUMBPRINT", "system": "CERT_SYSTEM_CA"}.get(trust, "CERT_PEM"),
                      **({"PROXY": list(proxies)} if proxies else {}),
                      **({"METADATA": metadata(*pins)} if trust == "pin" else {}), **(key or {})}})
        run = self.wine.tool(env=env)
        run.stored = stored = self.wine.values(update_key(KEY_ID))
        run.code = SUCCESS if (stored["STATE"], stored["RESULT"]) == ("WAIT", "OK") else \
            NAMES.index(stored["ERRORCODE"].removeprefix("KESCLIENT_")) if stored["ERRORCODE"] else None
        return run

    def destination(self, via="driver"):
        return self.wine.workspace if via == "tool" else self.wine.unix_path(FOLDER)

    def check(self, case):
        """Runs a row (twice with `first`) and checks its outcome."""
        folder = self.destination(case.via)
        left = lambda: sorted(p.name for p in folder.iterdir()) if folder.exists() else []  # noqa: E731
        if case.via == "tool":
            self.wine.reset()
        arguments = case.setup(self) if callable(case.setup) else dict(case.setup)
        if case.first:
            run = self.fetch(case.via, **arguments)
            assert (run.code, left()) == case.first, run.out
            arguments.update(case.again)
        run = self.fetch(case.via, **arguments)
        output = run.log if case.via == "tool" else run.out
        kept = case.kept if case.kept is not None else ["setup.exe"] if case.code == SUCCESS else []
        assert (run.code, left()) == (case.code, kept), f"{output}\nexit {run.code}"
        if case.code == SUCCESS and arguments.get("payload", "exe") == "exe":
            name = run.stored["FILENAME"] if case.via == "tool" else FOLDER + r"\setup.exe"
            assert self.wine.unix_path(name).read_bytes() == arguments.get("body", BODY), name
        assert case.says is None or case.says in output, output
        assert case.check is None or case.check(self, run), output
