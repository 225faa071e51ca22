/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Starting and stopping timers while others are pending, against a list walked from its head and the event loops.
#include "growth.h"
#include <frwk.h>

#include <event2/event.h>
#include <glib.h>
#include <uv.h>

#include <memory>
#include <random>

namespace {

constexpr int SPACING = 30000; // milliseconds between pending timers; nothing becomes due during a run

void never(int, void *)
{
    CHECK(!"a timer fired");
}

// ---- the floor: the described list, walked from its head to start and to stop

struct FloorTimers {
    frwk_list_t head = {&head, &head};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int next_id = 1;

    static int64_t diff_ms(const frwk_uptime_t &a, const frwk_uptime_t &b)
    {
        return (static_cast<int64_t>(a.sec) - b.sec) * 1000 + (static_cast<int64_t>(a.usec) - b.usec) / 1000;
    }
    __attribute__((noinline)) int start(void *data, int delay)
    {
        frwk_timer_t *timer = static_cast<frwk_timer_t *>(calloc(1, sizeof *timer));
        timer->cb = never;
        timer->data = data;
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        int64_t usec = now.tv_nsec / 1000 + delay % 1000 * 1000;
        using seconds = decltype(timer->expire.sec);
        using microseconds = decltype(timer->expire.usec);
        timer->expire.sec = static_cast<seconds>(now.tv_sec + delay / 1000 + usec / 1000000);
        timer->expire.usec = static_cast<microseconds>(usec % 1000000);
        pthread_mutex_lock(&mutex);
        timer->id = next_id++;
        frwk_list_t *at = head.next;
        while (at != &head && diff_ms(frwk_list_entry(at, frwk_timer_t, node)->expire, timer->expire) <= 0) {
            at = at->next;
        }
        timer->node = {at, at->prev};
        at->prev->next = &timer->node;
        at->prev = &timer->node;
        pthread_mutex_unlock(&mutex);
        return timer->id;
    }
    __attribute__((noinline)) void *stop(int id)
    {
        pthread_mutex_lock(&mutex);
        frwk_list_t *at = head.next;
        while (at != &head && frwk_list_entry(at, frwk_timer_t, node)->id != id) {
            at = at->next;
        }
        if (at != &head) {
            at->prev->next = at->next;
            at->next->prev = at->prev;
        }
        pthread_mutex_unlock(&mutex);
        if (at == &head) {
            return nullptr;
        }
        frwk_timer_t *timer = frwk_list_entry(at, frwk_timer_t, node);
        void *data = timer->data;
        free(timer);
        return data;
    }
};

struct OurTimers {
    int start(void *data, int delay)
    {
        return frwk_timer_cb_start(0, never, data, delay);
    }
    void *stop(int id)
    {
        return frwk_timer_stop(id);
    }
};

struct EventTimers {
    event_base *base = event_base_new();
    static void fired(evutil_socket_t, short, void *)
    {
        never(0, nullptr);
    }
    event *start(void *data, int delay)
    {
        event *timer = evtimer_new(base, fired, data);
        timeval time = {delay / 1000, delay % 1000 * 1000};
        CHECK(evtimer_add(timer, &time) == 0);
        return timer;
    }
    void *stop(event *timer)
    {
        void *data = event_get_callback_arg(timer);
        CHECK(evtimer_pending(timer, nullptr));
        event_free(timer);
        return data;
    }
};

struct UvTimers {
    uv_loop_t *loop = uv_default_loop();
    uv_timer_t *start(void *data, int delay)
    {
        uv_timer_t *timer = static_cast<uv_timer_t *>(malloc(sizeof *timer));
        uv_timer_init(loop, timer);
        timer->data = data;
        uv_update_time(loop);
        CHECK(uv_timer_start(
                  timer, [](uv_timer_t *) { never(0, nullptr); }, static_cast<uint64_t>(delay), 0) == 0);
        return timer;
    }
    void *stop(uv_timer_t *timer)
    {
        void *data = timer->data;
        CHECK(uv_is_active(reinterpret_cast<uv_handle_t *>(timer)));
        uv_close(reinterpret_cast<uv_handle_t *>(timer), [](uv_handle_t *handle) { free(handle); });
        if (++closed % 64 == 0) {
            uv_run(loop, UV_RUN_NOWAIT); // what was closed is freed here
        }
        return data;
    }
    int closed = 0;
};

struct GlibTimers {
    GMainContext *context = g_main_context_new();
    static gboolean fired(gpointer)
    {
        never(0, nullptr);
        return G_SOURCE_REMOVE;
    }
    GSource *start(void *, int delay)
    {
        GSource *timer = g_timeout_source_new(static_cast<guint>(delay));
        g_source_set_callback(timer, fired, nullptr, nullptr);
        g_source_attach(timer, context);
        return timer;
    }
    void *stop(GSource *timer)
    {
        CHECK(!g_source_is_destroyed(timer));
        g_source_destroy(timer);
        g_source_unref(timer);
        return nullptr;
    }
};

// ---- measuring

// Holds so many timers pending; a batch starts and stops one more of them at a time.
template <typename Timers> struct Pending {
    using Id = decltype(std::declval<Timers>().start(nullptr, 0));
    std::shared_ptr<Timers> timers;
    std::vector<Id> ids;
    std::vector<int> delays; // of those to start
    char data[1];

    Pending(std::shared_ptr<Timers> all, int count, bool last) : timers(all)
    {
        std::mt19937 random(1);
        std::vector<int> order; // timers are not started in the order in which they are due
        for (int i = 0; i < count; i++) {
            order.push_back(i);
        }
        std::shuffle(order.begin(), order.end(), random);
        for (int i : order) {
            ids.push_back(timers->start(data, 60000 + i * SPACING));
        }
        for (int i = 0; i < 1024; i++) {
            int span = (count + 1) * SPACING;
            delays.push_back(last ? 60000 + span : 60000 + static_cast<int>(random() % static_cast<unsigned>(span)));
        }
    }
    ~Pending()
    {
        for (Id id : ids) {
            timers->stop(id);
        }
    }
    Pending(const Pending &) = delete;
    Pending &operator=(const Pending &) = delete;
    double batch(size_t n)
    {
        double start = bench::now_ns();
        for (size_t i = 0; i < n; i++) {
            Id id = timers->start(data, delays[i % delays.size()]);
            void *back = timers->stop(id);
            CHECK(back == data || back == nullptr);
        }
        return bench::now_ns() - start;
    }
};

template <> double Pending<OurTimers>::batch(size_t n)
{
    double start = bench::now_ns();
    for (size_t i = 0; i < n; i++) {
        CHECK(timers->stop(timers->start(data, delays[i % delays.size()])) == data);
    }
    double spent = bench::now_ns() - start;
    CHECK(frwk_list_cont(&g_s_timer_ctrl.list) == static_cast<int>(ids.size()));
    return spent;
}

template <typename Timers> std::function<double(size_t)> batch(std::shared_ptr<Timers> timers, int count, bool last)
{
    auto pending = std::make_shared<Pending<Timers>>(timers, count, last);
    return [pending](size_t n) { return pending->batch(n); };
}

void run(const char *name, int count, bool last, double most)
{
    static auto floor = std::make_shared<FloorTimers>();
    static auto ours = std::make_shared<OurTimers>();
    static auto event = std::make_shared<EventTimers>();
    static auto uv = std::make_shared<UvTimers>();
    static auto glib = std::make_shared<GlibTimers>();
    bench::run({name,
                {bench::floor_of(batch(floor, count, last)),
                 bench::ours_of(batch(ours, count, last)),
                 {"libevent", batch(event, count, last)},
                 {"libuv", batch(uv, count, last)},
                 {"GLib", batch(glib, count, last)}},
                most});
}

void growth(benchmark::State &state, bool last)
{
    Pending<OurTimers> pending(std::make_shared<OurTimers>(), static_cast<int>(state.range(0)), last);
    size_t i = 0;
    for (auto _ : state) {
        CHECK(pending.timers->stop(pending.timers->start(pending.data, pending.delays[i++ % 1024])) == pending.data);
    }
}
BENCHMARK_CAPTURE(growth, middle, false)
    ->Name("start and stop, due anywhere")
    ->Arg(0)
    ->RangeMultiplier(10)
    ->Range(10, 10000);
BENCHMARK_CAPTURE(growth, last, true)->Name("start and stop, due last")->Arg(0)->RangeMultiplier(10)->Range(10, 10000);

} // namespace

int main()
{
    bench::use_cores(1);
    bench::measuring_clock = CLOCK_THREAD_CPUTIME_ID;
    CHECK(frwk_timer_init(nullptr) == FRWK_ERROR_SUCCESS);
    bench::print_header("### Timers: start and stop of one more, one core");
    run("100 pending, due anywhere", 100, false, 0.7);
    run("1,000 pending, due last", 1000, true, 0.02);
    run("10,000 pending, due last", 10000, true, 0.001);
    run("1,000 pending, due anywhere", 1000, false, 0.05);
    run("10,000 pending, due anywhere", 10000, false, 0.006);
    bench::run_growth();
    return 0;
}
