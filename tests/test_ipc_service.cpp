/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The service of a module: its socket, dispatch and answers byte by byte, hostile peers, the limit of connections.
#include "frwk_test.h"

#include <sys/socket.h>

#include <future>

namespace {

constexpr int IDLE_THREADS = 2; // the main one and the accept loop

const std::string PING = words({2, 5, 0, 0, 0, 0}), DONE = words({0, 0});

// What a module has written since the last call, when there are as many lines.
struct Lines {
    Texts next(size_t count = 0)
    {
        Texts lines;
        EXPECT_TRUE(wait_until([&] {
            lines = lines_in(module.out());
            return lines.size() >= seen + count;
        }));
        lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(std::exchange(seen, lines.size())));
        return lines;
    }

    const Module &module;
    size_t seen = lines_in(module.out()).size();
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
    EXPECT_EQ(-7, frwk_ipc_timeout(-7));
    const std::string zeros(3, '\0'), missing = "error|FRWK_MSG_SYS_LOG req is NULL",
                                      note = "debug|new log level is 8 debug mode is 3";
    const struct {
        std::string request, answer;
        Texts lines;
    } rows[] = {{words({2, 0, 0, 0, 0, 4, 99}), DONE, {receipt(0), "control 0"}},
                {words({2, 2, 0, 0, 0, 0}), DONE, {receipt(2), "control 2"}},
                {words({2, 5, 0x80000000, 0, 16, 4, 99}), words({0, 0, 0, 0, 0, 0}), {}},
                {words({9, 6, 0, 0, 3, 4}) + "body", words({0, 3}) + zeros, {receipt(6, "qmuxd")}},
                {words({2, 4, 0, 0, 4, 0}), words({0, 4, 0xfedcba98}), {receipt(4)}},
                {words({2, 4, 0, 0, 3, 0}), words({3, 3}) + zeros, {receipt(4)}},
                {words({2, MSG_ECHO, 0, 0, 8, 5}) + "hello", words({0, 8}) + "hello" + zeros, {receipt(7)}},
                {words({2, MSG_RESULT, 0, 0, 4, 4, -5}), words({-5, 4, 0}), {receipt(8)}},
                {words({2, MSG_RESULT, 1, 0, 0, 4, 2}), DONE, {receipt(8)}}, // acknowledged, the result dropped
                {words({4000000000, 501, 0, -1, 16, 3}) + "abc",
                 words({0, 16, 0, 0, 0, 0}),
                 {receipt(501, "unknown"), "from=4000000000 msg=501 req=set len=3 rsp=set size=16 timeout=4294967295"}},
                {words({10, -1, 0, 77, 1, -4}), // less than nothing is no body
                 words({0, 1}) + '\0',
                 {receipt(-1, "unknown"), "from=10 msg=4294967295 req=null len=-4 rsp=set size=1 timeout=77"}},
                {words({2, 3, 0, 0, 0, 7, 0}) + "123", DONE, {receipt(3), missing}},
                {words({2, 3, 0, 0, 0, 12, 3, 8, 1}), DONE, {receipt(3), note}},
                {words({2, 3, 0, 0, 0, 8, 3, 4}), DONE, {receipt(3)}}, // the note obeys the new level
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
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t) { serve(); });
    Lines lines{module};
    std::vector<std::future<std::string>> held;
    const long start = now_ms();
    EXPECT_EQ(words({13, 4, 0}), answer_to("qmuxd", words({2, 7, 0, 1, 4, 0})));
    EXPECT_GE(now_ms() - start + 1, 1000);
    EXPECT_EQ(Texts({receipt(7), "warning|ipc handler is null!"}), lines.next());
    for (int64_t timeout : {20, -1}) { // the longest is no overflow
        held.push_back(std::async(std::launch::async, answer_to, "qmuxd", words({2, 7, 0, timeout, 5, 5}) + "hello"));
    }
    lines.next(held.size());
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
                      body = "error|ipc recv body error!", timeout = "warning|select recv timeout!",
                      lost = "error|ipc send async response error!";
    const struct {
        std::string bytes;
        bool unread; // the peer does not take the answer
        Texts lines;
        long least_ms = 0;
    } rows[] = {{PING.substr(0, 23), false, {size, header}},
                {words({2, MSG_TELL, 1, 0, -1, 0}), false, {header}},
                {words({2, MSG_TELL, 0, 0, 0, 0x4000000}) + "1", false, {receipt(MSG_TELL), size, body}},
                {words({2, MSG_ECHO, 0, 0, 8, 0}), true, {receipt(MSG_ECHO), "error|send ipc rsp error!"}},
                {words({2, MSG_TELL, 1, 0, 8, 0}), true, {receipt(MSG_TELL), lost}}, // and is not dispatched
                {"", false, {timeout, header}, 3000},
                {words({2, MSG_TELL, 0, 0, 0, 10}), false, {receipt(MSG_TELL), timeout, body}, 3000}};
    for (const auto &row : rows) {
        int fd = raw_connect("qmuxd");
        const long start = now_ms();
        if (row.unread) {
            shutdown(fd, SHUT_RD);
        }
        raw_send(fd, row.bytes);
        EXPECT_EQ(DONE, answer_to("qmuxd", PING)) << "others are served meanwhile";
        EXPECT_EQ("", raw_recv(fd, 1)) << "nothing is answered";
        EXPECT_EQ(row.lines, lines.next(row.lines.size())) << testing::PrintToString(row.bytes);
        EXPECT_GE(now_ms() - start + 1, row.least_ms);
        close(fd);
    }
    for (const std::string &line : lines_in(module.out(), "$2 ")) {
        EXPECT_TRUE(line.rfind("frwk_ipc_recv ", 0) == 0 || line.rfind("frwk_ipc_handle ", 0) == 0) << line;
    }
    int fd = raw_connect("qmuxd"); // a body in a piece of its own will do
    raw_send(fd, words({2, MSG_ECHO, 0, 0, 5, 5}));
    usleep(100000);
    raw_send(fd, "hello");
    EXPECT_EQ(words({0, 5}) + "hello", raw_recv(fd, 14));
    close(fd);
    EXPECT_TRUE(idle(module, fds));
}

TEST(Service, AnnouncedSizesAreNotTouched)
{
    if (SANITIZED || emulated()) {
        GTEST_SKIP() << "map memory in another way";
    }
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    const auto most_kib = [&] { // the number behind the name
        const std::string status = read_file("/proc/" + std::to_string(module.pid) + "/status");
        return atol(status.c_str() + status.find("VmHWM:") + 6);
    };
    const long before = most_kib();
    for (const std::string &request :
         {words({2, MSG_ECHO, 0, 0, 0, 300 << 20}) + "x", words({2, MSG_ECHO, 0, 0, 300 << 20, 0})}) {
        int fd = raw_connect("qmuxd");
        raw_send(fd, request);
        raw_recv(fd, 1);
        close(fd);
    }
    EXPECT_LT(most_kib() - before, 16 * 1024);
}

// Fills all 21 connection threads, sees a further connection refused, and frees them again.
void fill_and_free(const Module &module)
{
    Lines lines{module};
    std::vector<int> fds;
    for (int i = 0; i < 21; i++) {
        fds.push_back(raw_connect("qmuxd"));
        raw_send(fds.back(), words({2, MSG_BLOCK, 0, 0, 0, 0}));
        ASSERT_EQ(Texts({receipt(MSG_BLOCK), "blocked"}), lines.next(2)) << i;
    }
    EXPECT_EQ(IDLE_THREADS + 21, count_threads(module.pid));
    EXPECT_EQ("", raw_recv(fds.emplace_back(raw_connect("qmuxd")), 1));
    EXPECT_EQ(Texts({"error|handle thread too many... num is 21", ""}), lines.next()) << "has its own newline";
    release();
    for (int fd : fds) {
        EXPECT_EQ(fd == fds.back() ? "" : DONE, raw_recv(fd, 9));
        close(fd);
    }
}

TEST(Service, TwentyOneAtOnceAndNoSlotIsLost)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace, [](uint32_t) { fault_after(1, {"pthread_create", EAGAIN}); });
    const int fds = count_fds(module.pid);
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
    for (int i = 0; i < 22; i++) {
        EXPECT_EQ(DONE, answer_to("qmuxd", words({2, 0, 0, 0, 0, 0}))); // the next thread cannot be started
        int fd = raw_connect("qmuxd");
        EXPECT_EQ("", raw_recv(fd, 1));
        close(fd);
    }
    std::vector<std::future<void>> peers(4);
    for (auto &peer : peers) {
        peer = std::async(std::launch::async, [] {
            for (size_t i = 0; i < 100; i++) {
                EXPECT_EQ(DONE, answer_to("qmuxd", PING));
                int fd = raw_connect("qmuxd");
                raw_send(fd, PING.substr(0, i % 24));
                shutdown(fd, SHUT_WR);
                EXPECT_EQ("", raw_recv(fd, 1)); // or the threads could pile up to the limit
                close(fd);
            }
        });
    }
    peers.clear(); // waits for them
    EXPECT_TRUE(idle(module, fds));
    fill_and_free(module);
}

// As often as there are slots for connections, and more; some of the bodies are on the heap.
TEST(Service, HandlersMayBeCancelled)
{
    const auto cancelled = [](uint32_t, uint32_t, const uint8_t *, int32_t, uint8_t *, int32_t, uint32_t) {
        pthread_cancel(pthread_self());
        frwk_sleep(60000);
        return 0;
    };
    Module module(FRWK_MODULE_QMUXD, [&] { frwk_ipc_init(cancelled); });
    const int fds = count_fds(module.pid);
    for (int i = 0; i < 30; i++) {
        const int body = i % 2 * 10000, answer = i % 3 * 4000;
        const std::string header = words({2, MSG_ECHO, 0, 1, answer, body});
        EXPECT_EQ("", answer_to("qmuxd", header + std::string(static_cast<size_t>(body), 'x')));
    }
    EXPECT_TRUE(idle(module, fds));
    EXPECT_EQ(DONE, answer_to("qmuxd", PING));
}

} // namespace
