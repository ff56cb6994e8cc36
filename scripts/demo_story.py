"""Plays a whole agent update the way a person watching a real host would see it, in a Wine prefix
of its own: an agent at 8.12 installed from an MSI package, a local HTTPS package server (pinned by
thumbprint) offering 8.13, the update key written by hand as the management service would, a run
that downloads, the service's move to UPDATING, a run that installs, and what is left behind:
the agent at 8.13, the update key in DONE, the telemetry entries and the log."""
import hashlib
import json
import pathlib
import os
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from harness import CURRENT_ROOT, ROOT, TOOL, WinePrefix, metadata, read_log, update_key  # noqa: E402
from packages import Packages  # noqa: E402
from servers import Certificates, HttpsServer, Resource  # noqa: E402

DEMO = ROOT / "build" / "demo"
PREFIX = DEMO / "prefix"
UPDATE_ID = "{6F0B3A52-81D4-4C7E-9A21-3D5E7F90B1C4}"
UPDATE_KEY = update_key(UPDATE_ID)
UPGRADE_CODE = "{5D2E8B41-9C07-4F3A-A6E1-0B7C3D9F2E58}"
AGENT_NAME = "Lumenar Demo Agent"


def say(text):
    print(f"\n[demo] {text}", flush=True)


def detail(text):
    print(f"       {text}", flush=True)


def installed_version(packages):
    return (packages.installed_versions(AGENT_NAME) or ["not installed"])[-1]


def show_update_key(wine, *names):
    for name in names:
        detail(f"{name:<9} = {(wine.values(UPDATE_KEY) or {}).get(name)}")


def run_tool(wine, keep):
    """Runs the tool; prints the console lines that show what it did."""
    started = time.monotonic()
    code = (run := wine.run(TOOL)).code
    for line in run.out.splitlines():
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
        wine.arrange({CURRENT_ROOT: {"InstallLogsDir": "C:\\logs"}})
        detail("logs folder: C:\\logs (InstallLogsDir)")

        say("two quick runs first: the update feature switched off, then on with nothing to do")
        wine.arrange({CURRENT_ROOT + r"\Agent\Update": {"Enabled": "0"}})
        run_tool(wine, ["==="])
        detail("-> -2: refused at once; the log holds only its banners")
        wine.arrange({CURRENT_ROOT + r"\Agent\Update": {"Enabled": "1", "RetryWaitPeriod": "2000"}})
        time.sleep(1.1)  # one log file per second
        run_tool(wine, ["No Quorvane active updates", "rc ="])
        detail("-> -1: no update key, nothing to do")

        say("installing the agent at 8.12 from an MSI package (msiexec /i ... /qn)")
        packages = Packages(wine)
        # Incompressible payloads: a visible download.
        old = packages.msi(AGENT_NAME, "8.12.0", UPGRADE_CODE, payload=os.urandom(64 * 1024), file="agent.bin")
        new = packages.msi(AGENT_NAME, "8.13.0", UPGRADE_CODE, payload=os.urandom(12 << 20), file="agent.bin")
        code = packages.msiexec("/i", old)
        detail(f"msiexec exited with {code}; installed version: {installed_version(packages)}")

        say("starting a local HTTPS package server offering 8.13")
        certs = Certificates(DEMO / "certs")
        server = HttpsServer(certs.localhost)
        body = new.read_bytes()
        url = server.add("/packages/lumenar-agent-8.13.0.msi", Resource(body=body, etag='"v8.13.0"'))
        thumbprint = certs.localhost.sha()
        checksum = hashlib.sha256(body).hexdigest()
        detail(f"{url}  ({len(body)} bytes)")
        detail(f"server certificate SHA-256 thumbprint (pinned): {thumbprint}")

        say("the management service writes the update key, state DOWNLOAD")
        wine.arrange({UPDATE_KEY: {"STATE": "DOWNLOAD", "AGENT": "OTHER", "VERSION": "8.13.0", "ARCH": "64-BitAgent",
                                   "URL": [url], "CERTTYPE": "THUMBPRINT", "METADATA": metadata(thumbprint),
                                   "FILESIZE": str(len(body)), "CHECKSUM": f"sha256:{checksum}"}})
        detail(f"HKLM\\...\\Agent\\Update\\{UPDATE_ID}")
        show_update_key(wine, "STATE", "AGENT", "VERSION", "CERTTYPE", "FILESIZE")

        say("run 1: the tool downloads the package (the content client's progress in its log)")
        time.sleep(1.1)
        run_tool(wine, ["[INFO]", "[WARNING]", "[ERROR]", "Util_DoDownload:", "new state", "rc ="])
        show_update_key(wine, "STATE", "RESULT", "FILENAME")

        say("the management service sees the package and moves the update to UPDATING")
        wine.arrange({UPDATE_KEY: {"STATE": "UPDATING"}})
        show_update_key(wine, "STATE")

        say("run 2: the tool checks platform and version and runs the installer silently")
        time.sleep(1.1)
        run_tool(wine, ["=== ", "App::CheckPlatform", "launching", "returned", "agent update",
                        "Deleted", "new state", "rc ="])
        show_update_key(wine, "STATE", "RESULT", "RETRY")
        detail(f"installed version now: {installed_version(packages)}")

        say("telemetry: C:\\logs\\updatetool\\UpdateToolTelemetryData.json")
        telemetry = json.loads(wine.unix_path(r"C:\logs\updatetool\UpdateToolTelemetryData.json")
                               .read_text(encoding="utf-8", errors="replace"))
        for entry in telemetry["updateTool"]:
            detail(json.dumps(entry, sort_keys=True))

        say("the run logs: C:\\logs\\updatetool\\ (one UTF-16 file per run)")
        for path in sorted(wine.unix_path(r"C:\logs\updatetool").glob("*.log")):
            text = read_log(path)
            lines = [line for line in text.split("\r\n") if line]
            detail(f"{path.name}: {len(lines)} lines, last: {lines[-2] if len(lines) > 1 else lines[-1]}")
    finally:
        if server:
            server.close()
        wine.kill_server()
    say(f"done. The prefix stays in {PREFIX} for a closer look (docs/manual-update.md); nothing is left running.")


if __name__ == "__main__":
    main()
