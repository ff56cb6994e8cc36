"""Installs that really run: an agent upgraded by msiexec from a package the tool downloaded, the main
agent found by its upgrade code, and the restarts a run asks for (under Wine a restart ends every
process of the prefix; the volatile NeedReboot markers stay until the test plays the real restart)."""
import contextlib
import hashlib
import subprocess

import pytest

from harness import metadata, settings, update_key, volatile_key
from packages import MAIN_AGENT_UPGRADE_CODE
from servers import HttpsServer, Resource

KEY_ID = "{2B7E4C90-6A13-4D5F-8E27-C1F0A9D3B845}"
AGENT = "E2E Lifecycle Agent"
AGENT_UPGRADE_CODE = "{8E3F1A64-2C95-4B07-A1D8-6F4B0E7C2935}"


def outcome(wine):
    values = wine.values(update_key(KEY_ID)) or {}
    return {name: values.get(name) for name in ("STATE", "RESULT", "RETRY")}


def test_agent_goes_from_8_12_to_8_13_in_a_download_run_and_an_install_run(wine, certs, servers, packages):
    old = packages.msi(AGENT, "8.12.0", AGENT_UPGRADE_CODE)
    new = packages.msi(AGENT, "8.13.0", AGENT_UPGRADE_CODE)
    assert packages.msiexec("/i", old) == 0
    body = new.read_bytes()
    url = servers(HttpsServer(certs.localhost)).add("/packages/agent-8.13.0.msi", Resource(body, etag='"v8.13.0"'))
    wine.arrange(settings(), {update_key(KEY_ID): {
        "STATE": "DOWNLOAD", "AGENT": "OTHER", "ARCH": "64-BitAgent", "VERSION": "8.13.0", "URL": [url],
        "CERTTYPE": "THUMBPRINT", "METADATA": metadata(certs.localhost.sha()), "FILESIZE": str(len(body)),
        "CHECKSUM": "sha256:" + hashlib.sha256(body).hexdigest()}})

    assert wine.tool().code == -1  # a download run's own outcome is in RESULT
    assert outcome(wine) == {"STATE": "WAIT", "RESULT": "OK", "RETRY": "0"}

    wine.arrange({update_key(KEY_ID): {"STATE": "UPDATING"}})  # the management service's move
    assert wine.tool(timeout=300).code == -4
    assert outcome(wine) == {"STATE": "DONE", "RESULT": "OK", "RETRY": "0"}
    assert packages.installed_versions(AGENT) == ["8.13.0"]  # replaced, not installed beside


def test_main_agent_is_found_by_its_upgrade_code(wine, packages):
    assert packages.msiexec("/i", packages.msi("E2E Lumenar Agent", "8.12.0", MAIN_AGENT_UPGRADE_CODE)) == 0
    installer, env = packages.test_installer(wine.workspace, "Tessix-Lumenar-Agent-x86_64-8.13.0-1.exe")
    wine.arrange(settings(), {update_key(KEY_ID): {"STATE": "UPDATING", "AGENT": "OREL", "ARCH": "64-BitAgent",
                                                   "URL": ["https://updates.invalid/p"]}})

    run = wine.tool(env=env)

    assert run.code == -1  # the main agent's installer never changes the result
    assert run.says("OrelAgent::GetVersion: installedVersion: 8.12.0")
    assert packages.recorded() == [(wine.windows_path(installer) + " /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1").lower()]


# -- restarts -------------------------------------------------------------------------------------
def waiting_program(wine):
    """cmd waiting for input (None if it ended first); by its full path one process, which kill() ends for good."""
    program = wine.start(r"C:\windows\system32\cmd.exe", "/c", "echo waiting&pause", stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE)
    return program if program.stdout.readline().strip() == b"waiting" else end(program)


def end(program):
    if program.poll() is None:
        program.kill()
    program.communicate()


def still_up(program, seconds):
    with contextlib.suppress(subprocess.TimeoutExpired):
        return program.wait(timeout=seconds) is None
    return True


def restarted(wine, marker, within):
    """Whether the run restarted the prefix, once the restart has stopped ending programs (pass after pass)."""
    if still_up(marker, within):
        return False
    for _ in range(20):
        settled = (probe := waiting_program(wine)) is not None and still_up(probe, 0.5)
        if probe:
            end(probe)
        if settled:
            return True
    raise AssertionError("the restart keeps ending programs")


@pytest.mark.parametrize("exit_code, retry, expected, wait", [
    (3010, "0", ("DONE", "OK", "0"), 0.0),  # installed, a restart required to finish: nothing to wait for
    (1603, "1", ("WAIT", "PROGRESS", "2"), 2.0),  # failed, one attempt left: RETRY x RetryWaitPeriod first
], ids=["installed-3010", "failed-1603-retried"])
def test_restart_leaves_need_reboot_markers_that_the_played_restart_removes(wine, packages, exit_code, retry,
                                                                              expected, wait):
    installer, env = packages.test_installer(wine.workspace, exit_code=exit_code)
    wine.arrange(settings(max_retry=2, retry_wait_ms=1000), {update_key(KEY_ID): {
        "STATE": "UPDATING", "AGENT": "OTHER", "ARCH": "64-BitAgent", "URL": ["https://updates.invalid/setup.exe"],
        "RETRY": retry, "FILENAME": wine.windows_path(installer)}})
    assert (marker := waiting_program(wine))  # another program of the prefix, which the restart has to end
    try:
        run = wine.tool(env=env)
        # Nothing is read back before the restart has ended the prefix's programs: it would end the reader too.
        assert restarted(wine, marker, within=30), run.log
    finally:
        end(marker)
    try:
        assert len(packages.recorded()) == 1
        assert tuple(outcome(wine).values()) == expected
        assert wine.values(volatile_key()).get("NeedReboot") == "1"
        assert [m for m in run.messages if m.startswith("Util_CheckReboot:")] == [
            "Util_CheckReboot: wait for a while", "Util_CheckReboot: done waiting"]
        assert run.seconds >= wait
        assert run.says("Initiated system reboot successfully.")
    finally:
        wine.restart()
    assert wine.values(volatile_key()) is None  # a volatile key: gone with the restart
    after = wine.tool(timeout=60)  # would wait five minutes for a restart still pending
    assert not after.says("Reboot action triggered by Update tool is still pending")
