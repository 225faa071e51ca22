/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Start-up of modules: the lock, what the process inherits, the order of things, refusals.
#include "conf_test.h"

#include <sys/prctl.h>
#include <sys/stat.h>

#include <regex>

namespace {

namespace fs = std::filesystem;

const std::string LOCK = "/tmp/odm/lock/qmuxd";

// What start-up changes in the process.
std::string state()
{
    struct sigaction action;
    sigset_t blocked;
    int death_signal = 0;
    sigaction(SIGPIPE, nullptr, &action);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    prctl(PR_GET_PDEATHSIG, &death_signal);
    return std::string(action.sa_handler == SIG_IGN ? "ignored" : "default") +
           (sigismember(&blocked, SIGPIPE) != 0 ? " blocked" : " open") +
           (death_signal == SIGHUP ? " dies" : " lives") + " id=" + std::to_string(frwk_get_module_id()) +
           " mode=" + std::to_string(frwk_get_module_debug_mode()) +
           " level=" + std::to_string(frwk_get_module_level()) +
           " status=" + std::to_string(frwk_get_module_status(0xffffffff));
}

TEST(StartUp, DaemonsRunOnce)
{
    write_file(LOCK, "123456789012345 left by a crashed copy");
    Module first(FRWK_MODULE_QMUXD, [] { dprintf(1, "%s", state().c_str()); });
    EXPECT_EQ("ignored blocked dies id=9 mode=0 level=0 status=0", first.out() + first.err());
    const std::string proc = "/proc/" + std::to_string(first.pid);
    for (const auto &thread : fs::directory_iterator(proc + "/task")) {
        const std::string status = read_file(thread.path() / "status");
        EXPECT_TRUE(std::regex_search(status, std::regex("SigBlk:\\s[0-9a-f]+[13579bdf][0-9a-f]{3}\n"))) << status;
    }
    for (const auto &entry : fs::directory_iterator(proc + "/fd")) {
        const std::string target = fs::read_symlink(entry.path());
        const std::string info = read_file(proc + "/fdinfo/" + entry.path().filename().string());
        EXPECT_TRUE((!contains(target, "socket:") && target != LOCK) ||
                    std::regex_search(info, std::regex("flags:\\s0[0-7]*2[0-7]{6}\n")))
            << target << " is not closed in children: " << info;
    }

    trace_all();
    frwk_set_module_status(5);
    Capture err(2);
    for (const uint32_t id : {0U, 10U, 0xffffffffU, 9U}) {
        EXPECT_EQ(-1, frwk_module_init(id, nullptr));
    }
    EXPECT_EQ("default open lives id=-1 mode=3 level=8 status=5", state()) << "nothing is set up";
    EXPECT_EQ("Invalid module id=0\nInvalid module id=10\nInvalid module id=-1\nthe 'qmuxd' is already running!\n",
              err.text());
    EXPECT_EQ(std::to_string(first.pid), read_file(LOCK)) << "no newline, nothing of what was there";
}

TEST(StartUp, IpcThatCannotStartEndsTheProcess)
{
    put(LOG, "<root><qmuxd><mode>3</mode><level>error</level></qmuxd></root>");
    write_file("/tmp/odm/ipc/x", "");
    for (const std::string part : {"thread", "socket"}) {
        const Result child = run_child([&] {
            setvbuf(stdout, nullptr, _IONBF, 0);
            fault_after(1, {part == "thread" ? "pthread_create" : "socket", EAGAIN});
            frwk_module_init(FRWK_MODULE_QMUXD, nullptr);
        });
        EXPECT_TRUE(child.aborted()) << child;
        EXPECT_EQ("error|create ipc service " + part + " failed!", lines_in(child.out).back());
    }
}

TEST(StartUp, WaitsAndKeepsTheTimers)
{
    trace_all();
    EXPECT_EQ(0, frwk_timer_init(nullptr));
    g_s_modules_info[FRWK_MODULE_LOGTOOL].delay = 700;
    const int64_t start = now_ms();
    EXPECT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
    EXPECT_GE(now_ms() - start + 1, 700) << "the delay";
    EXPECT_EQ("ignored blocked dies id=4 mode=3 level=0 status=0", state()) << "the level is reset";
    EXPECT_EQ(1, frwk_timer_start(1, nullptr, 100000)) << "the timers go on";
    EXPECT_FALSE(exists("/tmp/odm/lock/logtool") || exists("/tmp/odm/ipc/logtool"))
        << "tools have neither a lock nor a service";
}

// What a module and the setters make, nobody else may change.
TEST(StartUp, StrangersAreKeptOut)
{
    umask(022);
    Module module(FRWK_MODULE_QMUXD);
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ(0, frwk_init_app_start_cfg_file());
    for (const fs::path dir : {"/tmp/odm", DIR.c_str()}) {
        EXPECT_EQ(fs::perms(0755), fs::status(dir).permissions()) << dir;
        for (const auto &entry : fs::recursive_directory_iterator(dir)) {
            EXPECT_EQ(fs::perms::none, entry.status().permissions() & fs::perms(022)) << entry;
        }
    }
}

TEST(StartUp, PlantedLinksAreNotFollowed)
{
    write_file("/tmp/victim", "untouched");
    for (const std::string &path : {std::string("/tmp/odm/lock/qti"), socket_path("qmuxd"), LOG + ".new"}) {
        fs::create_directories(fs::path(path).parent_path());
        fs::create_symlink("/tmp/victim", path);
    }
    Capture err(2);
    EXPECT_EQ(-1, frwk_module_init(FRWK_MODULE_QTI, nullptr));
    EXPECT_EQ("can't open /tmp/odm/lock/qti\n", err.text());
    Module module(FRWK_MODULE_QMUXD, serve);
    EXPECT_TRUE(fs::is_socket(socket_path("qmuxd"))) << "the link is taken away for the socket";
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ("untouched", read_file("/tmp/victim"));
}

} // namespace
