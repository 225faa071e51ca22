// Trace levels, the trace line in both sinks, assertions.
#include <syslog.h>

#include <thread>

#include "stand_ins.h"

static int fds_before; // in a process that has written to no log yet

extern "C" void abort() noexcept
{
    dprintf(2, frwk_test::count_fds(getpid()) == fds_before ? "" : "the log is open");
    real_call<void()>("abort")();
    _exit(1);
}

namespace {

using namespace frwk_test;

static_assert(FRWK_TRACE_NULL == 0 && FRWK_TRACE_ERROR == 1 && FRWK_TRACE_WARNING == 2 && FRWK_TRACE_INFO == 4 &&
              FRWK_TRACE_DEBUG == 8);

// Makes this process a module with a threshold and a mode. Any number can be the threshold by message; as a request
// to oneself it needs no service.
void set_trace(int mode, int level)
{
    const int32_t words[2] = {mode, level};
    frwk_debug_enable(0);
    ASSERT_EQ(0, frwk_ipc_msg_set(static_cast<uint32_t>(frwk_get_module_id()), FRWK_MSG_SYS_LOG, words, 8, 0, nullptr));
}

void become(uint32_t id, int mode, int level)
{
    ASSERT_EQ(0, frwk_module_init(id, nullptr));
    set_trace(0, 0);
    set_trace(mode, level);
}

// Text of a message that makes a line `total` characters long behind a header.
std::string filler(size_t total, const std::string &header)
{
    return std::string(total - header.size() - 1, 'm') + "z";
}

TEST(Trace, LevelNames)
{
    const struct {
        const char *name;
        int level;
        int result;
        std::string printed;
    } rows[] = {{"", 0, 0, ""},
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
                {"warn", -1, 8, "Unsupported trace level(warn)\n"},
                {"%s%n", -1, 8, "Unsupported trace level(%s%n)\n"}};
    for (const auto &row : rows) {
        Capture out;
        EXPECT_EQ(row.level, frwk_level_match(row.name)) << row.printed;
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
                {"..", ".."}};
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
    become(FRWK_MODULE_LOGTOOL, 3, 0);
    const struct {
        int threshold;
        const char *printed; // of the levels below
    } rows[] = {{-2, "--------"}, {-1, "x-------"}, {0, "xx------"}, {1, "xxx-----"}, {2, "xxxx----"},
                {3, "xxxxx---"},  {4, "xxxxxx--"},  {8, "xxxxxxx-"}, {15, "xxxxxxxx"}};
    const std::string names[] = {"null", "null", "error", "warning", "null", "info", "debug", "null"};
    const int levels[] = {-1, 0, 1, 2, 3, 4, 8, 15};
    for (const auto &row : rows) {
        set_trace(4, row.threshold);
        frwk_debug_enable(3);
        Capture out;
        Texts expected;
        for (size_t i = 0; i < 8; i++) {
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
    become(FRWK_MODULE_LOGTOOL, 4, 8);
    frwk_debug_enable(3);
    const std::string start = "[logtool]2024-01-02 12:35:07|", header = start + "error|f.c|g|1::";
    fixed_time = INT64_C(1704186307) * 1000000000;
    {
        Capture out;
        frwk_trace_print("/src/dir\\file.cpp", "func", 42, FRWK_TRACE_WARNING, "%s=%d", "100%d %s%n", -7);
        frwk_trace_print("dir/", "", -1, FRWK_TRACE_INFO, "two\nlines %%");
        frwk_trace_print(nullptr, "f", 0, 3, "%s", "");
        FRWK_ERR("%s", "macro");
        EXPECT_EQ(start + "warning|file.cpp|func|42::100%d %s%n=-7\n" + start + "info|||-1::two\nlines %\n" + start +
                      "null||f|0::\n" + start + "error|test_trace.cpp|TestBody|" + std::to_string(__LINE__ - 2) +
                      "::macro\n",
                  out.text());
    }
    for (size_t total : {1000U, 1021U, 1022U, 1023U, 1024U, 1025U, 5000U}) {
        const std::string message = filler(total, header);
        Capture out;
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%s", message.c_str());
        EXPECT_EQ((header + message).substr(0, 1022) + "\n", out.text()) << total;
    }
    const std::string longer(3000, 'n');
    Capture out;
    frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
    EXPECT_LE(out.text().size(), 1023U) << "a header that does not fit is cut somewhere";
    EXPECT_EQ('\n', out.text().back());
    fixed_time = -1;
}

TEST(Trace, SyslogLine)
{
    SyslogSink sink;
    become(FRWK_MODULE_QMUXD, 4, 1000);
    const struct {
        int level;
        int priority;
        const char *name;
    } rows[] = {{-1, 6, "null"}, {0, 6, "null"},    {1, 3, "error"},       {2, 4, "warning"}, {3, 6, "null"},
                {4, 6, "info"},  {5, 6, "null"},    {6, 6, "null"},        {7, 6, "null"},    {8, 7, "debug"},
                {9, 6, "null"},  {1000, 6, "null"}, {INT32_MIN, 6, "null"}};
    const std::string header = "error|f.c|g|1::", longer(3000, 'n');
    Texts expected;
    Capture out, err(2);
    frwk_debug_enable(1);
    for (const auto &row : rows) {
        frwk_trace_print("/src/dir\\file.cpp", "func", 42, row.level, "%s=%d", "100%d %s%n", -7);
        expected.push_back(row.name + std::string("|file.cpp|func|42::100%d %s%n=-7"));
    }
    frwk_debug_enable(2);
    for (size_t total : {1000U, 1022U, 1023U, 1024U, 5000U}) {
        const std::string message = filler(total, header);
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "%s", message.c_str());
        expected.push_back((header + message).substr(0, 1023));
    }
    for (int mode : {0, 4, -1, INT32_MAX, INT32_MIN}) {
        frwk_debug_enable(mode);
        frwk_trace_print("f.c", "g", 1, FRWK_TRACE_ERROR, "nowhere");
    }
    frwk_debug_enable(1);
    frwk_trace_print(longer.c_str(), longer.c_str(), 1, FRWK_TRACE_ERROR, "%s", longer.c_str());
    const std::vector<SyslogLine> lines = sink.wait_for(expected.size() + 1);
    ASSERT_EQ(expected.size() + 1, lines.size());
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(expected[i], lines[i].text) << "literal, and no newline";
        EXPECT_EQ("qmuxd", lines[i].ident);
        EXPECT_EQ(getpid(), lines[i].pid);
        EXPECT_EQ(LOG_LOCAL7 | (i < std::size(rows) ? rows[i].priority : LOG_ERR), lines[i].priority) << expected[i];
    }
    EXPECT_LE(lines.back().text.size(), 1023U);
    EXPECT_EQ("", out.text() + err.text());
}

TEST(Trace, LinesOfThreadsAreNotSplit)
{
    constexpr int THREADS = 6, LINES = 150;
    const auto text = [](int t, int i) {
        return std::to_string(t) + " " + std::string(static_cast<size_t>(i) * 6, static_cast<char>('a' + t)) + ".";
    };
    trace_all();
    Capture out;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([&text, t] {
            for (int i = 0; i < LINES; i++) {
                FRWK_INFO("%s", text(t, i).c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::vector<int> next(THREADS);
    for (const TraceLine &trace : out.traces()) {
        const int t = atoi(trace.msg.c_str());
        ASSERT_TRUE(t >= 0 && t < THREADS) << trace.msg;
        EXPECT_EQ(text(t, next[static_cast<size_t>(t)]++), trace.msg);
    }
    EXPECT_EQ(std::vector<int>(THREADS, LINES), next);
    EXPECT_EQ(static_cast<size_t>(THREADS * LINES), split_lines(out.text()).size());
}

TEST(Assert, Failed)
{
    SyslogSink sink;
    const std::string place = "ASSERT(file.cpp|func|4000000000), 100%d != %s\n", longer(3000, 'n');
    const struct {
        uint32_t id; // 0: before start-up
        std::string text;
        size_t logged;
    } rows[] = {{FRWK_MODULE_QMUXD, "[qmuxd]" + place, 1},
                {FRWK_MODULE_LOGTOOL, "[logtool]" + place, 1},
                {0, "[unknown]" + place, 1}};
    for (const auto &row : rows) {
        const Result child = run_child([&] {
            if (row.id != 0) {
                ASSERT_EQ(0, frwk_module_init(row.id, nullptr));
            }
            fds_before = count_fds(getpid());
            frwk_debug_enable(3);
            frwk_trace_print("f.c", "g", 1, FRWK_TRACE_NULL, "in the buffer of the stream");
            frwk_debug_enable(row.id == FRWK_MODULE_QMUXD ? 0 : 1); // has no say in this
            frwk_assert_debug(0, "100%d != %s", "/src/file.cpp", "func", 4000000000U);
        });
        EXPECT_TRUE(child.aborted()) << child;
        EXPECT_EQ(row.text, child.err);
        EXPECT_TRUE(SANITIZED || child.out.empty()) << "nothing is flushed";
        const std::vector<SyslogLine> lines = sink.wait_for(row.logged);
        ASSERT_EQ(row.logged, lines.size());
        EXPECT_EQ(rows[0].text, lines[0].text);
        EXPECT_EQ(LOG_LOCAL7 | LOG_CRIT, lines[0].priority);
        EXPECT_EQ("qmuxd", lines[0].ident);
    }
    const Result child = run_child([&] {
        fds_before = count_fds(getpid());
        frwk_assert_debug(0, longer.c_str(), "f.c", "g", 1);
    });
    EXPECT_TRUE(child.aborted()) << child;
    EXPECT_LE(child.err.size(), 1023U);
}

TEST(Assert, True)
{
    trace_all();
    Capture out, err(2);
    for (int cond : {1, 2, -1, INT32_MIN}) {
        frwk_assert_debug(cond, "expr", "f.c", "g", 1);
    }
    FRWK_ASSERT(out.saved >= 0);
    EXPECT_EQ("", out.text() + err.text());
    FRWK_INFO("early");
    ASSERT_EQ(1U, out.traces().size());
    EXPECT_EQ("unknown", out.traces()[0].name) << "before start-up";
}

} // namespace
