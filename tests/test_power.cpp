/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The settings survive: a process killed at any moment of a change, two that change at once.
#include "conf_test.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <atomic>
#include <map>

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

// The same at each system call, one after the other; `check` looks at what came of it.
void at_every_call(const std::function<void()> &prepare, const std::function<void()> &body,
                   const std::function<void(pid_t)> &act, const std::function<void(int status, bool reached)> &check)
{
    bool reached = true;
    for (int n = 1; reached && !testing::Test::HasFailure(); n++) {
        SCOPED_TRACE(n);
        prepare();
        const int status = step(n, body, act, &reached);
        if (status == -1) {
            GTEST_SKIP() << "processes cannot be traced here";
        }
        EXPECT_TRUE(reached || n > 10) << "not traced to its end";
        check(status, reached);
    }
}

using Files = std::map<std::string, std::string>; // by path

void restore(const Files &files)
{
    std::filesystem::remove_all(DIR);
    for (const auto &[path, text] : files) {
        write_file(path, text);
    }
}

// What a later change of both files, which is not cut off, makes of them.
Files followed_up()
{
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_MONITOR, 2, "warning"));
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"));
    EXPECT_EQ(2u, listing().size());
    return {{LOG, read_file(LOG)}, {START, read_file(START)}};
}

// Each change is killed at each of its system calls: the old settings or the new ones are found, whole.
TEST(Power, KilledAtEverySystemCall)
{
    restore({});
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info"));
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "old"));
    const Files set = {{LOG, read_file(LOG)}, {START, read_file(START)}};
    Files cut_off = set;
    for (const auto &[path, text] : set) {
        cut_off[path + ".bak"] = text;
        cut_off[path].resize(text.find("<mbimd>"));
    }
    const auto one = [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); };
    const auto all = [] { return frwk_all_set_trace_info(2, "error"); };
    const auto cmd = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "new"); };
    const auto flag = [] { return frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0) + 1; }; // no monitor runs
    const struct {
        Files before;
        std::function<int()> change;
        std::string old_settings, new_settings;
    } rows[] = {{set, one, "1 4 1 old", "2 8 1 old"},
                {{}, one, "0 0 1 -", "2 8 1 -"},
                {cut_off, one, "1 4 1 old", "2 8 1 old"},
                {set, all, "1 4 1 old", "2 1 1 old"},
                {set, frwk_init_log_cfg_info, "1 4 1 old", "0 0 1 old"},
                {set, cmd, "1 4 1 old", "1 4 1 new"},
                {{}, cmd, "0 0 1 -", "0 0 1 new"},
                {cut_off, cmd, "1 4 1 old", "1 4 1 new"},
                {set, flag, "1 4 1 old", "1 4 0 old"},
                {set, frwk_init_app_start_cfg_file, "1 4 1 old", "1 4 1 -"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.old_settings + " to " + row.new_settings);
        restore(row.before);
        EXPECT_EQ(row.old_settings, settings());
        const Files followed_old = followed_up();
        restore(row.before);
        EXPECT_EQ(0, row.change());
        EXPECT_EQ(row.new_settings, settings());
        const Files followed_new = followed_up();
        const auto check = [&](int status, bool reached) {
            EXPECT_EQ(reached, WIFSIGNALED(status));
            const std::string found = settings();
            EXPECT_TRUE(found == row.old_settings || found == row.new_settings) << found;
            EXPECT_EQ(found == row.old_settings ? followed_old : followed_new, followed_up());
        };
        at_every_call([&] { restore(row.before); }, row.change, [](pid_t pid) { kill(pid, SIGKILL); }, check);
    }
}

// A reader that finds a piece looks for the backup; by then the save may have ended.
TEST(Power, SaveEndsWhileRead)
{
    const std::string whole = "<root><mbimd><monitor_service>0</monitor_service></mbimd></root>"; // built in: 1
    for (const std::string &piece : {std::string(), whole.substr(0, 15), std::string("<root>")}) {
        SCOPED_TRACE(piece);
        const auto saving = [&] { restore({{START, piece}, {START + ".bak", whole}}); };
        at_every_call(
            saving, [] { _exit(frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD)); },
            [&](pid_t) {
                restore({{START, whole}});
            },
            [](int status, bool) { EXPECT_EQ(0, status); });
    }
}

// Each writer counts its own setting up: what is read lies between what was done by then and what was begun since.
TEST(Power, TwoWritersKilledAtRandom)
{
    void *shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::atomic<int> *begun = static_cast<std::atomic<int> *>(shared), *done = begun + 2;
    const uint32_t ids[2] = {FRWK_MODULE_QTI, FRWK_MODULE_MBIMD};
    pid_t pids[2];
    const auto begin = [&](int i) {
        fflush(nullptr);
        pids[i] = fork();
        while (pids[i] == 0) {
            const int k = ++begun[i];
            if (frwk_set_app_start_cmd(ids[i], std::to_string(k).c_str()) != 0) {
                _exit(1);
            }
            done[i] = k;
        }
    };
    const auto end = [&](int i) {
        int status;
        kill(pids[i], SIGKILL);
        waitpid(pids[i], &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status)) << "a setter failed";
    };
    restore({});
    begin(0);
    begin(1);
    const long latest = now_ms() + 40000; // sanitizers are slow
    for (int round = 0; round < (emulated() ? 50 : 200) && now_ms() < latest && !HasFailure(); round++) {
        SCOPED_TRACE(round);
        usleep(static_cast<useconds_t>(rand() % 5000));
        const int i = rand() % 2;
        end(i);
        const int set[2] = {done[0], done[1]};
        const Result result = run_child([&] {
            frwk_init_app_start_cfg();
            for (int k = 0; k < 2; k++) {
                const char *cmd = g_s_modules_info[ids[k]].start_cmd;
                const int found = cmd != nullptr ? atoi(cmd) : 0;
                EXPECT_TRUE(set[k] <= found && found <= begun[k]) << found;
            }
        });
        EXPECT_TRUE(result.ok()) << result;
        begin(i);
    }
    end(0);
    end(1);
    EXPECT_TRUE(done[0] > 20 && done[1] > 20);
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "x"));
    EXPECT_EQ(Texts{"start_conf.xml"}, listing());
}

} // namespace
