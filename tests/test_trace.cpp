// Trace levels, the trace line in both sinks, assertions.
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include <regex>
#include <thread>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

static_assert(FRWK_TRACE_NULL == 0 && FRWK_TRACE_ERROR == 1 && FRWK_TRACE_WARNING == 2 && FRWK_TRACE_INFO == 4 &&
                  FRWK_TRACE_DEBUG == 8,
              "levels");

// Makes this process a module, silent.
void become(uint32_t id)
{
    ASSERT_EQ(FRWK_ERROR_SUCCESS, frwk_module_init(id, nullptr));
    frwk_debug_enable(0);
}

// Any number can be the threshold by message; as a request to oneself it needs no service.
void set_level(int level)
{
    int32_t words[2] = {frwk_get_module_debug_mode(), level};
    frwk_debug_enable(0);
    ASSERT_EQ(FRWK_ERROR_SUCCESS, frwk_ipc_msg_set(static_cast<uint32_t>(frwk_get_module_id()), FRWK_MSG_SYS_LOG, words,
                                                   sizeof words, 0, nullptr));
    ASSERT_EQ(level, frwk_get_module_level());
}

TEST(Trace, LevelNames)
{
    const struct {
        const char *name;
        int level;
        int result;
        std::string printed;
    } rows[] = {
        {"", 0, 0, ""},
        {"null", 0, 0, ""},
        {"error", 1, 0, ""},
        {"warning", 2, 0, ""},
        {"info", 4, 0, ""},
        {"debug", 8, 0, ""},
        {"NULL", 0, 0, ""},
        {"Warning", 2, 0, ""},
        {"DEBUG", 8, 0, ""},
        {nullptr, -1, 3, "trace level is null!\n"},
        {" info", -1, 8, "Unsupported trace level( info)\n"},
        {"info ", -1, 8, "Unsupported trace level(info )\n"},
        {"warn", -1, 8, "Unsupported trace level(warn)\n"},
        {"4", -1, 8, "Unsupported trace level(4)\n"},
        {"%s%n", -1, 8, "Unsupported trace level(%s%n)\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name == nullptr ? "null pointer" : row.name);
        Capture out;
        EXPECT_EQ(row.level, frwk_level_match(row.name));
        EXPECT_EQ(row.printed, out.text());
        ASSERT_EQ(0, frwk_trace_set("warning"));
        EXPECT_EQ(row.result, frwk_trace_set(row.name));
        EXPECT_EQ(row.printed + row.printed, out.text()) << "whatever mode and level";
        EXPECT_EQ(row.level < 0 ? 2 : row.level, frwk_get_module_level());
    }
}

TEST(Trace, BaseName)
{
    const struct {
        const char *path;
        const char *base;
    } rows[] = {{nullptr, ""},     {"", ""},        {"file.cpp", "file.cpp"},
                {"/a/b.c", "b.c"}, {"a/b\\c", "c"}, {"a\\b/c", "c"},
                {"a/", ""},        {"\\", ""},      {"a//b", "b"},
                {"/a", "a"},       {"..", ".."}};
    for (const auto &row : rows) {
        const char *base = frwk_get_filename(row.path);
        EXPECT_STREQ(row.base, base);
        if (row.path != nullptr && *row.path != '\0') {
            EXPECT_EQ(row.path + strlen(row.path) - strlen(row.base), base) << "a pointer into the path";
        }
    }
}

TEST(Trace, Threshold)
{
    become(FRWK_MODULE_LOGTOOL);
    const struct {
        int threshold;
        const char *printed; // of the lines of level -1, 0, 1, 2, 3, 4, 8, 15
    } rows[] = {{-2, "-------- "}, {-1, "x------- "}, {0, "xx------ "}, {1, "xxx----- "}, {2, "xxxx---- "},
                {3, "xxxxx--- "},  {4, "xxxxxx-- "},  {8, "xxxxxxx- "}, {15, "xxxxxxxx "}};
    const std::string names[] = {"null", "null", "error", "warning", "null", "info", "debug", "null"};
    const int levels[] = {-1, 0, 1, 2, 3, 4, 8, 15};
    for (const auto &row : rows) {
        set_level(row.threshold);
        frwk_debug_enable(3);
        Capture out;
        Texts expected;
        for (int i = 0; i < 8; i++) {
            frwk_trace_print("f.c", "g", 1, levels[i], "line %d", levels[i]);
            if (row.printed[i] == 'x') {
                expected.push_back(names[i] + "|line " + std::to_string(levels[i]));
            }
        }
        EXPECT_EQ(expected, said(out.traces())) << row.threshold;
    }
}

TEST(Trace, ConsoleLine)
{
    setenv("TZ", "AAA-3:30", 1);
    become(FRWK_MODULE_LOGTOOL);
    set_level(8);
    frwk_debug_enable(3);
    Capture out;
    fixed_time = INT64_C(1704186307) * 1000000000;
    frwk_trace_print("/src/dir\\file.cpp", "func", 42, FRWK_TRACE_WARNING, "%s=%d", "100%d %s%n", -7);
    frwk_trace_print("dir/", "", -1, FRWK_TRACE_INFO, "two\nlines %%");
    frwk_trace_print(nullptr, "f", 0, 3, "%s", "");
    FRWK_ERR("%s", "macro");
    const int line = __LINE__ - 1;
    fixed_time = -1;
    EXPECT_EQ("[logtool]2024-01-02 12:35:07|warning|file.cpp|func|42::100%d %s%n=-7\n"
              "[logtool]2024-01-02 12:35:07|info|||-1::two\nlines %\n"
              "[logtool]2024-01-02 12:35:07|null||f|0::\n"
              "[logtool]2024-01-02 12:35:07|error|test_trace.cpp|TestBody|" +
                  std::to_string(line) + "::macro\n",
              out.text());
}

TEST(Trace, NamesNoModuleBeforeStartUp)
{
    trace_all();
    Capture out;
    FRWK_INFO("early");
    ASSERT_EQ(1U, out.traces().size()) << out.text();
    EXPECT_EQ("unknown", out.traces()[0].name);

    Result child = run_child([] { frwk_assert_debug(0, "x", "f.c", "g", 1); });
    EXPECT_TRUE(child.aborted()) << child;
    EXPECT_EQ("[unknown]ASSERT(f.c|g|1), x\n", child.err);
}

TEST(Trace, ConsoleLineIsCut)
{
    become(FRWK_MODULE_LOGTOOL);
    set_level(8);
    frwk_debug_enable(3);
    const size_t header = strlen("[logtool]2024-01-02 12:35:07|error|f.c|g|1::");
    for (size_t total : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 5000U}) {
        std::string message(total - header, 'm');
        message.back() = 'z';
        Capture out;
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%s", message.c_str());
        const std::string text = out.text();
        ASSERT_GT(text.size(), header);
        EXPECT_EQ(message.substr(0, 1022 - header) + "\n", text.substr(header)) << total;
    }
    // A header that does not fit is cut somewhere, within the line.
    const std::string longer(3000, 'n');
    Capture out;
    frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
    frwk_trace_print("f.c", longer.c_str(), 1, FRWK_TRACE_ERROR, "x");
    const Texts lines = split_lines(out.text());
    ASSERT_EQ(2U, lines.size());
    EXPECT_LE(lines[0].size(), 1022U);
    EXPECT_LE(lines[1].size(), 1022U);
    EXPECT_EQ('\n', out.text().back());
}

TEST(Trace, SyslogLine)
{
    SyslogSink sink;
    become(FRWK_MODULE_QMUXD);
    Capture out;
    Capture err(2);
    set_level(8);
    const std::string header = "error|f.c|g|1::";
    Texts expected = {"warning|file.cpp|func|42::100%d %s%n=-7"};
    frwk_debug_enable(1);
    frwk_trace_print("/src/dir\\file.cpp", "func", 42, FRWK_TRACE_WARNING, "%s=%d", "100%d %s%n", -7);
    frwk_debug_enable(2);
    for (size_t total : {1000U, 1022U, 1023U, 1024U, 5000U}) {
        std::string message(total - header.size(), 'm');
        message.back() = 'z';
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%s", message.c_str());
        expected.push_back(header + message.substr(0, 1023 - header.size()));
    }
    std::vector<SyslogLine> lines = sink.wait_for(expected.size());
    ASSERT_EQ(expected.size(), lines.size());
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(expected[i], lines[i].text) << "the whole line, no newline";
        EXPECT_EQ("qmuxd", lines[i].ident);
        EXPECT_EQ(getpid(), lines[i].pid);
    }
    const std::string longer(3000, 'n');
    frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
    lines = sink.wait_for(expected.size() + 1);
    ASSERT_EQ(expected.size() + 1, lines.size());
    EXPECT_LE(lines.back().text.size(), 1023U);
    EXPECT_EQ("", out.text() + err.text());
}

TEST(Trace, SyslogPriorities)
{
    SyslogSink sink;
    become(FRWK_MODULE_QMUXD);
    set_level(1000);
    frwk_debug_enable(1);
    const struct {
        int level;
        int priority;
        const char *name;
    } rows[] = {{-1, 6, "null"}, {0, 6, "null"},    {1, 3, "error"},       {2, 4, "warning"}, {3, 6, "null"},
                {4, 6, "info"},  {5, 6, "null"},    {6, 6, "null"},        {7, 6, "null"},    {8, 7, "debug"},
                {9, 6, "null"},  {1000, 6, "null"}, {INT32_MIN, 6, "null"}};
    for (const auto &row : rows) {
        frwk_trace_print("f", "g", 1, row.level, "m");
    }
    const std::vector<SyslogLine> lines = sink.wait_for(std::size(rows));
    ASSERT_EQ(std::size(rows), lines.size());
    for (size_t i = 0; i < std::size(rows); i++) {
        EXPECT_EQ(LOG_LOCAL7 | rows[i].priority, lines[i].priority) << rows[i].level;
        EXPECT_EQ(std::string(rows[i].name) + "|f|g|1::m", lines[i].text);
    }
}

TEST(Trace, Modes)
{
    SyslogSink sink;
    become(FRWK_MODULE_QMUXD);
    set_level(8);
    Capture out;
    for (int mode : {0, 1, 2, 3, 4, -1, INT32_MAX, INT32_MIN}) {
        frwk_debug_enable(mode);
        frwk_trace_print("f", "g", 1, FRWK_TRACE_ERROR, "mode %d", mode);
    }
    frwk_debug_enable(1);
    frwk_trace_print("f", "g", 1, FRWK_TRACE_ERROR, "end");
    ASSERT_TRUE(sink.wait_for("end"));
    Texts logged;
    for (const SyslogLine &line : sink.lines()) {
        logged.push_back(parse_syslog_text(line.text).msg);
    }
    EXPECT_EQ(Texts({"mode 1", "mode 2", "end"}), logged);
    EXPECT_EQ(Texts({"error|mode 3"}), said(out.text()));
    EXPECT_EQ(1U, split_lines(out.text()).size());
}

TEST(Trace, NothingIsFlushed)
{
    Result child = run_child([] {
        trace_all();
        FRWK_INFO("in the stream's buffer");
        _exit(0);
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("", child.out);
}

TEST(Trace, LinesOfThreadsAreNotSplit)
{
    constexpr int THREADS = 6, LINES = 150;
    trace_all();
    Capture out;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < LINES; i++) {
                FRWK_INFO("%d %d %s.", t, i,
                          std::string(static_cast<size_t>(i) * 6, static_cast<char>('a' + t)).c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const std::vector<TraceLine> traces = out.traces();
    EXPECT_EQ(static_cast<size_t>(THREADS * LINES), traces.size());
    EXPECT_EQ(traces.size(), split_lines(out.text()).size());
    std::vector<int> next(THREADS);
    for (const TraceLine &trace : traces) {
        int t = -1, i = -1;
        ASSERT_EQ(2, sscanf(trace.msg.c_str(), "%d %d", &t, &i)) << trace.msg;
        ASSERT_TRUE(t >= 0 && t < THREADS) << trace.msg;
        EXPECT_EQ(next[static_cast<size_t>(t)]++, i);
        EXPECT_EQ(std::to_string(t) + " " + std::to_string(i) + " " +
                      std::string(static_cast<size_t>(i) * 6, static_cast<char>('a' + t)) + ".",
                  trace.msg);
    }
}

TEST(Assert, TrueConditionsSayNothing)
{
    trace_all();
    Capture out, err(2);
    for (int cond : {1, 2, -1, INT32_MIN}) {
        frwk_assert_debug(cond, "expr", "f.c", "g", 1);
    }
    FRWK_ASSERT(out.saved >= 0);
    EXPECT_EQ("", out.text() + err.text());
}

TEST(Assert, OfADaemon)
{
    SyslogSink sink;
    Result child = run_child([] {
        become(FRWK_MODULE_QMUXD); // level 0, mode 0: an assertion is reported all the same
        printf("unflushed");
        frwk_assert_debug(0, "100%d != %s", "/src/file.cpp", "func", 4000000000U);
    });
    const std::string text = "[qmuxd]ASSERT(file.cpp|func|4000000000), 100%d != %s\n";
    EXPECT_TRUE(child.aborted()) << child;
    EXPECT_EQ(text, child.err);
    EXPECT_EQ("", child.out) << "nothing is flushed";
    const std::vector<SyslogLine> lines = sink.wait_for(1);
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(text, lines[0].text);
    EXPECT_EQ(LOG_LOCAL7 | LOG_CRIT, lines[0].priority);
    EXPECT_EQ("qmuxd", lines[0].ident);
}

TEST(Assert, ClosesTheLogBeforeItAborts)
{
    SyslogSink sink;
    static int fds_before;
    Result child = run_child([] {
        become(FRWK_MODULE_QMUXD);
        signal(SIGABRT, [](int) { _exit(count_fds(getpid()) == fds_before ? 0 : 1); });
        fds_before = count_fds(getpid());
        FRWK_ASSERT(false);
    });
    EXPECT_EQ(0, child.status) << child;
    EXPECT_EQ(1U, sink.wait_for(1).size());
}

TEST(Assert, OfATool)
{
    SyslogSink sink;
    Result child = run_child([] {
        become(FRWK_MODULE_LOGTOOL);
        frwk_debug_enable(1);
        FRWK_ASSERT(1 + 1 == 3);
    });
    EXPECT_TRUE(child.aborted()) << child;
    EXPECT_TRUE(std::regex_match(
        child.err, std::regex("\\[logtool\\]ASSERT\\(test_trace\\.cpp\\|[^|]+\\|[0-9]+\\), 1 \\+ 1 == 3\n")))
        << child.err;
    EXPECT_TRUE(sink.lines().empty());
}

TEST(Assert, LongTextIsCut)
{
    Result child = run_child([] {
        const std::string longer(3000, 'n');
        frwk_assert_debug(0, longer.c_str(), "f.c", "g", 1);
    });
    EXPECT_TRUE(child.aborted()) << child;
    EXPECT_LE(child.err.size(), 1023U);
    EXPECT_GE(child.err.size(), 1000U);
}

} // namespace
