# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""A person at the device's console."""
import os
import select
import sys
import termios
import tty

from emulated import progress

ESCAPE, LEAVE = 1, ord("x")  # Ctrl-A, then x


def attach(machine):
    """Joins this terminal and the console until the device is off or the person leaves by Ctrl-A x."""
    if not os.isatty(0):
        sys.stderr.write("tools/device: standard input is no terminal: what it holds is typed\n")
    sys.stderr.write("tools/device: 'poweroff' switches the device off, Ctrl-A x pulls its plug\n")
    port, before, heard, escaped, typing = machine.sockets["console"], None, False, False, True
    try:
        if os.isatty(0):
            before = termios.tcgetattr(0)
            tty.setraw(0)
        while True:
            if not heard:
                progress("booting, %d s" % machine.age() if os.isatty(2) else "booting")
            ready = select.select([port] + [0] * (typing and heard), [], [], 1)[0]
            if port in ready:
                data = port.recv(65536)
                if not data:
                    break
                if not heard:
                    progress()
                heard = True
                os.write(1, data)
            if 0 in ready:
                data = os.read(0, 1024)
                typing = bool(data)
                keys = bytearray()
                for key in data:
                    if escaped and key == LEAVE:
                        return 0
                    if key == ESCAPE and not escaped and before:
                        escaped = True
                        continue
                    escaped = False
                    keys.append(key)
                port.sendall(keys)
    finally:
        progress()
        if before:
            termios.tcsetattr(0, termios.TCSADRAIN, before)
    machine.end()
    return 0
