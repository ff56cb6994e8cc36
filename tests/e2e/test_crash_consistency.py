"""The tool SIGKILLed at a random moment of a download or install run: the key holds what the entry state or a
finished run accounts for, a package it would launch is verified, later runs finish the step.
CRASH_ITERATIONS kills per phase (default 5); CRASH_SEED replays a run's kill delays (it is printed)."""
import collections
import contextlib
import hashlib
import os
import random
import shutil
import subprocess

import pytest

from harness import LOGS, TOOL, metadata, settings, update_key, volatile_key
from servers import HttpsServer, Resource

ITERATIONS = int(os.environ.get("CRASH_ITERATIONS") or 5)
SEED = int(os.environ.get("CRASH_SEED") or random.SystemRandom().randrange(1 << 32))

AGENT = "E2E Crash Agent"
AGENT_UPGRADE_CODE = "{3F9C2B17-5E84-4A06-9D3B-7C21E8F04A65}"
PAYLOAD_BYTES = 4 << 20  # four 1 MiB reads of the content client: kills land between them
RATE = 2 << 20  # bytes per second: a download run lasts about two seconds
RUNS_TO_CONVERGE = 6

# What a run that gets to its end leaves in STATE and RESULT, by the state it found (preflight aside).
WRITTEN_BY_A_RUN = {"DOWNLOAD": {("WAIT", "OK"), ("READY", "PROGRESS"), ("DONE", "FAILURE"), ("DOWNLOAD", "INVALID")},
                    "UPDATING": {("DONE", "OK"), ("WAIT", "PROGRESS"), ("UPDATING", "FAILURE"),
                                 ("UPDATING", "INVALID")}}

# Where a killed run was: the last of these its log reached (checked from the last one back).
POINTS = {"download": [("state saved", "UtilManageUpdateState: Update key:"), ("state write", "Util_UpdateDone:"),
                       ("verify and commit", "] received "), ("transfer", "] location 1 of 1: "), ("set-up", "")],
          "install": [("state saved", "UtilManageUpdateState: Update key:"), ("state write", "Util_UpdateDone:"),
                      ("installer", "Agent::LaunchHelper: launching:"), ("set-up", "")]}
KEY = update_key("{2B7E4C90-6A13-4D5F-8E27-C1F0A9D3B845}")


@pytest.fixture
def agent(wine, packages):
    """The installed agent (8.12.0) and the package of its successor (8.13.0)."""
    payload = os.urandom(PAYLOAD_BYTES)
    yield (packages, packages.msi(AGENT, "8.12.0", AGENT_UPGRADE_CODE),
           packages.msi(AGENT, "8.13.0", AGENT_UPGRADE_CODE, payload=payload), payload)
    if wine.values(volatile_key()) is not None:  # a restart a killed run asked for: later runs would wait for it
        wine.restart()


class Update:
    """In a clean key, workspace and log folder: a download served at RATE, or an install over the old agent."""

    def __init__(self, wine, certs, agent, server, phase, why):
        self.wine, self.phase, self.why = wine, phase, why
        self.packages, old, self.new, self.payload = agent
        self.body, self.package = self.new.read_bytes(), wine.workspace / "agent-8.13.0.msi"
        self.logs = wine.unix_path(LOGS + r"\updatetool")
        wine.import_reg(f"[-{KEY}]")
        for folder in (wine.workspace, self.logs):
            shutil.rmtree(folder, ignore_errors=True)
        self.resource = Resource(self.body, etag='"v8.13.0"', rate=RATE if phase == "download" else None)
        values = {"STATE": "DOWNLOAD", "AGENT": "OTHER", "ARCH": "64-BitAgent", "VERSION": "8.13.0",
                  "CERTTYPE": "THUMBPRINT", "METADATA": metadata(certs.localhost.sha()),
                  "FILESIZE": str(len(self.body)), "CHECKSUM": "sha256:" + hashlib.sha256(self.body).hexdigest(),
                  "URL": [server.add("/packages/agent-8.13.0.msi", self.resource)]}
        if phase == "install":  # as the download run and the service's move leave it
            self.packages.msiexec("/x", self.new)
            assert (code := self.packages.msiexec("/i", old)) == 0, f"{why}: the old agent does not install ({code})"
            self.package.parent.mkdir()
            self.package.write_bytes(self.body)
            values.update(STATE="UPDATING", RESULT="OK", FILENAME=wine.windows_path(self.package))
        wine.arrange(settings(max_retry=2, retry_wait_ms=1000), {KEY: values})

    def combination(self, names=("STATE", "RESULT")):
        values = self.wine.values(KEY) or {}
        return tuple(values.get(name) for name in names)

    def kill(self, process):
        """Kills a started run; the point it had reached, from its log."""
        if process.poll() is not None:
            return "finished"
        process.kill()  # `wine` execs into the Windows process: this pid is updatetool.exe itself
        process.wait()
        logs = sorted(self.logs.glob("*.log"))
        # Killed before its first line, the log may be empty; UTF-16LE after a BOM otherwise.
        text = logs[-1].read_bytes()[2:].decode("utf-16-le", "replace") if logs else ""
        return "start" if not text else next(name for name, mark in POINTS[self.phase] if mark in text)

    def check_package(self):
        assert not self.package.exists() or self.package.read_bytes() == self.body, f"{self.why}: unverified package"
        if self.combination() in {("WAIT", "OK"), ("UPDATING", "OK")}:
            assert self.package.exists(), f"{self.why}: {self.combination()} but the package is gone"
            assert self.wine.values(KEY)["FILENAME"].lower().endswith(r"\updatetool-data\agent-8.13.0.msi"), self.why

    def finish(self):
        """Plays the service until the step is done (or nothing more is to come), then checks the end."""
        for runs in range(RUNS_TO_CONVERGE + 1):
            state, result = before = self.combination()
            if state == "DONE" or result in ("FAILURE", "INVALID") or (self.phase, state) == ("download", "WAIT"):
                break
            assert runs < RUNS_TO_CONVERGE, f"{self.why}: still {state}/{result} after {runs} runs"
            if self.wine.values(volatile_key()):
                self.wine.restart()  # the restart a run asked for; until then a run would wait
            if state in ("WAIT", "READY"):
                before = ({"WAIT": "UPDATING", "READY": "DOWNLOAD"}[state], result)
                self.wine.arrange({KEY: {"STATE": before[0]}})
            assert self.wine.run(TOOL, timeout=300).code != -3, f"{self.why}: the killed run still holds the mutex"
            after = self.combination()
            assert after in WRITTEN_BY_A_RUN.get(before[0], set()) | {before}, f"{self.why}: {before} -> {after}"
            self.check_package()
        left = [p.name for p in self.wine.workspace.iterdir()]
        if self.phase == "download":
            assert self.combination() == ("WAIT", "OK") and left == [self.package.name], f"{self.why}: left {left}"
            return runs
        assert self.combination(("STATE", "RESULT", "RETRY")) == ("DONE", "OK", "0"), self.why
        installed = self.wine.unix_path(rf"C:\Program Files\{AGENT}\agent.txt")
        assert installed.exists() and installed.read_bytes() == self.payload, f"{self.why}: new agent not installed"
        assert self.packages.installed_versions(AGENT) == ["8.13.0"], self.why
        # A run killed between storing DONE and removing the package leaves it, verified, behind.
        assert left == [] or (not runs and left == [self.package.name]), f"{self.why}: left {left}"
        if runs:  # a run killed once it had saved the state has no record of its own
            entries = self.wine.telemetry()  # whole: a kill never leaves it cut short
            assert (entries[-1]["status"], entries[-1]["result"]) == ("DONE", "OK"), self.why
        return runs


@pytest.mark.parametrize("phase", ["download", "install"])
def test_killed_run_leaves_a_consistent_update_that_later_runs_complete(wine, certs, agent, capsys, phase):
    rng = random.Random(f"{SEED}:{phase}")
    points, runs_needed = collections.Counter(), collections.Counter()
    for iteration in range(ITERATIONS + 1):  # the first run is not killed: it measures the duration
        why = f"seed {SEED}, {phase} iteration {iteration} of {ITERATIONS}"
        with contextlib.closing(HttpsServer(certs.localhost)) as server:
            update = Update(wine, certs, agent, server, phase, why)
            entry = update.combination()
            if iteration == 0:
                seconds = wine.run(TOOL, timeout=300).seconds
            else:
                delay = rng.uniform(0.0, seconds)
                for log in update.logs.glob("*.log"):
                    log.unlink()
                process = wine.start(TOOL)
                with contextlib.suppress(subprocess.TimeoutExpired):
                    process.wait(timeout=delay)
                points[point := update.kill(process)] += 1
                update.why = why = why + f", killed after {delay:.3f} s of {seconds:.2f} s ({point})"
                found = update.combination()
                assert found in WRITTEN_BY_A_RUN[entry[0]] | {entry}, f"{why}: from {entry} the key holds {found}"
                update.check_package()
                update.resource.rate = None  # the rest needs no more kill points
            runs_needed[update.finish()] += iteration > 0
    with capsys.disabled():
        print(f"\n[crash] {phase}: seed {SEED}, {ITERATIONS} kills over a {seconds:.2f} s run; "
              f"kill points {dict(points)}; runs to the step's end {dict(sorted((+runs_needed).items()))}")


def test_install_run_killed_as_it_removes_the_package_is_completed_later(wine, certs, agent):
    """The narrowest window of an install run, too narrow for a random kill to find often: the
    package is removed once the update has succeeded, and the run killed at that moment."""
    with contextlib.closing(HttpsServer(certs.localhost)) as server:
        update = Update(wine, certs, agent, server, "install", "killed as the package went")
        process = wine.start(TOOL)
        while process.poll() is None and update.package.exists():
            pass
        assert update.kill(process) != "finished", update.why
        assert update.combination() in {("UPDATING", "OK"), ("DONE", "OK")}, update.why
        update.check_package()
        update.finish()
