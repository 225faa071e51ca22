/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * settings: says what is stored of two modules, and then becomes both of them: each changes settings of its own in both
 * files without end. A line on the standard output tells what is set before each call, and what is stored after it.
 */
#include <frwk.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static const uint32_t s_modules[] = {FRWK_MODULE_MBIMD, FRWK_MODULE_QTI};
static int s_report;

/* One write, which returns when the line has left the device. */
static void report(uint32_t id, const char *verb, const char *setting, const char *value)
{
    char line[128];
    int len = snprintf(line, sizeof line, "%s %s %s %s\n", frwk_module_name(id), verb, setting, value);
    if (write(s_report, line, (size_t)len) != len) {
        exit(1);
    }
}

/* Becomes the module without its service, and says what it finds. */
static void read_settings(uint32_t id)
{
    char mode[16];
    g_s_modules_info[id].flags &= ~FRWK_MODULE_FLAG_IPC;
    if (frwk_module_init(id, NULL) != FRWK_ERROR_SUCCESS) {
        exit(1);
    }
    snprintf(mode, sizeof mode, "%d", frwk_get_module_debug_mode());
    report(id, "has", "mode", mode);
    frwk_init_app_start_cfg();
    const char *args = g_s_modules_info[id].start_cmd;
    report(id, "has", "args", args != NULL ? args : "");
}

static void change_settings(uint32_t id)
{
    if (frwk_module_init(id, NULL) != FRWK_ERROR_SUCCESS) {
        exit(1);
    }
    for (int i = 1;; i++) {
        char value[16];
        snprintf(value, sizeof value, "%d", i);
        report(id, "set", "mode", value);
        if (frwk_set_trace_info(id, i, "error") != FRWK_ERROR_SUCCESS) {
            exit(1);
        }
        report(id, "has", "mode", value);
        report(id, "set", "args", value);
        if (frwk_set_app_start_cmd(id, value) != FRWK_ERROR_SUCCESS) {
            exit(1);
        }
        report(id, "has", "args", value);
    }
}

static void in_children(void (*body)(uint32_t id))
{
    for (size_t i = 0; i < sizeof s_modules / sizeof *s_modules; i++) {
        if (fork() == 0) {
            body(s_modules[i]);
            exit(0);
        }
    }
    int status = 0;
    while (wait(&status) > 0) {
        if (status != 0) {
            report(FRWK_MODULE_MONITOR_TOOL, "failed", "", "");
        }
    }
}

int main(void)
{
    s_report = dup(STDOUT_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO); /* what the modules trace */
    in_children(read_settings);
    report(FRWK_MODULE_MONITOR_TOOL, "begins", "", "");
    in_children(change_settings);
    return 1;
}
