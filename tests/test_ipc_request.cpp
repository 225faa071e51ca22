// The request calls, against raw peers that answer well or badly and against real modules.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <future>
#include <regex>
#include <thread>

#include "stand_ins.h"

namespace {

std::function<void()> after_connect; // called in the library's connect() once it has succeeded

} // namespace

extern "C" int connect(int fd, const sockaddr *address, socklen_t size)
{
    static const auto real = real_call<int(int, const sockaddr *, socklen_t)>("connect");
    const int result = real(fd, address, size);
    if (result == 0 && after_connect) {
        EXPECT_EQ(110U, size) << "the full size of the address";
        after_connect();
    }
    return result;
}

namespace {

using namespace frwk_test;

// A module that has no service of its own and traces everything.
void become_requester()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    trace_all();
}

// Takes one connection, reads a request of `size` bytes, answers with each piece in a write of its own, and closes.
std::future<void> serve_once(int listener, size_t size, const Texts &pieces)
{
    return std::async(std::launch::async, [=] {
        int fd = raw_accept(listener);
        EXPECT_EQ(size, raw_recv(fd, size).size());
        for (const std::string &piece : pieces) {
            raw_send(fd, piece);
            usleep(50000);
        }
        close(fd);
    });
}

TEST(Request, Outcomes)
{
    become_requester();
    const std::string header_failed = "error|ipc recv rsp header failed!",
                      data_failed = "error|ipc recv rsp data failed!";
    const int32_t UNWRITTEN = 4711;
    const struct {
        Texts answer;
        int32_t rsp_size;
        int outcome;
        int32_t result;
        std::string rsp; // of 8 bytes "........"
        Texts said;
    } rows[] = {
        {{words({0, 0})}, 0, 0, 0, "", {}},
        {{words({2, 0})}, 0, 2, 2, "", {}},
        {{words({13, 0})}, 0, 0, 13, "", {}},
        {{words({-1, 0})}, 8, 0, -1, "........", {}},
        {{words({19, 8}) + "12345678"}, 8, 0, 19, "12345678", {}},
        {{words({2, 8}) + "12345678"}, 8, 2, 2, "12345678", {}},
        {{words({0, 4}) + "1234"}, 8, 0, 0, "1234....", {}},
        {{words({0, -5})}, 8, 0, 0, "........", {}},
        {{words({0, 8}) + "123", "45", "678"}, 8, 0, 0, "12345678", {}}, // in pieces
        {{words({0, 8}), "12345678"}, 8, 0, 0, "12345678", {}},
        {{}, 8, 19, UNWRITTEN, "", {header_failed}}, // closed
        {{words({0, 8}).substr(0, 7)}, 8, 19, UNWRITTEN, "", {header_failed}},
        {{words({0}), words({8}) + "12345678"}, 8, 19, UNWRITTEN, "", {header_failed}}, // a header must come whole
        {{words({0, 8})}, 8, 19, UNWRITTEN, "", {data_failed}},
        {{words({0, 8}) + "1234567"}, 8, 19, UNWRITTEN, "", {data_failed}},
        {{words({2, 8}) + "123", "4567"}, 8, 19, UNWRITTEN, "", {data_failed}},
        {{words({0, 4}) + "123456"}, 8, 19, UNWRITTEN, "", {data_failed}}, // more than announced
    };
    const int fds = count_fds(getpid());
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.answer));
        int listener = raw_listen("qmuxd");
        for (bool with_result : {true, false}) {
            Capture out;
            auto served = serve_once(listener, 24 + 3, row.answer);
            char rsp[] = "........";
            int32_t result = UNWRITTEN;
            EXPECT_EQ(row.outcome, frwk_ipc_send_sync(9, 7, "req", 3, row.rsp_size ? rsp : nullptr, row.rsp_size, 1,
                                                      with_result ? &result : nullptr));
            served.get();
            EXPECT_EQ(with_result ? row.result : UNWRITTEN, result);
            if (!row.rsp.empty()) {
                EXPECT_EQ(row.rsp, rsp);
            }
            EXPECT_EQ(row.said, said(out.traces()));
        }
        close(listener);
    }
    EXPECT_EQ(fds, count_fds(getpid()));
}

TEST(Request, AsyncOutcomes)
{
    become_requester();
    const struct {
        Texts answer;
        int outcome;
        Texts said;
    } rows[] = {
        {{words({0, 0})}, 15, {}},
        {{words({7, 1000})}, 15, {}}, // not looked at
        {{}, 19, {"error|ipc recv rsp header failed!"}},
        {{words({0, 0}).substr(0, 7)}, 19, {"error|ipc recv rsp header failed!"}},
    };
    for (const auto &row : rows) {
        int listener = raw_listen("qmuxd");
        Capture out;
        auto served = serve_once(listener, 24, row.answer);
        EXPECT_EQ(row.outcome, frwk_ipc_send_async(9, 7, nullptr, 0, 1));
        served.get();
        EXPECT_EQ(row.said, said(out.traces()));
        close(listener);
    }
}

TEST(Request, PeerGoneBeforeTheFrameIsWritten)
{
    become_requester();
    for (bool async : {false, true}) {
        Capture out;
        int listener = raw_listen("qmuxd");
        after_connect = [&] { close(listener); };
        int32_t result = 4711;
        EXPECT_EQ(FRWK_ERROR_SEND, async ? frwk_ipc_send_async(9, 7, "req", 3, 1)
                                         : frwk_ipc_send_sync(9, 7, "req", 3, nullptr, 0, 1, &result));
        after_connect = nullptr;
        EXPECT_EQ(4711, result);
        EXPECT_EQ(Texts({"error|ipc send req msg failed!"}), said(out.traces()));
    }
}

TEST(Request, LargerAnswerEndsTheProcess)
{
    for (int32_t size : {0, 4}) {
        int listener = raw_listen("qmuxd");
        auto served = serve_once(listener, 24, {words({0, 5}) + "12345"});
        Result child = run_child([size] {
            become_requester();
            char rsp[4];
            frwk_ipc_msg_get(9, 7, size ? rsp : nullptr, size, 1, nullptr);
        });
        served.get();
        EXPECT_TRUE(child.aborted()) << child;
        EXPECT_TRUE(std::regex_match(
            child.err, std::regex("\\[logtool\\]ASSERT\\([^|]+\\|[^|]+\\|[0-9]+\\), rsphdr\\.msg_len <= rspsize\n")))
            << child;
        close(listener);
    }
}

TEST(Request, Arguments)
{
    become_requester();
    char buf[4];
    const std::string arguments = "error|invalid request arguments!";
    const struct {
        std::function<int()> call;
        int outcome;
        std::string said;
    } rows[] = {
        {[&] { return frwk_ipc_send_sync(0, 7, nullptr, 0, nullptr, 0, 1, nullptr); }, 1, "error|invalid module id=0"},
        {[&] { return frwk_ipc_send_sync(10, 7, nullptr, 4, nullptr, 0, 1, nullptr); }, 1,
         "error|invalid module id=10"},
        {[&] { return frwk_ipc_send_sync(0xffffffff, 7, buf, 4, nullptr, 0, 1, nullptr); }, 1,
         "error|invalid module id=-1"},
        {[&] { return frwk_ipc_send_sync(9, 7, nullptr, 4, buf, 4, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_send_sync(9, 7, buf, 4, nullptr, 4, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_send_sync(9, 7, buf, -1, buf, 4, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_send_sync(9, 7, buf, 4, buf, INT32_MIN, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_send_sync(4, 7, nullptr, 4, buf, 4, 1, nullptr); }, 3, arguments}, // to oneself as well
        {[&] { return frwk_ipc_send_sync(4, 7, buf, -4, buf, 4, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_send_async(0, 7, nullptr, 0, 1); }, 1, "error|invalid module id=0"},
        {[&] { return frwk_ipc_send_async(10, 7, nullptr, 1, 1); }, 1, "error|invalid module id=10"},
        {[&] { return frwk_ipc_send_async(9, 7, nullptr, 1, 1); }, 3, arguments},
        {[&] { return frwk_ipc_send_async(4, 7, nullptr, 1, 1); }, 3, arguments},
        {[&] { return frwk_ipc_send_async(9, 7, buf, -1, 1); }, 3, arguments},
        {[&] { return frwk_ipc_send_async(4, 7, buf, INT32_MIN, 1); }, 3, arguments},
        {[&] { return frwk_ipc_msg_get(9, 7, nullptr, 1, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_msg_set(9, 7, nullptr, 1, 1, nullptr); }, 3, arguments},
        {[&] { return frwk_ipc_msg_set(11, 7, nullptr, 0, 1, nullptr); }, 1, "error|invalid module id=11"},
        {[&] { return frwk_ipc_msg_notify(9, 7, nullptr, 1); }, 3, arguments},
        {[&] { return static_cast<int>(frwk_get_module_status(10)); }, 0, "error|invalid module id=10"},
    };
    int row_number = 0;
    int listener = raw_listen("qmuxd");
    for (const auto &row : rows) {
        SCOPED_TRACE(row_number++);
        Capture out;
        EXPECT_EQ(row.outcome, row.call());
        EXPECT_EQ(Texts({row.said}), said(out.traces()));
    }
    EXPECT_EQ(-1, raw_accept(listener, 0)) << "nobody connected";
    close(listener);
}

TEST(Request, Status)
{
    become_requester();
    const struct {
        Texts answer;
        uint32_t status;
    } rows[] = {{{words({0, 4, 0xfedcba98})}, 0xfedcba98},
                {{words({2, 4, 5})}, 0},
                {{words({3, 4, 5})}, 0},
                {{words({-1, 4, 5})}, 0},
                {{words({0, 4})}, 0},
                {{}, 0}};
    for (const auto &row : rows) {
        int listener = raw_listen("qmuxd");
        auto served = serve_once(listener, 24, row.answer);
        EXPECT_EQ(row.status, frwk_get_module_status(9));
        served.get();
        close(listener);
    }
    unlink(socket_path("qmuxd").c_str());
    Capture out;
    EXPECT_EQ(0U, frwk_get_module_status(9));
    EXPECT_EQ(Texts({"error|socket connect error", "error|ipc connect to module [qmuxd] failed!"}), said(out.traces()));
    frwk_set_module_status(77);
    EXPECT_EQ(77U, frwk_get_module_status(4));
    EXPECT_EQ(2U, out.traces().size());
}

// Takes and acknowledges what arrives for any of the modules until told to stop; "name" and the frame of each.
std::vector<std::pair<std::string, std::string>> take_all(const Texts &modules, const std::function<void()> &send)
{
    std::vector<std::pair<std::string, std::string>> taken;
    std::vector<int> listeners;
    for (const std::string &name : modules) {
        listeners.push_back(raw_listen(name));
    }
    std::atomic<bool> sent{false};
    std::thread taker([&] {
        while (!sent) {
            for (size_t i = 0; i < modules.size(); i++) {
                int fd = raw_accept(listeners[i], 0);
                if (fd >= 0) {
                    std::string frame = raw_recv(fd, 24);
                    frame += raw_recv(fd, static_cast<uint8_t>(frame[20]));
                    taken.emplace_back(modules[i], frame);
                    raw_send(fd, words({0, 0}));
                    close(fd);
                }
            }
            usleep(1000);
        }
    });
    send();
    sent = true;
    taker.join();
    for (size_t i = 0; i < modules.size(); i++) {
        close(listeners[i]);
        unlink(socket_path(modules[i]).c_str());
    }
    return taken;
}

using Taken = std::vector<std::pair<std::string, std::string>>;

TEST(Request, Broadcasts)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    const Texts all = {"qmuxd", "qti", "mbimd", "monitor_tool", "serial_bridge", "logtool", "dial_test", "monitor"};
    const auto to = [](const Texts &names, const std::string &frame) {
        Taken expected;
        for (const std::string &name : names) {
            expected.emplace_back(name, frame);
        }
        return expected;
    };
    EXPECT_EQ(to({"serial_bridge", "mbimd", "qti", "qmuxd"}, words({2, 700, 1, 3, 0, 0})),
              take_all(all, [] { frwk_ipc_msg_broadcast(700); }));
    EXPECT_EQ(to({"monitor", "dial_test", "logtool", "serial_bridge", "monitor_tool", "mbimd", "qti", "qmuxd"},
                 words({2, 701, 1, 3, 0, 4}) + "data"),
              take_all(all, [] { frwk_ipc_msg_broadcast_data(701, "data", 4); }));
    // The caller's own table decides.
    g_s_modules_info[FRWK_MODULE_MONITOR].flags = FRWK_MODULE_FLAG_MONITOR_SERVICE;
    g_s_modules_info[FRWK_MODULE_QTI].flags = FRWK_MODULE_FLAG_SYSLOG | FRWK_MODULE_FLAG_IPC;
    EXPECT_EQ(to({"monitor", "serial_bridge", "mbimd", "qmuxd"}, words({2, 0, 1, 3, 0, 0})),
              take_all(all, [] { frwk_ipc_msg_broadcast(0); }));

    // Who does not take it is traced and skipped.
    trace_all();
    Capture out;
    EXPECT_EQ(to({"mbimd"}, words({2, 700, 1, 3, 0, 0})), take_all({"mbimd"}, [] { frwk_ipc_msg_broadcast(700); }));
    Texts expected;
    for (const char *name : {"monitor", "serial_bridge", "qmuxd"}) {
        expected.push_back("error|socket connect error");
        expected.push_back("error|ipc connect to module [" + std::string(name) + "] failed!");
    }
    EXPECT_EQ(expected, said(out.traces()));
    for (const char *name :
         {"monitor", "dial_test", "logtool", "serial_bridge", "monitor_tool", "mbimd", "qti", "qmuxd"}) {
        expected.push_back("error|socket connect error");
        expected.push_back("error|ipc connect to module [" + std::string(name) + "] failed!");
    }
    frwk_ipc_msg_broadcast_data(700, nullptr, 0);
    EXPECT_EQ(expected, said(out.traces()));
}

TEST(Request, BetweenModules)
{
    Module monitor(FRWK_MODULE_MONITOR, serve_and_trace), qmuxd(FRWK_MODULE_QMUXD, [] {
        serve_and_trace();
        frwk_set_module_status(0x80000001);
    });
    ASSERT_TRUE(monitor.ready && qmuxd.ready);
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    ASSERT_EQ(0, frwk_ipc_init(test_handler));
    const struct {
        int32_t handler;
        int remote;
    } rows[] = {{0, 0}, {2, 2}, {13, 0}, {19, 0}, {-1, 0}, {1, 0}};
    for (const auto &row : rows) {
        int32_t result = 4711;
        EXPECT_EQ(row.remote, frwk_ipc_msg_set(9, MSG_RESULT, &row.handler, 4, 1, &result));
        EXPECT_EQ(row.handler, result);
        EXPECT_EQ(0, frwk_ipc_msg_set(2, MSG_RESULT, &row.handler, 4, 1, &result)) << "to oneself";
        EXPECT_EQ(row.handler, result);
        EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_msg_notify(9, MSG_RESULT, &row.handler, 4));
    }
    EXPECT_EQ(0x80000001, frwk_get_module_status(9));
    EXPECT_EQ(1, frwk_system_reboot(5));
    EXPECT_EQ(1, frwk_system_reset(5));
    EXPECT_TRUE(monitor.wait_out("from=2 msg=501 req=set len=4")) << monitor.out();
    EXPECT_TRUE(monitor.wait_out("from=2 msg=502 req=set len=4")) << monitor.out();
    monitor.stop(SIGKILL);
    EXPECT_EQ(0, frwk_system_reboot(5));
    EXPECT_EQ(0, frwk_system_reset(5));
    EXPECT_EQ(FRWK_ERROR_NO_MODULE, frwk_ipc_msg_notify(1, 7, nullptr, 0));

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < 100; i++) {
                int sent[2] = {t, i}, got[2] = {-1, -1};
                EXPECT_EQ(0, frwk_ipc_send_sync(9, MSG_ECHO, sent, sizeof sent, got, sizeof got, 1, nullptr));
                EXPECT_TRUE(sent[0] == got[0] && sent[1] == got[1]) << t << " " << i;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(9, MSG_BLOCK, nullptr, 0, 1)) << "a slow handler delays nobody";
    EXPECT_TRUE(qmuxd.wait_out("blocked"));
    release();
}

} // namespace
