/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What a module meets on a device: users without rights, signals at any moment, threads that are cancelled in the
// middle of a call, and clocks that have run for weeks.
#include "conf_test.h"

#include <grp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <thread>

namespace {

enum { MSG_ECHO = 7, MSG_WAIT };

std::atomic<pthread_t> waiting{};

int32_t handler(uint32_t, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    usleep(2000);
    if (msg == MSG_WAIT) {
        waiting = pthread_self();
        frwk_sleep(60000);
    }
    std::copy_n(req, std::min(req_len, rsp_size), rsp);
    return 0;
}

bool answers()
{
    return answer_to("qmuxd", bytes_of(ReqHdr{2, MSG_ECHO, 0, 1, 4, 4}) + "body") == bytes_of(RspHdr{0, 4}) + "body";
}

TEST(Hardening, StrangersAreKeptOut)
{
    const auto become_stranger = [] { return setgroups(0, nullptr) == 0 && setgid(12345) == 0 && setuid(12345) == 0; };
    if (!run_child([&] { EXPECT_TRUE(become_stranger()); }).ok()) {
        GTEST_SKIP() << "another user cannot be had here";
    }
    umask(022);
    ASSERT_EQ(0, chmod("/tmp", 01777));
    Module module(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    ASSERT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    ASSERT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x"));
    const Result stranger = run_child([&] {
        ASSERT_TRUE(become_stranger());
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
        EXPECT_EQ(FRWK_ERROR_NO_MODULE, frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, MSG_ECHO, nullptr, 0));
        EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QTI, nullptr)) << "nor become a module";
        EXPECT_NE(0, frwk_set_trace_info(FRWK_MODULE_QTI, 3, "debug"));
        EXPECT_NE(0, frwk_init_app_start_cfg_file());
        const Texts files = {LOG, START, "/tmp/odm/lock/qmuxd", "/tmp/odm/ipc/qmuxd"};
        const Texts dirs = {"/usrdata", DIR, "/tmp/odm", "/tmp/odm/lock", "/tmp/odm/ipc"};
        for (const std::string &path : files) {
            SCOPED_TRACE(path);
            EXPECT_EQ(-1, open(path.c_str(), O_WRONLY));
            EXPECT_EQ(-1, chmod(path.c_str(), 0777));
            EXPECT_EQ(-1, unlink(path.c_str()));
            EXPECT_EQ(-1, rename(path.c_str(), "/tmp/taken"));
        }
        for (const std::string &dir : dirs) {
            SCOPED_TRACE(dir);
            EXPECT_EQ(-1, open((dir + "/planted").c_str(), O_WRONLY | O_CREAT, 0644));
            EXPECT_EQ(-1, symlink("/etc/passwd", (dir + "/log_conf.xml.new").c_str()));
            EXPECT_EQ(-1, rename(dir.c_str(), "/tmp/taken"));
        }
        // The lock on the settings can be taken by who may read the directory; a setter does not wait for it for good.
        EXPECT_TRUE(Lock().held);
    });
    EXPECT_TRUE(stranger.ok()) << stranger;
    EXPECT_TRUE(answers());

    Lock lock;
    ASSERT_TRUE(lock.held);
    const long start = now_ms();
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "y"));
    EXPECT_GE(now_ms() - start, 2999);
    EXPECT_TRUE(contains(read_file(START), "<start_cmd>y</start_cmd>"));
}

TEST(Hardening, PlantedLinksAreNotFollowed)
{
    write_file("/tmp/victim", "untouched");
    for (const std::string &path : {std::string("/tmp/odm/lock/qti"), socket_path("qmuxd"), LOG + ".new"}) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::create_symlink("/tmp/victim", path);
    }
    const Result refused = run_child([] { EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QTI, nullptr)); });
    EXPECT_TRUE(refused.ok()) << refused;
    EXPECT_EQ("can't open /tmp/odm/lock/qti\n", refused.err);
    Module module(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    EXPECT_TRUE(answers()) << "the link is taken away for the socket";
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ("untouched", read_file("/tmp/victim"));
}

// A thread that works gets a signal without SA_RESTART again and again.
TEST(Hardening, SignalsChangeNoAnswer)
{
    Module peer(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    static std::atomic<int> signals{0};
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; };
    sigaction(SIGUSR1, &action, nullptr);
    sem_t sem;
    frwk_sem_create(&sem);
    std::atomic<bool> done{false};
    Capture quiet;
    std::thread worker([&] {
        std::string body(36000, 'x'); // what arrives in one piece
        std::string rsp(body.size(), '\0');
        for (int i = 0; i < 100; i++) {
            int32_t result = -1;
            memcpy(&body[0], &i, sizeof i);
            EXPECT_EQ(0, frwk_ipc_send_sync(FRWK_MODULE_QMUXD, MSG_ECHO, body.data(), static_cast<int>(body.size()),
                                            &rsp[0], static_cast<int>(rsp.size()), 1, &result));
            EXPECT_TRUE(result == 0 && rsp == body);
            EXPECT_EQ(FRWK_ERROR_ASYNC,
                      frwk_ipc_send_async(FRWK_MODULE_QMUXD, MSG_ECHO, body.data(), static_cast<int>(body.size()), 1));
        }
        for (int i = 0; i < 20; i++) {
            const std::string text = std::to_string(i);
            char found[8] = "";
            EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, text.c_str()));
            EXPECT_TRUE(contains(read_file(START), "<start_cmd>" + text + "</start_cmd>"));
            EXPECT_EQ(0, frwk_set_file_value("/tmp/value", text.data(), static_cast<int>(text.size())));
            EXPECT_EQ(0, frwk_get_file_value("/tmp/value", found, sizeof found - 1));
            EXPECT_EQ(text, found);
            EXPECT_EQ(1, frwk_system("exit 0"));
            frwk_sem_post(&sem);
            EXPECT_EQ(0, frwk_sem_wait(&sem));
        }
        done = true;
    });
    while (!done) {
        pthread_kill(worker.native_handle(), SIGUSR1);
        usleep(200);
    }
    worker.join();
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
    EXPECT_GT(signals, 200);
}

// Runs the call on a thread of its own, cancels that once it sleeps in it, and waits for its end; tells whether the
// call was finished nevertheless. Nothing may be left of the thread.
bool finishes_cancelled(const std::function<void()> &call)
{
    static std::atomic<bool> begun, returned, cancelled;
    begun = returned = cancelled = false;
    const int fds = count_fds(getpid());
    const int threads = count_threads(getpid());
    const pthread_t thread = frwk_thread_create(
        [](void *body) -> void * {
            pthread_cleanup_push([](void *) { cancelled = true; }, nullptr);
            begun = true;
            (*static_cast<const std::function<void()> *>(body))();
            returned = true;
            frwk_sleep(60000);
            pthread_cleanup_pop(0);
            return nullptr;
        },
        const_cast<std::function<void()> *>(&call));
    EXPECT_NE(FRWK_THREAD_INVALID, thread);
    EXPECT_TRUE(wait_until([] { return begun.load(); }));
    usleep(50000);
    frwk_thread_cancel(thread);
    EXPECT_TRUE(wait_until([&] { return cancelled && count_threads(getpid()) == threads; }));
    EXPECT_EQ(fds, count_fds(getpid()));
    return returned;
}

TEST(Hardening, CancelledInEveryCall)
{
    raw_listen("mbimd"); // takes what it is sent and says nothing
    listen(raw_listen("qti"), 0);
    raw_connect("qti"); // fills the queue, so that the next one waits
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    static sem_t sem;
    frwk_sem_create(&sem);
    static const std::string big(8000000, 'x'); // more than a socket holds
    static char value[4];
    ASSERT_EQ(0, mkfifo("/tmp/fifo", 0600));
    const auto send = [](uint32_t to, size_t size) {
        frwk_ipc_send_sync(to, MSG_ECHO, big.data(), static_cast<int>(size), nullptr, 0, 60, nullptr);
    };
    const std::pair<const char *, std::function<void()>> calls[] = {
        {"sleep", [] { frwk_sleep(60000); }},
        {"semaphore", [] { frwk_sem_wait(&sem); }},
        {"keep running", [] { frwk_keep_running(); }},
        {"connect", [&] { send(FRWK_MODULE_QTI, 1); }},
        {"send", [&] { send(FRWK_MODULE_MBIMD, big.size()); }},
        {"answer", [&] { send(FRWK_MODULE_MBIMD, 1); }},
        {"acknowledgement", [] { frwk_ipc_msg_notify(FRWK_MODULE_MBIMD, MSG_ECHO, "x", 1); }},
        {"broadcast", [] { frwk_ipc_msg_broadcast_data(MSG_ECHO, "x", 1); }},
        {"status", [] { frwk_get_module_status(FRWK_MODULE_MBIMD); }},
        {"handler", [&] { send(FRWK_MODULE_QMUXD, 1); }},
        {"value", [] { frwk_get_file_value("/tmp/fifo", value, sizeof value); }},
        {"command", [] { frwk_system("sleep 60"); }}};
    for (const auto &[name, call] : calls) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(finishes_cancelled(call));
    }
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child left";

    std::filesystem::create_directories(DIR);
    const auto save = [] { EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x")); };
    EXPECT_TRUE((Lock(), finishes_cancelled(save)));
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
    EXPECT_TRUE(contains(read_file(START), "<start_cmd>x</start_cmd>"));
    EXPECT_TRUE(Lock().held);
    const int monitor = raw_listen("monitor"); // the value is saved, then the monitor is asked
    EXPECT_FALSE(finishes_cancelled([] { frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0); }));
    EXPECT_EQ(0, frwk_get_app_monitor_conf(FRWK_MODULE_QTI));
    EXPECT_TRUE(Lock().held);
    close(monitor);
}

TEST(Hardening, CancelledInTheHandler)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    ASSERT_EQ(0, frwk_ipc_init(handler));
    const int fds = count_fds(getpid());
    const int threads = count_threads(getpid());
    for (int i = 0; i < 30; i++) { // more than there are slots for connections
        waiting = FRWK_THREAD_INVALID;
        const int fd = raw_connect("qmuxd");
        const std::string body(i % 2 == 0 ? 0 : 10000, 'x'); // some of it on the heap
        const ReqHdr header = {2, MSG_WAIT, 0, 1, i % 3 == 0 ? 8000 : 0, static_cast<int32_t>(body.size())};
        ASSERT_TRUE(raw_send(fd, bytes_of(header) + body));
        ASSERT_TRUE(wait_until([] { return waiting != FRWK_THREAD_INVALID; })) << "a slot was lost";
        frwk_thread_cancel(waiting);
        EXPECT_EQ("", raw_recv(fd, 1));
        close(fd);
    }
    EXPECT_TRUE(wait_until([&] { return count_threads(getpid()) == threads; }));
    EXPECT_EQ(fds, count_fds(getpid()));
    EXPECT_TRUE(answers());
}

// The milliseconds leave 31 bits at 24.86 days and 32 bits at 49.71.
TEST(Hardening, TimersAtLongUptimes)
{
    static std::atomic<int> fired{0};
    const auto check = [](long seconds) {
        frwk_uptime_t deadline;
        frwk_get_uptime(&deadline);
        EXPECT_LT(labs(deadline.sec - seconds), 30);
        const long start = now_ms();
        frwk_simple_timer_start(&deadline, 1500);
        EXPECT_EQ(0, frwk_simple_timer_timeout(&deadline));
        ASSERT_EQ(0, frwk_timer_init([](int number, void *) { EXPECT_EQ(number, ++fired); }));
        frwk_timer_start(3, nullptr, 1500);
        frwk_timer_start(1, nullptr, 500);
        frwk_timer_start(2, nullptr, 1000);
        EXPECT_TRUE(wait_until([] { return fired == 3; }));
        EXPECT_GE(now_ms() - start, 1500);
        EXPECT_EQ(1, frwk_simple_timer_timeout(&deadline));
    };
    for (long seconds : {2147482L, 2147483L, 2151360L, 4294966L, 4294967L}) {
        SCOPED_TRACE(seconds);
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const std::string offset = "monotonic " + std::to_string(seconds - now.tv_sec) + " 0\n";
        const Result result = run_child([&] {
            if (unshare(CLONE_NEWTIME) != 0) {
                printf("refused");
                return;
            }
            write_file("/proc/self/timens_offsets", offset);
            const Result inside = run_child([&] { check(seconds); }); // the clock is shifted for children
            EXPECT_TRUE(inside.ok()) << inside;
        });
        if (result.out == "refused") {
            GTEST_SKIP() << "the clock cannot be shifted here";
        }
        EXPECT_TRUE(result.ok()) << result;
    }
}

} // namespace
