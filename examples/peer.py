#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT
"""Sends one message to a module and prints its answer: a peer that does not use the library.

    peer.py MODULE MSG [HEX BODY] [--rsp BYTES] [--async] [--from ID] [--timeout SECONDS] [--limit SECONDS]

Prints the handler's result and the response data in hex. Ends with 1 when there was no whole answer.
"""
import argparse
import socket
import struct
import sys

REQUEST = struct.Struct("=IIIIii")  # from, msg, async, timeout, rsp_size, msg_len
RESPONSE = struct.Struct("=ii")  # rc, msg_len


def receive(sock, size):
    data = b""
    while len(data) < size:
        part = sock.recv(size - len(data))
        if not part:
            raise ConnectionError("closed after %d of %d bytes" % (len(data), size))
        data += part
    return data


def request(module, msg, body=b"", rsp_size=0, wait=True, sender=0, timeout=3, limit=None):
    """Returns the handler's result and the response data; zero and nothing when not waiting for the handler."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        sock.settimeout(limit)
        sock.connect("/tmp/odm/ipc/" + module)
        header = REQUEST.pack(sender, msg, 0 if wait else 1, timeout, rsp_size if wait else 0, len(body))
        sock.sendall(header + body)  # one write: the receiver does not wait for the rest of a frame
        rc, length = RESPONSE.unpack(receive(sock, RESPONSE.size))
        return rc, receive(sock, length)


def main():
    parser = argparse.ArgumentParser(description="Sends one message to a module and prints its answer.")
    parser.add_argument("module")
    parser.add_argument("msg", type=int)
    parser.add_argument("body", nargs="?", type=bytes.fromhex, default=b"")
    parser.add_argument("--rsp", type=int, default=0, metavar="BYTES")
    parser.add_argument("--async", dest="wait", action="store_false")
    parser.add_argument("--from", dest="sender", type=int, default=0, metavar="ID")
    parser.add_argument("--timeout", type=int, default=3, metavar="SECONDS", help="wait for the module's handler")
    parser.add_argument("--limit", type=float, metavar="SECONDS", help="wait for the answer, by default for good")
    args = parser.parse_args()
    try:
        rc, data = request(args.module, args.msg, args.body, args.rsp, args.wait, args.sender, args.timeout, args.limit)
    except OSError as error:
        sys.exit("peer.py: %s: %s" % (args.module, error))
    print("rc=%d data=%s" % (rc, data.hex()))


if __name__ == "__main__":
    main()
