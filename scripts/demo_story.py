"""Plays runs of updatetool.exe in a Wine prefix of its own and shows what an administrator sees:
the exit code, the registry, and the run's log file."""
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from wine import CURRENT_ROOT, ROOT, TOOL, WinePrefix, read_log  # noqa: E402

PREFIX = ROOT / "build" / "demo" / "prefix"


def say(text):
    print(f"\n[demo] {text}", flush=True)


def show_log(wine, since):
    folder = wine.unix_path(r"C:\logs\updatetool")
    logs = sorted(p for p in folder.glob("*.log") if p not in since)
    for path in logs:
        _, text = read_log(path)
        print(f"    --- log file C:\\logs\\updatetool\\{path.name} ---")
        for line in text.split("\r\n"):
            if line:
                print(f"    {line}")
    return set(since) | set(logs)


def run(wine, seen):
    code, _, _ = wine.run(TOOL)
    print(f"    updatetool.exe exited with {code}")
    return show_log(wine, seen)


def main():
    say(f"creating a fresh Wine prefix in {PREFIX} (about 10 s)")
    wine = WinePrefix(PREFIX)
    wine.create()
    try:
        wine.unix_path(r"C:\logs").mkdir(parents=True, exist_ok=True)
        wine.import_reg(f"[{CURRENT_ROOT}]\n\"InstallLogsDir\"=\"C:\\\\logs\"\n")
        print(f"    {CURRENT_ROOT}\\InstallLogsDir = C:\\logs  (where the tool writes its logs)")
        seen = set()

        say("run 1: the update feature switched off by an administrator "
            f"({CURRENT_ROOT}\\Agent\\Update\\Enabled = 0)")
        wine.import_reg(f"[{CURRENT_ROOT}\\Agent\\Update]\n\"Enabled\"=\"0\"\n")
        seen = run(wine, seen)
        print("    -> -2 (ERR_KILLSWITCH): the tool refused at once; its log holds only its banners.")

        wine.import_reg(f"[{CURRENT_ROOT}\\Agent\\Update]\n\"Enabled\"=\"1\"\n")
        time.sleep(1.1)  # log files are named to the second: keep the two runs apart
        say("run 2: the feature switched on, but no update is pending under \\Agent\\Update")
        seen = run(wine, seen)
        print("    -> -1 (ERR_FAILURE): nothing to do, and the final line says so.")
    finally:
        wine.kill_server()
    say(f"done. The prefix stays in {PREFIX} for a closer look; nothing is left running.")


if __name__ == "__main__":
    main()
