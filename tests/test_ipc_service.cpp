// The service of a module: dispatch, hostile peers, the limit of connections; and requests to oneself.
#include <sys/resource.h>
#include <sys/socket.h>

#include <climits>
#include <future>
#include <thread>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

constexpr int IDLE_THREADS = 2; // the main one and the accept loop

const std::string PING = words({2, 5, 0, 0, 0, 0});
const std::string BLOCK = words({2, MSG_BLOCK, 0, 0, 0, 0});

// The traces of a module since the last call.
struct Traces {
    Texts next()
    {
        const Texts all = said(module.out());
        const Texts news(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return news;
    }

    Module &module;
    size_t seen = said(module.out()).size();
};

bool idle(const Module &module, int fds)
{
    return wait_until([&] { return count_threads(module.pid) == IDLE_THREADS && count_fds(module.pid) <= fds; });
}

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        count++;
    }
    return count;
}

std::string receipt(int msg, const std::string &from = "atfwd_daemon")
{
    return "info|Receive msg=" + std::to_string(msg) + " from module=" + from;
}

TEST(Service, LibraryMessages)
{
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t msg) { printf("control %u.\n", msg); });
    Module silent(FRWK_MODULE_QTI); // no control callback
    Traces traces{module};
    for (int msg : {0, 1, 2}) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, msg, 0, 0, 0, 4, 99})));
        EXPECT_EQ(Texts({receipt(msg)}), traces.next());
        EXPECT_TRUE(contains(module.out(), "control " + std::to_string(msg) + ".\n"));
        EXPECT_EQ(words({0, 0}), answer_to("qti", words({2, msg, 0, 0, 0, 0})));
    }
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, 5, 0, 0, 0, 4, 99})));
    EXPECT_EQ(Texts(), traces.next()) << "pings are not traced";
    for (int64_t from : {0, 10, 11, -1, INT_MIN, 9}) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({from, 6, 0, 0, 0, 0})));
        EXPECT_EQ(Texts({receipt(6, from == 9 ? "qmuxd" : "unknown")}), traces.next());
    }
}

TEST(Service, LogMessage)
{
    Module module(FRWK_MODULE_QMUXD, trace_all);
    Traces traces{module};
    const std::string missing = "error|FRWK_MSG_SYS_LOG req is NULL", note = "debug|new log level is 8 debug mode is 3";
    const struct {
        std::string rest; // msg_len and the body
        Texts said;
    } rows[] = {{words({0}), {receipt(3), missing}},
                {words({-8}), {receipt(3), missing}},
                {words({4, 0}), {receipt(3), missing}},
                {words({7, 0}) + "123", {receipt(3), missing}},
                {words({8, 3, 8}), {receipt(3), note}},
                {words({12, 3, 8, 1}), {receipt(3), note}},
                {words({8, 3, 4}), {receipt(3)}}, // the note obeys the new level
                {words({8, 3, 8}), {receipt(3), note}},
                {words({8, 0, 8}), {receipt(3)}}, // and the new mode
                {words({8, 3, -7}), {}},
                {words({8, 3, 1}), {}},
                {words({0}), {missing}}};
    for (const auto &row : rows) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, 3, 0, 0, 0}) + row.rest));
        EXPECT_EQ(row.said, traces.next()) << testing::PrintToString(row.rest);
    }
}

TEST(Service, HandlerArguments)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    const struct {
        std::string request;
        const char *told;
    } rows[] = {
        {words({2, MSG_TELL, 0, 77, 16, 3}) + "abc", "from=2 msg=10 req=set len=3 rsp=set size=16 timeout=77\n"},
        {words({4000000000, 501, 0, -1, 16, 0}),
         "from=4000000000 msg=501 req=null len=0 rsp=set size=16 timeout=4294967295\n"},
        {words({2, -1, 0, 0, 1, -4}), "from=2 msg=4294967295 req=null len=-4 rsp=set size=1 timeout=0\n"},
        {words({2, MSG_TELL, 1, 3, 1, 1}) + "x", "from=2 msg=10 req=set len=1 rsp=set size=1 timeout=3\n"}};
    for (const auto &row : rows) {
        answer_to("qmuxd", row.request);
        EXPECT_TRUE(contains(module.out(), row.told)) << row.told << module.out();
    }
}

TEST(Service, AwaitsItsHandler)
{
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t) { frwk_ipc_init(test_handler); });
    Traces traces{module};
    const std::string nothing = "warning|ipc handler is null!";
    EXPECT_EQ(words({13, 4, 0}), answer_to("qmuxd", words({2, 7, 0, 0, 4, 0})));
    EXPECT_EQ(Texts({receipt(7), nothing}), traces.next());
    const int64_t start = now_ms();
    EXPECT_EQ(words({13, 0}), answer_to("qmuxd", words({2, 7, 0, 1, 0, 0})));
    EXPECT_GE(now_ms() - start + 1, 1000);
    EXPECT_EQ(Texts({receipt(7), nothing}), traces.next());

    int async = raw_connect("qmuxd");
    raw_send(async, words({2, 7, 1, 1, 0, 0}));
    EXPECT_EQ(words({0, 0}), raw_recv(async, 8)) << "acknowledged before";
    EXPECT_EQ(Texts({receipt(7)}), traces.next());
    EXPECT_TRUE(raw_closed(async));
    EXPECT_EQ(Texts({nothing}), traces.next());
    close(async);

    std::vector<std::future<std::string>> held;
    for (int64_t timeout : {20, -1}) { // the longest is no overflow
        held.push_back(std::async(std::launch::async, answer_to, "qmuxd", words({2, 7, 0, timeout, 5, 5}) + "hello"));
    }
    ASSERT_TRUE(wait_until([&] { return said(module.out()).size() == traces.seen + 2; }));
    for (auto &answer : held) {
        EXPECT_EQ(std::future_status::timeout, answer.wait_for(std::chrono::milliseconds(150)));
    }
    answer_to("qmuxd", words({2, 1, 0, 0, 0, 0})); // registers the handler
    for (auto &answer : held) {
        EXPECT_EQ(words({0, 5}) + "hello", answer.get());
    }
}

TEST(Service, HostileFrames)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    const int fds = count_fds(module.pid);
    Traces traces{module};
    const std::string size = "error|socket recv size error!", header = "error|recv ipc header error!",
                      body = "error|ipc recv body error!", timeout = "warning|select recv timeout!";
    const struct {
        std::string bytes;
        bool silent; // nothing follows; otherwise the end of the stream
        Texts said;
    } rows[] = {{"", false, {size, header}},
                {PING.substr(0, 1), false, {size, header}},
                {PING.substr(0, 23), true, {size, header}},
                {words({2, MSG_TELL, 0, 0, -1, 0}), true, {header}},
                {words({2, MSG_TELL, 1, 0, -8, 0}), true, {header}},
                {words({2, MSG_TELL, 0, 0, INT_MIN, 4, 4}), true, {header}},
                {words({2, MSG_TELL, 0, 0, 0, 10}), false, {receipt(MSG_TELL), size, body}},
                {words({2, MSG_TELL, 0, 0, 0, 10}) + "123456789", true, {receipt(MSG_TELL), size, body}},
                {words({2, MSG_TELL, 0, 0, 0, 0x4000000}) + "1", true, {receipt(MSG_TELL), size, body}},
                {"", true, {timeout, header}},
                {words({2, MSG_TELL, 0, 0, 0, 10}), true, {receipt(MSG_TELL), timeout, body}}};
    for (const auto &row : rows) {
        int fd = raw_connect("qmuxd");
        const int64_t start = now_ms();
        raw_send(fd, row.bytes);
        if (!row.silent) {
            shutdown(fd, SHUT_WR);
        }
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING)) << "others are served meanwhile";
        EXPECT_EQ("", raw_recv(fd, 100)) << "nothing is answered";
        EXPECT_EQ(row.said, traces.next()) << testing::PrintToString(row.bytes);
        if (contains(testing::PrintToString(row.said), timeout)) {
            EXPECT_GE(now_ms() - start + 1, 3000);
        }
        close(fd);
    }
    // A body in a piece of its own will do.
    int fd = raw_connect("qmuxd");
    raw_send(fd, words({2, MSG_ECHO, 0, 0, 5, 5}));
    usleep(100000);
    raw_send(fd, "hello");
    EXPECT_EQ(words({0, 5}) + "hello", raw_recv(fd, 14));
    close(fd);
    // Peers that do not take the answer: its write fails at once, without a signal.
    for (int async : {0, 1}) {
        traces.next();
        fd = raw_connect("qmuxd");
        shutdown(fd, SHUT_RD);
        raw_send(fd, words({2, MSG_TELL, async, 0, 8, 0}));
        EXPECT_TRUE(wait_until([&] { return said(module.out()).size() == traces.seen + 2; }));
        EXPECT_EQ(async ? "error|ipc send async response error!" : "error|send ipc rsp error!", traces.next().back());
        close(fd);
    }
    EXPECT_EQ(1U, occurrences(module.out(), "from=2 msg=10")) << "not dispatched without the acknowledgement";
    EXPECT_TRUE(idle(module, fds)) << count_threads(module.pid) << " threads, " << count_fds(module.pid) << " fds";
}

// A figure of /proc/PID/status, in KiB.
long memory(const Module &module, const std::string &name)
{
    const std::string status = read_file("/proc/" + std::to_string(module.pid) + "/status");
    return atol(status.c_str() + status.find(name + ":") + name.size() + 1);
}

TEST(Service, AnnouncedSizesAreNotTouched)
{
    if (SANITIZED) {
        GTEST_SKIP() << "allocates in another way";
    }
    Module module(FRWK_MODULE_QMUXD, serve_and_trace), poor(FRWK_MODULE_QTI, [] {
        serve_and_trace();
        const rlimit limit = {1U << 30, 1U << 30};
        setrlimit(RLIMIT_AS, &limit);
    });
    answer_to("qmuxd", PING);
    const long before = memory(module, "VmHWM");
    const struct {
        std::string request;
        const char *said; // where memory runs short
    } rows[] = {{words({2, MSG_ECHO, 0, 0, 0, INT_MAX}) + "x", "error|alloc for ipc recv body error!"},
                {words({2, MSG_ECHO, 0, 0, INT_MAX, 0}), "error|alloc for ipc rsp error!"},
                {words({2, MSG_ECHO, 1, 0, INT_MAX, 0}), "error|alloc for ipc rsp error!"}};
    for (const auto &row : rows) {
        for (const char *name : {"qmuxd", "qti"}) {
            int fd = raw_connect(name);
            shutdown(fd, SHUT_RD);
            raw_send(fd, row.request);
            shutdown(fd, SHUT_WR);
            usleep(20000);
            EXPECT_TRUE(
                wait_until([&] { return count_threads(module.pid) + count_threads(poor.pid) == 2 * IDLE_THREADS; }));
            close(fd);
        }
        if (!emulated()) { // no limit there
            EXPECT_EQ(Texts({receipt(7), row.said}), last(2, said(poor.out())));
        }
    }
    EXPECT_LT(memory(module, "VmHWM") - before, 16 * 1024);
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
    EXPECT_EQ(words({0, 0}), answer_to("qti", PING));
}

// Fills all 21 connection threads, sees a further connection refused, and frees them again.
void fill_and_free(Module &module)
{
    unlink(RELEASE_FILE);
    const size_t before = occurrences(module.out(), "blocked\n");
    std::vector<int> fds;
    for (size_t i = 1; i <= 21; i++) {
        fds.push_back(raw_connect("qmuxd"));
        raw_send(fds.back(), BLOCK);
        ASSERT_TRUE(wait_until([&] { return occurrences(module.out(), "blocked\n") == before + i; })) << i;
    }
    EXPECT_EQ(IDLE_THREADS + 21, count_threads(module.pid));
    for (int i = 0; i < 3; i++) {
        const size_t written = module.out().size();
        int refused = raw_connect("qmuxd");
        EXPECT_TRUE(raw_closed(refused));
        close(refused);
        const Texts lines = split_lines(module.out().substr(written));
        ASSERT_EQ(2U, lines.size()) << "the text ends in a newline of its own";
        EXPECT_EQ(Texts({"error|handle thread too many... num is 21"}), said(lines[0]));
        EXPECT_EQ("", lines[1]);
    }
    release();
    for (int fd : fds) {
        EXPECT_EQ(words({0, 0}), raw_recv(fd, 9));
        close(fd);
    }
}

TEST(Service, TwentyOneAtOnceAndNoSlotIsLost)
{
    Module module(FRWK_MODULE_QMUXD, [] {
        frwk_debug_enable(3);
        frwk_trace_set("error");
        frwk_ipc_init(test_handler);
    });
    const int fds = count_fds(module.pid);
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
    long resident = LONG_MAX;
    for (int round = 0; round < 3; round++) {
        std::vector<std::thread> peers;
        for (int peer = 0; peer < 4; peer++) {
            peers.emplace_back([] {
                for (size_t i = 0; i < (emulated() ? 50 : 250); i++) {
                    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
                    int fd = raw_connect("qmuxd");
                    raw_send(fd, PING.substr(0, i % 24));
                    shutdown(fd, SHUT_WR);
                    EXPECT_TRUE(raw_closed(fd)); // or the threads could pile up to the limit
                    close(fd);
                }
            });
        }
        for (std::thread &peer : peers) {
            peer.join();
        }
        EXPECT_TRUE(idle(module, fds)) << count_threads(module.pid) << " threads";
        const long now = memory(module, "VmRSS");
        EXPECT_TRUE(SANITIZED || emulated() || now <= resident + 1024 || round == 0)
            << now << " KiB after " << resident;
        resident = now;
    }
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
}

TEST(Service, ThreadsAndDescriptorsRunOut)
{
    Module module(FRWK_MODULE_QMUXD, [] {
        serve_and_trace();
        fail_threads = true;
    });
    EXPECT_TRUE(raw_closed(raw_connect("qmuxd")));
    EXPECT_EQ(Texts({"error|create thread error!", "error|create thread for accept handle error!"}),
              said(module.out()));

    Module poor(FRWK_MODULE_QTI, [] {
        serve_and_trace();
        const rlimit limit = {3, 100}; // what is open stays open
        setrlimit(RLIMIT_NOFILE, &limit);
    });
    int fd = raw_connect("qti");
    EXPECT_TRUE(poor.wait_out("::ipc accept error, errno=24, cause: Too many open files\n"));
    usleep(200000);
    EXPECT_LT(said(poor.out()).size(), 100U) << "the loop does not spin";
    const rlimit limit = {100, 100};
    prlimit(poor.pid, RLIMIT_NOFILE, &limit, nullptr);
    raw_send(fd, PING);
    EXPECT_EQ(words({0, 0}), raw_recv(fd, 9)) << "the connection stayed queued";
}

TEST(LocalRequest, Sync)
{
    static std::atomic<pthread_t> handled_on{};
    static const uint8_t *seen_req;
    static uint8_t *seen_rsp;
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    trace_all();
    Capture out;
    int32_t result = -1;
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 7, nullptr, 0, nullptr, 0, 0, &result)) << "whatever the handler's result";
    EXPECT_EQ(13, result);
    EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_ipc_init(nullptr));
    EXPECT_EQ(Texts({"warning|ipc handler is null!", "error|Parameter is null!"}), said(out.traces()));
    EXPECT_EQ(-5, frwk_ipc_timeout(-5));

    EXPECT_EQ(0, frwk_ipc_init(test_handler));
    EXPECT_EQ(0, frwk_ipc_init([](uint32_t from, uint32_t msg, const uint8_t *req, int32_t len, uint8_t *rsp,
                                  int32_t size, uint32_t timeout) -> int32_t {
                  handled_on = pthread_self();
                  seen_req = req;
                  seen_rsp = rsp;
                  return from == 4 && msg == 7 && len == 3 && size == 2 && timeout == 99 ? 2 : 1;
              }))
        << "replaces the earlier one";
    uint8_t req[3] = {}, rsp[2] = {};
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 7, req, 3, rsp, 2, 99, &result));
    EXPECT_EQ(2, result);
    EXPECT_TRUE(pthread_equal(pthread_self(), handled_on));
    EXPECT_TRUE(seen_req == req && seen_rsp == rsp);
    EXPECT_EQ(0, frwk_ipc_msg_set(4, 7, nullptr, 0, 0, nullptr)) << "no result word";
    EXPECT_TRUE(seen_req == nullptr && seen_rsp == nullptr);
    EXPECT_EQ(0, frwk_ipc_msg_set(4, FRWK_MSG_SYS_LOG, "1234567", 7, 0, &result));
    EXPECT_EQ("error|FRWK_MSG_SYS_LOG req is NULL", said(out.traces()).back());
}

TEST(LocalRequest, Async)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    trace_all();
    Capture out;
    frwk_ipc_init(test_handler);
    char data[] = "12";
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_TELL, data, 2, 8));
    EXPECT_TRUE(out.wait_for("from=4 msg=10 req=set len=2 rsp=null size=0 timeout=8\n")) << out.text();
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_msg_notify(4, MSG_TELL, nullptr, 0));
    EXPECT_TRUE(out.wait_for("from=4 msg=10 req=set len=0 rsp=null size=0 timeout=3\n")) << out.text();
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_BLOCK, nullptr, 0, 0)) << "does not wait";
    EXPECT_TRUE(out.wait_for("blocked\n"));
    release();
    Texts expected = {"error|call msg handler failed!"};
    const int32_t failure = 1;
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_RESULT, &failure, 4, 0));
    EXPECT_TRUE(out.wait_for("::call msg handler failed!\n"));
    EXPECT_EQ(expected, said(out.traces()));
    fail_threads = true;
    EXPECT_EQ(FRWK_ERROR_THREAD, frwk_ipc_send_async(4, MSG_TELL, nullptr, 0, 0));
    EXPECT_EQ(Texts({"error|create thread error!", "error|create aync msg handle thread error!"}),
              last(2, said(out.traces())));
}

} // namespace
