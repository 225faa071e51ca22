# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""The machine: a 32-bit ARM one of qemu, with the drives and the serial ports of the device."""
import ctypes
import os
import selectors
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from emulated import fail, image, progress

QEMU = "qemu-system-arm"
PORTS = ("output", "errors", "status")  # of virtio; the console is a port of its own
BOOT_LIMIT = 240  # seconds until the device has said something; a busy machine takes a minute
PR_SET_PDEATHSIG = 1


def make_card(directory, path):
    """A card for the device's slot; it runs the file `job` on it."""
    size = sum(os.path.getsize(name) for name in image.files_below(directory))
    image.make_partition(path, directory, "card", (size * 5 // 4 + (4 << 20)) // 4096 * 4096,
                         ("-O", "^has_journal", "-m", "0"))


class Work:
    """A directory for the files of one run, gone after it."""

    def __enter__(self):
        os.makedirs(image.HERE, exist_ok=True)
        self.path = tempfile.mkdtemp(prefix="run-", dir=image.HERE)
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path, ignore_errors=True)

    def file(self, name):
        return os.path.join(self.path, name)

    def blank_data(self):
        shutil.copyfile(image.BLANK, self.file("data"))
        return self.file("data")

    def card(self, job, *files, name="card", trees=()):
        """A card with the text of a job, with files and with trees, each given as (name there, path here)."""
        tree = tempfile.mkdtemp(dir=self.path)
        with open(os.path.join(tree, "job"), "w", encoding="utf-8") as file:
            file.write(job)
        for path in files:
            shutil.copy(path, tree)
        for there, path in trees:
            shutil.copytree(path, os.path.join(tree, there))
        make_card(tree, self.file(name))
        shutil.rmtree(tree)
        return self.file(name)


class Machine:
    """Runs from the construction on. Inside a `with`, so that no emulator stays behind."""

    def __init__(self, data, card=None, record=None, cpus=1, options=(), append=""):
        if shutil.which(QEMU) is None:
            fail("%s is missing (Debian package qemu-system-arm)" % QEMU)
        self.started = time.monotonic()
        self.selector = selectors.DefaultSelector()
        self.sockets, ends = {}, []
        command = [QEMU, "-M", "virt", "-cpu", "cortex-a15", "-m", "512", "-smp", str(cpus), "-nodefaults",
                   "-no-user-config", "-display", "none", "-no-reboot", "-kernel", image.KERNEL, "-initrd",
                   image.INITRAMFS, "-append", ("console=ttyAMA0 loglevel=1 panic=-1 " + append).strip(), *options,
                   "-device", "virtio-serial-device"]
        for port in ("console",) + PORTS:
            here, there = socket.socketpair()
            ends.append(there)
            self.sockets[port] = here
            self.selector.register(here, selectors.EVENT_READ, port)
            command += ["-chardev", "socket,id=%s,fd=%d" % (port, there.fileno())]
            command += (["-serial", "chardev:console"] if port == "console" else
                        ["-device", "virtserialport,chardev=%s,name=%s" % (port, port)])
        command += self.drive("system", "file.filename=%s,read-only=on" % image.SYSTEM)
        if card:
            command += self.drive("card", "file.filename=%s,read-only=on" % card)
        if record:
            # What is written and flushed is recorded, for a drive that has a volatile cache.
            command += ["-blockdev", "file,node-name=image,locking=off,filename=" + data,
                        "-blockdev", "file,node-name=record,locking=off,filename=" + record,
                        "-blockdev", "blklogwrites,node-name=data,file=image,log=record,log-super-update-interval=1",
                        "-device", "virtio-blk-device,drive=data,serial=data,discard=off,write-zeroes=off"]
        else:
            command += self.drive("data", "file.filename=" + data)
        parent = os.getpid()

        def die_with_parent():
            ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            if os.getppid() != parent:
                os._exit(1)

        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        pass_fds=[end.fileno() for end in ends], start_new_session=True,
                                        preexec_fn=die_with_parent)
        for end in ends:
            end.close()

    @staticmethod
    def drive(name, options):
        return ["-drive", "if=none,id=%s,format=raw,file.locking=off,%s" % (name, options), "-device",
                "virtio-blk-device,drive=%s,serial=%s" % (name, name)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()
        for port in self.sockets.values():
            port.close()
        self.selector.close()
        self.process.stderr.close()

    def kill(self):
        """Pulls the plug."""
        self.process.kill()
        self.process.wait()

    def age(self):
        return time.monotonic() - self.started

    def read(self, seconds):
        """What has come by then: (port, bytes) pairs; none when time is up; None when the machine is off."""
        if not self.selector.get_map():
            self.process.wait()
            return None
        found = []
        for key, _ in self.selector.select(max(0, seconds)):
            try:
                data = key.fileobj.recv(65536)
            except ConnectionError:
                data = b""
            if data:
                found.append((key.data, data))
            else:
                self.selector.unregister(key.fileobj)
        return found

    def end(self):
        """Once it is off: fails where the emulator did."""
        complaint = self.process.stderr.read().decode(errors="replace").strip()
        if self.process.wait() != 0:
            fail("%s fails: %s" % (QEMU, complaint.splitlines()[-1] if complaint else self.process.returncode))


def run_job(machine, sinks, what, limit):
    """Passes on what comes of a job, by sinks for its ports, until the device is off. The job's exit status."""
    status, console, heard = b"", b"", False
    while True:
        if not heard:
            progress("%s: booting, %d s" % (what, machine.age()) if os.isatty(2) else what + ": booting")
        parts = machine.read(1)
        if parts is None:
            break
        for port, data in parts:
            if not heard and (port != "console" or "console" in sinks):
                heard = True
                progress()
            if port == "status":
                status += data
            elif port == "console" and "console" not in sinks:
                console += data
            if port in sinks:
                sinks[port](data)
        if machine.age() > limit or (not heard and machine.age() > BOOT_LIMIT):
            fail("%s: not done after %d s; the console says: %s" % (
                what, machine.age(), console.decode(errors="replace")[-2000:].strip() or "nothing"))
    progress()
    machine.end()
    if not status.strip().isdigit():
        fail("%s: the device went off without a result; the console says: %s" % (
            what, console.decode(errors="replace")[-2000:].strip() or "nothing"))
    return int(status)
