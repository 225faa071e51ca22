/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "pcapng.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

/* Blocks and options of the file format. All numbers are in the byte order of the machine that writes. */
enum { SECTION = 0x0A0D0D0A, INTERFACE = 1, STATISTICS = 5, PACKET = 6 };
enum { OPT_END = 0, OPT_COMMENT = 1, SHB_USERAPPL = 4, IF_NAME = 2, IF_TSRESOL = 9, ISB_IFRECV = 4, ISB_IFDROP = 5 };
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1A2B3C4D;

struct block_t {
    uint8_t *bytes;
    size_t len;
    size_t room;
    bool failed;
};

static void put(block_t *block, const void *data, size_t len)
{
    if (block->failed || len == 0) {
        return;
    }
    if (block->len + len > block->room) {
        size_t room = (block->len + len) * 2;
        uint8_t *grown = static_cast<uint8_t *>(realloc(block->bytes, room));
        if (grown == nullptr) {
            block->failed = true;
            return;
        }
        block->bytes = grown;
        block->room = room;
    }
    memcpy(block->bytes + block->len, data, len);
    block->len += len;
}

static void put_padding(block_t *block)
{
    static const uint8_t zero[4] = {};
    put(block, zero, (4 - block->len % 4) % 4);
}

static void put_u32(block_t *block, uint32_t value)
{
    put(block, &value, sizeof value);
}

static void put_option(block_t *block, uint16_t code, const void *data, size_t len)
{
    uint16_t head[2] = {code, static_cast<uint16_t>(len)};
    put(block, head, sizeof head);
    put(block, data, len);
    put_padding(block);
}

static block_t begin_block(uint32_t type)
{
    block_t block = {};
    put_u32(&block, type);
    put_u32(&block, 0); /* the length, set at the end */
    return block;
}

static void put_time(block_t *block, uint64_t nanoseconds)
{
    put_u32(block, static_cast<uint32_t>(nanoseconds >> 32));
    put_u32(block, static_cast<uint32_t>(nanoseconds));
}

static bool write_all(int fd, const uint8_t *bytes, size_t len)
{
    while (len > 0) {
        ssize_t taken = write(fd, bytes, len);
        if (taken < 0 && errno == EINTR) {
            continue;
        }
        if (taken <= 0) {
            return false;
        }
        bytes += taken;
        len -= static_cast<size_t>(taken);
    }
    return true;
}

/* Writes a block in one piece, so that a reader that follows the file finds whole ones. */
static bool end_block(block_t *block, int fd)
{
    put_padding(block);
    uint32_t len = static_cast<uint32_t>(block->len + sizeof len);
    put_u32(block, len);
    bool done = false;
    if (block->failed) {
        errno = ENOMEM;
    } else {
        memcpy(block->bytes + sizeof(uint32_t), &len, sizeof len);
        done = write_all(fd, block->bytes, block->len);
    }
    free(block->bytes);
    return done;
}

bool pcapng_begin(int fd, uint16_t link_type, uint32_t snap, const char *program, const char *interface)
{
    static const uint8_t NANOSECONDS = 9;
    const uint16_t version[2] = {1, 0};
    const uint64_t unknown = UINT64_MAX;
    const uint16_t link[2] = {link_type, 0};
    block_t section = begin_block(SECTION);
    put_u32(&section, BYTE_ORDER_MAGIC);
    put(&section, version, sizeof version);
    put(&section, &unknown, sizeof unknown);
    put_option(&section, SHB_USERAPPL, program, strlen(program));
    put_option(&section, OPT_END, nullptr, 0);
    block_t description = begin_block(INTERFACE);
    put(&description, link, sizeof link);
    put_u32(&description, snap);
    put_option(&description, IF_NAME, interface, strlen(interface));
    put_option(&description, IF_TSRESOL, &NANOSECONDS, sizeof NANOSECONDS);
    put_option(&description, OPT_END, nullptr, 0);
    bool begun = end_block(&section, fd);
    return end_block(&description, fd) && begun;
}

bool pcapng_packet(int fd, uint64_t nanoseconds, const void *head, size_t head_len, const void *body, size_t body_len,
                   size_t len, const char *comment)
{
    block_t packet = begin_block(PACKET);
    put_u32(&packet, 0); /* the only interface */
    put_time(&packet, nanoseconds);
    put_u32(&packet, static_cast<uint32_t>(head_len + body_len));
    put_u32(&packet, static_cast<uint32_t>(len));
    put(&packet, head, head_len);
    put(&packet, body, body_len);
    put_padding(&packet);
    if (comment != nullptr) {
        put_option(&packet, OPT_COMMENT, comment, strlen(comment));
        put_option(&packet, OPT_END, nullptr, 0);
    }
    return end_block(&packet, fd);
}

bool pcapng_end(int fd, uint64_t nanoseconds, uint64_t captured, uint64_t lost)
{
    uint64_t received = captured + lost;
    block_t statistics = begin_block(STATISTICS);
    put_u32(&statistics, 0);
    put_time(&statistics, nanoseconds);
    put_option(&statistics, ISB_IFRECV, &received, sizeof received);
    put_option(&statistics, ISB_IFDROP, &lost, sizeof lost);
    put_option(&statistics, OPT_END, nullptr, 0);
    return end_block(&statistics, fd);
}
