/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Lets calls fail that the library under test makes into the system: stand-ins for these calls, which it finds before
// the real ones. Included by one source of a test program only.
#ifndef FRWK_FAULTS_H
#define FRWK_FAULTS_H

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <stdio.h>
#include <sys/auxv.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OWN_ALLOCATOR 1
#else
#define OWN_ALLOCATOR 0
#endif

namespace frwk_test {

struct Fault {
    std::string call; // or several, with blanks between; "malloc" stands for all of its family
    int error;        // 0: half is written
};

inline bool is_meant(const Fault &chosen, const char *call)
{
    const size_t at = chosen.call.find(call), end = at + strlen(call);
    return at != std::string::npos && (at == 0 || chosen.call[at - 1] == ' ') &&
           (end == chosen.call.size() || chosen.call[end] == ' ');
}

inline std::atomic<const Fault *> fault{nullptr}; // the one to come, or the last one
inline bool fault_lasts = false;
inline std::atomic<int> calls_until_fault{INT_MAX};                        // of the library
inline std::atomic<int> live_blocks{0};                                    // but for those of is_loader()
inline const std::function<void(const char *call)> *before_call = nullptr; // of the library; not where it allocates

// From here on the n-th such call of the library fails, and those behind it where the fault lasts. It is referred to
// for as long as the library runs.
inline void fault_after(int n, const Fault &chosen, bool lasts)
{
    fault = &chosen;
    fault_lasts = lasts;
    calls_until_fault = n;
}

// Tells whether there were as many calls.
inline bool no_more_faults()
{
    return calls_until_fault.exchange(INT_MAX) <= 0;
}

struct Range {
    uintptr_t begin = 0, end = 0;
};

inline Range library_range()
{
    Range range;
    const auto find = [](dl_phdr_info *object, size_t, void *found) {
        for (int i = 0; strstr(object->dlpi_name, "libfrwk.so") != nullptr && i < object->dlpi_phnum; i++) {
            const auto &part = object->dlpi_phdr[i];
            const uintptr_t begin = object->dlpi_addr + part.p_vaddr;
            if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
                *static_cast<Range *>(found) = {begin, begin + part.p_memsz};
            }
        }
        return 0;
    };
    dl_iterate_phdr(find, &range);
    return range;
}

inline bool is_library(const void *caller)
{
    static const Range range = library_range();
    return range.begin <= reinterpret_cast<uintptr_t>(caller) && reinterpret_cast<uintptr_t>(caller) < range.end;
}

// The dynamic linker, which allocates for each stack of a thread; the C library keeps some of the stacks, as it sees
// fit.
inline bool is_loader(const void *caller)
{
    return reinterpret_cast<uintptr_t>(caller) - getauxval(AT_BASE) < 1U << 20U;
}

inline bool fails(const char *call, const void *caller)
{
    const Fault *const next = fault;
    const bool chosen = next != nullptr && is_meant(*next, call);
    const bool watched = before_call != nullptr && strcmp(call, "malloc") != 0;
    if ((!chosen && !watched) || !is_library(caller)) {
        return false;
    }
    if (watched) {
        (*before_call)(call);
    }
    if (!chosen) {
        return false;
    }
    const int left = --calls_until_fault;
    errno = next->error;
    return left == 0 || (left < 0 && fault_lasts);
}

} // namespace frwk_test

#define FAILS(call) frwk_test::fails(call, __builtin_return_address(0))
#define REAL(call) reinterpret_cast<decltype(&call)>(dlsym(RTLD_NEXT, #call))
#define STAND_IN(result, call, parameters, arguments, failure, throwing)                                               \
    result call parameters throwing                                                                                    \
    {                                                                                                                  \
        static const auto real = REAL(call);                                                                           \
        return FAILS(#call) ? (failure) : real arguments;                                                              \
    }

extern "C" {
#if !OWN_ALLOCATOR
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
#define COUNT_BLOCKS(change)                                                                                           \
    (frwk_test::live_blocks += frwk_test::is_loader(__builtin_return_address(0)) ? 0 : (change))
void *malloc(size_t size)
{
    return FAILS("malloc") ? nullptr : (COUNT_BLOCKS(1), __libc_malloc(size));
}
void *calloc(size_t count, size_t size)
{
    return FAILS("malloc") ? nullptr : (COUNT_BLOCKS(1), __libc_calloc(count, size));
}
void *realloc(void *block, size_t size)
{
    return FAILS("malloc") ? nullptr : (COUNT_BLOCKS(block == nullptr), __libc_realloc(block, size));
}
void free(void *block)
{
    COUNT_BLOCKS(-(block != nullptr));
    __libc_free(block);
}
#endif
void sync() noexcept // of this machine, which would take its time
{
    FAILS("sync");
}
// clang-format off
STAND_IN(int, pthread_create, (pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *), void *arg),
         (id, attr, start, arg), errno, noexcept)
STAND_IN(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, noexcept)
STAND_IN(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
         (fd, level, name, value, size), -1, noexcept)
STAND_IN(int, bind, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), -1, noexcept)
STAND_IN(int, listen, (int fd, int backlog), (fd, backlog), -1, noexcept)
STAND_IN(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), -1, noexcept(false))
STAND_IN(int, accept4, (int fd, sockaddr *from, socklen_t *size, int flags), (fd, from, size, flags), -1, noexcept(false))
STAND_IN(int, poll, (pollfd *fds, nfds_t count, int timeout), (fds, count, timeout), -1, noexcept(false))
STAND_IN(ssize_t, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags),
         errno != 0 ? -1 : real(fd, bytes, size / 2, flags), noexcept(false))
STAND_IN(ssize_t, recv, (int fd, void *bytes, size_t size, int flags), (fd, bytes, size, flags), -1, noexcept(false))
STAND_IN(ssize_t, read, (int fd, void *bytes, size_t size), (fd, bytes, size), -1, noexcept(false))
STAND_IN(ssize_t, write, (int fd, const void *bytes, size_t size), (fd, bytes, size),
         errno != 0 ? -1 : real(fd, bytes, size / 2), noexcept(false))
STAND_IN(FILE *, fopen, (const char *path, const char *mode), (path, mode), nullptr, noexcept(false))
STAND_IN(size_t, fread, (void *bytes, size_t size, size_t count, FILE *fp), (bytes, size, count, fp),
         (fputc(0, fp), errno = frwk_test::fault.load()->error, 0), noexcept(false)) // a stream for reading: an error
STAND_IN(size_t, fwrite, (const void *bytes, size_t size, size_t count, FILE *fp), (bytes, size, count, fp),
         (count = real(bytes, size, count / 2, fp), errno = frwk_test::fault.load()->error, count), noexcept(false))
STAND_IN(int, fflush, (FILE *fp), (fp), EOF, noexcept(false))
STAND_IN(int, fclose, (FILE *fp), (fp), (real(fp), EOF), noexcept(false))
STAND_IN(int, remove, (const char *path), (path), -1, noexcept)
STAND_IN(int, rename, (const char *from, const char *to), (from, to), -1, noexcept)
STAND_IN(int, fsync, (int fd), (fd), -1, noexcept(false))
STAND_IN(int, flock, (int fd, int operation), (fd, operation), -1, noexcept)
STAND_IN(int, access, (const char *path, int mode), (path, mode), -1, noexcept)
STAND_IN(int, lstat, (const char *path, struct stat *status), (path, status), -1, noexcept)
STAND_IN(int, fstat, (int fd, struct stat *status), (fd, status), -1, noexcept)
STAND_IN(int, linkat, (int from_dir, const char *from, int to_dir, const char *to, int flags),
         (from_dir, from, to_dir, to, flags), -1, noexcept)
STAND_IN(int, inotify_init1, (int flags), (flags), -1, noexcept)
// clang-format on
int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t); // there is one where it counts
    va_end(args);
    return FAILS("open") ? -1 : REAL(open)(path, flags, mode);
}
int fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *);
    va_end(args);
    return FAILS("fcntl") ? -1 : REAL(fcntl)(fd, command, argument);
}
}

#endif
