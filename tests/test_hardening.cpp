// What a module meets on a device: users without rights, signals at any moment, threads that are cancelled in the
// middle of a call, and clocks that have run for weeks.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

namespace {

enum { MSG_ECHO = 7, MSG_SLOW_ECHO, MSG_WAIT };

std::atomic<pthread_t> waiting{};

int32_t handler(uint32_t, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    if (msg == MSG_SLOW_ECHO) {
        usleep(2000);
    } else if (msg == MSG_WAIT) {
        waiting = pthread_self();
        frwk_sleep(60000);
    }
    for (int32_t i = 0; i < req_len && i < rsp_size; i++) {
        rsp[i] = req[i];
    }
    return 0;
}

// ---- strangers

// Runs the body as another user.
Result as_stranger(const std::function<void()> &body)
{
    return run_child([&] {
        ASSERT_EQ(0, setgroups(0, nullptr));
        ASSERT_EQ(0, setgid(12345));
        ASSERT_EQ(0, setuid(12345));
        body();
    });
}

bool has_strangers()
{
    return as_stranger([] {}).ok();
}

TEST(Hardening, StrangersAreKeptOut)
{
    if (!has_strangers()) {
        GTEST_SKIP() << "another user cannot be had here";
    }
    umask(022);
    ASSERT_EQ(0, chmod("/tmp", 01777));
    Module module(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    ASSERT_TRUE(module.ready);
    ASSERT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    ASSERT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x"));
    const Texts paths = {LOG, START, "/tmp/odm/lock/qmuxd", "/tmp/odm/ipc/qmuxd"};
    const Texts dirs = {"/usrdata", DIR, "/tmp/odm", "/tmp/odm/lock", "/tmp/odm/ipc"};
    Result result = as_stranger([&] {
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
        EXPECT_EQ(FRWK_ERROR_NO_MODULE, frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, MSG_ECHO, nullptr, 0));
        EXPECT_EQ(-1, kill(module.pid, SIGTERM));
        EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QTI, nullptr)) << "nor become a module";
        EXPECT_NE(0, frwk_set_trace_info(FRWK_MODULE_QTI, 3, "debug"));
        EXPECT_NE(0, frwk_init_app_start_cfg_file());
        for (const std::string &path : paths) {
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
    EXPECT_TRUE(result.ok()) << result;
    EXPECT_EQ(0, raw_request("qmuxd", {2, MSG_ECHO, 0, 1, 0, 0}).hdr.rc);

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
    std::filesystem::create_directories("/tmp/odm/lock");
    std::filesystem::create_directories("/tmp/odm/ipc");
    std::filesystem::create_symlink("/tmp/victim", "/tmp/odm/lock/qti");
    std::filesystem::create_symlink("/tmp/victim", "/tmp/odm/ipc/qmuxd");
    Result refused = run_child([] { EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QTI, nullptr)); });
    EXPECT_TRUE(refused.ok()) << refused;
    EXPECT_EQ("can't open /tmp/odm/lock/qti\n", refused.err);
    Module module(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    EXPECT_TRUE(module.ready) << "the link is taken away for the socket";
    EXPECT_TRUE(raw_request("qmuxd", {2, MSG_ECHO, 0, 1, 0, 0}).complete);

    std::filesystem::create_directories(DIR);
    std::filesystem::create_symlink("/tmp/victim", LOG + ".new");
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ("untouched", read_file("/tmp/victim"));
}

// ---- signals

std::atomic<long> signals{0};

// Sends a thread a signal without SA_RESTART again and again while it runs the body.
void under_storm(const std::function<void()> &body)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; };
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> done{false};
    std::thread worker([&] {
        body();
        done = true;
    });
    while (!done) {
        pthread_kill(worker.native_handle(), SIGUSR1);
        usleep(200);
    }
    worker.join();
}

TEST(Hardening, SignalsChangeNoAnswer)
{
    Module peer(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(handler); });
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    static sem_t sem;
    frwk_sem_create(&sem);
    Capture quiet;
    under_storm([] {
        std::string body(60000, 'x');
        std::string rsp(body.size(), '\0');
        for (int i = 0; i < 100; i++) {
            int32_t result = -1;
            memcpy(&body[0], &i, sizeof i);
            EXPECT_EQ(0, frwk_ipc_send_sync(FRWK_MODULE_QMUXD, MSG_SLOW_ECHO, body.data(), 60000, &rsp[0], 60000, 1,
                                            &result));
            EXPECT_TRUE(result == 0 && rsp == body);
            EXPECT_EQ(FRWK_ERROR_ASYNC, frwk_ipc_send_async(FRWK_MODULE_QMUXD, MSG_ECHO, body.data(), 60000, 1));
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
    });
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
    EXPECT_GT(signals, 200);
}

// ---- cancellation

// A listener on a module's path whose queue is full, so that a connect waits.
struct FullQueue {
    explicit FullQueue(const std::string &module) : listener(raw_listen(module))
    {
        EXPECT_EQ(0, listen(listener, 0));
        filler = raw_connect(module);
    }
    ~FullQueue()
    {
        close(filler);
        close(listener);
    }
    FullQueue(const FullQueue &) = delete;
    FullQueue &operator=(const FullQueue &) = delete;

    int listener;
    int filler = -1;
};

char thread_state(const std::string &task)
{
    const std::string stat = read_file(task + "/stat");
    const size_t end = stat.rfind(')');
    return end == std::string::npos ? '-' : stat[end + 2];
}

// Runs the call on a thread of its own, cancels that once it sleeps in it, and waits for its end.
void cancel_in(const char *name, const std::function<void()> &call, bool finishes = false)
{
    SCOPED_TRACE(name);
    static struct { // outlives the thread
        std::atomic<const std::function<void()> *> call{};
        std::atomic<pid_t> tid{};
        std::atomic<bool> cleaned{}, returned{};
    } shared;
    shared.call = &call;
    shared.tid = 0;
    shared.cleaned = shared.returned = false;
    const int fds = count_fds(getpid());
    const int threads = count_threads(getpid());
    pthread_t thread = frwk_thread_create(
        [](void *) -> void * {
            pthread_cleanup_push([](void *) { shared.cleaned = true; }, nullptr);
            shared.tid = gettid();
            (*shared.call)();
            shared.returned = true;
            pthread_testcancel();
            pthread_cleanup_pop(0);
            return nullptr;
        },
        nullptr);
    ASSERT_NE(FRWK_THREAD_INVALID, thread);
    ASSERT_TRUE(wait_until([] { return shared.tid != 0; }));
    const std::string task = "/proc/self/task/" + std::to_string(shared.tid);
    usleep(20000);
    EXPECT_TRUE(wait_until([&] { return thread_state(task) == 'S'; }));
    frwk_thread_cancel(thread);
    EXPECT_TRUE(wait_until([] { return shared.cleaned.load(); })) << "not cancelled";
    EXPECT_EQ(finishes, shared.returned);
    EXPECT_TRUE(wait_until([&] { return count_threads(getpid()) == threads; }));
    EXPECT_EQ(fds, count_fds(getpid()));
}

TEST(Hardening, CancelledInEveryCall)
{
    const int silent = raw_listen("mbimd"); // takes what it is sent and says nothing
    FullQueue full("qti");
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    static sem_t sem;
    frwk_sem_create(&sem);
    static const std::string big(8000000, 'x'); // more than a socket holds
    const int size = static_cast<int>(big.size());

    cancel_in("sleep", [] { frwk_sleep(60000); });
    cancel_in("semaphore", [] { frwk_sem_wait(&sem); });
    cancel_in("keep running", [] { frwk_keep_running(); });
    cancel_in("connect", [] { frwk_ipc_send_sync(FRWK_MODULE_QTI, 7, "x", 1, nullptr, 0, 1, nullptr); });
    cancel_in("send", [=] { frwk_ipc_send_sync(FRWK_MODULE_MBIMD, 7, big.data(), size, nullptr, 0, 1, nullptr); });
    cancel_in("answer", [] { frwk_ipc_send_sync(FRWK_MODULE_MBIMD, 7, "x", 1, nullptr, 0, 1, nullptr); });
    cancel_in("acknowledgement", [] { frwk_ipc_msg_notify(FRWK_MODULE_MBIMD, 7, "x", 1); });
    cancel_in("broadcast", [] { frwk_ipc_msg_broadcast_data(7, "x", 1); });
    cancel_in("status", [] { frwk_get_module_status(FRWK_MODULE_MBIMD); });
    cancel_in("handler", [] { frwk_ipc_send_sync(FRWK_MODULE_QMUXD, 7, "x", 1, nullptr, 0, 60, nullptr); });
    cancel_in("command", [] { frwk_system("sleep 60"); });
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child left";

    std::filesystem::create_directories(DIR);
    {
        Lock lock;
        cancel_in(
            "save", [] { EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x")); }, true);
    }
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
    EXPECT_TRUE(contains(read_file(START), "<start_cmd>x</start_cmd>"));
    EXPECT_TRUE(Lock().held);
    cancel_in("monitor", [] { // the value is saved, then the monitor is asked
        int monitor = raw_listen("monitor");
        pthread_cleanup_push([](void *fd) { close(*static_cast<int *>(fd)); }, &monitor);
        frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0);
        pthread_cleanup_pop(1);
    });
    EXPECT_EQ(0, frwk_get_app_monitor_conf(FRWK_MODULE_QTI));
    EXPECT_TRUE(Lock().held);
    close(silent);
}

TEST(Hardening, CancelledInTheHandler)
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    ASSERT_EQ(0, frwk_ipc_init(handler));
    const int fds = count_fds(getpid());
    const int threads = count_threads(getpid());
    for (int i = 0; i < 30; i++) { // more than there are slots for connections
        waiting = FRWK_THREAD_INVALID;
        int fd = raw_connect("qmuxd");
        const std::string body(i % 2 == 0 ? 0 : 10000, 'x'); // some of it on the heap
        ASSERT_TRUE(raw_send(
            fd, bytes_of(ReqHdr{2, MSG_WAIT, 0, 1, i % 3 == 0 ? 8000 : 0, static_cast<int32_t>(body.size())}) + body));
        ASSERT_TRUE(wait_until([] { return waiting != FRWK_THREAD_INVALID; })) << "a slot was lost";
        frwk_thread_cancel(waiting);
        EXPECT_TRUE(raw_closed(fd));
        close(fd);
    }
    EXPECT_TRUE(wait_until([&] { return count_threads(getpid()) == threads; }));
    EXPECT_EQ(fds, count_fds(getpid()));
    EXPECT_TRUE(raw_request("qmuxd", {2, MSG_ECHO, 0, 1, 8, 4}, "body").complete);
}

// ---- clocks

// Runs the body where the monotonic clock shows that many seconds more; false where that cannot be had.
bool with_uptime(long seconds, const std::function<void()> &body)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long offset = seconds - now.tv_sec;
    Result result = run_child([&] {
        const std::string text = "monotonic " + std::to_string(offset) + " 0\n";
        int fd = -1;
        if (unshare(CLONE_NEWTIME) != 0 || (fd = open("/proc/self/timens_offsets", O_WRONLY)) < 0 ||
            write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            printf("refused");
            return;
        }
        close(fd);
        Result inside = run_child([&] {
            frwk_uptime_t shown;
            frwk_get_uptime(&shown);
            EXPECT_LT(labs(shown.sec - seconds), 30);
            body();
        });
        EXPECT_TRUE(inside.ok()) << inside;
    });
    EXPECT_TRUE(result.ok()) << result;
    return result.out != "refused";
}

// The milliseconds leave 31 bits at 24.86 days and 32 bits at 49.71.
TEST(Hardening, TimersAtLongUptimes)
{
    static std::atomic<int> fired{0};
    for (long seconds : {2147482L, 2147483L, 2151360L, 4294966L, 4294967L}) {
        SCOPED_TRACE(seconds);
        const auto check = [] {
            const long start = now_ms();
            frwk_uptime_t deadline;
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
        if (!with_uptime(seconds, check)) {
            GTEST_SKIP() << "the clock cannot be shifted here";
        }
    }
}

} // namespace
