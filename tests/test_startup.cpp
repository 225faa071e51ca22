// Start-up of modules: the lock, what the process inherits, the order of things, refusals.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cstdarg>
#include <filesystem>
#include <regex>

#include "stand_ins.h"

static std::atomic<int> lock_error{0}; // what locking a file fails with

extern "C" int fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (command == F_SETLK && lock_error != 0) {
        errno = lock_error;
        return -1;
    }
    return real_call<int(int, int, ...)>("fcntl")(fd, command, argument);
}

namespace {

using namespace frwk_test;
namespace fs = std::filesystem;

const std::string LOCK = "/tmp/odm/lock/qmuxd";
const std::string PING = words({2, 5, 0, 0, 0, 0});

TEST(StartUp, InvalidIds)
{
    for (int64_t id : {INT64_C(0), INT64_C(10), INT64_C(11), INT64_C(0xffffffff)}) {
        Capture err(2);
        EXPECT_EQ(-1, frwk_module_init(static_cast<uint32_t>(id), nullptr));
        EXPECT_EQ("Invalid module id=" + std::to_string(static_cast<int32_t>(id)) + "\n", err.text());
    }
    EXPECT_EQ(0, frwk_get_module_id());
    EXPECT_FALSE(exists("/tmp/odm"));
}

TEST(StartUp, Daemon)
{
    write_file(LOCK, "123456789012345 left by a crashed copy");
    Module module(FRWK_MODULE_QMUXD, [] {
        struct sigaction action;
        sigset_t blocked;
        int signal = 0;
        sigaction(SIGPIPE, nullptr, &action);
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        prctl(PR_GET_PDEATHSIG, &signal);
        EXPECT_EQ(SIG_IGN, action.sa_handler);
        EXPECT_TRUE(sigismember(&blocked, SIGPIPE));
        EXPECT_EQ(SIGHUP, signal);
        EXPECT_EQ(9, frwk_get_module_id());
        EXPECT_EQ(0, frwk_get_module_debug_mode());
        EXPECT_EQ(0, frwk_get_module_level());
        ASSERT_FALSE(testing::Test::HasFailure());
    });
    ASSERT_TRUE(module.ready);
    EXPECT_EQ(std::to_string(module.pid), read_file(LOCK)) << "no newline, nothing of what was there";
    EXPECT_TRUE(fs::is_socket(socket_path("qmuxd")));
    EXPECT_EQ("", module.out() + module.err());

    struct flock lock = {};
    lock.l_type = F_WRLCK;
    int fd = open(LOCK.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, fcntl(fd, F_GETLK, &lock));
    EXPECT_EQ(F_WRLCK, lock.l_type);
    EXPECT_EQ(module.pid, lock.l_pid);
    EXPECT_EQ(0, lock.l_start);
    EXPECT_EQ(0, lock.l_len) << "the whole file";
    close(fd);

    const std::string proc = "/proc/" + std::to_string(module.pid);
    for (const auto &thread : fs::directory_iterator(proc + "/task")) {
        const std::string status = read_file(thread.path() / "status");
        EXPECT_TRUE(std::regex_search(status, std::regex("SigBlk:\\s[0-9a-f]+[13579bdf][0-9a-f]{3}\n"))) << status;
    }
    for (const auto &entry : fs::directory_iterator(proc + "/fd")) {
        const std::string target = fs::read_symlink(entry.path());
        if (contains(target, "socket:") || target == LOCK) {
            const std::string info = read_file(proc + "/fdinfo/" + entry.path().filename().string());
            EXPECT_TRUE(std::regex_search(info, std::regex("flags:\\s0[0-7]*2[0-7]{6}\n"))) << target << " " << info;
        }
    }
}

TEST(StartUp, SecondCopyIsRefusedAndTouchesNothing)
{
    Module first(FRWK_MODULE_QMUXD);
    ASSERT_TRUE(first.ready);
    struct stat lock_before, lock_after, socket_before, socket_after;
    stat(LOCK.c_str(), &lock_before);
    stat(socket_path("qmuxd").c_str(), &socket_before);
    Result second = run_child([] {
        trace_all();
        frwk_set_module_status(5);
        EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
        EXPECT_EQ(-1, frwk_get_module_id());
        struct sigaction action;
        int signal = 0;
        sigaction(SIGPIPE, nullptr, &action);
        prctl(PR_GET_PDEATHSIG, &signal);
        EXPECT_EQ(SIG_DFL, action.sa_handler) << "nothing else is set up";
        EXPECT_NE(SIGHUP, signal);
        EXPECT_EQ(3, frwk_get_module_debug_mode());
        EXPECT_EQ(8, frwk_get_module_level());
        EXPECT_EQ(5U, frwk_get_module_status(0xffffffff));
        EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 1; }));
    });
    EXPECT_TRUE(second.ok()) << second;
    EXPECT_EQ("the 'qmuxd' is already running!\n", second.err);
    EXPECT_EQ("", second.out);
    stat(LOCK.c_str(), &lock_after);
    stat(socket_path("qmuxd").c_str(), &socket_after);
    EXPECT_EQ(std::to_string(first.pid), read_file(LOCK));
    EXPECT_EQ(0, memcmp(&lock_before.st_mtim, &lock_after.st_mtim, sizeof lock_before.st_mtim)) << "not even cut";
    EXPECT_EQ(lock_before.st_ino, lock_after.st_ino);
    EXPECT_EQ(socket_before.st_ino, socket_after.st_ino);
    EXPECT_EQ(words({0, 0}), answer_to("qmuxd", PING));

    EXPECT_TRUE(first.stop(SIGKILL).status != -1);
    Module third(FRWK_MODULE_QMUXD);
    EXPECT_TRUE(third.ready) << "the lock goes with the process";
}

TEST(StartUp, Tools)
{
    Module first(FRWK_MODULE_LOGTOOL),
        second(FRWK_MODULE_LOGTOOL, [] { FRWK_TRACE(FRWK_TRACE_NULL, "to the console"); });
    ASSERT_TRUE(first.ready && second.ready);
    EXPECT_TRUE(fs::is_directory("/tmp/odm/lock")) << "made all the same";
    EXPECT_TRUE(fs::is_empty("/tmp/odm/lock"));
    EXPECT_FALSE(exists("/tmp/odm/ipc"));
    EXPECT_TRUE(wait_until([&] { return count_threads(second.pid) == 1; }));
    EXPECT_EQ(Texts({"null|to the console"}), said(second.out()));
    EXPECT_EQ("logtool", parse_console(second.out())[0].name);
}

TEST(StartUp, RefusedLockFiles)
{
    enum { STALE, DIRECTORY, LINK, NO_DIRECTORY };
    const std::string cannot_open = "can't open " + LOCK + "\n", runs = "the 'qmuxd' is already running!\n";
    const struct {
        int what;
        int error;
        std::string text;
    } rows[] = {{DIRECTORY, 0, cannot_open}, {LINK, 0, cannot_open}, {NO_DIRECTORY, 0, cannot_open},
                {STALE, EAGAIN, runs},       {STALE, EACCES, runs},  {STALE, ENOLCK, "can't lock " + LOCK + "\n"}};
    write_file("/tmp/victim", "precious");
    for (const auto &row : rows) {
        fs::remove_all("/tmp/odm");
        write_file(row.what == NO_DIRECTORY ? "/tmp/odm" : LOCK, "stale");
        if (row.what == DIRECTORY || row.what == LINK) {
            fs::remove(LOCK);
        }
        if (row.what == DIRECTORY) {
            fs::create_directory(LOCK);
        } else if (row.what == LINK) {
            fs::create_symlink("/tmp/victim", LOCK);
        }
        lock_error = row.error;
        Capture err(2);
        const int fds = count_fds(getpid());
        EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
        const std::string text = err.text(); // mkdir says its own about a file in the place of a directory
        EXPECT_EQ(row.text, text.substr(text.size() - std::min(text.size(), row.text.size())));
        EXPECT_EQ(-1, frwk_get_module_id());
        EXPECT_EQ(fds, count_fds(getpid()));
        if (row.error != 0) {
            EXPECT_EQ("stale", read_file(LOCK));
        }
    }
    EXPECT_EQ("precious", read_file("/tmp/victim"));
}

TEST(StartUp, IpcThatCannotStartEndsTheProcess)
{
    const std::string settings = "<root><qmuxd><mode>3</mode><level>debug</level></qmuxd></root>";
    write_file("/usrdata/odm/log_conf.xml", settings);
    const struct {
        bool threads_fail;
        Texts said;
    } rows[] = {
        {true, {"error|create thread error!", "error|create ipc service thread failed!"}},
        {false,
         {"error|socket bind error, errno=20, cause: Not a directory", "error|create ipc service socket failed!"}},
    };
    for (const auto &row : rows) {
        Result child = run_child([&] {
            setvbuf(stdout, nullptr, _IONBF, 0);
            if (!row.threads_fail) {
                fs::remove_all("/tmp/odm/ipc");
                write_file("/tmp/odm/ipc", "no directory");
            }
            fail_threads = row.threads_fail;
            frwk_module_init(FRWK_MODULE_QMUXD, nullptr);
        });
        expect_assertion(child, "qmuxd", "FRWK_ERROR_SUCCESS == frwk_ipc_run()");
        EXPECT_EQ(row.said, said(child.out)) << "the trace settings are loaded by then";
    }
}

TEST(StartUp, OrderAndReset)
{
    write_file("/usrdata/odm/log_conf.xml", "<root><qti><mode>3</mode><level>debug</level></qti></root>");
    Module module(
        FRWK_MODULE_QTI, [] { printf("%d %d\n", frwk_get_module_debug_mode(), frwk_get_module_level()); },
        [](uint32_t msg) { printf("control %u\n", msg); });
    ASSERT_TRUE(module.ready);
    EXPECT_EQ(Texts({"debug|run ipc service success!"}), said(module.out()));
    EXPECT_TRUE(module.wait_out("3 8\n")) << module.out();
    answer_to("qti", words({2, 2, 0, 0, 0, 0}));
    EXPECT_TRUE(module.wait_out("control 2\n"));

    Result child = run_child([] {
        frwk_set_module_status(5);
        trace_all();
        EXPECT_EQ(0, frwk_ipc_init(test_handler));
        EXPECT_EQ(0, frwk_timer_init(nullptr));
        g_s_modules_info[FRWK_MODULE_LOGTOOL].delay = 700;
        const int64_t start = now_ms();
        EXPECT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
        EXPECT_GE(now_ms() - start + 1, 700) << "the delay";
        EXPECT_EQ(0U, frwk_get_module_status(FRWK_MODULE_LOGTOOL));
        EXPECT_EQ(0, frwk_get_module_level());
        EXPECT_EQ(3, frwk_get_module_debug_mode());
        int32_t result = 0;
        EXPECT_EQ(0, frwk_ipc_send_sync(FRWK_MODULE_LOGTOOL, MSG_ECHO, nullptr, 0, nullptr, 0, 0, &result));
        EXPECT_EQ(FRWK_ERROR_NO_HANDLER, result);
        EXPECT_EQ(1, frwk_timer_start(1, nullptr, 100000)) << "the timers go on";
    });
    EXPECT_TRUE(child.ok()) << child;
}

} // namespace
