// The request calls, against raw peers that answer well or badly and against real modules.
#include <sys/socket.h>

#include <future>
#include <thread>

#include "stand_ins.h"

static std::function<void()> after_connect; // called in the library's connect() once it has succeeded

extern "C" int connect(int fd, const sockaddr *address, socklen_t size)
{
    const int result = real_call<int(int, const sockaddr *, socklen_t)>("connect")(fd, address, size);
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

// Takes one connection as a module, reads a request of `size` bytes, answers with each piece in a write of its own,
// and closes.
struct RawModule {
    RawModule(size_t size, const Texts &pieces)
        : listener(raw_listen("qmuxd")), served(std::async(std::launch::async, [=] {
              int fd = raw_accept(listener);
              EXPECT_EQ(size, raw_recv(fd, size).size());
              for (const std::string &piece : pieces) {
                  raw_send(fd, piece);
                  usleep(50000);
              }
              close(fd);
          }))
    {
    }
    ~RawModule()
    {
        served.get();
        close(listener);
    }

    int listener;
    std::future<void> served;
};

Texts connect_failed(const Texts &names)
{
    Texts texts;
    for (const std::string &name : names) {
        texts.push_back("error|socket connect error");
        texts.push_back("error|ipc connect to module [" + name + "] failed!");
    }
    return texts;
}

TEST(Request, Outcomes)
{
    become_requester();
    const Texts none, header = {"error|ipc recv rsp header failed!"}, data = {"error|ipc recv rsp data failed!"};
    const int32_t UNWRITTEN = 4711;
    const struct {
        Texts answer;
        int outcome;
        int32_t result;
        std::string rsp; // of 8 bytes "........", where it is defined
        Texts said;
    } rows[] = {{{words({0, 0})}, 0, 0, "........", none},
                {{words({2, 0})}, 2, 2, "........", none},
                {{words({-1, -5}) + "1234"}, 0, -1, "........", none},
                {{words({19, 8}) + "12345678"}, 0, 19, "12345678", none},
                {{words({2, 8}) + "12345678"}, 2, 2, "12345678", none},
                {{words({13, 4}) + "1234"}, 0, 13, "1234....", none},
                {{words({0, 8}) + "123", "45", "678"}, 0, 0, "12345678", none},
                {{words({0, 8}), "12345678"}, 0, 0, "12345678", none},
                {{}, 19, UNWRITTEN, "", header},
                {{words({0, 8}).substr(0, 7)}, 19, UNWRITTEN, "", header},
                {{words({0}), words({8}) + "12345678"}, 19, UNWRITTEN, "", header}, // not put together
                {{words({0, 8})}, 19, UNWRITTEN, "", data},
                {{words({2, 8}) + "123", "4567"}, 19, UNWRITTEN, "", data},
                {{words({0, 4}) + "123456"}, 19, UNWRITTEN, "", data}}; // more than announced
    const int fds = count_fds(getpid());
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.answer));
        Capture out;
        char rsp[] = "........";
        int32_t result = UNWRITTEN;
        {
            RawModule module(24 + 3, row.answer);
            EXPECT_EQ(row.outcome, frwk_ipc_send_sync(9, 7, "req", 3, rsp, 8, 1, &result));
        }
        EXPECT_EQ(row.result, result);
        EXPECT_TRUE(row.rsp.empty() || row.rsp == rsp) << rsp;
        EXPECT_EQ(row.said, said(out.traces()));
        {
            RawModule module(24, row.answer); // what the acknowledgement holds is of no interest
            EXPECT_EQ(row.said == header ? 19 : 15, frwk_ipc_send_async(9, 7, nullptr, 0, 1));
        }
        EXPECT_EQ(row.said == header ? 2U : row.said.size(), out.traces().size());
        RawModule module(24, row.answer);
        EXPECT_EQ(row.outcome, frwk_ipc_msg_get(9, 7, rsp, 8, 1, nullptr)) << "without a result word";
    }
    // The peer is gone before the frame is written.
    for (bool async : {false, true}) {
        Capture out;
        int listener = raw_listen("qmuxd");
        after_connect = [&] { close(listener); };
        EXPECT_EQ(FRWK_ERROR_SEND, async ? frwk_ipc_send_async(9, 7, "req", 3, 1)
                                         : frwk_ipc_send_sync(9, 7, "req", 3, nullptr, 0, 1, nullptr));
        after_connect = nullptr;
        EXPECT_EQ(Texts({"error|ipc send req msg failed!"}), said(out.traces()));
        EXPECT_EQ(FRWK_ERROR_NO_MODULE, frwk_ipc_msg_notify(9, 7, nullptr, 0)) << "a socket without a listener";
        unlink(socket_path("qmuxd").c_str());
        EXPECT_EQ(FRWK_ERROR_NO_MODULE, frwk_ipc_msg_set(9, 7, nullptr, 0, 1, nullptr));
        EXPECT_EQ(connect_failed({"qmuxd", "qmuxd"}), last(4, said(out.traces())));
    }
    EXPECT_EQ(fds, count_fds(getpid()));
}

TEST(Request, LargerAnswerEndsTheProcess)
{
    for (int32_t size : {0, 4}) {
        RawModule module(24, {words({0, 5}) + "12345"});
        const Result child = run_child([size] {
            become_requester();
            char rsp[4];
            frwk_ipc_msg_get(9, 7, size ? rsp : nullptr, size, 1, nullptr);
        });
        expect_assertion(child, "logtool", "rsphdr.msg_len <= rspsize");
    }
}

TEST(Request, Arguments)
{
    become_requester();
    char buf[4];
    const std::string arguments = "error|invalid request arguments!";
    const struct {
        uint32_t to;
        const void *req;
        int32_t req_len;
        void *rsp;
        int32_t rsp_size;
        int outcome;
        std::string said;
    } rows[] = {{0, nullptr, 0, nullptr, 0, 1, "error|invalid module id=0"},
                {10, nullptr, 4, nullptr, 4, 1, "error|invalid module id=10"},
                {0xffffffff, buf, 4, nullptr, 0, 1, "error|invalid module id=-1"},
                {9, nullptr, 4, buf, 4, 3, arguments},
                {9, buf, -1, buf, 4, 3, arguments},
                {4, nullptr, 1, buf, 4, 3, arguments},
                {4, buf, INT32_MIN, buf, 4, 3, arguments},
                {9, buf, 4, nullptr, 4, 3, arguments},
                {9, buf, 4, buf, -1, 3, arguments},
                {4, buf, 4, nullptr, 1, 3, arguments},
                {4, buf, 4, buf, INT32_MIN, 3, arguments}};
    int listener = raw_listen("qmuxd");
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(std::make_tuple(row.to, row.req_len, row.rsp_size)));
        const bool of_request = row.rsp != nullptr && row.rsp_size == 4; // the fault is not the response's
        Capture out;
        EXPECT_EQ(row.outcome, frwk_ipc_send_sync(row.to, 7, row.req, row.req_len, row.rsp, row.rsp_size, 1, nullptr));
        if (of_request || row.outcome == 1) {
            EXPECT_EQ(row.outcome, frwk_ipc_send_async(row.to, 7, row.req, row.req_len, 1));
        } else {
            EXPECT_EQ(row.outcome, frwk_ipc_msg_get(row.to, 7, row.rsp, row.rsp_size, 1, nullptr));
        }
        EXPECT_EQ(Texts(2, row.said), said(out.traces()));
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
                {{words({0, 4})}, 0},
                {{}, 0}};
    for (const auto &row : rows) {
        RawModule module(24, row.answer);
        EXPECT_EQ(row.status, frwk_get_module_status(9));
    }
    Capture out;
    EXPECT_EQ(0U, frwk_get_module_status(8));
    EXPECT_EQ(connect_failed({"qti"}), said(out.traces()));
    EXPECT_EQ(0U, frwk_get_module_status(10));
    EXPECT_EQ("error|invalid module id=10", said(out.traces()).back());
    frwk_set_module_status(77);
    EXPECT_EQ(77U, frwk_get_module_status(4));
    EXPECT_EQ(3U, out.traces().size());
}

// Acknowledges what arrives for these modules while `send` runs; "name: frame" of each.
Texts taken(const Texts &modules, const std::function<void()> &send)
{
    Texts texts;
    std::vector<int> listeners;
    for (const std::string &name : modules) {
        listeners.push_back(raw_listen(name));
    }
    std::atomic<bool> sent{false};
    std::thread taker([&] {
        for (size_t i = 0; !sent; i = (i + 1) % modules.size()) {
            int fd = raw_accept(listeners[i], 1);
            if (fd >= 0) {
                const std::string header = raw_recv(fd, 24);
                texts.push_back(modules[i] + ": " + header + raw_recv(fd, static_cast<uint8_t>(header[20])));
                raw_send(fd, words({0, 0}));
                close(fd);
            }
        }
    });
    send();
    sent = true;
    taker.join();
    for (size_t i = 0; i < modules.size(); i++) {
        close(listeners[i]);
        unlink(socket_path(modules[i]).c_str());
    }
    return texts;
}

TEST(Request, Broadcasts)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    const Texts all = {"monitor", "dial_test", "logtool", "serial_bridge", "monitor_tool", "mbimd", "qti", "qmuxd"};
    const Texts reversed(all.rbegin(), all.rend());
    const auto to = [](Texts names, const std::string &frame) {
        for (std::string &name : names) {
            name += ": " + frame;
        }
        return names;
    };
    EXPECT_EQ(to({"serial_bridge", "mbimd", "qti", "qmuxd"}, words({2, 700, 1, 3, 0, 0})),
              taken(reversed, [] { frwk_ipc_msg_broadcast(700); }));
    EXPECT_EQ(to(all, words({2, 701, 1, 3, 0, 4}) + "data"),
              taken(reversed, [] { frwk_ipc_msg_broadcast_data(701, "data", 4); }));
    // The caller's own table decides.
    g_s_modules_info[FRWK_MODULE_MONITOR].flags = FRWK_MODULE_FLAG_MONITOR_SERVICE;
    g_s_modules_info[FRWK_MODULE_QTI].flags = FRWK_MODULE_FLAG_SYSLOG | FRWK_MODULE_FLAG_IPC;
    EXPECT_EQ(to({"monitor", "serial_bridge", "mbimd", "qmuxd"}, words({2, 0, 1, 3, 0, 0})),
              taken(reversed, [] { frwk_ipc_msg_broadcast(0); }));

    // Who does not take it is traced and skipped.
    trace_all();
    Capture out;
    EXPECT_EQ(to({"mbimd"}, words({2, 700, 1, 3, 0, 0})), taken({"mbimd"}, [] { frwk_ipc_msg_broadcast(700); }));
    EXPECT_EQ(connect_failed({"monitor", "serial_bridge", "qmuxd"}), said(out.traces()));
    frwk_ipc_msg_broadcast_data(700, nullptr, 0);
    EXPECT_EQ(connect_failed(all), last(16, said(out.traces())));
}

TEST(Request, BetweenModules)
{
    Module monitor(FRWK_MODULE_MONITOR, serve_and_trace), qmuxd(FRWK_MODULE_QMUXD, serve_and_trace);
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    ASSERT_EQ(0, frwk_ipc_init(test_handler));
    for (int32_t handled : {0, 2, 13, 19, -1, 1}) {
        int32_t result = 4711;
        EXPECT_EQ(handled == 2 ? 2 : 0, frwk_ipc_msg_set(9, MSG_RESULT, &handled, 4, 1, &result));
        EXPECT_EQ(handled, result);
        EXPECT_EQ(0, frwk_ipc_msg_set(2, MSG_RESULT, &handled, 4, 1, &result)) << "to oneself";
        EXPECT_EQ(handled, result);
        EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_msg_notify(9, MSG_RESULT, &handled, 4));
    }
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(9, MSG_BLOCK, nullptr, 0, 1)) << "a slow handler delays nobody";
    const uint8_t sent[2] = {1, 2};
    uint8_t got[2] = {};
    EXPECT_EQ(0, frwk_ipc_send_sync(9, MSG_ECHO, sent, sizeof sent, got, sizeof got, 1, nullptr));
    EXPECT_TRUE(got[0] == 1 && got[1] == 2);
    EXPECT_EQ(1, frwk_system_reboot(5));
    EXPECT_EQ(1, frwk_system_reset(5));
    EXPECT_TRUE(monitor.wait_out("from=2 msg=501 req=set len=4")) << monitor.out();
    EXPECT_TRUE(monitor.wait_out("from=2 msg=502 req=set len=4")) << monitor.out();
    monitor.stop(SIGKILL);
    EXPECT_EQ(0, frwk_system_reboot(5));
    EXPECT_EQ(0, frwk_system_reset(5));
    release();
}

} // namespace
