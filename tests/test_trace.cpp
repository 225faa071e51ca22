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

TEST(Trace, LinesOfBothSinks)
{
    setenv("TZ", "AAA-3:30", 1);
    fixed_time = INT64_C(1704186307) * 1000000000;
    replace_call("openlog", open_log);
    replace_call("syslog", reinterpret_cast<void *>(log_message));
    const std::string start = "[qmuxd]2024-01-02 12:35:07|", text = "|file.cpp|func|42::100%d %s%n=-7";
    const std::tuple<int, int, std::string> rows[] = {{INT32_MIN, 6, "null"}, {0, 6, "null"}, {1, 3, "error"},
                                                      {2, 4, "warning"},      {3, 6, "null"}, {4, 6, "info"},
                                                      {7, 6, "null"},         {8, 7, "debug"}};
    std::string console, syslog;
    for (const auto &[level, priority, name] : rows) {
        console += start + name + text + "\n";
        syslog += logged(priority, name + text);
    }
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    frwk_trace_set("debug");
    Capture out;
    for (int mode : {1, 0, 4, -1, INT32_MIN, 2, 3}) { // 2 is a second name of the system log
        frwk_debug_enable(mode);
        for (const auto &[level, priority, name] : rows) {
            frwk_trace_print("/src/dir\\file.cpp", "func", 42, level, "%s=%d", "100%d %s%n", -7);
        }
    }
    EXPECT_EQ(syslog + syslog + console, out.text()) << "literal";
}

// Messages of which some do not fit, and a header that does not either.
TEST(Trace, LongLinesAreCut)
{
    const std::string longer(3000, 'n');
    replace_call("syslog", reinterpret_cast<void *>(log_message));
    ident = "qmuxd";
    facility = LOG_LOCAL7;
    fixed_time = 0;
    setenv("TZ", "UTC", 1);
    for (const int mode : {1, 3}) {
        const std::string start = mode == 3 ? "[unknown]1970-01-01 00:00:00|error|" : "error|";
        const auto written = [=](const std::string &line) {
            return mode == 3 ? line.substr(0, 1022) + "\n" : logged(3, line.substr(0, 1023));
        };
        std::string expected;
        Capture out;
        frwk_debug_enable(mode);
        frwk_trace_set("error");
        for (size_t total : {1021U, 1022U, 1023U, 1024U, 5000U}) {
            const std::string message(total - start.size() - 8, 'm');
            frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%sz", message.c_str());
            expected += written(start + "f.c|g|1::" + message + "z");
        }
        frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
        EXPECT_EQ(expected + written(start + longer), out.text());
    }
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
