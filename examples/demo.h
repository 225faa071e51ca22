/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What the daemons of the demo share: the messages they exchange, and what each of them would do alike.
 */
#ifndef DEMO_H
#define DEMO_H

#include <frwk.h>

/* Messages to qmuxd. */
enum {
    QMUX_MSG_FIGURES = FRWK_MSG_USER, /* answered with figures_t */
    QMUX_MSG_PERIOD,                  /* body: one word, milliseconds between two samples */
    QMUX_MSG_MEASURE                  /* asynchronous; the sender gets DEMO_MSG_MEASURED after the next sample */
};

/* Message to serial_bridge. */
enum { BRIDGE_MSG_COUNTS = FRWK_MSG_USER }; /* answered with bridge_counts_t */

/* Messages that any of them may get. */
enum {
    DEMO_MSG_REPORT = 100, /* say in the log how you are */
    DEMO_MSG_MARK,         /* body: a text to put into the log */
    DEMO_MSG_MEASURED      /* body: figures_t */
};

/* The machine's figures, as qmuxd has last sampled them. */
struct figures_t {
    uint32_t uptime;        /* seconds */
    uint32_t load;          /* hundredths of a process that wants to run, over the last minute */
    uint32_t busy;          /* hundredths of a percent of the processor time since the sample before */
    uint32_t mem_total;     /* KiB */
    uint32_t mem_available; /* KiB */
    uint32_t samples;       /* samples taken so far */
};

/* Bytes that serial_bridge has passed on. */
struct bridge_counts_t {
    uint64_t to_right;
    uint64_t to_left;
};

/* Puts the body of DEMO_MSG_MARK into the log. */
void demo_mark(uint32_t from, const uint8_t *text, int32_t len);

/* Lets bytes pass through a terminal unchanged; other files are left alone. */
void demo_raw(int fd);

#endif
