/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * qmuxd: knows how the machine is. A timer has it look into /proc at even intervals; the submodule that does so owns
 * all that changes from one look to the next, and publishes the figures for the handler, which answers at once.
 *
 * Status word: bit 0 the figures are there, bit 1 less than a tenth of the memory is available.
 */
#include "demo.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

enum { STATUS_READY = 1, STATUS_MEMORY_LOW = 2 };
enum { PERIOD_MIN = 500, PERIOD_DEFAULT = 1000, PERIOD_MAX = 60000 }; /* milliseconds */
enum { SUBMODULE_FIGURES = 0 };
enum { FIGURES_SAMPLE, FIGURES_MEASURE, FIGURES_REPORT }; /* what the submodule is told */

static const char PERIOD_FILE[] = "/usrdata/odm/qmuxd_period";

static std::atomic<int> s_period{PERIOD_DEFAULT};
static pthread_mutex_t s_lock; /* guards s_figures */
static figures_t s_figures;

/* The submodule's own. */
static frwk_list_t s_waiting; /* FIGURES_MEASURE messages whose senders wait for the next sample */
static unsigned long long s_ticks_all;
static unsigned long long s_ticks_idle;

static void read_text(const char *path, char *text, size_t size)
{
    text[0] = '\0';
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        FRWK_ERR("cannot open %s", path);
        return;
    }
    text[fread(text, 1, size - 1, file)] = '\0';
    fclose(file);
}

static uint32_t pick_number(const char *text, const char *start, const char *end)
{
    char number[32];
    return frwk_str_pick(text, start, end, number, sizeof number) ? static_cast<uint32_t>(strtoul(number, nullptr, 10))
                                                                  : 0;
}

/* Hundredths of a percent of the processor time since the last look. */
static uint32_t busy_since_last(const char *stat)
{
    unsigned long long ticks[8] = {}; /* user, nice, system, idle, waiting for disks, three more */
    sscanf(stat, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &ticks[0], &ticks[1], &ticks[2], &ticks[3], &ticks[4],
           &ticks[5], &ticks[6], &ticks[7]);
    unsigned long long all = 0;
    for (unsigned long long tick : ticks) {
        all += tick;
    }
    unsigned long long idle = ticks[3] + ticks[4];
    unsigned long long passed = all - s_ticks_all;
    unsigned long long rested = idle - s_ticks_idle;
    s_ticks_all = all;
    s_ticks_idle = idle;
    return passed > 0 && rested <= passed ? static_cast<uint32_t>((passed - rested) * 10000 / passed) : 0;
}

static void sample()
{
    char text[4096];
    figures_t figures = {};
    read_text("/proc/uptime", text, sizeof text);
    figures.uptime = pick_number(text, nullptr, ".");
    read_text("/proc/loadavg", text, sizeof text);
    figures.load = pick_number(text, nullptr, ".") * 100 + pick_number(text, ".", " ");
    read_text("/proc/meminfo", text, sizeof text);
    figures.mem_total = pick_number(text, "MemTotal:", "kB");
    figures.mem_available = pick_number(text, "MemAvailable:", "kB");
    read_text("/proc/stat", text, sizeof text);
    figures.busy = busy_since_last(text);

    frwk_mutex_lock(&s_lock);
    figures.samples = s_figures.samples + 1;
    s_figures = figures;
    frwk_mutex_unlock(&s_lock);
    frwk_set_module_status(STATUS_READY |
                           (figures.mem_available < figures.mem_total / 10 ? uint32_t{STATUS_MEMORY_LOW} : 0u));
    FRWK_DBG("sample %u taken", figures.samples);
}

static figures_t current()
{
    frwk_mutex_lock(&s_lock);
    figures_t figures = s_figures;
    frwk_mutex_unlock(&s_lock);
    return figures;
}

static void answer_waiting()
{
    figures_t figures = current();
    frwk_list_for_each_safe (node, &s_waiting) {
        frwk_submodule_msg_t *msg = frwk_list_entry(node, frwk_submodule_msg_t, node);
        frwk_list_del(node);
        frwk_ipc_msg_notify(msg->from, DEMO_MSG_MEASURED, &figures, sizeof figures);
        free(msg);
    }
}

/* The submodule: one message at a time, each now its own. */
static void on_message(frwk_submodule_msg_t *msg)
{
    if (msg->msg == FIGURES_MEASURE) {
        frwk_list_add(&s_waiting, &msg->node); /* kept until the next sample */
        return;
    }
    if (msg->msg == FIGURES_SAMPLE) {
        sample();
        answer_waiting();
    } else {
        figures_t figures = current();
        FRWK_INFO("report: %u samples, load %u.%02u, %u KiB available", figures.samples, figures.load / 100,
                  figures.load % 100, figures.mem_available);
    }
    free(msg);
}

/* All timers of a process share one thread: no work here, only the order for it. */
static void on_timer(int timer_num, void *)
{
    frwk_submodule_send(SUBMODULE_FIGURES, SUBMODULE_FIGURES, FIGURES_SAMPLE, nullptr, 0);
    frwk_timer_cb_start(timer_num, on_timer, nullptr, s_period);
}

static int32_t set_period(const uint8_t *req, int32_t req_len)
{
    int32_t period;
    if (req == nullptr || req_len != sizeof period) {
        return FRWK_ERROR_INVALID_PARAM;
    }
    memcpy(&period, req, sizeof period);
    if (period < PERIOD_MIN || period > PERIOD_MAX) {
        return FRWK_ERROR_INVALID_PARAM;
    }
    char text[16];
    int len = snprintf(text, sizeof text, "%d", period);
    s_period = period;
    return frwk_set_file_value(PERIOD_FILE, text, len) == 0 ? FRWK_ERROR_SUCCESS : FRWK_ERROR_FILE_CREATE;
}

static void load_period()
{
    char text[16] = {};
    if (frwk_get_file_value(PERIOD_FILE, text, sizeof text - 1) == 0) {
        int period = atoi(text);
        s_period = period >= PERIOD_MIN && period <= PERIOD_MAX ? period : PERIOD_DEFAULT;
    }
}

static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t)
{
    figures_t figures = current();
    switch (msg) {
    case QMUX_MSG_FIGURES:
        if (rsp_size < static_cast<int32_t>(sizeof figures)) {
            return FRWK_ERROR_INVALID_PARAM;
        }
        memcpy(rsp, &figures, sizeof figures);
        return FRWK_ERROR_SUCCESS;
    case QMUX_MSG_PERIOD:
        return set_period(req, req_len);
    case QMUX_MSG_MEASURE:
        return frwk_submodule_send(from, SUBMODULE_FIGURES, FIGURES_MEASURE, nullptr, 0);
    case DEMO_MSG_REPORT:
        return frwk_submodule_send(from, SUBMODULE_FIGURES, FIGURES_REPORT, nullptr, 0);
    case DEMO_MSG_MARK:
        demo_mark(from, req, req_len);
        return FRWK_ERROR_SUCCESS;
    default:
        return FRWK_ERROR_UNSUPPORTED;
    }
}

/* The messages 0 to 2: a sample out of turn. */
static void on_control(uint32_t)
{
    frwk_submodule_send(SUBMODULE_FIGURES, SUBMODULE_FIGURES, FIGURES_SAMPLE, nullptr, 0);
}

int main()
{
    frwk_mutex_create(&s_lock);
    frwk_list_init(&s_waiting);
    if (frwk_module_init(FRWK_MODULE_QMUXD, on_control) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    load_period();
    frwk_submodule_create(SUBMODULE_FIGURES, on_message);
    if (frwk_timer_init(nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    on_timer(0, nullptr);
    frwk_ipc_init(handle);
    frwk_keep_running();
}
