// The timer service, and deadlines held by the caller.
#include <climits>
#include <cstddef>
#include <mutex>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

constexpr size_t P = sizeof(void *);
static_assert(offsetof(frwk_timer_t, node) == 0 && offsetof(frwk_timer_t, id) == 2 * P &&
              offsetof(frwk_timer_t, timer_num) == 2 * P + 4 && offsetof(frwk_timer_t, cb) == 2 * P + 8 &&
              offsetof(frwk_timer_t, data) == 3 * P + 8 && offsetof(frwk_timer_t, expire) == 4 * P + 8);
static_assert(offsetof(frwk_timer_ctrl_t, mutex) == 0 && offsetof(frwk_timer_ctrl_t, list) == sizeof(pthread_mutex_t) &&
              offsetof(frwk_timer_ctrl_t, default_cb) == sizeof(pthread_mutex_t) + 2 * P &&
              offsetof(frwk_timer_ctrl_t, next_id) == sizeof(pthread_mutex_t) + 3 * P &&
              offsetof(frwk_timer_ctrl_t, tid) == sizeof(pthread_mutex_t) + 4 * P);

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

std::mutex guard;
Texts fired; // "callback number data"
pthread_t fired_on;

void record(const char *callback, int number, void *data)
{
    std::lock_guard<std::mutex> lock(guard);
    fired.push_back(callback + (" " + std::to_string(number)) + (data != nullptr ? " data" : " null"));
    fired_on = pthread_self();
}

void own(int number, void *data)
{
    record("own", number, data);
}

void by_default(int number, void *data)
{
    record("default", number, data);
}

Texts wait_for_fired(size_t count)
{
    const auto all = [] {
        std::lock_guard<std::mutex> lock(guard);
        return fired;
    };
    wait_until([&] { return all().size() >= count; });
    return all();
}

int data;

TEST(Timer, BeforeTheServiceRuns)
{
    const std::string zero(sizeof g_s_timer_ctrl, '\0');
    trace_all();
    Capture out;
    EXPECT_EQ(0, frwk_timer_cb_start(1, own, nullptr, 500));
    EXPECT_EQ(nullptr, frwk_timer_stop(1));
    EXPECT_EQ("error|can not found timer by id=1", said(out.traces()).back());
    EXPECT_EQ(zero, bytes_of(g_s_timer_ctrl));
    fail_threads = true;
    EXPECT_EQ(FRWK_ERROR_THREAD, frwk_timer_init(own));
    fail_threads = false;
    EXPECT_EQ(Texts({"error|create thread error!", "error|create timer thread failed!"}), last(2, said(out.traces())));
    EXPECT_EQ(0, frwk_timer_start(1, nullptr, 500));
    EXPECT_EQ(0, frwk_timer_init(by_default)) << "may be tried again";
    EXPECT_EQ(1, frwk_timer_start(1, nullptr, 500));
    EXPECT_EQ(by_default, g_s_timer_ctrl.default_cb);
    EXPECT_NE(FRWK_THREAD_INVALID, g_s_timer_ctrl.tid);
    wait_for_fired(1);
}

TEST(Timer, IdsAndStop)
{
    trace_all();
    Capture out;
    ASSERT_EQ(0, frwk_timer_init(nullptr));
    EXPECT_EQ(1, g_s_timer_ctrl.next_id);
    for (int delay : {499, 0, -1, INT_MIN}) {
        EXPECT_EQ(0, frwk_timer_cb_start(1, own, &data, delay));
        EXPECT_EQ("timer(" + std::to_string(delay) + "ms) < delay(500ms)", out.traces().back().msg);
    }
    EXPECT_EQ(1, frwk_timer_cb_start(11, own, &data, 100000)) << "refused ones take no id";
    EXPECT_EQ(2, frwk_timer_start(12, nullptr, 100000));
    EXPECT_EQ(3, frwk_timer_start(13, &data, INT_MAX));
    EXPECT_EQ("1:11 2:12 3:13", pending());
    EXPECT_EQ(&data, frwk_timer_stop(1));
    EXPECT_EQ(nullptr, frwk_timer_stop(2));
    EXPECT_EQ("3:13", pending());
    const size_t before = out.traces().size();
    for (int id : {1, 0, -1, 4, INT_MAX}) {
        EXPECT_EQ(nullptr, frwk_timer_stop(id));
        EXPECT_EQ("can not found timer by id=" + std::to_string(id), out.traces().back().msg);
    }
    EXPECT_EQ(before + 5, out.traces().size());
    for (const TraceLine &trace : out.traces()) {
        EXPECT_EQ("error", trace.level);
    }

    // 2147483647 is never given out, nor is 0.
    pthread_mutex_lock(&g_s_timer_ctrl.mutex);
    g_s_timer_ctrl.next_id = INT_MAX - 1;
    pthread_mutex_unlock(&g_s_timer_ctrl.mutex);
    EXPECT_EQ(INT_MAX - 1, frwk_timer_start(1, &data, 100000));
    EXPECT_EQ(INT_MAX, g_s_timer_ctrl.next_id);
    EXPECT_EQ(1, frwk_timer_start(2, &data, 100000));
    EXPECT_EQ(2, g_s_timer_ctrl.next_id);
    EXPECT_EQ(2, frwk_timer_start(3, &data, 100000));
    EXPECT_EQ("2147483646:1 1:2 2:3 3:13", pending());
    for (int id : {INT_MAX - 1, 1, 2, 3}) {
        EXPECT_EQ(&data, frwk_timer_stop(id));
    }
}

TEST(Timer, ListIsSortedToTheMillisecond)
{
    fixed_uptime = seconds(10.7);
    ASSERT_EQ(0, frwk_timer_init(nullptr));
    EXPECT_EQ(1, frwk_timer_cb_start(-5, own, &data, 1500));
    const frwk_timer_t *timer = frwk_list_entry(g_s_timer_ctrl.list.next, frwk_timer_t, node);
    EXPECT_EQ(12, timer->expire.sec);
    EXPECT_EQ(200000, timer->expire.usec);
    EXPECT_EQ(1, timer->id);
    EXPECT_EQ(-5, timer->timer_num);
    EXPECT_EQ(own, timer->cb);
    EXPECT_EQ(&data, timer->data);

    const struct {
        int number;
        double uptime;
        int delay;
        const char *order;
    } rows[] = {
        {2, 10.7, 1500, "1:-5 2:2"},            // due at the same time: behind
        {3, 10.7, 1499, "3:3 1:-5 2:2"},        // a millisecond earlier: before
        {4, 10.6995, 1500, "3:3 1:-5 2:2 4:4"}, // within the millisecond: behind
        {5, 10.7005, 1500, "3:3 1:-5 2:2 4:4 5:5"},
        {6, 10.7, 1500, "3:3 1:-5 2:2 4:4 5:5 6:6"},
        {7, 10.7, 900, "7:7 3:3 1:-5 2:2 4:4 5:5 6:6"},
        {8, 11.0, 1000, "7:7 8:8 3:3 1:-5 2:2 4:4 5:5 6:6"},       // 12.0
        {9, 11.4995, 500, "7:7 9:9 8:8 3:3 1:-5 2:2 4:4 5:5 6:6"}, // 11.9995: the parts say a millisecond
    };
    for (const auto &row : rows) {
        fixed_uptime = seconds(row.uptime);
        frwk_timer_start(row.number, nullptr, row.delay);
        EXPECT_EQ(row.order, pending()) << row.number;
    }
    for (int id = 1; id <= 9; id++) {
        frwk_timer_stop(id);
    }
}

TEST(Timer, FiresInOrderOnItsThread)
{
    const pthread_t self = pthread_self();
    ASSERT_EQ(0, frwk_timer_init(own));
    ASSERT_EQ(0, frwk_timer_init(by_default)) << "only replaces the default callback";
    const int64_t start = now_ms();
    ASSERT_EQ(1, frwk_timer_cb_start(1, own, &data, 900));
    ASSERT_EQ(2, frwk_timer_start(2, &data, 900));
    ASSERT_EQ(3, frwk_timer_cb_start(3, own, nullptr, 500));
    ASSERT_EQ(4, frwk_timer_cb_start(4, own, &data, 600));
    EXPECT_EQ(&data, frwk_timer_stop(4));
    EXPECT_EQ("own 3 null", wait_for_fired(1).front());
    EXPECT_GE(now_ms() - start + 1, 500);
    EXPECT_EQ(Texts({"own 3 null", "own 1 data", "default 2 data"}), wait_for_fired(3));
    EXPECT_GE(now_ms() - start + 1, 900);
    EXPECT_FALSE(pthread_equal(self, fired_on));
    EXPECT_EQ("", pending());
    EXPECT_EQ(nullptr, frwk_timer_stop(1)) << "fired timers are unknown";

    ASSERT_EQ(0, frwk_timer_init(nullptr));
    EXPECT_EQ(5, frwk_timer_start(5, &data, 500)) << "without any callback it is just removed";
    EXPECT_EQ(6, frwk_timer_cb_start(6, own, &data, 501));
    EXPECT_EQ("own 6 data", wait_for_fired(4).back());
    EXPECT_EQ("", pending());
}

TEST(Timer, CallbacksStartAndStopTimers)
{
    static std::atomic<int> stopped{0};
    ASSERT_EQ(0, frwk_timer_init(nullptr));
    ASSERT_EQ(1, frwk_timer_cb_start(1, own, &data, 100000));
    ASSERT_EQ(2, frwk_timer_cb_start(
                     2,
                     [](int, void *) {
                         stopped += frwk_timer_stop(1) == &data ? 1 : 0;
                         stopped += frwk_timer_stop(2) == nullptr ? 1 : 0; // the one that is just running
                         frwk_timer_cb_start(3, own, &data, 500);
                     },
                     &data, 500));
    EXPECT_EQ(Texts({"own 3 data"}), wait_for_fired(1));
    EXPECT_EQ(2, stopped);
}

TEST(Timer, Deadlines)
{
    const struct {
        int delay;
        double later;
        int timeout;
        int remain;
    } rows[] = {{3000, 0, 0, 3},   {3000, 0.001, 0, 2}, {3000, 2.9985, 0, 0},    {3000, 2.9995, 1, 0}, {3000, 3, 1, 0},
                {3000, 1.5, 0, 1}, {3000, 2.5, 0, 0},   {3000, 3.5, 1, 0},       {3000, 4.5, 1, -1},   {0, 0, 1, 0},
                {-1500, 0, 1, -1}, {1, 0, 0, 0},        {INT_MAX, 0, 0, 2147483}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.delay << " ms, " << row.later << " s later");
        frwk_uptime_t deadline;
        fixed_uptime = seconds(10.25);
        frwk_simple_timer_start(&deadline, row.delay);
        fixed_uptime = seconds(10.25 + row.later);
        EXPECT_EQ(row.timeout, frwk_simple_timer_timeout(&deadline));
        EXPECT_EQ(row.remain, frwk_simple_timer_remain(&deadline));
        fixed_uptime = -1;
    }
}

} // namespace
