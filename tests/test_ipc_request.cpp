/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The request calls: what they send, byte by byte, and what they make of answers good and bad; against raw peers, real
// modules, and the module itself.
#include "frwk_test.h"

#include <sys/socket.h>

#include <future>

namespace {

// A module that has no service of its own and traces everything.
void become_requester()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    trace_all();
}

// Runs `call` while something takes one connection as a module, expects this frame and no more, answers with each
// piece in a write of its own, and closes.
int64_t with_peer(const char *name, const std::string &frame, const Texts &pieces, const std::function<int64_t()> &call)
{
    int listener = raw_listen(name);
    auto served = std::async(std::launch::async, [&] {
        int fd = raw_accept(listener);
        EXPECT_EQ(frame, raw_recv(fd, frame.size()));
        char more;
        EXPECT_EQ(-1, recv(fd, &more, 1, MSG_DONTWAIT)) << "more than a frame, or shut down";
        for (const std::string &piece : pieces) {
            raw_send(fd, piece);
            usleep(50000);
        }
        close(fd);
    });
    const int64_t value = call();
    served.get();
    close(listener);
    unlink(socket_path(name).c_str());
    return value;
}

Texts connect_failed(const Texts &names)
{
    Texts texts;
    for (const std::string &name : names) {
        texts.push_back("error|socket connect error");
        texts.push_back("error|ipc connect to module [" + name + "] failed!");
    }
    return texts;
}

TEST(Request, Frames)
{
    become_requester();
    const auto status = [] { return frwk_get_module_status(6); };
    static uint8_t rsp[3];
    const std::string status_request = words({4, 4, 0, 3, 4, 0});
    const struct {
        const char *target;
        std::function<int64_t()> call;
        std::string frame, answer;
        int64_t value;
    } rows[] = {{"qmuxd", [] { return frwk_ipc_msg_get(9, 9, rsp, 3, 5, nullptr); }, words({4, 9, 0, 5, 3, 0}),
                 words({0, 3}) + "abc", 0},
                {"qti", [] { return frwk_ipc_msg_set(8, 10, "xy", 2, 6, nullptr); }, words({4, 10, 0, 6, 0, 2}) + "xy",
                 words({2, 0}), 2},
                {"dial_test", [] { return frwk_ipc_msg_notify(3, 11, "z", 1); }, words({4, 11, 1, 3, 0, 1}) + "z",
                 words({0, 0}), 15},
                {"monitor", [] { return frwk_system_reboot(0xdeadbeef); }, words({4, 501, 1, 3, 0, 4, 0xdeadbeef}),
                 words({0, 0}), 1},
                {"monitor", [] { return frwk_system_reset(1); }, words({4, 502, 1, 3, 0, 4, 1}), "", 0},
                {"monitor_tool", status, status_request, words({0, 4, 0xfedcba98}), 0xfedcba98},
                {"monitor_tool", status, status_request, words({3, 4, 5}), 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.value, with_peer(row.target, row.frame, {row.answer}, row.call)) << row.target;
    }
    EXPECT_EQ(0U, frwk_get_module_status(8)) << "nobody there";
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
    } rows[] = {{{words({-1, -5}) + "1234"}, 0, -1, "........", none},
                {{words({2, 8}) + "12345678"}, 2, 2, "12345678", none},
                {{words({13, 4}) + "1234"}, 0, 13, "1234....", none},
                {{words({0, 8}), "12345", "678"}, 0, 0, "12345678", none},
                {{}, 19, UNWRITTEN, "", header},
                {{words({0}), words({8}) + "12345678"}, 19, UNWRITTEN, "", header}, // not put together
                {{words({2, 8}) + "123", "4567"}, 19, UNWRITTEN, "", data},
                {{words({0, 4}) + "123456"}, 19, UNWRITTEN, "", data}}; // more than announced
    const int fds = count_fds(getpid());
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.answer));
        Capture out;
        char rsp[] = "........";
        int32_t result = UNWRITTEN;
        EXPECT_EQ(row.outcome, with_peer("qmuxd", words({4, 7, 0, 1, 8, 3}) + "req", row.answer,
                                         [&] { return frwk_ipc_send_sync(9, 7, "req", 3, rsp, 8, 1, &result); }));
        EXPECT_EQ(row.result, result);
        EXPECT_TRUE(row.rsp.empty() || row.rsp == rsp) << rsp;
        EXPECT_EQ(row.said, out.lines());
        // What an acknowledgement holds is of no interest.
        EXPECT_EQ(row.said == header ? 19 : 15, with_peer("qmuxd", words({4, 7, 1, 1, 0, 0}), row.answer,
                                                          [] { return frwk_ipc_send_async(9, 7, nullptr, 0, 1); }));
    }
    EXPECT_EQ(fds, count_fds(getpid()));
    with_peer("qmuxd", words({4, 7, 0, 1, 8, 0}), {words({0, 9}) + "123456789"}, [] {
        char rsp[8];
        EXPECT_DEATH(frwk_ipc_msg_get(9, 7, rsp, 8, 1, nullptr), assertion("logtool", "rsphdr.msg_len <= rspsize"));
        return 0;
    });
}

TEST(Request, Arguments)
{
    become_requester();
    char buf[4];
    Capture out;
    EXPECT_EQ(1, frwk_ipc_send_sync(0, 7, nullptr, 0, nullptr, 0, 1, nullptr));
    EXPECT_EQ(1, frwk_ipc_send_async(10, 7, nullptr, 4, 1));
    EXPECT_EQ(3, frwk_ipc_send_sync(9, 7, nullptr, 1, buf, 4, 1, nullptr));
    EXPECT_EQ(3, frwk_ipc_send_sync(4, 7, buf, -1, buf, 4, 1, nullptr));
    EXPECT_EQ(3, frwk_ipc_send_sync(9, 7, buf, 4, nullptr, 1, 1, nullptr));
    EXPECT_EQ(3, frwk_ipc_send_sync(4, 7, buf, 4, buf, -1, 1, nullptr));
    Texts expected = {"frwk_ipc_send_sync: invalid module id=0", "frwk_ipc_send_async: invalid module id=10"};
    expected.resize(6, "frwk_ipc_send_sync: invalid request arguments!");
    EXPECT_EQ(expected, lines_in(out.text(), "$2: "));
}

TEST(Request, Broadcasts)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    serve_and_trace();
    // The caller's own table decides; who does not take it is traced and skipped.
    g_s_modules_info[FRWK_MODULE_MONITOR].flags = FRWK_MODULE_FLAG_MONITOR_SERVICE;
    g_s_modules_info[FRWK_MODULE_QTI].flags = FRWK_MODULE_FLAG_SYSLOG | FRWK_MODULE_FLAG_IPC;
    Capture out;
    with_peer("mbimd", words({2, 700, 1, 3, 0, 0}), {words({0, 0})}, [] { return frwk_ipc_msg_broadcast(700), 0; });
    EXPECT_EQ(connect_failed({"monitor", "serial_bridge", "qmuxd"}), out.lines());
    with_peer("logtool", words({2, 701, 1, 3, 0, 4}) + "data", {words({0, 0})},
              [] { return frwk_ipc_msg_broadcast_data(701, "data", 4), 0; });
    EXPECT_EQ(connect_failed({"monitor", "serial_bridge", "qmuxd", "monitor", "dial_test", "serial_bridge",
                              "monitor_tool", "mbimd", "qti", "qmuxd"}),
              out.lines());
    EXPECT_FALSE(contains(out.text(), "msg=70")) << "not to oneself";
}

TEST(Request, ToOneself)
{
    become_requester();
    Capture out;
    int32_t result = -1;
    EXPECT_EQ(0, frwk_ipc_send_sync(4, 7, nullptr, 0, nullptr, 0, 0, &result)) << "whatever the handler's result";
    EXPECT_EQ(13, result);
    EXPECT_EQ(FRWK_ERROR_INVALID_PARAM, frwk_ipc_init(nullptr));
    EXPECT_EQ(Texts({"warning|ipc handler is null!", "error|Parameter is null!"}), out.lines());
    serve();
    char data[] = "12", rsp[] = "."; // as it is
    EXPECT_EQ(0, frwk_ipc_send_sync(4, MSG_TELL, data, 2, rsp, 1, 99, nullptr));
    EXPECT_STREQ(".", rsp);
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_BLOCK, nullptr, 0, 0)) << "does not wait";
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_TELL, data, 2, 8));
    EXPECT_TRUE(out.wait_for("from=4 msg=10 req=set len=2 rsp=set size=1 timeout=99\n"));
    EXPECT_TRUE(out.wait_for("from=4 msg=10 req=set len=2 rsp=null size=0 timeout=8\n")) << out.text();
    const int32_t failure = 1;
    EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(4, MSG_RESULT, &failure, 4, 0));
    EXPECT_TRUE(out.wait_for("::call msg handler failed!\n"));
    release();
}

// More than a socket holds, in many reads; a signal may end the wait for each of them early.
TEST(Request, InterruptedReadsGoOn)
{
    Module qmuxd(FRWK_MODULE_QMUXD, serve);
    become_requester();
    const std::string body(32000, 'x');
    for (int n = 1, reached = true; reached; n += 1 + n / 4) {
        std::string rsp(4000000, ' ');
        fault_after(n, {"recv", EINTR});
        EXPECT_EQ(0, frwk_ipc_send_sync(9, MSG_ECHO, body.data(), 32000, &rsp[0], 4000000, 1, nullptr));
        EXPECT_TRUE(rsp == body + std::string(4000000 - body.size(), '\0')) << n;
        reached = no_more_faults();
    }
}

} // namespace
