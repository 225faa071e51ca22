/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Accidents that meet: a writer of a settings file is cut off at any of its calls; what runs next on what it has left
// meets a failing call, once or for good; and two writers are at work in spite of the lock. What was acknowledged
// before the cut, and what has been acknowledged since, is there afterwards.
#include "conf_test.h"
#include "faults.h"

#include <grp.h>
#include <sys/wait.h>

#include <map>
#include <numeric>
#include <set>

using namespace conf_test;
using namespace frwk_test;

namespace {

using Files = std::map<std::string, std::string>; // by path

Files snapshot()
{
    Files files;
    for (const std::string &name : exists(DIR) ? listing() : Texts()) {
        files[DIR + "/" + name] = read_file(DIR + "/" + name);
    }
    return files;
}

void restore(const Files &files)
{
    std::filesystem::remove_all(DIR);
    for (const auto &[path, text] : files) {
        write_file(path, text);
    }
}

using Act = std::function<int()>;

// What one settings file is put through. Each writer sets something of its own.
struct Subject {
    std::string path;
    std::vector<std::pair<std::string, Act>> writers;
    std::vector<std::pair<std::string, Act>> readers;
    Act earlier; // what was acknowledged before anything else
    Act next;    // what is set at the end, by a writer that meets no fault
};

const Subject log_settings = {LOG,
                              {{"one", [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); }},
                               {"all", [] { return frwk_all_set_trace_info(3, "warning"); }},
                               {"default", frwk_init_log_cfg_info}},
                              {{"load", [] { return frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr); }}},
                              [] { return frwk_set_trace_info(FRWK_MODULE_MBIMD, 1, "error"); },
                              [] { return frwk_set_trace_info(FRWK_MODULE_QMUXD, 1, "info"); }};

// Loads, and forgets what was loaded: the default writer writes what the table holds.
int load_start_settings()
{
    const std::vector<frwk_module_info_t> rows(g_s_modules_info, g_s_modules_info + FRWK_MODULE_MAX);
    frwk_init_app_start_cfg();
    for (size_t id = 0; id < rows.size(); id++) {
        free(g_s_modules_info[id].start_cmd != rows[id].start_cmd ? g_s_modules_info[id].start_cmd : nullptr);
        g_s_modules_info[id] = rows[id];
    }
    return 0;
}

const Subject start_settings = {
    START,
    {{"command", [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); }},
     {"supervision", // says -1, since no monitor answers
      [] { return frwk_set_app_monitor_conf(FRWK_MODULE_QMUXD, 0), frwk_get_app_monitor_conf(FRWK_MODULE_QMUXD); }},
     {"default", frwk_init_app_start_cfg_file}},
    {{"load", load_start_settings}, {"query", [] { return frwk_get_app_monitor_conf(FRWK_MODULE_QTI), 0; }}},
    [] { return frwk_set_app_start_cmd(FRWK_MODULE_MBIMD, "-m"); },
    [] { return frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "-n"); }};

// The file after these acts on what is there now and the one that meets no fault, beside which nothing stays.
std::string followed(const Subject &subject, const std::vector<Act> &acts = {})
{
    const auto change = [&subject](const Act &act) {
        const int rc = act();
        const Files files = snapshot();
        EXPECT_TRUE(files.size() == 1 && files.count(subject.path) == 1) << testing::PrintToString(files);
        return rc;
    };
    std::for_each(acts.begin(), acts.end(), change);
    EXPECT_EQ(0, change(subject.next));
    return read_file(subject.path);
}

std::string followed(const Subject &subject, const Files &from, const std::vector<Act> &acts = {})
{
    restore(from);
    return followed(subject, acts);
}

// What a writer leaves when it is cut off: the directory before each of its calls and after the last, and where it has
// just written a file, what a part of that would be; one part ends with an end tag, so that it parses. All this also
// where the file system cannot give a name to a file that has none.
std::set<Files> states_of(const Subject &subject, const Files &before, const Act &writer)
{
    static const Fault no_link = {"linkat", EOPNOTSUPP};
    std::set<Files> states;
    const std::function<void(const char *)> note = [&](const char *call) {
        Files state = snapshot();
        states.insert(state);
        const bool saves = call == std::string("fflush"), places = call == std::string("fsync");
        const auto written = state.find(subject.path + (places ? ".new" : ""));
        if ((saves || places) && written != state.end()) {
            const std::string text = written->second;
            for (const size_t size : {text.size() / 2, text.find("   </", text.size() / 2) + 5}) {
                written->second = text.substr(0, text.find('>', size) + (size != text.size() / 2));
                states.insert(state);
            }
        }
    };
    for (const bool can_link : {true, false}) {
        restore(before);
        fault_after(can_link ? INT_MAX : 1, no_link, true);
        before_call = &note;
        writer();
        before_call = nullptr;
        no_more_faults();
        states.insert(snapshot());
    }
    return states;
}

// ---- states times faults

const Fault file_faults[] = {{"malloc", ENOMEM},
                             {"open", EMFILE},
                             {"flock", ENOLCK},
                             {"fopen", EACCES},
                             {"fread", EIO},
                             {"fwrite", ENOSPC},
                             {"write", ENOSPC},
                             {"write", 0},
                             {"fflush", EIO},
                             {"fclose", EIO},
                             {"fsync", EIO},
                             {"rename", ENOSPC},
                             {"remove", EIO},
                             {"access", EACCES},
                             {"lstat", EIO},
                             {"fstat", EIO},
                             {"fcntl", EMFILE},
                             {"linkat", ENOENT},
                             {"inotify_init1", EMFILE},
                             {"rename fwrite write", ENOSPC}};

enum End { NOT_REACHED, ACKNOWLEDGED, REFUSED };

// Acts with the n-th such call failing. None of these faults ends the process: the files are too small for a buffer
// that must grow.
End act_with(const Fault &chosen, bool lasts, int n, const Act &act)
{
    fault_after(n, chosen, lasts);
    const int rc = act();
    return !no_more_faults() ? NOT_REACHED : rc == 0 ? ACKNOWLEDGED : REFUSED;
}

int count_of(const Fault &chosen, const std::map<std::string, int> &calls)
{
    const auto add = [&chosen](int sum, const auto &call) {
        return sum + (is_meant(chosen, call.first.c_str()) ? call.second : 0);
    };
    return std::accumulate(calls.begin(), calls.end(), 0, add);
}

// How often an act makes each call.
std::map<std::string, int> count_calls(const Files &state, const Act &act)
{
    std::map<std::string, int> counts;
    const std::function<void(const char *)> note = [&counts](const char *call) { counts[call]++; };
    restore(state);
    before_call = &note;
    act();
    before_call = nullptr;
    restore(state);
    fault_after(INT_MAX - 1, file_faults[0], false);
    act();
    counts[file_faults[0].call] = INT_MAX - 1 - calls_until_fault.exchange(INT_MAX); // where it is ours
    return counts;
}

// Where this is set in the environment, each accident is tried; else one of several that are alike.
const char ALL[] = "FRWK_ACCIDENTS";

// Of faults at this many calls one is tried: what lasts fails much the same, and so do the allocations of a parse.
int stride_of(const std::string &call, bool lasts, bool is_deep)
{
    if (getenv(ALL) != nullptr) {
        return 1;
    }
    return (call == "malloc" ? 7 : 1) * (lasts ? 3 : 1) * (is_deep ? 29 : 1) * (emulated() || OWN_ALLOCATOR ? 7 : 1);
}

// One act on one state with every fault. The number of faults.
int meet_faults(const Subject &subject, const Files &state, int state_number, const Act &act, bool reads, bool is_deep)
{
    const std::string without = followed(subject, state);
    const std::string with = reads ? without : followed(subject, state, {act});
    const std::map<std::string, int> calls = count_calls(state, act);
    int count = 0;
    for (const Fault &chosen : file_faults) {
        for (const bool lasts : {false, true}) {
            const int stride = stride_of(chosen.call, lasts, is_deep);
            for (int n = 1 + state_number % stride; n <= count_of(chosen, calls) && !testing::Test::HasFailure();
                 n += stride) {
                restore(state);
                const End end = act_with(chosen, lasts, n, act);
                EXPECT_NE(NOT_REACHED, end);
                count++;
                const bool unread = !reads || snapshot() == state;
                const std::string found = followed(subject);
                EXPECT_TRUE(unread && (found == with || (found == without && end != ACKNOWLEDGED)))
                    << chosen.call << " " << strerror(chosen.error) << (lasts ? " for good" : "") << " at call " << n
                    << " on " << testing::PrintToString(state) << (unread ? "" : "\nreading has changed something")
                    << (end == ACKNOWLEDGED ? "\nacknowledged: " : "\nrefused: ") << found;
            }
        }
    }
    return count;
}

// The states that the writers can leave, each with a file that is one of the two that it may stand for.
std::set<Files> all_states(const Subject &subject, const std::set<Files> &befores)
{
    std::set<Files> all;
    for (const Files &before : befores) {
        const std::string old_text = followed(subject, before);
        for (const auto &[name, writer] : subject.writers) {
            SCOPED_TRACE(name);
            const std::string new_text = followed(subject, before, {writer});
            for (const Files &state : states_of(subject, before, writer)) {
                const std::string found = followed(subject, state);
                EXPECT_TRUE(found == old_text || found == new_text) << testing::PrintToString(state) << found;
                all.insert(state);
            }
        }
    }
    return all;
}

void check_every_accident(const Subject &subject)
{
    restore({});
    EXPECT_EQ(0, subject.earlier());
    const std::set<Files> first = all_states(subject, {Files(), snapshot()});
    const std::set<Files> states = all_states(subject, first); // and those that putting these right can leave
    int count = 0, number = 0;
    for (const Files &state : states) {
        const bool is_deep = first.count(state) == 0;
        for (const auto &[name, act] : subject.writers) {
            SCOPED_TRACE(name);
            count += meet_faults(subject, state, number, act, false, is_deep);
        }
        for (const auto &[name, act] : subject.readers) {
            SCOPED_TRACE(name);
            count += meet_faults(subject, state, number, act, true, is_deep);
        }
        number++;
    }
    printf("%s: %zu states, %d accidents\n", subject.path.c_str(), states.size(), count);
}

TEST(Accidents, LogSettings)
{
    check_every_accident(log_settings);
}

TEST(Accidents, StartSettings)
{
    check_every_accident(start_settings);
}

// ---- two writers

// The first writer has had the lock for so long, at its n-th call, that the second goes on without it. At its m-th call
// the second one is late, too: the first ends meanwhile, and then the second is killed there or goes on. Which of them
// were acknowledged, and whether there were as many calls.
struct Encounter {
    bool first_reached, second_reached, first_acknowledged, second_acknowledged;
};

Encounter meet(const Act &first, const Act &second, int n, int m, bool is_killed)
{
    static const Fault no_lock = {"flock", ENOLCK};
    int reached[2], ended[2]; // pipes: the second is at its m-th call; the first has ended
    EXPECT_TRUE(pipe(reached) == 0 && pipe(ended) == 0);
    const std::function<void(const char *)> wait_in_second = [&](const char *) {
        char byte = 0;
        if (--m == 0) {
            (void)!write(reached[1], "", 1);
            (void)!read(ended[0], &byte, 1);
            if (is_killed) {
                _exit(REFUSED);
            }
        }
    };
    const auto fork_second = [&] {
        const pid_t pid = fork();
        if (pid == 0) {
            close(ended[1]);
            before_call = &wait_in_second;
            fault_after(1, no_lock, true);
            const int rc = second();
            _exit(rc == 0 ? ACKNOWLEDGED : REFUSED);
        }
        return pid;
    };
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(30);
        pid_t other = -1;
        char byte = 0;
        bool second_reached = false;
        const std::function<void(const char *)> note = [&](const char *) {
            if (--n == 0) {
                other = fork_second();
                close(reached[1]);
                second_reached = read(reached[0], &byte, 1) == 1;
            }
        };
        before_call = &note;
        const int rc = first();
        before_call = nullptr;
        close(ended[1]);
        int status = 0;
        waitpid(other, &status, 0);
        const bool second_acknowledged = WIFEXITED(status) && WEXITSTATUS(status) == ACKNOWLEDGED;
        _exit((other != -1) + second_reached * 2 + (rc == 0) * 4 + second_acknowledged * 8);
    }
    for (const int fd : {reached[0], reached[1], ended[0], ended[1]}) {
        close(fd);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "wait status " << status;
    const int bits = WEXITSTATUS(status);
    return {(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, (bits & 8) != 0};
}

// At least the one that was acknowledged last is there; the other may have been saved while this one had the file read.
int check_encounters(const Subject &subject, const Files &before, const Act &first, const Act &second, bool is_killed)
{
    const auto file_after = [&](const std::vector<Act> &acts) { return followed(subject, before, acts); };
    const std::string both = file_after({first, second}), other_way_round = file_after({second, first});
    const std::set<std::string> with_first = {file_after({first}), both, other_way_round};
    const std::set<std::string> with_second = {file_after({second}), both, other_way_round};
    const std::string with_neither = file_after({});
    int count = 0;
    const int stride = getenv(ALL) != nullptr ? 1 : emulated() || OWN_ALLOCATOR ? 15 : 2; // these fork slowly
    for (int n = 1, m = 1; !testing::Test::HasFailure();) {
        restore(before);
        const Encounter ends = meet(first, second, n, m, is_killed);
        if (!ends.first_reached) {
            break;
        }
        count++;
        const std::string found = followed(subject);
        const bool has_first = with_first.count(found) != 0, has_second = with_second.count(found) != 0;
        const bool is_there = ends.first_acknowledged && ends.second_acknowledged ? has_first || has_second
                              : ends.first_acknowledged                           ? has_first
                              : ends.second_acknowledged                          ? has_second
                                                         : has_first || has_second || found == with_neither;
        EXPECT_TRUE(is_there) << "calls " << n << " and " << m << (is_killed ? ", killed" : "") << ", acknowledged "
                              << ends.first_acknowledged << " and " << ends.second_acknowledged << ": " << found;
        n = ends.second_reached ? n : n + 1;
        m = ends.second_reached ? m + stride : 1 + n % stride;
    }
    return count;
}

TEST(Accidents, TwoWritersWithoutTheLock)
{
    for (const Subject *subject : {&log_settings, &start_settings}) {
        restore({});
        EXPECT_EQ(0, subject->earlier());
        const Files before = snapshot();
        const Act setter = subject->writers.front().second, by_default = subject->writers.back().second;
        const std::pair<Act, Act> pairs[] = {
            {setter, subject->writers[1].second}, {setter, by_default}, {by_default, setter}, {by_default, by_default}};
        int count = 0;
        for (const auto &[first, second] : pairs) {
            for (const bool is_killed : {false, true}) {
                SCOPED_TRACE(subject->path);
                count += check_encounters(*subject, before, first, second, is_killed);
            }
        }
        printf("%s: %d encounters of two writers\n", subject->path.c_str(), count);
    }
}

// The settings are in the backup, which cannot be renamed back.
TEST(Accidents, RefusedWhileInDoubt)
{
    static const Fault no_rename = {"rename", ENOSPC};
    for (const Subject *subject : {&log_settings, &start_settings}) {
        restore({});
        EXPECT_EQ(0, subject->earlier());
        const Files state = {{subject->path + ".bak", read_file(subject->path)}};
        restore(state);
        fault_after(1, no_rename, true);
        EXPECT_EQ(FRWK_ERROR_CONFIG_FILE, subject->writers.front().second());
        EXPECT_TRUE(no_more_faults());
        EXPECT_EQ(state, snapshot());
    }
}

// A whole new file that this user may not read, and a stale backup that he may.
TEST(Accidents, FileOfAnotherUser)
{
    for (const Subject *subject : {&log_settings, &start_settings}) {
        restore({});
        EXPECT_EQ(0, subject->earlier());
        const std::string old_text = read_file(subject->path);
        const Files state = {{subject->path, followed(*subject)}, {subject->path + ".bak", old_text}};
        const std::string whole = followed(*subject, state);
        restore(state);
        chmod(DIR.c_str(), 0777);
        chmod(subject->path.c_str(), 0600);
        const Result result = run_child([&] {
            if (setgroups(0, nullptr) != 0 || setgid(12345) != 0 || setuid(12345) != 0) {
                printf("refused");
                return;
            }
            EXPECT_EQ(FRWK_ERROR_CONFIG_FILE, subject->writers.front().second());
            for (const auto &[name, reader] : subject->readers) {
                reader();
            }
        });
        if (result.out == "refused") {
            GTEST_SKIP() << "another user cannot be had here";
        }
        EXPECT_TRUE(result.ok()) << result;
        EXPECT_EQ(state, snapshot());
        EXPECT_EQ(whole, followed(*subject));
    }
}

} // namespace
