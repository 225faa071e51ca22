// The service of a module: its socket, dispatch and answers byte by byte, hostile peers, the limit of connections.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <climits>
#include <future>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

constexpr int IDLE_THREADS = 2; // the main one and the accept loop

const std::string PING = words({2, 5, 0, 0, 0, 0}), DONE = words({0, 0});

// What a module has written since the last call: trace lines as "level|message", others as they are.
struct Lines {
    Texts next()
    {
        Texts lines;
        const std::string all = module.out();
        for (const std::string &line : split_lines(all.substr(seen))) {
            const Texts trace = said(line);
            lines.push_back(trace.empty() ? line : trace[0]);
        }
        seen = all.size();
        return lines;
    }
    Texts wait_for(size_t count)
    {
        EXPECT_TRUE(wait_until([&] { return split_lines(module.out().substr(seen)).size() >= count; }));
        return next();
    }

    const Module &module;
    size_t seen = module.out().size();
};

bool idle(const Module &module, int fds)
{
    return wait_until([&] { return count_threads(module.pid) == IDLE_THREADS && count_fds(module.pid) <= fds; });
}

std::string receipt(int msg, const std::string &from = "atfwd_daemon")
{
    return "info|Receive msg=" + std::to_string(msg) + " from module=" + from;
}

TEST(Service, Requests)
{
    const auto set_up = [] {
        serve_and_trace();
        frwk_set_module_status(0xfedcba98);
    };
    Module module(FRWK_MODULE_QMUXD, set_up, [](uint32_t msg) { printf("control %u\n", msg); });
    Module silent(FRWK_MODULE_QTI); // no control callback
    Lines lines{module};
    EXPECT_EQ(DONE, answer_to("qti", words({2, 0, 0, 0, 0, 0})));
    const std::string zeros(3, '\0'), missing = "error|FRWK_MSG_SYS_LOG req is NULL",
                                      note = "debug|new log level is 8 debug mode is 3";
    const struct {
        std::string request, answer;
        Texts lines;
    } rows[] = {{words({2, 0, 0, 0, 0, 4, 99}), DONE, {receipt(0), "control 0"}},
                {words({2, 1, 0, 0, 0, 0}), DONE, {receipt(1), "control 1"}},
                {words({2, 2, 0, 0, 0, 0}), DONE, {receipt(2), "control 2"}},
                {PING, DONE, {}},
                {words({2, 5, 0x80000000, 0, 16, 4, 99}), words({0, 0, 0, 0, 0, 0}), {}},
                {words({9, 6, 0, 0, 3, 4}) + "body", words({0, 3}) + zeros, {receipt(6, "qmuxd")}},
                {words({10, 6, 0, 0, 0, 0}), DONE, {receipt(6, "unknown")}},
                {words({2, 4, 0, 0, 4, 0}), words({0, 4, 0xfedcba98}), {receipt(4)}},
                {words({2, 4, 0, 0, 3, 0}), words({3, 3}) + zeros, {receipt(4)}},
                {words({2, MSG_ECHO, 0, 0, 8, 5}) + "hello", words({0, 8}) + "hello" + zeros, {receipt(7)}},
                {words({2, MSG_RESULT, 0, 0, 4, 4, -5}), words({-5, 4, 0}), {receipt(8)}},
                {words({2, MSG_RESULT, 1, 0, 0, 4, 2}), DONE, {receipt(8)}}, // acknowledged, the result dropped
                {words({4000000000, 501, 0, -1, 16, 3}) + "abc",
                 words({0, 16, 0, 0, 0, 0}),
                 {receipt(501, "unknown"), "from=4000000000 msg=501 req=set len=3 rsp=set size=16 timeout=4294967295"}},
                {words({2, -1, 0, 77, 1, -4}), // less than nothing is no body
                 words({0, 1}) + '\0',
                 {receipt(-1), "from=2 msg=4294967295 req=null len=-4 rsp=set size=1 timeout=77"}},
                {words({2, 3, 0, 0, 0, 0}), DONE, {receipt(3), missing}},
                {words({2, 3, 0, 0, 0, 7, 0}) + "123", DONE, {receipt(3), missing}},
                {words({2, 3, 0, 0, 0, 12, 3, 8, 1}), DONE, {receipt(3), note}},
                {words({2, 3, 0, 0, 0, 8, 3, 4}), DONE, {receipt(3)}}, // the note obeys the new level
                {words({2, 3, 0, 0, 0, 8, 3, 8}), DONE, {receipt(3), note}},
                {words({2, 3, 0, 0, 0, 8, 0, 8}), DONE, {receipt(3)}}, // and the new mode
                {words({2, 3, 0, 0, 0, 8, 3, 1}), DONE, {}},
                {words({2, 3, 0, 0, 0, 0}), DONE, {missing}}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.answer, answer_to("qmuxd", row.request)) << testing::PrintToString(row.request);
        EXPECT_EQ(row.lines, lines.next()) << testing::PrintToString(row.request);
    }
}

TEST(Service, AwaitsItsHandler)
{
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t) { frwk_ipc_init(test_handler); });
    Lines lines{module};
    std::vector<std::future<std::string>> held;
    const long start = now_ms();
    EXPECT_EQ(words({13, 4, 0}), answer_to("qmuxd", words({2, 7, 0, 1, 4, 0})));
    EXPECT_GE(now_ms() - start + 1, 1000);
    EXPECT_EQ(Texts({receipt(7), "warning|ipc handler is null!"}), lines.next());
    for (int64_t timeout : {20, -1}) { // the longest is no overflow
        held.push_back(std::async(std::launch::async, answer_to, "qmuxd", words({2, 7, 0, timeout, 5, 5}) + "hello"));
    }
    lines.wait_for(held.size());
    usleep(150000);
    answer_to("qmuxd", words({2, 1, 0, 0, 0, 0})); // registers the handler
    for (auto &answer : held) {
        EXPECT_EQ(words({0, 5}) + "hello", answer.get());
    }
}

TEST(Service, HostileFrames)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    const int fds = count_fds(module.pid);
    Lines lines{module};
    const std::string size = "error|socket recv size error!", header = "error|recv ipc header error!",
                      body = "error|ipc recv body error!", timeout = "warning|select recv timeout!";
    const struct {
        std::string bytes;
        bool silent; // nothing follows; otherwise the end of the stream
        Texts lines;
        long least_ms = 0;
    } rows[] = {{"", false, {size, header}},
                {PING.substr(0, 23), true, {size, header}},
                {words({2, MSG_TELL, 1, 0, -1, 0}), true, {header}},
                {words({2, MSG_TELL, 0, 0, INT_MIN, 4, 4}), true, {header}},
                {words({2, MSG_TELL, 0, 0, 0, 10}), false, {receipt(MSG_TELL), size, body}},
                {words({2, MSG_TELL, 0, 0, 0, 10}) + "123456789", true, {receipt(MSG_TELL), size, body}},
                {words({2, MSG_TELL, 0, 0, 0, 0x4000000}) + "1", true, {receipt(MSG_TELL), size, body}},
                {"", true, {timeout, header}, 3000},
                {words({2, MSG_TELL, 0, 0, 0, 10}), true, {receipt(MSG_TELL), timeout, body}, 3000}};
    for (const auto &row : rows) {
        int fd = raw_connect("qmuxd");
        const long start = now_ms();
        raw_send(fd, row.bytes);
        if (!row.silent) {
            shutdown(fd, SHUT_WR);
        }
        EXPECT_EQ(DONE, answer_to("qmuxd", PING)) << "others are served meanwhile";
        EXPECT_EQ("", raw_recv(fd, 100)) << "nothing is answered";
        EXPECT_EQ(row.lines, lines.next()) << testing::PrintToString(row.bytes);
        EXPECT_GE(now_ms() - start + 1, row.least_ms);
        close(fd);
    }
    int fd = raw_connect("qmuxd"); // a body in a piece of its own will do
    raw_send(fd, words({2, MSG_ECHO, 0, 0, 5, 5}));
    usleep(100000);
    raw_send(fd, "hello");
    EXPECT_EQ(words({0, 5}) + "hello", raw_recv(fd, 14));
    close(fd);
    lines.next();
    // Peers that do not take the answer: its write fails at once, without a signal.
    const std::string told = "from=2 msg=10 req=null len=0 rsp=set size=8 timeout=0";
    for (const Texts &expected : {Texts({receipt(MSG_TELL), told, "error|send ipc rsp error!"}),
                                  Texts({receipt(MSG_TELL), "error|ipc send async response error!"})}) {
        fd = raw_connect("qmuxd");
        shutdown(fd, SHUT_RD);
        raw_send(fd, words({2, MSG_TELL, expected.size() == 2, 0, 8, 0}));
        EXPECT_EQ(expected, lines.wait_for(expected.size())) << "not dispatched without the acknowledgement";
        close(fd);
    }
    EXPECT_TRUE(idle(module, fds));
}

TEST(Service, AnnouncedSizesAreNotTouched)
{
    if (SANITIZED || emulated()) {
        GTEST_SKIP() << "allocates in another way, or has no limit";
    }
    Module module(FRWK_MODULE_QMUXD, [] {
        serve_and_trace();
        const rlimit limit = {1U << 30, 1U << 30};
        setrlimit(RLIMIT_AS, &limit);
    });
    const auto most_kib = [&] { // the number behind the name
        const std::string status = read_file("/proc/" + std::to_string(module.pid) + "/status");
        return atol(status.c_str() + status.find("VmHWM:") + 6);
    };
    const long before = most_kib();
    const std::pair<std::string, std::string> rows[] = {
        {words({2, MSG_ECHO, 0, 0, 0, 300 << 20}) + "x", "::ipc recv body error!"},
        {words({2, MSG_ECHO, 0, 0, 300 << 20, 0}), "::send ipc rsp error!"},
        {words({2, MSG_ECHO, 0, 0, 0, INT_MAX}) + "x", "::alloc for ipc recv body error!"},
        {words({2, MSG_ECHO, 0, 0, INT_MAX, 0}), "::alloc for ipc rsp error!"}};
    for (const auto &[request, said] : rows) {
        int fd = raw_connect("qmuxd");
        shutdown(fd, SHUT_RD);
        raw_send(fd, request);
        EXPECT_TRUE(module.wait_out(said));
        close(fd);
    }
    EXPECT_LT(most_kib() - before, 16 * 1024);
    EXPECT_EQ(DONE, answer_to("qmuxd", PING));
}

// Fills all 21 connection threads, sees further connections refused, and frees them again.
void fill_and_free(const Module &module)
{
    unlink(RELEASE_FILE);
    Lines lines{module};
    std::vector<int> fds;
    for (int i = 0; i < 21; i++) {
        fds.push_back(raw_connect("qmuxd"));
        raw_send(fds.back(), words({2, MSG_BLOCK, 0, 0, 0, 0}));
        ASSERT_EQ(Texts({receipt(MSG_BLOCK), "blocked"}), lines.wait_for(2)) << i;
    }
    EXPECT_EQ(IDLE_THREADS + 21, count_threads(module.pid));
    fds.push_back(raw_connect("qmuxd"));
    EXPECT_TRUE(raw_closed(fds.back()));
    EXPECT_EQ(Texts({"error|handle thread too many... num is 21", ""}), lines.next()) << "has its own newline";
    release();
    for (int fd : fds) {
        EXPECT_EQ(fd == fds.back() ? "" : DONE, raw_recv(fd, 9));
        close(fd);
    }
}

TEST(Service, TwentyOneAtOnceAndNoSlotIsLost)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    const int fds = count_fds(module.pid);
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
    std::vector<std::future<void>> peers(4);
    for (auto &peer : peers) {
        peer = std::async(std::launch::async, [] {
            for (size_t i = 0; i < 100; i++) {
                EXPECT_EQ(DONE, answer_to("qmuxd", PING));
                int fd = raw_connect("qmuxd");
                raw_send(fd, PING.substr(0, i % 24));
                shutdown(fd, SHUT_WR);
                EXPECT_TRUE(raw_closed(fd)); // or the threads could pile up to the limit
                close(fd);
            }
        });
    }
    peers.clear(); // waits for them
    EXPECT_TRUE(idle(module, fds));
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
}

TEST(Service, ListeningSocket)
{
    // Whatever lies where the socket is to be is replaced: an earlier socket, a file.
    close(raw_listen("qmuxd"));
    write_file(socket_path("qti"), "stale");
    Module qmuxd(FRWK_MODULE_QMUXD), qti(FRWK_MODULE_QTI);
    EXPECT_EQ(DONE, answer_to("qmuxd", PING));
    EXPECT_EQ(DONE, answer_to("qti", PING));
    // While the module does not run, 6 connections stay queued: a backlog of 5.
    int status, queued = 0;
    kill(qti.pid, SIGSTOP);
    EXPECT_EQ(qti.pid, waitpid(qti.pid, &status, WUNTRACED));
    while (queued < 9 && run_child([] { raw_connect("qti"); }, 5).ok()) {
        queued++;
    }
    EXPECT_EQ(6, queued);
    kill(qti.pid, SIGCONT);
}

} // namespace
