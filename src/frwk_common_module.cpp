/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The module table, the module context and its accessors.
 */
#include "frwk_common_module.h"

#include <stddef.h>
#include <string.h>

static char serial_bridge_start_cmd[] = "-l /dev/smd7 -r /dev/ttyHSL1";

enum {
    PLAIN = FRWK_MODULE_FLAG_SYSLOG | FRWK_MODULE_FLAG_IPC,
    SUPERVISED = PLAIN | FRWK_MODULE_FLAG_MONITOR_SERVICE,
    TOOL = 0
};

frwk_module_info_t g_s_modules_info[FRWK_MODULE_MAX + 1] = {
    {nullptr, 0, 0, nullptr},
    {"monitor", PLAIN, 0, nullptr},
    {"atfwd_daemon", SUPERVISED, 0, nullptr},
    {"dial_test", PLAIN, 0, nullptr},
    {"logtool", TOOL, 0, nullptr},
    {"serial_bridge", SUPERVISED, 0, serial_bridge_start_cmd},
    {"monitor_tool", TOOL, 0, nullptr},
    {"mbimd", SUPERVISED, 0, nullptr},
    {"qti", SUPERVISED, 0, nullptr},
    {"qmuxd", SUPERVISED, 0, nullptr},
    {nullptr, 0, 0, nullptr},
};

frwk_module_ctx_t g_s_module_ctx;

/* The records of the library's edge: the same bytes for every program built against it. */
static_assert(offsetof(frwk_module_info_t, flags) == sizeof(void *) &&
              offsetof(frwk_module_info_t, delay) == sizeof(void *) + 4 &&
              offsetof(frwk_module_info_t, start_cmd) == sizeof(void *) + 8 &&
              sizeof(frwk_module_info_t) == 2 * sizeof(void *) + 8);

frwk_module_info_t *frwk_module_row(uint32_t id)
{
    return frwk_module_valid(id) ? &g_s_modules_info[id] : nullptr;
}

int32_t frwk_module_flags(uint32_t id)
{
    return frwk_module_valid(id) ? g_s_modules_info[id].flags : 0;
}

const char *frwk_module_label(uint32_t id)
{
    const char *name = frwk_module_name(id);
    return name != nullptr ? name : "unknown";
}

uint32_t frwk_module_own_id()
{
    return static_cast<uint32_t>(g_s_module_ctx.id.load(std::memory_order_relaxed));
}

static void clear_slot(frwk_smt_t *smt)
{
    smt->sid = 0;
    smt->cb.store(nullptr, std::memory_order_relaxed);
    smt->queue.store(nullptr, std::memory_order_relaxed);
    memset(&smt->sem, 0, sizeof smt->sem);
}

void frwk_module_reset(frwk_module_cb_t cb)
{
    g_s_module_ctx.ctrl_cb.store(cb, std::memory_order_release);
    g_s_module_ctx.debug_mode.store(0, std::memory_order_relaxed);
    g_s_module_ctx.level.store(0, std::memory_order_relaxed);
    g_s_module_ctx.status.store(0, std::memory_order_relaxed);
    g_s_module_ctx.ipc_handler.store(nullptr, std::memory_order_relaxed);
    g_s_module_ctx.ipc_threads.store(0, std::memory_order_relaxed);
    g_s_module_ctx.ipc_fd.store(-1, std::memory_order_relaxed);
    for (frwk_smt_t &smt : g_s_module_ctx.smt) {
        clear_slot(&smt);
    }
}

int32_t frwk_get_module_id(void)
{
    return g_s_module_ctx.id.load(std::memory_order_relaxed);
}

int32_t frwk_get_module_debug_mode(void)
{
    return g_s_module_ctx.debug_mode.load(std::memory_order_relaxed);
}

int32_t frwk_get_module_level(void)
{
    return g_s_module_ctx.level.load(std::memory_order_relaxed);
}

void frwk_debug_enable(int32_t mode)
{
    g_s_module_ctx.debug_mode.store(mode, std::memory_order_relaxed);
}

const char *frwk_module_name(uint32_t id)
{
    return id <= FRWK_MODULE_MAX ? g_s_modules_info[id].name : nullptr;
}

uint32_t frwk_module_id(const char *name)
{
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if (g_s_modules_info[id].name != nullptr && strcmp(g_s_modules_info[id].name, name) == 0) {
            return id;
        }
    }
    return FRWK_MODULE_MAX;
}

void frwk_set_module_status(uint32_t status)
{
    g_s_module_ctx.status.store(status, std::memory_order_relaxed);
}
