# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""monitor_tool watch and capture: what they show, and that nobody notices them otherwise."""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

import watch_load
from support import SOON, DeviceTest, run, within
from watch_load import SOCKETS, inode, relays

PLACE = SOCKETS + "dial_test"
MONITOR_TOOL = 6


def request(msg, body=b"", room=0, is_async=0, timeout=3):
    return struct.pack("=IIIIii", MONITOR_TOOL, msg, is_async, timeout, room, len(body)) + body


def response(rc, data=b""):
    return struct.pack("=ii", rc, len(data)) + data


def receive(connection, count):
    """So many bytes, fewer when the other side ends before."""
    connection.settimeout(SOON)
    got = b""
    while len(got) < count:
        part = connection.recv(min(count - len(got), 1 << 20))
        if not part:
            break
        got += part
    return got


class WatchTest(DeviceTest):
    def setUp(self):
        super().setUp()
        os.makedirs(SOCKETS)
        self.addCleanup(lambda: within(SOON, lambda: not relays()))

    def start_module(self, requests=1000):
        """A module of the library that counts numbered requests."""
        path = os.path.join(self.work, "seen")
        if not os.path.exists(path):
            with open(path, "wb") as file:
                file.truncate(requests)
        module = self.start(watch_load.LOAD, "serve", path)
        self.assertEqual(run("monitor_tool", "wait", "dial_test").returncode, 0)
        return module

    def listen(self, backlog=5):
        """A module that is written out here."""
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(PLACE)
        listener.listen(backlog)
        listener.settimeout(SOON)
        return listener

    def connect(self):
        client = socket.socket(socket.AF_UNIX)
        self.addCleanup(client.close)
        client.settimeout(SOON)
        client.connect(PLACE)
        return client

    def watch(self, *args, watched=True, **options):
        """Watches; waits until it does, if it shall."""
        tool = self.start("monitor_tool", *(args or ("watch", "--json", "dial_test")),
                          **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **options})
        if watched:
            self.assertEqual(tool.stderr.readline(), "monitor_tool: dial_test is being watched\n")
        return tool

    def probe_answered(self, listener):
        """Answers the ping by which the tool finds out that the module listens."""
        probe = listener.accept()[0]
        self.assertEqual(struct.unpack("=IIIIii", receive(probe, 24))[1], 5)
        probe.sendall(response(0))
        probe.close()

    def watch_listener(self, listener, *args):
        answered = threading.Thread(target=self.probe_answered, args=(listener,))
        answered.start()
        tool = self.watch(*args)
        answered.join()
        return tool

    def end(self, tool, number=signal.SIGINT):
        tool.send_signal(number)
        out, err = tool.communicate(timeout=SOON)
        return tool.returncode, out, err

    def objects(self, text):
        rows = [json.loads(line) for line in text.splitlines()]
        return [row for row in rows if "summary" not in row], [row for row in rows if "summary" in row]

    def assert_nothing_left(self, place=None):
        """The module has its place; no process, no directory of the tool is left."""
        within(SOON, lambda: not relays())
        self.assertEqual([name for name in os.listdir(SOCKETS) if name.startswith(".")], [])
        if place:
            self.assertEqual(inode(PLACE), place)


class Shown(WatchTest):
    def test_fields(self):
        self.start_module()
        place = inode(PLACE)
        tool = self.watch()
        self.assertNotEqual(inode(PLACE), place)
        self.assertEqual(run("monitor_tool", "send", "dial_test", "4", "--rsp", "4").returncode, 0)
        self.assertEqual(run("monitor_tool", "send", "dial_test", "7", "0102").returncode, 1)
        code, out, err = self.end(tool)
        self.assertEqual((code, err), (0, ""))
        rows, summaries = self.objects(out)
        self.assertEqual([row["message_name"] for row in rows], ["STATUS", None])
        for row in rows:
            self.assertRegex(row.pop("time"), r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{9}Z$")
            self.assertGreater(row.pop("milliseconds"), 0)
        self.assertEqual(rows[1], {
            "sender": "monitor_tool", "sender_id": rows[0]["sender_id"], "receiver": "dial_test",
            "receiver_id": rows[0]["receiver_id"], "message": 7, "message_name": None, "kind": "sync", "timeout": 10,
            "request_bytes": 2, "answer_room": 0, "answer_bytes": 0, "result": 8, "result_name": "UNSUPPORTED",
            "fault": None})
        self.assertEqual((rows[0]["answer_room"], rows[0]["answer_bytes"], rows[0]["result_name"]), (4, 4, "SUCCESS"))
        self.assertEqual([(row["message"], row["count"], row["failures"]) for row in summaries], [(4, 1, 0), (7, 1, 1)])
        for row in summaries:
            self.assertLessEqual(row["median_ms"], row["p99_ms"])
        self.assert_nothing_left(place)

    def test_table(self):
        self.start_module()
        names = os.path.join(self.work, "names")
        with open(names, "w", encoding="ascii") as file:
            file.write("# names\ndial_test 0x7 COUNTED\n* 4 OWN_STATUS\n")
        tool = self.watch("watch", "-x", "--names", names, "dial_test")
        run("monitor_tool", "send", "dial_test", "4", "--rsp", "4")
        run("monitor_tool", "send", "dial_test", "7", "6869000a")
        code, out, err = self.end(tool, signal.SIGTERM)
        self.assertEqual((code, err), (0, ""))
        number = r" +\d+\.\d{3}\n"
        self.assertRegex(out, r"\A" + re.escape("%-15s  %-13s    %-13s %-20s %-5s %7s %7s  %-13s %10s" % (
            "time", "sender", "receiver", "message", "kind", "request", "answer", "result", "ms")) + "\n"
            r"\d\d:\d\d:\d\d\.\d{6}  monitor_tool  -> dial_test     4 OWN_STATUS +sync +0 +4  SUCCESS" + number +
            r"    < 000000  [0-9a-f ]{47}  \|....\|\n"
            r"\d\d:\d\d:\d\d\.\d{6}  monitor_tool  -> dial_test     7 COUNTED +sync +4 +0  INVALID_PARAM" + number +
            r"    > 000000  68 69 00 0a +\|hi\.\.\|\n\n"
            r"receiver +message +requests +failures +median ms +99% ms\n"
            r"dial_test +4 OWN_STATUS +1 +0 +\d+\.\d{3}" + number +
            r"dial_test +7 COUNTED +1 +1 +\d+\.\d{3}" + number + r"\Z")

    def test_an_asynchronous_one_is_taken(self):
        listener = self.listen()
        tool = self.watch_listener(listener)
        client = self.connect()
        client.sendall(request(9, b"abc", is_async=1))
        module = listener.accept()[0]
        self.assertEqual(receive(module, 27), request(9, b"abc", is_async=1))
        module.sendall(bytes(8))
        module.close()
        self.assertEqual(receive(client, 9), bytes(8))
        row = self.objects(self.end(tool)[1])[0][0]
        self.assertEqual((row["kind"], row["result"], row["fault"]), ("async", None, None))

    def test_what_gets_no_answer(self):
        listener = self.listen()
        tool = self.watch_listener(listener)
        for sent, then in ((request(7)[:10], "client"), (request(7), "module"), (request(7), "client")):
            client = self.connect()
            client.sendall(sent)
            if then == "client" and len(sent) < 24:
                client.close()
                module = listener.accept()[0]
                self.assertEqual(receive(module, 24), sent)
                module.close()
                continue
            module = listener.accept()[0]
            self.assertEqual(receive(module, 24), sent)
            (module if then == "module" else client).close()
            self.assertEqual(receive(client if then == "module" else module, 1), b"")
            module.close()
            client.close()
        code, out, _ = self.end(tool)
        self.assertEqual(code, 0)
        self.assertEqual([row["fault"] for row in self.objects(out)[0]], ["request cut short", "no answer", "given up"])

    def test_misuse(self):
        for args, status, said in ((("watch", "logtool"), 2, "logtool is a tool: it gets no requests"),
                                   (("watch", "nobody"), 2, "nobody"),
                                   (("watch", "--names", "/nonexistent"), 1, "cannot read /nonexistent"),
                                   (("capture",), 2, "capture"),
                                   (("capture", "/nonexistent/file"), 1, "cannot write /nonexistent/file")):
            with self.subTest(args):
                done = run("monitor_tool", *args)
                self.assertEqual((done.returncode, done.stdout), (status, ""))
                self.assertRegex(done.stderr, r"\Amonitor_tool: [^\n]*%s" % re.escape(said))

    def test_no_device(self):
        os.rmdir(SOCKETS)
        done = run("monitor_tool", "watch", "dial_test")
        self.assertEqual(done.returncode, 1)
        self.assertIn("dial_test cannot be watched: no module has run yet", done.stderr)

    def test_whoever_reads_leaves(self):
        """Without one request more."""
        tool = self.watch("watch", "--json", watched=False)
        within(SOON, relays)
        tool.stdout.close()
        tool.wait(SOON)
        self.assertEqual(tool.returncode, 0)
        self.assert_nothing_left()


class Relayed(WatchTest):
    """Both ends see what they would see without."""

    def test_half_closes(self):
        listener = self.listen()
        self.watch_listener(listener)
        client = self.connect()
        client.sendall(request(7, b"x"))
        client.shutdown(socket.SHUT_WR)
        module = listener.accept()[0]
        self.assertEqual(receive(module, 100), request(7, b"x"))
        module.sendall(response(0, b"answer"))
        module.shutdown(socket.SHUT_WR)
        self.assertEqual(receive(client, 100), response(0, b"answer"))
        module.close()

    def test_resets(self):
        """Closing with bytes unread resets a connection: the other side is told so, in both directions."""
        listener = self.listen()
        self.watch_listener(listener)
        for who in ("module", "client"):
            client = self.connect()
            client.sendall(request(7, b"body"))
            module = listener.accept()[0]
            if who == "module":
                self.assertEqual(receive(module, 3), request(7)[:3])
                module.close()
                self.assertRaises(ConnectionResetError, client.recv, 1)
            else:
                self.assertEqual(receive(module, 28), request(7, b"body"))
                module.sendall(response(0))
                within(SOON, lambda: len(client.recv(8, socket.MSG_PEEK)) == 8)
                client.close()
                self.assertRaises(ConnectionResetError, module.recv, 1)
                module.close()

    def test_large_messages(self):
        listener = self.listen()
        tool = self.watch_listener(listener)
        body = os.urandom(5_000_000)
        client = self.connect()
        sender = threading.Thread(target=client.sendall, args=(request(7, body, len(body)),))
        sender.start()
        module = listener.accept()[0]
        self.assertEqual(receive(module, 24 + len(body)), request(7, body, len(body)))
        sender.join()
        answerer = threading.Thread(target=module.sendall, args=(response(0, body[::-1]),))
        answerer.start()
        self.assertEqual(receive(client, 8 + len(body)), response(0, body[::-1]))
        answerer.join()
        module.close()
        row = self.objects(self.end(tool)[1])[0][0]
        self.assertEqual((row["request_bytes"], row["answer_bytes"]), (len(body), len(body)))

    def test_whoever_does_not_read_holds_up_the_sender(self):
        listener = self.listen()
        self.watch_listener(listener)
        client = self.connect()
        client.setblocking(False)
        sent = 0
        idle = time.monotonic() + 1
        data = bytes(65536)
        client.send(request(7, b"", 0)[:20] + struct.pack("=i", 1 << 30))
        while time.monotonic() < idle:
            try:
                sent += client.send(data)
                idle = time.monotonic() + 1
            except BlockingIOError:
                time.sleep(0.01)
            self.assertLess(sent, 16 << 20)
        with open("/proc/%d/status" % relays()[0], encoding="ascii") as file:
            self.assertLess(int(re.search(r"VmRSS:\s+(\d+) kB", file.read()).group(1)), 100_000)
        client.close()

    def test_a_request_arrives_in_one_piece(self):
        """A module of the library takes what comes after the first read of a body for cut off."""
        listener = self.listen()
        self.watch_listener(listener)
        client = self.connect()
        whole = request(7, os.urandom(30000))
        listener.setblocking(False)
        client.sendall(whole[:10])
        time.sleep(0.001)
        client.sendall(whole[10:])
        listener.settimeout(SOON)
        module = listener.accept()[0]
        time.sleep(0.2)
        self.assertEqual(module.recv(100000), whole)
        module.close()

    def test_more_connections_than_descriptors(self):
        def limit():
            import resource
            resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64))

        listener = self.listen(100)
        answered = threading.Thread(target=self.probe_answered, args=(listener,))
        answered.start()
        self.watch("watch", "dial_test", preexec_fn=limit)
        answered.join()
        clients = [self.connect() for _ in range(60)]
        for client in clients:
            client.sendall(request(7))
        for _ in clients:
            module = listener.accept()[0]
            self.assertEqual(receive(module, 24), request(7))
            module.sendall(response(3))
            module.close()
        for client in clients:
            self.assertEqual(receive(client, 9), response(3))

    def test_a_tool_that_is_held_up(self):
        """What it cannot show in time is passed on all the same, and counted; what it shows, it shows whole."""
        load = watch_load.Load(3000)
        self.addCleanup(load.end)
        tool = self.watch("watch", "-x", "--json", "dial_test")
        tool.send_signal(signal.SIGSTOP)
        result = json.loads(load.ask(3000, 4).communicate(timeout=SOON)[0])
        self.assertEqual({key: result[key] for key in ("failed", "wrong", "lost", "doubled")},
                         {"failed": 0, "wrong": 0, "lost": 0, "doubled": 0})
        with open("/proc/%d/status" % relays()[0], encoding="ascii") as file:
            self.assertLess(int(re.search(r"VmRSS:\s+(\d+) kB", file.read()).group(1)), 100_000)
        tool.send_signal(signal.SIGCONT)
        code, out, err = self.end(tool)
        self.assertEqual(code, 0)
        unseen = int(re.fullmatch(r"monitor_tool: (\d+) requests passed that could not be shown: they came faster than they "
                                  r"were read\n", err).group(1))
        rows = [row for row in self.objects(out)[0] if row["message"] == 7]
        self.assertEqual(len(rows) + unseen, 3000)
        self.assertGreater(min(len(rows), unseen), 100)
        for row in rows:
            self.assertIsNone(row["fault"])
            self.assertEqual(len(row["request_hex"]), 2 * row["request_bytes"])
            self.assertEqual(len(row["answer_hex"]), 2 * min(row["answer_bytes"], 65536 - 8))

    def test_a_tool_that_is_held_up_while_the_relay_ends(self):
        """The relay waits until all was read that it has to tell."""
        load = watch_load.Load(1000)
        self.addCleanup(load.end)
        tool = self.watch("watch", "-x", "--json", "dial_test")
        tool.send_signal(signal.SIGSTOP)
        load.ask(1000, 4).communicate(timeout=SOON)
        os.kill(relays()[0], signal.SIGTERM)
        time.sleep(2.5)  # longer than it waits for late clients
        tool.send_signal(signal.SIGCONT)
        err = tool.communicate(timeout=SOON)[1]
        self.assertEqual(tool.returncode, 0, err)

    def test_rights(self):
        """Whoever may connect to the module may connect now, and nobody else."""
        self.listen()
        os.chmod(PLACE, 0o610)
        try:
            os.chown(PLACE, 0, 12)
        except OSError:
            pass  # a namespace of an ordinary user knows no other group
        before = os.stat(PLACE)
        tool = self.watch()
        now = os.stat(PLACE)
        self.assertNotEqual(now.st_ino, before.st_ino)
        self.assertEqual((now.st_mode, now.st_uid, now.st_gid), (before.st_mode, before.st_uid, before.st_gid))
        self.end(tool)
        self.assertEqual(os.stat(PLACE).st_ino, before.st_ino)


class Ends(WatchTest):
    """However it ends, the module has its socket back."""

    def ask(self):
        self.assertEqual(run("monitor_tool", "wait", "dial_test", "0").returncode, 0)

    def test_every_end(self):
        self.start_module()
        place = inode(PLACE)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL, signal.SIGSEGV):
            with self.subTest(number.name):
                tool = self.watch()
                self.ask()
                tool.send_signal(number)
                tool.wait(SOON)
                self.ask()
                self.assert_nothing_left(place)

    def test_the_relay_is_killed(self):
        self.start_module()
        place = inode(PLACE)
        for number in (signal.SIGTERM, signal.SIGKILL):
            tool = self.watch()
            os.kill(relays()[0], number)
            err = tool.communicate(timeout=SOON)[1]
            self.assertEqual(tool.returncode, 1 if number == signal.SIGKILL else 0, err)
            self.assertEqual("the relay was killed" in err, number == signal.SIGKILL, err)
            self.ask()
            self.assert_nothing_left(place)

    def kill_both(self):
        tool = self.watch()
        tool.send_signal(signal.SIGSTOP)
        os.kill(relays()[0], signal.SIGKILL)
        tool.kill()
        tool.wait()

    def test_both_are_killed(self):
        """Nobody is left who could: the next one repairs it."""
        self.start_module()
        place = inode(PLACE)
        self.kill_both()
        self.assertNotEqual(inode(PLACE), place)
        self.end(self.watch())
        self.ask()
        self.assert_nothing_left(place)

    def test_both_are_killed_and_the_module_starts_anew(self):
        module = self.start_module()
        self.kill_both()
        self.stop(module)
        self.start_module()
        place = inode(PLACE)
        self.end(self.watch())
        self.ask()
        self.assert_nothing_left(place)

    def test_what_is_under_way_goes_on(self):
        """Connections outlive the tool; its end does not wait for them."""
        for number in (signal.SIGINT, signal.SIGKILL):
            with self.subTest(number.name):
                listener = self.listen()
                place = inode(PLACE)
                tool = self.watch_listener(listener)
                waiting = self.connect()
                waiting.sendall(request(7))
                unaccepted = self.connect()
                asked = listener.accept()[0]
                self.end(tool, number)
                within(SOON, lambda: inode(PLACE) == place)  # a tool that is killed cannot wait for that
                self.assertEqual(receive(asked, 24), request(7))
                asked.sendall(response(5))
                asked.close()
                self.assertEqual(receive(waiting, 9), response(5))
                unaccepted.sendall(request(8))
                late = listener.accept()[0]
                self.assertEqual(receive(late, 24), request(8))
                late.sendall(response(6))
                late.close()
                self.assertEqual(receive(unaccepted, 9), response(6))
                self.assert_nothing_left(place)
                os.unlink(PLACE)

    def test_two_at_once(self):
        self.start_module()
        place = inode(PLACE)
        tool = self.watch()
        second = run("monitor_tool", "watch", "dial_test")
        self.assertEqual((second.returncode, second.stderr),
                         (1, "monitor_tool: dial_test cannot be watched: is being watched already\n"))
        self.ask()
        code, out, _ = self.end(tool)
        self.assertEqual((code, len(self.objects(out)[0])), (0, 1))
        self.assert_nothing_left(place)

    def test_the_module_starts_anew(self):
        module = self.start_module()
        tool = self.watch()
        self.ask()
        self.stop(module)
        self.assertEqual(tool.stderr.readline(), "monitor_tool: dial_test has ended: it will be watched when it starts anew\n")
        self.assertEqual(run("monitor_tool", "wait", "dial_test", "0").returncode, 1)
        self.start_module()
        self.assertEqual(tool.stderr.readline(), "monitor_tool: dial_test is being watched\n")
        self.ask()
        code, out, _ = self.end(tool)
        self.assertEqual(code, 0)
        pings = [row["result"] for row in self.objects(out)[0] if row["message"] == 5]
        self.assertGreaterEqual(pings.count(0), 2)
        self.ask()
        self.assert_nothing_left()

    def test_the_module_starts_anew_again_and_again(self):
        """While it is being watched, and that ends in between: never is a dead socket left where a living one was."""
        for turn in range(12):
            module = self.start_module()
            tool = self.watch()
            self.stop(module)
            module = self.start(watch_load.LOAD, "serve", os.path.join(self.work, "seen"))
            time.sleep(turn * 0.003)
            tool.send_signal(signal.SIGKILL if turn % 2 else signal.SIGINT)
            tool.wait(SOON)
            within(SOON, lambda: run("monitor_tool", "wait", "dial_test", "0").returncode == 0)
            self.assert_nothing_left()
            self.ask()
            self.stop(module)

    def test_a_module_that_is_not_there_yet(self):
        tool = self.watch(watched=False)
        self.assertEqual(tool.stderr.readline(),
                         "monitor_tool: dial_test is not running: it will be watched when it does\n")
        self.start_module()
        self.assertEqual(tool.stderr.readline(), "monitor_tool: dial_test is being watched\n")
        self.ask()
        self.assertGreaterEqual(len(self.objects(self.end(tool)[1])[0]), 1)
        self.assert_nothing_left()

    def test_load(self):
        """Some thousands of requests while it comes and goes; .ci/run has 100,000."""
        result, counts = watch_load.come_and_go(int(os.environ.get("WATCH_REQUESTS", "10000")), 6)
        self.assertEqual({key: result[key] for key in ("failed", "wrong", "lost", "doubled")},
                         {"failed": 0, "wrong": 0, "lost": 0, "doubled": 0})
        self.assertGreater(sum(counts.values()) - counts["read"], 0)


class Captured(WatchTest):
    def blocks(self, data):
        """The types of the blocks, whose lengths are right."""
        found = []
        while data:
            kind, size = struct.unpack_from("=II", data)
            self.assertEqual(struct.unpack_from("=I", data, size - 4)[0], size)
            found.append(kind)
            data = data[size:]
        return found

    def test_a_file(self):
        self.start_module()
        path = os.path.join(self.work, "capture")
        with open(path, "wb") as file:
            file.write(b"older" * 1000)
        tool = self.watch("capture", path, "dial_test")
        run("monitor_tool", "send", "dial_test", "4", "--rsp", "4")
        code, out, err = self.end(tool)
        self.assertEqual((code, out, err), (0, "", "monitor_tool: 2 packets in %s\n" % path))
        with open(path, "rb") as file:
            self.assertEqual(self.blocks(file.read()), [0x0A0D0D0A, 1, 6, 6, 5])

    def test_standard_output(self):
        self.start_module()
        tool = self.start("monitor_tool", "capture", "-", "dial_test", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertIn(b"is being watched", tool.stderr.readline())
        run("monitor_tool", "wait", "dial_test")
        tool.send_signal(signal.SIGINT)
        self.assertEqual(self.blocks(tool.communicate(timeout=SOON)[0]), [0x0A0D0D0A, 1, 6, 6, 5])

    def test_an_older_file_stays_when_it_fails(self):
        self.start_module()
        tool = self.watch()
        path = os.path.join(self.work, "capture")
        with open(path, "wb") as file:
            file.write(b"older")
        self.assertEqual(run("monitor_tool", "capture", path, "dial_test").returncode, 1)
        with open(path, "rb") as file:
            self.assertEqual(file.read(), b"older")
        self.end(tool)

    def test_a_full_disk(self):
        self.start_module()
        place = inode(PLACE)
        done = run("monitor_tool", "capture", "/dev/full", "dial_test")
        self.assertEqual(done.returncode, 1)
        self.assertIn("cannot write /dev/full: No space left on device", done.stderr)
        self.assert_nothing_left(place)


if __name__ == "__main__":
    unittest.main()
