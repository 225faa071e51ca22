/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The trace settings on disk: default file, setters, what a module takes at its start.
#include "conf_test.h"

namespace {

std::string entries(const Texts &names, const std::string &mode = "0", const std::string &level = "<level>null</level>")
{
    std::string text;
    for (const std::string &name : names) {
        text += "   <" + name + ">\n      <mode>" + mode + "</mode>\n      " + level + "\n   </" + name + ">\n";
    }
    return text;
}

const Texts BEFORE_QTI = {"monitor", "atfwd_daemon", "dial_test", "serial_bridge", "mbimd"};

std::string file(const std::string &qti = entries({"qti"}))
{
    return "<root>\n" + entries(BEFORE_QTI) + qti + entries({"qmuxd"}) + "</root>\n";
}

const std::string MISSING = " from '/usrdata/odm/log_conf.xml' failed";

std::function<int()> set(uint32_t id, int mode, const char *level)
{
    return [=] { return frwk_set_trace_info(id, mode, level); };
}

TEST(LogConf, Changes)
{
    const auto set_all = [] { return frwk_all_set_trace_info(1, "info"); };
    const std::string info = "<level>info</level>", without_qmuxd = "<root>" + entries(BEFORE_QTI) + "<qti/></root>";
    const std::string all = entries(BEFORE_QTI, "1", info) + entries({"qti", "qmuxd"}, "1", info);
    const std::string odd = "<!-- by hand --><conf><x/><qti a=\"1\"><level>info</level></qti><qti/></conf>";
    // clang-format off
    check(LOG, {
        {BROKEN, frwk_init_log_cfg_info, "0", file()},
        {nullptr, set(8, 3, "debug"), MADE, file(entries({"qti"}, "3", "<level>debug</level>"))},
        {"<root/>", set(8, -100, nullptr), "0|frwk_set_trace_info: get qti" + MISSING,
         "<root>\n" + entries({"qti"}, "-100", "<level/>") + "</root>\n"},
        {odd.c_str(), set(8, 1, "<"), "0",
         "<!--  by hand  -->\n<conf>\n   <x/>\n   <qti a=\"1\">\n      <level>&lt;</level>\n      <mode>1</mode>\n"
         "   </qti>\n   <qti/>\n</conf>\n"},
        {nullptr, set(4, 1, "info"), "4|frwk_set_trace_info: logtool no need set log config", ""},
        {nullptr, set(0, 1, "info"), "3|frwk_set_trace_info: invalid module id=0", ""},
        {BROKEN, set(8, 1, "info"), "4|frwk_set_trace_info: parse '" + LOG + "' failed.", BROKEN},
        {BROKEN, set_all, "4|frwk_all_set_trace_info: parse '" + LOG + "' failed.", BROKEN},
        {nullptr, set_all, MADE, "<root>\n" + all + "</root>\n"},
        {without_qmuxd.c_str(), set_all, "0|frwk_all_set_trace_info: get qmuxd" + MISSING, "<root>\n" + all + "</root>\n"},
    });
    // clang-format on
}

// What a module takes at its start: what is whole, then the backup, whose mode is 5, then what there is of the file.
TEST(LogConf, TakenAtStart)
{
    const std::string piece = "<root><qti><mode>1</mode><level>info</level></qti>", whole = piece + "</root>";
    const std::string old = "<root><qti><mode>5</mode><level/></qti></root>";
    // clang-format off
    const struct { std::string file, backup, taken; } rows[] = {
        {"<root><QTI><mode>2</mode><level>debug</level></QTI></root>", old, "0 0"},
        {"<any><qti><level>Error</level><mode>0002</mode></qti><qti><mode>1</mode></qti></any>", old, "2 1"},
        {"<root><qti><mode>00002</mode><level>debug</level></qti></root>", old, "0 0"},
        {"<root><qti><mode>-1x</mode></qti></root>", old, "-1 0"},
        {"<root><qti><mode>2</mode><level>loud</level></qti></root>", old, "Unsupported trace level(loud)\n2 0"},
        {whole + "\n<!-- x -->\n ", old, "1 4"}, {"<root a='1' / >", old, "0 0"},
        {piece, BROKEN, "1 4"}, {piece, old, "5 0"}, {piece + "<root><root/></root><!-- x -->", old, "5 0"},
        {whole.substr(0, 30) + std::string(20, '\0'), old, "5 0"}, {whole + whole, old, "5 0"}, {BROKEN, BROKEN, "0 0"},
    };
    // clang-format on
    for (const auto &row : rows) {
        const Files found = {{LOG, row.file}, {LOG + ".bak", row.backup}};
        restore(found);
        EXPECT_EQ(row.taken + " 1 -", settings()) << row.file;
        EXPECT_EQ(found, snapshot()) << "reading changes nothing";
    }
}

// Readers do not wait for a writer, and another writer does not wait for good.
TEST(LogConf, LockedElsewhere)
{
    put(LOG, "<root><qti><mode>2</mode><level>debug</level></qti></root>");
    Lock lock;
    ASSERT_TRUE(lock.held);
    const long start = now_ms();
    EXPECT_EQ("2 8 1 -", settings());
    EXPECT_LT(now_ms() - start, 2999);
    EXPECT_EQ("0|warning frwk_set_trace_info: no lock on '/usrdata/odm', errno=11", call(set(8, 1, "info")));
    EXPECT_GE(now_ms() - start, 2999);
}

} // namespace
