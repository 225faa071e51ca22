# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""The plug is pulled while two modules save settings; what was acknowledged must be there after the next boot.

The drive has a cache that is lost with the power: it is rebuilt from the record of its writes up to the last flush, and
of those after it any part, as a drive may have written them by itself.
"""
import os
import random
import shutil
import statistics
import time

from emulated import fail, image, machine, progress, record

FIRST, SAVE, ANY = "the first save", "another", "one at any time"
UNSET = {(module, setting): {"0" if setting == "mode" else ""} for module in ("mbimd", "qti")
         for setting in ("mode", "args")}


class Settings:
    """What may be found of each setting: the value acknowledged last, and one that is being saved."""

    def __init__(self):
        self.allowed = dict(UNSET)
        self.acknowledged = 0
        self.firsts, self.others = [0.2], [0.1]  # seconds that saves took, the first after a boot and others
        self.begun = {}

    def boot(self):
        self.found, self.begun, self.running = {}, {}, False
        self.durations = self.firsts

    def saving(self):
        return bool(self.begun)

    def saving_first(self):
        return self.saving() and self.durations is self.firsts

    def take(self, line):
        """A line of the device. What is wrong with it, or nothing."""
        module, verb, setting, value = (line.split(" ", 3) + ["", "", ""])[:4]
        key = (module, setting)
        if verb == "begins":
            self.running = True
            if self.found.keys() != self.allowed.keys():
                return "not all settings can be read"
            self.allowed = self.found
        elif verb == "has" and not self.running:
            self.found[key] = {value}
            if value not in self.allowed[key]:
                return "%s of %s is '%s', and should be %s" % (
                    setting, module, value, " or ".join("'%s'" % one for one in sorted(self.allowed[key])))
        elif verb == "set":
            self.begun[key] = time.monotonic()
            self.allowed[key] = self.allowed[key] | {value}
        elif verb == "has":
            self.durations.append(time.monotonic() - self.begun.pop(key))
            self.durations = self.others
            self.allowed[key] = {value}
            self.acknowledged += 1
        else:
            return "the device says: " + line
        return None


class Plug:
    """When it is pulled: so long after the n-th save has begun."""

    def __init__(self, kind, settings, rng):
        self.kind = kind
        usual = statistics.median((settings.firsts if kind == FIRST else settings.others)[-100:])
        self.saves = rng.randint(4, 40) if kind == SAVE else 1
        self.delay = rng.uniform(0, 4) if kind == ANY else rng.uniform(0, 1) * usual


def rebuild(path, before, log, rng):
    """What the drive holds when it has power again. How much of the record was lost."""
    with open(before, "rb") as file:
        disk = bytearray(file.read())
    descriptor = os.open(log, os.O_RDONLY)
    entries = [entry for entry, _ in record.entries_from(record.SECTOR, descriptor)]
    os.close(descriptor)
    flushed = max((number for number, entry in enumerate(entries) if entry.flags & record.FLUSH), default=-1)
    share = rng.random()
    lost = 0
    for number, entry in enumerate(entries):
        if number <= flushed or entry.flags & record.FUA or rng.random() < share:
            record.apply(disk, entry)
        else:
            lost += 1
    with open(path, "wb") as file:
        file.write(disk)
    return len(entries), len(entries) - flushed - 1, lost


class Reader:
    def __init__(self, settings):
        self.settings, self.rest, self.wrong, self.saves, self.said = settings, b"", None, 0, b""

    def take(self, parts):
        for port, data in parts or ():
            if port != "output":
                self.said += data
                continue
            *lines, self.rest = (self.rest + data).split(b"\n")
            for line in lines:
                self.wrong = self.wrong or self.settings.take(line.decode())
                self.saves += b" set " in line


def pull(work, card, settings, plug):
    """Boots the device and pulls its plug, or only boots it. What is wrong, or nothing."""
    settings.boot()
    reader = Reader(settings)
    with machine.Machine(work.file("data"), card, record=work.file("record")) as device:
        while reader.saves < (plug.saves if plug else 0) or not settings.running:
            parts = device.read(1)
            reader.take(parts)
            if reader.wrong:
                return reader.wrong
            if parts is None or device.age() > machine.BOOT_LIMIT:
                return "no save within %d s; the device says: %s" % (
                    device.age(), reader.said.decode(errors="replace")[-2000:].strip())
        end = time.monotonic() + (plug.delay if plug else 0)
        while time.monotonic() < end:
            reader.take(device.read(min(0.01, max(0, end - time.monotonic()))))
        device.kill()
        parts = ()
        while parts is not None:
            reader.take(parts)
            parts = device.read(0)
    return reader.wrong


def keep_lost(work):
    """The drive of a round that went wrong, for whoever looks into it."""
    kept = os.path.join(image.HERE, "lost")
    shutil.rmtree(kept, ignore_errors=True)
    os.makedirs(kept)
    for name in ("before", "record.before", "start"):
        if os.path.exists(work.file(name)):
            shutil.copy(work.file(name), kept)
    return os.path.relpath(kept)


def power(rounds, without_sync, seed):
    rng = random.Random(seed)
    programs = [image.compile_program("settings", image.LIBRARY, "-pthread")]
    if without_sync:
        programs.append(image.compile_program("nosync", "-shared", "-fPIC"))
    settings = Settings()
    hits = {FIRST: 0, SAVE: 0, ANY: 0}
    print("seed %d" % seed, flush=True)
    with machine.Work() as work:
        preload = "LD_PRELOAD=/mnt/nosync " if without_sync else ""
        card = work.card("umask 077\nmonitor_tool wait monitor 60 && %s/mnt/settings" % preload, *programs)
        work.blank_data()
        for number in range(rounds + 1):
            plug = Plug((FIRST, SAVE, ANY)[number % 3], settings, rng) if number < rounds else None
            progress("round %d of %d" % (number + 1, rounds) if plug else "the last boot")
            shutil.copyfile(work.file("data"), work.file("start"))
            open(work.file("record"), "wb").close()
            wrong = pull(work, card, settings, plug)
            progress()
            if wrong and without_sync and number > 0:
                print("without the sync a loss is found after %d rounds: %s" % (number, wrong))
                return 0
            if wrong:
                print("round %d: %s; the drive before and its record are in %s" % (number, wrong, keep_lost(work)))
                return 1
            if plug:
                count, after, lost = rebuild(work.file("data"), work.file("start"), work.file("record"), rng)
                os.replace(work.file("start"), work.file("before"))
                os.replace(work.file("record"), work.file("record.before"))
                hits[plug.kind] += settings.saving_first() if plug.kind == FIRST else settings.saving()
                when = "during the first save" if settings.saving_first() else "while saving" if settings.saving() else "idle"
                print("round %d: pulled %.0f ms after save %d began, %s; %d writes and flushes, %d after the last flush, "
                      "%d of them lost" % (number + 1, plug.delay * 1000, plug.saves, when, count, after, lost), flush=True)
    if without_sync:
        print("a missing sync was not found in %d rounds" % rounds)
        return 1
    print("%d plugs pulled: %s; %d settings acknowledged, none lost" % (
        rounds, ", ".join("%d during %s" % (count, kind) for kind, count in hits.items()), settings.acknowledged))
    return 0
