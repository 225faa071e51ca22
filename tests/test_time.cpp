/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Sleep, uptime, local time, random numbers.
#include "frwk_test.h"

#include <cstdlib>

namespace {

std::string sleeps;

unsigned int note_sleep(unsigned int seconds)
{
    sleeps += std::to_string(seconds) + "s";
    return seconds; // cut short by a signal: not to be resumed
}

int note_usleep(useconds_t micros)
{
    sleeps += std::to_string(micros) + "us";
    return -1;
}

TEST(Time, SleepsSecondsThenTheRest)
{
    replace_call("sleep", note_sleep);
    replace_call("usleep", note_usleep);
    const std::pair<int, const char *> rows[] = {
        {INT_MIN, ""}, {0, ""}, {999, "999000us"}, {1000, "1s"}, {2500, "2s500000us"}, {INT_MAX, "2147483s647000us"}};
    for (const auto &[ms, calls] : rows) {
        sleeps.clear();
        frwk_sleep(ms);
        EXPECT_EQ(calls, sleeps) << ms;
    }
}

TEST(Time, UptimeAndDifference)
{
    const std::tuple<frwk_uptime_t, frwk_uptime_t, int> rows[] = {
        {{1, 0}, {0, 999999}, 1}, // 1000 - 999: both parts are truncated on their own
        {{0, 1500}, {0, 600}, 0},
        {{2147483, 648000}, {0, 0}, INT_MIN}, // wraps
        {{INT_MAX, 0}, {INT_MIN, 0}, -1000}};
    for (const auto &[a, b, ms] : rows) {
        EXPECT_EQ(ms, frwk_time_diff(&a, &b)) << a.sec << "." << a.usec;
    }
    frwk_uptime_t now;
    fixed_uptime = 10700001999;
    frwk_get_uptime(&now);
    EXPECT_TRUE(now.sec == 10 && now.usec == 700001);
    fault_after(1, {"clock_gettime", EINVAL});
    frwk_get_uptime(&now);
    EXPECT_TRUE(now.sec == 0 && now.usec == 0);
}

TEST(Time, Systime)
{
    setenv("TZ", "EST5", 1);
    fixed_time = INT64_C(1704067200) * 1000000000;
    frwk_systime_t st;
    frwk_get_systime(&st);
    fixed_time = -1;
    EXPECT_TRUE(st.year == 2023 && st.mon == 12 && st.mday == 31 && st.wday == 0);
    EXPECT_TRUE(st.hour == 19 && st.min == 0 && st.sec == 0);
}

TEST(Time, RandomIsDrawnFromTheTimeOfDay)
{
    const unsigned int bounds[] = {255, 65535, 16777215, 2147483647};
    for (unsigned int i = 0; i < 40; i++) { // seconds in which every bound is drawn
        const unsigned int seconds = 1704186307U + i, micros = 7U * i;
        srand(seconds);
        const unsigned int at_random = bounds[rand() % 4];
        srand(micros);
        const unsigned int drawn = static_cast<unsigned int>(rand());
        const int after = rand();
        fixed_time = seconds * INT64_C(1000000000) + micros * INT64_C(1000);
        EXPECT_EQ(drawn % at_random + 1, static_cast<unsigned int>(frwk_random(0)));
        EXPECT_EQ(drawn % 6 + 1, static_cast<unsigned int>(frwk_random(6)));
        EXPECT_EQ(drawn % INT_MAX + 1, static_cast<unsigned int>(frwk_random(-1)));
        EXPECT_EQ(after, rand()) << "reseeds the process-wide generator";
    }
}

} // namespace
