/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Messages between threads of one process: the submodule queue against its plain form, GLib's queue and ZeroMQ.
#include "growth.h"
#include <frwk.h>

#include <glib.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace {

constexpr unsigned SENDERS = 4;
constexpr uint32_t BURST = 1000; // messages; then a sender waits until its have been received

struct Payload { // 32 bytes of message
    uint32_t sender;
    uint32_t sequence;
    char text[24];
};

// What the receiving side of a contender has seen from each sender. One thread receives.
struct Inbox {
    struct Line {
        uint32_t next, wanted;
        sem_t complete;
    } lines[SENDERS];

    Inbox()
    {
        for (Line &line : lines) {
            sem_init(&line.complete, 0, 0);
        }
    }
    void expect(uint32_t sender, uint32_t count)
    { // by the sender, while nothing of its own is on the way
        lines[sender].next = 0;
        lines[sender].wanted = count;
    }
    void take(const Payload &payload)
    {
        Line &line = lines[payload.sender];
        CHECK(payload.sequence == line.next); // none lost, none twice, in order
        if (++line.next == line.wanted) {
            sem_post(&line.complete);
        }
    }
    void wait(uint32_t sender)
    {
        sem_wait(&lines[sender].complete);
    }
};

// ---- the floor: lock, append, post for every message; the receiver locks for every message as well

struct FloorQueue {
    frwk_list_t head = {&head, &head};
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    sem_t posted;
    Inbox inbox;

    FloorQueue()
    {
        sem_init(&posted, 0, 0);
        std::thread([this] { receive(); }).detach();
    }
    void send(uint32_t, const Payload &payload)
    {
        size_t size = sizeof(frwk_submodule_msg_t) + sizeof payload;
        frwk_submodule_msg_t *message = static_cast<frwk_submodule_msg_t *>(calloc(1, size));
        message->len = sizeof payload;
        memcpy(message->data, &payload, sizeof payload);
        pthread_mutex_lock(&lock);
        message->node = {&head, head.prev};
        head.prev->next = &message->node;
        head.prev = &message->node;
        pthread_mutex_unlock(&lock);
        sem_post(&posted);
    }
    frwk_submodule_msg_t *pop()
    {
        frwk_submodule_msg_t *message = nullptr;
        pthread_mutex_lock(&lock);
        if (head.next != &head) {
            message = frwk_list_entry(head.next, frwk_submodule_msg_t, node);
            head.next = message->node.next;
            head.next->prev = &head;
        }
        pthread_mutex_unlock(&lock);
        return message;
    }
    void receive()
    {
        for (;;) {
            sem_wait(&posted);
            while (frwk_submodule_msg_t *message = pop()) {
                Payload payload;
                memcpy(&payload, message->data, sizeof payload);
                inbox.take(payload);
                free(message);
            }
        }
    }
};

// ---- the blocks alone: allocated by the senders and freed by the receiver, as every message is, a burst at a time

struct Blocks {
    Inbox inbox;
    struct Line {
        std::vector<void *> burst;
        std::atomic<bool> full{false};
    } lines[SENDERS];
    sem_t posted;

    Blocks()
    {
        sem_init(&posted, 0, 0);
        std::thread([this] { receive(); }).detach();
    }
    void send(uint32_t sender, const Payload &payload)
    {
        Line &line = lines[sender];
        line.burst.push_back(malloc(sizeof(frwk_submodule_msg_t) + sizeof payload));
        memcpy(line.burst.back(), &payload, sizeof payload);
        if (line.burst.size() == inbox.lines[sender].wanted) {
            line.full.store(true, std::memory_order_release);
            sem_post(&posted);
        }
    }
    void receive()
    {
        for (;;) {
            sem_wait(&posted);
            for (Line &line : lines) {
                if (line.full.exchange(false, std::memory_order_acquire)) {
                    std::vector<void *> burst = std::move(line.burst);
                    line.burst.clear();
                    for (void *block : burst) {
                        Payload payload;
                        memcpy(&payload, block, sizeof payload);
                        free(block);
                        inbox.take(payload); // after the last, the sender fills the line anew
                    }
                }
            }
        }
    }
};

// ---- the library: a submodule for every configuration, since none can be ended

Inbox our_inbox;
std::atomic<bool> gate_open{true}; // while closed, the callback waits: a queue fills up

void our_callback(frwk_submodule_msg_t *message)
{
    while (!gate_open.load(std::memory_order_acquire)) {
        sched_yield();
    }
    Payload payload;
    memcpy(&payload, message->data, sizeof payload);
    our_inbox.take(payload);
    free(message);
}

struct OurQueue {
    uint32_t sid;
    Inbox &inbox = our_inbox;
    explicit OurQueue(uint32_t id) : sid(id)
    {
        frwk_submodule_create(sid, our_callback);
    }
    void send(uint32_t from, const Payload &payload)
    {
        CHECK(frwk_submodule_send(from, sid, 1, &payload, sizeof payload) == FRWK_ERROR_SUCCESS);
    }
};

struct GlibQueue {
    GAsyncQueue *queue = g_async_queue_new();
    Inbox inbox;
    GlibQueue()
    {
        std::thread([this] {
            for (;;) {
                gpointer message = g_async_queue_pop(queue);
                inbox.take(*static_cast<Payload *>(message));
                g_free(message);
            }
        }).detach();
    }
    void send(uint32_t, const Payload &payload)
    {
        g_async_queue_push(queue, g_memdup2(&payload, sizeof payload));
    }
};

struct ZmqQueue {
    void *context = zmq_ctx_new();
    void *receiver = zmq_socket(context, ZMQ_PULL);
    void *senders[SENDERS];
    Inbox inbox;
    explicit ZmqQueue(uint32_t sid)
    {
        std::string address = "inproc://queue" + std::to_string(sid);
        int no_limit = 0;
        zmq_setsockopt(receiver, ZMQ_RCVHWM, &no_limit, sizeof no_limit);
        CHECK(zmq_bind(receiver, address.c_str()) == 0);
        for (void *&sender : senders) {
            sender = zmq_socket(context, ZMQ_PUSH);
            zmq_setsockopt(sender, ZMQ_SNDHWM, &no_limit, sizeof no_limit);
            CHECK(zmq_connect(sender, address.c_str()) == 0);
        }
        std::thread([this] {
            for (;;) {
                Payload payload;
                CHECK(zmq_recv(receiver, &payload, sizeof payload, 0) == sizeof payload);
                inbox.take(payload);
            }
        }).detach();
    }
    void send(uint32_t from, const Payload &payload)
    {
        CHECK(zmq_send(senders[from], &payload, sizeof payload, 0) == sizeof payload);
    }
};

// ---- measuring

template <typename Queue> void send_burst(Queue *queue, uint32_t sender, uint32_t count)
{
    queue->inbox.expect(sender, count);
    for (Payload payload = {sender, 0, "state of the link"}; payload.sequence < count; payload.sequence++) {
        queue->send(sender, payload);
    }
}

// From the first send to the receipt of the last message.
template <typename Queue> std::function<double(size_t)> batch(Queue *queue, unsigned senders)
{
    return [queue, senders](size_t n) {
        uint32_t burst = BURST / senders;
        auto send_share = [&](uint32_t sender) {
            for (size_t sent = 0; sent < n / senders; sent += burst) {
                send_burst(queue, sender, burst);
                queue->inbox.wait(sender);
            }
        };
        double start = bench::now_ns();
        std::vector<std::thread> others;
        for (uint32_t sender = 1; sender < senders; sender++) {
            others.emplace_back(send_share, sender);
        }
        send_share(0);
        for (std::thread &other : others) {
            other.join();
        }
        return bench::now_ns() - start;
    };
}

void run_on(int cores, uint32_t sid)
{
    bench::use_cores(cores);     // the receiving threads inherit it
    auto floor = new FloorQueue; // all live as long as the threads that wait on them: to the end
    auto ours = new OurQueue(sid);
    auto blocks = new Blocks;
    auto glib = new GlibQueue;
    auto zmq = new ZmqQueue(sid);
    for (unsigned senders : {1U, SENDERS}) {
        bench::run({"a message, " + std::to_string(senders) + (senders == 1 ? " sender, " : " senders, ") +
                        std::to_string(cores) + (cores == 1 ? " core" : " cores"),
                    {bench::floor_of(batch(floor, senders)),
                     bench::ours_of(batch(ours, senders)),
                     bench::part_of("malloc() and free() alone", batch(blocks, senders)),
                     {"GAsyncQueue", batch(glib, senders)},
                     {"ZeroMQ inproc", batch(zmq, senders)}},
                    0.25,
                    0,
                    "",
                    0,
                    BURST});
    }
}

OurQueue *gated;

// A queue filled while its receiver stands still, then emptied.
void fill_and_drain(benchmark::State &state)
{
    uint32_t n = static_cast<uint32_t>(state.range(0));
    double sending = 0, draining = 0;
    for (auto _ : state) {
        gate_open = false;
        double start = bench::now_ns();
        send_burst(gated, 0, n);
        double full = bench::now_ns();
        gate_open = true;
        our_inbox.wait(0);
        sending += full - start;
        draining += bench::now_ns() - full;
    }
    double messages = static_cast<double>(n) * static_cast<double>(state.iterations());
    state.counters["ns a send"] = sending / messages;
    state.counters["ns a receipt"] = draining / messages;
}
BENCHMARK(fill_and_drain)
    ->Name("queue filled, then emptied")
    ->RangeMultiplier(10)
    ->Range(1, 1000000)
    ->UseRealTime()
    ->MinTime(0.1);

} // namespace

int main()
{
    bench::report();
    CHECK(frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) == FRWK_ERROR_SUCCESS);
    bench::print_header("### Submodules: messages of 32 bytes, in bursts of 1,000");
    run_on(1, 0);
    run_on(2, 1);
    gated = new OurQueue(2);
    bench::run_growth();
    return 0;
}
