// Sleep, uptime, local time, random numbers.
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <set>

#include "stand_ins.h"

static std::atomic<bool> record_sleeps{false};
static Texts sleeps;

extern "C" unsigned int sleep(unsigned int seconds)
{
    if (record_sleeps) {
        sleeps.push_back("sleep " + std::to_string(seconds));
        return seconds; // cut short by a signal: not to be resumed
    }
    return real_call<unsigned int(unsigned int)>("sleep")(seconds);
}

extern "C" int usleep(useconds_t micros)
{
    if (record_sleeps) {
        sleeps.push_back("usleep " + std::to_string(micros));
        return -1;
    }
    return real_call<int(useconds_t)>("usleep")(micros);
}

namespace {

using namespace frwk_test;

static_assert(offsetof(frwk_uptime_t, usec) == 4 && sizeof(frwk_uptime_t) == 8);
static_assert(offsetof(frwk_systime_t, min) == 1 && offsetof(frwk_systime_t, hour) == 2 &&
              offsetof(frwk_systime_t, mday) == 3 && offsetof(frwk_systime_t, mon) == 4 &&
              offsetof(frwk_systime_t, wday) == 5 && offsetof(frwk_systime_t, year) == 6 &&
              sizeof(frwk_systime_t) == 8);

TEST(Time, SleepsSecondsThenTheRest)
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

TEST(Time, Uptime)
{
    const struct {
        int64_t ns;
        int32_t sec;
        int32_t usec;
    } rows[] = {{0, 0, 0}, {1999, 0, 1}, {999999999, 0, 999999}, {10700000000, 10, 700000}};
    frwk_uptime_t now;
    for (const auto &row : rows) {
        fixed_uptime = row.ns;
        frwk_get_uptime(&now);
        EXPECT_EQ(std::make_pair(row.sec, row.usec), std::make_pair(now.sec, now.usec));
    }
    fail_uptime = true;
    frwk_get_uptime(&now);
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(now.sec, now.usec)) << "a clock that cannot be read";
    fail_uptime = false;
    fixed_uptime = -1;
}

TEST(Time, Difference)
{
    const struct {
        frwk_uptime_t a, b;
        int ms;
    } rows[] = {{{5, 5}, {5, 5}, 0},
                {{1, 0}, {0, 999999}, 1}, // 1000 - 999: both parts are truncated on their own
                {{0, 1999}, {0, 0}, 1},
                {{0, 999}, {0, 0}, 0},
                {{2, 1000}, {1, 500000}, 501},
                {{2, 500}, {1, 0}, 1000},
                {{2147483, 647000}, {0, 0}, INT_MAX},
                {{2147483, 648000}, {0, 0}, INT_MIN}, // wraps
                {{INT_MAX, 0}, {INT_MIN, 0}, -1000},
                {{4294968, 0}, {0, 0}, 704}};
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
    } rows[] = {{"UTC0", 1704186307, {2024, 1, 2, 2, 9, 5, 7}},
                {"EST5", 1704067200, {2023, 12, 31, 0, 19, 0, 0}},
                {"AAA-5:30", 951782399, {2000, 2, 29, 2, 5, 29, 59}}};
    for (const auto &row : rows) {
        const Result result = run_child([&] {
            setenv("TZ", row.zone, 1);
            frwk_systime_t st;
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
    const unsigned int bounds[] = {255, 65535, 16777215, 2147483647};
    std::set<unsigned int> picked;
    for (unsigned int i = 0; i < 40; i++) {
        const unsigned int seconds = 1704186307U + i, micros = 7U * i;
        srand(seconds);
        const unsigned int at_random = bounds[rand() % 4];
        picked.insert(at_random);
        srand(micros);
        const unsigned int drawn = static_cast<unsigned int>(rand());
        const int after = rand();

        fixed_time = seconds * INT64_C(1000000000) + micros * INT64_C(1000);
        EXPECT_EQ(1, frwk_random(1));
        EXPECT_EQ(drawn % 6 + 1, static_cast<unsigned int>(frwk_random(6)));
        for (int max : {INT_MAX, -1, INT_MIN}) {
            EXPECT_EQ(drawn % INT_MAX + 1, static_cast<unsigned int>(frwk_random(max)));
        }
        EXPECT_EQ(drawn % at_random + 1, static_cast<unsigned int>(frwk_random(0)));
        EXPECT_EQ(after, rand()) << "reseeds the process-wide generator";
        fixed_time = -1;
    }
    EXPECT_EQ(4U, picked.size()) << "the seconds above are to reach every bound";
}

} // namespace
