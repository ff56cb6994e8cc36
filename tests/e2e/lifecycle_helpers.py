"""Set-up and read-back for the lifecycle scenarios: one update key carried across several runs,
with the management service's moves between runs played by the test."""
import hashlib
import json
import subprocess
import tempfile
import time

import scenario
from packages import Packages, UNINSTALL_KEY
from wine import CURRENT_ROOT, read_log, signed

UPDATE_ID = "{2B7E4C90-6A13-4D5F-8E27-C1F0A9D3B845}"
LOGS = scenario.LOGS_DIR  # the `wine` fixture creates it empty for every test


def update_key(root=CURRENT_ROOT, key_id=UPDATE_ID):
    return scenario.update_key(root, key_id)


def volatile_key(root=CURRENT_ROOT):
    return scenario.need_reboot_key(root)


write = scenario.arrange  # {key path: {value name: data}} in one regedit run
key_values = scenario.values


def settings(max_retry=2, retry_wait_ms=1000):
    """Logs in C:\\logs, and a retry pause short enough for a test (the default is five minutes)."""
    return scenario.settings(LOGS, max_retry, retry_wait_ms)


def service_sets_state(wine, state, root=CURRENT_ROOT):
    """The management service's move between two runs."""
    write(wine, {update_key(root): {"STATE": state}})


def outcome(wine, root=CURRENT_ROOT, names=("STATE", "RESULT", "RETRY")):
    values = key_values(wine, update_key(root)) or {}
    return {name: values.get(name) for name in names}


# -- the package server ---------------------------------------------------------------------------
def metadata(thumbprint):
    return f'<PROPERTYBAG><ITEM name="THUMBPRINT">{thumbprint}</ITEM></PROPERTYBAG>'


def download_values(certs, urls, body, **extra):
    """An update key in DOWNLOAD for a generic agent, its server pinned by thumbprint."""
    values = {"STATE": "DOWNLOAD", "AGENT": "OTHER", "ARCH": "64-BitAgent", "URL": list(urls),
              "CERTTYPE": "THUMBPRINT", "METADATA": metadata(certs.localhost.sha256()),
              "FILESIZE": str(len(body)), "CHECKSUM": "sha256:" + hashlib.sha256(body).hexdigest()}
    values.update(extra)
    return values


# -- runs -----------------------------------------------------------------------------------------
class Run:
    def __init__(self, code, out, seconds):
        self.code, self.out, self.seconds = code, out, seconds

    def messages(self):
        """The console lines without their time stamps (the same lines as the log's)."""
        return [line.split(": ", 1)[-1] for line in self.out.replace("\r", "").split("\n") if line]


def run_tool(wine, tool, *args, extra_env=None, timeout=120):
    """Runs the tool with its output in a file, not a pipe: after a restart the prefix's services
    start again holding the tool's handles, and a pipe would then never close."""
    env = dict(wine.env, **(extra_env or {}))
    with tempfile.TemporaryFile() as output:
        started = time.monotonic()
        process = subprocess.Popen(["wine", str(tool), *args], env=env, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=subprocess.DEVNULL)
        try:
            code = process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise
        seconds = time.monotonic() - started
        output.seek(0)
        return Run(signed(code), output.read().decode("utf-8", "replace"), seconds)


def last_log(wine):
    """The newest run log's messages (one file per second: a later run in the same second rewrites
    it, so the newest file is always the last run's)."""
    files = sorted(wine.unix_path(LOGS + r"\updatetool").glob("*.log"))
    assert files, "no run log"
    return [line.split(": ", 1)[-1] for line in read_log(files[-1])[1].split("\r\n") if line]


def telemetry(wine):
    path = wine.unix_path(LOGS + r"\updatetool\UpdateToolTelemetryData.json")
    return json.loads(path.read_text(encoding="utf-8"))["updateTool"]


# -- installed products ---------------------------------------------------------------------------
_UPGRADABLE_WXS = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="{name}" Language="1033" Version="{version}" Manufacturer="Quorvane Tests"
           UpgradeCode="{upgrade_code}">
    <Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>
    <MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>
    <Media Id="1" Cabinet="agent.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="{name}">
          <Component Id="Agent" Guid="{{4A1D7E25-90B3-4C68-B5F2-3E8C0D6A7B19}}" Win64="yes">
            <File Id="Agent" Name="agent.txt" Source="agent.txt" KeyPath="yes"/>
          </Component>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Agent"/></Feature>
  </Product>
</Wix>
"""


class AgentPackages(Packages):
    def upgradable_msi(self, name, version, upgrade_code, payload=None):
        """An x64 MSI whose next version replaces it (a major upgrade), as agent releases do. Its one
        file, agent.txt, holds payload (bytes) or else the name and version."""
        source = self.folder / f"{name.replace(' ', '-')}-{version}"
        source.mkdir()
        (source / "agent.txt").write_bytes(payload if payload is not None
                                           else f"{name} {version}\n".encode())
        (source / "agent.wxs").write_text(
            _UPGRADABLE_WXS.format(name=name, version=version, upgrade_code=upgrade_code))
        package = self.folder / f"{source.name}.msi"
        subprocess.run(["wixl", "-a", "x64", "-o", str(package), str(source / "agent.wxs")],
                       check=True, capture_output=True, cwd=source, timeout=120)
        self._built.append(package)  # uninstalled again by remove()
        return package


def installed_versions(wine, name, attempts=3):
    """DisplayVersion of every product registered for uninstall under that name. Asks again when
    `reg` fails or prints nothing, as key_values does."""
    for _ in range(attempts):
        result = subprocess.run(["wine", "reg", "query", UNINSTALL_KEY, "/s"], env=wine.env,
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
        if result.returncode == 0 and result.stdout.strip():
            break
        time.sleep(0.5)
    versions, entry = [], {}
    for line in result.stdout.decode("utf-8", "replace").splitlines() + [""]:
        if not line.startswith(" "):  # a key line (or the end) closes the previous entry
            if entry.get("DisplayName") == name:
                versions.append(entry.get("DisplayVersion"))
            entry = {}
            continue
        parts = line.strip().split(None, 2)
        if len(parts) == 3:
            entry[parts[0]] = parts[2]
    return versions


