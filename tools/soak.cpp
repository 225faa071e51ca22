/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Load over a long time: ten clients against one module, not all of them well-behaved.
//
//   soak SECONDS
//
// Seven clients send synchronous and asynchronous requests and notifications as fast as they can, and check every
// answer; now and then one of them is killed and another takes its place. One connects and stays silent, one never
// reads its answers, one sends garbage. At times the module is out of descriptors. Prints figures and ends with 1 where
// something was answered wrongly or lost, or where memory, descriptors or threads have grown.
#include "frwk_test.h"

#include <sys/mman.h>
#include <sys/resource.h>

#include <random>

namespace {

enum { CLIENTS = 7, MSG_COUNT = MSG_ECHO + 1, BODY_SIZE = 6000, HELD = 5, STARVING_MS = 400 };

// What all processes count.
struct Counts {
    std::atomic<long> asked, answered;      // synchronous requests
    std::atomic<long> sent, taken, handled; // asynchronous ones: begun, acknowledged, seen by the handler
    std::atomic<long> lost, wrong, silent, unread, garbage;
};
Counts *counts;

int32_t handler(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                uint32_t)
{
    counts->handled += msg == MSG_COUNT;
    for (int32_t i = 0; i < req_len && i < rsp_size; i++) {
        rsp[i] = static_cast<uint8_t>(req[i] ^ from);
    }
    return req_len;
}

// Counts a request: the module may refuse one when all its threads are busy, and a descriptor may be what it lacks.
void count(int rc, int good, std::atomic<long> *done)
{
    std::atomic<long> *failed = rc == FRWK_ERROR_RECV || rc == FRWK_ERROR_SEND ? &counts->lost : &counts->wrong;
    ++*(rc == good ? done : failed);
}

[[noreturn]] void be_client(unsigned int seed)
{
    std::minstd_rand random(seed);
    frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr);
    frwk_debug_enable(0);
    std::string body(BODY_SIZE, '\0'), rsp;
    for (;;) {
        const size_t size = random() % (random() % 8 == 0 ? BODY_SIZE : 100) + 3;
        const int32_t len = static_cast<int32_t>(size);
        body[random() % size] = static_cast<char>(random());
        if (random() % 3 == 0) {
            counts->sent++;
            count(frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, MSG_COUNT, &body[0], len), FRWK_ERROR_ASYNC, &counts->taken);
            continue;
        }
        int32_t result = -1;
        counts->asked++;
        rsp.resize(size);
        int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, MSG_ECHO, &body[0], len, &rsp[0], len, 1, &result);
        for (size_t i = 0; rc == FRWK_ERROR_SUCCESS && i < size; i++) {
            rc = result == len && (body[i] ^ FRWK_MODULE_LOGTOOL) == rsp[i] ? rc : FRWK_ERROR_FAILED;
        }
        count(rc, FRWK_ERROR_SUCCESS, &counts->answered);
    }
}

// Keeps up to HELD connections open on which it sends what is made for each, and reads nothing.
[[noreturn]] void be_nuisance(std::atomic<long> *count, useconds_t pause, const std::function<std::string()> &make)
{
    int held[HELD] = {-1, -1, -1, -1, -1};
    for (int i = 0;; i = (i + 1) % HELD) {
        close(held[i]);
        held[i] = raw_connect("qmuxd");
        raw_send(held[i], make());
        ++*count;
        usleep(pause);
    }
}

std::string make_garbage()
{
    static std::minstd_rand random;
    std::string bytes(random() % 64, '\0');
    std::generate(bytes.begin(), bytes.end(), [] { return random() % (random() % 2 == 0 ? 256 : 9); });
    return bytes;
}

long rss_kib(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return atol(status.c_str() + status.find("VmRSS:") + 6);
}

// Takes all descriptors away from the module for a while.
void starve(pid_t pid)
{
    rlimit usual;
    prlimit(pid, RLIMIT_NOFILE, nullptr, &usual);
    const rlimit none = {3, usual.rlim_max};
    prlimit(pid, RLIMIT_NOFILE, &none, nullptr);
    usleep(STARVING_MS * 1000);
    prlimit(pid, RLIMIT_NOFILE, &usual, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 60;
    void *shared = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    counts = new (shared) Counts();
    Counts &c = *counts;
    Module module(FRWK_MODULE_QMUXD, [] { // error lines are counted afterwards
        frwk_ipc_init(handler);
        frwk_debug_enable(3);
        frwk_trace_set("error");
    });
    usleep(100000); // its start is over
    const int fds = count_fds(module.pid), threads = count_threads(module.pid);

    const std::string unread = words({2, MSG_ECHO, 0, 1, 4000000, 0}); // more than a socket holds
    Process nuisances[3], clients[CLIENTS];
    nuisances[0].start([] { be_nuisance(&counts->silent, 100000, [] { return ""; }); });
    nuisances[1].start([&] { be_nuisance(&counts->unread, 100000, [&] { return unread; }); });
    nuisances[2].start([] { be_nuisance(&counts->garbage, 1000, make_garbage); });
    std::minstd_rand random;
    const auto start_client = [&](Process &client) {
        client.start([&] { be_client(static_cast<unsigned int>(random())); });
    };
    for (Process &client : clients) {
        start_client(client);
    }
    const long start = now_ms();
    long early_rss = 0;
    int kills = 0, starvings = 0;
    while (now_ms() - start < seconds * 1000L) {
        usleep(static_cast<useconds_t>(random() % 200000));
        Process &client = clients[random() % CLIENTS];
        client.stop(SIGKILL);
        kills++;
        start_client(client);
        if (random() % 30 == 0 || (starvings == 0 && now_ms() - start > seconds * 300L)) {
            starve(module.pid);
            starvings++;
        }
        if (early_rss == 0 && now_ms() - start > seconds * 400L) {
            early_rss = rss_kib(module.pid);
        }
    }
    const double took = static_cast<double>(now_ms() - start) / 1000;
    for (Process &client : clients) {
        client.stop(SIGKILL);
    }
    for (Process &nuisance : nuisances) {
        nuisance.stop(SIGKILL);
    }
    const bool calm = wait_until(
        [&] { return count_fds(module.pid) == fds && count_threads(module.pid) == threads && c.handled >= c.taken; });
    const long rss = rss_kib(module.pid);
    frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr);
    const int alive = frwk_ipc_msg_set(FRWK_MODULE_QMUXD, FRWK_MSG_SYS_PING, nullptr, 0, 1, nullptr);
    long refused = 0, starved = 0;
    for (const std::string &trace : lines_in(module.out())) {
        refused += contains(trace, "handle thread too many");
        starved += contains(trace, "errno=24");
    }
    printf("%.0f s: %ld synchronous requests, %ld answered; %ld asynchronous, %ld taken, %ld handled\n"
           "%d clients killed; connections: %ld silent, %ld never read, %ld of garbage\n"
           "%ld requests lost, %ld refused for want of threads; %ld answered wrongly\n"
           "out of descriptors %d times: %ld failed accepts\n"
           "memory %ld KiB early, %ld after; %d descriptors, %d threads before and after\n",
           took, c.asked.load(), c.answered.load(), c.sent.load(), c.taken.load(), c.handled.load(), kills,
           c.silent.load(), c.unread.load(), c.garbage.load(), c.lost.load(), refused, c.wrong.load(), starvings,
           starved, early_rss, rss, fds, threads);
    const std::pair<bool, const char *> checks[] = {
        {c.wrong == 0, "an answer or a result was wrong"},
        {c.lost <= refused, "a request was lost that was not refused"},
        {c.handled >= c.taken && c.handled <= c.sent, "an acknowledged request was not handled, or twice"},
        {c.asked - c.answered <= kills + c.lost, "an unanswered request without a reason"},
        {c.answered > seconds * 100 && c.taken > seconds * 50, "hardly any load"},
        {starved > 0 && starved < starvings * STARVING_MS / 5, "the accept loop spins without descriptors"},
        {calm, "descriptors or threads were not given back"},
        {rss <= early_rss + 1024, "memory has grown"},
        {alive == FRWK_ERROR_SUCCESS, "the module does not answer afterwards"}};
    int failures = 0;
    for (auto [holds, what] : checks) {
        if (!holds) {
            printf("FAILED: %s\n", what);
            failures++;
        }
    }
    return failures > 0;
}
