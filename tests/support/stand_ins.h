/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the tests of the library's core share: traces as text, and stand-ins for calls of the C library, which the
// library under test finds before the real ones. Included by one source of a test program only.
#ifndef FRWK_STAND_INS_H
#define FRWK_STAND_INS_H

#include "frwk_test.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <regex>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true; // allocates, maps and keeps memory in its own way
#else
constexpr bool SANITIZED = false;
#endif

// "level|message" of each trace line.
inline std::vector<std::string> said(const std::vector<frwk_test::TraceLine> &traces)
{
    std::vector<std::string> texts;
    for (const frwk_test::TraceLine &trace : traces) {
        texts.push_back(trace.level + "|" + trace.msg);
    }
    return texts;
}

inline std::vector<std::string> said(const std::string &console)
{
    return said(frwk_test::parse_console(console));
}

using Texts = std::vector<std::string>;

inline Texts last(size_t count, const Texts &texts)
{
    return Texts(texts.size() < count ? texts.begin() : texts.end() - static_cast<long>(count), texts.end());
}

// All traces of this process to its standard output, from now on.
inline void trace_all()
{
    frwk_debug_enable(3);
    ASSERT_EQ(FRWK_ERROR_SUCCESS, frwk_trace_set("debug"));
}

// 32-bit words as they stand on the wire.
inline std::string words(const std::vector<int64_t> &values)
{
    std::string bytes;
    for (int64_t value : values) {
        bytes += frwk_test::bytes_of(static_cast<uint32_t>(value));
    }
    return bytes;
}

// Messages of the handler that the tests' modules use.
enum {
    MSG_ECHO = 7, // gives the body back
    MSG_RESULT,   // gives the body's word as result
    MSG_BLOCK,    // says so and waits for release()
    MSG_TELL      // says what the handler was called with
};

inline const char RELEASE_FILE[] = "/tmp/release";

inline void release()
{
    frwk_test::write_file(RELEASE_FILE, "");
}

inline int32_t test_handler(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp,
                            int32_t rsp_size, uint32_t timeout)
{
    int32_t result = 0;
    switch (msg) {
    case MSG_ECHO:
        for (int32_t i = 0; i < req_len && i < rsp_size; i++) {
            rsp[i] = req[i];
        }
        break;
    case MSG_RESULT:
        memcpy(&result, req, sizeof result);
        break;
    case MSG_BLOCK:
        printf("blocked\n");
        fflush(stdout);
        frwk_test::wait_until([] { return frwk_test::exists(RELEASE_FILE); });
        break;
    default:
        printf("from=%u msg=%u req=%s len=%d rsp=%s size=%d timeout=%u\n", from, msg, req ? "set" : "null", req_len,
               rsp ? "set" : "null", rsp_size, timeout);
        fflush(stdout);
        break;
    }
    return result;
}

// Set-up of a module that serves the above and traces everything to its standard output.
inline void serve_and_trace()
{
    trace_all();
    frwk_ipc_init(test_handler);
}

// The child has ended by an assertion of the library with this expression.
inline void expect_assertion(const frwk_test::Result &child, const std::string &module, const std::string &expression)
{
    EXPECT_TRUE(child.aborted()) << child;
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(child.err, parts, std::regex("\\[(.*)\\]ASSERT\\([^|]+\\|[^|]+\\|[0-9]+\\), (.*)\n")))
        << child;
    EXPECT_EQ(module, parts[1]);
    EXPECT_EQ(expression, parts[2]);
}

// What the stand-ins do. Times are nanoseconds; negative: as the real call.
inline std::atomic<int> fail_threads{0};         // how many of the next ones cannot be started
inline std::atomic<int> thread_sched_policy{-1}; // of the attributes of the last thread
inline std::atomic<int> thread_detach_state{-1};
inline std::atomic<int64_t> fixed_uptime{-1};
inline std::atomic<bool> fail_uptime{false};
inline std::atomic<int64_t> fixed_time{-1};

inline timespec shown(int64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
}

#define REAL(call) reinterpret_cast<decltype(&call)>(dlsym(RTLD_NEXT, #call))

extern "C" {

int pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *), void *arg) noexcept
{
    if (attr != nullptr) {
        int value;
        pthread_attr_getschedpolicy(attr, &value);
        thread_sched_policy = value;
        pthread_attr_getdetachstate(attr, &value);
        thread_detach_state = value;
    }
    static const auto real = REAL(pthread_create);
    return fail_threads > 0 && fail_threads-- > 0 ? EAGAIN : real(tid, attr, start, arg);
}

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    static const auto real = REAL(clock_gettime);
    if (clock == CLOCK_MONOTONIC && fail_uptime) {
        errno = EINVAL;
        return -1;
    }
    const int rc = real(clock, now);
    if (clock == CLOCK_MONOTONIC && fixed_uptime >= 0) {
        *now = shown(fixed_uptime);
    }
    return rc;
}

int gettimeofday(timeval *now, void *zone) noexcept
{
    static const auto real = REAL(gettimeofday);
    const int rc = real(now, zone);
    if (fixed_time >= 0) {
        *now = {shown(fixed_time).tv_sec, shown(fixed_time).tv_nsec / 1000};
    }
    return rc;
}

time_t time(time_t *now) noexcept
{
    timeval value;
    gettimeofday(&value, nullptr);
    if (now != nullptr) {
        *now = value.tv_sec;
    }
    return value.tv_sec;
}
}

#endif
