// Load over a long time: ten clients against one module, not all of them well-behaved.
//
//   soak SECONDS
//
// Seven clients send synchronous and asynchronous requests and notifications as fast as they can, and check every
// answer; now and then one of them is killed and another takes its place. One connects and stays silent, one never
// reads its answers, one sends garbage. At times the module is out of descriptors. Prints figures and ends with 1 where
// something was answered wrongly or lost, or where memory, descriptors or threads have grown.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <random>

#include "frwk_test.h"

using namespace frwk_test;

namespace {

enum { CLIENTS = 7, MSG_ECHO = 7, MSG_COUNT, BODY_SIZE = 6000, HELD = 5 };

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
    if (msg == MSG_COUNT) {
        counts->handled++;
        return 0;
    }
    for (int32_t i = 0; i < req_len && i < rsp_size; i++) {
        rsp[i] = static_cast<uint8_t>(req[i] ^ from);
    }
    return req_len;
}

// A request failed: the module may refuse one when all its threads are busy, and a descriptor may be what it lacks.
void count_failure(int rc)
{
    counts->lost += rc == FRWK_ERROR_RECV || rc == FRWK_ERROR_SEND;
    counts->wrong += rc != FRWK_ERROR_RECV && rc != FRWK_ERROR_SEND;
}

[[noreturn]] void be_client(uint32_t id, unsigned int seed)
{
    std::minstd_rand random(seed);
    if (frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) != 0) {
        _exit(1);
    }
    frwk_debug_enable(0);
    std::vector<uint8_t> body(BODY_SIZE), rsp(BODY_SIZE);
    for (;;) {
        const int32_t size = static_cast<int32_t>(random() % (random() % 8 == 0 ? BODY_SIZE : 100)) + 3;
        body[0] = static_cast<uint8_t>(random() + id);
        body[static_cast<size_t>(size) - 1] = static_cast<uint8_t>(random());
        if (random() % 3 == 0) {
            counts->sent++;
            const int rc = random() % 2 == 0 ? frwk_ipc_send_async(FRWK_MODULE_QMUXD, MSG_COUNT, body.data(), size, 1)
                                             : frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, MSG_COUNT, body.data(), size);
            if (rc == FRWK_ERROR_ASYNC) {
                counts->taken++;
            } else {
                count_failure(rc);
            }
            continue;
        }
        int32_t result = -1;
        counts->asked++;
        const int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, MSG_ECHO, body.data(), size, rsp.data(), size, 1, &result);
        if (rc != FRWK_ERROR_SUCCESS) {
            count_failure(rc);
            continue;
        }
        for (int32_t i = 0; i < size; i++) {
            rsp[static_cast<size_t>(i)] ^= FRWK_MODULE_LOGTOOL;
        }
        if (result == size && memcmp(body.data(), rsp.data(), static_cast<size_t>(size)) == 0) {
            counts->answered++;
        } else {
            counts->wrong++;
        }
    }
}

// Keeps up to HELD connections open on which it sends `bytes` and reads nothing.
[[noreturn]] void be_nuisance(std::atomic<long> *count, const std::string &bytes)
{
    int held[HELD] = {-1, -1, -1, -1, -1};
    for (int i = 0;; i = (i + 1) % HELD) {
        close(held[i]);
        held[i] = raw_connect("qmuxd");
        raw_send(held[i], bytes);
        ++*count;
        usleep(100000);
    }
}

[[noreturn]] void be_garbler(unsigned int seed)
{
    std::minstd_rand random(seed);
    for (;;) {
        std::string bytes(random() % 64, '\0');
        for (char &byte : bytes) {
            byte = static_cast<char>(random() % (random() % 2 == 0 ? 256 : 9));
        }
        int fd = raw_connect("qmuxd");
        raw_send(fd, bytes);
        usleep(static_cast<useconds_t>(random() % 2000));
        close(fd);
        counts->garbage++;
    }
}

template <typename F> pid_t in_child(F body)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    return pid;
}

void end(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long rss_kib(pid_t pid)
{
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return atol(status.c_str() + status.find("VmRSS:") + 6);
}

// Nanoseconds that the module's first thread after the main one, its accept loop, has run.
long accept_loop_ns(pid_t pid, pid_t loop)
{
    return atol(read_file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(loop) + "/schedstat").c_str());
}

// Takes all descriptors away from the module for a while. The share of a core that its accept loop then uses.
double starve(pid_t pid, pid_t loop)
{
    rlimit usual;
    prlimit(pid, RLIMIT_NOFILE, nullptr, &usual);
    const rlimit none = {3, usual.rlim_max};
    prlimit(pid, RLIMIT_NOFILE, &none, nullptr);
    const long start = now_ms();
    const long ran = accept_loop_ns(pid, loop);
    usleep(400000);
    const double share =
        static_cast<double>(accept_loop_ns(pid, loop) - ran) / 1e6 / static_cast<double>(now_ms() - start);
    prlimit(pid, RLIMIT_NOFILE, &usual, nullptr);
    return share;
}

struct Size {
    long rss;
    int fds, threads;
};

Size size_of(pid_t pid)
{
    return {rss_kib(pid), count_fds(pid), count_threads(pid)};
}

int failures = 0;

void expect(bool holds, const char *what)
{
    failures += !holds;
    if (!holds) {
        printf("FAILED: %s\n", what);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 60;
    void *shared = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    counts = new (shared) Counts();
    Module module(FRWK_MODULE_QMUXD, [] { // error lines are counted afterwards
        frwk_ipc_init(handler);
        frwk_debug_enable(3);
        frwk_trace_set("error");
    });
    pid_t loop = 0;
    for (pid_t tid = module.pid + 1; loop == 0 && tid < module.pid + 10000; tid++) {
        loop = exists("/proc/" + std::to_string(module.pid) + "/task/" + std::to_string(tid)) ? tid : 0;
    }
    usleep(100000); // its start is over
    const Size at_rest = size_of(module.pid);

    const ReqHdr unread = {2, MSG_ECHO, 0, 1, 4000000, 0}; // more than a socket holds
    const pid_t nuisances[] = {
        in_child([] { be_nuisance(&counts->silent, ""); }),
        in_child([&] { be_nuisance(&counts->unread, bytes_of(unread)); }),
        in_child([] { be_garbler(7); }),
    };
    pid_t clients[CLIENTS];
    std::minstd_rand random(1);
    for (pid_t &client : clients) {
        client = in_child([&] { be_client(FRWK_MODULE_LOGTOOL, static_cast<unsigned int>(random())); });
    }
    const long start = now_ms();
    long early_rss = 0;
    int kills = 0, starvings = 0;
    double most_used = 0;
    while (now_ms() - start < seconds * 1000L) {
        usleep(static_cast<useconds_t>(random() % 200000));
        pid_t &client = clients[random() % CLIENTS];
        end(client);
        kills++;
        client = in_child([&] { be_client(FRWK_MODULE_LOGTOOL, static_cast<unsigned int>(random())); });
        if (random() % 30 == 0 || (starvings == 0 && now_ms() - start > seconds * 300L)) {
            const double used = starve(module.pid, loop);
            most_used = std::max(most_used, used);
            starvings++;
        }
        if (early_rss == 0 && now_ms() - start > seconds * 400L) {
            early_rss = rss_kib(module.pid);
        }
    }
    const Size at_end = size_of(module.pid);
    const double took = static_cast<double>(now_ms() - start) / 1000;
    for (pid_t pid : clients) {
        end(pid);
    }
    for (pid_t pid : nuisances) {
        end(pid);
    }
    const bool calm = wait_until([&] {
        Size now = size_of(module.pid);
        return now.fds == at_rest.fds && now.threads == at_rest.threads && counts->handled >= counts->taken;
    });
    const Size after = size_of(module.pid);
    frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr);
    frwk_debug_enable(0);
    const int alive = frwk_ipc_msg_set(FRWK_MODULE_QMUXD, FRWK_MSG_SYS_PING, nullptr, 0, 1, nullptr);
    long refused = 0, starved = 0;
    for (const TraceLine &trace : parse_console(module.out())) {
        refused += contains(trace.msg, "handle thread too many");
        starved += contains(trace.msg, "errno=24");
    }
    Counts &c = *counts;
    printf(
        "%.0f s: %ld synchronous requests, %ld answered; %ld asynchronous, %ld taken, %ld handled (%.0f requests/s)\n"
        "%d clients killed; connections: %ld silent, %ld never read, %ld of garbage\n"
        "%ld requests lost, %ld refused for want of threads; %ld answered wrongly\n"
        "out of descriptors %d times: %ld failed accepts, the accept loop used at most %.1f%% of a core\n"
        "memory %ld KiB at rest, %ld early, %ld at the end, %ld after; descriptors %d, %d, %d; threads %d, %d, %d\n",
        took, c.asked.load(), c.answered.load(), c.sent.load(), c.taken.load(), c.handled.load(),
        static_cast<double>(c.answered + c.taken) / took, kills, c.silent.load(), c.unread.load(), c.garbage.load(),
        c.lost.load(), refused, c.wrong.load(), starvings, starved, most_used * 100, at_rest.rss, early_rss, at_end.rss,
        after.rss, at_rest.fds, at_end.fds, after.fds, at_rest.threads, at_end.threads, after.threads);
    expect(c.wrong == 0, "an answer or a result was wrong");
    expect(c.lost <= refused, "a request was lost that was not refused");
    expect(c.handled >= c.taken && c.handled <= c.sent, "an acknowledged request was not handled, or twice");
    expect(c.asked - c.answered <= kills + c.lost, "an unanswered request without a reason");
    expect(c.answered > seconds * 100 && c.taken > seconds * 50, "hardly any load");
    expect(starved > 0 && most_used < 0.1, "the accept loop spins without descriptors");
    expect(calm, "descriptors or threads were not given back");
    expect(after.rss <= early_rss + 1024, "memory has grown");
    expect(alive == FRWK_ERROR_SUCCESS, "the module does not answer afterwards");
    return failures > 0;
}
