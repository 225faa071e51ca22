/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The start configuration on disk: default file, setters and the message to the monitor, query, the monitor's table.
#include "conf_test.h"

#include <thread>

namespace {

const std::string MISSING = " from '/usrdata/odm/start_conf.xml' failed", GET = "frwk_get_app_monitor_conf";

std::string entry(const char *name, const char *service, const std::string &cmd = "<start_cmd/>")
{
    return std::string("   <") + name + ">\n      <monitor_service>" + service + "</monitor_service>\n      " + cmd +
           "\n   </" + name + ">\n";
}

// The default file but for one entry.
std::string file(const std::string &qti = entry("qti", "1"))
{
    return "<root>\n" + entry("monitor", "0") + entry("atfwd_daemon", "1") + entry("dial_test", "0") +
           entry("logtool", "0") + entry("serial_bridge", "1", "<start_cmd>-l /dev/smd7 -r /dev/ttyHSL1</start_cmd>") +
           entry("monitor_tool", "0") + entry("mbimd", "1") + qti + entry("qmuxd", "1") + "</root>\n";
}

TEST(StartConf, Changes)
{
    const auto set = [](uint32_t id, const char *cmd) { return [=] { return frwk_set_app_start_cmd(id, cmd); }; };
    const auto supervise = [](uint32_t id) { return [=] { return frwk_set_app_monitor_conf(id, 1); }; };
    const std::string whole = file(entry("qti", "1", "<start_cmd>x</start_cmd>"));
    // clang-format off
    check(START, {
        {BROKEN, frwk_init_app_start_cfg_file, "0", file()},
        {nullptr, set(8, "<b>'"), MADE, file(entry("qti", "1", "<start_cmd>&lt;b&gt;&apos;</start_cmd>"))},
        {whole.c_str(), set(8, nullptr), "0", file()},
        {"<x/>", set(3, "y"), "0|frwk_set_app_start_cmd: get dial_test" + MISSING,
         "<x>\n   <dial_test>\n      <start_cmd>y</start_cmd>\n   </dial_test>\n</x>\n"},
        {BROKEN, set(3, "y"), "4|frwk_set_app_start_cmd: parse '" + START + "' failed.", BROKEN},
        {BROKEN, supervise(3), "4|frwk_set_app_monitor_conf: parse '" + START + "' failed.", BROKEN},
        {nullptr, set(0, "y"), "3|frwk_set_app_start_cmd: invalid module id=0", ""},
        {nullptr, supervise(10), "3|frwk_set_app_monitor_conf: invalid module id=10", ""},
        {nullptr, [] { return frwk_get_app_monitor_conf(~0U); }, "0|" + GET + ": invalid module id=-1", ""},
    });
    // clang-format on
    std::filesystem::remove_all(DIR);
    write_file(DIR, ""); // a place where no file can be made
    EXPECT_EQ("-1|warning frwk_set_app_start_cmd: no lock on '/usrdata/odm', errno=20|"
              "frwk_init_app_start_cfg_file: save start config file fialed! from '" +
                  START + "'|frwk_set_app_start_cmd: frwk_init_app_start_cfg_file failed!",
              call(set(3, "y")));
}

TEST(StartConf, MonitorIsTold)
{
    put(START, file().c_str());
    std::string request;
    bool unlocked = false;
    std::thread monitor([&, listener = raw_listen("monitor")] {
        for (int answer : {-7, 0}) {
            int fd = raw_accept(listener);
            request = raw_recv(fd, 32);
            unlocked = Lock().held;
            raw_send(fd, words({answer, 0}));
            close(fd);
        }
        close(listener);
    });
    EXPECT_EQ("-1|frwk_set_app_monitor_conf: frwk_ipc_msg_set FRWK_MODULE_MONITOR error ret : 0  rc : -7",
              call([] { return frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 4); }));
    EXPECT_EQ(file(entry("qti", "4")), read_file(START)) << "whatever the monitor says";
    EXPECT_EQ("0", call([] { return frwk_set_app_monitor_conf(FRWK_MODULE_QTI, -5); }));
    monitor.join();
    EXPECT_EQ(words({0, 503, 0, 3, 0, 8, FRWK_MODULE_QTI, -5}), request);
    EXPECT_TRUE(unlocked) << "the monitor may change the file";
    EXPECT_EQ(file(entry("qti", "-5")), read_file(START));
}

// The query's answer for qti, and what the loader makes of its flag and start arguments.
TEST(StartConf, QueryAndLoad)
{
    // clang-format off
    const struct { const char *file; std::string outcome, loaded; } rows[] = {
        {nullptr, "1", "1 -"},
        {BROKEN, "1|" + GET + ": parse '" + START + "' failed.", "1 -"},
        {"<r/>", "1|" + GET + ": get qti" + MISSING, "1 -"},
        {"<r><qti><start_cmd>x</start_cmd></qti></r>", "1|" + GET + ": frwk_xml_get_child_node monitor_service failed ", "1 -"},
        {"<r><qti><monitor_service>&#49;</monitor_service><start_cmd>a &lt; b</start_cmd></qti></r>", "0", "0 a < b"},
        {"<r><qti><monitor_service>01x</monitor_service><start_cmd/></qti><qti/></r>", "1", "1 -"},
        {"<r><qti><monitor_service>2</monitor_service></qti></r>", "0", "0 -"},
    };
    // clang-format on
    for (const auto &row : rows) {
        put(START, row.file);
        EXPECT_EQ(row.outcome, call([] { return frwk_get_app_monitor_conf(FRWK_MODULE_QTI); }));
        EXPECT_EQ("0 0 " + row.loaded, settings());
    }
    put(START, file("<qti><start_cmd/></qti>").c_str());
    EXPECT_EQ("0|frwk_init_app_start_cfg: frwk_xml_get_child_node monitor_service failed ",
              call([] { return frwk_init_app_start_cfg(), 0; }));
    EXPECT_STREQ("-l /dev/smd7 -r /dev/ttyHSL1", g_s_modules_info[FRWK_MODULE_SERIAL_BRIDGE].start_cmd);
    free(g_s_modules_info[FRWK_MODULE_SERIAL_BRIDGE].start_cmd);
    put(START, "<r><serial_bridge><monitor_service/><start_cmd/></serial_bridge></r>");
    frwk_init_app_start_cfg();
    EXPECT_EQ(nullptr, g_s_modules_info[FRWK_MODULE_SERIAL_BRIDGE].start_cmd);
}

} // namespace
