/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Accidents of the settings files, and accidents that meet: a writer is cut off at any of its calls; what runs next on
// what it has left meets a failing call, once or for good; and two writers are at work at once, or in spite of the
// lock. What was acknowledged before the cut, and what has been acknowledged since, is there afterwards.
#include "conf_test.h"

#include <regex>

namespace {

using Act = std::function<int()>;

struct NamedAct {
    std::string name;
    Act act;
    std::set<std::string> outcomes; // but for the usual ones; none: any
};

// What one settings file is put through. Each writer sets something of its own.
struct Subject {
    std::string path;
    std::vector<NamedAct> writers, readers;
    Act earlier; // what was acknowledged before anything else
    Act next;    // what is set at the end, by a writer that meets no fault

    // Only what was acknowledged earlier is there.
    Files start() const
    {
        restore({});
        EXPECT_EQ(0, earlier());
        return snapshot();
    }
};

// Loads, and forgets what was loaded: the default writer writes what the table holds.
int load_start_settings()
{
    const std::vector<frwk_module_info_t> rows(g_s_modules_info, g_s_modules_info + FRWK_MODULE_MAX);
    frwk_init_app_start_cfg();
    for (size_t id = 0; id < rows.size(); id++) {
        free_block(g_s_modules_info[id].start_cmd != rows[id].start_cmd ? g_s_modules_info[id].start_cmd : nullptr);
        g_s_modules_info[id] = rows[id];
    }
    return 0;
}

const std::set<std::string> usual_outcomes = {"0", "0|exec cmd 'mkdir /usrdata/odm' errno=1",
                                              "0|no lock on '/usrdata/odm'", "-1|frwk_xml_set_node_append"};
const std::string log_unread = "4|parse '" + LOG + "' failed.", start_unread = "4|parse '" + START + "' failed.",
                  log_unsaved = "|save log config file fialed! from '" + LOG + "'",
                  start_unsaved = "-1|save start config file fialed! from '" + START + "'",
                  no_doc = "-1|alloc for xml doc failed!";

// clang-format off
const Subject subjects[] = {
    {LOG,
     {{"one", [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); },
       {log_unread, "-1" + log_unsaved, "0" + log_unsaved}},
      {"all", [] { return frwk_all_set_trace_info(3, "warning"); }, {log_unread, "7" + log_unsaved, "0" + log_unsaved}},
      {"default", frwk_init_log_cfg_info, {no_doc, "7" + log_unsaved}}},
     {{"load", [] { return frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr); }, {}}},
     [] { return frwk_set_trace_info(FRWK_MODULE_MBIMD, 1, "error"); },
     [] { return frwk_set_trace_info(FRWK_MODULE_QMUXD, 1, "info"); }},
    {START,
     {{"command", [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); },
       {start_unread, start_unsaved, "-1|frwk_init_app_start_cfg_file failed!"}},
      {"supervision", // says -1, since no monitor answers
       [] { return frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0), frwk_get_app_monitor_conf(FRWK_MODULE_QTI); }, {}},
      {"default", frwk_init_app_start_cfg_file, {no_doc, start_unsaved}}},
     {{"load", load_start_settings, {}}, {"query", [] { return frwk_get_app_monitor_conf(FRWK_MODULE_QTI), 0; }, {}}},
     [] { return frwk_set_app_start_cmd(FRWK_MODULE_MBIMD, "-m"); },
     [] { return frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "-n"); }}};
// clang-format on

// The file after these acts on what is there now and the one that meets no fault, beside which nothing stays.
std::string followed(const Subject &subject, std::vector<Act> acts = {})
{
    int rc = 0;
    acts.push_back(subject.next);
    for (const Act &act : acts) {
        rc = act();
        EXPECT_EQ(Files({{subject.path, read_file(subject.path)}}), snapshot());
    }
    EXPECT_EQ(0, rc);
    return read_file(subject.path);
}

// What a writer leaves when it is cut off: the directory before each of its calls and after the last, and where it has
// just written a file, what a part of that would be; one part ends with an end tag, so that it parses. All this also
// where the file system cannot give a name to a file that has none.
std::set<Files> states_of(const Subject &subject, const Files &before, const Act &writer)
{
    std::set<Files> states;
    const auto note = [&](const std::string &call) {
        Files state = snapshot();
        states.insert(state);
        const auto written = state.find(subject.path + (call == "fsync" ? ".new" : ""));
        if ((call == "fflush" || call == "fsync") && written != state.end()) {
            const std::string text = written->second;
            for (const size_t size : {text.size() / 2, text.find("   </", text.size() / 2) + 5}) {
                written->second = text.substr(0, text.find('>', size) + (size != text.size() / 2));
                states.insert(state);
            }
        }
    };
    for (const int call_without_link : {INT_MAX, 1}) {
        restore(before);
        fault_after(call_without_link, {"linkat", EOPNOTSUPP}, true);
        watched(writer, note);
        no_more_faults();
        states.insert(snapshot());
    }
    return states;
}

// The states that the writers can leave: what a setter makes of each, and what is read of it where there are not too
// many, is what it would be of the one or the other of the two files that it may stand for.
std::set<Files> all_states(const Subject &subject, const std::set<Files> &befores)
{
    const auto read = [&befores] { return befores.size() > 2 ? "" : settings(); };
    std::set<Files> all;
    for (const Files &before : befores) {
        restore(before);
        const std::string old_settings = read(), old_text = followed(subject);
        for (const auto &[name, writer, outcomes] : subject.writers) {
            SCOPED_TRACE(name);
            restore(before);
            writer();
            const std::string new_settings = read(), new_text = followed(subject);
            for (const Files &state : states_of(subject, before, writer)) {
                restore(state);
                const std::string found = read(), text = followed(subject);
                EXPECT_TRUE((found == old_settings && text == old_text) || (found == new_settings && text == new_text))
                    << testing::PrintToString(state) << found << text;
                all.insert(state);
            }
        }
    }
    return all;
}

// ---- states times faults

// clang-format off
const Fault file_faults[] = {
    {"malloc", ENOMEM}, {"open", EMFILE}, {"flock", ENOLCK}, {"fopen", EACCES}, {"fread", EIO}, {"fwrite", ENOSPC},
    {"write", ENOSPC}, {"write", 0}, {"fflush", EIO}, {"fclose", EIO}, {"fsync", EIO}, {"rename", ENOSPC},
    {"remove", EIO}, {"access", EACCES}, {"lstat", EIO}, {"fstat", EIO}, {"fcntl", EMFILE}, {"linkat", ENOENT},
    {"inotify_init1", EMFILE}, {"rename fwrite write", ENOSPC}};
// clang-format on

// Where this is set in the environment, each accident is tried; else one of several that are alike.
const char ALL[] = "FRWK_ACCIDENTS";

// Of faults at this many calls one is tried: what lasts fails much the same, and so do the allocations of a parse.
int stride_of(const std::string &call, bool lasts, bool is_deep)
{
    const int usual = (call == "malloc" ? 7 : 1) * (lasts ? 3 : 1) * (is_deep ? 29 : 1);
    return getenv(ALL) != nullptr ? 1 : emulated() || SANITIZED ? 7 * usual : usual;
}

// One act on one state with every fault. None of these ends the process: the files are too small for a buffer that must
// grow. What comes of each.
std::multiset<std::string> meet_faults(const Subject &subject, const Files &state, int state_number, bool is_deep,
                                       const NamedAct &act, bool reads)
{
    restore(state);
    const std::string without = followed(subject);
    restore(state);
    const std::string with = reads ? without : followed(subject, {act.act});
    std::multiset<std::string> outcomes;
    for (const Fault &fault : file_faults) {
        restore(state);
        fault_after(INT_MAX, fault);
        act.act();
        const int last = INT_MAX - calls_until_fault(); // as often does the act make such a call
        no_more_faults();
        for (const bool lasts : {false, true}) {
            const int stride = stride_of(fault.call, lasts, is_deep);
            for (int n = 1 + state_number % stride; n <= last && !testing::Test::HasFailure(); n += stride) {
                SCOPED_TRACE(act.name + ": " + fault.call + " " + strerror(fault.error) +
                             (lasts ? " for good" : " once") + " at call " + std::to_string(n));
                restore(state);
                const int blocks = live_blocks(), fds = count_fds(getpid());
                fault_after(n, fault, lasts);
                const std::string outcome = outcome_of(act.act);
                EXPECT_TRUE(no_more_faults()) << "not reached";
                EXPECT_TRUE(live_blocks() == blocks && count_fds(getpid()) == fds) << "leaked";
                const bool refused = atoi(outcome.c_str()) != 0;
                // What cannot be written is taken back at once where the old content was in its place.
                const bool taken_back = refused && !act.outcomes.empty() && !lasts &&
                                        is_meant({"fopen fwrite write fsync fflush fclose rename", 0}, fault.call) &&
                                        state.size() == 1 && state.count(subject.path) == 1;
                EXPECT_TRUE(!(reads || taken_back) || snapshot() == state) << "read or refused, but changed";
                const std::string found = followed(subject);
                EXPECT_TRUE(found == with || (found == without && refused))
                    << testing::PrintToString(state) << outcome << found;
                // which element could not be added, and why there is no lock, need not be told apart
                static const std::regex details("(set_node_append|no lock on '/usrdata/odm').*");
                outcomes.insert(std::regex_replace(outcome, details, "$1"));
            }
        }
    }
    return outcomes;
}

void check_every_accident(const Subject &subject)
{
    const std::set<Files> first = all_states(subject, {Files(), subject.start()});
    const std::set<Files> states = all_states(subject, first); // and those that putting these right can leave
    size_t count = 0;
    for (const auto *acts : {&subject.writers, &subject.readers}) {
        for (const NamedAct &act : *acts) {
            std::set<std::string> seen = usual_outcomes, expected = act.outcomes;
            int number = 0;
            for (const Files &state : states) {
                const bool is_deep = first.count(state) == 0, reads = acts == &subject.readers;
                const auto outcomes = meet_faults(subject, state, number++, is_deep, act, reads);
                seen.insert(outcomes.begin(), outcomes.end());
                count += outcomes.size();
            }
            expected.insert(usual_outcomes.begin(), usual_outcomes.end());
            EXPECT_TRUE(act.outcomes.empty() || emulated() || SANITIZED || seen == expected)
                << act.name << testing::PrintToString(seen);
        }
    }
    printf("%s: %zu states, %zu accidents\n", subject.path.c_str(), states.size(), count);
}

TEST(Accidents, LogSettings)
{
    check_every_accident(subjects[0]);
}

TEST(Accidents, StartSettings)
{
    check_every_accident(subjects[1]);
}

// ---- two at once

// The first writer has had the lock for so long, at its n-th call, that the second goes on without it. At its m-th call
// the second one is late, too: the first ends meanwhile, and then the second is killed there or goes on. At least the
// one that was acknowledged last is there; the other may have been saved while this one had the file read.
int check_encounters(const Subject &subject, const Files &before, const Act &first, const Act &second, int end_signal)
{
    const auto file_after = [&](const std::vector<Act> &acts) { return restore(before), followed(subject, acts); };
    const std::string both = file_after({first, second}), other_way_round = file_after({second, first});
    const std::string first_alone = file_after({first}), second_alone = file_after({second}), neither = file_after({});
    const int stride = getenv(ALL) != nullptr ? 1 : emulated() || SANITIZED ? 15 : 2; // these fork slowly
    int n = 1, m = 1, count = 0;
    const auto act_late = [&] {
        fault_after(1, {"flock", ENOLCK}, true);
        int left = m;
        _exit(watched(second, [&](const std::string &) { --left == 0 ? raise(SIGSTOP) : 0; }) == 0 ? 0 : 1);
    };
    for (bool reached = true; reached && !testing::Test::HasFailure(); count += reached) {
        restore(before);
        Process other;
        siginfo_t state = {};
        int left = n;
        const auto start_other = [&](const std::string &) {
            if (--left == 0) {
                other.start(act_late);
                waitid(P_PID, static_cast<id_t>(other.pid), &state, WSTOPPED | WEXITED | WNOWAIT);
            }
        };
        const bool has_first = watched(first, start_other) == 0;
        reached = other.pid > 0;
        const bool has_second = reached && other.stop(end_signal).ok();
        const std::string found = followed(subject);
        EXPECT_TRUE(found == both || found == other_way_round || (found == first_alone && (has_first || !has_second)) ||
                    (found == second_alone && (has_second || !has_first)) ||
                    (found == neither && !has_first && !has_second))
            << "calls " << n << " and " << m << ", signal " << end_signal << ", acknowledged " << has_first << " and "
            << has_second << ": " << found;
        const bool was_late = state.si_code == CLD_STOPPED;
        n += !was_late;
        m = was_late ? m + stride : 1 + n % stride;
    }
    return count;
}

TEST(Accidents, TwoWritersWithoutTheLock)
{
    for (const Subject &subject : subjects) {
        SCOPED_TRACE(subject.path);
        const Files before = subject.start();
        const Act setter = subject.writers.front().act, by_default = subject.writers.back().act;
        const std::pair<Act, Act> pairs[] = {
            {setter, subject.writers[1].act}, {setter, by_default}, {by_default, setter}, {by_default, by_default}};
        int count = 0;
        for (const auto &[first, second] : pairs) {
            count += check_encounters(subject, before, first, second, SIGCONT) +
                     check_encounters(subject, before, first, second, SIGKILL);
        }
        printf("%s: %d encounters of two writers\n", subject.path.c_str(), count);
    }
}

// Both hold the lock in turn, so that neither takes back what the other has set.
TEST(Accidents, TwoWritersTakeTurns)
{
    const int last = emulated() ? 20 : 200;
    const auto count_up = [last](uint32_t id) {
        for (int k = 1; k <= last; k++) {
            EXPECT_EQ(0, frwk_set_app_start_cmd(id, std::to_string(k).c_str()));
        }
    };
    Process other;
    other.start([&] { count_up(FRWK_MODULE_MBIMD); });
    count_up(FRWK_MODULE_QTI);
    EXPECT_TRUE(other.wait().ok());
    frwk_init_app_start_cfg();
    EXPECT_EQ(std::to_string(last), g_s_modules_info[FRWK_MODULE_MBIMD].start_cmd);
    EXPECT_EQ(std::to_string(last), g_s_modules_info[FRWK_MODULE_QTI].start_cmd);
}

// Under the lock the old content is set aside before the new one is written, and given up once that is on the disk; the
// default content comes into place whole.
TEST(Accidents, OrderOfASave)
{
    const auto order = [](int (*writer)()) {
        std::string calls;
        EXPECT_EQ(0, watched(writer, [&calls](const std::string &call) { calls += call + " "; }));
        const std::string looking =
            "(clock_gettime|fcntl|access|lstat|fstat|fread|fopen (?=fread|fclose)|fclose (?!sync)) *";
        return std::regex_replace(calls, std::regex(looking), "");
    };
    const auto set = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); };
    subjects[1].start();
    EXPECT_EQ("open flock remove remove rename fopen fwrite fflush fclose sync remove flock ", order(set));
    EXPECT_EQ("open flock remove open write fsync remove linkat rename sync remove flock ",
              order(frwk_init_app_start_cfg_file));
}

// A reader that finds a piece looks for the backup; by then, at whichever of its calls, the save may have ended.
TEST(Accidents, SaveEndsWhileRead)
{
    const std::string whole = "<root><mbimd><monitor_service>0</monitor_service></mbimd></root>"; // built in: 1
    for (const std::string &piece : {std::string(), whole.substr(0, 15), std::string("<root>")}) {
        for (int n = 1, left = 0; left <= 0; n++) {
            SCOPED_TRACE(piece + " " + std::to_string(n));
            restore({{START, piece}, {START + ".bak", whole}});
            left = n;
            const auto end_save = [&](const std::string &) { --left == 0 ? restore({{START, whole}}) : void(); };
            EXPECT_EQ(0, watched([] { return frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD); }, end_save));
        }
    }
}

} // namespace
