/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Trace levels, the trace line in both sinks, assertions.
#include "frwk_test.h"

#include <syslog.h>

namespace {

// Makes this process a module that traces all in a debug mode.
void become(uint32_t id, int mode)
{
    ASSERT_EQ(0, frwk_module_init(id, nullptr));
    ASSERT_EQ(0, frwk_trace_set("debug"));
    frwk_debug_enable(mode);
}

// Traces messages of which some do not fit, and a header that does not either; the lines without a limit.
Texts trace_long(const std::string &start)
{
    const std::string header = start + "error|f.c|g|1::", longer(3000, 'n');
    Texts lines;
    for (size_t total : {1021U, 1022U, 1023U, 1024U, 5000U}) {
        lines.push_back(header + std::string(total - header.size() - 1, 'm') + "z");
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%s", lines.back().substr(header.size()).c_str());
    }
    frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
    lines.push_back(start + "error|" + longer);
    return lines;
}

TEST(Trace, LevelsAndBaseNames)
{
    const std::pair<const char *, int> levels[] = {{"", 0},        {"null", 0},   {"error", 1},
                                                   {"Warning", 2}, {"info", 4},   {"DEBUG", 8},
                                                   {nullptr, -1},  {" info", -1}, {"%s%n", -1}};
    for (auto [name, level] : levels) {
        const std::string text = name == nullptr ? "trace level is null!\n"
                                 : level < 0     ? std::string("Unsupported trace level(") + name + ")\n"
                                                 : "";
        Capture out;
        EXPECT_EQ(level, frwk_level_match(name));
        EXPECT_EQ(0, frwk_trace_set("warning"));
        EXPECT_EQ(level >= 0 ? 0 : name == nullptr ? 3 : 8, frwk_trace_set(name));
        EXPECT_EQ(text + text, out.text()) << "whatever mode and level";
        EXPECT_EQ(level >= 0 ? level : 2, frwk_get_module_level());
        frwk_debug_enable(3);
        for (int traced = -3; traced < 10; traced++) {
            const size_t before = out.text().size();
            frwk_trace_print("f.c", "g", 1, traced, "x");
            EXPECT_EQ(traced <= frwk_get_module_level(), out.text().size() > before) << traced;
        }
        frwk_debug_enable(0);
    }
    const std::pair<const char *, int> paths[] = {
        {"file.c", 0}, {"/a/b.c", 3}, {"a/b\\c\\d", 6}, {"a\\b/c", 4}, {"a/", 2}};
    for (auto [path, base] : paths) {
        EXPECT_EQ(path + base, frwk_get_filename(path)) << path;
    }
    EXPECT_STREQ("", frwk_get_filename(nullptr));
}

TEST(Trace, ConsoleLine)
{
    setenv("TZ", "AAA-3:30", 1);
    become(FRWK_MODULE_LOGTOOL, 3);
    const std::string start = "[logtool]2024-01-02 12:35:07|";
    fixed_time = INT64_C(1704186307) * 1000000000;
    Capture out;
    frwk_trace_print("/src/dir\\file.cpp", "func", 42, FRWK_TRACE_WARNING, "%s=%d", "100%d %s%n", -7);
    frwk_trace_print(nullptr, "", INT32_MIN, 3, "two\nlines %%");
    std::string expected =
        start + "warning|file.cpp|func|42::100%d %s%n=-7\n" + start + "null|||-2147483648::two\nlines %\n";
    for (const std::string &line : trace_long(start)) {
        expected += line.substr(0, 1022) + "\n";
    }
    EXPECT_EQ(expected, out.text());
    fixed_time = -1;
}

TEST(Trace, SyslogLine)
{
    SyslogSink sink;
    become(FRWK_MODULE_QMUXD, 1);
    const std::tuple<int, int, const char *> rows[] = {{INT32_MIN, 6, "null"}, {0, 6, "null"}, {1, 3, "error"},
                                                       {2, 4, "warning"},      {3, 6, "null"}, {4, 6, "info"},
                                                       {7, 6, "null"},         {8, 7, "debug"}};
    std::vector<std::pair<std::string, int>> expected; // text and priority
    Capture out, err(2);
    for (const auto &[level, priority, name] : rows) {
        frwk_trace_print("/src/dir\\file.cpp", "func", 42, level, "%s=%d", "100%d %s%n", -7);
        expected.emplace_back(name + std::string("|file.cpp|func|42::100%d %s%n=-7"), priority);
    }
    for (int mode : {0, 4, -1, INT32_MIN, 2}) { // the last is a second name of the system log
        frwk_debug_enable(mode);
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%d", mode);
    }
    expected.emplace_back("error|f.c|g|1::2", 3);
    for (const std::string &line : trace_long("")) {
        expected.emplace_back(line.substr(0, 1023), 3);
    }
    const std::vector<SyslogLine> lines = sink.wait_for(expected.size());
    ASSERT_EQ(expected.size(), lines.size());
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(expected[i].first, lines[i].text) << "literal, and no newline";
        EXPECT_EQ(LOG_LOCAL7 | expected[i].second, lines[i].priority) << expected[i].first;
        EXPECT_TRUE(lines[i].ident == "qmuxd" && lines[i].pid == getpid());
    }
    EXPECT_EQ("", out.text() + err.text());
}

TEST(Assert, EndsTheProcessUnlessItHolds)
{
    SyslogSink sink;
    const std::string text = "[qmuxd]ASSERT(file.cpp|func|4000000000), 100%d != %s\n";
    const Result failed = run_child([] {
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
        frwk_debug_enable(0); // has no say in this
        for (int holds : {1, 2, -1, INT32_MIN, 0}) {
            frwk_assert_debug(holds, holds == 0 ? "100%d != %s" : "holds", "/src/file.cpp", "func", 4000000000U);
        }
    });
    EXPECT_TRUE(failed.aborted() && failed.err == text) << failed;
    const Result cancelled = run_child([] {
        pthread_cancel(pthread_self());
        frwk_assert_debug(0, "x", "f.c", "g", 1);
    });
    EXPECT_TRUE(cancelled.aborted()) << "the thread alone has ended " << cancelled;
    const Result cut = run_child([] { frwk_assert_debug(0, std::string(3000, 'n').c_str(), "f.c", "g", 1); });
    EXPECT_TRUE(cut.aborted() && cut.err.size() <= 1023) << cut;
    const std::vector<SyslogLine> lines = sink.wait_for(1);
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("qmuxd " + text, lines[0].ident + " " + lines[0].text);
    EXPECT_EQ(LOG_LOCAL7 | LOG_CRIT, lines[0].priority);
}

} // namespace
