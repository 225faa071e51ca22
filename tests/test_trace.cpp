/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Trace levels, the trace line in both sinks, assertions.
#include "frwk_test.h"

#include <syslog.h>

#include <cstdarg>

namespace {

std::string ident;
int facility = 0;

void open_log(const char *name, int options, int chosen)
{
    ident = name;
    facility = options == (LOG_PID | LOG_CONS) ? chosen : -1;
}

// What the system log is given goes to the standard output: "<identity facility priority>text".
void log_message(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    dprintf(1, "<%s %d %d>", ident.c_str(), facility, priority);
    vdprintf(1, format, arguments);
    dprintf(1, "\n");
    va_end(arguments);
}

std::string logged(int priority, const std::string &text)
{
    return "<qmuxd " + std::to_string(LOG_LOCAL7) + " " + std::to_string(priority) + ">" + text + "\n";
}

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
    replace_call("openlog", open_log);
    replace_call("syslog", reinterpret_cast<void *>(log_message));
    become(FRWK_MODULE_QMUXD, 1);
    const std::tuple<int, int, const char *> rows[] = {{INT32_MIN, 6, "null"}, {0, 6, "null"}, {1, 3, "error"},
                                                       {2, 4, "warning"},      {3, 6, "null"}, {4, 6, "info"},
                                                       {7, 6, "null"},         {8, 7, "debug"}};
    std::string expected;
    Capture out;
    for (const auto &[level, priority, name] : rows) {
        frwk_trace_print("/src/dir\\file.cpp", "func", 42, level, "%s=%d", "100%d %s%n", -7);
        expected += logged(priority, name + std::string("|file.cpp|func|42::100%d %s%n=-7"));
    }
    for (int mode : {0, 4, -1, INT32_MIN, 2}) { // the last is a second name of the system log
        frwk_debug_enable(mode);
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%d", mode);
    }
    expected += logged(3, "error|f.c|g|1::2");
    for (const std::string &line : trace_long("")) {
        expected += logged(3, line.substr(0, 1023));
    }
    EXPECT_EQ(expected, out.text()) << "literal, and no newline";
}

TEST(Assert, EndsTheProcessUnlessItHolds)
{
    replace_call("openlog", open_log);
    replace_call("syslog", reinterpret_cast<void *>(log_message));
    const std::string text = "[qmuxd]ASSERT(file.cpp|func|4000000000), 100%d != %s\n";
    const Result failed = run_child([] {
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
        frwk_debug_enable(0); // has no say in this
        for (int holds : {1, 2, -1, INT32_MIN, 0}) {
            frwk_assert_debug(holds, holds == 0 ? "100%d != %s" : "holds", "/src/file.cpp", "func", 4000000000U);
        }
    });
    EXPECT_TRUE(failed.aborted() && failed.err == text && failed.out == logged(LOG_CRIT, text)) << failed;
    const Result cut = run_child([] {
        pthread_cancel(pthread_self()); // ends the process all the same
        frwk_assert_debug(0, std::string(3000, 'n').c_str(), "f.c", "g", 1);
    });
    EXPECT_TRUE(cut.aborted() && cut.err.size() <= 1023) << cut;
}

} // namespace
