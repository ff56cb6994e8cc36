"""An update across several runs, as a fleet meets it: the tool moves the update key one step per
run, and between runs the test plays the management service (DOWNLOAD, then UPDATING). The package
comes from a local HTTPS server pinned by thumbprint; installers really run."""
import os
import subprocess
import tempfile

import pytest

from lifecycle_helpers import (UPDATE_ID, AgentPackages, download_values, installed_versions,
                               key_values, last_log, outcome, run_tool, service_sets_state, settings,
                               telemetry, update_key, volatile_key, write)
from packages import TEST_INSTALLER, copy_test_installer, recorded_lines
from servers import Certificates, HttpsServer, Resource, unused_port
from wine import CURRENT_ROOT, LEGACY_ROOT, wait_for

AGENT = "E2E Lifecycle Agent"
AGENT_UPGRADE_CODE = "{8E3F1A64-2C95-4B07-A1D8-6F4B0E7C2935}"
WAITED = "Util_UpdateDone: done waiting"
RETRY_LIMIT_CROSSED = "Util_UpdateDone: Download failure crossed download retry limit"
RESTARTED = "Initiated system reboot successfully."
PENDING_RESTART = "Reboot action triggered by Update tool is still pending"


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    return Certificates(tmp_path_factory.mktemp("lifecycle-certs"))


@pytest.fixture
def server(certs):
    with HttpsServer(certs.localhost) as running:
        yield running


@pytest.fixture
def packages(wine):
    folder = AgentPackages(wine)
    yield folder
    folder.remove()


@pytest.fixture
def workspace(wine):
    folder = wine.temp_folder() / "updatetool-data"
    folder.mkdir(exist_ok=True)
    return folder


def contents(folder):
    return sorted(p.name for p in folder.iterdir()) if folder.exists() else []


def installer_env(packages, exit_code=0):
    record, record_windows = packages.record()
    return record, {"TEST_INSTALLER_RECORD": record_windows, "TEST_INSTALLER_EXIT_CODE": str(exit_code)}


# -- the whole story ------------------------------------------------------------------------------

def test_agent_goes_from_8_12_to_8_13_in_a_download_run_and_an_install_run(
        wine, tool, certs, server, packages, workspace):
    old = packages.upgradable_msi(AGENT, "8.12.0", AGENT_UPGRADE_CODE)
    new = packages.upgradable_msi(AGENT, "8.13.0", AGENT_UPGRADE_CODE)
    packages.install(old)
    assert installed_versions(wine, AGENT) == ["8.12.0"]
    body = new.read_bytes()
    url = server.add("/packages/agent-8.13.0.msi", Resource(body, etag='"v8.13.0"'))
    write(wine, {**settings(), update_key(): download_values(certs, [url], body, VERSION="8.13.0")})

    download = run_tool(wine, tool)

    assert download.code == -1  # a download run's own outcome is in RESULT
    assert outcome(wine) == {"STATE": "WAIT", "RESULT": "OK", "RETRY": "0"}
    assert contents(workspace) == ["agent-8.13.0.msi"]
    assert (workspace / "agent-8.13.0.msi").read_bytes() == body
    filename = key_values(wine, update_key())["FILENAME"]
    assert filename.lower().endswith(r"\updatetool-data\agent-8.13.0.msi")
    assert installed_versions(wine, AGENT) == ["8.12.0"]

    service_sets_state(wine, "UPDATING")
    install = run_tool(wine, tool, timeout=300)

    assert install.code == -4
    assert outcome(wine) == {"STATE": "DONE", "RESULT": "OK", "RETRY": "0"}
    assert installed_versions(wine, AGENT) == ["8.13.0"]  # replaced, not installed beside
    assert contents(workspace) == []
    entries = telemetry(wine)
    assert [(e["status"], e["result"], e["attempt"]) for e in entries] == [
        ("WAIT", "OK", 0), ("DONE", "OK", 0)]
    assert {(e["updatedGUID"], e["type"], e["version"]) for e in entries} == {
        (UPDATE_ID, "OTHER", "8.13.0")}
    assert all(not e.get("errorCode") for e in entries)


# -- failed downloads -----------------------------------------------------------------------------

@pytest.mark.parametrize("fault", ["dropped mid-body", "503"])
def test_failed_download_waits_and_the_next_run_completes_it(wine, tool, certs, server, workspace,
                                                              fault):
    body = os.urandom(256 * 1024)
    resource = Resource(body, etag='"v1"', cut_after=64 * 1024 if fault == "dropped mid-body" else None,
                        status=503 if fault == "503" else 200)
    url = server.add("/pkg/setup.exe", resource)
    write(wine, {**settings(max_retry=2, retry_wait_ms=1000),
                 update_key(): download_values(certs, [url], body)})

    first = run_tool(wine, tool)

    assert outcome(wine) == {"STATE": "READY", "RESULT": "PROGRESS", "RETRY": "1"}
    assert key_values(wine, update_key())["ERRORCODE"] == "KESCLIENT_DOWNLOAD_FAILED"
    assert WAITED in first.messages() and first.seconds >= 1.0  # RetryWaitPeriod, inside the run
    assert not (workspace / "setup.exe").exists()

    # Until the service hands it back, a run leaves the update alone.
    idle = run_tool(wine, tool)
    assert outcome(wine) == {"STATE": "READY", "RESULT": "PROGRESS", "RETRY": "1"}
    assert WAITED not in idle.messages()
    assert len(server.requests) == 1

    resource.status = 200  # the mirror is back
    service_sets_state(wine, "DOWNLOAD")
    run_tool(wine, tool)

    assert outcome(wine) == {"STATE": "WAIT", "RESULT": "OK", "RETRY": "1"}
    assert key_values(wine, update_key())["ERRORCODE"] == ""
    assert contents(workspace) == ["setup.exe"]
    assert (workspace / "setup.exe").read_bytes() == body
    if fault == "dropped mid-body":
        # The bytes of the first run are kept and the second asks only for the rest.
        wanted = server.requests[-1]["headers"].get("range", "")
        assert wanted.startswith("bytes=") and int(wanted[6:].rstrip("-")) > 0, wanted


@pytest.mark.parametrize("first", ["closed port", "503"])
def test_second_mirror_serves_when_the_first_is_down(wine, tool, certs, server, workspace, first):
    body = os.urandom(64 * 1024)
    down = (f"https://localhost:{unused_port()}/setup.exe" if first == "closed port"
            else server.add("/down/setup.exe", Resource(body, status=503)))
    good = server.add("/up/setup.exe", Resource(body))
    write(wine, {**settings(), update_key(): download_values(certs, [down, good], body)})

    run = run_tool(wine, tool)

    assert outcome(wine) == {"STATE": "WAIT", "RESULT": "OK", "RETRY": "0"}
    assert WAITED not in run.messages()
    assert any("trying the next location" in m for m in run.messages())
    assert (workspace / "setup.exe").read_bytes() == body


@pytest.mark.parametrize("max_retry", [0, 1, 2])
def test_download_is_given_up_once_the_retry_limit_is_crossed(wine, tool, certs, max_retry):
    body = b"package"
    url = f"https://localhost:{unused_port()}/setup.exe"  # every attempt fails
    write(wine, {**settings(max_retry=max_retry, retry_wait_ms=1000),
                 update_key(): download_values(certs, [url], body)})

    for attempt in range(1, max_retry + 1):
        run = run_tool(wine, tool)
        assert outcome(wine) == {"STATE": "READY", "RESULT": "PROGRESS", "RETRY": str(attempt)}
        assert WAITED in run.messages() and run.seconds >= 1.0
        service_sets_state(wine, "DOWNLOAD")
    last = run_tool(wine, tool)

    assert outcome(wine) == {"STATE": "DONE", "RESULT": "FAILURE", "RETRY": str(max_retry + 1)}
    assert key_values(wine, update_key())["ERRORCODE"] == "KESCLIENT_DOWNLOAD_FAILED"
    assert RETRY_LIMIT_CROSSED in last_log(wine)
    assert WAITED not in last.messages()  # nothing left to wait for
    assert telemetry(wine)[-1]["status"] == "DONE" and telemetry(wine)[-1]["result"] == "FAILURE"
    assert len(telemetry(wine)) == max_retry + 1


@pytest.mark.parametrize("earlier_filename, expected", [
    (None, {"STATE": "READY", "RESULT": "PROGRESS", "RETRY": "1"}),  # re-issued: counts afresh
    ("C:\\earlier\\setup.exe", {"STATE": "DONE", "RESULT": "FAILURE", "RETRY": "3"}),  # carried on
], ids=["reissued", "carried-on"])
def test_reissued_update_counts_its_attempts_afresh(wine, tool, certs, earlier_filename, expected):
    url = f"https://localhost:{unused_port()}/setup.exe"
    values = download_values(certs, [url], b"package", RETRY="2", RESULT="FAILURE")
    if earlier_filename:
        values["FILENAME"] = earlier_filename
    write(wine, {**settings(max_retry=2, retry_wait_ms=1000), update_key(): values})

    run_tool(wine, tool)

    assert outcome(wine) == expected


# -- restarts -------------------------------------------------------------------------------------

def update_ready_to_install(wine, packages, workspace, root, **values):
    """An update in UPDATING as a download run leaves it: the package in the workspace, named by its
    whole path."""
    package = copy_test_installer(workspace, "setup.exe")
    key = {"STATE": "UPDATING", "AGENT": "OTHER", "ARCH": "64-BitAgent",
           "FILENAME": packages.windows_path(package), "URL": ["https://updates.invalid/setup.exe"]}
    write(wine, {**settings(max_retry=2, retry_wait_ms=1000), update_key(root): {**key, **values}})
    return package


@pytest.mark.parametrize("root, exit_code, retry, code, expected, wait", [
    # done, a restart required to finish: nothing to wait for (RETRY 0)
    (CURRENT_ROOT, 3010, "0", -4, {"STATE": "DONE", "RESULT": "OK", "RETRY": "0"}, 0.0),
    (LEGACY_ROOT, 3010, "0", -4, {"STATE": "DONE", "RESULT": "OK", "RETRY": "0"}, 0.0),
    # failed on its second attempt, one left: RETRY x RetryWaitPeriod before the restart
    (CURRENT_ROOT, 1603, "1", -7, {"STATE": "WAIT", "RESULT": "PROGRESS", "RETRY": "2"}, 2.0),
], ids=["3010", "3010-legacy-root", "1603-attempt-2"])
def test_installer_that_needs_a_restart_restarts_the_machine(wine, tool, packages, workspace, root,
                                                             exit_code, retry, code, expected, wait):
    package = update_ready_to_install(wine, packages, workspace, root, RETRY=retry)
    roots = [CURRENT_ROOT, LEGACY_ROOT] if root == LEGACY_ROOT else [CURRENT_ROOT]
    record, env = installer_env(packages, exit_code)
    with tempfile.TemporaryFile() as bystander_output:
        # Another program of the prefix, which the restart has to end.
        bystander = subprocess.Popen(["wine", "cmd", "/c", "echo up& ping -n 120 127.0.0.1 >nul"],
                                     env=wine.env, stdin=subprocess.DEVNULL, stdout=bystander_output,
                                     stderr=subprocess.DEVNULL)
        try:
            assert wait_for(lambda: os.fstat(bystander_output.fileno()).st_size > 0, timeout=30)
            run = run_tool(wine, tool, extra_env=env)

            assert bystander.wait(timeout=30) is not None
            # The restart goes on after the tool has ended; what starts meanwhile may be ended too.
            assert wait_for(lambda: key_values(wine, update_key(root)), timeout=30)
            assert run.code == code
            assert len(recorded_lines(record)) == 1
            for each in roots:
                assert outcome(wine, each) == expected, each
                assert (key_values(wine, volatile_key(each)) or {}).get("NeedReboot") == "1", each
            log = last_log(wine)
            assert log.index("Util_CheckReboot: wait for a while") < log.index(RESTARTED)
            assert run.seconds >= wait
            assert package.exists() == (expected["RESULT"] != "OK")
        finally:
            if bystander.poll() is None:
                bystander.kill()
                bystander.wait()
            wine.restart()

    for each in roots:
        assert key_values(wine, volatile_key(each)) is None, each  # a volatile key
    after = run_tool(wine, tool, timeout=60)  # would wait five minutes for a restart still pending
    assert not any(PENDING_RESTART in m for m in after.messages())


def test_installer_failure_with_the_last_attempt_used_does_not_restart(wine, tool, packages, workspace):
    update_ready_to_install(wine, packages, workspace, CURRENT_ROOT, RETRY="2")  # the limit is 2
    _, env = installer_env(packages, 1603)

    run = run_tool(wine, tool, extra_env=env)

    assert run.code == -7
    values = key_values(wine, update_key())
    assert {name: values[name] for name in ("STATE", "RESULT", "RETRY", "ERRORCODE")} == {
        "STATE": "UPDATING", "RESULT": "FAILURE", "RETRY": "3", "ERRORCODE": "1603"}
    assert key_values(wine, volatile_key()) is None
    assert RESTARTED not in run.messages() and "Util_CheckReboot: wait for a while" not in run.messages()


# -- an upgrade from the former product -----------------------------------------------------------

def test_upgrade_under_the_legacy_root_is_recorded_under_both_roots(wine, tool, certs, server, packages,
                                                                   workspace):
    body = TEST_INSTALLER.read_bytes()  # the package is an installer that records its command line
    url = server.add("/pkg/setup.exe", Resource(body))
    write(wine, {**settings(), update_key(LEGACY_ROOT): download_values(certs, [url], body)})

    download = run_tool(wine, tool)

    assert "UtilGetActiveUpdate: Tessix to Quorvane agent upgrade detected" in download.messages()
    names = ("STATE", "RESULT", "RETRY", "FILENAME")
    legacy, current = outcome(wine, LEGACY_ROOT, names), outcome(wine, CURRENT_ROOT, names)
    assert legacy == current
    assert (legacy["STATE"], legacy["RESULT"], legacy["RETRY"]) == ("WAIT", "OK", "0")
    assert legacy["FILENAME"].lower().endswith(r"\updatetool-data\setup.exe")
    assert (workspace / "setup.exe").read_bytes() == body

    service_sets_state(wine, "UPDATING", root=LEGACY_ROOT)
    record, env = installer_env(packages)
    install = run_tool(wine, tool, extra_env=env)

    assert install.code == -4
    command = legacy["FILENAME"] + " /s /v /qn"
    assert [line.lower() for line in recorded_lines(record)] == [command.lower()]
    for root in (LEGACY_ROOT, CURRENT_ROOT):
        assert outcome(wine, root) == {"STATE": "DONE", "RESULT": "OK", "RETRY": "0"}, root
    assert contents(workspace) == []


# -- a preflight run first ------------------------------------------------------------------------

@pytest.mark.parametrize("root", [CURRENT_ROOT, LEGACY_ROOT], ids=["current-root", "legacy-root"])
def test_preflight_run_comes_before_the_download_and_is_not_repeated(wine, tool, certs, server,
                                                                     workspace, root):
    body = os.urandom(64 * 1024)
    url = server.add("/pkg/setup.exe", Resource(body))
    write(wine, {**settings(), update_key(root): download_values(certs, [url], body,
                                                                 OPTIONS="PREFLIGHTCHECK_ENABLED=2")})

    preflight = run_tool(wine, tool)

    assert preflight.code == -9
    assert outcome(wine, root) == {"STATE": "READY", "RESULT": "OK", "RETRY": "0"}
    # The flag is the tool's own, kept under the current root whichever root the update came from.
    assert key_values(wine, update_key(CURRENT_ROOT))["PreflightCheckComplete"] == "0x1"
    assert "App::performPreflightChecks: begin.." in preflight.messages()
    assert server.requests == [] and contents(workspace) == []

    service_sets_state(wine, "DOWNLOAD", root)
    download = run_tool(wine, tool)

    assert ("wmain: legacy workflow in use and preflight check is already completed, skipping it "
            "for relaunch") in download.messages()
    assert "App::performPreflightChecks: begin.." not in download.messages()
    assert outcome(wine, root) == {"STATE": "WAIT", "RESULT": "OK", "RETRY": "0"}
    assert (workspace / "setup.exe").read_bytes() == body
