# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""What qemu's blklogwrites records of a drive: a head of one sector, then entries, each a sector and the data behind it."""
import os
import struct

SECTOR = 512
ENTRY = struct.Struct("<QQQQ")  # sector, count of sectors, flags, length of further data
FLUSH, FUA = 1, 2


class Entry:
    def __init__(self, offset, data, flags):
        self.offset, self.data, self.flags = offset, data, flags


def entries_from(position, file):
    """The entries from a position on, each with the position behind it. One that is not there whole is not there."""
    while True:
        head = os.pread(file, ENTRY.size, position)
        sector, count, flags, _ = ENTRY.unpack(head) if len(head) == ENTRY.size else (0, 0, 0, 0)
        if count == 0 and flags == 0:
            return
        position += SECTOR
        data = os.pread(file, count * SECTOR, position)
        if len(data) < count * SECTOR:
            return
        position += count * SECTOR
        yield Entry(sector * SECTOR, data, flags), position


def apply(disk, entry):
    disk[entry.offset:entry.offset + len(entry.data)] = entry.data
