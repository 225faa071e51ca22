/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>

// Read by the sanitizers' runtimes: children of a test start threads, and a failed allocation is a case to test.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1";
}
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0:second_deadlock_stack=1:atexit_sleep_ms=0";
}

namespace {

std::string contents(int fd)
{
    std::string text;
    char buf[65536];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0) {
        text.append(buf, static_cast<size_t>(n));
    }
    return text;
}

bool readable(int fd)
{
    pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, DEADLINE_MS) > 0;
}

// Binds or connects a socket.
bool at_address(int (*call)(int, const sockaddr *, socklen_t), int fd, const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

Texts entries(const std::string &dir)
{
    Texts names;
    std::error_code ended; // the process may be gone meanwhile
    for (std::filesystem::directory_iterator it(dir, ended), end; it != end; it.increment(ended)) {
        names.push_back(it->path().filename());
    }
    return names;
}

} // namespace

int64_t now_ms()
{
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

bool wait_until(const std::function<bool()> &done, int ms)
{
    bool is_done = done();
    for (const int64_t end = now_ms() + ms; !is_done && now_ms() < end; is_done = done()) {
        usleep(1000);
    }
    return is_done;
}

std::string read_file(const std::string &path)
{
    // no stream, which would throw where reading fails, as it does for a thread in /proc that has just ended
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const std::string text = contents(fd);
    close(fd);
    return text;
}

void write_file(const std::string &path, const std::string &contents)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    EXPECT_TRUE(std::ofstream(path) << contents << std::flush) << "cannot write " << path;
}

int count_fds(pid_t pid)
{
    const size_t own_handle = pid == getpid();
    return static_cast<int>(entries("/proc/" + std::to_string(pid) + "/fd").size() - own_handle);
}

// The helper threads of an emulator or a sanitizer block every signal that they can.
int count_threads(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    int count = 0;
    for (const std::string &name : entries(tasks)) {
        const std::string status = read_file(tasks + name + "/status");
        count += !status.empty() && !contains(status, "\nSigBlk:\tfffffffe7");
    }
    return count;
}

bool emulated()
{
    return read_file("/proc/self/comm").rfind("qemu-", 0) == 0;
}

// ---- traces

Texts lines_in(const std::string &console, const char *form)
{
    static const std::regex trace(R"(\[[^\]]*\].{19}\|([^|]*)\|[^|]*\|([^|]*)\|-?[0-9]+::)"); // after the time
    Texts lines;
    std::istringstream stream(console);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(std::regex_replace(line, trace, form, std::regex_constants::format_first_only));
    }
    return lines;
}

void trace_all()
{
    frwk_debug_enable(3);
    EXPECT_EQ(FRWK_ERROR_SUCCESS, frwk_trace_set("debug"));
}

Texts said(const std::function<void()> &body)
{
    trace_all();
    Capture capture;
    body();
    frwk_debug_enable(0);
    Texts traces = lines_in(capture.text(), "$1 $2: ");
    for (std::string &trace : traces) {
        trace.erase(0, trace.rfind("error ", 0) == 0 ? 6 : 0);
    }
    return traces;
}

Capture::Capture(int fd) : target(fd), memory(memory_file())
{
    fflush(nullptr);
    saved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    dup2(memory, fd);
}

Capture::~Capture()
{
    fflush(nullptr);
    dup2(saved, target);
    if (testing::Test::HasFailure()) {
        (void)!write(target, contents(memory).data(), contents(memory).size());
    }
    close(saved);
    close(memory);
}

std::string Capture::text()
{
    fflush(nullptr);
    return contents(memory);
}

// ---- raw peers

std::string words(const std::vector<int64_t> &values)
{
    std::string bytes;
    for (const int64_t value : values) {
        bytes.append(reinterpret_cast<const char *>(&value), 4); // the low half stands first
    }
    return bytes;
}

int raw_connect(const std::string &module)
{
    int fd = -1;
    wait_until([&] {
        close(fd);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return at_address(connect, fd, socket_path(module));
    });
    return fd;
}

int raw_listen(const std::string &module)
{
    const std::string path = socket_path(module);
    std::filesystem::create_directories("/tmp/odm/ipc");
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(at_address(bind, fd, path) && listen(fd, 64) == 0) << path << ": " << strerror(errno);
    return fd;
}

int raw_accept(int listener)
{
    return readable(listener) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

bool raw_send(int fd, const std::string &bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string raw_recv(int fd, size_t size)
{
    std::string bytes;
    char buf[65536];
    for (ssize_t n = 1; n > 0 && bytes.size() < size && readable(fd);) {
        n = read(fd, buf, std::min(sizeof buf, size - bytes.size()));
        bytes.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    return bytes;
}

std::string answer_to(const std::string &module, const std::string &request)
{
    int fd = raw_connect(module);
    EXPECT_TRUE(raw_send(fd, request));
    const std::string answer = raw_recv(fd, SIZE_MAX);
    close(fd);
    return answer;
}

// ---- child processes

void Process::start(const std::function<void()> &body)
{
    fflush(nullptr);
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out_memory, 1);
        dup2(err_memory, 2);
        body();
        exit(testing::Test::HasFailure() ? 1 : 0);
    }
}

Process::~Process()
{
    stop(SIGKILL);
    close(out_memory);
    close(err_memory);
}

std::string Process::out() const
{
    return contents(out_memory);
}

std::string Process::err() const
{
    const std::string text = contents(err_memory);
    return text.substr(0, text.find("qemu: uncaught target signal")); // an emulator's, when a signal ends the process
}

Result Process::wait(int ms)
{
    int status = -1;
    if (pid > 0 && !wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    pid = -1;
    return {status, out(), err()};
}

Result Process::stop(int signal)
{
    if (pid > 0) {
        kill(pid, signal);
    }
    return wait();
}

Result run_child(const std::function<void()> &body, int seconds)
{
    Process child;
    child.start(body);
    return child.wait(seconds * 1000);
}

std::string assertion(const std::string &module, const std::string &expression)
{
    return "\\[" + module + "\\]ASSERT\\([^|]+\\|[^|]+\\|[0-9]+\\), " +
           std::regex_replace(expression, std::regex("[()|.]"), "\\$&") + "\n(qemu: .*\n)?$"; // an emulator's remark
}

Module::Module(uint32_t id, const std::function<void()> &set_up, frwk_module_cb_t cb)
{
    start([&] {
        sigset_t end; // the signal to end, which waits until it is asked for
        sigemptyset(&end);
        sigaddset(&end, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &end, nullptr);
        setvbuf(stdout, nullptr, _IOLBF, 0);
        EXPECT_EQ(FRWK_ERROR_SUCCESS, frwk_module_init(id, cb));
        set_up();
        raise(SIGSTOP); // is ready
        sigwaitinfo(&end, nullptr);
    });
    siginfo_t state = {};
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &state, WSTOPPED | WEXITED | WNOWAIT));
    EXPECT_EQ(CLD_STOPPED, state.si_code) << out() << err();
    kill(pid, SIGCONT);
}

Module::~Module()
{
    const Result result = stop(SIGTERM);
    EXPECT_TRUE(result.ok()) << "a module process " << result;
}

static const char release_file[] = "/tmp/release";

static int32_t handler(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                       uint32_t timeout)
{
    int32_t result = 0;
    if (msg == MSG_ECHO) {
        std::copy_n(req, std::min(req_len, rsp_size), rsp);
    } else if (msg == MSG_RESULT) {
        memcpy(&result, req, sizeof result);
    } else if (msg == MSG_BLOCK) {
        std::filesystem::remove(release_file);
        printf("blocked\n"); // line by line, as a module's
        wait_until([] { return exists(release_file); });
    } else {
        printf("from=%u msg=%u req=%s len=%d rsp=%s size=%d timeout=%u\n", from, msg, req ? "set" : "null", req_len,
               rsp ? "set" : "null", rsp_size, timeout);
    }
    return result;
}

void serve()
{
    EXPECT_EQ(FRWK_ERROR_SUCCESS, frwk_ipc_init(handler));
}

void serve_and_trace()
{
    trace_all();
    serve();
}

void release()
{
    write_file(release_file, "");
}
