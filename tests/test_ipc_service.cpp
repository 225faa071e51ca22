// The service of a module: dispatch, hostile peers, the limit of connections; and requests to oneself.
#include <gtest/gtest.h>
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
    explicit Traces(Module &of) : module(of), seen(said(of.out()).size())
    {
    }

    Texts next()
    {
        Texts all = said(module.out());
        Texts news(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return news;
    }

    Module &module;
    size_t seen;
};

bool idle(const Module &module, int fds)
{
    return wait_until([&] { return count_threads(module.pid) == IDLE_THREADS && count_fds(module.pid) == fds; });
}

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        count++;
    }
    return count;
}

TEST(Service, LibraryMessages)
{
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t msg) { printf("control %u\n", msg); });
    ASSERT_TRUE(module.ready);
    Traces traces(module);
    for (int msg : {0, 1, 2}) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, msg, 0, 0, 0, 4, 99})));
        EXPECT_EQ(Texts({"info|Receive msg=" + std::to_string(msg) + " from module=atfwd_daemon"}), traces.next());
    }
    EXPECT_TRUE(contains(module.out(), "control 0\n") && contains(module.out(), "control 1\n") &&
                contains(module.out(), "control 2\n"));
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, 5, 0, 0, 0, 4, 99})));
    EXPECT_EQ(Texts(), traces.next()) << "pings are not traced";
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({9, 6, 0, 0, 0, 0})));
    EXPECT_EQ(Texts({"info|Receive msg=6 from module=qmuxd"}), traces.next());
    for (int64_t from : {0, 10, 11, -1, INT_MIN}) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({from, 6, 0, 0, 0, 0})));
        EXPECT_EQ(Texts({"info|Receive msg=6 from module=unknown"}), traces.next());
    }

    Module silent(FRWK_MODULE_QTI, trace_all); // no control callback
    for (int msg : {0, 1, 2}) {
        EXPECT_EQ(words({0, 0}), answer_to("qti", words({2, msg, 0, 0, 0, 0})));
    }
}

TEST(Service, LogMessage)
{
    Module module(FRWK_MODULE_QMUXD, trace_all);
    ASSERT_TRUE(module.ready);
    Traces traces(module);
    const std::string receipt = "info|Receive msg=3 from module=atfwd_daemon";
    const struct {
        std::string rest; // msg_len and the body
        Texts said;
    } rows[] = {
        {words({0}), {receipt, "error|FRWK_MSG_SYS_LOG req is NULL"}},
        {words({-8}), {receipt, "error|FRWK_MSG_SYS_LOG req is NULL"}},
        {words({4, 0}), {receipt, "error|FRWK_MSG_SYS_LOG req is NULL"}},
        {words({7, 0}) + "\x01\x02\x03", {receipt, "error|FRWK_MSG_SYS_LOG req is NULL"}},
        {words({8, 3, 15}), {receipt, "debug|new log level is 15 debug mode is 3"}},
        {words({12, 3, 8, 1}), {receipt, "debug|new log level is 8 debug mode is 3"}},
        {words({8, 3, 4}), {receipt}}, // the note obeys the new level
        {words({8, 3, 8}), {receipt, "debug|new log level is 8 debug mode is 3"}},
        {words({8, 0, 8}), {receipt}}, // and the new mode
        {words({8, 3, -7}), {}},
        {words({8, 3, 1}), {}},
        {words({0}), {"error|FRWK_MSG_SYS_LOG req is NULL"}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, 3, 0, 0, 0}) + row.rest));
        EXPECT_EQ(row.said, traces.next()) << testing::PrintToString(row.rest);
    }
}

TEST(Service, HandlerArguments)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    ASSERT_TRUE(module.ready);
    const struct {
        std::string request;
        const char *told;
    } rows[] = {
        {words({2, MSG_TELL, 0, 77, 16, 3}) + "abc", "from=2 msg=10 req=set len=3 rsp=set size=16 timeout=77\n"},
        {words({4000000000, 501, 0, 0xffffffff, 16, 0}),
         "from=4000000000 msg=501 req=null len=0 rsp=set size=16 timeout=4294967295\n"},
        {words({2, 0xffffffff, 0, 0, 1, -4}), "from=2 msg=4294967295 req=null len=-4 rsp=set size=1 timeout=0\n"},
        {words({2, MSG_TELL, 1, 3, 0, 1}) + "x", "from=2 msg=10 req=set len=1 rsp=set size=0 timeout=3\n"},
    };
    for (const auto &row : rows) {
        answer_to("qmuxd", row.request);
        std::string told = module.out();
        for (size_t at; (at = told.find(" rsp=null size=0")) != std::string::npos;) {
            told.replace(at, 9, " rsp=set"); // either will do where there is no room
        }
        EXPECT_TRUE(contains(told, row.told)) << told;
    }
    Traces traces(module);
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", words({2, MSG_RESULT, 1, 3, 0, 4, 2})));
    EXPECT_EQ(Texts({"info|Receive msg=8 from module=atfwd_daemon"}), traces.next()) << "no word on the dropped result";
}

TEST(Service, AwaitsItsHandler)
{
    Module module(FRWK_MODULE_QMUXD, trace_all, [](uint32_t) { frwk_ipc_init(test_handler); });
    ASSERT_TRUE(module.ready);
    Traces traces(module);
    const std::string receipt = "info|Receive msg=7 from module=atfwd_daemon", nothing = "warning|ipc handler is null!";
    EXPECT_EQ(words({13, 4, 0}), answer_to("qmuxd", words({2, 7, 0, 0, 4, 0})));
    EXPECT_EQ(Texts({receipt, nothing}), traces.next());
    int64_t start = now_ms();
    EXPECT_EQ(words({13, 0}), answer_to("qmuxd", words({2, 7, 0, 1, 0, 0})));
    EXPECT_GE(now_ms() - start + 1, 1000);
    EXPECT_EQ(Texts({receipt, nothing}), traces.next());

    int async = raw_connect("qmuxd");
    raw_send(async, words({2, 7, 1, 1, 0, 0}));
    EXPECT_EQ(words({0, 0}), raw_recv(async, 8)) << "acknowledged before";
    EXPECT_EQ(Texts({receipt}), traces.next());
    EXPECT_TRUE(raw_closed(async));
    EXPECT_EQ(Texts({nothing}), traces.next());
    close(async);

    for (int64_t timeout : {20, -1}) { // the longest is no overflow
        static std::vector<std::future<std::string>> held;
        held.push_back(std::async(std::launch::async, [timeout] {
            return answer_to("qmuxd", words({2, MSG_ECHO, 0, timeout, 5, 5}) + "hello");
        }));
        ASSERT_TRUE(wait_until([&] { return occurrences(module.out(), receipt.substr(5)) == 3 + held.size(); }));
        if (timeout == -1) {
            for (auto &future : held) {
                EXPECT_EQ(std::future_status::timeout, future.wait_for(std::chrono::milliseconds(150)));
            }
            answer_to("qmuxd", words({2, 1, 0, 0, 0, 0})); // registers the handler
            for (auto &future : held) {
                EXPECT_EQ(words({0, 5}) + "hello", future.get());
            }
            held.clear();
        }
    }
}

TEST(Service, AcknowledgesBeforeTheHandlerRuns)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    int async = raw_connect("qmuxd"), sync = raw_connect("qmuxd");
    raw_send(async, words({2, MSG_BLOCK, 1, 0, 4, 0}));
    EXPECT_EQ(words({0, 0, 0}), raw_recv(async, 12));
    EXPECT_FALSE(raw_closed(async, 50)) << "while the handler runs";
    raw_send(sync, BLOCK);
    EXPECT_EQ("", raw_recv(sync, 8, 50));
    EXPECT_TRUE(wait_until([&] { return occurrences(module.out(), "blocked\n") == 2; })) << "both at once";
    release();
    EXPECT_TRUE(raw_closed(async));
    EXPECT_EQ(words({0, 0}), raw_recv(sync, 9));
    close(async);
    close(sync);
}

TEST(Service, HostileFrames)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    ASSERT_TRUE(module.ready);
    const int fds = count_fds(module.pid);
    Traces traces(module);
    const std::string receipt = "info|Receive msg=10 from module=atfwd_daemon", size = "error|socket recv size error!",
                      header = "error|recv ipc header error!", body = "error|ipc recv body error!";
    const struct {
        std::string bytes;
        Texts said;
    } rows[] = {
        {"", {size, header}},
        {std::string(1, '\0'), {size, header}},
        {PING.substr(0, 23), {size, header}},
        {words({2, MSG_TELL, 0, 0, -1, 0}), {header}},
        {words({2, MSG_TELL, 0, 0, -8, 0}), {header}},
        {words({2, MSG_TELL, 1, 0, INT_MIN, 0}), {header}},
        {words({2, MSG_TELL, 0, 0, INT_MIN, 4, 4}), {header}},
        {words({2, MSG_TELL, 0, 0, 0, 10}), {receipt, size, body}},
        {words({2, MSG_TELL, 0, 0, 0, 10}) + "123456789", {receipt, size, body}},
        {words({2, MSG_TELL, 0, 0, 0, 0x4000000}) + "1", {receipt, size, body}},
    };
    for (const auto &row : rows) {
        int fd = raw_connect("qmuxd");
        raw_send(fd, row.bytes);
        shutdown(fd, SHUT_WR);
        EXPECT_EQ("", raw_recv(fd, 100)) << "nothing is answered";
        close(fd);
        EXPECT_EQ(row.said, traces.next()) << testing::PrintToString(row.bytes);
    }
    // A header or body in two pieces is not put together, however soon the rest comes.
    int fd = raw_connect("qmuxd");
    raw_send(fd, PING.substr(0, 12));
    EXPECT_TRUE(raw_closed(fd));
    raw_send(fd, PING.substr(12));
    close(fd);
    EXPECT_EQ(Texts({size, header}), traces.next());
    // A body in a piece of its own will do.
    fd = raw_connect("qmuxd");
    raw_send(fd, words({2, MSG_ECHO, 0, 0, 5, 5}));
    usleep(100000);
    raw_send(fd, "hello");
    EXPECT_EQ(words({0, 5}) + "hello", raw_recv(fd, 14));
    close(fd);

    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
    EXPECT_TRUE(idle(module, fds)) << count_threads(module.pid) << " threads, " << count_fds(module.pid)
                                   << " descriptors";
}

TEST(Service, SilentPeers)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    ASSERT_TRUE(module.ready);
    const int fds = count_fds(module.pid);
    Traces traces(module);
    const struct {
        std::string bytes;
        Texts said;
    } rows[] = {{"", {"warning|select recv timeout!", "error|recv ipc header error!"}},
                {words({2, MSG_TELL, 0, 0, 0, 10}),
                 {"info|Receive msg=10 from module=atfwd_daemon", "warning|select recv timeout!",
                  "error|ipc recv body error!"}}};
    for (const auto &row : rows) {
        int fd = raw_connect("qmuxd");
        int64_t start = now_ms();
        raw_send(fd, row.bytes);
        EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING)) << "others are served meanwhile";
        EXPECT_TRUE(raw_closed(fd));
        EXPECT_GE(now_ms() - start + 1, 3000);
        EXPECT_EQ(row.said, traces.next());
        close(fd);
    }
    EXPECT_TRUE(idle(module, fds));
}

TEST(Service, PeersThatDoNotTakeTheAnswer)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    Traces traces(module);
    for (int async : {0, 1}) {
        int fd = raw_connect("qmuxd");
        shutdown(fd, SHUT_RD); // the answer's write fails at once, without a signal
        raw_send(fd, words({2, MSG_TELL, async, 0, 8, 0}));
        Texts expected = {"info|Receive msg=10 from module=atfwd_daemon",
                          async ? "error|ipc send async response error!" : "error|send ipc rsp error!"};
        EXPECT_TRUE(wait_until([&] { return said(module.out()).size() == traces.seen + 2; }));
        EXPECT_EQ(expected, traces.next());
        close(fd);
    }
    EXPECT_EQ(1U, occurrences(module.out(), "from=2 msg=10")) << "not dispatched without the acknowledgement";
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
}

// Peak of the resident memory in KiB.
long peak_memory(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return atol(status.c_str() + status.find("VmHWM:") + 6);
}

TEST(Service, AnnouncedSizesAreNotTouched)
{
    Module module(FRWK_MODULE_QMUXD, serve_and_trace);
    ASSERT_TRUE(module.ready);
    answer_to("qmuxd", PING);
    const long before = peak_memory(module.pid);
    for (const std::string &request :
         {words({2, MSG_ECHO, 0, 0, 0, INT_MAX}) + "x", words({2, MSG_ECHO, 0, 0, INT_MAX, 0}),
          words({2, MSG_ECHO, 0, 0, INT_MAX, INT_MAX}) + "x"}) {
        int fd = raw_connect("qmuxd");
        shutdown(fd, SHUT_RD);
        raw_send(fd, request);
        shutdown(fd, SHUT_WR);
        EXPECT_TRUE(wait_until([&] { return count_threads(module.pid) == IDLE_THREADS; }));
        close(fd);
    }
    if (!SANITIZED) {
        EXPECT_LT(peak_memory(module.pid) - before, 16 * 1024);
    }
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
}

TEST(Service, MemoryRunsShort)
{
    if (SANITIZED) {
        GTEST_SKIP() << "needs address space without a limit";
    }
    Module module(FRWK_MODULE_QMUXD, [] {
        serve_and_trace();
        const rlimit limit = {1U << 30, 1U << 30};
        setrlimit(RLIMIT_AS, &limit);
    });
    Traces traces(module);
    const std::string receipt = "info|Receive msg=7 from module=atfwd_daemon";
    EXPECT_EQ("", answer_to("qmuxd", words({2, MSG_ECHO, 0, 0, INT_MAX, 0})));
    EXPECT_EQ(Texts({receipt, "error|alloc for ipc rsp error!"}), traces.next());
    int fd = raw_connect("qmuxd");
    raw_send(fd, words({2, MSG_ECHO, 1, 0, 0, INT_MAX}));
    EXPECT_TRUE(raw_closed(fd));
    close(fd);
    EXPECT_EQ(Texts({receipt, "error|alloc for ipc recv body error!"}), traces.next());
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
}

// Fills all 21 connection threads, sees a further connection refused, and frees them again.
void fill_and_free(Module &module)
{
    unlink(RELEASE_FILE);
    const size_t before = occurrences(module.out(), "blocked\n");
    std::vector<int> fds;
    for (size_t i = 1; i <= 21; i++) {
        fds.push_back(raw_connect("qmuxd"));
        ASSERT_TRUE(raw_send(fds.back(), BLOCK));
        ASSERT_TRUE(wait_until([&] { return occurrences(module.out(), "blocked\n") == before + i; })) << i;
    }
    EXPECT_EQ(IDLE_THREADS + 21, count_threads(module.pid));
    for (int i = 0; i < 3; i++) {
        const size_t lines = split_lines(module.out()).size();
        int refused = raw_connect("qmuxd");
        EXPECT_TRUE(raw_closed(refused));
        close(refused);
        Texts news = split_lines(module.out());
        news.erase(news.begin(), news.begin() + static_cast<long>(lines));
        ASSERT_EQ(2U, news.size()) << "the text ends in a newline of its own";
        EXPECT_EQ(Texts({"error|handle thread too many... num is 21"}), said(news[0]));
        EXPECT_EQ("", news[1]);
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
    ASSERT_TRUE(module.ready);
    const int fds = count_fds(module.pid);
    fill_and_free(module);
    EXPECT_TRUE(idle(module, fds));
    long pages = 0;
    for (int round = 0; round < 3; round++) {
        std::vector<std::thread> peers;
        for (int peer = 0; peer < 4; peer++) {
            peers.emplace_back([] {
                for (int i = 0; i < 250; i++) {
                    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));
                    int fd = raw_connect("qmuxd");
                    raw_send(fd, PING.substr(0, static_cast<size_t>(i) % 25));
                    close(fd);
                }
            });
        }
        for (std::thread &peer : peers) {
            peer.join();
        }
        EXPECT_TRUE(idle(module, fds)) << count_threads(module.pid) << " threads";
        const std::string memory = read_file("/proc/" + std::to_string(module.pid) + "/statm");
        const long resident = atol(memory.c_str() + memory.find(' '));
        if (round > 0 && !SANITIZED) {
            EXPECT_LT(resident - pages, 256) << "pages more after another 2000 connections";
        }
        pages = resident;
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
    Traces traces(module);
    int refused = raw_connect("qmuxd");
    EXPECT_TRUE(raw_closed(refused));
    close(refused);
    EXPECT_EQ(Texts({"error|create thread error!", "error|create thread for accept handle error!"}), traces.next());

    Module poor(FRWK_MODULE_QTI, [] {
        serve_and_trace();
        const rlimit limit = {3, 100}; // what is open stays open
        setrlimit(RLIMIT_NOFILE, &limit);
    });
    int fd = raw_connect("qti");
    EXPECT_TRUE(poor.wait_out("::ipc accept error, errno=24, cause: Too many open files\n"));
    usleep(200000);
    EXPECT_LT(said(poor.out()).size(), 100U) << "the loop does not spin";
    rlimit more;
    prlimit(poor.pid, RLIMIT_NOFILE, nullptr, &more);
    more.rlim_cur = more.rlim_max;
    prlimit(poor.pid, RLIMIT_NOFILE, &more, nullptr);
    raw_send(fd, PING);
    EXPECT_EQ(words({0, 0}), raw_recv(fd, 9)) << "the connection stayed queued";
    close(fd);
}

TEST(Service, Registration)
{
    trace_all();
    Capture out;
    EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_ipc_init(nullptr));
    EXPECT_EQ(Texts({"error|Parameter is null!"}), said(out.traces()));
    for (int value : {0, -1, 5, INT_MAX, INT_MIN}) {
        EXPECT_EQ(value, frwk_ipc_timeout(value));
    }
    EXPECT_EQ(1U, out.traces().size());
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
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 7, nullptr, 0, nullptr, 0, 0, &result))
        << "success, whatever the handler's result";
    EXPECT_EQ(13, result);
    EXPECT_EQ(Texts({"warning|ipc handler is null!"}), said(out.traces()));

    EXPECT_EQ(0, frwk_ipc_init(test_handler));
    EXPECT_EQ(0, frwk_ipc_init([](uint32_t from, uint32_t msg, const uint8_t *req, int32_t len, uint8_t *rsp,
                                  int32_t size, uint32_t timeout) -> int32_t {
                  handled_on = pthread_self();
                  seen_req = req;
                  seen_rsp = rsp;
                  if (msg == 8) { // nested, not queued
                      int32_t nested = 0;
                      EXPECT_EQ(0, frwk_ipc_send_sync(4, 9, req, len, rsp, size, timeout, &nested));
                      return nested + 1;
                  }
                  return from == 4 && len == 3 && size == 2 && timeout == 99 ? 2 : 1;
              }))
        << "replaces the earlier one";
    uint8_t req[3] = {}, rsp[2] = {7, 7};
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 7, req, 3, rsp, 2, 99, &result));
    EXPECT_EQ(2, result);
    EXPECT_TRUE(pthread_equal(pthread_self(), handled_on));
    EXPECT_EQ(req, seen_req);
    EXPECT_EQ(rsp, seen_rsp);
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 8, req, 3, rsp, 2, 99, &result));
    EXPECT_EQ(3, result);
    EXPECT_EQ(0, frwk_ipc_msg_set(4, 7, nullptr, 0, 0, nullptr)) << "no result word";
    EXPECT_EQ(nullptr, seen_req);
    EXPECT_EQ(nullptr, seen_rsp);
    frwk_set_module_status(0xfedcba98);
    uint32_t status = 0;
    EXPECT_EQ(0, frwk_ipc_msg_get(4, FRWK_MSG_SYS_STATUS, &status, 4, 0, &result));
    EXPECT_EQ(0xfedcba98, status);
    EXPECT_EQ(0, frwk_ipc_msg_get(4, FRWK_MSG_SYS_STATUS, &status, 3, 0, &result));
    EXPECT_EQ(3, result);
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
    EXPECT_TRUE(out.traces().empty()) << out.text();
    const int32_t failure = 1;
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_RESULT, &failure, 4, 0));
    EXPECT_TRUE(out.wait_for("::call msg handler failed!\n"));
    EXPECT_EQ(Texts({"error|call msg handler failed!"}), said(out.traces()));
    fail_threads = true;
    EXPECT_EQ(FRWK_ERROR_THREAD, frwk_ipc_send_async(4, MSG_TELL, nullptr, 0, 0));
    fail_threads = false;
    EXPECT_EQ(Texts({"error|call msg handler failed!", "error|create thread error!",
                     "error|create aync msg handle thread error!"}),
              said(out.traces()));
}

} // namespace
