"""Set-up and read-back shared by the run scenarios: update keys and settings written as .reg text,
the run's log, the registry values a run leaves behind and the telemetry file."""
import json
import re
import subprocess
import time

from wine import CURRENT_ROOT, read_log, signed

LOGS_DIR = r"C:\logs"  # the `wine` fixture creates it empty for every test
TELEMETRY_NAME = "UpdateToolTelemetryData.json"
URL = "https://updates.invalid/package"
STAMP = re.compile(r"^(\d{4})-(\d{2})-(\d{2}) (\d{2})\.(\d{2})\.(\d{2}): ")


def update_key(root, key_id):
    return f"{root}\\Agent\\Update\\{key_id}"


def need_reboot_key(root):
    return f"{root}\\Agent\\UpdateStatusVolatile"


# -- registry set-up ------------------------------------------------------------------------------
class Raw:
    """Value data given as bytes, of any registry type: what no well-behaved writer stores
    (binary where text belongs, text that is no valid UTF-16)."""

    def __init__(self, data, kind=3):  # 3: REG_BINARY
        self.data, self.kind = bytes(data), kind


def _reg_data(data):
    """str: REG_SZ; list: REG_MULTI_SZ; int: REG_DWORD; Raw: its bytes as its type."""
    if isinstance(data, Raw):
        return f"hex({data.kind:x}):" + ",".join(f"{b:02x}" for b in data.data)
    if isinstance(data, bool) or not isinstance(data, (str, int, list, tuple)):
        raise TypeError(data)
    if isinstance(data, int):
        return f"dword:{data:08x}"
    if isinstance(data, str):
        return '"' + data.replace("\\", "\\\\").replace('"', '\\"') + '"'
    raw = "".join(item + "\0" for item in data).encode("utf-16-le") + b"\0\0"
    return "hex(7):" + ",".join(f"{b:02x}" for b in raw)


def settings(logs_dir=LOGS_DIR, max_retry=0, retry_wait_ms=0):
    """Where the run logs, and retry settings that keep a failing run from waiting: no retries
    unless a scenario asks for them, and no real five-minute pause when it does."""
    return {CURRENT_ROOT: {"InstallLogsDir": logs_dir},
            CURRENT_ROOT + r"\Agent\Update": {"MAXDOWNLOADANDUPGRADERETRY": str(max_retry),
                                              "RetryWaitPeriod": str(retry_wait_ms)}}


def arrange(wine, *key_sets):
    """Imports keys given as {key path: {value name: data}} in one regedit run; an empty dict of
    values still creates the key. Later sets add to earlier ones."""
    merged = {}
    for keys in key_sets:
        for key, named in keys.items():
            merged.setdefault(key, {}).update(named)
    sections = []
    for key, named in merged.items():
        lines = [f"[{key}]"] + [f'"{name}"={_reg_data(data)}' for name, data in named.items()]
        sections.append("\n".join(lines))
    wine.import_reg("\n\n".join(sections) + "\n")


def values(wine, key, attempts=3):
    """Every value of one key as {name: data text as `reg query` prints it}; None when the key is
    missing. Asks again when `reg` fails otherwise or prints nothing: that happened here under load."""
    for _ in range(attempts):
        result = subprocess.run(["wine", "reg", "query", key], env=wine.env, stdin=subprocess.DEVNULL,
                                capture_output=True, timeout=60)
        text = result.stdout.decode("utf-8", "replace")
        if result.returncode != 0 and "Unable to find the specified registry key" in text:
            return None
        found = {}
        for line in text.splitlines():
            match = re.match(r"^ {4}(\S.*?) {4}(REG_\w+)(?: {4}(.*))?$", line)
            if match:
                found[match.group(1)] = match.group(3) or ""
        if result.returncode == 0 and (found or text.strip()):
            return found
        time.sleep(0.5)
    raise AssertionError(f"reg query {key} failed: {result.returncode} {text!r} {result.stderr!r}")


# -- runs -----------------------------------------------------------------------------------------
class Run:
    """A finished run: exit code, log text, and the whole seconds it may have seen (ended is
    rounded up)."""

    def __init__(self, code, log, started, ended):
        self.code, self.log, self.started, self.ended = code, log, started, ended

    @property
    def messages(self):
        """The log's lines without their time stamps."""
        return [STAMP.sub("", line) for line in self.log.split("\r\n") if line]

    def order_of(self, *prefixes):
        """Where the first message starting with each prefix stands; None for a missing one."""
        messages = self.messages
        return [next((i for i, m in enumerate(messages) if m.startswith(p)), None)
                for p in prefixes]

    def seconds_between(self, first, second):
        """Time-stamp distance between the first lines holding each text."""
        stamps = {}
        for line in self.log.split("\r\n"):
            for text in (first, second):
                if text in line and text not in stamps:
                    fields = [int(x) for x in STAMP.match(line).groups()]
                    stamps[text] = time.mktime((*fields, 0, 0, -1))
        return stamps[second] - stamps[first]


def log_folders(wine):
    return [wine.unix_path(LOGS_DIR + r"\updatetool"),
            wine.temp_folder() / "updatetool-data" / "updatetool"]


def run(wine, tool, *args, extra_env=None, timeout=120):
    """One run of the tool and its log. The log file is removed afterwards: its name only has
    whole seconds, so a next run in the same second would otherwise write over it."""
    started = int(time.time())
    # Output is not captured: a run that restarts the prefix has its service processes started
    # again from within it, and they would hold a pipe open long after the run ended.
    process = subprocess.Popen(["wine", str(tool), *args], env=dict(wine.env, **(extra_env or {})),
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    try:
        code = signed(process.wait(timeout=timeout))
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()
    ended = int(time.time()) + 1
    logs = [path for folder in log_folders(wine) if folder.exists()
            for path in folder.glob("*.log")]
    assert len(logs) == 1, logs
    text = read_log(logs[0])[1]
    logs[0].unlink()
    return Run(code, text, started, ended)


# -- telemetry ------------------------------------------------------------------------------------
def telemetry_file(wine):
    return wine.unix_path(LOGS_DIR + r"\updatetool") / TELEMETRY_NAME


def telemetry(wine):
    return json.loads(telemetry_file(wine).read_text(encoding="utf-8"))


def workspace(wine):
    """The tool's workspace folder (where it looks for a downloaded installer), created."""
    folder = wine.temp_folder() / "updatetool-data"
    folder.mkdir(exist_ok=True)
    return folder
