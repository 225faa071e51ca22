/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the tests of several families need: child processes, captured output, raw peers, real modules. Every wait has a
// deadline; what could not be had is reported by an empty or negative result, never by hanging.
#ifndef FRWK_TEST_H
#define FRWK_TEST_H

#include "library_calls.h"
#include <frwk.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <vector>

using Texts = std::vector<std::string>;

constexpr int DEADLINE_MS = 20000;

int64_t now_ms(); // monotonic
bool wait_until(const std::function<bool()> &done, int ms = DEADLINE_MS);
inline bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

std::string read_file(const std::string &path);                        // "" when it cannot be read
void write_file(const std::string &path, const std::string &contents); // makes the directories too
inline bool exists(const std::string &path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}
int count_fds(pid_t pid);
int count_threads(pid_t pid); // without those that an emulator or a sanitizer adds to every process
bool emulated(); // whether this process runs in qemu, which lacks memory limits, and keeps memory of threads

// ---- traces

// The lines of a console's text: in place of what stands before a trace's message its level ($1) and function ($2).
Texts lines_in(const std::string &console, const char *form = "$1|");

void trace_all(); // of this process to its standard output, from now on

// What `body` traces, with all traces on: "function: message" of each error, with the level in front of what is none.
Texts said(const std::function<void()> &body);

inline int memory_file()
{
    return memfd_create("frwk_test", MFD_CLOEXEC);
}

// Redirects standard output (or error) of this process to memory while it lives. It is said after all where the test
// has failed.
struct Capture {
    explicit Capture(int fd = 1);
    ~Capture();

    std::string text(); // all so far
    Texts lines()       // a trace as "level|message"
    {
        return lines_in(text());
    }
    bool wait_for(const std::string &part)
    {
        return wait_until([&] { return contains(text(), part); });
    }

    const int target, memory;
    int saved;
};

// ---- raw peers on the wire

std::string words(const std::vector<int64_t> &values); // of 32 bits, as they stand on the wire

inline std::string socket_path(const std::string &module)
{
    return "/tmp/odm/ipc/" + module;
}
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
    std::string out, err;

    bool ok() const // exited with 0, which takes that no expectation has failed
    {
        return status == 0;
    }
    bool aborted() const // what stood in the buffer of stdout is lost then, but not under TSan
    {
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    }
};
inline std::ostream &operator<<(std::ostream &stream, const Result &result)
{
    return stream << "wait status " << result.status << "\n" << result.out << result.err;
}

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

// What a death test finds where an assertion of the library ends the process.
std::string assertion(const std::string &module, const std::string &expression);

// A process that is a module: runs frwk_module_init(id, cb), then `set_up`, then waits. The constructor returns once it
// is ready, and the destructor ends it by exit(0) and expects that nothing was reported by then.
struct Module : Process {
    explicit Module(
        uint32_t id, const std::function<void()> &set_up = [] {}, frwk_module_cb_t cb = nullptr);
    ~Module();
};

// Messages of the handler that the tests' modules use.
enum {
    MSG_ECHO = 7, // gives the body back
    MSG_RESULT,   // gives the body's word as result
    MSG_BLOCK,    // says so and waits for release()
    MSG_TELL      // says what the handler was called with
};
void serve(); // from now on this module has that handler
void serve_and_trace();
void release();

#endif
