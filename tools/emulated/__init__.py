# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What tools/device is made of: the image, the machine that runs it, and what is tried on it."""
import sys

NAME = "tools/device"
_shown = ""


def progress(what=""):
    """Says what is going on, in one line that the next call replaces where a terminal shows it."""
    global _shown
    if sys.stderr.isatty():
        sys.stderr.write("\r\x1b[K" + ("%s: %s ..." % (NAME, what) if what else ""))
    elif what and what != _shown:
        sys.stderr.write("%s: %s\n" % (NAME, what))
    _shown = what
    sys.stderr.flush()


def fail(what):
    """Ends with one line that says what is wrong."""
    progress()
    sys.exit("%s: %s" % (NAME, what))
