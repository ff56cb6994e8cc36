"""What only the real registry and disk can hold: update-key values of the raw types and sizes that
only regedit writes (what the tool decides for each value is unit-tested against the fakes), and a
telemetry history of 50 MiB."""
import json
import time

import pytest

from harness import TELEMETRY, Raw, settings, update_key

KEY_ID = "{e2e-raw-registry}"
MIB = 1 << 20
DOWNLOAD = {"STATE": "DOWNLOAD", "AGENT": "OTHER", "VERSION": "8.13.0", "URL": ["https://localhost:9/setup.exe"],
            "CERTTYPE": "CERT_SYSTEM_CA", "ARCH": "64-BitAgent"}  # nothing listens on port 9
INSTALL = dict(DOWNLOAD, STATE="UPDATING", FILENAME="setup.exe")  # the test installer, exits with 0
PIN = '<ITEM name="THUMBPRINT">' + "ab" * 20 + "</ITEM>"
PINS = MIB // 2 // len(PIN)  # as many as fill 1 MiB of UTF-16
LONE = "\ud800"  # a high surrogate with no low one after it


def utf16(text, terminators=1):
    return text.encode("utf-16-le", "surrogatepass") + b"\0\0" * terminators


@pytest.mark.parametrize("base, value, code, line, stored", [
    (DOWNLOAD, {"STATE": 7}, -1, "UtilStateId: invalid state: ", ("", "")),
    # The bytes of good text, stored as REG_BINARY: no list of locations.
    (DOWNLOAD, {"URL": Raw(utf16("https://localhost:9/setup.exe", 2))}, -1,
     "UtilGetRegistry: required parameter empty", ("DOWNLOAD", "")),
    (DOWNLOAD, {"URL": Raw(utf16("https://localhost:9/setup.exe" + LONE, 2), 7)}, -1,
     "Util_DoDownload: update key holds text that is not valid UTF-16", ("DOWNLOAD", "INVALID")),
    (dict(DOWNLOAD, CERTTYPE="THUMBPRINT"), {"METADATA": "<PROPERTYBAG>" + PIN * PINS + "</PROPERTYBAG>"}, -1,
     f"Util_DoDownload: Using thumbprints for verifying server certificate. Thumbprint count: {PINS}",
     ("DONE", "FAILURE")),
    # Handed to the installer as given: Wine takes a command line of 1 MiB (Windows stops at 32,767 characters).
    (INSTALL, {"OPTIONS": "9" * (MIB // 2 - 1)}, -4, "App::Update: agent update succeeded", ("DONE", "OK")),
    # Installed; the version goes to telemetry as U+FFFD rather than costing the run its entry.
    (INSTALL, {"VERSION": Raw(utf16("8.13" + LONE), 1)}, -4, "App::Update: agent update succeeded", ("DONE", "OK")),
], ids=["STATE-dword", "URL-binary", "URL-unpaired-surrogate", "METADATA-1MiB", "OPTIONS-1MiB", "VERSION-unpaired-surrogate"])
def test_raw_value_ends_the_run_with_a_line_saying_what_it_made_of_it(wine, packages, base, value, code, line,
                                                                       stored):
    packages.test_installer(wine.workspace)
    wine.arrange(settings(), {update_key(KEY_ID): base}, {update_key(KEY_ID): value})

    run = wine.tool()

    assert run.code == code
    assert run.says(line), run.log
    after = wine.values(update_key(KEY_ID))
    assert (after["STATE"], after["RESULT"]) == stored
    assert run.messages[-2:][0].startswith("wmain: Updatetool rc = ") and run.messages[-1] == "=== End ==="
    [entry] = wine.telemetry()
    assert entry["updatedGUID"] == KEY_ID
    assert "\ufffd" in entry["version"] if "VERSION" in value else entry["version"] == "8.13.0"


ENTRY = {"updatedGUID": "{earlier}", "type": "OTHER", "fileName": "setup.exe", "version": "8.12.0",
         "timestamp": 1700000000, "status": "DONE", "attempt": 0, "result": "OK"}


def test_telemetry_history_of_50_mib_is_appended_to(wine):
    file = wine.unix_path(TELEMETRY)
    file.parent.mkdir(parents=True)
    file.write_text(json.dumps({"updateTool": [dict(ENTRY, attempt=i) for i in range(150000)]}))
    wine.arrange(settings(), {update_key(KEY_ID): dict(DOWNLOAD, STATE="READY")})

    started = time.monotonic()
    run = wine.tool()

    assert run.code == -1 and time.monotonic() - started < 60
    assert run.says(f"Util_UpdateDataForTelemetry: Saving to json file - {TELEMETRY} completed")
    *earlier, latest = wine.telemetry()
    assert earlier == [dict(ENTRY, attempt=i) for i in range(150000)]
    assert latest["updatedGUID"] == KEY_ID
