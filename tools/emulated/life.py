# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What programs on the device show: long life under load, clocks that have run for weeks, and what all that costs."""
import os
import sys

from emulated import image, machine


def programs(*names):
    return [image.compile_program(name, image.LIBRARY, "-pthread") for name in names]


def script(name):
    return os.path.join(image.ROOT, "image", "programs", name)


def passed_on(stream):
    def write(data):
        stream.buffer.write(data)
        stream.buffer.flush()
    return write


def soak(minutes):
    seconds = int(minutes * 60)
    with machine.Work() as work:
        card = work.card("bash /mnt/soak.sh %d" % seconds, script("soak.sh"), *programs("load", "leak"))
        with machine.Machine(work.blank_data(), card) as device:
            return machine.run_job(device, {"output": passed_on(sys.stdout), "errors": passed_on(sys.stderr)}, "soak",
                                   seconds * 2 + 600)


# The seconds after which the milliseconds of an uptime need a 32nd and a 33rd bit: 24.8 and 49.7 days.
EDGES = (2147483, 4294967)


def uptimes(seconds=30):
    edges = " ".join(str(edge) for edge in EDGES)
    with machine.Work() as work:
        card = work.card("bash /mnt/uptime.sh %d %s" % (seconds, edges), script("uptime.sh"),
                         *programs("load", "timers"), image.compile_program("uptime", "-shared", "-fPIC"))
        with machine.Machine(work.blank_data(), card) as device:
            return machine.run_job(device, {"output": passed_on(sys.stdout), "errors": passed_on(sys.stderr)}, "uptimes",
                                   600)


def cost():
    sizes = [(package, image.installed_size(package)) for package in image.OWN_PACKAGES[:2]]
    with machine.Work() as work:
        card = work.card("bash /mnt/cost.sh", script("cost.sh"), *programs("idle", "requests"),
                         image.compile_program("bare"))
        with machine.Machine(work.blank_data(), card) as device:
            status = machine.run_job(device, {"output": passed_on(sys.stdout), "errors": passed_on(sys.stderr)}, "cost",
                                     600)
    print("\n| package | installed, KiB |\n|---|---:|")
    for package, size in sizes:
        print("| `%s` | %d |" % (package, size))
    return status
