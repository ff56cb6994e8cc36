"""The run's entry under Wine: kill switch, single instance, and where and how the log is written."""
import re
import time

import pytest

from wine import CURRENT_ROOT, read_log, wait_for

LOG_NAME = re.compile(r"^Quorvane_Agent_Update_\d{14}\.log$")
LINE = re.compile(r"^\d{4}-\d{2}-\d{2} \d{2}\.\d{2}\.\d{2}: ")


def log_files(folder):
    return sorted(folder.glob("*.log")) if folder.exists() else []


def only_log(folder):
    files = log_files(folder)
    assert len(files) == 1, files
    return files[0]


def test_kill_switch_exits_minus_2_with_banners_only(wine, tool):
    wine.import_reg(f"[{CURRENT_ROOT}]\n\"InstallLogsDir\"=\"C:\\\\logs\"\n\n"
                    f"[{CURRENT_ROOT}\\Agent\\Update]\n\"Enabled\"=\"0\"\n")
    code, _, _ = wine.run(tool)
    assert code == -2
    _, text = read_log(only_log(wine.unix_path(r"C:\logs\updatetool")))
    messages = [LINE.sub("", line) for line in text.split("\r\n") if line]
    assert messages[0] == "=== Begin === "
    assert re.fullmatch(r"Updatetool Version: \d+\.\d+\.\d+\.\d+", messages[1])
    assert messages[2:] == ["=== End ==="]


def test_log_lands_in_install_logs_dir_as_utf16_with_crlf(wine, tool):
    wine.import_reg(f"[{CURRENT_ROOT}]\n\"InstallLogsDir\"=\"C:\\\\logs\\\\\"\n")
    code, stdout, _ = wine.run(tool)
    assert code == -1
    path = only_log(wine.unix_path(r"C:\logs\updatetool"))
    assert LOG_NAME.match(path.name)
    raw, text = read_log(path)
    assert raw[:2] == b"\xff\xfe"
    assert text.endswith("=== End ===\r\n")
    lines = text.split("\r\n")[:-1]
    assert all(LINE.match(line) for line in lines), lines
    assert "\n" not in "".join(lines)
    assert any(line.endswith("wmain: Updatetool rc = ERR_FAILURE") for line in lines)
    # The console shows the same lines with LF only.
    assert "wmain: Updatetool rc = ERR_FAILURE\n" in stdout
    assert "\r\n" not in stdout.replace("\r\r\n", "\n")


def test_log_falls_back_to_the_workspace(wine, tool):
    code, _, _ = wine.run(tool)
    assert code == -1
    folder = wine.temp_folder() / "updatetool-data" / "updatetool"
    assert LOG_NAME.match(only_log(folder).name)


@pytest.mark.parametrize("root", ["current", "legacy"])
def test_second_instance_exits_minus_3_while_the_first_waits(wine, tool, root):
    key = CURRENT_ROOT if root == "current" else CURRENT_ROOT.replace(
        r"Quorvane\Lumenar", r"Tessix, Inc.\Tessix KDX")
    wine.import_reg(f"[{CURRENT_ROOT}]\n\"InstallLogsDir\"=\"C:\\\\logs\"\n\n"
                    f"[{key}\\Agent\\UpdateStatusVolatile]\n\"NeedReboot\"=\"0\"\n")
    folder = wine.unix_path(r"C:\logs\updatetool")
    first = wine.start(tool)
    try:
        # The first instance holds the mutex through its five-minute pending-restart wait.
        assert wait_for(lambda: any("still pending, waiting for (5) minutes" in read_log(f)[1]
                                    for f in log_files(folder)), timeout=60)
        time.sleep(1.1)  # a log file per second: keep the two runs' files apart
        code, _, _ = wine.run(tool)
        assert code == -3
    finally:
        first.kill()
        first.wait()
    # The refused run wrote its own log with its one line.
    duplicate_lines = []
    for path in log_files(folder):
        _, text = read_log(path)
        duplicate_lines += [line for line in text.split("\r\n") if "duplicate instance" in line]
    assert len(duplicate_lines) == 1
    assert duplicate_lines[0].endswith(": updatetool.exe duplicate instance, exit now\n")
