/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The library's calls into the C library go through stand-ins, in every test program: they make a call fail, tell of
// it, set the clocks, and count blocks of memory. The program's own calls are the real ones.
#ifndef FRWK_LIBRARY_CALLS_H
#define FRWK_LIBRARY_CALLS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true; // allocates, maps and keeps memory in its own way, and slowly
#else
constexpr bool SANITIZED = false;
#endif

// From here on the library calls `instead` in the place of this function.
void replace_call(const char *function, void *instead);
template <typename F> void replace_call(const char *function, F instead) // a function, or a lambda without a capture
{
    replace_call(function, reinterpret_cast<void *>(+instead));
}

struct Fault {
    std::string call; // or several, with blanks between; "malloc" stands for all of its family
    int error;        // 0: half is written
};
bool is_meant(const Fault &chosen, const std::string &call);

// From here on the n-th such call fails, and those behind it where the fault lasts; n is INT_MAX for none.
void fault_after(int n, const Fault &chosen, bool lasts = false);
int calls_until_fault();
bool no_more_faults(); // tells whether there were as many calls

// Acts, and notes each call but those for memory before it is made.
int watched(const std::function<int()> &act, const std::function<void(const std::string &call)> &note);

int live_blocks();            // that the library has allocated, and nobody has freed
void free_block(void *block); // that the library has given away

inline std::atomic<int64_t> fixed_uptime{-1}, fixed_time{-1}; // nanoseconds; negative: as the real clocks

#endif
