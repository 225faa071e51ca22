// The settings survive: a process killed at any moment of a change, two that change at once, a full disk.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

namespace {

// What a module finds at its start: qti's debug mode and level, mbimd's flag, qti's start arguments.
std::string settings()
{
    Result result = run_child([] {
        be_module(FRWK_MODULE_QTI);
        frwk_init_app_start_cfg();
        const char *cmd = g_s_modules_info[FRWK_MODULE_QTI].start_cmd;
        printf("%d %d %d %s", frwk_get_module_debug_mode(), frwk_get_module_level(),
               frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD), cmd != nullptr ? cmd : "-");
    });
    EXPECT_TRUE(result.ok()) << result;
    return result.out;
}

constexpr int UNTRACEABLE = -1;

// Runs `body` in a child. As it enters its n-th system call, before the call has any effect, `act` is done; `*reached`
// tells whether there were as many. Returns the child's wait status.
int step(int n, const std::function<void()> &body, const std::function<void(pid_t)> &act, bool *reached)
{
    *reached = false;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
            _exit(1);
        }
        raise(SIGSTOP);
        body();
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    if (!WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD) != 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return UNTRACEABLE;
    }
    bool entering = false;
    for (long deliver = 0; WIFSTOPPED(status);) {
        if (entering && --n == 0) {
            *reached = true;
            act(pid);
        }
        ptrace(PTRACE_SYSCALL, pid, nullptr, deliver);
        waitpid(pid, &status, 0);
        bool call = WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
        entering = call && !entering;
        deliver = WIFSTOPPED(status) && !call ? WSTOPSIG(status) : 0;
    }
    return status;
}

struct Files {
    std::string log, log_backup, start, start_backup;
};

void restore(const Files &files)
{
    std::filesystem::remove_all(DIR);
    for (const auto &[path, text] : {std::pair(LOG, files.log), std::pair(LOG + ".bak", files.log_backup),
                                     std::pair(START, files.start), std::pair(START + ".bak", files.start_backup)}) {
        if (!text.empty()) {
            write_file(path, text);
        }
    }
}

Files with_settings()
{
    std::filesystem::remove_all(DIR);
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "old"));
    return {read_file(LOG), "", read_file(START), ""};
}

struct Change {
    const char *name;
    Files before;
    std::function<int()> change;
    std::string old_settings;
    std::string new_settings;
};

// Kills each change at each of its system calls: the old settings or the new ones are found, and `follow_up`, a later
// change that is not cut off, makes of the file at `path` what it makes of the old one or of the new one.
void kill_everywhere(const std::vector<Change> &changes, const std::string &path, const std::function<int()> &follow_up)
{
    const auto followed_up = [&] {
        EXPECT_EQ(0, follow_up());
        for (const std::string &name : listing()) {
            EXPECT_EQ("xml", name.substr(name.rfind('.') + 1)) << "no backup stays";
        }
        return read_file(path);
    };
    for (const Change &row : changes) {
        SCOPED_TRACE(row.name);
        restore(row.before);
        EXPECT_EQ(row.old_settings, settings());
        const std::string followed_old = followed_up();
        restore(row.before);
        EXPECT_EQ(0, row.change());
        EXPECT_EQ(row.new_settings, settings());
        const std::string followed_new = followed_up();

        bool reached = true;
        for (int n = 1; reached && !::testing::Test::HasFailure(); n++) {
            SCOPED_TRACE(n);
            restore(row.before);
            int status = step(
                n, [&] { row.change(); }, [](pid_t pid) { kill(pid, SIGKILL); }, &reached);
            if (status == UNTRACEABLE) {
                GTEST_SKIP() << "processes cannot be traced here";
            }
            EXPECT_EQ(reached, WIFSIGNALED(status));
            EXPECT_TRUE(reached || n > 20) << "the change was not traced to its end";
            std::string found = settings();
            EXPECT_TRUE(found == row.old_settings || found == row.new_settings) << found;
            EXPECT_EQ(found == row.old_settings ? followed_old : followed_new, followed_up());
        }
    }
}

TEST(Power, TraceSettingsKilledAtEverySystemCall)
{
    const auto one = [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); };
    const auto all = [] { return frwk_all_set_trace_info(2, "error"); };
    const Files set = with_settings();
    const Files cut_off = {set.log.substr(0, set.log.find("<mbimd>")), set.log, set.start, ""};
    kill_everywhere({{"one module", set, one, "1 4 1 old", "2 8 1 old"},
                     {"first", {}, one, "0 0 1 -", "2 8 1 -"},
                     {"after a cut-off save", cut_off, one, "1 4 1 old", "2 8 1 old"},
                     {"all modules", set, all, "1 4 1 old", "2 1 1 old"},
                     {"default", set, frwk_init_log_cfg_info, "1 4 1 old", "0 0 1 old"}},
                    LOG, [] { return frwk_set_trace_info(FRWK_MODULE_MONITOR, 2, "warning"); });
}

TEST(Power, StartConfigurationKilledAtEverySystemCall)
{
    const auto cmd = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "new"); };
    const auto flag = [] { return frwk_set_app_monitor_conf(FRWK_MODULE_MBIMD, 0) + 1; }; // no monitor runs
    const Files set = with_settings();
    const Files cut_off = {set.log, "", "", set.start};
    kill_everywhere({{"start arguments", set, cmd, "1 4 1 old", "1 4 1 new"},
                     {"first", {}, cmd, "0 0 1 -", "0 0 1 new"},
                     {"after a cut-off save", cut_off, cmd, "1 4 1 old", "1 4 1 new"},
                     {"supervision flag", set, flag, "1 4 1 old", "1 4 0 old"},
                     {"default", set, frwk_init_app_start_cfg_file, "1 4 1 old", "1 4 1 -"}},
                    START, [] { return frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"); });
}

// A reader that finds a piece looks for the backup; by then the save may have ended.
TEST(Power, SaveEndsWhileRead)
{
    const std::string whole = "<root><mbimd><monitor_service>0</monitor_service></mbimd></root>"; // built in: 1
    for (const std::string &piece : {std::string(), whole.substr(0, 15), std::string("<root>")}) {
        bool reached = true;
        for (int n = 1; reached; n++) {
            SCOPED_TRACE(piece + " " + std::to_string(n));
            restore({"", "", piece, whole});
            const auto end_save = [&](pid_t) {
                write_file(START, whole);
                std::filesystem::remove(START + ".bak");
            };
            int status = step(
                n, [] { _exit(frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD)); }, end_save, &reached);
            if (status == UNTRACEABLE) {
                GTEST_SKIP() << "processes cannot be traced here";
            }
            EXPECT_EQ(0, status);
        }
    }
}

// Each writer counts its own setting up: what is read lies between what was done by then and what was begun since.
TEST(Power, TwoWritersKilledAtRandom)
{
    struct Counts {
        std::atomic<int> begun, done;
    };
    void *shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    Counts *counts = static_cast<Counts *>(shared);
    const uint32_t ids[2] = {FRWK_MODULE_QTI, FRWK_MODULE_MBIMD};
    const auto begin = [&](int i) {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            for (;;) {
                int k = ++counts[i].begun;
                if (frwk_set_app_start_cmd(ids[i], std::to_string(k).c_str()) != 0) {
                    _exit(1);
                }
                counts[i].done = k;
            }
        }
        return pid;
    };
    std::filesystem::remove_all(DIR);
    pid_t pids[2] = {begin(0), begin(1)};
    srand(20);
    for (int round = 0; round < 200 && !HasFailure(); round++) {
        usleep(static_cast<useconds_t>(rand() % 5000));
        int i = rand() % 2;
        int status;
        kill(pids[i], SIGKILL);
        waitpid(pids[i], &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a setter failed";
        int done[2] = {counts[0].done, counts[1].done};
        Result result = run_child([] {
            frwk_init_app_start_cfg();
            const char *qti = g_s_modules_info[FRWK_MODULE_QTI].start_cmd;
            const char *mbimd = g_s_modules_info[FRWK_MODULE_MBIMD].start_cmd;
            printf("%s %s", qti != nullptr ? qti : "0", mbimd != nullptr ? mbimd : "0");
        });
        int found[2] = {-1, -1};
        sscanf(result.out.c_str(), "%d %d", &found[0], &found[1]);
        for (int k = 0; k < 2; k++) {
            EXPECT_GE(found[k], done[k]) << "round " << round << " " << result;
            EXPECT_LE(found[k], counts[k].begun);
        }
        pids[i] = begin(i);
    }
    for (pid_t pid : pids) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    EXPECT_GT(counts[0].done, 20);
    EXPECT_GT(counts[1].done, 20);
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"));
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
}

TEST(Power, FullDisk)
{
    if (mount("tmpfs", "/usrdata", "tmpfs", 0, "size=128k") != 0) {
        GTEST_SKIP() << "cannot mount a small disk here: " << strerror(errno);
    }
    const struct {
        const char *name;
        int (*change)();
        bool log;
        const char *caller;
        int rc; // where there were settings
    } rows[] = {
        {"one", [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); }, true, "frwk_set_trace_info", -1},
        {"all", [] { return frwk_all_set_trace_info(2, "debug"); }, true, "frwk_all_set_trace_info", 7},
        {"default", frwk_init_log_cfg_info, true, "frwk_init_log_cfg_info", 7},
        {"arguments", [] { return frwk_set_app_start_cmd(8, "new"); }, false, "frwk_set_app_start_cmd", -1},
        {"flag", [] { return frwk_set_app_monitor_conf(7, 0); }, false, "frwk_set_app_monitor_conf", -1},
        {"default start", frwk_init_app_start_cfg_file, false, "frwk_init_app_start_cfg_file", -1},
    };
    const Files set = with_settings();
    for (const auto &row : rows) {
        for (bool first : {false, true}) {
            SCOPED_TRACE(row.name + std::string(first ? ", first" : ""));
            restore(first ? Files() : set);
            std::filesystem::create_directories(DIR);
            {
                std::ofstream filler("/usrdata/filler");
                while (filler << std::string(4096, 'x') << std::flush) {
                }
            }
            const std::string &path = row.log ? LOG : START;
            Outcome outcome = call(row.change);
            EXPECT_NE(0, outcome.rc);
            if (!first) {
                EXPECT_EQ(row.rc, outcome.rc);
                EXPECT_EQ((Texts{"frwk_xml_file_save: write xml '" + path + "' failed!",
                                 row.caller + (": save " + std::string(row.log ? "log" : "start")) +
                                     " config file fialed! from '" + path + "'"}),
                          outcome.said);
            }
            EXPECT_EQ(first ? "" : row.log ? set.log : set.start, read_file(path));
            EXPECT_EQ(first ? 0U : 2U, listing().size());
            remove("/usrdata/filler");
            row.change();
            EXPECT_TRUE(exists(path));
        }
    }
    EXPECT_EQ(0, umount("/usrdata"));
}

} // namespace
