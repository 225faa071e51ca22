// Every call of the library into the system fails: each allocation, each thread, each socket and file call that a
// scenario makes, one after the other, once or from then on. What comes of it is one of the listed outcomes, and each
// of these is seen; nothing leaks, what was there before is still there, and the same call succeeds afterwards.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OWN_ALLOCATOR 1
#elif defined(__has_feature)
#define OWN_ALLOCATOR (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define OWN_ALLOCATOR 0
#endif

namespace {

// The fault to come: of the calls of this kind that the library makes, the one with this number, and all after it where
// it lasts. Without an error, a write takes half of what it is given.
struct {
    std::string kind;
    int error = 0;
    bool lasts = false;
    std::atomic<int> at{INT_MAX};
} fault;
std::atomic<int> calls_made{0};
std::atomic<int> live_blocks{0};
uintptr_t library_start, library_end;
std::atomic<bool> recording{false};
char trail[4096]; // the kinds of the calls that the library has made while they were recorded

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

bool fails(const char *kind, const void *caller)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(caller);
    if (at < library_start || at >= library_end) {
        return false;
    }
    if (recording && strlen(trail) + strlen(kind) + 2 <= sizeof trail) {
        strcat(strcat(trail, kind), " ");
    }
    if (fault.kind != kind) {
        return false;
    }
    const int number = ++calls_made;
    const int chosen = fault.at;
    if (number != chosen && (number < chosen || !fault.lasts)) {
        return false;
    }
    errno = fault.error;
    return true;
}

} // namespace

#if defined(__clang__)
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif
// Stand-ins for calls of the C library, which the library under test finds before the real ones.
#define FAILS(kind) fails(kind, __builtin_return_address(0))
#define REAL(call) reinterpret_cast<decltype(&call)>(dlsym(RTLD_NEXT, #call))
#define STAND_IN(result, call, kind, failure, parameters, arguments, ...)                                              \
    result call parameters __VA_ARGS__                                                                                 \
    {                                                                                                                  \
        static const auto real = REAL(call);                                                                           \
        return FAILS(kind) ? (failure) : real arguments;                                                               \
    }

extern "C" {
#if !OWN_ALLOCATOR
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
    return FAILS("malloc") ? nullptr : counted(__libc_malloc(size));
}
void *calloc(size_t count, size_t size)
{
    return FAILS("malloc") ? nullptr : counted(__libc_calloc(count, size));
}
void *realloc(void *block, size_t size)
{
    const bool failed = FAILS("malloc");
    live_blocks -= block != nullptr && !failed;
    return failed ? nullptr : counted(__libc_realloc(block, size));
}
void free(void *block)
{
    live_blocks -= block != nullptr;
    __libc_free(block);
}
#endif
void sync() noexcept // of this machine, which would take its time
{
    FAILS("sync");
}
STAND_IN(int, pthread_create, "thread", fault.error,
         (pthread_t * tid, const pthread_attr_t *attr, void *(*start)(void *), void *arg), (tid, attr, start, arg),
         noexcept)
STAND_IN(int, socket, "socket", -1, (int domain, int type, int protocol), (domain, type, protocol), noexcept)
STAND_IN(int, setsockopt, "setsockopt", -1, (int fd, int level, int name, const void *value, socklen_t size),
         (fd, level, name, value, size), noexcept)
STAND_IN(int, bind, "bind", -1, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), noexcept)
STAND_IN(int, listen, "listen", -1, (int fd, int backlog), (fd, backlog), noexcept)
STAND_IN(int, connect, "connect", -1, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
STAND_IN(int, accept4, "accept", -1, (int fd, sockaddr *address, socklen_t *size, int flags),
         (fd, address, size, flags))
STAND_IN(int, poll, "poll", -1, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
STAND_IN(ssize_t, send, "send", fault.error != 0 ? -1 : real(fd, bytes, size / 2, flags),
         (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags))
STAND_IN(ssize_t, recv, "read", -1, (int fd, void *bytes, size_t size, int flags), (fd, bytes, size, flags))
STAND_IN(ssize_t, read, "read", -1, (int fd, void *bytes, size_t size), (fd, bytes, size))
STAND_IN(ssize_t, write, "write", fault.error != 0 ? -1 : real(fd, bytes, size / 2),
         (int fd, const void *bytes, size_t size), (fd, bytes, size))
STAND_IN(FILE *, fopen, "fopen", nullptr, (const char *path, const char *mode), (path, mode))
STAND_IN(size_t, fread, "fread", 0, (void *bytes, size_t size, size_t count, FILE *fp), (bytes, size, count, fp))
STAND_IN(size_t, fwrite, "fwrite", real(bytes, size, count / 2, fp),
         (const void *bytes, size_t size, size_t count, FILE *fp), (bytes, size, count, fp))
STAND_IN(int, fflush, "fflush", EOF, (FILE * fp), (fp))
STAND_IN(int, fclose, "fclose", (real(fp), EOF), (FILE * fp), (fp))
STAND_IN(int, remove, "remove", -1, (const char *path), (path), noexcept)
STAND_IN(int, rename, "rename", -1, (const char *from, const char *to), (from, to), noexcept)
STAND_IN(int, fsync, "fsync", -1, (int fd), (fd))
STAND_IN(int, flock, "flock", -1, (int fd, int operation), (fd, operation), noexcept)
int open(const char *path, int flags, ...)
{
    static const auto real = REAL(open);
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return FAILS("open") ? -1 : real(path, flags, mode);
}
int fcntl(int fd, int command, ...)
{
    static const auto real = REAL(fcntl);
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *);
    va_end(args);
    return FAILS("fcntl") ? -1 : real(fd, command, argument);
}
}

namespace {

struct Scenario {
    std::function<void()> prepare; // makes the same state each time
    std::function<int()> act;
    std::string good;                        // outcome without a fault: "result|error message; ..."
    std::function<std::string()> state = {}; // what a failure leaves as it was
    bool keeps = false;                      // what does not fail keeps memory or descriptors
    bool brief = false;                      // of the messages only the first two words of the last count
};

// The result and the traces of a call.
std::string act(const Scenario &scenario)
{
    Capture out;
    std::string text = std::to_string(scenario.act()) + "|";
    for (const TraceLine &trace : out.traces()) {
        if (scenario.brief) {
            text.resize(text.find('|') + 1);
            text += trace.msg.substr(0, trace.msg.find(' ', trace.msg.find(' ') + 1));
        } else {
            text += (text.back() == '|' ? "" : "; ") + trace.msg;
        }
    }
    return text;
}

// Acts with the n-th call failing, in a process of its own, since some faults end it. The outcome, behind it what was
// said on the standard error; empty where there were not as many calls.
std::string attempt(const Scenario &scenario, int n)
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
        calls_made = 0;
        fault.at = n;
        bool good, kept;
        {
            const std::string outcome = act(scenario);
            fault.at = INT_MAX;
            const std::string result_part = outcome.substr(0, outcome.find('|'));
            good = result_part == scenario.good.substr(0, scenario.good.find('|'));
            kept = scenario.keeps && result_part != "-1";
            const size_t size = calls_made >= n ? outcome.size() : 0;
            EXPECT_EQ(static_cast<ssize_t>(size), write(report[1], outcome.data(), size));
        }
        const int most = blocks + (emulated() ? 2 : 0); // an emulator ends threads late: others take new stacks
        // no more than two captures: a larger one would be a block of its own
        const auto given_back = [&most, &fds] { return live_blocks <= most && count_fds(getpid()) == fds; };
        EXPECT_TRUE(kept || wait_until(given_back)) << live_blocks - blocks << " blocks leaked";
        EXPECT_TRUE(good || !scenario.state || scenario.state() == before) << scenario.state();
        if (!kept) {
            EXPECT_EQ(scenario.good, act(scenario)) << "afterwards";
        }
        fflush(stdout);
        if (OWN_ALLOCATOR) { // the leak checker would hold the lock of the module for a while after the process
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    });
    close(report[1]);
    const std::string outcome = raw_recv(report[0], 65536);
    close(report[0]);
    if (result.aborted()) { // "[module]ASSERT(file|function|line), expression"
        return "abort|" + result.err.substr(result.err.find("), ") + 3);
    }
    EXPECT_TRUE(result.ok()) << result;
    return outcome + (outcome.empty() ? "" : result.err);
}

// Each line of the table is "kind ERROR: outcome / outcome", with "!" behind the error of a fault that lasts, and with
// "1" where only the first call is to fail.
void sweep(const char *name, const Scenario &scenario, const std::string &table)
{
    static const std::map<std::string, int> errors = {{"SHORT", 0},       {"ENOMEM", ENOMEM}, {"EMFILE", EMFILE},
                                                      {"EACCES", EACCES}, {"EINTR", EINTR},   {"EPIPE", EPIPE},
                                                      {"EAGAIN", EAGAIN}, {"EIO", EIO},       {"ENOSPC", ENOSPC},
                                                      {"ENOLCK", ENOLCK}, {"ENFILE", ENFILE}};
    std::istringstream lines(table);
    int faults = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch row;
        if (testing::Test::HasFailure() || !std::regex_match(line, row, std::regex(" *(\\w+) (\\w+?)(!?)(1?): (.*)"))) {
            continue;
        }
        SCOPED_TRACE(name + line);
        fault.kind = row[1];
        fault.error = errors.at(row[2]);
        fault.lasts = row[3] == "!";
        if (OWN_ALLOCATOR && fault.kind == "malloc") {
            continue;
        }
        const std::regex separator(" / ");
        const std::string outcomes = row[5];
        const std::set<std::string> expected(
            std::sregex_token_iterator(outcomes.begin(), outcomes.end(), separator, -1), std::sregex_token_iterator());
        std::set<std::string> seen;
        const int step = emulated() ? 5 : 1; // slow there: one call in five, and no outcome but the listed ones
        for (int n = 1; n == 1 || row[4] != "1"; n += step) {
            SCOPED_TRACE(n);
            std::string outcome = attempt(scenario, n);
            if (outcome.empty() || testing::Test::HasFailure()) {
                break;
            }
            outcome.resize(outcome.size() - (outcome.back() == '\n'));
            seen.insert(outcome);
            faults++;
        }
        if (step == 1) {
            EXPECT_EQ(expected, seen);
        } else {
            EXPECT_TRUE(std::includes(expected.begin(), expected.end(), seen.begin(), seen.end())) << *seen.rbegin();
        }
    }
    printf("%s: %d faults\n", name, faults);
}

void become_tool()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
}

int32_t echo(uint32_t, uint32_t, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    std::copy_n(req, std::min(req_len, rsp_size), rsp);
    return 0;
}

// A module whose service has some stacks of threads in the C library's store.
void serve()
{
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QTI, nullptr));
    ASSERT_EQ(0, frwk_ipc_init(echo));
    int fds[4];
    for (int &fd : fds) {
        fd = raw_connect("qti");
    }
    EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 6; }));
    std::for_each(fds, fds + 4, close);
    EXPECT_TRUE(wait_until([] { return count_threads(getpid()) == 2; }));
}

TEST(Faults, Requests)
{
    Module peer(FRWK_MODULE_QMUXD, [] { frwk_ipc_init(echo); });
    const auto sync = [] {
        char rsp[6] = "";
        int32_t result = -7;
        int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, 7, "hello", 5, rsp, 5, 1, &result);
        EXPECT_EQ(rc == 0 ? 0 : -7, result);
        EXPECT_STREQ(rc == 0 ? "hello" : "", rsp);
        return rc;
    };
    const std::string table = R"(
        malloc ENOMEM: 5|alloc failed for ipc req!
        socket EMFILE: 1|socket create error; ipc connect to module [qmuxd] failed!
        connect EACCES: 1|socket connect error; ipc connect to module [qmuxd] failed!
        send EPIPE: 18|ipc send req msg failed!
        send EAGAIN!: 18|ipc send req msg failed!
        read EIO: 19|ipc recv rsp header failed!)";
    const auto again = [](const std::string &good) {
        return "\nconnect EINTR: " + good + "\nsend EAGAIN: " + good + "\nread EINTR: " + good;
    };
    sweep("sync", {become_tool, sync, "0|"}, table + again("0|"));
    const auto async = [] { return frwk_ipc_send_async(FRWK_MODULE_QMUXD, 7, "hello", 5, 1); };
    sweep("async", {become_tool, async, "15|"}, table + again("15|"));
}

TEST(Faults, Service)
{
    const auto ask = [](uint32_t async) { // large bodies and responses stand on the heap
        const std::string body(6000, 'x');
        const Reply reply = raw_request("qti", {4, 7, async, 1, async != 0 ? 0 : 8000, 6000}, body);
        EXPECT_TRUE(!reply.complete || async != 0 || reply.data == body + std::string(2000, '\0'));
        return reply.complete ? reply.hdr.rc : -1;
    };
    sweep("sync", {serve, [&] { return ask(0); }, "0|"}, R"(
        malloc ENOMEM: -1|alloc for ipc recv body error! / -1|alloc for ipc rsp error!
        thread EAGAIN: -1|create thread error!; create thread for accept handle error!
        send EPIPE: -1|send ipc rsp error!
        send EAGAIN!: -1|send ipc rsp error!
        send SHORT: 0|)");
    sweep("async", {serve, [&] { return ask(1); }, "0|"}, "send EPIPE: -1|ipc send async response error!");
    const auto ask_late = [] {
        const int fd = raw_connect("qti");
        usleep(20000);
        raw_send(fd, bytes_of(ReqHdr{4, FRWK_MSG_SYS_PING, 0, 1, 0, 0}));
        const bool answered = raw_recv(fd, sizeof(RspHdr)).size() == sizeof(RspHdr);
        close(fd);
        return answered ? 0 : -1;
    };
    sweep("late", {serve, ask_late, "0|"}, "poll EINTR: -1|select recv error!; recv ipc header error!");
    // The first accept is under way before the fault can come, so there are two requests.
    sweep("accept", {serve, [&] { return ask(0) + ask(0); }, "0|"}, R"(
        accept EMFILE1: 0|ipc accept error, errno=24, cause: Too many open files
        accept ENFILE1: 0|ipc accept error, errno=23, cause: Too many open files in system
        accept EINTR1: 0|ipc accept error, errno=4, cause: Interrupted system call
        accept ENOMEM1: 0|ipc accept error, errno=12, cause: Cannot allocate memory)");
}

TEST(Faults, WithinTheModule)
{
    sweep("request to oneself", {serve, [] { return frwk_ipc_send_async(8, 7, "hello", 5, 1); }, "15|"}, R"(
        malloc ENOMEM: 5|alloc for aync msg failed!
        thread EAGAIN: 14|create thread error!; create aync msg handle thread error!)");

    const auto create = [] {
        static uint32_t sid = 0;
        frwk_submodule_create(sid++, [](frwk_submodule_msg_t *msg) { free(msg); });
        return 0;
    };
    const auto with_submodule = [&] { become_tool(), create(); };
    sweep("submodule", {with_submodule, [] { return frwk_submodule_send(0, 0, 7, "hello", 5); }, "0|"},
          "malloc ENOMEM: 5|Alloc for message send error!");
    sweep("new submodule", {become_tool, create, "0|", {}, true}, "thread EAGAIN: abort|FRWK_THREAD_INVALID != tid");

    const auto unstarted = [] { return std::to_string(frwk_timer_start(1, nullptr, 500)); };
    sweep("timer service", {become_tool, [] { return frwk_timer_init(nullptr); }, "0|", unstarted, true},
          "thread EAGAIN: 14|create thread error!; create timer thread failed!");
    const auto with_timers = [] { become_tool(), frwk_timer_init(nullptr); };
    const auto start = [] {
        const int id = frwk_timer_start(5, nullptr, 500000);
        return id != 0 && frwk_timer_stop(id) == nullptr ? 1 : 0;
    };
    sweep("timer", {with_timers, start, "1|"}, "malloc ENOMEM: 0|alloc new timer[5] failed!");
}

TEST(Faults, Hash)
{
    const auto use = [] { // counts what could be had
        int handles[17];  // one more than the first handle array holds
        int had = 0;
        for (int &handle : handles) {
            handle = frwk_hash_create(5);
            had += handle >= 0;
        }
        frwk_hash_value_t value = frwk_hash_value_string("text", 1);
        had += value.data != 0;
        if (frwk_hash_enter(handles[16], "key", value) != nullptr) {
            had++;
        } else {
            free(reinterpret_cast<void *>(value.data));
        }
        for (int handle : handles) {
            if (handle >= 0) {
                frwk_hash_free(handle);
            }
        }
        return had;
    };
    sweep("hash", {become_tool, use, "19|"},
          R"(
        malloc ENOMEM: 18|alloc error! / 18|alloc error!; alloc hash id error! / 18|alloc hash table error! / 18| / )"
          "17|alloc error!; parameter is null! / 17|alloc error!; alloc hash id error!; parameter is null! / "
          "17|alloc hash table error!; parameter is null!");
}

TEST(Faults, Values)
{
    const auto put = [] { become_tool(), write_file("/tmp/value", "12345678"); };
    const auto get = [] {
        char value[9] = "";
        return frwk_get_file_value("/tmp/value", value, 8);
    };
    sweep("get", {put, get, "0|"}, R"(
        open EMFILE: -1|open /tmp/value fialed!
        open EINTR: 0|
        read EIO: -1|read /tmp/value fialed! ret is -1, errno is 5
        read EINTR: 0|)");
    sweep("set", {put, [] { return frwk_set_file_value("/tmp/value", "87654321", 8); }, "0|"}, R"(
        open EACCES: -1|open /tmp/value fialed!
        write ENOSPC: -1|write /tmp/value fialed! ret is -1, value len is 8, errno is 28
        write SHORT: -1|write /tmp/value fialed! ret is 4, value len is 8, errno is 0)");
}

// Both files with settings of their own, as their own setters leave them.
void put_files()
{
    static const auto texts = [] {
        std::filesystem::remove_all(DIR);
        EXPECT_EQ(0, frwk_set_trace_info(FRWK_MODULE_QTI, 3, "warning"));
        EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_MONITOR, "-m"));
        return std::pair(read_file(LOG), read_file(START));
    }();
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
    Texts names = listing();
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        text += name + ":\n" + read_file(DIR + "/" + name);
    }
    return text;
}

TEST(Faults, Settings)
{
    put_files(); // so that no attempt has to make the texts
    // A failure where it is only looked whether the file is whole is got over by another look. A default writer that
    // cannot read takes it that there is nothing to keep.
    const std::string table = R"(
        open EMFILE!: 0|
        fwrite ENOSPC: SAVE
        fflush EIO: SAVE
        fclose EIO: 0| / SAVE
        rename EIO: 0|
        flock EINTR: 0|
        flock ENOLCK!: 0| / 0|no lock)";
    const std::string setter = table + R"(
        malloc ENOMEM: 0| / 0|alloc for / -1|frwk_xml_set_node_append SET / 4|parse PATH / SAVE
        malloc ENOMEM!: -1|frwk_xml_set_node_append SET / 4|parse PATH / SAVE
        fopen EACCES: 0| / 4|parse PATH / SAVE
        fopen EACCES!: 4|parse PATH / SAVE
        fread EIO!: 4|parse PATH)";
    const std::string writer = table + R"(
        malloc ENOMEM: 0| / 0|alloc for / -1|alloc for / -1|frwk_xml_set_node_append SET / SAVE
        malloc ENOMEM!: -1|alloc for / -1|frwk_xml_set_node_append SET / SAVE
        fopen EACCES: 0| / SAVE)";
    const auto filled = [](std::string text, const char *save, const std::string &path, const char *sets) {
        std::string set;
        for (const std::string &name : split_lines(sets)) {
            set += (set.empty() ? "" : " / -1|frwk_xml_set_node_append ") + name;
        }
        text = std::regex_replace(text, std::regex("SAVE"), save);
        return std::regex_replace(std::regex_replace(text, std::regex("PATH"), "'" + path + "'"), std::regex("SET"),
                                  set);
    };
    const auto one = [] { return frwk_set_trace_info(FRWK_MODULE_QTI, 2, "debug"); };
    const auto all = [] { return frwk_all_set_trace_info(2, "debug"); };
    const auto cmd = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); };
    const std::string names = "root\nmonitor\natfwd_daemon\ndial_test\nserial_bridge\nmbimd\nqti\nqmuxd\n";
    sweep("one", {put_files, one, "0|", files, false, true}, filled(setter, "-1|save log", LOG, "mode\nlevel"));
    sweep("all", {put_files, all, "0|", files, false, true},
          filled(table + "\n malloc ENOMEM!: -1|frwk_xml_set_node_append SET / 4|parse PATH / SAVE", "7|save log", LOG,
                 "mode\nlevel"));
    sweep("arguments", {put_files, cmd, "0|", files, false, true}, filled(setter, "-1|save start", START, "start_cmd"));
    sweep("default", {put_files, frwk_init_log_cfg_info, "0|", files, false, true},
          filled(writer, "7|save log", LOG, (names + "mode\nlevel").c_str()));
    sweep(
        "default start", {put_files, frwk_init_app_start_cfg_file, "0|", files, false, true},
        filled(writer, "-1|save start", START, (names + "logtool\nmonitor_tool\nmonitor_service\nstart_cmd").c_str()));

    // A buffer that cannot grow is the end of the process.
    static const std::string long_text(5000, 'x');
    const auto set_long = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, long_text.c_str()); };
    sweep("long", {put_files, set_long, "0|", files, false, true},
          filled("malloc ENOMEM!: -1|frwk_xml_set_node_append SET / 4|parse PATH / SAVE / abort|NULL != bf->bp",
                 "-1|save start", START, "start_cmd"));

    // The first settings of a device come in one step, and where that fails by a plain save.
    const auto no_files = [] {
        put_files();
        std::filesystem::remove(LOG);
    };
    sweep("first", {no_files, one, "0|", files, false, true}, R"(
        open EACCES!: 0|
        write ENOSPC: 0|
        write EINTR: 0|
        write SHORT: 0|
        fsync EIO: 0|
        rename EIO: 0|)");
}

// Under the lock the old content is set aside before the new one is written, and given up once that is on the disk; the
// first content of all comes into place whole.
TEST(Faults, OrderOfASave)
{
    dl_iterate_phdr(find_library, nullptr);
    const auto order = [](int (*writer)()) {
        trail[0] = '\0';
        recording = true;
        EXPECT_EQ(0, writer());
        recording = false;
        const std::string looking = "(malloc|setsockopt|fcntl|fread|fopen (?!fwrite)|fclose (?!sync)) *";
        return std::regex_replace(trail, std::regex(looking), "");
    };
    const auto set = [] { return frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-q"); };
    const std::string save = "remove rename fopen fwrite fflush fclose sync remove flock ";
    put_files();
    EXPECT_EQ("open flock " + save, order(set));
    std::filesystem::remove(START);
    EXPECT_EQ("open flock open open write fsync rename " + save, order(frwk_init_app_start_cfg_file));
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
        int rc = frwk_module_init(FRWK_MODULE_MONITOR, nullptr);
        const char *cmd = g_s_modules_info[FRWK_MODULE_MONITOR].start_cmd;
        return rc != 0 ? rc : cmd != nullptr && strcmp(cmd, "-m") == 0;
    };
    sweep("module", {put_files, start_qti, "32|", {}, true}, R"(
        malloc ENOMEM: 32|
        malloc ENOMEM!: 0|
        fopen EACCES: 32|
        fread EIO!: 0|
        open EACCES: -1|can't open /tmp/odm/lock/qti
        fcntl ENOLCK: -1|can't lock /tmp/odm/lock/qti
        fcntl EAGAIN: -1|the 'qti' is already running!
        fcntl EACCES: -1|the 'qti' is already running!
        write ENOSPC: 32|
        socket EMFILE: abort|FRWK_ERROR_SUCCESS == frwk_ipc_run()
        bind EACCES: abort|FRWK_ERROR_SUCCESS == frwk_ipc_run()
        listen EACCES: abort|FRWK_ERROR_SUCCESS == frwk_ipc_run()
        setsockopt EACCES: 32|set socket reuse address error, errno=13, cause: Permission denied
        thread EAGAIN: abort|FRWK_ERROR_SUCCESS == frwk_ipc_run())");
    sweep("monitor", {put_files, start_monitor, "1|", {}, true}, R"(
        malloc ENOMEM: 0| / 1|
        malloc ENOMEM!: 0| / 1|
        fopen EACCES!: 0| / 1|)");
}

} // namespace
