"""A throwaway Wine prefix for end-to-end runs of the real updatetool.exe.

The prefix lives under build/ and is created fresh for each test session. Its wineserver is kept
running for the whole session (volatile registry keys live only as long as it does); ending the
server plays a machine restart.
"""
import codecs
import os
import pathlib
import shutil
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("UPDATETOOL_BIN") or ROOT / "build" / "windows" / "bin")  # another build's bin/
TOOL = BIN / "updatetool.exe"

CURRENT_ROOT = r"HKEY_LOCAL_MACHINE\Software\Quorvane\Lumenar"
LEGACY_ROOT = r"HKEY_LOCAL_MACHINE\Software\Tessix, Inc.\Tessix KDX"


def signed(code):
    """Wine hands back exit codes modulo 256: 252 is -4."""
    return code - 256 if code > 127 else code


class WinePrefix:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.env = dict(os.environ, WINEPREFIX=str(self.path), WINEDEBUG="-all",
                        WINEDLLOVERRIDES="mscoree,mshtml=")

    # -- life cycle -------------------------------------------------------------------------------
    def create(self):
        if self.path.exists():
            self.kill_server()
            shutil.rmtree(self.path)
        self.path.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["wineboot", "-i"], env=self.env, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=300)
        self.restart()

    def start_server(self):
        """Call with no server running. A persistent server, and the prefix's service processes started once with their output
        discarded: they inherit the handles of the first program and would hold a pipe open."""
        subprocess.run(["wineserver", "-p"], env=self.env, check=True, timeout=60,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run(["wine", "cmd", "/c", "exit"], env=self.env, timeout=120,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)

    def kill_server(self):
        subprocess.run(["wineserver", "-k"], env=self.env, timeout=60,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run(["wineserver", "-w"], env=self.env, timeout=60,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def restart(self):
        """What a machine restart looks like here: every process ends, volatile keys vanish."""
        self.kill_server()
        self.start_server()

    def destroy(self):
        self.kill_server()
        shutil.rmtree(self.path, ignore_errors=True)

    # -- paths ------------------------------------------------------------------------------------
    def unix_path(self, windows_path):
        drive, rest = windows_path.split(":", 1)
        assert drive.upper() == "C", windows_path
        return self.path / "drive_c" / rest.lstrip("\\").replace("\\", "/")

    def temp_folder(self):
        """The tool's %TEMP% as a Unix path (Wine's layout differs between versions)."""
        users = self.path / "drive_c" / "users"
        for candidate in sorted(users.glob("*/Temp")) + sorted(users.glob("*/AppData/Local/Temp")):
            if candidate.parent.name != "Public":
                return candidate
        raise AssertionError("no temp folder in the prefix")

    # -- registry ---------------------------------------------------------------------------------
    def import_reg(self, body):
        """Imports .reg text; regedit reads multi-strings right only from UTF-16LE with a BOM."""
        text = "Windows Registry Editor Version 5.00\r\n\r\n" + body.replace("\r\n", "\n").replace("\n", "\r\n") + "\r\n"
        path = self.path / "import.reg"
        path.write_bytes(codecs.BOM_UTF16_LE + text.encode("utf-16-le"))
        subprocess.run(["wine", "regedit", "/S", str(path)], env=self.env, check=True,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=60)

    def delete_key(self, key):
        subprocess.run(["wine", "reg", "delete", key, "/f"], env=self.env,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=60)

    def query(self, key, value):
        """The value's data as `reg query` prints it, or None when it is missing."""
        result = subprocess.run(["wine", "reg", "query", key, "/v", value], env=self.env,
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
        if result.returncode != 0:
            return None
        for line in result.stdout.decode("utf-8", "replace").splitlines():
            parts = line.strip().split(None, 2)
            if len(parts) >= 2 and parts[0].lower() == value.lower() and parts[1].startswith("REG_"):
                return parts[2] if len(parts) == 3 else ""
        return None

    # -- programs ---------------------------------------------------------------------------------
    def start(self, program, *args, extra_env=None):
        env = dict(self.env, **(extra_env or {}))
        return subprocess.Popen(["wine", str(program), *args], env=env, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def run(self, program, *args, extra_env=None, timeout=120):
        proc = self.start(program, *args, extra_env=extra_env)
        out, err = proc.communicate(timeout=timeout)
        return signed(proc.returncode), out.decode("utf-8", "replace"), err.decode("utf-8", "replace")


def read_log(path):
    """A tool log: UTF-16LE after a BOM. Returns (raw bytes, text); a lone surrogate the log
    repeats from the registry stays one in the text."""
    raw = pathlib.Path(path).read_bytes()
    assert raw[:2] == codecs.BOM_UTF16_LE, "log must start with FF FE"
    return raw, raw[2:].decode("utf-16-le", "surrogatepass")


def wait_for(predicate, timeout=30.0, interval=0.1):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(interval)
    return predicate()
