/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The module table and the accessors.
#include "frwk_test.h"

namespace {

TEST(Module, Table)
{
    const struct {
        const char *name;
        int flags;
        const char *start_cmd;
    } rows[] = {
        {nullptr, 0, nullptr},        {"monitor", 3, nullptr}, {"atfwd_daemon", 7, nullptr},
        {"dial_test", 3, nullptr},    {"logtool", 0, nullptr}, {"serial_bridge", 7, "-l /dev/smd7 -r /dev/ttyHSL1"},
        {"monitor_tool", 0, nullptr}, {"mbimd", 7, nullptr},   {"qti", 7, nullptr},
        {"qmuxd", 7, nullptr},        {nullptr, 0, nullptr}};
    for (uint32_t id = 0; id <= FRWK_MODULE_MAX; id++) {
        EXPECT_STREQ(rows[id].name, g_s_modules_info[id].name);
        EXPECT_EQ(rows[id].flags, g_s_modules_info[id].flags) << id;
        EXPECT_EQ(0, g_s_modules_info[id].delay) << id;
        EXPECT_STREQ(rows[id].start_cmd, g_s_modules_info[id].start_cmd);
        EXPECT_EQ(g_s_modules_info[id].name, frwk_module_name(id)) << "a pointer into the table";
        EXPECT_EQ(rows[id].name == nullptr ? 10U : id,
                  frwk_module_id(rows[id].name == nullptr ? "qmux" : rows[id].name));
    }
    EXPECT_EQ(nullptr, frwk_module_name(11));
    EXPECT_EQ(nullptr, frwk_module_name(0xffffffffU));
    // The library looks at the table of the program.
    g_s_modules_info[2].name = nullptr;
    g_s_modules_info[3].name = g_s_modules_info[8].name = "renamed";
    EXPECT_EQ(10U, frwk_module_id("atfwd_daemon"));
    EXPECT_EQ(3U, frwk_module_id("renamed")) << "the first one";
    EXPECT_EQ(nullptr, frwk_module_name(2));
}

} // namespace
