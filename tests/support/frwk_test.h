/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the tests of several families need: child processes, captured output, a system log, raw peers, real modules.
// Every wait has a deadline; what could not be had is reported by an empty or negative result, never by hanging.
#ifndef FRWK_TEST_H
#define FRWK_TEST_H

#include <frwk.h>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace frwk_test {

constexpr int DEADLINE_MS = 20000;

long now_ms(); // monotonic
bool wait_until(const std::function<bool()> &done, int ms = DEADLINE_MS);
std::vector<std::string> split_lines(const std::string &text);
bool contains(const std::string &text, const std::string &part);

std::string read_file(const std::string &path);                        // "" when it cannot be read
void write_file(const std::string &path, const std::string &contents); // makes the directories too
bool exists(const std::string &path);
int count_fds(pid_t pid);
int count_threads(pid_t pid); // without those that an emulator or a sanitizer adds to every process
bool emulated(); // whether this process runs in qemu, which lacks ptrace and memory limits, and keeps memory of threads

// ---- traces

struct TraceLine {
    std::string name, level, func, msg;
};
std::vector<TraceLine> parse_console(const std::string &text);

int memory_file();
int failures(); // of the running test, those inherited by a child included

// Redirects standard output (or error) of this process to memory while it lives. What failed meanwhile is said after.
struct Capture {
    explicit Capture(int fd = 1);
    ~Capture();

    std::string text(); // all so far
    std::vector<TraceLine> traces()
    {
        return parse_console(text());
    }
    bool wait_for(const std::string &part);

    int target, saved, memory, failed_before;
};

// ---- raw peers on the wire

using ReqHdr = frwk_ipc_reqhdr_t;
using RspHdr = frwk_ipc_rsphdr_t;

template <typename T> std::string bytes_of(const T &record)
{
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

std::string socket_path(const std::string &module);
int raw_connect(const std::string &module);      // tries until something listens
int raw_listen(const std::string &module);       // makes the directories too
int raw_accept(int listener);                    // -1
bool raw_send(int fd, const std::string &bytes); // in one write
std::string raw_recv(int fd, size_t size);       // fewer bytes at the end of the stream or a deadline

// What a module answers to the bytes of a request on a connection of its own, until it closes.
std::string answer_to(const std::string &module, const std::string &request);

// ---- child processes

struct Result {
    int status = -1; // as waitpid() gives it; -1 when the child was still running at the deadline and was killed
    std::string out;
    std::string err;

    bool ok() const // exited with 0, which takes that no expectation has failed in the child
    {
        return status == 0;
    }
    bool aborted() const // what stood in the buffer of stdout is lost then, but not under TSan
    {
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    }
};
std::ostream &operator<<(std::ostream &stream, const Result &result);

// A child, once started, that runs `body` and ends with exit(), so that the leak checker looks at it.
struct Process {
    ~Process();
    void start(const std::function<void()> &body);

    std::string out() const; // what it has written so far
    std::string err() const;
    Result wait(int ms = DEADLINE_MS); // waits for it to end by itself; it is killed at the deadline
    Result stop(int signal);

    const int out_memory = memory_file(), err_memory = memory_file();
    pid_t pid = -1; // -1 once it was waited for
};
Result run_child(const std::function<void()> &body, int seconds = 60);

// A process that is a module: runs frwk_module_init(id, cb), then `set_up`, then waits. The constructor returns once it
// is ready (or has failed), and the destructor ends it by exit(0) and expects that nothing was reported by then.
struct Module : Process {
    explicit Module(uint32_t id, const std::function<void()> &set_up = {}, frwk_module_cb_t cb = nullptr);
    ~Module();

    int line;   // closed to end it
    bool ready; // frwk_module_init() gave 0 and `set_up` returned
};

// One message as the system log gets it.
struct SyslogLine {
    int priority; // facility and severity
    std::string ident;
    int pid;
    std::string text;
};

// The system log: takes what is sent to /dev/log while it lives, in a process of its own, so that senders never block.
struct SyslogSink {
    SyslogSink();
    ~SyslogSink();

    std::vector<SyslogLine> wait_for(size_t count); // all so far, once there are as many

    Process reader;
};

} // namespace frwk_test

#endif
