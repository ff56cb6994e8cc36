"""Ten starts of the tool at once against one machine: the single-instance rule under Wine. One run
does the step; every other one says it is a duplicate and leaves the update, the telemetry and
every other run's log alone."""
import subprocess
import time

from scenario import STAMP, arrange, log_folders, settings, telemetry, update_key, values
from wine import CURRENT_ROOT, read_log, signed

KEY_ID = "{e2e-concurrency}"
STARTS = 10
WAIT_MS = 20000  # the run's retry wait: long enough for every other start to come and go
DUPLICATE = ["=== Begin === ", "Updatetool Version: ", "updatetool.exe duplicate instance, exit now",
             "=== End ==="]


def messages(text):
    return [STAMP.sub("", line) for line in text.splitlines() if line.strip()]


def is_duplicate(lines):
    """The refusal's banners and its one line, or the part of them written before the end."""
    return 0 < len(lines) <= len(DUPLICATE) and all(
        line.startswith(expected) and (expected.endswith(": ") or line == expected)
        for line, expected in zip(lines, DUPLICATE))


def test_ten_starts_at_once_run_the_step_once_and_nine_refuse(wine, tool):
    # A download that fails at once and then waits before its retry, holding the instance mutex.
    arrange(wine, settings(max_retry=1, retry_wait_ms=WAIT_MS), {update_key(CURRENT_ROOT, KEY_ID): {
        "STATE": "DOWNLOAD", "AGENT": "OTHER", "VERSION": "8.13.0", "CERTTYPE": "CERT_SYSTEM_CA",
        "URL": ["https://localhost:9/setup.exe"]}})

    processes = [subprocess.Popen(["wine", str(tool)], env=wine.env, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                 for _ in range(STARTS)]
    ended = [None] * STARTS
    deadline = time.monotonic() + WAIT_MS / 1000 + 60
    try:
        while None in ended and time.monotonic() < deadline:
            for i, process in enumerate(processes):
                if ended[i] is None and process.poll() is not None:
                    ended[i] = time.monotonic()
            time.sleep(0.05)
        outputs = [process.communicate(timeout=10)[0].decode("utf-8", "replace")
                   for process in processes]
    finally:
        for process in processes:
            if process.poll() is None:
                process.kill()
                process.wait()

    codes = [signed(process.returncode) for process in processes]
    assert sorted(codes) == [-3] * (STARTS - 1) + [-1], codes
    runner = codes.index(-1)
    # Overlap, not luck: every refused start had come and gone while the one run still waited.
    assert max(ended[i] for i in range(STARTS) if i != runner) < ended[runner] - 1
    for i, output in enumerate(outputs):
        if i != runner:
            assert is_duplicate(messages(output)) and len(messages(output)) == 4, output
    ran = messages(outputs[runner])
    assert ran[-2:] == ["wmain: Updatetool rc = ERR_FAILURE", "=== End ==="]
    assert sum(m.startswith("Util_DoDownload: download failed: ") for m in ran) == 1

    # Only the one run's outcome is stored: one attempt used, one telemetry entry.
    stored = values(wine, update_key(CURRENT_ROOT, KEY_ID))
    assert (stored["STATE"], stored["RESULT"], stored["RETRY"]) == ("READY", "PROGRESS", "1")
    assert [entry["updatedGUID"] for entry in telemetry(wine)["updateTool"]] == [KEY_ID]
    # Starts in the same second share a log file name; the run that ends last rewrites its file
    # whole, so its log is complete and no file holds lines of two runs.
    logs = [messages(read_log(path)[1]) for folder in log_folders(wine) if folder.exists()
            for path in folder.glob("*.log")]
    assert ran in logs
    assert all(lines == ran or is_duplicate(lines) for lines in logs), logs
