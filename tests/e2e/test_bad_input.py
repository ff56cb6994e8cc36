"""Input no well-behaved writer produces, under Wine: update-key values of the wrong type, empty,
of 1 MiB or holding text that is no valid UTF-16, a metadata document nested a thousand deep, a
damaged or very large telemetry file and a log file another program holds open. Whatever the input,
a run ends through its closing steps with a line that says what it made of it."""
import json
import subprocess
import time

import pytest

from packages import copy_test_installer
from scenario import (LOGS_DIR, URL, Raw, arrange, run, settings, telemetry, telemetry_file,
                      update_key, values, workspace)
from wine import BIN, CURRENT_ROOT, read_log

KEY_ID = "{e2e-bad-input}"
MIB = 1 << 20
DEAD_URL = "https://localhost:9/setup.exe"  # nothing listens there: the download fails at once
TAR_URL = "https://localhost:9/package.tar.gz"  # a tar payload: the package's names make its path
DOWNLOAD = {"STATE": "DOWNLOAD", "AGENT": "OTHER", "VERSION": "8.13.0", "URL": [DEAD_URL],
            "CERTTYPE": "CERT_SYSTEM_CA", "ARCH": "64-BitAgent"}
INSTALL = {"STATE": "UPDATING", "AGENT": "OTHER", "VERSION": "8.13.0", "URL": [URL],
           "ARCH": "64-BitAgent", "FILENAME": "setup.exe"}  # the test installer, exits with 0
# Each value is spoiled in the run that uses it; the values a run does not use are the base's.
BASES = {name: DOWNLOAD for name in ("STATE", "URL", "PROXY", "PACURL", "CHECKSUM", "FILESIZE",
                                     "CERTTYPE", "RESULT", "RETRY")}
BASES.update({name: INSTALL for name in ("AGENT", "VERSION", "ARCH", "FILENAME", "OPTIONS")})
BASES.update(METADATA=dict(DOWNLOAD, CERTTYPE="THUMBPRINT"),
             PACKAGEFILENAME=dict(DOWNLOAD, URL=[TAR_URL]),
             RELATIVEFOLDERPATH=dict(DOWNLOAD, URL=[TAR_URL]),
             PreflightCheckComplete=dict(INSTALL, OPTIONS="PREFLIGHTCHECK_ENABLED=2"))
MULTI = {"URL", "PROXY"}


PIN_ITEM = '<ITEM name="THUMBPRINT">' + "ab" * 20 + "</ITEM>"
PIN_COUNT = MIB // 2 // len(PIN_ITEM)  # as many as fill 1 MiB


def spoiled(name, kind):
    """The value's data for one kind of bad input."""
    plain = BASES[name].get(name, "x")
    plain = plain[0] if isinstance(plain, list) else plain
    if kind == "binary":  # the bytes of good text, stored as REG_BINARY
        return Raw(plain.encode("utf-16-le") + b"\0\0")
    if kind == "dword":
        return 7
    if kind == "empty":
        return [] if name in MULTI else ""
    if kind == "lone":  # a high surrogate with no low one after it
        raw = plain.encode("utf-16-le") + b"\x00\xd8\0\0"
        return Raw(raw + b"\0\0", 7) if name in MULTI else Raw(raw, 1)
    assert kind == "huge"  # 1 MiB of UTF-16
    if name == "METADATA":
        return "<PROPERTYBAG>" + PIN_ITEM * PIN_COUNT + "</PROPERTYBAG>"
    text = (DEAD_URL if name in MULTI else "") + "9" * (MIB // 2 - 1)
    return [text[:MIB // 2 - 2]] if name in MULTI else text[:MIB // 2 - 1]


# What a run makes of it: exit code, a line it logs, and the STATE and RESULT it stores.
NO_STATE = (-1, "UtilStateId: invalid state: ", "", "")  # nothing to do, and said so
NO_URL = (-1, "UtilGetRegistry: required parameter empty", "DOWNLOAD", "")
NO_AGENT = (-1, "UtilGetRegistry: required parameter empty", "UPDATING", "FAILURE")
BAD_AGENT = (-1, "Util_GetUpdateState: Update key: {id} invalid agent: ", "UPDATING", "FAILURE")
FAILED = (-1, "Util_DoDownload: download failed: ", "DONE", "FAILURE")
NO_TEXT = (-1, "Util_DoDownload: update key holds text that is not valid UTF-16", "DOWNLOAD",
           "INVALID")
NO_CERT = (-1, "Util_DoDownload: certificate type not specified", "DOWNLOAD", "INVALID")
BAD_CERT = (-1, "Util_DoDownload: Invalid certificate type specified", "DOWNLOAD", "INVALID")
NO_PINS = (-1, "Util_DoDownload: CertType is specified as THUMBPRINT, but thumbprints are not "
               "provided", "DOWNLOAD", "INVALID")
BAD_BAG = (-1, "PropertyBag Parse failed: expected start of property bag, line=1, col=1",
           "DOWNLOAD", "INVALID")
PINS = (-1, "Util_DoDownload: Using thumbprints for verifying server certificate. Thumbprint "
            f"count: {PIN_COUNT}", "DONE", "FAILURE")
INSTALLED = (-4, "App::Update: agent update succeeded", "DONE", "OK")
NO_ARCH = (-6, "App::CheckPlatform: arch type empty", "UPDATING", "INVALID")
BAD_ARCH = (-6, "App::CheckPlatform: arch type mismatch: ", "UPDATING", "INVALID")
NO_INSTALLER = (-4, "Agent::UpdateAvailable: update installer empty", "DONE", "OK")
BAD_INSTALLER = (-1, "GenericAgent::Launch: invalid extension: ", "UPDATING", "FAILURE")
PREFLIGHT = (-9, "App::performPreflightChecks: begin..", "READY", "OK")
NO_PREFLIGHT = (-4, "wmain: legacy workflow in use and preflight check is already completed",
                "DONE", "OK")

KINDS = ("binary", "dword", "empty", "huge", "lone")
TABLE = {  # value: outcomes in the order of KINDS
    "STATE": (NO_STATE,) * 5,
    "URL": (NO_URL, FAILED, NO_URL, FAILED, NO_TEXT),  # "7" and 1 MiB: no usable location
    "PROXY": (FAILED,) * 4 + (NO_TEXT,),
    "PACURL": (FAILED,) * 4 + (NO_TEXT,),
    "METADATA": (NO_PINS, BAD_BAG, NO_PINS, PINS, BAD_BAG),
    "CHECKSUM": (FAILED,) * 4 + (NO_TEXT,),
    "FILESIZE": (FAILED,) * 5,  # not a number: the size is unknown
    "CERTTYPE": (NO_CERT, BAD_CERT, NO_CERT, BAD_CERT, BAD_CERT),
    "RESULT": (FAILED,) * 5,  # the download writes its own
    "RETRY": (FAILED,) * 5,  # not a number: no attempt used yet
    "PACKAGEFILENAME": (FAILED,) * 5,
    "RELATIVEFOLDERPATH": (FAILED,) * 5,
    "AGENT": (NO_AGENT, BAD_AGENT, NO_AGENT, BAD_AGENT, BAD_AGENT),
    "VERSION": (INSTALLED,) * 5,  # nothing installed to compare with
    "ARCH": (NO_ARCH, BAD_ARCH, NO_ARCH, BAD_ARCH, BAD_ARCH),
    "FILENAME": (NO_INSTALLER, BAD_INSTALLER, NO_INSTALLER, BAD_INSTALLER, BAD_INSTALLER),
    "OPTIONS": (INSTALLED,) * 5,  # appended to the installer's command line as they are
    "PreflightCheckComplete": (PREFLIGHT, NO_PREFLIGHT, PREFLIGHT, NO_PREFLIGHT, PREFLIGHT),
}
CASES = [(name, kind, outcome) for name, outcomes in TABLE.items()
         for kind, outcome in zip(KINDS, outcomes)]


def assert_closes(result, code):
    """The closing steps in their order, each of them reached, and the run's result as exit code."""
    assert result.code == code
    name = {-1: "ERR_FAILURE", -4: "ERR_NOAGENT", -6: "ERR_INCOMPATIBLE",
            -9: "ERR_PREFLIGHTCHECK_OK"}[code]
    closing = result.order_of(
        f"Util_UpdateDone: Updating state for result '{name}'",
        "Util_UpdateDataForTelemetry: ",
        "Util_DeleteRegistryIfExists: ",  # the clean-up
        f"wmain: Updatetool rc = {name}")
    assert None not in closing and closing == sorted(closing), closing
    assert result.messages[-1] == "=== End ==="


@pytest.mark.parametrize("name, kind, outcome", CASES,
                         ids=[f"{name}-{kind}" for name, kind, _ in CASES])
def test_a_spoiled_update_value_ends_the_run_with_a_line_saying_so(wine, tool, name, kind, outcome):
    code, line, state, result_text = outcome
    copy_test_installer(workspace(wine), "setup.exe")
    arrange(wine, settings(), {update_key(CURRENT_ROOT, KEY_ID): dict(BASES[name])},
            {update_key(CURRENT_ROOT, KEY_ID): {name: spoiled(name, kind)}})

    result = run(wine, tool)

    assert_closes(result, code)
    assert any(m.startswith(line.format(id=KEY_ID)) for m in result.messages), line
    stored = values(wine, update_key(CURRENT_ROOT, KEY_ID))
    assert (stored["STATE"], stored["RESULT"]) == (state, result_text)
    # The run is on record whatever its values held: text that is no valid UTF-16 goes to the
    # telemetry file as the replacement character rather than costing the run its entry.
    assert "wmain: telemetry failed" not in " ".join(result.messages)
    assert [entry["updatedGUID"] for entry in telemetry(wine)["updateTool"]] == [KEY_ID]


@pytest.mark.parametrize("retry, stored_retry", [
    ("2147483646", "2147483647"),
    ("2147483647", "2147483647"),  # no attempt is left past the largest count, nor a new round
    ("2147483648", "1"),  # out of range: read as no attempt used
    ("-2147483648", "-2147483647"),
])
def test_attempt_counts_at_the_edges_of_their_range_do_not_restart_the_retries(wine, tool, retry,
                                                                              stored_retry):
    # An earlier attempt's package path: a reissued update (no FILENAME) would count afresh.
    arrange(wine, settings(max_retry=2), {update_key(CURRENT_ROOT, KEY_ID): dict(
        DOWNLOAD, RETRY=retry, FILENAME=r"C:\earlier\setup.exe")})

    result = run(wine, tool)

    assert_closes(result, -1)
    stored = values(wine, update_key(CURRENT_ROOT, KEY_ID))
    again = int(stored_retry) <= 2
    assert (stored["STATE"], stored["RESULT"], stored["RETRY"]) == (
        ("READY", "PROGRESS") if again else ("DONE", "FAILURE")) + (stored_retry,)


def test_metadata_nested_a_thousand_deep_is_refused_and_the_download_with_it(wine, tool):
    bag = ('<PROPERTYBAG><ITEM name="LEVEL">' * 1000 + "<PROPERTYBAG>" + PIN_ITEM
           + "</PROPERTYBAG>" + "</ITEM></PROPERTYBAG>" * 1000)
    arrange(wine, settings(), {update_key(CURRENT_ROOT, KEY_ID): dict(BASES["METADATA"],
                                                                     METADATA=bag)})

    result = run(wine, tool)

    assert_closes(result, -1)
    assert any(m.startswith("PropertyBag Parse failed: expected end of item, line=1, col=")
               for m in result.messages)
    assert any(m.startswith(NO_PINS[1]) for m in result.messages)
    stored = values(wine, update_key(CURRENT_ROOT, KEY_ID))
    assert (stored["STATE"], stored["RESULT"]) == ("DOWNLOAD", "INVALID")


# -- telemetry file -------------------------------------------------------------------------------
ENTRY = {"updatedGUID": "{earlier}", "type": "OTHER", "fileName": "setup.exe", "version": "8.12.0",
         "timestamp": 1700000000, "status": "DONE", "attempt": 0, "result": "OK"}


def history(count):
    return json.dumps({"updateTool": [dict(ENTRY, attempt=i) for i in range(count)]}).encode()


@pytest.mark.parametrize("content, intact", [
    (b"\0" * 4096, 0),
    (b"\xff\xfe{\0}\0", 0),  # UTF-16 with a byte-order mark: not this file's encoding
    (history(3)[:-40], 2),  # cut off in the third entry: what was read in full is kept
    (b"[" * 100000 + b"]" * 100000, 0),  # nested past what the reader takes
    (history(150000), 150000),  # about 50 MiB of earlier runs
], ids=["zeros", "utf16", "truncated", "deep", "50MiB"])
def test_a_damaged_or_large_telemetry_file_still_gets_the_runs_entry(wine, tool, content, intact):
    file = telemetry_file(wine)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content)
    arrange(wine, settings(), {update_key(CURRENT_ROOT, KEY_ID): dict(DOWNLOAD, STATE="READY")})

    started = time.monotonic()
    result = run(wine, tool)

    assert_closes(result, -1)
    assert time.monotonic() - started < 60
    path = LOGS_DIR + r"\updatetool\UpdateToolTelemetryData.json"
    assert f"Util_UpdateDataForTelemetry: Saving to json file - {path} completed" in result.messages
    document, _ = json.JSONDecoder().raw_decode(file.read_bytes().decode("utf-8", "replace"))
    *earlier, latest = document["updateTool"]
    assert earlier[:intact] == [dict(ENTRY, attempt=i) for i in range(intact)]
    assert latest["updatedGUID"] == KEY_ID


# -- log file held open by another program --------------------------------------------------------
@pytest.fixture(scope="module")
def locker():
    """tests/tools/file_locker.cpp: holds files open without sharing until its input closes."""
    program = BIN / "file_locker.exe"
    if not program.exists():
        pytest.fail(f"{program} is missing: build the windows preset first")
    return program


def log_names(seconds):
    """The log file names of runs starting in the next few seconds."""
    now = time.time()
    return [time.strftime("Quorvane_Agent_Update_%Y%m%d%H%M%S.log", time.localtime(now + s))
            for s in range(seconds)]


@pytest.mark.parametrize("released", [False, True], ids=["held-throughout", "released-midway"])
def test_a_locked_log_file_does_not_stop_the_run(wine, tool, locker, released):
    folder = wine.unix_path(LOGS_DIR + r"\updatetool")
    folder.mkdir(parents=True)
    names = log_names(8)  # whichever second the run starts in, its file is held
    # A download that fails and waits for its retry: a pause in which the lock goes away.
    arrange(wine, settings(max_retry=1, retry_wait_ms=4000),
            {update_key(CURRENT_ROOT, KEY_ID): dict(DOWNLOAD)})
    holder = subprocess.Popen(["wine", str(locker)] + [LOGS_DIR + "\\updatetool\\" + n for n in names],
                              env=wine.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL)
    try:
        assert holder.stdout.readline().strip() == b"locked"
        runner = subprocess.Popen(["wine", str(tool)], env=wine.env, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        console = b""
        if released:
            line = runner.stdout.readline()
            while line and b"Util_UpdateDone: wait for 0 mins" not in line:
                console += line
                line = runner.stdout.readline()
            console += line
            holder.communicate(b"\n", timeout=30)
        console += runner.communicate(timeout=120)[0]
    finally:
        if holder.poll() is None:
            holder.kill()
        holder.wait()
    assert runner.returncode == 255  # -1: the run went on to its end
    lines = console.decode("utf-8", "replace").splitlines()
    assert lines[-2:] == [lines[-2][:21] + "wmain: Updatetool rc = ERR_FAILURE",
                          lines[-1][:21] + "=== End ==="]
    written = {path.name: path.read_bytes() for path in folder.glob("*.log") if path.stat().st_size}
    if released:
        # The first line after the lock went away wrote the whole log: nothing was lost.
        [(name, raw)] = written.items()
        assert name in names
        text = read_log(folder / name)[1]
        assert text.replace("\r\n", "\n") == "\n".join(lines) + "\n"
    else:
        assert written == {}  # the holder's files stay as it made them, empty
