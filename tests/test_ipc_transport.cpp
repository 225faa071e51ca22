// The wire byte by byte: what the request calls send, what the service answers, and the sockets themselves.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstddef>
#include <filesystem>
#include <future>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

static_assert(offsetof(frwk_ipc_reqhdr_t, from) == 0 && offsetof(frwk_ipc_reqhdr_t, msg) == 4 &&
              offsetof(frwk_ipc_reqhdr_t, async) == 8 && offsetof(frwk_ipc_reqhdr_t, timeout) == 12 &&
              offsetof(frwk_ipc_reqhdr_t, rsp_size) == 16 && offsetof(frwk_ipc_reqhdr_t, msg_len) == 20 &&
              sizeof(frwk_ipc_reqhdr_t) == 24);
static_assert(offsetof(frwk_ipc_rsphdr_t, rc) == 0 && offsetof(frwk_ipc_rsphdr_t, msg_len) == 4 &&
              sizeof(frwk_ipc_rsphdr_t) == 8);
static_assert(FRWK_MSG_SYS_CTRL0 == 0 && FRWK_MSG_SYS_CTRL1 == 1 && FRWK_MSG_SYS_CTRL2 == 2 && FRWK_MSG_SYS_LOG == 3 &&
              FRWK_MSG_SYS_STATUS == 4 && FRWK_MSG_SYS_PING == 5 && FRWK_MSG_SYS_NOP == 6 && FRWK_MSG_USER == 7 &&
              FRWK_MSG_SYS_REBOOT == 501 && FRWK_MSG_SYS_RESET == 502 && FRWK_MSG_SYS_MONITOR_CONF == 503);

TEST(Transport, Requests)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    static uint8_t rsp[16];
    static int32_t result;
    const struct {
        const char *target;
        std::function<int64_t()> call;
        std::string frame;
        std::string answer;
        int64_t value;
    } rows[] = {{"qmuxd", [] { return frwk_ipc_send_sync(9, 7, "hello", 5, rsp, 16, 2, &result); },
                 words({4, 7, 0, 2, 16, 5}) + "hello", words({0, 16, 1, 2, 3, 4}), 0},
                {"mbimd", [] { return frwk_ipc_send_sync(7, 0xfffffffe, nullptr, 0, nullptr, 0, 0xffffffff, nullptr); },
                 words({4, -2, 0, -1, 0, 0}), words({0, 0}), 0},
                {"qmuxd", [] { return frwk_ipc_send_async(9, 8, "abc", 3, 1); }, words({4, 8, 1, 1, 0, 3}) + "abc",
                 words({0, 0}), 15},
                {"qmuxd", [] { return frwk_ipc_msg_get(9, 9, rsp, 3, 5, &result); }, words({4, 9, 0, 5, 3, 0}),
                 words({0, 0}), 0},
                {"qti", [] { return frwk_ipc_msg_set(8, 10, "xy", 2, 6, &result); }, words({4, 10, 0, 6, 0, 2}) + "xy",
                 words({2, 0}), 2},
                {"dial_test", [] { return frwk_ipc_msg_notify(3, 11, "z", 1); }, words({4, 11, 1, 3, 0, 1}) + "z",
                 words({0, 0}), 15},
                {"monitor_tool", [] { return frwk_get_module_status(6); }, words({4, 4, 0, 3, 4, 0}),
                 words({0, 4, 0xfedcba98}), 0xfedcba98},
                {"monitor", [] { return frwk_system_reboot(0xdeadbeef); }, words({4, 501, 1, 3, 0, 4, 0xdeadbeef}),
                 words({0, 0}), 1},
                {"monitor", [] { return frwk_system_reset(1); }, words({4, 502, 1, 3, 0, 4, 1}), words({0, 0}), 1}};
    for (const auto &row : rows) {
        int listener = raw_listen(row.target);
        auto taken = std::async(std::launch::async, [&] {
            int fd = raw_accept(listener);
            std::string frame = raw_recv(fd, row.frame.size());
            char more;
            EXPECT_EQ(-1, recv(fd, &more, 1, MSG_DONTWAIT)) << "more than a frame, or shut down";
            raw_send(fd, row.answer);
            EXPECT_TRUE(raw_closed(fd));
            close(fd);
            return frame;
        });
        EXPECT_EQ(row.value, row.call()) << row.target;
        EXPECT_EQ(row.frame, taken.get()) << row.target;
        close(listener);
    }
}

TEST(Transport, Answers)
{
    Module module(FRWK_MODULE_QMUXD, [] {
        serve_and_trace();
        frwk_set_module_status(0xfedcba98);
    });
    const std::string three_zeros(3, '\0');
    const struct {
        std::string request;
        std::string answer;
    } rows[] = {{words({2, 5, 0, 0, 0, 0}), words({0, 0})},
                {words({2, 5, 0, 0, 16, 0}), words({0, 16, 0, 0, 0, 0})},
                {words({2, 6, 0, 0, 3, 4}) + "body", words({0, 3}) + three_zeros},
                {words({2, 4, 0, 0, 4, 0}), words({0, 4, 0xfedcba98})},
                {words({2, 4, 0, 0, 8, 0}), words({0, 8, 0xfedcba98, 0})},
                {words({2, 4, 0, 0, 3, 0}), words({3, 3}) + three_zeros},
                {words({2, 4, 0, 0, 0, 0}), words({3, 0})},
                {words({2, MSG_ECHO, 0, 0, 8, 5}) + "hello", words({0, 8}) + "hello" + three_zeros},
                {words({2, MSG_ECHO, 0, 0, 3, 5}) + "hello", words({0, 3}) + "hel"},
                {words({2, MSG_ECHO, 0, 0, 8, -1}), words({0, 8, 0, 0})}, // less than nothing is no body
                {words({2, MSG_RESULT, 0, 0, 4, 4, -5}), words({-5, 4, 0})},
                {words({2, MSG_RESULT, 1, 0, 0, 4, 2}), words({0, 0})}, // acknowledged, the result dropped
                {words({2, 4, 1, 0, 16, 0}), words({0, 0, 0, 0, 0, 0})},
                {words({2, 5, 0x80000000, 0, 0, 0}), words({0, 0})}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.answer, answer_to("qmuxd", row.request)) << testing::PrintToString(row.request);
    }
}

TEST(Transport, LargeFrames)
{
    Module module(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(test_handler); });
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_ATFWD_DAEMON, nullptr));
    std::vector<uint8_t> body(32000, 7), rsp(4000000, 0xff);
    int32_t result = -1;
    EXPECT_EQ(0, frwk_ipc_send_sync(9, MSG_ECHO, body.data(), 32000, rsp.data(), 32000, 1, &result));
    EXPECT_TRUE(std::equal(body.begin(), body.end(), rsp.begin()));
    EXPECT_EQ(0xff, rsp[body.size()]);
    EXPECT_EQ(0, frwk_ipc_send_sync(9, MSG_ECHO, body.data(), 32000, rsp.data(), 4000000, 1, &result));
    body.resize(rsp.size());
    EXPECT_TRUE(body == rsp) << "more than a socket holds, in many reads";
}

TEST(Transport, ListeningSocket)
{
    // Whatever lies where the socket is to be is replaced: an earlier socket, a file.
    close(raw_listen("qmuxd"));
    write_file(socket_path("qti"), "stale");
    Module qmuxd(FRWK_MODULE_QMUXD), qti(FRWK_MODULE_QTI);
    for (const char *name : {"qmuxd", "qti"}) {
        EXPECT_TRUE(std::filesystem::is_socket(socket_path(name)));
        EXPECT_EQ(words({0, 0}), answer_to(name, words({2, 5, 0, 0, 0, 0})));
    }
    // While the module does not run, 6 connections stay queued: a backlog of 5.
    int status, queued = 0;
    kill(qti.pid, SIGSTOP);
    EXPECT_EQ(qti.pid, waitpid(qti.pid, &status, WUNTRACED));
    for (int i = 0; i < 8; i++) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        socket_path("qti").copy(address.sun_path, sizeof address.sun_path);
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        queued += connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    EXPECT_EQ(6, queued);
    kill(qti.pid, SIGCONT);
}

} // namespace
