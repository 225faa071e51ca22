// What the tests of strings and XML share. Included by one source of a test program only, since it takes the place of
// the C library's allocator.
#ifndef TEXT_TEST_H
#define TEXT_TEST_H

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <climits>
#include <cstring>
#include <memory>

#include "frwk_test.h"

#if defined(__has_feature)
#define TEXT_TEST_HAS(name) __has_feature(name)
#else
#define TEXT_TEST_HAS(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || TEXT_TEST_HAS(address_sanitizer) ||               \
    TEXT_TEST_HAS(thread_sanitizer)
constexpr bool SANITIZED = true; // with an allocator of its own
#else
constexpr bool SANITIZED = false;
#endif

inline thread_local int allocations_left = INT_MAX; // the allocation that this counts down to is refused
inline thread_local size_t allocations_made = 0;
inline thread_local size_t bytes_asked_for = 0;

inline bool refuse_allocation(size_t size)
{
    allocations_made++;
    bytes_asked_for += size;
    return --allocations_left == 0;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !TEXT_TEST_HAS(address_sanitizer) &&            \
    !TEXT_TEST_HAS(thread_sanitizer)
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_realloc(void *block, size_t size);
void *malloc(size_t size)
{
    return refuse_allocation(size) ? nullptr : __libc_malloc(size);
}
void *realloc(void *block, size_t size)
{
    return refuse_allocation(size) ? nullptr : __libc_realloc(block, size);
}
}
#endif

namespace text_test {

using Texts = std::vector<std::string>;

// Runs `body` with all traces on; "function: message" of each.
inline Texts said(const std::function<void()> &body)
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    frwk_test::Capture capture;
    frwk_trace_print("up.cpp", "up", 1, FRWK_TRACE_ERROR, "the stream has its buffer now");
    body();
    allocations_left = INT_MAX;
    frwk_debug_enable(0);
    Texts lines;
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        EXPECT_EQ("error", trace.level);
        lines.push_back(trace.func + ": " + trace.msg);
    }
    lines.erase(lines.begin());
    return lines;
}

// Runs `body` on a thread with a stack of `stack` bytes, with a cancellation pending when `cancelled`; returns whether
// the thread came behind `body`.
inline bool on_thread(size_t stack, bool cancelled, std::function<void()> body)
{
    struct Job {
        std::function<void()> body;
        bool cancelled;
        bool done;
    } job = {std::move(body), cancelled, false};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stack);
    pthread_t thread;
    auto run = [](void *data) -> void * {
        Job *mine = static_cast<Job *>(data);
        if (mine->cancelled) {
            pthread_cancel(pthread_self());
        }
        mine->body();
        mine->done = true;
        return nullptr;
    };
    EXPECT_EQ(0, pthread_create(&thread, &attr, run, &job));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    return job.done;
}

// While it lives no file of this process grows beyond `bytes`, as on a full disk; what is traced stays in memory.
struct FileLimit {
    explicit FileLimit(rlim_t bytes)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        rlimit limit = {bytes, before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    }
    ~FileLimit()
    {
        setrlimit(RLIMIT_FSIZE, &before);
    }
    FileLimit(const FileLimit &) = delete;
    FileLimit &operator=(const FileLimit &) = delete;

    rlimit before;
};

} // namespace text_test

#endif
