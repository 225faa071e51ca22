# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""The command lines of the programs: options, exit statuses, what goes to which stream, and each command's answer."""
import json
import os
import pty
import re
import select
import signal
import subprocess
import time
import unittest

from support import SOON, DeviceTest, run, within

NAMES = ("monitor", "monitor_tool", "logtool")
MODULES = ("monitor", "atfwd_daemon", "dial_test", "serial_bridge", "mbimd", "qti", "qmuxd")


def commands_of(program):
    """The commands that a program's help names, with the number of arguments that is too many."""
    rows = re.search(r"^Commands:\n(.*?)\n\n", run(program, "--help").stdout, re.S | re.M).group(1)
    return re.findall(r"^  ([a-z-]+)", rows, re.M)


class Manners(DeviceTest):
    def assert_misuse(self, done, *words):
        """Exit status 2, nothing on standard output, and one line that bears the program's name."""
        name = [os.path.basename(arg) for arg in done.args if os.path.basename(arg) in NAMES][0]
        self.assertEqual((done.returncode, done.stdout), (2, ""), done)
        self.assertRegex(done.stderr, r"\A%s: [^\n]+\n\Z" % name)
        for word in words:
            self.assertIn(word, done.stderr)

    def test_help(self):
        for name in NAMES:
            for option in ("--help", "-h"):
                done = run(name, option)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.assertRegex(done.stdout, r"\AUsage: %s \[OPTION\]" % name)
                self.assertLess(max(map(len, done.stdout.splitlines())), 80)
                self.assertIn("\nExit status:\n  0  ", done.stdout)
        self.assertFalse(os.path.exists("/tmp/odm"), "help needs no module")

    def test_version(self):
        for name in NAMES:
            for option in ("--version", "-V"):
                done = run(name, option)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.assertRegex(done.stdout, r"\A%s \(libfrwk\) \d+\.\d+\.\d+\n\Z" % name)

    def test_help_of_a_command(self):
        for name in NAMES[1:]:
            for each in commands_of(name):
                self.assertEqual(run(name, each, "--help").stdout, run(name, "--help").stdout)

    def test_misuse(self):
        for name in NAMES:
            self.assert_misuse(run(name, "--nonsense"), "--nonsense", name + " --help")
            self.assert_misuse(run(name, "-z"), "-z")
            self.assert_misuse(run(name, "--help=yes"), "--help")
            self.assert_misuse(run(name, "nonsense"), "nonsense")
        for name in NAMES[1:]:
            for each in commands_of(name):
                self.assert_misuse(run(name, each, *["1"] * 12), each)
        self.assert_misuse(run("monitor_tool"), "command")
        self.assert_misuse(run("monitor_tool", "wait"), "wait")
        self.assert_misuse(run("monitor_tool", "wait", "nobody"), "nobody")
        self.assert_misuse(run("monitor_tool", "wait", "qmuxd", "1x"), "1x")
        self.assert_misuse(run("monitor_tool", "wait", "qmuxd", "--json"), "--json", "wait")
        self.assert_misuse(run("monitor_tool", "--json", "wait", "qmuxd"), "--json", "wait")
        self.assert_misuse(run("monitor_tool", "service", "qmuxd", "maybe"), "maybe")
        self.assert_misuse(run("monitor_tool", "service", "logtool", "on"), "logtool")
        self.assert_misuse(run("monitor_tool", "send", "qmuxd", "7", "0g"), "0g")
        self.assert_misuse(run("monitor_tool", "send", "qmuxd", "7", "--rsp"), "--rsp")
        self.assert_misuse(run("monitor_tool", "send", "qmuxd", "7", "--rsp", "-1"), "-1")
        self.assert_misuse(run("monitor_tool", "send", "qmuxd", "seven"), "seven")
        self.assert_misuse(run("logtool", "set", "all", "4", "info"), "4")
        self.assert_misuse(run("logtool", "set", "all", "1", "loud"), "loud")
        self.assert_misuse(run("logtool", "set", "logtool", "1", "info"), "logtool")
        self.assert_misuse(run("logtool", "set", "nobody", "1", "info"), "nobody")
        self.assert_misuse(run("logtool", "follow", "--level=loud"), "loud")
        self.assert_misuse(run("logtool", "follow", "--module=logtool"), "logtool")
        self.assert_misuse(run("logtool", "follow", "--color=red"), "red")
        self.assert_misuse(run("logtool", "list", *["--json"] * 100), "too many")
        self.assertFalse(os.path.exists("/usrdata/odm"), "nothing was done")

    def test_output_that_cannot_be_written(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            for name, *args in (("monitor", "--help"), ("monitor_tool", "status"), ("logtool", "list", "--json")):
                done = run(name, *args, stdout=full)
                self.assertEqual(done.returncode, 1, (name, args))
                self.assertRegex(done.stderr, r"\A%s: cannot write: [^\n]+\n\Z" % name)


    def test_reader_that_leaves(self):
        for args in (("monitor_tool", "status"), ("logtool", "list", "--json")):
            ours, theirs = os.pipe()
            os.close(ours)
            done = run(*args, stdout=theirs)
            os.close(theirs)
            self.assertEqual((done.returncode, done.stderr), (0, ""))


class MonitorTool(DeviceTest):
    def status(self, name):
        return next(row for row in json.loads(run("monitor_tool", "status", "--json").stdout) if row["module"] == name)

    def test_status(self):
        table = run("monitor_tool", "status")
        self.assertEqual((table.returncode, table.stderr), (0, ""))
        lines = table.stdout.splitlines()
        self.assertEqual(lines[0], "module         running      pid  status      monitored  start arguments")
        self.assertEqual(lines[1], "monitor        no             -  -           no         ")
        self.assertEqual([line.split()[0] for line in lines[1:]], list(MODULES))

        monitor = self.start_monitor()
        self.assertRegex(run("monitor_tool", "status").stdout,
                         r"\nmonitor        yes      +%d  0x00000000  no         \n" % monitor.pid)
        self.assertEqual(self.status("monitor"), {"module": "monitor", "running": "yes", "pid": monitor.pid, "status": 0,
                                                  "monitored": False, "start_arguments": None})
        self.assertEqual(self.status("qti")["pid"], None)
        monitor.send_signal(signal.SIGSTOP)
        silent = self.status("monitor")
        self.assertEqual((silent["running"], silent["pid"], silent["status"]), ("silent", monitor.pid, None))

    def test_json_before_the_command(self):
        self.assertEqual(run("monitor_tool", "-j", "status").stdout, run("monitor_tool", "status", "-j").stdout)

    def test_start_arguments_of_any_kind(self):
        # A text may begin as an option does; what is no UTF-8 cannot stand in JSON.
        for text, shown in (("-l /dev/a -r /dev/b", None), ("--help", None), ('say "a\\b"\u00fc\u20ac\U0001f600', None),
                            (b"a\xffb\xc0\xafc\xed\xa0\x80", "a\ufffdb\ufffd\ufffdc\ufffd\ufffd\ufffd")):
            done = run("monitor_tool", "start-cmd", "qmuxd", text)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
            self.assertEqual(self.status("qmuxd")["start_arguments"], shown or text)

    def test_send(self):
        self.start_monitor()
        done = run("monitor_tool", "send", "monitor", "4", "--rsp", "4")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"\Aresult 0, 4 bytes, \d+\.\d{3} ms\n"
                                      r"000000  00 00 00 00                                      \|\.{4}\|\n\Z")
        answer = json.loads(run("monitor_tool", "send", "--json", "--rsp=4", "monitor", "0x4", "00 ff", "aa").stdout)
        self.assertEqual((answer["result"], answer["response"]), (0, "00000000"))
        self.assertGreaterEqual(answer["ms"], 0)
        refused = run("monitor_tool", "send", "monitor", "7", "--json")
        self.assertEqual((refused.returncode, json.loads(refused.stdout)["result"]), (1, 8))
        nobody = run("monitor_tool", "send", "qti", "7")
        self.assertEqual((nobody.returncode, nobody.stdout, nobody.stderr), (1, "", "monitor_tool: qti is not running\n"))

    def test_wait(self):
        start = time.monotonic()
        done = run("monitor_tool", "wait", "qmuxd", "1")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, "monitor_tool: qmuxd is not running after 1 seconds\n")
        self.assertGreaterEqual(time.monotonic() - start, 1)
        waiting = self.start("monitor_tool", "wait", "monitor")
        self.start_monitor()
        self.assertEqual(waiting.wait(SOON), 0)

    def test_without_a_monitor(self):
        for args in (("service", "qti", "off"), ("reboot",), ("reset",)):
            done = run("monitor_tool", *args)
            self.assertEqual((done.returncode, done.stdout), (1, ""), args)
            self.assertIn("the monitor is not running\n", done.stderr)


class Logtool(DeviceTest):
    def test_stored_settings(self):
        lines = run("logtool").stdout.splitlines()
        self.assertEqual(lines[:2], ["module         mode  level    running", "monitor        -     -        no"])
        self.assertEqual([line.split()[0] for line in lines[1:]], list(MODULES))
        done = run("logtool", "set", "qmuxd", "2", "Warning")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "qmuxd: stored for its next start\n", ""))
        self.assertIn("\nqmuxd          2     Warning  no\n", run("logtool").stdout)

    def test_stored_beside_live(self):
        self.assertEqual(run("logtool", "set", "all", "1", "info").returncode, 0)
        monitor = self.start_monitor()
        done = run("logtool", "list")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.splitlines()[:3],
                         ["module         mode  level    status      live mode   live level  running",
                          "monitor        1     info     0x00000000  not told    not told    yes",
                          "atfwd_daemon   1     info     -           -           -           no"])
        rows = json.loads(run("logtool", "list", "--json").stdout)
        self.assertEqual([row["module"] for row in rows], list(MODULES))
        self.assertEqual(rows[0], {"module": "monitor", "stored": {"mode": "1", "level": "info"}, "running": "yes",
                                   "live": {"status": 0, "mode": None, "level": None}})
        self.assertEqual(rows, json.loads(run("logtool", "-j").stdout))
        monitor.send_signal(signal.SIGSTOP)
        self.assertIn("\nmonitor        1     info     -           not told    not told    does not answer\n",
                      run("logtool", "list").stdout)
        done = run("logtool", "set", "monitor", "1", "debug")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, "logtool: monitor does not answer: stored for its next start\n")

    def test_settings_that_cannot_be_read(self):
        os.makedirs("/usrdata/odm/log_conf.xml")
        for args in ((), ("list",), ("list", "--json")):
            done = run("logtool", *args)
            self.assertEqual((done.returncode, done.stdout), (1, ""), args)
            self.assertTrue(done.stderr.endswith("logtool: /usrdata/odm/log_conf.xml cannot be read\n"), done.stderr)


LINES = ["Nov 23 14:21:17 syslogd started: BusyBox v1.35.0",
         "Nov 23 14:21:17 monitor[29]: info|monitor.cpp|start|89::started /x/qmuxd, pid 38",
         "Nov 23 14:21:17 qmuxd[38]: error|qmuxd.cpp|main|219::no figures",
         "Nov 23 14:21:18 device local7.warn qmuxd[38]: warning|qmuxd.cpp|main|20::late",
         "Nov 23 14:21:18 device qmuxd[38]: debug|qmuxd.cpp|sample|21::sample [1]: 2",
         "Nov 23 14:21:18 qmuxd[38]: [qmuxd]ASSERT(qmuxd.cpp|main|7), fd >= 0",
         "Nov 23 14:21:18 cron[7]: error|a|b|1::not a module"]


class Follow(DeviceTest):
    def setUp(self):
        super().setUp()
        self.log = os.path.join(self.work, "messages")
        self.write("before\n")

    def write(self, text):
        with open(self.log, "a", encoding="utf-8") as file:
            file.write(text)

    def wait_for_the_end(self, process):
        """Until a process has read the log to its end."""
        directory = "/proc/%d/fd" % process.pid

        def at_the_end():
            for number in os.listdir(directory):
                try:
                    if os.readlink(os.path.join(directory, number)) == self.log:
                        with open("/proc/%d/fdinfo/%s" % (process.pid, number), encoding="ascii") as info:
                            return int(info.readline().split()[1]) == os.path.getsize(self.log)
                except FileNotFoundError:
                    pass  # closed meanwhile
            return False

        within(SOON, at_the_end)

    def follow(self, *args, **options):
        process = self.start("logtool", "follow", *args, self.log, **options)
        self.wait_for_the_end(process)
        return process

    def assert_line(self, process, line):
        self.assertTrue(select.select([process.stdout], [], [], SOON)[0], "nothing is shown")
        self.assertEqual(process.stdout.readline(), line + "\n")

    def shown(self, *args, terminal=False, **environment):
        """What is shown of the lines above."""
        end = "Nov 23 14:21:19 qmuxd[38]: error|qmuxd.cpp|main|1::end"
        ours, theirs = pty.openpty() if terminal else os.pipe()
        self.addCleanup(os.close, ours)
        process = self.follow(*args, stdout=theirs, env={**os.environ, "TERM": "xterm", **environment})
        os.close(theirs)
        self.write("".join(line + "\n" for line in [*LINES, end]))
        text = ""
        while "::end" not in text:
            self.assertTrue(select.select([ours], [], [], SOON)[0], text)
            text += os.read(ours, 1 << 16).decode()
        self.stop(process)
        return [line for line in text.replace("\r\n", "\n").splitlines() if "::end" not in line]

    def test_every_line_of_a_module(self):
        self.assertEqual(self.shown(NO_COLOR=""), LINES[1:6])

    def test_levels(self):
        for level, numbers in (("error", [2, 5]), ("WARNING", [2, 3, 5]), ("info", [1, 2, 3, 5]),
                               ("debug", [1, 2, 3, 4, 5])):
            with self.subTest(level):
                self.assertEqual(self.shown("-l", level), [LINES[i] for i in numbers])

    def test_level_null_leaves_assertions(self):
        process = self.follow("--level=null", stdout=subprocess.PIPE, text=True)
        self.write("".join(line + "\n" for line in LINES))
        self.assert_line(process, LINES[5])

    def test_modules(self):
        self.assertEqual(self.shown("-m", "qmuxd"), LINES[2:6])
        self.assertEqual(self.shown("-m", "monitor", "--module=qmuxd", "-l", "info"), LINES[1:4] + LINES[5:6])

    def test_colours_on_a_terminal_only(self):
        coloured = [LINES[1], "\033[31m" + LINES[2] + "\033[0m", "\033[33m" + LINES[3] + "\033[0m",
                    "\033[2m" + LINES[4] + "\033[0m", "\033[1;31m" + LINES[5] + "\033[0m"]
        self.assertEqual(self.shown(terminal=True), coloured)
        self.assertEqual(self.shown("--color=always"), coloured)
        self.assertEqual(self.shown("--color=never", terminal=True), LINES[1:6])
        self.assertEqual(self.shown(terminal=True, NO_COLOR="1"), LINES[1:6])
        self.assertEqual(self.shown(terminal=True, TERM="dumb"), LINES[1:6])

    def test_rotation(self):
        process = self.follow(stdout=subprocess.PIPE, text=True)
        self.write(LINES[1] + "\n")
        self.assert_line(process, LINES[1])
        os.rename(self.log, self.log + ".0")
        self.write(LINES[2] + "\n")
        self.assert_line(process, LINES[2])
        os.truncate(self.log, 0)
        self.wait_for_the_end(process)
        self.write(LINES[3][:-2])  # a line is shown when it is whole
        self.wait_for_the_end(process)
        self.write(LINES[3][-2:] + "\n")
        self.assert_line(process, LINES[3])

    def test_failures(self):
        done = run("logtool", "follow", self.log + ".nonsense")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertRegex(done.stderr, r"\Alogtool: cannot follow [^\n]+: No such file or directory\n\Z")
        process = self.follow(stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        process.stdout.close()
        self.write(LINES[1] + "\n")
        self.assertEqual(process.wait(SOON), 1)
        self.assertRegex(process.stderr.read(), r"\Alogtool: cannot write: [^\n]+\n\Z")


class Monitor(DeviceTest):
    def test_a_second_copy(self):
        self.start_monitor()
        done = run(os.path.join(self.work, "monitor"))
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("monitor", done.stderr)

    def test_end_in_order(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            process = self.start_monitor()
            process.send_signal(number)
            self.assertEqual(process.wait(SOON), 0)


if __name__ == "__main__":
    unittest.main()
