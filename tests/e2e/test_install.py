"""The install path under Wine: an update the service has moved to UPDATING is checked against the
host and the installed agent, and its installer really runs (msiexec with a wixl-built package, or
the test installer standing in for a setup program)."""
import pytest

from packages import (MAIN_AGENT_UPGRADE_CODE, OTHER_UPGRADE_CODE, Packages, copy_test_installer,
                      recorded_lines)
from wine import CURRENT_ROOT, read_log

UPDATE_KEY = CURRENT_ROOT + r"\Agent\Update\e2e-install"
MAIN_INSTALLER = "Tessix-Lumenar-Agent-x86_64-8.13.0-1.exe"
MAIN_ARGUMENTS = " /s /v /qn KDX_SKIP_ADD_LDAP_MACHINE_ENTRY=1"


@pytest.fixture
def packages(wine):
    folder = Packages(wine)
    yield folder
    folder.remove()


@pytest.fixture
def workspace(wine):
    folder = wine.temp_folder() / "updatetool-data"
    folder.mkdir(exist_ok=True)
    return folder


def reg_text(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def arrange_update(wine, **values):
    """An update key in state UPDATING with the values given. No retries are allowed, so that a run
    that fails never ends in a restart of the prefix."""
    url = ",".join(f"{b:02x}" for b in "https://updates.invalid/p\0\0".encode("utf-16-le"))
    lines = [f"[{CURRENT_ROOT}]", '"InstallLogsDir"="C:\\\\logs"', "",
             f"[{CURRENT_ROOT}\\Agent\\Update]", '"MAXDOWNLOADANDUPGRADERETRY"="0"', "",
             f"[{UPDATE_KEY}]", '"STATE"="UPDATING"', f'"URL"=hex(7):{url}']
    lines += [f'"{name}"={reg_text(text)}' for name, text in values.items()]
    wine.import_reg("\n".join(lines) + "\n")


def run_log(wine):
    files = sorted(wine.unix_path(r"C:\logs\updatetool").glob("*.log"))
    assert len(files) == 1, files
    return read_log(files[0])[1]


def installer_env(packages, exit_code=0):
    record, record_windows = packages.record()
    return record, {"TEST_INSTALLER_RECORD": record_windows,
                    "TEST_INSTALLER_EXIT_CODE": str(exit_code)}


def test_generic_msi_is_installed_by_msiexec(wine, tool, packages, workspace):
    package = packages.msi("E2E Generic Product", "8.12.0", OTHER_UPGRADE_CODE)
    (workspace / "generic.msi").write_bytes(package.read_bytes())
    arrange_update(wine, AGENT="OTHER", FILENAME="generic.msi", ARCH="64-BitAgent")

    code, _, _ = wine.run(tool, timeout=300)

    assert code == -4
    log = run_log(wine)
    command = f"msiexec /i {packages.windows_path(workspace)}\\generic.msi /qn"
    assert f"Agent::LaunchHelper: launching: {command}\r\n".lower() in log.lower()
    assert "App::Update: agent update succeeded\r\n" in log
    assert packages.installed_version("E2E Generic Product") == "8.12.0"


@pytest.mark.parametrize("exit_code, result", [(0, -4), (1603, -7)])
def test_generic_setup_program_gets_the_silent_switches(wine, tool, packages, workspace,
                                                        exit_code, result):
    copy_test_installer(workspace, "setup.exe")
    arrange_update(wine, AGENT="OTHER", FILENAME="setup.exe", ARCH="64-BitAgent")
    record, env = installer_env(packages, exit_code)

    code, _, _ = wine.run(tool, extra_env=env)

    assert code == result
    expected = f"{packages.windows_path(workspace)}\\setup.exe /s /v /qn"
    assert [line.lower() for line in recorded_lines(record)] == [expected.lower()]
    log = run_log(wine)
    assert ("App::Update: Error code and description: 1603, , 1603 (" in log) == (exit_code != 0)


@pytest.mark.parametrize("installed, launched, result", [
    ("8.12.0", True, -1),    # the main agent's installer never changes the result
    ("8.13.0", False, -4),   # same version; the installer's build number alone does not count
])
def test_main_agent_is_found_by_upgrade_code(wine, tool, packages, workspace, installed, launched,
                                             result):
    packages.install(packages.msi("E2E Lumenar Agent", installed, MAIN_AGENT_UPGRADE_CODE))
    installer = copy_test_installer(workspace, MAIN_INSTALLER)
    arrange_update(wine, AGENT="OREL", ARCH="64-BitAgent")
    record, env = installer_env(packages)

    code, _, _ = wine.run(tool, extra_env=env)

    assert code == result
    log = run_log(wine)
    assert f"OrelAgent::GetVersion: installedVersion: {installed}\r\n" in log
    assert "OrelAgent::GetVersion: updateVersion: 8.13.0-1 updateFileName: " in log
    expected = [packages.windows_path(installer) + MAIN_ARGUMENTS] if launched else []
    assert [line.lower() for line in recorded_lines(record)] == [e.lower() for e in expected]


def test_test_mode_logs_the_command_line_and_runs_nothing(wine, tool, packages, workspace):
    copy_test_installer(workspace, "setup.exe")
    arrange_update(wine, AGENT="OTHER", FILENAME="setup.exe", ARCH="64-BitAgent")
    record, env = installer_env(packages)

    code, _, _ = wine.run(tool, "-test", extra_env=env)

    assert code == -4
    assert recorded_lines(record) == []
    log = run_log(wine)
    assert "App::ParseCmdline: test mode enabled\r\n" in log
    assert "Agent::LaunchHelper: launching: " in log and "setup.exe /s /v /qn\r\n" in log


def test_help_prints_the_usage_and_fails(wine, tool, workspace):
    arrange_update(wine, AGENT="OTHER", FILENAME="setup.exe", ARCH="64-BitAgent")

    code, stdout, _ = wine.run(tool, "-help")

    assert code == -1
    assert "updatetool.exe [-help] [-force] [-test] [<version filename>]\n" in stdout
    assert "<version filename> : version override configuration file\n" in stdout
    assert "App::Update" not in run_log(wine)


@pytest.mark.parametrize("arch", ["32-BitAgent", "Itanium"])
def test_package_for_another_architecture_is_refused(wine, tool, packages, workspace, arch):
    copy_test_installer(workspace, "setup.exe")
    arrange_update(wine, AGENT="OTHER", FILENAME="setup.exe", ARCH=arch)
    record, env = installer_env(packages)

    code, _, _ = wine.run(tool, extra_env=env)

    assert code == -6
    assert f"App::CheckPlatform: arch type mismatch: {arch} on 64-bit host\r\n" in run_log(wine)
    assert recorded_lines(record) == []
