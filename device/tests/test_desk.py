# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What the programs put on a desk: lnav's view of their lines, captures in Wireshark and in a picture, manual pages, the
shell's completion."""
import html
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import unittest
import zlib

from support import PROGRAMS, ROOT, SOON, DeviceTest, path_of, run, within

TOOLS = ("monitor_tool", "logtool")
CAPTURE = os.environ.get("DEMO_CAPTURE", os.path.join(ROOT, "build/demo.pcapng"))


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


class Wireshark(DeviceTest):
    """What the dissector makes of the demo's capture, by tshark."""

    def tshark(self, *args, capture=CAPTURE, read_filter=None):
        done = subprocess.run(
            ["tshark", "-2", "-X", "lua_script:" + os.path.join(ROOT, "packaging/wireshark/frwk.lua"), "-r", capture,
             *(["-Y", read_filter] if read_filter else []), *args],
            check=False, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=SOON,
            env={**os.environ, "HOME": self.work})
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("Lua", done.stderr)
        return done.stdout

    def fields(self, read_filter, *names, capture=CAPTURE):
        text = self.tshark("-T", "fields", *[word for name in names for word in ("-e", name)], read_filter=read_filter,
                           capture=capture)
        return [line.split("\t") for line in text.splitlines()]

    def test_every_packet_is_dissected(self):
        packets = self.fields(None, "frame.protocols", "frwk.kind", "frwk.sender", "frwk.receiver")
        self.assertGreater(len(packets), 100)
        for protocols, kind, sender, receiver in packets:
            self.assertEqual(protocols, "frwk")
            self.assertIn(kind, "123")
            self.assertTrue(sender or receiver)
        self.assertEqual(self.fields("_ws.malformed || _ws.lua.error || frwk.expert.cut", "frame.number"), [])

    def test_requests_and_responses_are_matched(self):
        requests = self.fields("frwk.kind == 1", "frame.number", "frwk.response_in", "frwk.connection", "frame.time_epoch")
        answers = {row[0]: row for row in self.fields(
            "frwk.kind != 1", "frame.number", "frwk.request_in", "frwk.connection", "frame.time_epoch", "frwk.time")}
        self.assertGreater(len(requests), 50)
        self.assertEqual(len(answers), len(requests))
        for number, response, connection, when in requests:
            answer = answers[response]
            self.assertEqual((answer[1], answer[2]), (number, connection))
            self.assertAlmostEqual(float(answer[4]), float(answer[3]) - float(when), delta=2e-6)

    def test_filters(self):
        """The answers of the demo that everybody can look up in it."""
        refused = self.fields('frwk.failed == 1 && frwk.sender == "qmuxd" && frwk.message_name == "PERIOD"',
                              "frwk.receiver", "frwk.response.rc", "frwk.time")
        self.assertEqual([row[:2] for row in refused], [["atfwd_daemon", "3"]])
        self.assertGreater(float(refused[0][2]), 0)
        hung = self.fields("frwk.kind == 3", "frwk.sender", "frwk.receiver", "frwk.fault", "frwk.message_name")
        self.assertIn(["qmuxd", "monitor", "3", "PING"], hung)
        echo = self.fields('frwk.kind == 1 && frwk.message_name == "ECHO"', "frwk.request.body", "frwk.request.rsp_size",
                           "frwk.request.async")
        self.assertIn(["68656c6c6f", "5", "0"], echo)
        self.assertIn(["6865", "0", "1"], echo)
        self.assertEqual(self.fields('frwk.response.data == 68:65:6c:6c:6f', "frwk.message"), [["7"]])
        self.assertEqual(self.fields("frwk.time > 2", "frame.number"), [])

    def test_columns(self):
        self.assertRegex(self.tshark(read_filter='frwk.response.rc == 3 && frwk.message_name == "PERIOD"'),
                         r"qmuxd → atfwd_daemon FRWK \d+ PERIOD \(8\), INVALID_PARAM, 0 bytes, \d+\.\d{3} ms\n")

    def test_what_is_cut_or_none_of_these(self):
        """Every length that a packet may be cut to, and other packets of the same link type: no error of the script."""
        with open(CAPTURE, "rb") as file:
            data = file.read()
        at, heads, packets = 0, b"", []
        while at < len(data):
            kind, size = struct.unpack_from("=II", data, at)
            if kind == 6:
                packets.append(data[at + 28:at + 28 + struct.unpack_from("=I", data, at + 20)[0]])
            elif kind != 5:
                heads += data[at:at + size]
            at += size
        first = packets[0]
        shorter = [first[:length] for length in range(len(first) + 1)] + [b"\2" + first[1:], b"\1\7" + first[2:], b"x" * 200]
        path = os.path.join(self.work, "cut.pcapng")
        with open(path, "wb") as file:
            file.write(heads)
            for packet in shorter:
                body = struct.pack("=IIIII", 0, 0, 0, len(packet), len(first)) + packet + bytes(-len(packet) % 4)
                file.write(struct.pack("=II", 6, len(body) + 12) + body + struct.pack("=I", len(body) + 12))
        self.assertEqual(self.fields("_ws.lua.error", "frame.number", capture=path), [])
        rows = self.fields(None, "frwk.kind", capture=path)
        self.assertEqual(len(rows), len(shorter))
        self.assertEqual([row for row in rows[-3:] if row != [""]], [])
        self.assertEqual(rows[len(first)], ["1"])


def pixels(path):
    """Width and rows of a PNG file as chromium writes it: 8 bits a channel, not interlaced."""
    with open(path, "rb") as file:
        data = file.read()
    width, height, depth, kind = struct.unpack_from(">IIBB", data, 16)
    assert depth == 8
    size = {2: 3, 6: 4}[kind]
    packed, at = b"", 8
    while at < len(data):
        length = struct.unpack_from(">I", data, at)[0]
        packed += data[at + 8:at + 8 + length] if data[at + 4:at + 8] == b"IDAT" else b""
        at += 12 + length
    raw, rows, before = zlib.decompress(packed), [], bytearray(width * size)
    for y in range(height):
        how, row = raw[y * (width * size + 1)], bytearray(raw[y * (width * size + 1) + 1:(y + 1) * (width * size + 1)])
        for i, byte in enumerate(row if how else b""):
            left = row[i - size] if i >= size else 0
            up, corner = before[i], before[i - size] if i >= size else 0
            guess = left + up - corner
            nearest = min((abs(guess - left), 0, left), (abs(guess - up), 1, up), (abs(guess - corner), 2, corner))[2]
            row[i] = byte + (0, left, up, (left + up) // 2, nearest)[how] & 255
        rows.append([tuple(row[i:i + 3]) for i in range(0, len(row), size)])
        before = row
    return width, rows


class Chart(DeviceTest):
    """The picture of the demo's capture, as a browser shows it."""

    LOOK = """<!DOCTYPE html><iframe id="frame" style="border:0;width:%dpx;height:900px" srcdoc="%s"></iframe><script>
frame.onload = () => {
  const page = frame.contentDocument.documentElement, found = {width: page.scrollWidth, room: page.clientWidth};
  const svg = [...page.querySelectorAll("svg")].filter(one => one.getBoundingClientRect().width > 0);
  found.svgs = svg.length;
  const texts = [...svg[0].querySelectorAll("text")].map(one => [one, one.getBoundingClientRect()]);
  found.texts = texts.length;
  found.smallest = Math.min(...texts.map(([one, box]) =>
    parseFloat(frame.contentWindow.getComputedStyle(one).fontSize) * svg[0].getBoundingClientRect().width / svg[0].viewBox.baseVal.width));
  found.outside = texts.filter(([one, box]) => box.left < -0.5 || box.right > page.clientWidth + 0.5).map(([one]) => one.textContent);
  const level = texts.filter(([one]) => !one.hasAttribute("transform"));
  found.overlaps = [];
  for (const [i, [one, a]] of level.entries())
    for (const [other, b] of level.slice(i + 1))
      if (a.left < b.right - 1 && b.left < a.right - 1 && a.top < b.bottom - 3 && b.top < a.bottom - 3)
        found.overlaps.push(one.textContent + " / " + other.textContent);
  found.arrows = svg[0].querySelectorAll(".frame").length;
  found.hovers = [...svg[0].querySelectorAll(".frame > title")].map(one => one.textContent);
  document.title = "done";
  document.body.innerHTML = "<pre>" + JSON.stringify(found).replaceAll("&", "&amp;").replaceAll("<", "&lt;") + "</pre>";
};
</script>"""

    def chart(self, *args, name="chart.html", capture=CAPTURE):
        path = os.path.join(self.work, name)
        done = run("frwk-chart", "--output", path, *args, capture)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        return path

    def browser(self, *args):
        return subprocess.run(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
             "--user-data-dir=" + os.path.join(self.work, "profile"), "--virtual-time-budget=5000", *args],
            check=True, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=3 * SOON,
            env={**os.environ, "HOME": self.work}).stdout

    def look(self, path, width):
        """What a browser finds on the page in a window of a width."""
        look = os.path.join(self.work, "look.html")
        with open(path, encoding="utf-8") as file:
            page = file.read()
        with open(look, "w", encoding="utf-8") as file:
            file.write(self.LOOK % (width, html.escape(page)))
        dom = self.browser("--window-size=1400,1000", "--dump-dom", "file://" + look)
        return json.loads(html.unescape(re.search("<pre>(.*)</pre>", dom, re.S).group(1)))

    def requests(self):
        with open(CAPTURE, "rb") as file:
            data = file.read()
        at, count = 0, 0
        while at < len(data):
            kind, size = struct.unpack_from("=II", data, at)
            count += kind == 6
            at += size
        return count

    def test_widths(self):
        """Desktop, tablet, phone: nothing beyond the edge, no text over another, none too small to be read."""
        path = self.chart()
        for width in (1280, 900, 700, 390, 360):
            with self.subTest(width):
                found = self.look(path, width)
                self.assertEqual((found["svgs"], found["outside"], found["overlaps"]), (1, [], []))
                self.assertLessEqual(found["width"], found["room"])
                self.assertGreaterEqual(found["smallest"], 9)
                self.assertEqual(found["arrows"], self.requests())
                self.assertEqual(len(found["hovers"]), found["arrows"])
        text = "\n".join(found["hovers"])
        self.assertRegex(text, r"unknown → dial_test\nECHO \(7\), synchronous\n.*\n5 bytes, room for 5 bytes of answer\n"
                               r"00  68 65 6c 6c 6f +hello")
        self.assertIn("qmuxd → atfwd_daemon\nPERIOD (8), synchronous\n", text)
        self.assertIn("INVALID_PARAM after ", text)

    def test_colours(self):
        """Light and dark; failures in another colour than the rest."""
        for scheme, paper in (("1", (255, 255, 255)), ("0", (20, 24, 29))):
            with self.subTest(scheme):
                shot = os.path.join(self.work, "shot.png")
                self.browser("--window-size=1200,1300", "--screenshot=" + shot, "--blink-settings=preferredColorScheme=" + scheme,
                             "file://" + self.chart("--hide=PING", "--limit=12"))
                width, rows = pixels(shot)
                counts = {}
                for row in rows:
                    for pixel in row:
                        counts[pixel] = counts.get(pixel, 0) + 1
                total = width * len(rows)
                self.assertEqual(max(counts, key=counts.get), paper)
                self.assertGreater(counts[paper], total / 2)
                self.assertGreater(total - counts[paper], total / 100)
                red = sum(count for (r, g, b), count in counts.items() if r > g + 80 and r > b + 80)
                blue = sum(count for (r, g, b), count in counts.items() if b > r + 80)
                self.assertGreater(red, 200)
                self.assertGreater(blue, 1000)

    def test_one_file(self):
        """It asks for nothing from elsewhere."""
        for name in ("chart.html", "chart.svg"):
            with open(self.chart(name=name), encoding="utf-8") as file:
                text = file.read()
            self.assertNotRegex(text.replace('xmlns="http://www.w3.org/2000/svg"', ""), r"(?i)https?:|src=|@import|url\(|<script")
        shot = os.path.join(self.work, "shot.png")
        self.browser("--window-size=1000,600", "--screenshot=" + shot, "file://" + self.chart(name="chart.svg"))
        self.assertGreater(len({pixel for row in pixels(shot)[1] for pixel in row}), 20)

    def test_what_is_chosen(self):
        with open(self.chart("--module=dial_test", "--hide=PING", "--title=A & <B>"), encoding="utf-8") as file:
            text = file.read()
        self.assertIn("<title>A &amp; &lt;B&gt;</title>", text)
        self.assertNotIn(">qmuxd<", text)
        self.assertIn("ECHO (7)", text)
        with open(self.chart("--limit=1"), encoding="utf-8") as file:
            self.assertEqual(file.read().count('<g class="frame'), 2 * 2)

    def test_lines_of_watch(self):
        """The other input gives the same picture."""
        row = {"time": "2026-11-23T16:00:00.000000001Z", "sender": "qti", "sender_id": 8, "receiver": "qmuxd", "receiver_id": 9,
               "message": 7, "message_name": None, "kind": "sync", "timeout": 3, "request_bytes": 2, "answer_room": 0,
               "answer_bytes": 0, "result": 8, "result_name": "UNSUPPORTED", "fault": None, "milliseconds": 1.5,
               "request_hex": "6869", "answer_hex": ""}
        lines = os.path.join(self.work, "lines")
        with open(lines, "w", encoding="ascii") as file:
            file.write(json.dumps(row) + "\n" + json.dumps({"summary": True}) + "\n")
        with open(self.chart(capture=lines), encoding="utf-8") as file:
            text = file.read()
        self.assertIn("✕ UNSUPPORTED, 1.5 ms", text)
        self.assertIn("message 7", text)

    def test_what_is_wrong(self):
        cut = os.path.join(self.work, "cut.pcapng")
        with open(CAPTURE, "rb") as file:
            data = file.read()
        older = os.path.join(self.work, "cut.html")
        for length in range(0, 1200, 7):
            with open(cut, "wb") as file:
                file.write(data[:length])
            with open(older, "w", encoding="ascii") as file:
                file.write("older")
            done = run("frwk-chart", cut)
            self.assertIn(done.returncode, (0, 1), done.stderr)
            self.assertRegex(done.stderr, r"\A(frwk-chart: [^\n]+\n){%d,2}\Z" % done.returncode)
            with open(older, encoding="utf-8") as file:
                self.assertEqual(file.read() == "older", done.returncode == 1)
        for args, status, said in (((), 2, "a capture is missing"), (("a", "b"), 2, "too many arguments"),
                                   (("--nothing", "a"), 2, "unknown option '--nothing'"), (("-l", "0", "a"), 2, "'0' is no number"),
                                   (("/nonexistent",), 1, "cannot read /nonexistent: No such file"),
                                   (("-o", "/nonexistent/a", CAPTURE), 1, "cannot write /nonexistent/a"),
                                   (("-m", "nobody", CAPTURE), 1, "no request is from or to nobody"),
                                   (("/dev/null",), 1, "/dev/null is neither a pcapng file")):
            with self.subTest(args):
                done = run("frwk-chart", *args)
                self.assertEqual((done.returncode, done.stdout), (status, ""))
                self.assertRegex(done.stderr, r"\Afrwk-chart: [^\n]*%s[^\n]*\n\Z" % re.escape(said))


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
        for name, section in (("monitor", "8"), ("monitor_tool", "1"), ("logtool", "1"), ("frwk-chart", "1")):
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
            for heading in ("EXIT STATUS", "FILES" if name != "frwk-chart" else "ARGUMENTS", "SEE ALSO"):
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
                ("logtool follow --color a", ["auto", "always"]),
                ("monitor_tool watch qti qm", ["qmuxd"]),
                ("monitor_tool watch --names=m", ["messages"]),
                ("monitor_tool capture m", ["messages"]),
                ("monitor_tool capture messages dial", ["dial_test"]),
                ("frwk-chart --o", ["--output="]),
                ("frwk-chart -o m", ["messages"]),
                ("frwk-chart --hide=PING m", ["messages"])):
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
