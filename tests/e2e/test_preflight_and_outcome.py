"""How a run ends under Wine: the preflight result, the state written back under one or both roots,
the telemetry file, and the restart a run asks for (under Wine it ends every process of the
prefix; the persistent server and its volatile keys stay until the test plays the real restart)."""
import json
import subprocess

import pytest

from packages import copy_test_installer
from scenario import (LOGS_DIR, URL, arrange, need_reboot_key, run, settings, telemetry,
                      telemetry_file, update_key, values, workspace)
from wine import CURRENT_ROOT, LEGACY_ROOT

KEY_ID = "{e2e-outcome}"
CHECK = "e2e-check"
WATCHED = CURRENT_ROOT + r"\E2E\Watched"  # a key the checks look at
WATCHED_TAIL = WATCHED.split("\\", 1)[1]  # the same key without its root
PREFLIGHT = "PREFLIGHTCHECK_ENABLED=1"
LEGACY_PREFLIGHT = "PREFLIGHTCHECK_ENABLED=2"
ROOTS = {"current": CURRENT_ROOT, "legacy": LEGACY_ROOT}
WATCHED_VALUES = {WATCHED: {"Mode": "Enabled", "Level": 1}}
ADDED = "App::performRegistryBasedChecks: preflight check [" + CHECK + "], action [{}] is added"
UNREADABLE = ("App::performRegistryBasedChecks: preflight check, unable to read keypath for "
              f"check: [{CHECK}], no action")
MATCHES = ("App::getValueMatchAction: preflight check [" + WATCHED + "], value matches, adding "
           "an action [{}] to process")


def update(root, state, **extra):
    return {update_key(root, KEY_ID): {"STATE": state, "AGENT": "OTHER", "URL": [URL],
                                       "ARCH": "64-BitAgent", **extra}}


def check(listed_under, **definition):
    """A check named under one root's list; its values always sit under the current root."""
    keys = {listed_under + r"\Agent\PreflightChecks" + "\\" + CHECK: {}}
    keys.setdefault(CURRENT_ROOT + r"\Agent\PreflightChecks" + "\\" + CHECK, {}).update(definition)
    return keys


def stored(wine, root):
    found = values(wine, update_key(root, KEY_ID))
    assert found is not None, f"no update key under {root}"
    assert "STATE" in found, (root, found)
    return found


def need_reboot(wine, root):
    return wine.query(need_reboot_key(root), "NeedReboot")


def waiting_program(wine):
    """cmd left waiting for input, or None when it ended before it was up. By its full path it
    runs as one process, which kill() ends for good."""
    program = subprocess.Popen(["wine", r"C:\windows\system32\cmd.exe", "/c",
                                "echo waiting&pause"], env=wine.env, stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    if program.stdout.readline().strip() == b"waiting":
        return program
    end(program)
    return None


def end(program):
    if program.poll() is None:
        program.kill()
    program.wait()
    program.stdout.close()
    program.stdin.close()


def still_up(program, seconds):
    try:
        program.wait(timeout=seconds)
        return False
    except subprocess.TimeoutExpired:
        return True


class Machine:
    """Tells whether the prefix was restarted (a program left waiting in it only ends then), and
    plays the real restart that ends the persistent server, volatile keys with it."""

    def __init__(self, wine):
        self.wine = wine
        self.restarted = False
        self.marker = waiting_program(wine)
        assert self.marker is not None

    def marker_ended(self, within):
        """Whether the run restarted the prefix. When it did, returns only once the restart has
        stopped ending programs: Wine's restart ends every program it finds, pass after pass
        until a pass finds none, so a program still up a moment after it started came after the
        last pass."""
        if still_up(self.marker, within):
            return False
        for _ in range(20):
            probe = waiting_program(self.wine)
            settled = probe is not None and still_up(probe, 0.5)
            if probe is not None:
                end(probe)
            if settled:
                return True
        raise AssertionError("the restart keeps ending programs")

    def restart(self):
        self.wine.restart()
        self.restarted = True


@pytest.fixture
def machine(wine):
    """After a restart the test did not finish, restarts for real, so that the next test finds
    the server and its services up; otherwise only ends the waiting program."""
    watched = Machine(wine)
    yield watched
    run_restarted = watched.marker.poll() is not None
    end(watched.marker)
    if run_restarted and not watched.restarted:
        watched.restart()


# -- preflight ------------------------------------------------------------------------------------
@pytest.mark.parametrize("update_root, listed_under, retry, restart, expected", [
    # The check list is read from the other root than the update's: legacy list for a current
    # update, current list for an upgrade from the former product.
    ("current", LEGACY_ROOT, None, True,
     {"STATE": "READY", "RESULT": "PREFLIGHTCHECK_INPROGRESS", "RETRY": "1", "ERRORCODE": ""}),
    ("legacy", CURRENT_ROOT, None, True,
     {"STATE": "READY", "RESULT": "PREFLIGHTCHECK_INPROGRESS", "RETRY": "1", "ERRORCODE": ""}),
    # The third pending restart in a row gives up instead of restarting again.
    ("current", LEGACY_ROOT, "2", False,
     {"STATE": "DONE", "RESULT": "PREFLIGHTCHECK_FAILURE", "RETRY": "0",
      "ERRORCODE": "PREFLIGHT_ERR_REBOOT_PENDING"}),
], ids=["current-update", "legacy-update", "retries-exhausted"])
def test_a_reboot_check_restarts_at_once_until_its_retries_run_out(wine, tool, machine,
                                                                  update_root, listed_under,
                                                                  retry, restart, expected):
    root = ROOTS[update_root]
    extra = {"OPTIONS": PREFLIGHT, **({"RETRY": retry} if retry else {})}
    arrange(wine, settings(), update(root, "READY", **extra),
            check(listed_under, KeyPath=r"HKEY_LOCAL_MACHINE\Software\Microsoft",
                  KeyPresentAction="reboot"))

    result = run(wine, tool)

    # Read nothing back before the restart has ended the prefix's programs: it would end the
    # reader too.
    assert machine.marker_ended(within=30 if restart else 1) == restart
    messages = result.messages
    assert ADDED.format("REBOOT") in messages
    assert ("Util_UpdateDone: Updating state for result 'ERR_PREFLIGHTCHECK_REBOOT', "
            "legacy workflow:'0' ") in messages
    written = [CURRENT_ROOT, LEGACY_ROOT] if update_root == "legacy" else [CURRENT_ROOT]
    for each in written:
        after = stored(wine, each)
        assert {name: after[name] for name in expected} == expected
        assert need_reboot(wine, each) == ("1" if restart else None)
    if update_root == "current":
        assert values(wine, update_key(LEGACY_ROOT, KEY_ID)) is None
    # A preflight restart does not wait first.
    assert not any(m.startswith("Util_CheckReboot:") for m in messages)
    assert "REBOOT FAILED" not in messages
    if restart:
        machine.restart()
        for each in written:
            assert need_reboot(wine, each) is None  # volatile: gone with the restart
            assert stored(wine, each)["STATE"] == expected["STATE"]


@pytest.mark.parametrize("definition, listed_under, code, line", [
    ({"KeyPath": "HKLM\\" + WATCHED_TAIL, "KeyPresentAction": "Error"}, LEGACY_ROOT, -10,
     ADDED.format("ERROR")),
    ({"KeyPath": WATCHED, "KeyPresentAction": "Restart"}, LEGACY_ROOT, -9,
     "App::getPreflightCheckAction: invalid action [Restart]"),
    # Root prefixes are matched as written.
    ({"KeyPath": "hklm\\" + WATCHED_TAIL, "KeyPresentAction": "error"}, LEGACY_ROOT, -9,
     UNREADABLE),
    ({"KeyPath": WATCHED + r"\Missing", "KeyPresentAction": "error"}, LEGACY_ROOT, -9,
     UNREADABLE),
    ({"KeyPath": WATCHED, "ValueName": "Mode", "ExpectedValue": "ENABLED",
      "ValueMatchAction": "error"}, LEGACY_ROOT, -10,
     MATCHES.format("error")),
    ({"KeyPath": WATCHED, "ValueName": "Level", "ExpectedValue": "1",
      "ValueMatchAction": "ERROR"}, LEGACY_ROOT, -10,
     MATCHES.format("ERROR")),
    ({"KeyPath": WATCHED, "ValueName": "Mode", "ExpectedValue": "Enabled2",
      "ValueMatchAction": "error"}, LEGACY_ROOT, -9,
     ADDED.format("NONE")),
    # For an update under the current root the list under the current root is not read.
    ({"KeyPath": WATCHED, "KeyPresentAction": "error"}, CURRENT_ROOT, -9,
     "App::performPreflightChecks: begin.."),
], ids=["key-present-error", "unknown-action", "lower-case-prefix", "missing-key", "value-matches",
        "dword-matches", "value-differs", "listed-under-current"])
def test_registry_checks_decide_the_preflight_result(wine, tool, definition, listed_under, code,
                                                     line):
    arrange(wine, settings(), WATCHED_VALUES, update(CURRENT_ROOT, "READY", OPTIONS=PREFLIGHT),
            check(listed_under, **definition))

    result = run(wine, tool)

    assert result.code == code
    assert line in result.messages
    processed = f"App::performRegistryBasedChecks: processing preflight check key [{CHECK}]"
    assert (processed in result.messages) == (listed_under == LEGACY_ROOT)
    if code == -10:
        expected = {"STATE": "DONE", "RESULT": "PREFLIGHTCHECK_FAILURE", "ERRORCODE": "",
                    "RETRY": "0"}
    else:
        expected = {"STATE": "DONE", "RESULT": "PREFLIGHTCHECK_OK", "ERRORCODE": "", "RETRY": "0",
                    "PreflightCheckComplete": "0x1"}
    after = stored(wine, CURRENT_ROOT)
    assert {name: after.get(name) for name in expected} == expected
    assert need_reboot(wine, CURRENT_ROOT) is None


@pytest.mark.parametrize("option, complete, downloads, expected", [
    (LEGACY_PREFLIGHT, 1, True, {}),
    (LEGACY_PREFLIGHT, 0, False, {"STATE": "READY", "RESULT": "OK"}),
    (PREFLIGHT, 1, False, {"STATE": "DONE", "RESULT": "PREFLIGHTCHECK_OK"}),
], ids=["legacy-completed", "legacy-not-completed", "current-completed"])
def test_a_completed_legacy_preflight_is_skipped_for_the_download(wine, tool, option, complete,
                                                                  downloads, expected):
    arrange(wine, settings(), update(CURRENT_ROOT, "DOWNLOAD", OPTIONS=option),
            {update_key(CURRENT_ROOT, KEY_ID): {"PreflightCheckComplete": complete}})

    result = run(wine, tool)

    messages = result.messages
    skipped = ("wmain: legacy workflow in use and preflight check is already completed, "
               "skipping it for relaunch")
    assert (skipped in messages) == downloads
    assert ("App::performPreflightChecks: begin.." in messages) != downloads
    assert (f"Util_DoDownload: Update key: {KEY_ID} state: DOWNLOAD" in messages) == downloads
    legacy = 1 if option == LEGACY_PREFLIGHT else 0
    if downloads:
        # Whether the content client is there or not, the download cannot succeed here.
        assert result.code == -1
        assert ("Util_UpdateDone: Updating state for result 'ERR_FAILURE', "
                f"legacy workflow:'{legacy}' ") in messages
        assert stored(wine, CURRENT_ROOT)["RESULT"] in ("FAILURE", "INVALID")
    else:
        assert result.code == -9
        after = stored(wine, CURRENT_ROOT)
        assert {name: after[name] for name in expected} == expected
        assert after["PreflightCheckComplete"] == "0x1"


# -- state written back ---------------------------------------------------------------------------
@pytest.mark.parametrize("update_root", ["legacy", "current"])
def test_an_installed_update_is_recorded_under_the_roots_it_concerns(wine, tool, update_root):
    root = ROOTS[update_root]
    copy_test_installer(workspace(wine), "setup.exe")
    arrange(wine, settings(), update(root, "UPDATING", FILENAME="setup.exe"))

    result = run(wine, tool, extra_env={"TEST_INSTALLER_EXIT_CODE": "0"})

    assert result.code == -4
    expected = {"STATE": "DONE", "RESULT": "OK", "RETRY": "0", "FILENAME": "setup.exe"}
    after = stored(wine, CURRENT_ROOT)
    assert {name: after[name] for name in expected} == expected
    if update_root == "legacy":
        mirrored = stored(wine, LEGACY_ROOT)
        assert {name: mirrored[name] for name in expected} == expected
    else:
        assert values(wine, update_key(LEGACY_ROOT, KEY_ID)) is None
        assert ("UtilUpdateStateRegistry_Legacy: No need to write to legacy Tessix key as not "
                "exist") in result.messages


# -- telemetry ------------------------------------------------------------------------------------
def test_each_run_appends_one_entry_with_the_members_it_has(wine, tool):
    arrange(wine, settings(), update(CURRENT_ROOT, "READY", VERSION="8.13.0", FILENAME="setup.exe"))
    path = LOGS_DIR + r"\updatetool\UpdateToolTelemetryData.json"

    first = run(wine, tool)

    assert f"Util_UpdateDataForTelemetry: Json file - {path} , doesn't exist" in first.messages
    [entry] = telemetry(wine)["updateTool"]
    timestamp = entry.pop("timestamp")
    assert first.started <= timestamp <= first.ended
    assert entry == {"updatedGUID": KEY_ID, "type": "OTHER", "fileName": "setup.exe",
                     "version": "8.13.0", "status": "READY", "attempt": 0, "result": ""}

    # An installer that fails with no retries left: its exit code and the error text it left.
    copy_test_installer(workspace(wine), "setup.exe")
    arrange(wine, update(CURRENT_ROOT, "UPDATING"),
            {CURRENT_ROOT + r"\Agent": {"LastInstallError": "disk full"}})

    second = run(wine, tool, extra_env={"TEST_INSTALLER_EXIT_CODE": "1603"})

    assert (f"Util_UpdateDataForTelemetry: Loading from json file {path} completed"
            in second.messages)
    earlier, latest = telemetry(wine)["updateTool"]
    assert earlier == dict(entry, timestamp=timestamp)
    assert second.started <= latest.pop("timestamp") <= second.ended
    assert latest == {"updatedGUID": KEY_ID, "type": "OTHER", "fileName": "setup.exe",
                      "version": "8.13.0", "status": "UPDATING", "attempt": 1,
                      "result": "FAILURE", "errorCode": "1603", "errorDescription": "disk full"}


EARLIER = {"updatedGUID": "{earlier}", "type": "OREL", "fileName": "a.exe", "version": "8.12.0",
           "timestamp": 1700000000, "status": "DONE", "attempt": 0, "result": "OK"}


@pytest.mark.parametrize("logs_dir, content, loaded", [
    (LOGS_DIR, b"", False),
    # Not truncated: what the longer old text had past the new document stays.
    (LOGS_DIR, b"<<not a json document>>" + b"#" * 4000, False),
    # The tail is appended as text: a trailing separator doubles, the file lands in the same place.
    (LOGS_DIR + "\\", b"<<not a json document>>" + b"#" * 4000, False),
    (LOGS_DIR, json.dumps({"collector": {"batch": 7}, "updateTool": [EARLIER]}).encode(), True),
], ids=["empty", "corrupt-longer", "corrupt-trailing-separator", "other-members"])
def test_the_telemetry_file_is_written_over_from_its_start(wine, tool, logs_dir, content, loaded):
    file = telemetry_file(wine)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content)
    arrange(wine, settings(logs_dir=logs_dir), update(CURRENT_ROOT, "READY"))

    result = run(wine, tool)

    path = logs_dir + r"\updatetool\UpdateToolTelemetryData.json"
    report = (f"Util_UpdateDataForTelemetry: Loading from json file {path} completed" if loaded
              else f"Util_UpdateDataForTelemetry: Json file - {path} , doesn't exist")
    assert report in result.messages
    assert f"Util_UpdateDataForTelemetry: Saving to json file - {path} completed" in result.messages
    text = file.read_bytes().decode("utf-8")
    document, end = json.JSONDecoder().raw_decode(text)
    assert text[end:] == content.decode("utf-8")[end:]
    *earlier, latest = document.pop("updateTool")
    assert earlier == ([EARLIER] if loaded else [])
    assert latest["updatedGUID"] == KEY_ID
    assert document == ({"collector": {"batch": 7}} if loaded else {})


@pytest.mark.parametrize("content", [b'{"updateTool": 5}', b"[1, 2]"],
                         ids=["history-not-a-list", "document-not-an-object"])
def test_a_telemetry_document_of_another_shape_is_left_alone(wine, tool, content):
    file = telemetry_file(wine)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content)
    arrange(wine, settings(), update(CURRENT_ROOT, "READY"))

    result = run(wine, tool)

    assert file.read_bytes() == content
    assert "wmain: failed to save the telemetry data" in result.messages
    assert result.messages[-2:] == ["wmain: Updatetool rc = ERR_FAILURE", "=== End ==="]


def test_a_run_without_an_update_writes_no_telemetry(wine, tool):
    arrange(wine, settings())

    result = run(wine, tool)

    assert result.code == -1
    assert "Util_UpdateDataForTelemetry: UpdateID empty" in result.messages
    assert "wmain: failed to save the telemetry data" in result.messages
    assert not telemetry_file(wine).exists()


# -- restart --------------------------------------------------------------------------------------
@pytest.mark.parametrize("exit_code, retry, expected, wait", [
    # A failed generic installer is retried behind a restart, after RETRY x RetryWaitPeriod
    # (this attempt counted): 2 x 1000 ms.
    (1603, "1", {"STATE": "WAIT", "RESULT": "PROGRESS", "RETRY": "2", "ERRORCODE": "1603"}, 2),
    # No attempt left: the update stays where it is, failed, and nothing restarts.
    (1603, "2", {"STATE": "UPDATING", "RESULT": "FAILURE", "RETRY": "3", "ERRORCODE": "1603"},
     None),
    # Installed, restart required: done, and a finished update has no attempts to wait for.
    (3010, "1", {"STATE": "DONE", "RESULT": "OK", "RETRY": "0", "ERRORCODE": ""}, 0),
], ids=["failed", "failed-no-retry-left", "needs-restart"])
def test_an_installer_outcome_that_needs_a_restart_waits_then_restarts(wine, tool, machine,
                                                                       exit_code, retry, expected,
                                                                       wait):
    restart = wait is not None
    copy_test_installer(workspace(wine), "setup.exe")
    arrange(wine, settings(max_retry=2, retry_wait_ms=1000),
            update(CURRENT_ROOT, "UPDATING", FILENAME="setup.exe", RETRY=retry))

    result = run(wine, tool, extra_env={"TEST_INSTALLER_EXIT_CODE": str(exit_code)})

    assert machine.marker_ended(within=30 if restart else 1) == restart
    messages = result.messages
    assert ("Util_UpdateDone: FORCE REBOOT" in messages) == (exit_code == 1603 and restart)
    waits = [m for m in messages if m.startswith("Util_CheckReboot:")]
    if restart:
        assert waits == ["Util_CheckReboot: wait for a while", "Util_CheckReboot: done waiting"]
        assert wait <= result.seconds_between(*waits) <= wait + 5
    else:
        assert waits == []
    assert "REBOOT FAILED" not in messages
    after = stored(wine, CURRENT_ROOT)
    assert {name: after[name] for name in expected} == expected
    assert need_reboot(wine, CURRENT_ROOT) == ("1" if restart else None)
    if restart:
        machine.restart()
        assert need_reboot(wine, CURRENT_ROOT) is None  # volatile: gone with the restart
        assert stored(wine, CURRENT_ROOT)["STATE"] == expected["STATE"]
