"""Plays a whole agent update the way a person watching a real host would see it, in a Wine prefix
of its own: an agent at 8.12 installed from an MSI package, a local HTTPS package server (pinned by
thumbprint) offering 8.13, the update key written by hand as the management service would, a run
that downloads, the service's move to UPDATING, a run that installs, and what is left behind:
the agent at 8.13, the update key in DONE, the telemetry entries and the log."""
import hashlib
import json
import os
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from servers import Certificates, HttpsServer, Resource  # noqa: E402
from wine import CURRENT_ROOT, ROOT, TOOL, WinePrefix, read_log  # noqa: E402

DEMO = ROOT / "build" / "demo"
PREFIX = DEMO / "prefix"
UPDATE_ID = "{6F0B3A52-81D4-4C7E-9A21-3D5E7F90B1C4}"
UPDATE_KEY = CURRENT_ROOT + "\\Agent\\Update\\" + UPDATE_ID
UPGRADE_CODE = "{5D2E8B41-9C07-4F3A-A6E1-0B7C3D9F2E58}"
AGENT_NAME = "Lumenar Demo Agent"
UNINSTALL_KEY = r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\Uninstall"

WXS = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="{name}" Language="1033" Version="{version}" Manufacturer="Quorvane"
           UpgradeCode="{upgrade}">
    <Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>
    <MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>
    <Media Id="1" Cabinet="agent.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="{name}">
          <Component Id="Agent" Guid="{{3E9A1C70-5B2D-4F86-8D14-A7C0E2B95F31}}" Win64="yes">
            <File Id="Agent" Name="agent.bin" Source="agent.bin" KeyPath="yes"/>
          </Component>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Agent"/></Feature>
  </Product>
</Wix>
"""


def say(text):
    print(f"\n[demo] {text}", flush=True)


def detail(text):
    print(f"       {text}", flush=True)


def build_msi(version, size):
    import subprocess
    folder = DEMO / "packages" / version
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "agent.bin").write_bytes(os.urandom(size))  # incompressible: a visible download
    (folder / "agent.wxs").write_text(WXS.format(name=AGENT_NAME, version=version, upgrade=UPGRADE_CODE))
    package = DEMO / "packages" / f"lumenar-agent-{version}.msi"
    subprocess.run(["wixl", "-a", "x64", "-o", str(package), str(folder / "agent.wxs")],
                   check=True, capture_output=True, cwd=folder, timeout=120)
    return package


def installed_version(wine):
    import subprocess
    out = subprocess.run(["wine", "reg", "query", UNINSTALL_KEY, "/s"], env=wine.env,
                         stdin=subprocess.DEVNULL, capture_output=True, timeout=120).stdout
    name = None
    for line in out.decode("utf-8", "replace").splitlines():
        parts = line.strip().split(None, 2)
        if len(parts) == 3 and parts[0] == "DisplayName":
            name = parts[2]
        if len(parts) == 3 and parts[0] == "DisplayVersion" and name == AGENT_NAME:
            return parts[2]
    return "not installed"


def multi_sz(*values):
    """A .reg hex(7) multi-string."""
    data = "".join(v + "\0" for v in values) + "\0"
    return "hex(7):" + ",".join(f"{b:02x}" for b in data.encode("utf-16-le"))


def reg_text(text):
    return text.replace("\\", "\\\\").replace('"', '\\"')


def show_update_key(wine, *names):
    for name in names:
        detail(f"{name:<9} = {wine.query(UPDATE_KEY, name)}")


def run_tool(wine, keep):
    """Runs the tool; prints the console lines that show what it did."""
    started = time.monotonic()
    code, out, _ = wine.run(TOOL)
    for line in out.splitlines():
        message = line.split(": ", 1)[-1]
        if any(word in message for word in keep):
            detail(line)
    detail(f"updatetool.exe exited with {code} after {time.monotonic() - started:.1f} s")
    return code


def main():
    say(f"creating a fresh Windows environment (Wine prefix) in {PREFIX}")
    wine = WinePrefix(PREFIX)
    wine.create()
    server = None
    try:
        logs = wine.unix_path(r"C:\logs")
        logs.mkdir(parents=True, exist_ok=True)
        wine.import_reg(f"[{CURRENT_ROOT}]\n\"InstallLogsDir\"=\"C:\\\\logs\"\n")
        detail("logs folder: C:\\logs (InstallLogsDir)")

        say("two quick runs first: the update feature switched off, then on with nothing to do")
        wine.import_reg(f"[{CURRENT_ROOT}\\Agent\\Update]\n\"Enabled\"=\"0\"\n")
        run_tool(wine, ["==="])
        detail("-> -2: refused at once; the log holds only its banners")
        wine.import_reg(f"[{CURRENT_ROOT}\\Agent\\Update]\n\"Enabled\"=\"1\"\n\"RetryWaitPeriod\"=\"2000\"\n")
        time.sleep(1.1)  # one log file per second
        run_tool(wine, ["No Quorvane active updates", "rc ="])
        detail("-> -1: no update key, nothing to do")

        say("installing the agent at 8.12 from an MSI package (msiexec /i ... /qn)")
        old, new = build_msi("8.12.0", 64 * 1024), build_msi("8.13.0", 12 * 1024 * 1024)
        drive_c_copy = wine.unix_path(r"C:\demo-agent-8.12.0.msi")
        drive_c_copy.write_bytes(old.read_bytes())
        code, _, _ = wine.run("msiexec", "/i", r"C:\demo-agent-8.12.0.msi", "/qn", timeout=300)
        detail(f"msiexec exited with {code}; installed version: {installed_version(wine)}")

        say("starting a local HTTPS package server offering 8.13")
        certs = Certificates(DEMO / "certs")
        server = HttpsServer(certs.localhost)
        body = new.read_bytes()
        url = server.add("/packages/lumenar-agent-8.13.0.msi", Resource(body=body, etag='"v8.13.0"'))
        thumbprint = certs.localhost.sha256()
        checksum = hashlib.sha256(body).hexdigest()
        detail(f"{url}  ({len(body)} bytes)")
        detail(f"server certificate SHA-256 thumbprint (pinned): {thumbprint}")

        say("the management service writes the update key, state DOWNLOAD")
        metadata = f'<PROPERTYBAG><ITEM name="THUMBPRINT">{thumbprint}</ITEM></PROPERTYBAG>'
        wine.import_reg(
            f"[{UPDATE_KEY}]\n"
            '"STATE"="DOWNLOAD"\n"AGENT"="OTHER"\n"VERSION"="8.13.0"\n"ARCH"="64-BitAgent"\n'
            f'"URL"={multi_sz(url)}\n"CERTTYPE"="THUMBPRINT"\n"METADATA"="{reg_text(metadata)}"\n'
            f'"FILESIZE"="{len(body)}"\n"CHECKSUM"="sha256:{checksum}"\n')
        detail(f"HKLM\\...\\Agent\\Update\\{UPDATE_ID}")
        show_update_key(wine, "STATE", "AGENT", "VERSION", "CERTTYPE", "FILESIZE")

        say("run 1: the tool downloads the package (the content client's progress in its log)")
        time.sleep(1.1)
        run_tool(wine, ["[INFO]", "[WARNING]", "[ERROR]", "Util_DoDownload:", "new state", "rc ="])
        show_update_key(wine, "STATE", "RESULT", "FILENAME")

        say("the management service sees the package and moves the update to UPDATING")
        wine.import_reg(f"[{UPDATE_KEY}]\n\"STATE\"=\"UPDATING\"\n")
        show_update_key(wine, "STATE")

        say("run 2: the tool checks platform and version and runs the installer silently")
        time.sleep(1.1)
        run_tool(wine, ["=== ", "App::CheckPlatform", "launching", "returned", "agent update",
                        "Deleted", "new state", "rc ="])
        show_update_key(wine, "STATE", "RESULT", "RETRY")
        detail(f"installed version now: {installed_version(wine)}")

        say("telemetry: C:\\logs\\updatetool\\UpdateToolTelemetryData.json")
        telemetry = json.loads(wine.unix_path(r"C:\logs\updatetool\UpdateToolTelemetryData.json")
                               .read_text(encoding="utf-8", errors="replace"))
        for entry in telemetry["updateTool"]:
            detail(json.dumps(entry, sort_keys=True))

        say("the run logs: C:\\logs\\updatetool\\ (one UTF-16 file per run)")
        for path in sorted(wine.unix_path(r"C:\logs\updatetool").glob("*.log")):
            _, text = read_log(path)
            lines = [line for line in text.split("\r\n") if line]
            detail(f"{path.name}: {len(lines)} lines, last: {lines[-2] if len(lines) > 1 else lines[-1]}")
    finally:
        if server:
            server.stop()
        wine.kill_server()
    say(f"done. The prefix stays in {PREFIX} for a closer look (docs/manual-update.md); nothing is left running.")


if __name__ == "__main__":
    main()
