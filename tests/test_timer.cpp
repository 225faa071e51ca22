/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The timer service, and deadlines held by the caller.
#include "frwk_test.h"

#include <random>

namespace {

int64_t seconds(double value)
{
    return static_cast<int64_t>(value * 1e9 + 0.5);
}

// The pending timers in list order: "id:number".
std::string pending()
{
    std::string text;
    pthread_mutex_lock(&g_s_timer_ctrl.mutex);
    frwk_list_for_each (node, &g_s_timer_ctrl.list) {
        const frwk_timer_t *timer = frwk_list_entry(node, frwk_timer_t, node);
        text += (text.empty() ? "" : " ") + std::to_string(timer->id) + ":" + std::to_string(timer->timer_num);
    }
    pthread_mutex_unlock(&g_s_timer_ctrl.mutex);
    return text;
}

int data;

void own(int number, void *given)
{
    FRWK_INFO("own %d %s", number, given == &data ? "data" : "null");
}

void by_default(int number, void *given)
{
    FRWK_INFO("default %d %s", number, given == &data ? "data" : "null");
}

TEST(Timer, IdsAndOrder)
{
    trace_all();
    Capture out;
    EXPECT_EQ(0, frwk_timer_cb_start(1, own, nullptr, 499));
    EXPECT_EQ(0, frwk_timer_cb_start(1, own, nullptr, 500));
    EXPECT_EQ(nullptr, frwk_timer_stop(1));
    ASSERT_EQ(0, frwk_timer_init(nullptr));
    EXPECT_EQ(0, frwk_timer_cb_start(1, own, &data, 499));
    EXPECT_EQ(0, frwk_timer_cb_start(1, own, &data, INT_MIN));
    // In order of the milliseconds between them, and behind those that are due at the same one.
    const std::tuple<int, double, int> rows[] = {{-5, 10.7, 1500},   {2, 10.7, 1500},    {3, 10.7, 1499},
                                                 {4, 10.6995, 1500}, {5, 10.7005, 1500}, {6, 10.7, 1500},
                                                 {7, 10.7, 900},     {8, 10.7, 1300},    {9, 10.7, INT_MAX}};
    for (auto [number, uptime, delay] : rows) {
        fixed_uptime = seconds(uptime);
        EXPECT_EQ(std::max(number, 1), frwk_timer_start(number, &data, delay));
    }
    EXPECT_EQ("7:7 8:8 3:3 1:-5 2:2 4:4 5:5 6:6 9:9", pending());
    for (int id : {7, 9, 1, 6, 4, 8, 5, 3, 2}) {
        EXPECT_EQ(&data, frwk_timer_stop(id));
    }
    EXPECT_EQ("", pending());
    EXPECT_EQ(nullptr, frwk_timer_stop(3));
    EXPECT_EQ(Texts({"error|timer(499ms) < delay(500ms)", "error|timer service is not started!",
                     "error|can not found timer by id=1", "error|timer(499ms) < delay(500ms)",
                     "error|timer(-2147483648ms) < delay(500ms)", "error|can not found timer by id=3"}),
              out.lines());
    for (int id : {INT_MAX - 1, 1}) { // 2147483647 is never given out, nor is 0
        g_s_timer_ctrl.next_id = id == 1 ? INT_MAX : id;
        EXPECT_EQ(id, frwk_timer_start(id, nullptr, INT_MAX));
        EXPECT_EQ(nullptr, frwk_timer_stop(id));
    }
    int late, early;
    for (int *given : {&late, &early}) { // ids that repeat: the first in the list is meant
        g_s_timer_ctrl.next_id = 7;
        EXPECT_EQ(7, frwk_timer_start(1, given, given == &late ? 90000 : 80000));
    }
    EXPECT_EQ(&early, frwk_timer_stop(7));
    EXPECT_EQ(&late, frwk_timer_stop(7));
}

// However many are pending, a timer stands before the first that is due a millisecond later, in whatever order they are
// started and stopped; many are due within one.
TEST(Timer, PlaceAmongThousands)
{
    ASSERT_EQ(0, frwk_timer_init(nullptr));
    int older, newer;
    for (int *given : {&older, &newer}) {
        g_s_timer_ctrl.next_id = 7;
        fixed_uptime = 0;
        EXPECT_EQ(7, frwk_timer_start(0, given, 100000000));
    }
    g_s_timer_ctrl.next_id = 1000000;
    std::mt19937 random(1);
    std::vector<std::pair<int64_t, int>> model; // microseconds and id, in list order
    for (int step = 0; step < 20000; step++) {
        if (random() % 20 < (step < 12000 ? 6 : 14) && !model.empty()) {
            auto stopped = model.begin() + static_cast<ptrdiff_t>(random() % model.size());
            EXPECT_EQ(&data, frwk_timer_stop(stopped->second));
            model.erase(stopped);
            continue;
        }
        int64_t due = random() % 3 == 0 ? random() % 5000 : random() % 100000000;
        fixed_uptime = (1000000 + due) * 1000;
        auto later = [&](const std::pair<int64_t, int> &one) {
            return one.first / 1000000 != due / 1000000 ? one.first > due : one.first - due >= 1000;
        };
        auto place = std::find_if(model.begin(), model.end(), later);
        model.insert(place, {due, frwk_timer_start(0, &data, 100000000)});
        if (step % 1000 == 0) {
            std::string expected = "7:0 7:0";
            for (auto [when, id] : model) {
                expected += " " + std::to_string(id) + ":0";
            }
            ASSERT_EQ(expected, pending()) << step;
        }
    }
    EXPECT_EQ(&older, frwk_timer_stop(7));
    EXPECT_EQ(&newer, frwk_timer_stop(7));
}

// Callbacks start and stop timers too; a timer that is just fired is unknown by then. None fires during a callback, so
// that one can be overdue while one with the longest delay is started.
void play(int number, void *)
{
    fixed_uptime = seconds(10);
    EXPECT_EQ(7, frwk_timer_start(1, nullptr, 500));
    fixed_uptime = seconds(11);
    EXPECT_EQ(8, frwk_timer_start(2, nullptr, INT_MAX));
    EXPECT_EQ("7:1 5:5 8:2", pending());
    frwk_timer_stop(7);
    frwk_timer_stop(8);
    fixed_uptime = -1;
    FRWK_INFO("%s %s", frwk_timer_stop(5) == &data ? "stopped" : "gone",
              frwk_timer_stop(6) == &data ? "kept" : "taken");
    frwk_timer_cb_start(number + 1, own, &data, 500);
}

TEST(Timer, FiresInOrder)
{
    trace_all();
    Capture out;
    ASSERT_EQ(0, frwk_timer_init(own));
    ASSERT_EQ(0, frwk_timer_init(by_default)) << "only replaces the default callback";
    const int64_t start = now_ms();
    EXPECT_EQ(1, frwk_timer_cb_start(1, own, &data, 900));
    EXPECT_EQ(2, frwk_timer_start(2, &data, 900));
    EXPECT_EQ(3, frwk_timer_cb_start(3, own, nullptr, 500));
    EXPECT_TRUE(out.wait_for("own 3"));
    EXPECT_GE(now_ms() - start + 1, 500);
    EXPECT_TRUE(out.wait_for("default 2"));
    EXPECT_GE(now_ms() - start + 1, 900);
    EXPECT_EQ(0, frwk_timer_init(nullptr));
    EXPECT_EQ(4, frwk_timer_start(4, &data, 500)) << "without any callback it is just removed";
    EXPECT_EQ(5, frwk_timer_start(5, &data, 100000));
    EXPECT_EQ(6, frwk_timer_cb_start(7, play, &data, 501));
    EXPECT_TRUE(out.wait_for("own 8"));
    EXPECT_EQ("", pending());
    EXPECT_EQ(Texts({"info|own 3 null", "info|own 1 data", "info|default 2 data", "error|can not found timer by id=6",
                     "info|stopped taken", "info|own 8 data"}),
              out.lines());
}

// The milliseconds leave 31 bits at 24.86 days and 32 bits at 49.71.
TEST(Timer, LongUptimes)
{
    static std::atomic<int> fired;
    ASSERT_EQ(0, frwk_timer_init([](int number, void *) { EXPECT_EQ(number, ++fired); }));
    for (double uptime : {2147482.5, 4294966.5}) {
        fired = 0;
        fixed_uptime = seconds(uptime);
        frwk_uptime_t deadline;
        frwk_simple_timer_start(&deadline, 1500);
        for (int number : {3, 1, 2}) {
            frwk_timer_start(number, nullptr, 500 * number);
        }
        for (int number : {1, 2, 3}) {
            EXPECT_EQ(0, frwk_simple_timer_timeout(&deadline));
            fixed_uptime = seconds(uptime + 0.5 * number);
            EXPECT_TRUE(wait_until([=] { return fired == number; })) << uptime;
        }
        EXPECT_EQ(1, frwk_simple_timer_timeout(&deadline));
    }
}

TEST(Timer, Deadlines)
{
    using Row = std::tuple<int, double, int, int>; // delay, seconds later, timed out, seconds that remain
    const Row rows[] = {{3000, 0, 0, 3},      {3000, 0.001, 0, 2}, {3000, 2.9985, 0, 0},
                        {3000, 2.9995, 1, 0}, {3000, 4.5, 1, -1},  {INT_MAX, 0, 0, 2147483}};
    frwk_uptime_t deadline;
    for (auto [delay, later, timeout, remain] : rows) {
        fixed_uptime = seconds(10.25);
        frwk_simple_timer_start(&deadline, delay);
        fixed_uptime = seconds(10.25 + later);
        EXPECT_EQ(timeout, frwk_simple_timer_timeout(&deadline)) << delay << " " << later;
        EXPECT_EQ(remain, frwk_simple_timer_remain(&deadline)) << delay << " " << later;
    }
    fixed_uptime = seconds(10.7);
    frwk_simple_timer_start(&deadline, 1300);
    EXPECT_TRUE(deadline.sec == 12 && deadline.usec == 0);
}

} // namespace
