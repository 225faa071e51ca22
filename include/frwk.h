/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/**
 * @file frwk.h
 * The whole public interface of libfrwk, the runtime library of the device's daemons.
 *
 * Every header may also be included alone. All functions have C linkage. Unless a function says otherwise
 * - any thread may call it at any time, but no signal handler;
 * - it is no cancellation point;
 * - a pointer that it takes must not be null, stays the caller's, and is not used after the call;
 * - `errno` means nothing afterwards.
 *
 * Lengths and sizes are in bytes.
 */
#ifndef FRWK_H
#define FRWK_H

#include "frwk_defs.h"
#include "frwk_hash.h"
#include "frwk_ipc.h"
#include "frwk_list.h"
#include "frwk_module.h"
#include "frwk_start_conf.h"
#include "frwk_string.h"
#include "frwk_submodule.h"
#include "frwk_thread.h"
#include "frwk_time.h"
#include "frwk_timer.h"
#include "frwk_trace.h"
#include "frwk_xml.h"

#endif
