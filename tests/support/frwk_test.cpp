#include "frwk_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <regex>

// Read by the sanitizers' runtimes: children of a test start threads, and a failed allocation is a case to test.
extern "C" {
const char *__asan_default_options();
const char *__asan_default_options()
{
    return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1";
}
const char *__ubsan_default_options();
const char *__ubsan_default_options()
{
    return "print_stacktrace=1";
}
const char *__tsan_default_options();
const char *__tsan_default_options()
{
    return "die_after_fork=0:second_deadlock_stack=1:atexit_sleep_ms=0";
}
}

namespace frwk_test {

namespace {

int memory_file()
{
    int fd = memfd_create("frwk_test", MFD_CLOEXEC);
    if (fd < 0) {
        perror("memfd_create");
        abort();
    }
    return fd;
}

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

// What a process wrote to standard error, without the line that the emulator adds when a signal ends it.
std::string errors(int fd)
{
    static const std::regex emulators("qemu: uncaught target signal [0-9]+ \\([^)]*\\) - core dumped\n");
    return std::regex_replace(contents(fd), emulators, "");
}

// Waits for a child to end and kills it at the deadline; -1 then.
int reap(pid_t pid, int ms)
{
    int status = -1;
    if (wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms)) {
        return status;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

// Waits for `events` of a descriptor until the time `end`.
bool poll_until(int fd, short events, long end)
{
    for (;;) {
        pollfd entry = {fd, events, 0};
        long left = end - now_ms();
        int n = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
        if (n > 0) {
            return true;
        }
        if (n == 0 || errno != EINTR) {
            return false;
        }
    }
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

int count_entries(const std::string &dir, const std::function<bool(const char *)> &counts)
{
    DIR *handle = opendir(dir.c_str());
    if (!handle) {
        return -1;
    }
    int count = 0;
    while (const dirent *entry = readdir(handle)) {
        count += entry->d_name[0] != '.' && counts(entry->d_name);
    }
    closedir(handle);
    return count;
}

} // namespace

long now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // Wraps on 32 bits, as do the differences that are looked at.
    return static_cast<long>(static_cast<unsigned long>(now.tv_sec) * 1000 +
                             static_cast<unsigned long>(now.tv_nsec / 1000000));
}

bool wait_until(const std::function<bool()> &done, int ms)
{
    long start = now_ms();
    while (!done()) {
        if (now_ms() - start >= ms) {
            return false;
        }
        usleep(1000);
    }
    return true;
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

std::string read_file(const std::string &path)
{
    std::string text;
    // no stream, which would throw where reading fails, as it does for a thread in /proc that has just ended
    if (FILE *file = fopen(path.c_str(), "re")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, file)) > 0) {
            text.append(buf, n);
        }
        fclose(file);
    }
    return text;
}

void write_file(const std::string &path, const std::string &contents)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents << std::flush;
    EXPECT_TRUE(file.good()) << "cannot write " << path;
}

bool exists(const std::string &path)
{
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

int count_fds(pid_t pid)
{
    int own_handle = pid == getpid();
    return count_entries("/proc/" + std::to_string(pid) + "/fd", [](const char *) { return true; }) - own_handle;
}

// The helper threads of an emulator or a sanitizer block every signal that they can.
int count_threads(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    return count_entries(tasks, [&](const char *name) {
        std::string status = read_file(tasks + name + "/status");
        return !status.empty() && !contains(status, "\nSigBlk:\tfffffffe7");
    });
}

bool emulated()
{
    return read_file("/proc/self/comm").rfind("qemu-", 0) == 0;
}

bool Result::ok() const
{
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool Result::aborted() const
{
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

std::ostream &operator<<(std::ostream &stream, const Result &result)
{
    if (result.status == -1) {
        stream << "killed at the deadline";
    } else if (WIFSIGNALED(result.status)) {
        stream << "ended by signal " << WTERMSIG(result.status);
    } else {
        stream << "exited with " << WEXITSTATUS(result.status);
    }
    return stream << "\nstandard output:\n" << result.out << "\nstandard error:\n" << result.err << "\n";
}

Result run_child(const std::function<void()> &body, int seconds)
{
    int out = memory_file();
    int err = memory_file();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(out, 1);
        dup2(err, 2);
        body();
        exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    Result result;
    result.status = reap(pid, seconds * 1000);
    result.out = contents(out);
    result.err = errors(err);
    close(out);
    close(err);
    return result;
}

std::string TraceLine::brief() const
{
    return level + "|" + file + "|" + func + "::" + msg;
}

TraceLine parse_syslog_text(const std::string &text)
{
    TraceLine trace;
    std::string fields[4]; // level, file, function, line
    size_t start = 0;
    for (int i = 0; i < 4; i++) {
        const char *separator = i < 3 ? "|" : "::";
        size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            return trace;
        }
        fields[i] = text.substr(start, end - start);
        start = end + strlen(separator);
    }
    trace.level = fields[0];
    trace.file = fields[1];
    trace.func = fields[2];
    trace.line = atoi(fields[3].c_str());
    trace.msg = text.substr(start);
    return trace;
}

TraceLine parse_console_line(const std::string &line)
{
    const size_t stamp = strlen("2024-01-02 09:05:07|");
    size_t bracket = line.find(']');
    if (line.empty() || line[0] != '[' || bracket == std::string::npos || line.size() < bracket + 1 + stamp ||
        line[bracket + stamp] != '|') {
        return {};
    }
    TraceLine trace = parse_syslog_text(line.substr(bracket + 1 + stamp));
    trace.name = line.substr(1, bracket - 1);
    trace.time = line.substr(bracket + 1, stamp - 1);
    return trace;
}

std::vector<TraceLine> parse_console(const std::string &text)
{
    std::vector<TraceLine> traces;
    for (const std::string &line : split_lines(text)) {
        TraceLine trace = parse_console_line(line);
        if (!trace.level.empty()) {
            traces.push_back(trace);
        }
    }
    return traces;
}

Capture::Capture(int fd) : target(fd), saved(-1), memory(memory_file())
{
    fflush(nullptr);
    saved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    dup2(memory, fd);
}

Capture::~Capture()
{
    fflush(nullptr);
    dup2(saved, target);
    close(saved);
    close(memory);
}

std::string Capture::text()
{
    fflush(nullptr);
    return contents(memory);
}

std::vector<TraceLine> Capture::traces()
{
    return parse_console(text());
}

bool Capture::wait_for(const std::string &part, int ms)
{
    return wait_until([&] { return contains(text(), part); }, ms);
}

// The messages stand in the memory file one after the other, each behind its length.
SyslogSink::SyslogSink() : pid(-1), memory(memory_file())
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = address_of("/dev/log");
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "cannot bind /dev/log: " << strerror(errno);
    }
    fflush(nullptr);
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char frame[sizeof(uint32_t) + 65536];
        for (;;) {
            ssize_t n = recv(fd, frame + sizeof(uint32_t), sizeof frame - sizeof(uint32_t), 0);
            if (n < 0 && errno != EINTR) {
                _exit(1);
            }
            if (n >= 0) {
                uint32_t size = static_cast<uint32_t>(n);
                memcpy(frame, &size, sizeof size);
                if (write(memory, frame, sizeof size + size) < 0) {
                    _exit(1);
                }
            }
        }
    }
    close(fd);
}

SyslogSink::~SyslogSink()
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(memory);
    unlink("/dev/log");
}

// "<PRIORITY>Mmm dd hh:mm:ss IDENT[PID]: TEXT", where "[PID]" is optional
static SyslogLine parse_datagram(const std::string &datagram)
{
    SyslogLine line;
    const size_t stamp = strlen("Jan  2 09:05:07 ");
    size_t start = datagram.find('>');
    size_t colon = start == std::string::npos ? start : datagram.find(": ", start + stamp);
    if (colon == std::string::npos) {
        line.text = datagram;
        return line;
    }
    line.priority = atoi(datagram.c_str() + 1);
    line.ident = datagram.substr(start + 1 + stamp, colon - start - 1 - stamp);
    line.text = datagram.substr(colon + 2);
    size_t bracket = line.ident.find('[');
    if (bracket != std::string::npos) {
        line.pid = atoi(line.ident.c_str() + bracket + 1);
        line.ident.resize(bracket);
    }
    return line;
}

std::vector<SyslogLine> SyslogSink::lines()
{
    std::vector<SyslogLine> found;
    std::string frames = contents(memory);
    uint32_t size;
    for (size_t at = 0; at + sizeof size <= frames.size(); at += sizeof size + size) {
        memcpy(&size, frames.data() + at, sizeof size);
        if (at + sizeof size + size > frames.size()) {
            break; // still being written
        }
        found.push_back(parse_datagram(frames.substr(at + sizeof size, size)));
    }
    return found;
}

std::vector<SyslogLine> SyslogSink::wait_for(size_t count, int ms)
{
    wait_until([&] { return lines().size() >= count; }, ms);
    return lines();
}

bool SyslogSink::wait_for(const std::string &part, int ms)
{
    return wait_until(
        [&] {
            for (const SyslogLine &line : lines()) {
                if (contains(line.text, part)) {
                    return true;
                }
            }
            return false;
        },
        ms);
}

std::string socket_path(const std::string &module)
{
    return "/tmp/odm/ipc/" + module;
}

int raw_connect(const std::string &module, int ms)
{
    sockaddr_un address = address_of(socket_path(module));
    int fd = -1;
    wait_until(
        [&] {
            fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
                return true;
            }
            close(fd);
            fd = -1;
            return false;
        },
        ms);
    return fd;
}

int raw_listen(const std::string &module)
{
    std::filesystem::create_directories("/tmp/odm/ipc");
    sockaddr_un address = address_of(socket_path(module));
    unlink(address.sun_path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd, 64) != 0) {
        ADD_FAILURE() << "cannot listen on " << address.sun_path << ": " << strerror(errno);
    }
    return fd;
}

int raw_accept(int listener, int ms)
{
    return poll_until(listener, POLLIN, now_ms() + ms) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

bool raw_send(int fd, const std::string &bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string raw_recv(int fd, size_t size, int ms)
{
    std::string bytes;
    long end = now_ms() + ms;
    while (bytes.size() < size && poll_until(fd, POLLIN, end)) {
        char buf[65536];
        ssize_t n = read(fd, buf, std::min(sizeof buf, size - bytes.size()));
        if (n <= 0) {
            break;
        }
        bytes.append(buf, static_cast<size_t>(n));
    }
    return bytes;
}

bool raw_closed(int fd, int ms)
{
    char byte;
    return poll_until(fd, POLLIN, now_ms() + ms) && recv(fd, &byte, 1, MSG_PEEK) <= 0;
}

Reply raw_request(const std::string &module, const ReqHdr &hdr, const std::string &body, int ms)
{
    Reply reply;
    long end = now_ms() + ms;
    int fd = raw_connect(module, ms);
    if (fd < 0) {
        return reply;
    }
    if (raw_send(fd, bytes_of(hdr) + body)) {
        std::string bytes = raw_recv(fd, sizeof reply.hdr, static_cast<int>(end - now_ms()));
        if (bytes.size() == sizeof reply.hdr) {
            memcpy(&reply.hdr, bytes.data(), sizeof reply.hdr);
            size_t size = static_cast<size_t>(std::max(reply.hdr.msg_len, 0));
            reply.data = raw_recv(fd, size, static_cast<int>(end - now_ms()));
            reply.complete = reply.data.size() == size && raw_closed(fd, static_cast<int>(end - now_ms()));
        }
    }
    close(fd);
    return reply;
}

// Life of a module process. SIGTERM is blocked in all its threads and taken by the main one, so that the process ends
// by exit() and the leak checker looks at it.
[[noreturn]] static void be_module(uint32_t id, const std::function<void()> &set_up, frwk_module_cb_t cb, int report)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);

    if (frwk_module_init(id, cb) != FRWK_ERROR_SUCCESS) {
        exit(1);
    }
    if (set_up) {
        set_up();
    }
    bool told = write(report, "", 1) == 1;
    close(report);
    int signal;
    sigwait(&term, &signal);
    exit(told && !::testing::Test::HasFailure() ? 0 : 1);
}

Module::Module(uint32_t id, const std::function<void()> &set_up, frwk_module_cb_t cb)
{
    memory[1] = memory_file();
    memory[2] = memory_file();
    int report[2];
    EXPECT_EQ(0, pipe2(report, O_CLOEXEC));
    fflush(nullptr);
    pid = fork();
    if (pid == 0) {
        dup2(memory[1], 1);
        dup2(memory[2], 2);
        close(report[0]);
        be_module(id, set_up, cb, report[1]);
    }
    close(report[1]);
    ready = raw_recv(report[0], 1).size() == 1;
    close(report[0]);
}

Module::~Module()
{
    if (pid > 0) {
        Result result = stop(SIGTERM);
        EXPECT_TRUE(result.ok()) << "a module process " << result;
    }
    close(memory[1]);
    close(memory[2]);
}

std::string Module::out()
{
    return contents(memory[1]);
}

std::string Module::err()
{
    return errors(memory[2]);
}

bool Module::wait_out(const std::string &part, int ms)
{
    return wait_until([&] { return contains(out(), part); }, ms);
}

Result Module::wait(int ms)
{
    Result result;
    if (pid > 0) {
        result.status = reap(pid, ms);
        pid = -1;
    }
    result.out = out();
    result.err = err();
    return result;
}

Result Module::stop(int signal, int ms)
{
    if (pid > 0) {
        kill(pid, signal);
    }
    return wait(ms);
}

} // namespace frwk_test
