/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "library_calls.h"

#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <sstream>
#include <type_traits>

namespace {

// ---- faults

std::mutex fault_lock; // a handler may choose the next fault while other threads make calls
Fault fault;           // the one to come, or the last one
bool fault_lasts = false;
std::atomic<bool> chosen{false};
std::atomic<int> until_fault{INT_MAX}, blocks{0};
std::atomic<const std::function<void(const std::string &)> *> watcher{nullptr};

bool fails(const char *call)
{
    const auto *note = watcher.load();
    if (note != nullptr && strcmp(call, "malloc") != 0) {
        (*note)(call);
    }
    const std::lock_guard<std::mutex> lock(fault_lock);
    if (!chosen || !is_meant(fault, call)) {
        return false;
    }
    const int left = --until_fault;
    errno = fault.error;
    return left == 0 || (left < 0 && fault_lasts);
}

// ---- the table of imported functions of a loaded object, which the dynamic linker has filled

uintptr_t dynamic_entry(const link_map *object, int tag)
{
    const ElfW(Dyn) *entry = object->l_ld;
    while (entry->d_tag != DT_NULL && entry->d_tag != tag) {
        entry++;
    }
    return entry->d_un.d_ptr;
}

// ---- the stand-ins

template <auto call> const char *name_of;

// Fails as most calls do: with -1, or with null where there is a pointer.
template <auto call, typename R, typename... A> R call_or_fail(A... arguments)
{
    return fails(name_of<call>) ? R(std::is_pointer_v<R> ? intptr_t{0} : intptr_t{-1}) : call(arguments...);
}

template <auto call, typename R, typename... A> void let_fail(const std::string &name, R (*)(A...))
{
    name_of<call> = strdup(name.c_str());
    replace_call(name_of<call>, call_or_fail<call, R, A...>);
}

template <auto... calls> void let_all_fail(const char *names)
{
    std::istringstream words(names);
    std::string name;
    ((std::getline(words >> std::ws, name, ','), let_fail<calls>(name, calls)), ...);
}

#define LET_FAIL(...) let_all_fail<__VA_ARGS__>(#__VA_ARGS__)

// The real clock, unless it is fixed.
int read_clock(clockid_t clock, timespec *now)
{
    const int64_t fixed = clock == CLOCK_MONOTONIC ? fixed_uptime : fixed_time;
    const int rc = clock_gettime(clock, now);
    *now = fixed < 0 ? *now : timespec{static_cast<time_t>(fixed / 1000000000), static_cast<long>(fixed % 1000000000)};
    return rc;
}

bool put_stand_ins()
{
    LET_FAIL(access, flock, fflush, fopen, fstat, fsync, inotify_init1, linkat, lstat, read, remove, rename);
    LET_FAIL(accept4, bind, connect, listen, poll, recv, sem_wait, setsockopt, socket);
    replace_call("sync", [] { fails("sync"); }); // the machine's own would take its time
    replace_call("clock_gettime",
                 [](clockid_t clock, timespec *now) { return fails("clock_gettime") ? -1 : read_clock(clock, now); });
    replace_call("gettimeofday", [](timeval *now, void *) {
        timespec real;
        read_clock(CLOCK_REALTIME, &real);
        *now = {real.tv_sec, real.tv_nsec / 1000};
        return 0;
    });
    replace_call("time", [](time_t *) { // asked without a place for it
        timespec real;
        read_clock(CLOCK_REALTIME, &real);
        return real.tv_sec;
    });
    replace_call("malloc", [](size_t size) { return fails("malloc") ? nullptr : (blocks++, malloc(size)); });
    replace_call("calloc",
                 [](size_t n, size_t size) { return fails("malloc") ? nullptr : (blocks++, calloc(n, size)); });
    replace_call("realloc", [](void *block, size_t size) {
        return fails("malloc") ? nullptr : (blocks += block == nullptr, realloc(block, size));
    });
    replace_call("free", free_block);
    replace_call("pthread_create", [](pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *), void *arg) {
        return fails("pthread_create") ? errno : pthread_create(id, attr, start, arg);
    });
    replace_call("open",
                 [](const char *path, int flags, mode_t mode) { return fails("open") ? -1 : open(path, flags, mode); });
    replace_call("fcntl", [](int fd, int command, void *argument) {
        return fails("fcntl") ? -1 : fcntl(fd, command, argument);
    });
    replace_call("write", [](int fd, const void *bytes, size_t size) {
        return !fails("write") ? write(fd, bytes, size) : errno != 0 ? -1 : write(fd, bytes, size / 2);
    });
    replace_call("send", [](int fd, const void *bytes, size_t size, int flags) {
        return !fails("send") ? send(fd, bytes, size, flags) : errno != 0 ? -1 : send(fd, bytes, size / 2, flags);
    });
    replace_call("fclose", [](FILE *fp) { return fails("fclose") ? (fclose(fp), EOF) : fclose(fp); });
    replace_call("fread", [](void *bytes, size_t size, size_t count, FILE *fp) {
        return !fails("fread") ? fread(bytes, size, count, fp) : (fputc(0, fp), errno = fault.error, 0);
    });
    replace_call("fwrite", [](const void *bytes, size_t size, size_t count, FILE *fp) {
        const bool failed = fails("fwrite");
        const size_t done = fwrite(bytes, size, failed ? count / 2 : count, fp);
        return failed ? (errno = fault.error, done) : done;
    });
    return true;
}

[[maybe_unused]] const bool are_put = put_stand_ins();

} // namespace

void replace_call(const char *function, void *instead)
{
    const link_map *object = _r_debug.r_map;
    while (strstr(object->l_name, "libfrwk.so") == nullptr) {
        object = object->l_next;
    }
    const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(dynamic_entry(object, DT_SYMTAB));
    const char *names = reinterpret_cast<const char *>(dynamic_entry(object, DT_STRTAB));
    const bool with_addends = dynamic_entry(object, DT_PLTREL) == DT_RELA;
    const int tables[][2] = {{DT_JMPREL, DT_PLTRELSZ},
                             {with_addends ? DT_RELA : DT_REL, with_addends ? DT_RELASZ : DT_RELSZ}};
    for (const auto &[table, size] : tables) {
        const uintptr_t begin = dynamic_entry(object, table), end = begin + dynamic_entry(object, size);
        for (uintptr_t at = begin; at < end; at += with_addends ? sizeof(ElfW(Rela)) : sizeof(ElfW(Rel))) {
            const auto *slot = reinterpret_cast<const ElfW(Rel) *>(at);
            const auto &symbol = symbols[slot->r_info >> (sizeof slot->r_info == 8 ? 32 : 8)];
            if (strcmp(names + symbol.st_name, function) == 0) {
                const uintptr_t place = object->l_addr + slot->r_offset, page = place & ~uintptr_t{4095};
                mprotect(reinterpret_cast<void *>(page), 4096, PROT_READ | PROT_WRITE);
                *reinterpret_cast<void **>(place) = instead;
            }
        }
    }
}

bool is_meant(const Fault &chosen_one, const std::string &call)
{
    return (" " + chosen_one.call + " ").find(" " + call + " ") != std::string::npos;
}

void fault_after(int n, const Fault &next, bool lasts)
{
    const std::lock_guard<std::mutex> lock(fault_lock);
    fault = next;
    fault_lasts = lasts;
    until_fault = n;
    chosen = true;
}

int calls_until_fault()
{
    return until_fault;
}

bool no_more_faults()
{
    chosen = false;
    return until_fault.exchange(INT_MAX) <= 0;
}

int watched(const std::function<int()> &act, const std::function<void(const std::string &)> &note)
{
    watcher = &note;
    const std::shared_ptr<void> end(nullptr, [](void *) { watcher = nullptr; }); // when a cancelled thread ends, too
    return act();
}

void free_block(void *block)
{
    blocks -= block != nullptr;
    free(block);
}

int live_blocks()
{
    return blocks;
}
