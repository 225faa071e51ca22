/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Every call of the library into the system fails: each allocation, each thread, each socket and file call that a
// scenario makes, one after the other, once or from then on. What comes of it is one of the listed outcomes, and each
// of these is seen; nothing leaks, the settings are as they were, and the same call succeeds afterwards.
#include "conf_test.h"

#include <thread>

namespace {

enum { ONCE, LASTING, HARMLESS }; // the last: once, and the scenario gets over it

struct Row {
    Fault fault;
    int kind;
};

// clang-format off
const Row rows[] = {
    {{"malloc", ENOMEM}, ONCE}, {{"malloc", ENOMEM}, LASTING}, {{"pthread_create", EAGAIN}, ONCE},
    {{"socket", EMFILE}, ONCE}, {{"setsockopt", EACCES}, ONCE}, {{"bind", EACCES}, ONCE}, {{"listen", EACCES}, ONCE},
    {{"connect", EACCES}, ONCE}, {{"connect", EINTR}, HARMLESS}, {{"accept4", EMFILE}, ONCE}, {{"poll", EIO}, ONCE},
    {{"send", EPIPE}, ONCE}, {{"send", EAGAIN}, LASTING}, {{"send", EAGAIN}, HARMLESS}, {{"send", 0}, ONCE},
    {{"recv", EIO}, ONCE}, {{"read", EIO}, ONCE}, {{"read", EINTR}, HARMLESS},
    {{"write", ENOSPC}, ONCE}, {{"write", EINTR}, ONCE}, {{"write", 0}, ONCE}, {{"open", EACCES}, ONCE},
    {{"open", EMFILE}, LASTING}, {{"fcntl", ENOLCK}, ONCE}, {{"flock", EINTR}, HARMLESS}, {{"flock", ENOLCK}, LASTING},
    {{"fopen", EACCES}, ONCE}, {{"fopen", EINTR}, HARMLESS}, {{"fread", EIO}, LASTING}, {{"fread", EINTR}, HARMLESS}};
// clang-format on

struct Scenario {
    std::string name;
    std::function<void()> prepare; // makes the same state each time
    std::function<int()> act;
    int good;                       // without a fault
    bool keeps;                     // what does not fail with -1 keeps memory or descriptors, and cannot be done again
    std::set<std::string> outcomes; // what else may come of it: "result|last message"
};

// Acts with the n-th call failing, in a process of its own, since some faults end it. The outcome, behind it what was
// said on the standard error; empty where there were not as many calls.
std::string attempt(const Scenario &scenario, const Row &row, int n)
{
    const Result child = run_child([&] {
        scenario.prepare();
        const Files before = snapshot();
        const int fds = count_fds(getpid()), blocks = live_blocks();
        fault_after(n, row.fault, row.kind == LASTING);
        const std::string outcome = outcome_of(scenario.act);
        const bool reached = no_more_faults();
        const int result = atoi(outcome.c_str());
        if (result == -1 || !scenario.keeps) {
            const auto given_back = [=] { return live_blocks() <= blocks && count_fds(getpid()) == fds; };
            EXPECT_TRUE(wait_until(given_back)) << live_blocks() - blocks << " blocks leaked";
            const Files after = snapshot();
            EXPECT_TRUE(result == scenario.good || before.empty() || after == before) << testing::PrintToString(after);
            EXPECT_EQ(0U, after.count(LOG + ".new") + after.count(START + ".new"));
            EXPECT_EQ(std::to_string(scenario.good), outcome_of(scenario.act)) << "afterwards";
        }
        printf("%s%s", reached ? "\noutcome: " : "", outcome.c_str());
        fflush(stdout);
        if (SANITIZED) { // the leak checker would hold the lock of the module for a while after the process
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    });
    if (child.aborted()) { // "[module]ASSERT(file|function|line), expression"
        return "abort|" + child.err.substr(child.err.find("), ") + 3);
    }
    EXPECT_TRUE(child.ok()) << child;
    const size_t outcome = child.out.rfind("\noutcome: ");
    return outcome == std::string::npos ? "" : child.out.substr(outcome + 10) + child.err;
}

const std::string not_accepted = "0|ipc accept error, errno=24, cause: Too many open files";

void drive(const std::vector<Scenario> &scenarios)
{
    for (const Scenario &scenario : scenarios) {
        const std::string good = std::to_string(scenario.good);
        std::set<std::string> seen = {good}, all = scenario.outcomes;
        int made = 0;
        for (const Row &row : rows) {
            const std::string &call = row.fault.call;
            SCOPED_TRACE(scenario.name + " " + call + " " + strerror(row.fault.error));
            // A service accepts at a time of its own, which only the requests to it wait for.
            const bool left_out = call == "accept4" && scenario.outcomes.count(not_accepted) == 0;
            const int step = emulated() || SANITIZED || row.kind == LASTING ? 5 : 1; // what lasts fails much the same
            for (int n = 1; !left_out; n += step) {
                const std::string outcome = attempt(scenario, row, n);
                if (outcome.empty() || testing::Test::HasFailure()) {
                    break;
                }
                EXPECT_TRUE(row.kind != HARMLESS || outcome == good) << outcome;
                seen.insert(outcome);
                made++;
            }
        }
        printf("%s: %d faults\n", scenario.name.c_str(), made);
        all.insert(good);
        if (emulated() || SANITIZED) { // not every outcome is seen
            seen.insert(all.begin(), all.end());
        }
        EXPECT_EQ(all, seen);
    }
}

void become_tool()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
}

TEST(Faults, Requests)
{
    Module peer(FRWK_MODULE_QMUXD, serve);
    const auto sync = [] {
        char rsp[6] = "";
        int32_t result = -7;
        int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, 7, "hello", 5, rsp, 5, 1, &result);
        EXPECT_EQ(rc == 0 ? 0 : -7, result);
        EXPECT_STREQ(rc == 0 ? "hello" : "", rsp);
        return rc;
    };
    const auto async = [] { return frwk_ipc_send_async(FRWK_MODULE_QMUXD, 7, "hello", 5, 1); };
    const std::set<std::string> failed = {"18|ipc send req msg failed!", "19|ipc recv rsp header failed!",
                                          "1|ipc connect to module [qmuxd] failed!", "5|alloc failed for ipc req!"};
    drive({{"sync", become_tool, sync, 0, false, failed}, {"async", become_tool, async, 15, false, failed}});
}

// What a thread holds is given back where it is cancelled after the connection was refused.
TEST(Faults, CancelledAsItIsRefused)
{
    become_tool();
    const int fds = count_fds(getpid());
    bool cancelled = true;
    std::thread([&] {
        watched([] { return frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, MSG_ECHO, nullptr, 0); },
                [](const std::string &call) { call == "connect" ? pthread_cancel(pthread_self()) : 0; });
        pthread_testcancel();
        cancelled = false;
    }).join();
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(fds, count_fds(getpid()));
}

void become_service()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QTI, nullptr));
    serve();
}

TEST(Faults, Service)
{
    const auto ask = [](uint32_t async, int32_t size) { // what is large stands on the heap
        const std::string body(6000, 'x');
        const std::string answer = words({0, size}) + (size != 0 ? body + std::string(2000, '\0') : "");
        const int fd = raw_connect("qti");
        usleep(50000); // so that the service waits
        raw_send(fd, words({4, 7, async, 1, size, 6000}) + body);
        const bool answered = raw_recv(fd, answer.size()) == answer;
        close(fd);
        return answered ? 0 : -1;
    };
    std::set<std::string> sync_failed = {"-1|alloc for ipc recv body error!",
                                         "-1|create thread for accept handle error!", "-1|ipc recv body error!",
                                         "-1|recv ipc header error!", not_accepted};
    std::set<std::string> async_failed = sync_failed;
    sync_failed.insert({"-1|send ipc rsp error!", "-1|alloc for ipc rsp error!"});
    async_failed.insert("-1|ipc send async response error!");
    drive({{"sync", become_service, [&] { return ask(0, 8000); }, 0, false, sync_failed},
           {"async", become_service, [&] { return ask(1, 0); }, 0, false, async_failed}});
}

TEST(Faults, WithinTheModule)
{
    const auto ask = [] { return frwk_ipc_send_async(FRWK_MODULE_QTI, 7, "hello", 5, 1); };
    const auto submodule = [] {
        static uint32_t sid = 0;
        frwk_submodule_create(sid, [](frwk_submodule_msg_t *msg) { free_block(msg); });
        return frwk_submodule_send(sid++, 0, 7, "hello", 5);
    };
    const auto timers = [] { return frwk_timer_init(nullptr); };
    const auto timer = [] {
        const int id = frwk_timer_start(5, nullptr, 500000);
        return id != 0 && frwk_timer_stop(id) == nullptr ? 0 : -1;
    };
    const auto hash = [] {
        int handles[17]; // one more than the first handle array holds
        std::generate(handles, handles + 17, [] { return frwk_hash_create(5); });
        const frwk_hash_value_t value = frwk_hash_value_string("text", 1);
        const bool all = std::count(handles, handles + 17, -1) == 0 && value.data != 0;
        const bool entered = all && frwk_hash_enter(handles[16], "key", value) != nullptr;
        free_block(entered ? nullptr : reinterpret_cast<void *>(value.data));
        std::for_each(handles, std::remove(handles, handles + 17, -1), frwk_hash_free);
        return entered ? 0 : -1;
    };
    const auto put = [] { become_tool(), write_file("/tmp/value", "12345678"); };
    const auto get = [] {
        char value[9] = "";
        return frwk_get_file_value("/tmp/value", value, 8);
    };
    const auto set = [] { return frwk_set_file_value("/tmp/value", "87654321", 8); };
    // clang-format off
    drive({{"request to oneself", become_service, ask, 15, false,
            {"14|create aync msg handle thread error!", "5|alloc for aync msg failed!"}},
           {"submodule", become_tool, submodule, 0, true,
            {"5|Alloc for message send error!", "abort|FRWK_THREAD_INVALID != tid\n"}},
           {"timer service", become_tool, timers, 0, true, {"14|create timer thread failed!"}},
           {"timer", [&] { become_tool(), timers(); }, timer, 0, false, {"-1|alloc new timer[5] failed!"}},
           {"hash", become_tool, hash, 0, false,
            {"-1", "-1|alloc error!", "-1|alloc hash id error!", "-1|alloc hash table error!"}},
           {"get", put, get, 0, false,
            {"-1|open /tmp/value fialed!", "-1|read /tmp/value fialed! ret is -1, errno is 5"}},
           {"set", put, set, 0, false,
            {"-1|open /tmp/value fialed!", "-1|write /tmp/value fialed! ret is -1, value len is 8, errno is 28",
             "-1|write /tmp/value fialed! ret is 4, value len is 8, errno is 0"}}});
    // clang-format on
}

// Both files with settings of their own, which start-up takes.
void put_files()
{
    restore({{LOG, "<root><qti><mode>3</mode><level>warning</level></qti></root>"},
             {START, "<r><monitor><monitor_service>0</monitor_service><start_cmd>-m</start_cmd></monitor></r>"}});
    write_file("/tmp/odm/lock/x", "");
    write_file("/tmp/odm/ipc/x", "");
    become_tool();
}

TEST(Faults, StartUp)
{
    const auto start_qti = [] { // the debug mode and the level that it has loaded
        int rc = frwk_module_init(FRWK_MODULE_QTI, nullptr);
        return rc != 0 ? rc : frwk_get_module_debug_mode() * 10 + frwk_get_module_level();
    };
    const auto start_monitor = [] { // its start arguments
        int rc = frwk_module_init(FRWK_MODULE_MONITOR, nullptr);
        const char *cmd = g_s_modules_info[FRWK_MODULE_MONITOR].start_cmd;
        return rc != 0 ? rc : cmd != nullptr && strcmp(cmd, "-m") == 0;
    };
    const std::string no_service = "abort|FRWK_ERROR_SUCCESS == frwk_ipc_run()\n";
    // clang-format off
    drive({{"module", put_files, start_qti, 32, true,
            {"0", no_service, "-1can't open /tmp/odm/lock/qti\n", "-1can't lock /tmp/odm/lock/qti\n",
             "32|set socket reuse address error, errno=13, cause: Permission denied"}},
           {"monitor", put_files, start_monitor, 1, true,
            {"0", no_service, "-1can't open /tmp/odm/lock/monitor\n", "-1can't lock /tmp/odm/lock/monitor\n"}}});
    // clang-format on
}

} // namespace
