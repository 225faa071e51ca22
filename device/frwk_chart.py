#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""frwk-chart: a picture of the requests that `monitor_tool capture` or `monitor_tool watch --json` has written."""
import collections
import datetime
import html
import json
import math
import os
import statistics
import struct
import sys
import tempfile

HELP = """\
Usage: frwk-chart [OPTION]... FILE
Draws requests between modules as a sequence chart, with their response times.

FILE is what monitor_tool capture has written, or monitor_tool watch --json.
Modules stand across, time runs down; failures are red, stretches without a
request are folded. The text of each request and answer shows under the mouse.

Arguments:
  FILE                     a capture; - is standard input

Options:
  -h, --help               shows this text
  -V, --version            shows the version
  -o, --output=FILE        where the picture goes, - for standard output; by
                           default beside the capture, with .html for its
                           ending. An ending of .svg gives the picture without
                           a page
  -l, --limit=NUMBER       draws so many requests, by default the first 400;
                           response times are of all
  -m, --module=MODULE      only requests from or to a module; may be repeated
      --hide=MESSAGE       leaves out requests of a message, by name or number,
                           unless they failed; may be repeated
  -t, --title=TEXT         what stands above it

Exit status:
  0                        success
  1                        the capture cannot be read, or the picture not written
  2                        the command line is wrong; nothing was done

Examples:
  monitor_tool capture requests.pcapng
                           records until interrupted by Ctrl-C
  frwk-chart --hide=PING requests.pcapng
                           makes requests.html, without the monitor's questions
                           for a sign of life
"""
VERSION = "@PROJECT_VERSION@"
LIMIT = 400
LINK_TYPE = 147
REQUEST, RESPONSE, END = 1, 2, 3
UNKNOWN = "unknown"  # a sender that names no module
FAULTS = {1: "request cut short", 2: "no answer", 3: "given up", 4: "module is gone"}
RESULTS = {0: "SUCCESS", 1: "NO_MODULE", 2: "FAILED", 3: "INVALID_PARAM", 4: "CONFIG_FILE", 5: "NO_MEMORY",
           7: "NOT_FOUND", 8: "UNSUPPORTED", 11: "SOCKET", 12: "FILE_CREATE", 13: "NO_HANDLER", 14: "THREAD",
           15: "ASYNC", 18: "SEND", 19: "RECV"}
BYTES_SHOWN = 64  # of a frame, under the mouse


class Failure(Exception):
    """What ends the program; `status` is its exit status."""

    def __init__(self, text, status=1):
        super().__init__(text)
        self.status = status


class Exchange:
    """A request, and what came of it. Times are seconds since 1970."""

    def __init__(self):
        self.sender = self.receiver = UNKNOWN
        self.number = 0
        self.name = None
        self.asked = self.answered = None
        self.is_async = False
        self.room = self.sent = self.got = 0
        self.result = None
        self.fault = None
        self.body = self.data = b""

    @property
    def message(self):
        return "%s (%d)" % (self.name, self.number) if self.name else "message %d" % self.number

    @property
    def failed(self):
        return self.fault is not None or (not self.is_async and self.result not in (0, None))

    @property
    def duration(self):
        return None if self.answered is None or self.fault is not None else max(self.answered - self.asked, 0.0)

    @property
    def outcome(self):
        if self.fault is not None:
            return self.fault
        if self.answered is None:
            return "not answered yet"
        return "taken" if self.is_async else RESULTS.get(self.result, "result %s" % self.result)


# --- captures --------------------------------------------------------------------------------------------------------

def blocks(data):
    """Type, body and byte order of each block of a pcapng file; an incomplete one ends it, which is said."""
    at, order = 0, "<"
    while at < len(data):
        if len(data) - at >= 12 and data[at:at + 4] == b"\n\r\r\n":
            order = ">" if data[at + 8:at + 12] == b"\x1a\x2b\x3c\x4d" else "<"
        if len(data) - at < 12:
            break
        kind, size = struct.unpack_from(order + "II", data, at)
        if size < 12 or size % 4 != 0 or size > len(data) - at:
            break
        yield kind, data[at + 8:at + size - 4], order
        at += size
    if at < len(data):
        print("frwk-chart: the capture is cut off after %d bytes: the rest is left out" % at, file=sys.stderr)


def options(body, order):
    at = 0
    while at + 4 <= len(body):
        code, size = struct.unpack_from(order + "HH", body, at)
        yield code, body[at + 4:at + 4 + size]
        at += 4 + (size + 3) // 4 * 4


def packets(data):
    """Time, section and bytes of each packet of ours."""
    section, interfaces = 0, []
    for kind, body, order in blocks(data):
        if kind == 0x0A0D0D0A:
            section, interfaces = section + 1, []
        elif kind == 1 and len(body) >= 8:
            unit = 1e-6
            for code, value in options(body[8:], order):
                if code == 9 and value:
                    unit = 2.0 ** -(value[0] & 0x7F) if value[0] & 0x80 else 10.0 ** -value[0]
            interfaces.append((struct.unpack_from(order + "H", body)[0], unit))
        elif kind == 6 and len(body) >= 20:
            interface, high, low, size = struct.unpack_from(order + "IIII", body)
            if interface < len(interfaces) and interfaces[interface][0] == LINK_TYPE:
                yield ((high << 32) + low) * interfaces[interface][1], section, body[20:20 + size]


def read_head(packet):
    """The fields of a packet's head, and the frame behind it; None for a packet of others."""
    if len(packet) < 26 or packet[0] != 1 or packet[1] not in (REQUEST, RESPONSE, END):
        return None
    kind, fault, big, connection, sender, receiver, msg, size = struct.unpack_from(">xBBBQIIIH", packet)
    texts, at = [], 26
    for _ in range(3):
        if at >= min(size, len(packet)) or at + 1 + packet[at] > size:
            return None
        texts.append(packet[at + 1:at + 1 + packet[at]].decode("ascii", "replace"))
        at += 1 + packet[at]
    return kind, fault, ">" if big else "<", connection, sender, receiver, msg, texts, packet[size:]


def read_capture(data):
    found = {}
    for when, section, packet in packets(data):
        head = read_head(packet)
        if head is None:
            continue
        kind, fault, order, connection, sender, receiver, msg, (from_name, to_name, name), frame = head
        exchange = found.get((section, connection))
        if exchange is None:
            exchange = found[section, connection] = Exchange()
            if kind != REQUEST:
                sender, receiver, from_name, to_name = receiver, sender, to_name, from_name
            exchange.sender = from_name or ("module %d" % sender if sender else UNKNOWN)
            exchange.receiver = to_name or "module %d" % receiver
            exchange.number, exchange.name, exchange.asked = msg, name or None, when
        if kind == REQUEST:
            if len(frame) >= 24:
                _, _, is_async, _, exchange.room, exchange.sent = struct.unpack_from(order + "IIIIii", frame)
                exchange.is_async = is_async != 0
            exchange.body = frame[24:24 + BYTES_SHOWN]
        else:
            exchange.answered = when
            if kind == END:
                exchange.fault = FAULTS.get(fault, "no answer")
            elif len(frame) >= 8:
                exchange.result, exchange.got = struct.unpack_from(order + "ii", frame)
                exchange.data = frame[8:8 + BYTES_SHOWN]
    return list(found.values())


def read_lines(text):
    """What `monitor_tool watch --json` has written."""
    found = []
    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip():
            continue
        try:
            row = json.loads(line)
            if row.get("summary"):
                continue
            exchange = Exchange()
            seconds, _, fraction = row["time"].rstrip("Z").partition(".")
            when = datetime.datetime.fromisoformat(seconds + "+00:00").timestamp()
            exchange.asked = when + float("0." + (fraction or "0"))
            exchange.sender = row["sender"] or ("module %d" % row["sender_id"] if row["sender_id"] else UNKNOWN)
            exchange.receiver = row["receiver"]
            exchange.number, exchange.name = row["message"], row["message_name"]
            exchange.is_async = row["kind"] == "async"
            exchange.room, exchange.sent, exchange.got = row["answer_room"], row["request_bytes"], row["answer_bytes"]
            exchange.result, exchange.fault = row["result"], row["fault"]
            if row["milliseconds"] is not None:
                exchange.answered = exchange.asked + row["milliseconds"] / 1000
            exchange.body = bytes.fromhex(row.get("request_hex", ""))[:BYTES_SHOWN]
            exchange.data = bytes.fromhex(row.get("answer_hex", ""))[:BYTES_SHOWN]
        except (ValueError, KeyError, TypeError, AttributeError) as wrong:
            raise Failure("line %d is none of monitor_tool watch --json: %s" % (number, wrong)) from None
        found.append(exchange)
    return found


def read(path):
    try:
        if path == "-":
            data = sys.stdin.buffer.read()
        else:
            with open(path, "rb") as file:
                data = file.read()
    except OSError as wrong:
        raise Failure("cannot read %s: %s" % (path, wrong.strerror)) from None
    if data[:4] == b"\n\r\r\n":
        found = read_capture(data)
    elif data.lstrip()[:1] == b"{":
        found = read_lines(data.decode("utf-8", "replace"))
    else:
        raise Failure("%s is neither a pcapng file nor lines of monitor_tool watch --json" % path)
    if not found:
        raise Failure("%s has no requests between modules" % path)
    return sorted(found, key=lambda exchange: exchange.asked)


# --- texts -----------------------------------------------------------------------------------------------------------

def seconds_text(seconds):
    for limit, factor, unit in ((1e-3, 1e6, "µs"), (1.0, 1e3, "ms")):
        if seconds < limit:
            return "%.3g %s" % (seconds * factor, unit)
    return "%.3g s" % seconds if seconds < 100 else "%d s" % seconds


def plural(count, word):
    return "{:,} {}{}".format(count, word, "" if count == 1 else "s")


def dump(data, size):
    lines = ["%02x  %-47s  %s" % (at, data[at:at + 16].hex(" "),
                                  "".join(chr(byte) if 32 <= byte < 127 else "." for byte in data[at:at + 16]))
             for at in range(0, len(data), 16)]
    return lines + (["%s more" % plural(size - len(data), "byte")] if data and size > len(data) else [])


def clock_text(when):
    whole = datetime.datetime.fromtimestamp(when, datetime.timezone.utc)
    return whole.strftime("%Y-%m-%d %H:%M:%S.%f UTC")


def hover(exchange, answer):
    ends = (exchange.receiver, exchange.sender) if answer else (exchange.sender, exchange.receiver)
    lines = ["%s → %s" % ends, "%s, %s" % (exchange.message, "asynchronous" if exchange.is_async else "synchronous")]
    if not answer:
        lines += [clock_text(exchange.asked), "%s, room for %s of answer" % (plural(max(exchange.sent, 0), "byte"),
                                                                          plural(max(exchange.room, 0), "byte"))]
        return "\n".join(lines + dump(exchange.body, exchange.sent))
    lines.append(clock_text(exchange.answered))
    lines.append("%s after %s" % (exchange.outcome, seconds_text(exchange.answered - exchange.asked)))
    if exchange.fault is None:
        lines.append(plural(max(exchange.got, 0), "byte"))
    return "\n".join(lines + dump(exchange.data, exchange.got))


# --- the picture -----------------------------------------------------------------------------------------------------

STYLE = """
.frwk { --paper: #ffffff; --ink: #1c2530; --soft: #66717e; --line: #c9d0d8; --ask: #1f5fa8; --bar: #1f5fa8; --bad: #c0262d;
  --head: #eef2f6; --fold: #f5f7f9; font: 12px/1.3 system-ui, "Segoe UI", "DejaVu Sans", sans-serif; }
@media (prefers-color-scheme: dark) { .frwk { --paper: #14181d; --ink: #e3e8ee; --soft: #98a4b1; --line: #3a444f;
  --ask: #7fb2f0; --bar: #7fb2f0; --bad: #ff7b80; --head: #222931; --fold: #1b2027; } }
.frwk .paper { fill: var(--paper); }
.frwk text { fill: var(--ink); stroke: none; }
.frwk .title { font-size: 17px; font-weight: 600; }
.frwk .soft { fill: var(--soft); }
.frwk .time { fill: var(--soft); font-size: 11px; text-anchor: end; font-variant-numeric: tabular-nums; }
.frwk .life { stroke: var(--line); stroke-width: 1; }
.frwk .head { fill: var(--head); stroke: var(--line); }
.frwk .name { font-weight: 600; }
.frwk .fold { fill: var(--fold); stroke: var(--line); stroke-dasharray: 2 3; }
.frwk .bar { fill: var(--bar); opacity: .28; }
.frwk .arrow { stroke: var(--ask); stroke-width: 1.4; fill: none; }
.frwk .tip { fill: var(--ask); }
.frwk .back { stroke-dasharray: 5 3; }
.frwk .label { font-size: 11.5px; paint-order: stroke; stroke: var(--paper); stroke-width: 4px; stroke-linejoin: round; }
.frwk .bad .arrow { stroke: var(--bad); stroke-width: 1.8; }
.frwk .bad .tip { fill: var(--bad); }
.frwk .bad .label, .frwk text.bad { fill: var(--bad); font-weight: 600; }
.frwk .bad .bar, .frwk rect.bad { fill: var(--bad); }
.frwk .hit { stroke: transparent; stroke-width: 18; pointer-events: all; }
.frwk .frame:hover .arrow { stroke-width: 3; }
.frwk .median { stroke: var(--ink); stroke-width: 2; }
.frwk .grid { stroke: var(--line); stroke-width: 1; opacity: .6; }
"""


def text(x, y, content, classes="", anchor=""):
    return '<text x="%.1f" y="%.1f"%s%s>%s</text>' % (
        x, y, ' class="%s"' % classes if classes else "", ' text-anchor="%s"' % anchor if anchor else "",
        html.escape(content))


def width_of(content, size=6.4):
    """About how wide a text is."""
    return len(content) * size


class Picture:
    """One layout of the chart, for a width in pixels."""

    ROW, FOLD, FOLD_FROM, STRETCH_FROM, STRETCH, REPEAT, SLANT = 25, 34, 0.25, 0.01, 14, 900, 62

    def __init__(self, width, model):
        self.width, self.model = width, model
        self.narrow = width < 700
        self.left = 50 if self.narrow else 74
        self.parts, self.back = [], []
        self.y = 0.0
        self.longest = max(width_of(name, 7.8) for name in model.modules)
        self.columns = self.place(self.longest / 2 + 14, self.longest / 2 + 14)
        self.slanted = self.longest + 20 > self.pitch
        if self.slanted:
            self.columns = self.place(14, self.longest * math.cos(math.radians(self.SLANT)) + 14)
        self.life_from = 0.0

    def place(self, before, behind):
        """Columns of the modules, with so much room at both edges."""
        last = max(len(self.model.modules) - 1, 1)
        self.pitch = (self.width - self.left - before - behind) / last
        return {name: self.left + before + self.pitch * at for at, name in enumerate(self.model.modules)}

    def wrap(self, content, classes, pitch=16, size=6.6):
        room = max(int((self.width - 24) / size), 20)
        words, line = content.split(), ""
        for word in words + [""]:
            if not word or len(line) + 1 + len(word) > room:
                self.y += pitch
                self.parts.append(text(12, self.y, line, classes))
                line = word
            else:
                line = line + " " + word if line else word

    def heads(self):
        """The modules' names; where they would touch each other, they are slanted."""
        self.y += 10
        height = self.longest * math.sin(math.radians(self.SLANT)) + 20 if self.slanted else 24
        for name, x in self.columns.items():
            if self.slanted:
                self.parts.append('<text class="name" transform="translate(%.1f %.1f) rotate(-%d)">%s</text>' % (
                    x + 4, self.y + height - 8, self.SLANT, html.escape(name)))
                self.parts.append('<circle class="head" cx="%.1f" cy="%.1f" r="3"/>' % (x, self.y + height))
            else:
                wide = width_of(name, 7.8) + 14
                self.parts.append('<rect class="head" x="%.1f" y="%.1f" width="%.1f" height="%d" rx="5"/>' % (
                    x - wide / 2, self.y, wide, height))
                self.parts.append(text(x, self.y + 16, name, "name", "middle"))
        self.y += height
        self.life_from = self.y

    def end_lives(self):
        for x in self.columns.values():
            self.back.append('<line class="life" x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f"/>' % (
                x, self.life_from, x, self.y))
        self.life_from = self.y

    def fold(self, seconds):
        self.end_lives()
        self.parts.append('<rect class="fold" x="%.1f" y="%.1f" width="%.1f" height="20" rx="4"/>' % (
            self.left, self.y + 7, self.width - self.left - 8, ))
        self.parts.append(text((self.left + self.width) / 2, self.y + 21, "%s later" % seconds_text(seconds), "soft",
                               "middle"))
        self.y += self.FOLD
        self.life_from = self.y

    def arrow(self, exchange, answer):
        source, target = ((exchange.receiver, exchange.sender) if answer else (exchange.sender, exchange.receiver))
        start, end, y = self.columns[source], self.columns[target], self.y
        bad = exchange.failed and answer
        label = ("%s, %s" % (exchange.outcome, seconds_text(exchange.answered - exchange.asked)) if answer
                 else exchange.message)
        if bad:
            label = "✕ " + label
        elif not answer and exchange.is_async:
            label += ", asynchronous"
        loop = start == end
        if loop:
            end = start + 24 if start + 24 < self.width - 4 else start - 24
        way = 1 if end > start else -1
        classes = "arrow back" if answer else "arrow"
        shape = '<line class="%s" x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f"/>' % (classes, start, y, end - 6 * way, y)
        tip = '<path class="tip" d="M%.1f %.1f l%d -4 v8 z"/>' % (end, y, -8 * way)
        if bad and exchange.fault:
            tip = '<path class="arrow" d="M%.1f %.1f l8 8 m0 -8 l-8 8"/>' % ((start + end) / 2 - 4, y - 4)
        half = width_of(label, 6.6 if bad else 6.2) / 2
        x = min(max((start + end) / 2, self.left + half + 4), self.width - half - 6)
        self.parts.append('<g class="frame%s"><title>%s</title>%s%s%s<line class="hit" x1="%.1f" y1="%.1f" x2="%.1f" '
                          'y2="%.1f"/></g>' % (" bad" if bad else "", html.escape(hover(exchange, answer)), shape, tip,
                                               text(x, y - 5, label, "label", "middle"), start, y - 4, end, y - 4))

    def sequence(self):
        events = sorted([(one.asked, 0, at, one) for at, one in enumerate(self.model.drawn)] +
                        [(one.answered, 1, at, one) for at, one in enumerate(self.model.drawn) if one.answered is not None],
                        key=lambda event: event[:3])
        self.heads()
        self.parts.append(text(self.left - 6, self.y + 4, "s" if self.narrow else "seconds", "time"))
        top, asked_at, before, told = self.y, {}, None, ""
        for when, answer, at, exchange in events:
            gap = when - before if before is not None else 0.0
            if gap >= self.FOLD_FROM:
                self.fold(gap)
            elif gap >= self.STRETCH_FROM:
                self.y += self.STRETCH * math.log10(gap / self.STRETCH_FROM) / math.log10(25)
            if self.y - top > self.REPEAT and not answer:
                self.y += 12
                self.end_lives()
                self.heads()
                top = self.y
            self.y += self.ROW
            time = "%.*f" % (3 if self.narrow else 4, when - self.model.start)
            if time != told:
                self.parts.append(text(self.left - 6, self.y + 4, time, "time"))
            told = time
            if answer:
                self.back.append('<rect class="bar%s" x="%.1f" y="%.1f" width="7" height="%.1f"/>' % (
                    " bad" if exchange.failed else "", self.columns[exchange.receiver] - 3.5, asked_at[at],
                    self.y - asked_at[at]))
            else:
                asked_at[at] = self.y
            self.arrow(exchange, answer)
            before = when
        self.y += 16
        self.end_lives()

    def times(self):
        """Response times on a logarithmic scale, a row for each receiver and message."""
        rows = [(key, row) for key, row in sorted(self.model.rows.items()) if row.durations]
        self.y += 22
        self.parts.append(text(12, self.y + 12, "Response times", "title"))
        self.y += 20
        if not rows:
            self.wrap("No request was answered.", "soft")
            return
        low = math.floor(math.log10(max(min(min(row.durations) for _, row in rows), 1e-6)) + 1e-9)
        high = max(math.ceil(math.log10(max(max(max(row.durations) for _, row in rows), 1e-6)) - 1e-9), low + 1)
        left, right = (14.0, self.width - 18.0) if self.narrow else (430.0, self.width - 24.0)
        bins = max(int((right - left) / 9), 10)

        def place(seconds):
            share = (math.log10(max(seconds, 1e-6)) - low) / (high - low)
            return left + (right - left) * min(max(share, 0.0), 1.0)

        grid_from = self.y + 6
        for (receiver, message), row in rows:
            median, slow = quantile(row.durations, 0.5), quantile(row.durations, 0.99)
            figures = "%s%s, median %s, 99%% %s" % (
                plural(row.count, "request"), ", %d failed" % row.failures if row.failures else "", seconds_text(median),
                seconds_text(slow))
            self.y += 16
            name = "%s: %s" % (receiver, message)
            self.parts.append(text(12, self.y, name, "name"))
            self.parts.append(text(12, self.y + 15, figures, "bad" if row.failures else "soft"))
            base = self.y + (46 if self.narrow else 16)
            counts = collections.Counter(min(int((place(one) - left) / (right - left) * bins), bins - 1)
                                         for one in row.durations)
            most = max(counts.values())
            for at, count in sorted(counts.items()):
                tall = 4 + 20 * count / most
                span = (right - left) / bins
                ends = [10 ** (low + (high - low) * (at + more) / bins) for more in (0, 1)]
                self.parts.append('<rect class="bar" style="opacity:.75" x="%.1f" y="%.1f" width="%.1f" height="%.1f">'
                                  '<title>%s</title></rect>' % (
                                      left + at * span + .5, base - tall, span - 1, tall, html.escape(
                                          "%s from %s to %s" % (plural(count, "answer"), *map(seconds_text, ends)))))
            self.parts.append('<line class="median" x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f"/>' % (
                place(median), base - 26, place(median), base + 2))
            self.y = base + (8 if self.narrow else 10)
        for power in range(low, high + 1):
            x = left + (right - left) * (power - low) / (high - low)
            self.back.append('<line class="grid" x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f"/>' % (x, grid_from, x, self.y + 4))
            self.parts.append(text(x, self.y + 18, seconds_text(10.0 ** power), "soft", "middle"
                                   if left < x < right else "start" if x <= left and self.narrow else
                                   "end" if x >= right else "middle"))
        self.y += 34
        self.wrap("Each bar is a stretch of the logarithmic scale, as high as the share of a message's answers in it; the "
                  "upright line is the median. Asynchronous requests are answered when they are taken.", "soft")

    def draw(self, classes=""):
        self.y = 6
        self.wrap(self.model.title, "title", 20, 10.6)
        for line in self.model.facts:
            self.wrap(line, "soft")
        self.sequence()
        self.times()
        self.y += 14
        return ('<svg xmlns="http://www.w3.org/2000/svg" class="frwk %s" width="%d" height="%d" viewBox="0 0 %d %d" '
                'role="img" aria-label="%s">%s<rect class="paper" width="100%%" height="100%%"/>\n%s\n%s\n</svg>\n' % (
                    classes, self.width, self.y, self.width, self.y, html.escape(self.model.title, quote=True),
                    "<style>%s</style>" % STYLE if not classes else "", "\n".join(self.back), "\n".join(self.parts)))


def quantile(values, share):
    ordered = sorted(values)
    return statistics.median(ordered) if share == 0.5 else ordered[max(math.ceil(share * len(ordered)), 1) - 1]


class Row:
    def __init__(self):
        self.count = self.failures = 0
        self.durations = []


class Model:
    """What is drawn, and what is said of it."""

    def __init__(self, exchanges, title, limit, modules, hidden):
        chosen = [one for one in exchanges if not modules or one.sender in modules or one.receiver in modules]
        if not chosen:
            raise Failure("no request is from or to %s" % " or ".join(modules))
        shown = [one for one in chosen if one.failed or not ({one.name, str(one.number)} & set(hidden))]
        self.drawn = shown[:limit]
        self.title = title
        self.start = chosen[0].asked
        self.rows = collections.defaultdict(Row)
        for one in chosen:
            row = self.rows[one.receiver, one.message]
            row.count += 1
            row.failures += one.failed
            if one.duration is not None:
                row.durations.append(one.duration)
        self.modules = self.order()
        failures = sum(one.failed for one in chosen)
        end = max(one.answered or one.asked for one in chosen)
        self.facts = ["%s in %s from %s, %s." % (
            plural(len(chosen), "request"), seconds_text(end - self.start), clock_text(self.start)[:19] + " UTC",
            "none failed" if not failures else "%d failed" % failures)]
        if len(shown) < len(chosen):
            self.facts.append("%s without a failure left out: %s." % (plural(len(chosen) - len(shown), "request"),
                                                                     ", ".join(hidden)))
        if len(self.drawn) < len(shown):
            self.facts.append("Drawn are the first %s of the others; response times are of all." % "{:,}".format(limit)
                              if len(shown) < len(chosen) else
                              "Drawn are the first {:,}; response times are of all.".format(limit))

    def order(self):
        """Modules so that those which talk most stand beside each other."""
        talk = collections.Counter(frozenset((one.sender, one.receiver)) for one in self.drawn)
        names = list(dict.fromkeys(name for one in self.drawn for name in (one.sender, one.receiver)))
        placed = []
        while names:
            best = None
            for name in names:
                for at, end in ((0, placed[:1]), (len(placed), placed[-1:])):
                    weight = talk[frozenset((name, end[0]))] if end else 0
                    if best is None or weight > best[0]:
                        best = weight, name, at
            _, name, at = best
            placed.insert(at, name)
            names.remove(name)
        return placed


PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>%s</title>
<style>%s
html { background: #ffffff; }
body { margin: 0; }
body svg { display: block; margin: 0 auto; max-width: 100%%; height: auto; }
body svg.narrow { display: none; }
@media (max-width: 899px) {
  body svg.wide { display: none; }
  body svg.narrow { display: block; width: 100%%; max-width: 520px; }
}
@media print { html { background: none; } }
@media (prefers-color-scheme: dark) { html { background: #14181d; } }
</style>
</head>
<body>
%s%s</body>
</html>
"""


def draw(model, is_svg):
    if is_svg:
        return '<?xml version="1.0" encoding="UTF-8"?>\n' + Picture(1000, model).draw()
    return PAGE % (html.escape(model.title), STYLE, Picture(1100, model).draw("wide"), Picture(390, model).draw("narrow"))


# --- the program -----------------------------------------------------------------------------------------------------

LONG = {"--output": "-o", "--limit": "-l", "--module": "-m", "--hide": "--hide", "--title": "-t"}


def parse(args):
    chosen = {"-o": None, "-l": str(LIMIT), "-t": None, "-m": [], "--hide": []}
    files, only_files = [], False
    while args:
        word = args.pop(0)
        if only_files or word == "-" or not word.startswith("-"):
            files.append(word)
            continue
        if word == "--":
            only_files = True
            continue
        if word in ("-h", "--help"):
            chosen["help"] = True
            return chosen, files
        if word in ("-V", "--version"):
            chosen["version"] = True
            return chosen, files
        name, given, value = word.partition("=") if word.startswith("--") else (word[:2], word[2:], word[2:])
        option = LONG.get(name, name)
        if option not in chosen or (name.startswith("--") and name not in LONG):
            raise Failure("unknown option '%s'" % name, 2)
        if not given:
            if not args:
                raise Failure("option '%s' needs an argument" % name, 2)
            value = args.pop(0)
        if isinstance(chosen[option], list):
            chosen[option].append(value)
        else:
            chosen[option] = value
    if len(files) != 1:
        raise Failure("a capture is missing" if not files else "too many arguments", 2)
    if not chosen["-l"].isdecimal() or not 1 <= int(chosen["-l"]) <= 1000000:
        raise Failure("'%s' is no number of requests from 1 to 1000000" % chosen["-l"], 2)
    return chosen, files


def write(path, content):
    """Not in part: what cannot be written whole leaves an older picture as it is."""
    if path == "-":
        sys.stdout.buffer.write(content)
        sys.stdout.buffer.flush()
        return
    if os.path.exists(path) and not os.path.isfile(path):
        with open(path, "wb") as file:
            file.write(content)
        return
    with tempfile.NamedTemporaryFile(dir=os.path.dirname(path) or ".", delete=False) as file:
        try:
            file.write(content)
            file.close()
            umask = os.umask(0)
            os.umask(umask)
            os.chmod(file.name, 0o666 & ~umask)
            os.replace(file.name, path)
        except OSError:
            os.unlink(file.name)
            raise


def main(args):
    chosen, files = parse(list(args))
    if "help" in chosen:
        sys.stdout.write(HELP)
        return
    if "version" in chosen:
        print("frwk-chart (libfrwk) " + VERSION)
        return
    path = files[0]
    output = chosen["-o"] or ("-" if path == "-" else os.path.splitext(path)[0] + ".html")
    title = chosen["-t"] or ("Requests between modules" if path == "-" else
                             "Requests between modules: " + os.path.basename(path))
    model = Model(read(path), title, int(chosen["-l"]), chosen["-m"], chosen["--hide"])
    try:
        write(output, draw(model, output.endswith(".svg")).encode())
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # a reader that has left has got what it wanted
    except OSError as wrong:
        raise Failure("cannot write %s: %s" % (output, wrong.strerror)) from None


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except Failure as failure:
        print("frwk-chart: %s%s" % (failure, " (see frwk-chart --help)" if failure.status == 2 else ""), file=sys.stderr)
        sys.exit(failure.status)
    except KeyboardInterrupt:
        sys.exit(130)
