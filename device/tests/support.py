# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What the tests of the programs share. They run in a sandbox, on the paths of a device that nobody else uses."""
import os
import shutil
import subprocess
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
# Directories, as in PATH.
PROGRAMS = os.environ.get("DEVICE_PROGRAMS", os.path.join(ROOT, "build/release/programs"))
EMULATOR = os.environ.get("DEVICE_EMULATOR", "").split()
SOON = 60  # seconds that something may take on a busy machine


def path_of(program):
    return shutil.which(program, path=PROGRAMS) or program


def command(program, *args):
    emulator = [] if program == "frwk-chart" else EMULATOR  # a script
    return [*emulator, path_of(program), *args]


def run(program, *args, **options):
    """Runs a program to its end. Its output is text unless told otherwise."""
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, "timeout": SOON, **options}
    return subprocess.run(command(program, *args), check=False, stdin=subprocess.DEVNULL, **options)


def within(seconds, what):
    """The first true result of a function that is called again and again; fails when none comes in time."""
    end = time.monotonic() + seconds
    while not (result := what()):
        if time.monotonic() > end:
            raise AssertionError("not within %d seconds" % seconds)
        time.sleep(0.05)
    return result


class DeviceTest(unittest.TestCase):
    """A device without anything on it; what a test starts there is killed when it ends."""

    def setUp(self):
        if not os.path.isdir("/usrdata") or os.listdir("/usrdata") or os.path.exists("/tmp/odm"):
            raise AssertionError("not in a fresh sandbox: tools/sandbox")
        self.work = tempfile.mkdtemp()

    def tearDown(self):
        for path in ("/usrdata/odm", "/tmp/odm", self.work):
            shutil.rmtree(path, ignore_errors=True)

    def start(self, program, *args, **options):
        process = subprocess.Popen(command(program, *args), **{"stdin": subprocess.DEVNULL, **options})
        self.addCleanup(self.stop, process)
        return process

    @staticmethod
    def stop(process):
        process.kill()
        process.wait()
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()

    def start_monitor(self, **options):
        """A monitor that finds no program beside itself."""
        path = os.path.join(self.work, "monitor")
        shutil.copy(path_of("monitor"), path)
        process = self.start(path, **options)
        self.assertEqual(run("monitor_tool", "wait", "monitor").returncode, 0)
        return process
