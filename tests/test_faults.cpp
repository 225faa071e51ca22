// Every call of the library into the system fails: each allocation, each thread, each socket and file call that a
// scenario makes, one after the other, once or from then on. What comes of it is one of the listed outcomes; nothing
// leaks, what was there before is still there, and the same call succeeds afterwards.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <set>

#include "conf_test.h"

using namespace frwk_test;
using namespace conf_test;

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || HAS_FEATURE(address_sanitizer) ||                 \
    HAS_FEATURE(thread_sanitizer)
#define SANITIZED 1 // with an allocator of its own
#else
#define SANITIZED 0
#endif

namespace {

// The fault to come: of the calls with this name that the library makes, the one with this number, and all after it
// where it is to last.
struct Fault {
    const char *call;
    int error; // 0: a write that takes half of what it was given
    bool lasts;
};
Fault fault = {"", 0, false};
int fault_at = INT_MAX;
std::atomic<int> calls_made{0};
std::atomic<int> live_blocks{0};
uintptr_t library_start, library_end;

int find_library(dl_phdr_info *info, size_t, void *)
{
    if (strstr(info->dlpi_name, "libfrwk.so") != nullptr) {
        library_start = info->dlpi_addr;
        for (int i = 0; i < info->dlpi_phnum; i++) {
            const auto &header = info->dlpi_phdr[i];
            library_end = std::max<uintptr_t>(library_end, info->dlpi_addr + header.p_vaddr + header.p_memsz);
        }
    }
    return 0;
}

bool fails(const char *call, const void *caller)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(caller);
    if (at < library_start || at >= library_end || strcmp(call, fault.call) != 0) {
        return false;
    }
    const int number = ++calls_made;
    if (number == fault_at || (number > fault_at && fault.lasts)) {
        errno = fault.error;
        return true;
    }
    return false;
}

} // namespace

#define FAILS(call) fails(#call, __builtin_return_address(0))
#define REAL(call) static const auto real = reinterpret_cast<decltype(&call)>(dlsym(RTLD_NEXT, #call))

// Stand-ins for calls of the C library, which the library under test finds before the real ones.
extern "C" {
#if !SANITIZED
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

static void *counted(void *block)
{
    live_blocks += block != nullptr;
    return block;
}
void *malloc(size_t size)
{
    return FAILS(malloc) ? nullptr : counted(__libc_malloc(size));
}
void *calloc(size_t count, size_t size)
{
    return FAILS(malloc) ? nullptr : counted(__libc_calloc(count, size));
}
void *realloc(void *block, size_t size)
{
    if (FAILS(malloc)) {
        return nullptr;
    }
    live_blocks -= block != nullptr;
    return counted(__libc_realloc(block, size));
}
void free(void *block)
{
    live_blocks -= block != nullptr;
    __libc_free(block);
}
#endif

int pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *), void *arg) noexcept
{
    REAL(pthread_create);
    return FAILS(pthread_create) ? fault.error : real(tid, attr, start, arg);
}
int socket(int domain, int type, int protocol) noexcept
{
    REAL(socket);
    return FAILS(socket) ? -1 : real(domain, type, protocol);
}
int setsockopt(int fd, int level, int name, const void *value, socklen_t size) noexcept
{
    REAL(setsockopt);
    return FAILS(setsockopt) ? -1 : real(fd, level, name, value, size);
}
int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    REAL(bind);
    return FAILS(bind) ? -1 : real(fd, address, size);
}
int listen(int fd, int backlog) noexcept
{
    REAL(listen);
    return FAILS(listen) ? -1 : real(fd, backlog);
}
int connect(int fd, const sockaddr *address, socklen_t size)
{
    REAL(connect);
    return FAILS(connect) ? -1 : real(fd, address, size);
}
int accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    REAL(accept4);
    return FAILS(accept4) ? -1 : real(fd, address, size, flags);
}
int poll(pollfd *fds, nfds_t count, int timeout)
{
    REAL(poll);
    return FAILS(poll) ? -1 : real(fds, count, timeout);
}
ssize_t send(int fd, const void *bytes, size_t size, int flags)
{
    REAL(send);
    if (FAILS(send)) {
        return fault.error != 0 ? -1 : real(fd, bytes, size / 2, flags);
    }
    return real(fd, bytes, size, flags);
}
ssize_t readv(int fd, const iovec *parts, int count)
{
    REAL(readv);
    return FAILS(read) ? -1 : real(fd, parts, count);
}
ssize_t recv(int fd, void *bytes, size_t size, int flags)
{
    REAL(recv);
    return FAILS(read) ? -1 : real(fd, bytes, size, flags);
}
ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    REAL(recvmsg);
    return FAILS(read) ? -1 : real(fd, message, flags);
}
int open(const char *path, int flags, ...)
{
    REAL(open);
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return FAILS(open) ? -1 : real(path, flags, mode);
}
FILE *fopen(const char *path, const char *mode)
{
    REAL(fopen);
    return FAILS(fopen) ? nullptr : real(path, mode);
}
size_t fwrite(const void *bytes, size_t size, size_t count, FILE *fp)
{
    REAL(fwrite);
    return real(bytes, size, FAILS(fwrite) ? count / 2 : count, fp);
}
size_t fread(void *bytes, size_t size, size_t count, FILE *fp)
{
    REAL(fread);
    return FAILS(fread) ? 0 : real(bytes, size, count, fp);
}
int fflush(FILE *fp)
{
    REAL(fflush);
    return FAILS(fflush) ? EOF : real(fp);
}
int fclose(FILE *fp)
{
    REAL(fclose);
    const bool failed = FAILS(fclose);
    return real(fp) != 0 || failed ? EOF : 0;
}
ssize_t write(int fd, const void *bytes, size_t size)
{
    REAL(write);
    if (FAILS(write)) {
        return fault.error != 0 ? -1 : real(fd, bytes, size / 2);
    }
    return real(fd, bytes, size);
}
ssize_t read(int fd, void *bytes, size_t size)
{
    REAL(read);
    return FAILS(read) ? -1 : real(fd, bytes, size);
}
int rename(const char *from, const char *to) noexcept
{
    REAL(rename);
    return FAILS(rename) ? -1 : real(from, to);
}
int fsync(int fd)
{
    REAL(fsync);
    return FAILS(fsync) ? -1 : real(fd);
}
int fcntl(int fd, int command, ...)
{
    REAL(fcntl);
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *);
    va_end(args);
    return FAILS(fcntl) ? -1 : real(fd, command, argument);
}
int flock(int fd, int operation) noexcept
{
    REAL(flock);
    return FAILS(flock) ? -1 : real(fd, operation);
}
int system(const char *command)
{
    REAL(system);
    return FAILS(system) ? -1 : real(command);
}
void sync() noexcept // of this machine, which would take its time
{
}
}

namespace {

struct Expected {
    Fault fault;
    Texts outcomes;     // all that may come of it, and all of it does
    int most = INT_MAX; // calls to fail
};

struct Scenario {
    const char *name;
    std::function<void()> prepare; // makes the same state each time
    std::function<int()> act;
    std::string good;                   // outcome without a fault: "result|error message; ..."
    std::function<std::string()> state; // what a failure leaves as it was
    bool keeps;                         // what does not fail keeps memory or descriptors
    std::vector<Expected> expected;
    bool brief = false; // of several messages the last counts, and of a success only that of the settings' lock
};

const Fault NO_FAULT = {"", 0, false};

// The result and the traces of a call.
std::string act(const Scenario &scenario)
{
    Capture out;
    std::string text = std::to_string(scenario.act()) + "|";
    for (const TraceLine &trace : out.traces()) {
        if (scenario.brief) {
            text.resize(text.find('|') + 1);
            text += text[0] != '0' || contains(trace.msg, "no lock") ? trace.msg : "";
        } else {
            text += (text.back() == '|' ? "" : "; ") + trace.msg;
        }
    }
    return text;
}

// What the process held before is what it holds again, once its threads have ended.
std::string leak_since(int blocks, int fds)
{
    const auto same = [&] { return live_blocks == blocks && count_fds(getpid()) == fds; };
    if (wait_until(same, 3000)) {
        return "";
    }
    return std::to_string(live_blocks - blocks) + " blocks, " + std::to_string(count_fds(getpid()) - fds) +
           " descriptors";
}

struct Attempt {
    std::string outcome;
    bool fired;
};

// Acts under a fault, in a process of its own, since some faults end it. What it says on its standard error ends up
// behind the traces.
Attempt attempt(const Scenario &scenario, const Fault &coming, int at)
{
    int report[2];
    EXPECT_EQ(0, pipe2(report, O_CLOEXEC));
    Result result = run_child([&] {
        dl_iterate_phdr(find_library, nullptr);
        scenario.prepare();
        frwk_debug_enable(3);
        frwk_trace_set("warning");
        frwk_trace_print("", "", 1, FRWK_TRACE_ERROR, "the stream and the time zone have their memory");
        fflush(stdout);
        const std::string before = scenario.state ? scenario.state() : "";
        const int fds = count_fds(getpid());
        const int blocks = live_blocks;
        fault = coming;
        calls_made = 0;
        fault_at = at;
        bool good;
        bool failed;
        bool fired;
        {
            const std::string outcome = act(scenario);
            fault_at = INT_MAX;
            fired = calls_made >= at;
            failed = outcome.compare(0, 3, "-1|") == 0;
            good = outcome.substr(0, outcome.find('|')) == scenario.good.substr(0, scenario.good.find('|'));
            EXPECT_EQ(static_cast<ssize_t>(outcome.size()), write(report[1], outcome.data(), outcome.size()));
        }
        if (failed || !scenario.keeps) {
            EXPECT_EQ("", leak_since(blocks, fds));
        }
        EXPECT_TRUE(good || !scenario.state || scenario.state() == before) << scenario.state();
        if (fired && (failed || !scenario.keeps)) {
            EXPECT_EQ(scenario.good, act(scenario)) << "afterwards";
        } else if (!fired) {
            EXPECT_EQ(1, write(report[1], "", 1));
        }
        fflush(stdout);
    });
    close(report[1]);
    std::string outcome = raw_recv(report[0], 65536);
    close(report[0]);
    if (result.aborted()) { // "[module]ASSERT(file|function|line), expression"
        return {"abort|" + result.err.substr(result.err.find("), ") + 3), true};
    }
    EXPECT_TRUE(result.ok()) << result;
    const bool fired = outcome.empty() || outcome.back() != '\0';
    outcome.resize(outcome.size() - !fired);
    return {outcome + result.err, fired};
}

void sweep(const Scenario &scenario)
{
    if (testing::Test::HasFailure()) {
        return;
    }
    SCOPED_TRACE(scenario.name);
    EXPECT_EQ(scenario.good, attempt(scenario, NO_FAULT, 1).outcome);
    for (const Expected &expected : scenario.expected) {
        if (SANITIZED && strcmp(expected.fault.call, "malloc") == 0) {
            continue;
        }
        SCOPED_TRACE(std::string(expected.fault.call) + (expected.fault.lasts ? " from then on" : " once") +
                     ", errno " + std::to_string(expected.fault.error));
        std::set<std::string> seen;
        for (int at = 1; at <= expected.most; at++) {
            SCOPED_TRACE(at);
            const Attempt made = attempt(scenario, expected.fault, at);
            if (!made.fired || testing::Test::HasFailure()) {
                break;
            }
            seen.insert(made.outcome);
        }
        EXPECT_EQ(std::set<std::string>(expected.outcomes.begin(), expected.outcomes.end()), seen);
    }
}

// ---- messages between modules

void become_tool()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
}

int32_t echo(uint32_t, uint32_t, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    for (int32_t i = 0; i < req_len && i < rsp_size; i++) {
        rsp[i] = req[i];
    }
    return 0;
}

const Fault NO_MEMORY = {"malloc", ENOMEM, false};

TEST(Faults, Requests)
{
    Module peer(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(echo); });
    ASSERT_TRUE(peer.ready);
    const auto sync = [] {
        char rsp[6] = "";
        int32_t result = -7;
        int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, 7, "hello", 5, rsp, 5, 1, &result);
        EXPECT_EQ(rc == 0 ? 0 : -7, result);
        EXPECT_STREQ(rc == 0 ? "hello" : "", rsp);
        return rc;
    };
    const auto async = [] { return frwk_ipc_send_async(FRWK_MODULE_QMUXD, 7, "hello", 5, 1); };
    for (bool is_sync : {true, false}) {
        const std::string good = is_sync ? "0|" : "15|";
        const Texts not_sent = {"18|ipc send req msg failed!"};
        sweep({is_sync ? "sync" : "async",
               become_tool,
               is_sync ? std::function<int()>(sync) : async,
               good,
               {},
               false,
               {{NO_MEMORY, {"5|alloc failed for ipc req!"}},
                {{"socket", EMFILE, false}, {"1|socket create error; ipc connect to module [qmuxd] failed!"}},
                {{"connect", EACCES, false}, {"1|socket connect error; ipc connect to module [qmuxd] failed!"}},
                {{"connect", EINTR, false}, {good}},
                {{"send", EPIPE, false}, not_sent},
                {{"send", EAGAIN, false}, {good}},
                {{"send", EAGAIN, true}, not_sent},
                {{"read", EIO, false}, {"19|ipc recv rsp header failed!"}},
                {{"read", EINTR, false}, {good}}}});
    }
}

// Large bodies and responses stand on the heap of the service.
int ask_service(const char *module, int32_t async, const std::string &body)
{
    const Reply reply = raw_request(
        module, {4, 7, static_cast<uint32_t>(async), 1, async != 0 ? 0 : 8000, static_cast<int32_t>(body.size())},
        body);
    if (!reply.complete) {
        return -1;
    }
    EXPECT_TRUE(async != 0 || reply.data == body + std::string(8000 - body.size(), '\0'));
    return reply.hdr.rc;
}

TEST(Faults, Service)
{
    const auto serve = [] {
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QTI, nullptr));
        ASSERT_EQ(0, frwk_ipc_init(echo));
        int fds[4];
        for (int &fd : fds) { // that many stacks stay in the C library's store
            fd = raw_connect("qti");
        }
        EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 6; }));
        for (int &fd : fds) {
            close(fd);
        }
        EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 2; }));
    };
    const std::string body(6000, 'x');
    const auto sync = [&] { return ask_service("qti", 0, body); };
    const auto two = [&] { return ask_service("qti", 0, body) + ask_service("qti", 0, body); };
    const auto async = [&] { return ask_service("qti", 1, "x"); };
    sweep({"sync",
           serve,
           sync,
           "0|",
           {},
           false,
           {{NO_MEMORY, {"-1|alloc for ipc recv body error!", "-1|alloc for ipc rsp error!"}},
            {{"pthread_create", EAGAIN, false}, {"-1|create thread error!; create thread for accept handle error!"}},
            {{"send", EPIPE, false}, {"-1|send ipc rsp error!"}},
            {{"send", EAGAIN, true}, {"-1|send ipc rsp error!"}},
            {{"send", 0, false}, {"0|"}}}});
    sweep({"async", serve, async, "0|", {}, false, {{{"send", EPIPE, false}, {"-1|ipc send async response error!"}}}});
    for (int error : {EMFILE, ENFILE, ECONNABORTED, EINTR, ENOMEM}) {
        const std::string message =
            "0|ipc accept error, errno=" + std::to_string(error) + ", cause: " + strerror(error);
        sweep({"accept", serve, two, "0|", {}, false, {{{"accept4", error, false}, {message}, 1}}});
    }
}

TEST(Faults, WithinTheModule)
{
    const auto self = [] {
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QTI, nullptr));
        ASSERT_EQ(0, frwk_ipc_init(echo));
        frwk_ipc_send_async(FRWK_MODULE_QTI, 7, "x", 1, 1); // its stack stays in the C library's store
        EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 2; }));
    };
    sweep({"request to oneself",
           self,
           [] { return frwk_ipc_send_async(FRWK_MODULE_QTI, 7, "hello", 5, 1); },
           "15|",
           {},
           false,
           {{NO_MEMORY, {"5|alloc for aync msg failed!"}},
            {{"pthread_create", EAGAIN, false}, {"14|create thread error!; create aync msg handle thread error!"}}}});

    const auto with_submodule = [] {
        become_tool();
        frwk_submodule_create(1, [](frwk_submodule_msg_t *msg) { free(msg); });
    };
    sweep({"submodule",
           with_submodule,
           [] { return frwk_submodule_send(0, 1, 7, "hello", 5); },
           "0|",
           {},
           false,
           {{NO_MEMORY, {"5|Alloc for message send error!"}}}});
    const auto create = [] {
        static uint32_t sid = 0;
        frwk_submodule_create(sid++, [](frwk_submodule_msg_t *) {});
        return 0;
    };
    sweep({"new submodule",
           become_tool,
           create,
           "0|",
           {},
           true,
           {{{"pthread_create", EAGAIN, false}, {"abort|FRWK_THREAD_INVALID != tid\n"}}}});

    sweep({"timer service",
           become_tool,
           [] { return frwk_timer_init(nullptr); },
           "0|",
           [] { return std::to_string(frwk_timer_start(1, nullptr, 500)); },
           true,
           {{{"pthread_create", EAGAIN, false}, {"14|create thread error!; create timer thread failed!"}}}});
    const auto with_timers = [] {
        become_tool();
        ASSERT_EQ(0, frwk_timer_init(nullptr));
    };
    const auto start = [] {
        int id = frwk_timer_cb_start(5, nullptr, nullptr, 500000);
        if (id != 0) {
            frwk_timer_stop(id);
        }
        return id == 0 ? 0 : 1;
    };
    sweep({"timer", with_timers, start, "1|", {}, false, {{NO_MEMORY, {"0|alloc new timer[5] failed!"}}}});
}

TEST(Faults, Hash)
{
    const auto use = [] {
        int handles[17];
        int made = 0;
        for (int &handle : handles) { // one more than the first handle array holds
            handle = frwk_hash_create(5);
            made += handle >= 0;
        }
        frwk_hash_value_t text = frwk_hash_value_string("text", 1);
        frwk_hash_entry_t *entry = handles[0] >= 0 ? frwk_hash_enter(handles[0], "key", text) : nullptr;
        if (entry == nullptr) {
            free(reinterpret_cast<void *>(text.data));
        } else if (text.data != 0) {
            EXPECT_STREQ("text", static_cast<char *>(frwk_hash_lookup_symbol(handles[0], "key")));
        }
        for (int handle : handles) {
            if (handle >= 0) {
                frwk_hash_free(handle);
            }
        }
        return made * 100 + (entry != nullptr ? 10 : 0) + (text.data != 0 ? 1 : 0);
    };
    sweep({"hash",
           become_tool,
           use,
           "1711|",
           {},
           false,
           {{NO_MEMORY,
             {"1601|alloc error!; alloc hash id error!", "1601|alloc hash table error!", "1601|alloc error!",
              "1611|alloc error!; alloc hash id error!", "1611|alloc hash table error!", "1611|alloc error!",
              "1701|alloc error!", "1710|"}}}});
}

// ---- files

// Both files with settings of their own, as their own setters leave them.
std::pair<std::string, std::string> make_texts()
{
    std::filesystem::remove_all(DIR);
    EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 3, "warning"));
    EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "-m"));
    return {read_file(LOG), read_file(START)};
}

void put_files()
{
    static const auto texts = make_texts();
    std::filesystem::remove_all(DIR);
    write_file(LOG, texts.first);
    write_file(START, texts.second);
    std::filesystem::create_directories("/tmp/odm/lock");
    std::filesystem::create_directories("/tmp/odm/ipc");
    become_tool();
}

std::string files()
{
    std::string text;
    std::filesystem::create_directories(DIR);
    Texts names = listing();
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        text += name + ":\n" + read_file(DIR + "/" + name);
    }
    return text;
}

TEST(Faults, Values)
{
    static const char path[] = "/tmp/value";
    const auto put = [] {
        become_tool();
        write_file(path, "12345678");
    };
    const auto get = [] {
        char value[9] = "";
        return frwk_get_file_value(path, value, 8);
    };
    const auto set = [] { return frwk_set_file_value(path, "87654321", 8); };
    const std::string wrote = "-1|write /tmp/value fialed! ret is ";
    sweep({"get",
           put,
           get,
           "0|",
           {},
           false,
           {{{"open", EMFILE, false}, {"-1|open /tmp/value fialed!"}},
            {{"open", EINTR, false}, {"0|"}},
            {{"read", EIO, false}, {"-1|read /tmp/value fialed! ret is -1, errno is 5"}},
            {{"read", EINTR, false}, {"0|"}}}});
    sweep({"set",
           put,
           set,
           "0|",
           {},
           false,
           {{{"open", EACCES, false}, {"-1|open /tmp/value fialed!"}},
            {{"write", ENOSPC, false}, {wrote + "-1, value len is 8, errno is 28"}},
            {{"write", 0, false}, {wrote + "4, value len is 8, errno is 0"}}}});
}

struct Setter {
    const char *name;
    std::function<int()> act;
    bool log;
    int save_failed;
    Texts unset; // what it says when the tree cannot be changed
    bool reads;  // the settings that it changes
};

TEST(Faults, Settings)
{
    const std::string set = "-1|frwk_xml_set_node_append ";
    const Texts no_log = {set + "mode failed ", set + "level failed "};
    Texts no_default = {"-1|alloc for xml doc failed!", set + "root failed!"};
    for (const char *name : {"monitor", "atfwd_daemon", "dial_test", "serial_bridge", "mbimd", "qti", "qmuxd"}) {
        no_default.push_back(set + name + " failed!");
    }
    Texts no_log_default = no_default;
    Texts no_start_default = no_default;
    no_log_default.insert(no_log_default.end(), {set + "mode failed!", set + "level failed "});
    no_start_default.insert(no_start_default.end(), {set + "logtool failed!", set + "monitor_tool failed!",
                                                     set + "monitor_service failed!", set + "start_cmd failed!"});
    put_files(); // so that no attempt has to make the texts
    const Setter setters[] = {
        {"one", [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); }, true, -1, no_log, true},
        {"all", [] { return frwk_all_set_trace_info(2, "debug"); }, true, 7, no_log, true},
        {"default", frwk_init_log_cfg_info, true, 7, no_log_default, false},
        {"arguments",
         [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); },
         false,
         -1,
         {set + "start_cmd failed "},
         true},
        {"default start", frwk_init_app_start_cfg_file, false, -1, no_start_default, false},
    };
    for (const Setter &setter : setters) {
        const std::string path = setter.log ? LOG : START;
        const Texts no_save = {std::to_string(setter.save_failed) + "|save " + (setter.log ? "log" : "start") +
                               " config file fialed! from '" + path + "'"};
        const Texts or_good = {no_save[0], "0|"};
        Texts no_memory = setter.unset;
        Texts no_file = no_save;
        no_memory.push_back(no_save[0]);
        if (setter.reads) {
            no_memory.push_back("4|parse '" + path + "' failed.");
            no_file.push_back(no_memory.back());
        }
        const Texts never_memory = no_memory;
        no_memory.push_back("0|"); // where it only looked whether the file is whole, it looks again
        Texts no_file_once = no_file;
        no_file_once.push_back("0|");
        std::vector<Expected> expected = {{NO_MEMORY, no_memory},
                                          {{"malloc", ENOMEM, true}, never_memory},
                                          {{"open", EMFILE, true}, {"0|"}}, // only the lock
                                          {{"fopen", EACCES, false}, no_file_once},
                                          {{"fwrite", ENOSPC, false}, no_save},
                                          {{"fflush", EIO, false}, no_save},
                                          {{"fclose", EIO, false}, or_good},
                                          {{"rename", EIO, false}, {"0|"}},
                                          {{"flock", EINTR, false}, {"0|"}},
                                          {{"flock", ENOLCK, true}, {"0|", "0|no lock on '/usrdata/odm', errno=37"}}};
        if (setter.reads) { // a default writer that cannot read takes it that there is nothing to keep
            expected.push_back({{"fopen", EACCES, true}, no_file});
            expected.push_back({{"fread", EIO, true}, {no_file.back()}});
        }
        sweep({setter.name, put_files, setter.act, "0|", files, false, expected, true});
    }
}

// The first settings of a device come in one step, and where that fails by a plain save.
TEST(Faults, FirstSettings)
{
    const auto no_files = [] {
        put_files();
        std::filesystem::remove_all(DIR);
        std::filesystem::create_directories(DIR);
    };
    const auto act = [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); };
    const Texts no_save = {"-1|save log config file fialed! from '" + LOG + "'"};
    sweep({"first",
           no_files,
           act,
           "0|",
           {},
           false,
           {{{"open", EACCES, true}, {"0|"}},
            {{"write", ENOSPC, false}, {"0|"}},
            {{"write", EINTR, false}, {"0|"}},
            {{"write", 0, false}, {"0|"}},
            {{"fsync", EIO, false}, {"0|"}},
            {{"rename", EIO, false}, {"0|"}},
            {{"fwrite", ENOSPC, false}, {no_save[0], "0|"}}},
           true});
}

TEST(Faults, StartUp)
{
    put_files();
    // What it has loaded: debug mode and level, in the monitor the start arguments.
    const auto start_qti = [] {
        int rc = frwk_module_init(FRWK_MODULE_QTI, nullptr);
        return rc != 0 ? rc : frwk_get_module_debug_mode() * 10 + frwk_get_module_level();
    };
    const auto start_monitor = [] {
        g_s_modules_info[FRWK_MODULE_MONITOR].start_cmd = nullptr; // leaks an earlier one, as the library does
        int rc = frwk_module_init(FRWK_MODULE_MONITOR, nullptr);
        const char *cmd = g_s_modules_info[FRWK_MODULE_MONITOR].start_cmd;
        return rc != 0 ? rc : cmd != nullptr && strcmp(cmd, "-m") == 0;
    };
    const std::string no_service = "abort|FRWK_ERROR_SUCCESS == frwk_ipc_run()\n";
    sweep({"module",
           put_files,
           start_qti,
           "32|",
           {},
           true,
           {{NO_MEMORY, {"32|"}}, // it looks again
            {{"malloc", ENOMEM, true}, {"0|"}},
            {{"fopen", EACCES, false}, {"32|"}},
            {{"fread", EIO, true}, {"0|"}},
            {{"open", EACCES, false}, {"-1|can't open /tmp/odm/lock/qti\n"}},
            {{"fcntl", ENOLCK, false}, {"-1|can't lock /tmp/odm/lock/qti\n"}},
            {{"fcntl", EAGAIN, false}, {"-1|the 'qti' is already running!\n"}},
            {{"fcntl", EACCES, false}, {"-1|the 'qti' is already running!\n"}},
            {{"write", ENOSPC, false}, {"32|"}},
            {{"socket", EMFILE, false}, {no_service}},
            {{"bind", EACCES, false}, {no_service}},
            {{"listen", EACCES, false}, {no_service}},
            {{"setsockopt", EACCES, false}, {"32|set socket reuse address error, errno=13, cause: Permission denied"}},
            {{"pthread_create", EAGAIN, false}, {no_service}}}});
    sweep({"monitor",
           put_files,
           start_monitor,
           "1|",
           {},
           true,
           {{NO_MEMORY, {"1|", "0|"}},
            {{"malloc", ENOMEM, true}, {"1|", "0|"}},
            {{"fopen", EACCES, true}, {"1|", "0|"}}}});
}

} // namespace
