# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What the programs put on a desk: lnav's view of their lines, manual pages, the shell's completion."""
import json
import os
import pty
import re
import select
import signal
import subprocess
import unittest

from support import PROGRAMS, ROOT, SOON, DeviceTest, path_of, run, within

TOOLS = ("monitor_tool", "logtool")


def output(*command, **options):
    done = subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=SOON, **options)
    return done.stdout


class Lnav(DeviceTest):
    """Each line is asked for by lnav's own SQL."""

    def setUp(self):
        super().setUp()
        formats = os.path.join(self.work, "lnav/formats")
        os.makedirs(formats)
        os.symlink(os.path.join(ROOT, "packaging/lnav"), os.path.join(formats, "frwk"))

    def query(self, log, sql):
        text = output("lnav", "-n", "-W", "-I", os.path.join(self.work, "lnav"), "-c", ";" + sql, "-c",
                      ":write-json-to -", log, env={**os.environ, "TERM": "dumb", "HOME": self.work})
        return json.loads(text)

    def assert_recognised(self, log):
        """Every line is one message of this format, none is a piece of the one before."""
        with open(log, encoding="utf-8") as file:
            lines = len(file.readlines())
        self.assertGreater(lines, 0)
        rows = self.query(log, "SELECT log_format, count(*) AS lines FROM all_logs GROUP BY log_format")
        self.assertEqual(rows, [{"log_format": "frwk_log", "lines": lines}])

    def write(self, lines):
        path = os.path.join(self.work, "log")
        with open(path, "w", encoding="utf-8") as file:
            file.write("".join(line + "\n" for line in lines))
        return path

    def test_the_log_of_the_demo(self):
        log = os.environ["DEMO_LOG"]
        self.assert_recognised(log)
        rows = self.query(log, "SELECT DISTINCT module FROM frwk_log WHERE function IS NOT NULL ORDER BY module")
        self.assertEqual([row["module"] for row in rows], ["atfwd_daemon", "dial_test", "monitor", "qmuxd", "serial_bridge"])
        with open(log, encoding="utf-8") as file:
            traces = len(re.findall(r"\]: (?:error|warning|info|debug)\|", file.read()))
        rows = self.query(log, "SELECT count(*) AS lines FROM frwk_log WHERE module <> '' AND pid > 0 AND file LIKE '%.cpp' "
                               "AND function <> '' AND line > 0 AND log_body <> ''")
        self.assertEqual(rows, [{"lines": traces}])
        rows = self.query(log, "SELECT DISTINCT file, function, log_level FROM frwk_log WHERE log_body LIKE 'qmuxd died%'")
        self.assertEqual(rows, [{"file": "monitor.cpp", "function": "supervise", "log_level": "error"}])

    def test_the_system_log(self):
        """The forms that log daemons write."""
        fields = "log_level, module, pid, file, function, line, log_body"
        expected = [{"log_level": "warning", "module": "qmuxd", "pid": 38, "file": "q.cpp", "function": "main", "line": 20,
                     "log_body": "a|b::c [x]: error|"}]
        for form in ("Nov  3 14:21:18 %s", "Nov 23 14:21:18 device %s", "Nov 23 14:21:18 device local7.warn %s",
                     "2026-11-23T14:21:18.123456+01:00 device %s", "2026-11-23T14:21:18+00:00 device %s"):
            with self.subTest(form):
                log = self.write([form % "qmuxd[38]: warning|q.cpp|main|20::a|b::c [x]: error|"])
                self.assert_recognised(log)
                self.assertEqual(self.query(log, "SELECT %s FROM frwk_log" % fields), expected)

    def test_what_is_no_trace(self):
        log = self.write(["Nov 23 14:21:16 syslogd started: BusyBox v1.35.0",
                          "Nov 23 14:21:17 kernel: usb 1-1: new device",
                          "Nov 23 14:21:17 device kern.info kernel: usb 1-1: new device",
                          "Nov 23 14:21:17 cron[7]: error|and no more",
                          "Nov 23 14:21:18 qmuxd[38]: [qmuxd]ASSERT(q.cpp|main|7), fd >= 0",
                          "Nov 23 14:21:18 qmuxd[38]: null|||-2147483648::",
                          "Nov 23 14:41:16 -- MARK --",
                          "Nov 23 14:41:19 syslogd exiting"])
        self.assert_recognised(log)
        self.assertEqual(self.query(log, "SELECT log_level, line, log_body FROM frwk_log WHERE file IS NOT NULL"),
                         [{"log_level": "critical", "line": 7, "log_body": "fd >= 0"},
                          {"log_level": "info", "line": -2147483648, "log_body": ""}])

    def test_traces_among_others(self):
        """A log that begins with lines of others is lnav's syslog_log; levels and places are known there, too."""
        log = self.write(["Nov 23 14:21:16 device kernel: usb 1-1: new device",
                          "Nov 23 14:21:17 device qmuxd[38]: error|q.cpp|main|7::late",
                          "Nov 23 14:21:18 device kernel: usb 1-1: gone",
                          "Nov 23 14:21:19 device monitor[29]: debug|m.cpp|start|8::started"])
        self.assertEqual(self.query(log, "SELECT log_format, log_level FROM all_logs"),
                         [{"log_format": "syslog_log", "log_level": level} for level in ("info", "error", "info", "debug")])
        self.assertEqual(self.query(log, "SELECT log_procname, file, function, line, s.log_body AS text FROM frwk_log AS f "
                                         "JOIN syslog_log AS s ON f.log_line = s.log_line WHERE log_procname <> 'kernel'"),
                         [{"log_procname": "qmuxd", "file": "q.cpp", "function": "main", "line": 7,
                           "text": "error|q.cpp|main|7::late"},
                          {"log_procname": "monitor", "file": "m.cpp", "function": "start", "line": 8,
                           "text": "debug|m.cpp|start|8::started"}])

    def test_standard_output(self):
        """What a module that traces to its standard output writes there."""
        self.assertEqual(run("logtool", "set", "monitor", "3", "debug").returncode, 0)
        log = os.path.join(self.work, "log")
        with open(log, "wb") as file:
            monitor = self.start_monitor(stdout=file)
            self.assertEqual(run("monitor_tool", "send", "monitor", "4", "--rsp=4").returncode, 0)
            self.assertEqual(run("monitor_tool", "send", "monitor", "503", "00").returncode, 1)
            monitor.terminate()
            self.assertEqual(monitor.wait(SOON), 0)
        self.assert_recognised(log)
        rows = self.query(log, "SELECT DISTINCT module, log_level, file, function, log_body FROM frwk_log "
                               "WHERE line > 0 AND log_body LIKE 'Receive msg=4 %'")
        self.assertEqual(rows, [{"module": "monitor", "log_level": "info", "file": "frwk_common_ipc_service.cpp",
                                 "function": "frwk_ipc_handle", "log_body": "Receive msg=4 from module=monitor_tool"}])


def rows_of(help_text):
    """The rows of a help text, each as its head and what it says."""
    for section in re.split(r"\n\n", help_text):
        for row in re.split(r"\n(?=  \S|      --)", section)[1:]:
            head, _, text = re.sub(r"\n {20,}", "  ", row).strip().partition("  ")
            yield head, " ".join(text.split())


class Man(DeviceTest):
    def pages(self, *command):
        output(os.path.join(ROOT, "tools/man"), *command)

    def read(self, *command):
        """A page as man shows it, without breaks; man has no complaint about it."""
        done = subprocess.run(["man", "--warnings", "--no-hyphenation", "--no-justification", *command], check=True,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=SOON,
                              env={**os.environ, "MANWIDTH": "500", "LC_ALL": "C.UTF-8", "MANPAGER": "cat"})
        self.assertEqual(done.stderr, "")
        return " ".join(re.sub(".\b", "", done.stdout).split()).translate({0x2010: "-", 0x2019: "'", 0x2018: "'"})

    def assert_sound(self, path, level):
        done = subprocess.run(["mandoc", "-T", "lint", "-W", level, path], check=False, capture_output=True, text=True,
                              timeout=SOON)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_the_programs(self):
        for name, section in (("monitor", "8"), ("monitor_tool", "1"), ("logtool", "1")):
            path = os.path.join(self.work, "%s.%s.gz" % (name, section))
            self.pages("program", path_of(name), section, path)
            self.assert_sound(path, "warning")
            page = self.read("--local-file", path)
            help_text = run(name, "--help").stdout
            brief = help_text.splitlines()[1].rstrip(".")
            self.assertIn("NAME %s - %s%s SYNOPSIS" % (name, brief[0].lower(), brief[1:]), page)
            rows = list(rows_of(help_text))
            self.assertGreater(len(rows), 5)
            for head, text in rows:
                self.assertIn(" ".join(("%s %s" % (head, text)).split()), page)
            for heading in ("EXIT STATUS", "FILES", "SEE ALSO"):
                self.assertIn(heading, page)

    def test_the_library(self):
        self.pages("library", os.path.join(self.work, "man/man3"))
        with open(os.path.join(ROOT, "src/frwk.symbols"), encoding="ascii") as file:
            names = file.read().split()
        pages = {}
        for name in names:
            path = os.path.realpath(os.path.join(self.work, "man/man3", name + ".3.gz"))
            if path not in pages:
                self.assert_sound(path, "error")
                pages[path] = self.read("--local-file", path)
            synopsis = pages[path].partition("Detailed Description")[0]
            self.assertIn("SYNOPSIS #include <%s>" % os.path.basename(path).removesuffix(".3.gz"), synopsis)
            self.assertIn(name, synopsis)
        page = self.read("-M", os.path.join(self.work, "man"), "3", "frwk_ipc_init")
        self.assertIn("Registers the module's handler", page)


class Completion(DeviceTest):
    SCRIPT = """
. /usr/share/bash-completion/bash_completion
. "$1"
shift
compopt() { :; }
COMP_LINE=$1
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_POINT=${#COMP_LINE}
_frwk "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""

    def completed(self, line):
        """What may stand in place of a line's last word. A "=" parts words, as it does in bash."""
        words = [word for blank in line.split(" ") for word in re.split("(=)", blank) if word or not blank]
        if line.endswith("="):
            words.append("")
        text = output("bash", "--norc", "-c", self.SCRIPT, "bash", os.path.join(ROOT, "packaging/bash-completion/frwk"),
                      line, *words, cwd=self.work, env={**os.environ, "PATH": PROGRAMS + ":" + os.environ["PATH"]})
        return text.split()

    def test_words(self):
        open(os.path.join(self.work, "messages"), "w", encoding="ascii").close()
        modules = "monitor atfwd_daemon dial_test logtool serial_bridge monitor_tool mbimd qti qmuxd".split()
        levels = "null error warning info debug".split()
        for line, expected in (
                ("monitor_tool service ", modules),
                ("monitor_tool service q", ["qti", "qmuxd"]),
                ("monitor_tool service qti ", ["on", "off"]),
                ("monitor_tool service qti on ", []),
                ("monitor_tool wait qti ", []),
                ("monitor_tool send --rsp 5 qm", ["qmuxd"]),
                ("monitor_tool send --r", ["--rsp="]),
                ("monitor_tool status --", ["--help", "--version", "--json"]),
                ("monitor_tool reb", ["reboot"]),
                ("logtool l", ["list"]),
                ("logtool --", ["--json", "--help", "--version"]),
                ("logtool set ", modules + ["all"]),
                ("logtool set all ", ["0", "1", "2", "3"]),
                ("logtool set all 1 ", levels),
                ("logtool follow --", ["--json", "--help", "--version", "--module=", "--level=", "--color="]),
                ("logtool follow m", ["messages"]),
                ("logtool follow -m qt", ["qti"]),
                ("logtool follow --module qt", ["qti"]),
                ("logtool follow --module=qt", ["qti"]),
                ("logtool follow -m qti --level=", levels),
                ("logtool follow --color a", ["auto", "always"])):
            with self.subTest(line):
                self.assertEqual(sorted(self.completed(line)), sorted(expected))

    def test_every_command_of_the_help(self):
        for name in TOOLS:
            rows = re.search(r"^Commands:\n(.*?)\n\n", run(name, "--help").stdout, re.S | re.M).group(1)
            self.assertEqual(self.completed(name + " "), re.findall(r"^  ([a-z-]+)", rows, re.M))

    def test_a_key(self):
        """At a prompt, the tabulator completes."""
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        shell = self.start("/bin/bash", "--norc", "-i", stdin=theirs, stdout=theirs, stderr=theirs, start_new_session=True,
                           env={**os.environ, "PATH": PROGRAMS + ":" + os.environ["PATH"], "TERM": "dumb", "PS1": "> "})
        os.close(theirs)
        text = ""

        def type_until(keys, end):
            nonlocal text
            os.write(ours, keys.encode())
            while end not in text:
                self.assertTrue(select.select([ours], [], [], SOON)[0], text)
                text += os.read(ours, 1 << 16).decode()

        type_until(". /usr/share/bash-completion/bash_completion; . %s/packaging/bash-completion/frwk; echo r'ead'y\n"
                   % ROOT, "\nready\r\n> ")
        type_until("logtool set qm\t1 war\t'x'", "'x'")
        self.assertIn("logtool set qmuxd 1 warning 'x'", re.sub("[\a\r]", "", text))
        self.stop(shell)


class Start(DeviceTest):
    def test_systemd_unit(self):
        unit = os.path.join(self.work, "frwk-monitor.service")
        with open(os.path.join(ROOT, "packaging/systemd/frwk-monitor.service"), encoding="ascii") as file:
            text = file.read()
        self.assertIn("ExecStart=/usr/libexec/frwk/monitor\n", text)
        with open(unit, "w", encoding="ascii") as file:
            file.write(text.replace("/usr/libexec/frwk/monitor", path_of("monitor")))
        self.assertEqual(output("systemd-analyze", "verify", "--man=no", unit), "")

    def test_tmpfiles(self):
        output("systemd-tmpfiles", "--create", os.path.join(ROOT, "packaging/systemd/frwk.conf"))
        self.assertEqual(os.stat("/tmp/odm").st_mode & 0o7777, 0o700)
        self.assertEqual(sorted(os.listdir("/tmp/odm")), ["ipc", "lock"])

    def test_inittab(self):
        """BusyBox's init, as the first process of a machine of its own, starts the monitor whenever it has ended."""
        if subprocess.run(["unshare", "--mount", "--pid", "--fork", "true"], check=False).returncode != 0:
            self.skipTest("no namespace can be had here")
        init = self.start("/usr/bin/unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-ec", """
            mount -t tmpfs tmpfs /usr/libexec
            mkdir /usr/libexec/frwk
            cp "$1" /usr/libexec/frwk/
            mount -t tmpfs tmpfs /etc
            cp "$2/packaging/busybox/inittab" /etc/
            exec busybox init""", "sh", path_of("monitor"), ROOT)
        first = None

        def another():
            row = json.loads(run("monitor_tool", "status", "--json").stdout)[0]
            return row["running"] == "yes" and row["pid"] and row["pid"] != first and row["pid"]

        within(SOON, lambda: os.path.exists("/tmp/odm/ipc/monitor"))
        first = within(SOON, another)
        self.assertEqual(os.stat("/tmp/odm").st_mode & 0o7777, 0o700)
        os.kill(first, signal.SIGKILL)
        within(SOON, another)
        init.kill()


if __name__ == "__main__":
    unittest.main()
