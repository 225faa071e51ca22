/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Captures as Wireshark reads them: the blocks of pcapng that a capture of requests needs.
 */
#ifndef PCAPNG_H
#define PCAPNG_H

#include <stddef.h>
#include <stdint.h>

enum { PCAPNG_USER0 = 147 }; /* the first of the link types for private use */

/* Writes the head of a capture of packets of which `snap` bytes are kept. All return false when it cannot be written.
 */
bool pcapng_begin(int fd, uint16_t link_type, uint32_t snap, const char *program, const char *interface);

/* Writes a packet: `head` and `body` behind it. `len` is how long both would be if nothing were cut off. */
bool pcapng_packet(int fd, uint64_t nanoseconds, const void *head, size_t head_len, const void *body, size_t body_len,
                   size_t len, const char *comment);

/* Writes how many packets could not be captured. */
bool pcapng_end(int fd, uint64_t nanoseconds, uint64_t captured, uint64_t lost);

#endif
