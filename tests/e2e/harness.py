"""The end-to-end harness: a throwaway Wine prefix under build/, one way to run a program in it
(the tool, the content client's driver, msiexec) and to read back what it left (the run's log, the
registry, the telemetry file), and the runner of the content-client table.

The prefix's wineserver stays up for the whole session (volatile registry keys live only as long as
it does); ending it plays a machine restart.
"""
import codecs
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
from typing import Callable, NamedTuple, Optional

from servers import HttpsServer, Resource, unused_port

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("UPDATETOOL_BIN") or ROOT / "build" / "windows" / "bin")  # another build's bin/
TOOL, DRIVER = BIN / "updatetool.exe", BIN / "kesclient_driver.exe"
CURRENT_ROOT = r"HKEY_LOCAL_MACHINE\Software\Quorvane\Lumenar"
LEGACY_ROOT = r"HKEY_LOCAL_MACHINE\Software\Tessix, Inc.\Tessix KDX"
LOGS = r"C:\logs"  # InstallLogsDir of settings(); the tool adds its subfolder
TELEMETRY = LOGS + r"\updatetool\UpdateToolTelemetryData.json"
SEP = "\\"
STAMP = re.compile(r"^\d{4}-\d{2}-\d{2} \d{2}\.\d{2}\.\d{2}: ")


def update_key(key_id, root=CURRENT_ROOT):
    return f"{root}\\Agent\\Update\\{key_id}"


def volatile_key(root=CURRENT_ROOT):
    return root + r"\Agent\UpdateStatusVolatile"


def settings(max_retry=0, retry_wait_ms=0, logs=LOGS):
    """Logs in C:\\logs, and retry settings that keep a failing run from waiting five minutes."""
    return {CURRENT_ROOT: {"InstallLogsDir": logs},
            CURRENT_ROOT + r"\Agent\Update": {"MAXDOWNLOADANDUPGRADERETRY": str(max_retry),
                                              "RetryWaitPeriod": str(retry_wait_ms)}}


class Raw:
    """Value data as bytes of any registry type (3: REG_BINARY): what no well-behaved writer stores."""

    def __init__(self, data, kind=3):
        self.data, self.kind = bytes(data), kind


def _reg_data(data):
    """str: REG_SZ; list: REG_MULTI_SZ; int: REG_DWORD; Raw: its bytes as its type."""
    if isinstance(data, int):
        return f"dword:{data:08x}"
    if isinstance(data, str):
        return '"' + data.replace("\\", "\\\\").replace('"', '\\"') + '"'
    if isinstance(data, list):
        data = Raw("".join(item + "\0" for item in data).encode("utf-16-le") + b"\0\0", 7)
    return f"hex({data.kind:x}):" + ",".join(f"{b:02x}" for b in data.data)


def read_log(path):
    """A tool log: UTF-16LE after a BOM. (raw bytes, text); a lone surrogate stays one in the text."""
    raw = pathlib.Path(path).read_bytes()
    assert raw[:2] == codecs.BOM_UTF16_LE, "log must start with FF FE"
    return raw, raw[2:].decode("utf-16-le", "surrogatepass")


def messages(text):
    """Log or console lines without their time stamps."""
    return [STAMP.sub("", line) for line in text.replace("\r\n", "\n").split("\n") if line.strip()]


def wait_for(predicate, timeout=30.0, interval=0.1):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(interval)
    return predicate()


class Run:
    """A finished program: exit code (signed: Wine hands back codes modulo 256), console output,
    wall seconds, and for the tool its log's text."""

    def __init__(self, code, out, seconds, log=None):
        self.code, self.out, self.seconds, self.log = code - 256 if code > 127 else code, out, seconds, log

    @property
    def messages(self):
        return messages(self.log if self.log is not None else self.out)

    def says(self, text):
        return any(text in line for line in self.messages)


class WinePrefix:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.env = dict(os.environ, WINEPREFIX=str(self.path), WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=")

    def create(self):
        if self.path.exists():
            self.kill_server()
            shutil.rmtree(self.path)
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self._quiet("wineboot", "-i", timeout=300)
        self.start_server()

    def start_server(self):
        """A persistent server, and the prefix's service processes started once with their output
        discarded: they inherit the handles of the first program and would hold a pipe open."""
        self._quiet("wineserver", "-p")
        self._quiet("wine", "cmd", "/c", "exit", timeout=120)

    def kill_server(self):
        self._quiet("wineserver", "-k")
        self._quiet("wineserver", "-w")

    def restart(self):
        """A machine restart: every process ends, volatile keys vanish."""
        self.kill_server()
        self.start_server()

    def destroy(self):
        self.kill_server()
        shutil.rmtree(self.path, ignore_errors=True)

    def _quiet(self, *command, timeout=60):
        subprocess.run(command, env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=timeout)

    # -- files ------------------------------------------------------------------------------------
    def unix_path(self, windows_path):
        drive, rest = windows_path.split(":", 1)
        assert drive.upper() == "C", windows_path
        return self.path / "drive_c" / rest.lstrip("\\").replace("\\", "/")

    def windows_path(self, unix_path):
        """A path as Windows programs name it: C: inside the prefix, Wine's Z: drive elsewhere."""
        path = pathlib.Path(unix_path)
        if path.is_relative_to(self.path / "drive_c"):
            return "C:\\" + str(path.relative_to(self.path / "drive_c")).replace("/", "\\")
        return "Z:" + str(path).replace("/", "\\")

    @property
    def workspace(self):
        """The tool's workspace, %TEMP%\\updatetool-data (Wine's layout differs between versions)."""
        users = self.path / "drive_c" / "users"
        temp = [p for p in sorted(users.glob("*/Temp")) + sorted(users.glob("*/AppData/Local/Temp"))
                if p.parent.name != "Public"]
        return temp[0] / "updatetool-data"

    def reset(self):
        """No product keys, logs or workspace left from an earlier test; an empty C:\\logs."""
        self.import_reg("\n\n".join(f"[-{root.rsplit(SEP, 1)[0]}]" for root in (CURRENT_ROOT, LEGACY_ROOT)))
        for path in (self.workspace, self.unix_path(LOGS), self.unix_path(AGENT_INSTALL_PATH)):
            path.unlink() if path.is_file() or path.is_symlink() else shutil.rmtree(path, ignore_errors=True)
        self.unix_path(LOGS).mkdir()

    # -- registry ---------------------------------------------------------------------------------
    def import_reg(self, body):
        """Imports .reg text; regedit reads multi-strings right only from UTF-16LE with a BOM."""
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

    def values(self, key, attempts=3):
        """Every value of a key as `reg query` prints its data; None for a missing key. Asks again
        when `reg` fails otherwise or prints nothing: that happened here under load."""
        for _ in range(attempts):
            result = subprocess.run(["wine", "reg", "query", key], env=self.env, stdin=subprocess.DEVNULL,
                                    capture_output=True, timeout=60)
            text = result.stdout.decode("utf-8", "replace")
            if result.returncode != 0 and "Unable to find the specified registry key" in text:
                return None
            found = {m.group(1): m.group(3) or "" for m in
                     re.finditer(r"(?m)^ {4}(\S.*?) {4}(REG_\w+)(?: {4}(.*?))?\r?$", text)}
            if result.returncode == 0 and text.strip():
                return found
            time.sleep(0.5)
        raise AssertionError(f"reg query {key} failed: {result.returncode} {text!r}")

    def telemetry(self):
        return json.loads(self.unix_path(TELEMETRY).read_text(encoding="utf-8"))["updateTool"]

    # -- programs ---------------------------------------------------------------------------------
    def start(self, program, *args, env=None, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL):
        return subprocess.Popen(["wine", str(program), *args], env=dict(self.env, **(env or {})), stdin=stdin,
                                stdout=stdout, stderr=subprocess.DEVNULL)

    def run(self, program, *args, env=None, timeout=120):
        """Output goes to a file, not a pipe: after a restart the prefix's services start again
        holding the program's handles, and a pipe would never close."""
        with tempfile.TemporaryFile() as output:
            started = time.monotonic()
            process = self.start(program, *args, env=env, stdout=output)
            try:
                code = process.wait(timeout=timeout)
            finally:
                if process.poll() is None:
                    process.kill()
                    process.wait()
            output.seek(0)
            return Run(code, output.read().decode("utf-8", "replace"), time.monotonic() - started)

    def log_files(self):
        return [path for folder in (self.unix_path(LOGS + r"\updatetool"), self.workspace / "updatetool")
                if folder.exists() for path in sorted(folder.glob("*.log"))]

    def tool(self, *args, env=None, timeout=120):
        """One run of the tool with its log. The log is removed afterwards: its name has whole
        seconds only, and a next run in the same second would write over it."""
        run = self.run(TOOL, *args, env=env, timeout=timeout)
        logs = self.log_files()
        assert len(logs) == 1, logs
        run.log = read_log(logs[0])[1]
        logs[0].unlink()
        return run


# -- the content-client table ---------------------------------------------------------------------
NAMES = ["SUCCESS", "PEM_FILE_FAILED", "CREATE_CLIENT_FAILED", "INIT_FAILED", "DOWNLOAD_PENDING",
         "INVALID_THUMBPRINT", "QUEUE_DOWNLOAD_FAILED", "DOWNLOAD_FAILED", "VERIFY_FAILED",
         "HTTP_CERTIFICATE_ERROR", "WRONG_SIZE_ERROR", "WRONG_CHECKSUM_ERROR", "TRANSFER_INVALID_URI_ERROR"]
SUCCESS, PEM_FILE_FAILED, INVALID_THUMBPRINT, DOWNLOAD_FAILED, VERIFY_FAILED = 0, 1, 5, 7, 8
CERTIFICATE_ERROR, WRONG_SIZE, WRONG_CHECKSUM, INVALID_URI = 9, 10, 11, 12
BODY = os.urandom(1024 * 1024 + 4321)
FOLDER = r"C:\kes\download"  # the driver's destination
AGENT_INSTALL_PATH = r"C:\e2e-agent"  # where the tool looks for the CERT_PEM bundle (\cert\cacert.pem)
KEY_ID = "{e2e-download}"


class Case(NamedTuple):
    """One row. setup(c) arranges the servers (and anything else) and returns the download's
    arguments (see Downloads.fetch); code and kept are the outcome: the library's result and what
    is left in the destination (by default the file on success, nothing otherwise); says: a text
    of the output; check(c, run): any further truth. first: (code, kept) of a run before the
    checked one, again(c): the arguments that change between them. via: "driver" runs
    kesclient_driver.exe, "tool" runs updatetool.exe with the arguments as update-key values."""
    setup: Callable
    code: int
    kept: Optional[list] = None
    says: Optional[str] = None
    check: Optional[Callable] = None
    first: Optional[tuple] = None
    again: Optional[Callable] = None
    via: str = "driver"


def metadata(*pins):
    """A METADATA property bag with other items around the THUMBPRINT ones, as the service sends."""
    items = "".join(f'<ITEM name="THUMBPRINT">{pin}</ITEM>' for pin in pins)
    return f'<PROPERTYBAG><ITEM name="PRODUCT">e2e</ITEM>{items}<ITEM name="SIGNER">none</ITEM></PROPERTYBAG>'


class Downloads:
    """What a row builds its case from: the prefix, certificates, servers (stopped after the test).
    The test CA is in the machine's Root store throughout (conftest), so a mode that fell back to
    the system store would let an untrusted server through."""

    def __init__(self, wine, certs, servers):
        self.wine, self.certs, self.servers, self.server, self.path = wine, certs, servers, None, "/setup.exe"

    def https(self, identity=None, **options):
        return self.servers(HttpsServer(identity or self.certs.localhost, **options))

    def serve(self, resource=None, path="/setup.exe", identity=None):
        """A URL of the resource (default: BODY) on the test's server, or on one of its own for
        another certificate."""
        if identity:
            return self.https(identity).add(path, resource or Resource(BODY))
        self.server = self.server or self.https()
        self.path = path
        return self.server.add(path, resource or Resource(BODY))

    def swap(self, resource, **arguments):
        """Serves another resource where the last one was; returns the arguments given."""
        self.server.add(self.path, resource)
        return arguments

    @staticmethod
    def down():
        return f"https://localhost:{unused_port()}/setup.exe"

    def fetch(self, via, urls=None, body=BODY, trust="pin", pins=None, checksum=None, size=None, payload="exe",
              proxies=(), pac=None, env=None, key=None):
        """One download; checksum and size default to the body's, pins to the server's own."""
        urls = urls or [self.serve()]
        if via == "driver":
            return self.wine.run(DRIVER, *self.driver_args(urls, body, trust, pins, checksum, size, payload, proxies, pac),
                                 env=env, timeout=180)
        values = {"STATE": "DOWNLOAD", "RESULT": "", "RETRY": "0", "AGENT": "OTHER", "ARCH": "64-BitAgent",
                  "URL": list(urls), "CHECKSUM": hashlib.sha256(body).hexdigest() if checksum is None else checksum,
                  "FILESIZE": str(len(body) if size is None else size or ""),
                  "CERTTYPE": {"pin": "THUMBPRINT", "system": "CERT_SYSTEM_CA"}.get(trust, "CERT_PEM")}
        if trust == "pin":
            values["METADATA"] = metadata(*(pins or [self.certs.localhost.sha256()]))
        elif trust != "system":
            bundle = self.wine.unix_path(AGENT_INSTALL_PATH + r"\cert\cacert.pem")
            bundle.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(trust, bundle)
        values.update({"PROXY": list(proxies)} if proxies else {}, **({"PACURL": pac} if pac else {}), **(key or {}))
        self.wine.arrange(settings(max_retry=1), {CURRENT_ROOT: {"AgentInstallPath": AGENT_INSTALL_PATH},
                                                  update_key(KEY_ID): values})
        run = self.wine.tool(env=env)
        run.stored = stored = self.wine.values(update_key(KEY_ID))
        run.code = SUCCESS if (stored["STATE"], stored["RESULT"]) == ("WAIT", "OK") else \
            NAMES.index(stored["ERRORCODE"].removeprefix("KESCLIENT_")) if stored["ERRORCODE"] else None
        return run

    def driver_args(self, urls, body=BODY, trust="pin", pins=None, checksum=None, size=None, payload="exe",
                    proxies=(), pac=None):
        args = ["--folder", FOLDER, "--payload", payload, "--trust",
                "none" if trust == "pin" else "system" if trust == "system" else "pem:" + self.wine.windows_path(trust)]
        checksum = hashlib.sha256(body).hexdigest() if checksum is None else checksum
        size = len(body) if size is None else size
        for flag, values in (("--url", urls), ("--pin", (pins or [self.certs.localhost.sha256()]) if trust == "pin"
                                                else []), ("--proxy", proxies), ("--pac", [pac] if pac else []),
                             ("--checksum", [checksum] if checksum else []), ("--size", [str(size)] if size else [])):
            args += [arg for value in values for arg in (flag, value)]
        return args

    def destination(self, via):
        return self.wine.workspace if via == "tool" else self.wine.unix_path(FOLDER)

    def leftovers(self, via):
        folder = self.destination(via)
        return sorted(p.name for p in folder.iterdir()) if folder.exists() else []

    def check(self, case):
        """Runs a row (twice with `first`) and checks its outcome; the last run."""
        if case.via == "tool":
            self.wine.reset()
        arguments = case.setup(self)
        if case.first:
            run = self.fetch(case.via, **arguments)
            assert (run.code, self.leftovers(case.via)) == case.first, run.out
            arguments.update(case.again(self) if case.again else {})
        run = self.fetch(case.via, **arguments)
        output = run.log if case.via == "tool" else run.out
        kept = case.kept if case.kept is not None else ["setup.exe"] if case.code == SUCCESS else []
        assert (run.code, self.leftovers(case.via)) == (case.code, kept), f"{output}\nexit {run.code}"
        if case.code == SUCCESS and arguments.get("payload", "exe") == "exe":
            name = run.stored["FILENAME"] if case.via == "tool" else FOLDER + r"\setup.exe"
            assert self.wine.unix_path(name).read_bytes() == arguments.get("body", BODY), name
        assert case.says is None or case.says in output, output
        assert case.check is None or case.check(self, run), output
        return run
