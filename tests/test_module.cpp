// The module table, the result codes and the accessors.
#include <cstddef>

#include "stand_ins.h"

namespace {

// What programs built against the library rely on.
static_assert(offsetof(frwk_module_info_t, flags) == sizeof(void *) &&
              offsetof(frwk_module_info_t, delay) == sizeof(void *) + 4 &&
              offsetof(frwk_module_info_t, start_cmd) == sizeof(void *) + 8 &&
              sizeof g_s_modules_info == 11 * (2 * sizeof(void *) + 8));
static_assert(FRWK_MODULE_MONITOR == 1 && FRWK_MODULE_ATFWD_DAEMON == 2 && FRWK_MODULE_DIAL_TEST == 3 &&
              FRWK_MODULE_LOGTOOL == 4 && FRWK_MODULE_SERIAL_BRIDGE == 5 && FRWK_MODULE_MONITOR_TOOL == 6 &&
              FRWK_MODULE_MBIMD == 7 && FRWK_MODULE_QTI == 8 && FRWK_MODULE_QMUXD == 9 && FRWK_MODULE_MAX == 10);
static_assert(FRWK_MODULE_FLAG_SYSLOG == 1 && FRWK_MODULE_FLAG_IPC == 2 && FRWK_MODULE_FLAG_MONITOR_SERVICE == 4);
static_assert(FRWK_ERROR_SUCCESS == 0 && FRWK_ERROR_NO_MODULE == 1 && FRWK_ERROR_FAILED == 2 &&
              FRWK_ERROR_INVALID_PARAM == 3 && FRWK_ERROR_CONFIG_FILE == 4 && FRWK_ERROR_NO_MEMORY == 5 &&
              FRWK_ERROR_NOT_FOUND == 7 && FRWK_ERROR_UNSUPPORTED == 8 && FRWK_ERROR_SOCKET == 11 &&
              FRWK_ERROR_FILE_CREATE == 12 && FRWK_ERROR_NO_HANDLER == 13 && FRWK_ERROR_THREAD == 14 &&
              FRWK_ERROR_ASYNC == 15 && FRWK_ERROR_SEND == 18 && FRWK_ERROR_RECV == 19);

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
        EXPECT_EQ(rows[id].name == nullptr ? 10U : id, frwk_module_id(rows[id].name == nullptr ? "" : rows[id].name));
    }
    for (const char *name : {"QMUXD", "qmux", "qmuxd ", "unknown"}) {
        EXPECT_EQ(10U, frwk_module_id(name)) << name;
    }
    for (uint32_t id : {11U, 1000000U, 0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(nullptr, frwk_module_name(id)) << id;
    }
    // The library looks at the table of the program.
    g_s_modules_info[2].name = nullptr;
    g_s_modules_info[3].name = g_s_modules_info[8].name = "renamed";
    EXPECT_EQ(10U, frwk_module_id("atfwd_daemon"));
    EXPECT_EQ(3U, frwk_module_id("renamed")) << "the first one";
    EXPECT_EQ(nullptr, frwk_module_name(2));
}

TEST(Module, BeforeStartUp)
{
    EXPECT_EQ(0, frwk_get_module_id());
    EXPECT_EQ(0, frwk_get_module_level());
    EXPECT_EQ(0, frwk_get_module_debug_mode());
    frwk_debug_enable(-5);
    EXPECT_EQ(-5, frwk_get_module_debug_mode());
    frwk_set_module_status(0xfedcba98);
    EXPECT_EQ(0xfedcba98, frwk_get_module_status(0)) << "the own id needs no message";
}

} // namespace
