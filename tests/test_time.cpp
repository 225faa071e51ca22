// Sleep, uptime, local time, random numbers.
#include <gtest/gtest.h>
#include <signal.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <set>

#include "stand_ins.h"

namespace {

static_assert(offsetof(frwk_uptime_t, sec) == 0 && offsetof(frwk_uptime_t, usec) == 4 && sizeof(frwk_uptime_t) == 8,
              "a reading");
static_assert(offsetof(frwk_systime_t, sec) == 0 && offsetof(frwk_systime_t, min) == 1 &&
                  offsetof(frwk_systime_t, hour) == 2 && offsetof(frwk_systime_t, mday) == 3 &&
                  offsetof(frwk_systime_t, mon) == 4 && offsetof(frwk_systime_t, wday) == 5 &&
                  offsetof(frwk_systime_t, year) == 6 && sizeof(frwk_systime_t) == 8,
              "local time");

std::atomic<bool> record_sleeps{false};
std::vector<std::string> sleeps;

} // namespace

extern "C" unsigned int sleep(unsigned int seconds)
{
    if (record_sleeps) {
        sleeps.push_back("sleep " + std::to_string(seconds));
        return 0;
    }
    return real_call<unsigned int(unsigned int)>("sleep")(seconds);
}

extern "C" int usleep(useconds_t micros)
{
    if (record_sleeps) {
        sleeps.push_back("usleep " + std::to_string(micros));
        return 0;
    }
    return real_call<int(useconds_t)>("usleep")(micros);
}

namespace {

using namespace frwk_test;

TEST(Time, SleepInSecondsAndRest)
{
    const struct {
        int ms;
        Texts calls;
    } rows[] = {{INT_MIN, {}},
                {-5, {}},
                {0, {}},
                {1, {"usleep 1000"}},
                {999, {"usleep 999000"}},
                {1000, {"sleep 1"}},
                {1001, {"sleep 1", "usleep 1000"}},
                {2500, {"sleep 2", "usleep 500000"}},
                {3000, {"sleep 3"}},
                {INT_MAX, {"sleep 2147483", "usleep 647000"}}};
    for (const auto &row : rows) {
        sleeps.clear();
        record_sleeps = true;
        frwk_sleep(row.ms);
        record_sleeps = false;
        EXPECT_EQ(row.calls, sleeps) << row.ms;
    }
}

TEST(Time, SleepLasts)
{
    for (int ms : {1, 250, 1100}) {
        int64_t start = now_ms();
        frwk_sleep(ms);
        EXPECT_GE(now_ms() - start + 1, ms); // both readings are cut to milliseconds
    }
}

TEST(Time, SleepIsCutBySignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    int64_t start = now_ms();
    ualarm(100000, 0);
    frwk_sleep(30300);
    int64_t took = now_ms() - start;
    EXPECT_GE(took, 399) << "the signal cuts the whole seconds; the rest is slept";
    EXPECT_LT(took, 20000) << "not resumed";
}

TEST(Time, Uptime)
{
    const struct {
        int64_t ns;
        int32_t sec;
        int32_t usec;
    } rows[] = {
        {0, 0, 0}, {1999, 0, 1}, {999999999, 0, 999999}, {10700000000, 10, 700000}, {2147483647000000000, INT_MAX, 0}};
    for (const auto &row : rows) {
        frwk_uptime_t now = {-1, -1};
        fixed_uptime = row.ns;
        frwk_get_uptime(&now);
        fixed_uptime = -1;
        EXPECT_EQ(row.sec, now.sec);
        EXPECT_EQ(row.usec, now.usec);
    }
    frwk_uptime_t now = {5, 5};
    fail_uptime = true;
    frwk_get_uptime(&now);
    fail_uptime = false;
    EXPECT_EQ(0, now.sec) << "a clock that cannot be read";
    EXPECT_EQ(0, now.usec);

    timespec real;
    clock_gettime(CLOCK_MONOTONIC, &real);
    frwk_get_uptime(&now);
    EXPECT_LE(std::make_pair(static_cast<int32_t>(real.tv_sec), static_cast<int32_t>(real.tv_nsec / 1000)),
              std::make_pair(now.sec, now.usec));
    EXPECT_LT(now.sec, real.tv_sec + 10);
}

TEST(Time, Difference)
{
    const struct {
        frwk_uptime_t a, b;
        int ms;
    } rows[] = {
        {{5, 5}, {5, 5}, 0},
        {{1, 0}, {0, 999999}, 1}, // 1000 - 999: both parts are truncated on their own
        {{0, 1999}, {0, 0}, 1},
        {{0, 999}, {0, 0}, 0},
        {{2, 1000}, {1, 500000}, 501},
        {{2, 500}, {1, 0}, 1000},
        {{12, 200000}, {10, 700000}, 1500},
        {{2147483, 647000}, {0, 0}, INT_MAX},
        {{2147483, 648000}, {0, 0}, INT_MIN}, // wraps
        {{INT_MAX, 0}, {0, 0}, -1000},
        {{INT_MAX, 0}, {INT_MIN, 0}, -1000},
        {{4294968, 0}, {0, 0}, 704},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.ms, frwk_time_diff(&row.a, &row.b)) << row.a.sec << "." << row.a.usec;
        EXPECT_EQ(static_cast<int>(0U - static_cast<unsigned int>(row.ms)), frwk_time_diff(&row.b, &row.a));
    }
}

TEST(Time, Systime)
{
    const struct {
        const char *zone;
        int64_t time;
        std::vector<int> expected; // year, mon, mday, wday, hour, min, sec
    } rows[] = {
        {"UTC0", 1704186307, {2024, 1, 2, 2, 9, 5, 7}},
        {"EST5", 1704067200, {2023, 12, 31, 0, 19, 0, 0}},
        {"AAA-5:30", 951782399, {2000, 2, 29, 2, 5, 29, 59}},
        {"right/UTC", 1483228826, {2016, 12, 31, 6, 23, 59, 0}}, // a leap second, where the zone knows of them
    };
    for (const auto &row : rows) {
        if (strchr(row.zone, '/') != nullptr && !exists(std::string("/usr/share/zoneinfo/") + row.zone)) {
            continue;
        }
        Result result = run_child([&] {
            setenv("TZ", row.zone, 1);
            frwk_systime_t st;
            memset(&st, 0xff, sizeof st);
            fixed_time = row.time * 1000000000;
            frwk_get_systime(&st);
            fixed_time = -1;
            EXPECT_EQ(row.expected, std::vector<int>({st.year, st.mon, st.mday, st.wday, st.hour, st.min, st.sec}));
        });
        EXPECT_TRUE(result.ok()) << row.zone << " " << result;
    }
}

TEST(Time, RandomIsDrawnFromTheTimeOfDay)
{
    static const unsigned int bounds[] = {255, 65535, 16777215, 2147483647};
    std::set<unsigned int> picked;
    for (int i = 0; i < 40; i++) {
        const unsigned int seconds = 1704186307U + static_cast<unsigned int>(i),
                           micros = 7U * static_cast<unsigned int>(i);
        srand(seconds);
        unsigned int at_random = bounds[rand() % 4];
        picked.insert(at_random);
        srand(micros);
        const unsigned int drawn = static_cast<unsigned int>(rand());
        const int after = rand();

        fixed_time = seconds * INT64_C(1000000000) + micros * INT64_C(1000);
        EXPECT_EQ(1, frwk_random(1));
        EXPECT_EQ(drawn % 6 + 1, static_cast<unsigned int>(frwk_random(6)));
        EXPECT_EQ(drawn % INT_MAX + 1, static_cast<unsigned int>(frwk_random(INT_MAX)));
        EXPECT_EQ(drawn % INT_MAX + 1, static_cast<unsigned int>(frwk_random(-1)));
        EXPECT_EQ(drawn % INT_MAX + 1, static_cast<unsigned int>(frwk_random(INT_MIN)));
        EXPECT_EQ(drawn % at_random + 1, static_cast<unsigned int>(frwk_random(0)));
        EXPECT_EQ(after, rand()) << "reseeds the process-wide generator";
        fixed_time = -1;
    }
    EXPECT_EQ(4U, picked.size()) << "the seconds above are to reach every bound";
}

TEST(Time, RandomBounds)
{
    std::set<int> seen;
    for (int i = 0; i < 2000; i++) {
        int value = frwk_random(6);
        ASSERT_GE(value, 1);
        ASSERT_LE(value, 6);
        seen.insert(value);
        ASSERT_GE(frwk_random(0), 1);
        usleep(1);
    }
    EXPECT_EQ(6U, seen.size());
}

} // namespace
