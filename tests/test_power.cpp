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
#include <map>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

namespace {

// Runs `body` in a child. As it enters its n-th system call, before the call has any effect, `act` is done; `*reached`
// tells whether there were as many. Returns the child's wait status, -1 where it cannot be traced.
int step(int n, const std::function<void()> &body, const std::function<void(pid_t)> &act, bool *reached)
{
    *reached = false;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0) {
            raise(SIGSTOP);
            body();
        }
        _exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    if (!WIFSTOPPED(status)) {
        return -1;
    }
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    bool entering = false;
    for (long deliver = 0; WIFSTOPPED(status);) {
        if (entering && --n == 0) {
            *reached = true;
            act(pid);
        }
        ptrace(PTRACE_SYSCALL, pid, nullptr, deliver);
        waitpid(pid, &status, 0);
        const bool call = WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
        entering = call && !entering;
        deliver = WIFSTOPPED(status) && !call ? WSTOPSIG(status) : 0;
    }
    return status;
}

using Files = std::map<std::string, std::string>; // by path

void restore(const Files &files)
{
    std::filesystem::remove_all(DIR);
    for (const auto &[path, text] : files) {
        write_file(path, text);
    }
}

Files with_settings()
{
    restore({});
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "old"));
    return {{LOG, read_file(LOG)}, {START, read_file(START)}};
}

// The same, but the file is a piece and has its backup.
Files cut_off(Files files, const std::string &path)
{
    files[path + ".bak"] = files[path];
    files[path].resize(files[path].find("<mbimd>"));
    return files;
}

struct Killed {
    Files before;
    std::function<int()> change;
    std::string old_settings, new_settings;
};

// Kills each change at each of its system calls: the old settings or the new ones are found, and `follow_up`, a later
// change that is not cut off, makes of the file at `path` what it makes of the old one or of the new one.
void kill_everywhere(const std::vector<Killed> &rows, const std::string &path, const std::function<int()> &follow_up)
{
    const auto followed_up = [&] {
        EXPECT_EQ(0, follow_up());
        EXPECT_FALSE(exists(path + ".bak") || exists(path + ".new"));
        return read_file(path);
    };
    for (const Killed &row : rows) {
        SCOPED_TRACE(row.old_settings + " to " + row.new_settings);
        restore(row.before);
        EXPECT_EQ(row.old_settings, settings());
        const std::string followed_old = followed_up();
        restore(row.before);
        EXPECT_EQ(0, row.change());
        EXPECT_EQ(row.new_settings, settings());
        const std::string followed_new = followed_up();

        bool reached = true;
        for (int n = 1; reached && !testing::Test::HasFailure(); n++) {
            SCOPED_TRACE(n);
            restore(row.before);
            const auto killer = [](pid_t pid) { kill(pid, SIGKILL); };
            const int status = step(n, row.change, killer, &reached);
            if (status == -1) {
                GTEST_SKIP() << "processes cannot be traced here";
            }
            EXPECT_EQ(reached, WIFSIGNALED(status));
            EXPECT_TRUE(reached || n > 20) << "not traced to its end";
            const std::string found = settings();
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
    const std::vector<Killed> rows = {{set, one, "1 4 1 old", "2 8 1 old"},
                                      {{}, one, "0 0 1 -", "2 8 1 -"},
                                      {cut_off(set, LOG), one, "1 4 1 old", "2 8 1 old"},
                                      {set, all, "1 4 1 old", "2 1 1 old"},
                                      {set, frwk_init_log_cfg_info, "1 4 1 old", "0 0 1 old"}};
    kill_everywhere(rows, LOG, [] { return frwk_set_trace_info(FRWK_MODULE_MONITOR, 2, "warning"); });
}

TEST(Power, StartConfigurationKilledAtEverySystemCall)
{
    const auto cmd = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "new"); };
    const auto flag = [] { return frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0) + 1; }; // no monitor runs
    const Files set = with_settings();
    const std::vector<Killed> rows = {{set, cmd, "1 4 1 old", "1 4 1 new"},
                                      {{}, cmd, "0 0 1 -", "0 0 1 new"},
                                      {cut_off(set, START), cmd, "1 4 1 old", "1 4 1 new"},
                                      {set, flag, "1 4 1 old", "1 4 0 old"},
                                      {set, frwk_init_app_start_cfg_file, "1 4 1 old", "1 4 1 -"}};
    kill_everywhere(rows, START, [] { return frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"); });
}

// A reader that finds a piece looks for the backup; by then the save may have ended.
TEST(Power, SaveEndsWhileRead)
{
    const std::string whole = "<root><mbimd><monitor_service>0</monitor_service></mbimd></root>"; // built in: 1
    const auto read = [] { _exit(frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD)); };
    const auto end_save = [&](pid_t) { restore({{START, whole}}); };
    for (const std::string &piece : {std::string(), whole.substr(0, 15), std::string("<root>")}) {
        bool reached = true;
        for (int n = 1; reached; n++) {
            SCOPED_TRACE(piece + " " + std::to_string(n));
            restore({{START, piece}, {START + ".bak", whole}});
            const int status = step(n, read, end_save, &reached);
            if (status == -1) {
                GTEST_SKIP() << "processes cannot be traced here";
            }
            EXPECT_EQ(0, status);
        }
    }
}

// Each writer counts its own setting up: what is read lies between what was done by then and what was begun since.
TEST(Power, TwoWritersKilledAtRandom)
{
    void *shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::atomic<int> *begun = static_cast<std::atomic<int> *>(shared), *done = begun + 2;
    const uint32_t ids[2] = {FRWK_MODULE_QTI, FRWK_MODULE_MBIMD};
    const auto begin = [&](int i) {
        fflush(nullptr);
        pid_t pid = fork();
        while (pid == 0) {
            int k = ++begun[i];
            if (frwk_set_app_start_cmd(ids[i], std::to_string(k).c_str()) != 0) {
                _exit(1);
            }
            done[i] = k;
        }
        return pid;
    };
    restore({});
    pid_t pids[2] = {begin(0), begin(1)};
    srand(20);
    const long end = now_ms() + 40000; // sanitizers are slow
    for (int round = 0; round < (emulated() ? 50 : 200) && now_ms() < end && !HasFailure(); round++) {
        SCOPED_TRACE(round);
        usleep(static_cast<useconds_t>(rand() % 5000));
        int i = rand() % 2;
        int status;
        kill(pids[i], SIGKILL);
        waitpid(pids[i], &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a setter failed";
        const int set[2] = {done[0], done[1]};
        Result result = run_child([&] {
            frwk_init_app_start_cfg();
            for (int k = 0; k < 2; k++) {
                const char *cmd = g_s_modules_info[ids[k]].start_cmd;
                const int found = cmd != nullptr ? atoi(cmd) : 0;
                EXPECT_GE(found, set[k]);
                EXPECT_LE(found, begun[k]);
            }
        });
        EXPECT_TRUE(result.ok()) << result;
        pids[i] = begin(i);
    }
    for (int i = 0; i < 2; i++) {
        kill(pids[i], SIGKILL);
        waitpid(pids[i], nullptr, 0);
        EXPECT_GT(done[i], 20);
    }
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"));
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
}

TEST(Power, FullDisk)
{
    if (mount("tmpfs", "/usrdata", "tmpfs", 0, "size=128k") != 0) {
        GTEST_SKIP() << "cannot mount a small disk here: " << strerror(errno);
    }
    const auto failed = [](const std::string &path, const char *func, const char *kind) {
        return "|frwk_xml_file_save: write xml '" + path + "' failed!|" + func + ": save " + kind +
               " config file fialed! from '" + path + "'";
    };
    const auto one = [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); };
    const auto cmd = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "new"); };
    const Files set = with_settings();
    const struct {
        Files before;
        std::function<int()> change;
        std::string outcome;
    } rows[] = {
        // clang-format off
        {set, one, "-1" + failed(LOG, "frwk_set_trace_info", "log")},
        {set, [] { return frwk_all_set_trace_info(2, ""); }, "7" + failed(LOG, "frwk_all_set_trace_info", "log")},
        {set, frwk_init_log_cfg_info, "7" + failed(LOG, "frwk_init_log_cfg_info", "log")},
        {{}, one, "4" + failed(LOG, "frwk_init_log_cfg_info", "log") + "|frwk_xml_file_parse: invalid xml '" + LOG +
                  "'!|frwk_set_trace_info: parse '" + LOG + "' failed."},
        {set, cmd, "-1" + failed(START, "frwk_set_app_start_cmd", "start")},
        {{}, cmd, "-1" + failed(START, "frwk_init_app_start_cfg_file", "start") +
                  "|frwk_set_app_start_cmd: frwk_init_app_start_cfg_file failed!"},
        // clang-format on
    };
    for (const auto &row : rows) {
        restore(row.before);
        std::filesystem::create_directories(DIR);
        std::ofstream filler("/usrdata/filler");
        while (filler << std::string(4096, 'x') << std::flush) {
        }
        EXPECT_EQ(row.outcome, call(row.change));
        EXPECT_EQ(row.before.size(), listing().size());
        for (const auto &[path, text] : row.before) {
            EXPECT_EQ(text, read_file(path));
        }
        std::filesystem::remove("/usrdata/filler");
    }
}

} // namespace
