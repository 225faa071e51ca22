/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * Load for the tests of `monitor_tool watch`: numbered requests, each with a content of its own, and a module that
 * counts how often it gets each.
 *
 *   watch_load serve FILE                  is dial_test; FILE has a byte for each request
 *   watch_load ask FILE FIRST COUNT THREADS [plain]
 *
 * `ask` sends the requests FIRST to FIRST + COUNT - 1 from several threads, every fifth asynchronously (none, and all
 * of them small, with `plain`), checks each answer, and prints what came of them as one JSON object.
 */
#include <frwk.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

enum { MSG_NUMBERED = FRWK_MSG_USER, BODY_MAX = 36520, ANSWER_MAX = 100000, THREADS_MAX = 20 };
enum { LAST_HANDLED = 60000, LOOK_PERIOD = 10 }; /* milliseconds */

static std::atomic<uint8_t> *s_seen;
static size_t s_size;
static std::atomic<uint32_t> s_next;
static std::atomic<uint32_t> s_failed;
static std::atomic<uint32_t> s_wrong;
static std::atomic<int> s_running;
static uint32_t s_end;
static bool s_plain;

static bool map_file(const char *path)
{
    int fd = open(path, O_RDWR | O_CLOEXEC);
    struct stat file;
    if (fd < 0 || fstat(fd, &file) != 0) {
        return false;
    }
    s_size = static_cast<size_t>(file.st_size);
    void *bytes = mmap(nullptr, s_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    s_seen = static_cast<std::atomic<uint8_t> *>(bytes);
    return bytes != MAP_FAILED;
}

static void fill(uint8_t *bytes, size_t len, uint32_t seed)
{
    for (size_t i = 0; i < len; i++) {
        seed = seed * 1664525u + 1013904223u;
        bytes[i] = static_cast<uint8_t>(seed >> 24);
    }
}

/* Sizes of all orders, small ones mostly, the largest that are certain to arrive among them. */
static size_t body_size(uint32_t number)
{
    return s_plain ? 32 : number % 97 == 0 ? size_t{BODY_MAX} : 4 + number * 7919u % (number % 11 == 0 ? 20000u : 300u);
}

static size_t answer_size(uint32_t number)
{
    return s_plain ? 32 : number % 89 == 0 ? size_t{ANSWER_MAX} : number * 104729u % (number % 13 == 0 ? 30000u : 500u);
}

/* --- the module ----------------------------------------------------------------------------------------------------
 */

static int32_t handle(uint32_t, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t)
{
    uint32_t number;
    if (msg != MSG_NUMBERED || req_len < static_cast<int32_t>(sizeof number)) {
        return FRWK_ERROR_UNSUPPORTED;
    }
    memcpy(&number, req, sizeof number);
    size_t len = static_cast<size_t>(req_len) - sizeof number;
    static thread_local uint8_t expected[BODY_MAX];
    fill(expected, len, number);
    if (number >= s_size || memcmp(req + sizeof number, expected, len) != 0) {
        return FRWK_ERROR_INVALID_PARAM;
    }
    s_seen[number]++;
    fill(rsp, static_cast<size_t>(rsp_size), ~number);
    return static_cast<int32_t>(1000 + number % 1000);
}

static int serve()
{
    if (frwk_module_init(FRWK_MODULE_DIAL_TEST, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    frwk_ipc_init(handle);
    frwk_keep_running();
    return 0;
}

/* --- its clients ---------------------------------------------------------------------------------------------------
 */

static void ask_once(uint32_t number, uint8_t *body, uint8_t *answer, uint8_t *expected)
{
    int32_t len = static_cast<int32_t>(body_size(number));
    int32_t room = static_cast<int32_t>(answer_size(number));
    memcpy(body, &number, sizeof number);
    fill(body + sizeof number, static_cast<size_t>(len) - sizeof number, number);
    if (!s_plain && number % 5 == 0) {
        s_failed += frwk_ipc_send_async(FRWK_MODULE_DIAL_TEST, MSG_NUMBERED, body, len, 10) != FRWK_ERROR_ASYNC;
        return;
    }
    int32_t result = -1;
    int rc = frwk_ipc_send_sync(FRWK_MODULE_DIAL_TEST, MSG_NUMBERED, body, len, answer, room, 10, &result);
    fill(expected, static_cast<size_t>(room), ~number);
    if (rc != FRWK_ERROR_SUCCESS) {
        s_failed++;
    } else if (result != static_cast<int32_t>(1000 + number % 1000) ||
               memcmp(answer, expected, static_cast<size_t>(room)) != 0) {
        s_wrong++;
    }
}

static void *ask_many(void *)
{
    uint8_t *room = static_cast<uint8_t *>(malloc(BODY_MAX + 2 * ANSWER_MAX));
    for (uint32_t number; room != nullptr && (number = s_next++) < s_end;) {
        ask_once(number, room, room + BODY_MAX, room + BODY_MAX + ANSWER_MAX);
    }
    free(room);
    s_running--;
    return nullptr;
}

static uint32_t count_seen(uint32_t first, bool more)
{
    uint32_t count = 0;
    for (uint32_t number = first; number < s_end; number++) {
        count += more ? s_seen[number] > 1 : s_seen[number] == 0;
    }
    return count;
}

static double now()
{
    timespec clock;
    clock_gettime(CLOCK_MONOTONIC, &clock);
    return static_cast<double>(clock.tv_sec) + static_cast<double>(clock.tv_nsec) / 1e9;
}

static int ask(uint32_t first, uint32_t count, int threads)
{
    if (frwk_module_init(FRWK_MODULE_MONITOR_TOOL, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    s_next = first;
    s_end = first + count;
    s_running = threads;
    double start = now();
    for (int i = 0; i < threads; i++) {
        if (frwk_thread_create(ask_many, nullptr) == FRWK_THREAD_INVALID) {
            return 1;
        }
    }
    while (s_running > 0) {
        frwk_sleep(1);
    }
    double took = now() - start;
    for (int waited = 0; count_seen(first, false) > s_failed && waited < LAST_HANDLED; waited += LOOK_PERIOD) {
        frwk_sleep(LOOK_PERIOD); /* asynchronous ones are handled later */
    }
    printf("{\"requests\": %u, \"failed\": %u, \"wrong\": %u, \"lost\": %u, \"doubled\": %u, \"per_second\": %.0f}\n",
           count, s_failed.load(), s_wrong.load(), count_seen(first, false), count_seen(first, true), count / took);
    return 0;
}

int main(int argc, char **argv)
{
    bool asks = argc >= 6 && strcmp(argv[1], "ask") == 0;
    bool serves = argc == 3 && strcmp(argv[1], "serve") == 0;
    if ((!asks && !serves) || !map_file(argv[2])) {
        fputs("watch_load: serve FILE | ask FILE FIRST COUNT THREADS [plain]\n", stderr);
        return 2;
    }
    if (serves) {
        return serve();
    }
    uint32_t first = static_cast<uint32_t>(strtoul(argv[3], nullptr, 10));
    uint32_t count = static_cast<uint32_t>(strtoul(argv[4], nullptr, 10));
    int threads = atoi(argv[5]);
    s_plain = argc > 6;
    if (threads < 1 || threads > THREADS_MAX || first + count > s_size) {
        return 2;
    }
    return ask(first, count, threads);
}
