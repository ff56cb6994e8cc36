"""The run's log on disk and on the console, a log file another program holds open, and the
single-instance rule across ten processes started at once."""
import re
import subprocess
import time

import pytest

from harness import BIN, CURRENT_ROOT, LOGS, STAMP, TOOL, messages, read_log, settings, update_key

KEY_ID = "{e2e-instance}"
# A download that fails at once (nothing listens on port 9) and then waits for its retry.
FAILING = {update_key(KEY_ID): {"STATE": "DOWNLOAD", "AGENT": "OTHER", "VERSION": "8.13.0",
                                "CERTTYPE": "CERT_SYSTEM_CA", "URL": ["https://localhost:9/setup.exe"]}}


def test_log_file_is_utf16_with_crlf_and_the_console_shows_the_same_lines(wine):
    wine.reset()  # no update key or restart marker an earlier module left behind
    wine.arrange({CURRENT_ROOT: {"InstallLogsDir": "C:\\logs\\"}})  # a trailing separator is no second one
    run = wine.run(TOOL)
    assert run.code == -1
    [path] = wine.unix_path(LOGS + r"\updatetool").glob("*.log")
    assert re.fullmatch(r"Quorvane_Agent_Update_\d{14}\.log", path.name)
    text = read_log(path)
    assert text.endswith("=== End ===\r\n")
    lines = text.split("\r\n")[:-1]
    assert all(STAMP.match(line) and "\n" not in line for line in lines), lines
    assert lines[-2].endswith("wmain: Updatetool rc = ERR_FAILURE")
    # The console shows the same lines with LF only.
    console = run.out.replace("\r\r\n", "\n")
    assert "\r" not in console and console.split("\n")[:-1] == lines


@pytest.mark.parametrize("released", [False, True], ids=["held-throughout", "released-midway"])
def test_locked_log_file_does_not_stop_the_run(wine, released):
    folder = wine.unix_path(LOGS + r"\updatetool")
    folder.mkdir(parents=True)
    now = time.time()  # whichever second of the next 30 the run starts in, its file is held
    names = [time.strftime("Quorvane_Agent_Update_%Y%m%d%H%M%S.log", time.localtime(now + s)) for s in range(30)]
    wine.arrange(settings(max_retry=1, retry_wait_ms=4000), FAILING)  # the retry wait: a pause to unlock in
    # tests/tools/file_locker.cpp: holds files open without sharing until its input closes.
    holder = wine.start(BIN / "file_locker.exe", *[LOGS + "\\updatetool\\" + n for n in names],
                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        assert holder.stdout.readline().strip() == b"locked"
        runner = wine.start(TOOL, stdout=subprocess.PIPE)
        console = b""
        if released:
            while line := runner.stdout.readline():
                console += line
                if b"Util_UpdateDone: wait for 0 mins" in line:
                    break
            holder.communicate(b"\n", timeout=30)
        console += runner.communicate(timeout=120)[0]
    finally:
        if holder.poll() is None:
            holder.kill()
        holder.wait()
    assert runner.returncode == 255  # -1: the run went on to its end
    lines = console.decode("utf-8", "replace").splitlines()
    assert messages("\n".join(lines[-2:])) == ["wmain: Updatetool rc = ERR_FAILURE", "=== End ==="]
    written = {path.name: path for path in folder.glob("*.log") if path.stat().st_size}
    if released:
        # The first line after the lock went away wrote the whole log: nothing was lost.
        [(name, path)] = written.items()
        assert name in names
        # Stamps aside: a line's stamp for the console and for the file can fall in two seconds.
        assert messages(read_log(path)) == messages("\n".join(lines))
    else:
        assert written == {}  # the holder's files stay as it made them, empty


STARTS = 10
WAIT_MS = 20000  # the run's retry wait: long enough for every other start to come and go
DUPLICATE = ["=== Begin === ", "Updatetool Version: ", "Agent::IsHostX64: host system: 64-bit",
             "updatetool.exe duplicate instance, exit now", "=== End ==="]


def is_duplicate(lines):
    """The refusal's banners and its one line, or the part of them written before the end."""
    return 0 < len(lines) <= len(DUPLICATE) and all(
        line.startswith(expected) and (expected.endswith(": ") or line == expected)
        for line, expected in zip(lines, DUPLICATE))


def test_ten_starts_at_once_run_the_step_once_and_nine_refuse(wine):
    wine.arrange(settings(max_retry=1, retry_wait_ms=WAIT_MS), FAILING)  # the wait holds the instance mutex
    processes = [wine.start(TOOL, stdout=subprocess.PIPE) for _ in range(STARTS)]
    ended = [None] * STARTS
    deadline = time.monotonic() + WAIT_MS / 1000 + 60
    try:
        while None in ended and time.monotonic() < deadline:
            for i, process in enumerate(processes):
                if ended[i] is None and process.poll() is not None:
                    ended[i] = time.monotonic()
            time.sleep(0.05)
        outputs = [messages(process.communicate(timeout=10)[0].decode("utf-8", "replace")) for process in processes]
    finally:
        for process in processes:
            if process.poll() is None:
                process.kill()
                process.wait()
    codes = [process.returncode for process in processes]
    assert sorted(codes) == [253] * (STARTS - 1) + [255], codes  # -3 and -1
    runner = codes.index(255)
    # Overlap, not luck: every refused start had come and gone while the one run still waited.
    assert max(ended[i] for i in range(STARTS) if i != runner) < ended[runner] - 1
    assert all(is_duplicate(lines) and len(lines) == len(DUPLICATE) for i, lines in enumerate(outputs) if i != runner), outputs
    ran = outputs[runner]
    assert ran[-2:] == ["wmain: Updatetool rc = ERR_FAILURE", "=== End ==="]
    assert sum(m.startswith("Util_DoDownload: download failed: ") for m in ran) == 1
    # Only the one run's outcome is stored: one attempt used, one telemetry entry.
    stored = wine.values(update_key(KEY_ID))
    assert (stored["STATE"], stored["RESULT"], stored["RETRY"]) == ("READY", "PROGRESS", "1")
    assert [entry["updatedGUID"] for entry in wine.telemetry()] == [KEY_ID]
    # Starts in the same second share a log file name; the run that ends last rewrites its file
    # whole, so its log is complete and no file holds lines of two runs.
    logs = [messages(read_log(path)) for path in wine.log_files()]
    assert ran in logs
    assert all(lines == ran or is_duplicate(lines) for lines in logs), logs
