/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The commands: each asks other modules in one of the ways there are, and answers in lines.
 */
#include "at_commands.h"

#include "demo.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

enum { TIMEOUT = 3 };      /* seconds that a module may take to be ready for requests */
enum { BAD_COMMAND = -1 }; /* result of a line that is no command, or has a wrong argument */

static int figures_of_machine(figures_t *figures)
{
    int32_t result = 0;
    int rc = frwk_ipc_msg_get(FRWK_MODULE_QMUXD, QMUX_MSG_FIGURES, figures, sizeof *figures, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

static int nothing(const char *)
{
    return FRWK_ERROR_SUCCESS;
}

static int identify(const char *)
{
    at_say("libfrwk example device, module %d", frwk_get_module_id());
    return FRWK_ERROR_SUCCESS;
}

static int tell_clock(const char *)
{
    frwk_systime_t now;
    frwk_get_systime(&now);
    at_say("+CCLK: \"%02d/%02d/%02d,%02d:%02d:%02d\"", now.year % 100, now.mon, now.mday, now.hour, now.min, now.sec);
    return FRWK_ERROR_SUCCESS;
}

static int tell_load(const char *)
{
    figures_t figures;
    int rc = figures_of_machine(&figures);
    if (rc == FRWK_ERROR_SUCCESS) {
        at_say("+LOAD: %u.%02u", figures.load / 100, figures.load % 100);
    }
    return rc;
}

static int tell_memory(const char *)
{
    figures_t figures;
    int rc = figures_of_machine(&figures);
    if (rc == FRWK_ERROR_SUCCESS) {
        at_say("+MEM: %u,%u", figures.mem_total, figures.mem_available);
    }
    return rc;
}

/* Asynchronous: qmuxd takes the request, and "+MEASURED: ..." follows when it has the figures. */
static int measure(const char *)
{
    int rc = frwk_ipc_send_async(FRWK_MODULE_QMUXD, QMUX_MSG_MEASURE, nullptr, 0, TIMEOUT);
    return rc == FRWK_ERROR_ASYNC ? FRWK_ERROR_SUCCESS : rc;
}

static int sample_now(const char *)
{
    int rc = frwk_ipc_msg_notify(FRWK_MODULE_QMUXD, FRWK_MSG_SYS_CTRL0, nullptr, 0);
    return rc == FRWK_ERROR_ASYNC ? FRWK_ERROR_SUCCESS : rc;
}

static int set_period(const char *arg)
{
    int32_t result = 0;
    int32_t period = atoi(arg);
    int rc = frwk_ipc_msg_set(FRWK_MODULE_QMUXD, QMUX_MSG_PERIOD, &period, sizeof period, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

static int report(const char *)
{
    frwk_ipc_msg_broadcast(DEMO_MSG_REPORT); /* to the supervised modules */
    return FRWK_ERROR_SUCCESS;
}

static int mark(const char *arg)
{
    frwk_ipc_msg_broadcast_data(DEMO_MSG_MARK, arg, static_cast<int32_t>(strlen(arg))); /* to all */
    return FRWK_ERROR_SUCCESS;
}

static int tell_status(const char *arg)
{
    uint32_t id = frwk_module_id(arg);
    if (id == FRWK_MODULE_MAX) {
        return BAD_COMMAND;
    }
    uint32_t status = frwk_get_module_status(id);
    if (status == 0) { /* or the module could not be asked */
        int rc = frwk_ipc_msg_get(id, FRWK_MSG_SYS_PING, nullptr, 0, TIMEOUT, nullptr);
        if (rc != FRWK_ERROR_SUCCESS) {
            return rc;
        }
    }
    at_say("+STATUS: %s,%u", arg, status);
    return FRWK_ERROR_SUCCESS;
}

/* MODULE,MODE,LEVEL: until the module's next start; logtool changes what is stored as well. */
static int set_trace(const char *arg)
{
    char name[32];
    char mode[8];
    const char *level = strrchr(arg, ',');
    if (!frwk_str_pick(arg, nullptr, ",", name, sizeof name) || !frwk_str_pick(arg, ",", ",", mode, sizeof mode) ||
        frwk_module_id(name) == FRWK_MODULE_MAX || frwk_level_match(level + 1) < 0) {
        return BAD_COMMAND;
    }
    int32_t result = 0;
    int32_t settings[2] = {atoi(mode), frwk_level_match(level + 1)};
    int rc = frwk_ipc_msg_set(frwk_module_id(name), FRWK_MSG_SYS_LOG, settings, sizeof settings, TIMEOUT, &result);
    return rc != FRWK_ERROR_SUCCESS ? rc : result;
}

/* A name that ends in '=' is followed by an argument. */
static const struct {
    const char *name;
    int (*run)(const char *arg);
} COMMANDS[] = {
    {"AT", nothing},          {"ATI", identify},       {"AT+CCLK?", tell_clock},    {"AT+LOAD?", tell_load},
    {"AT+MEM?", tell_memory}, {"AT+MEASURE", measure}, {"AT+SAMPLE", sample_now},   {"AT+PERIOD=", set_period},
    {"AT+REPORT", report},    {"AT+MARK=", mark},      {"AT+STATUS=", tell_status}, {"AT+TRACE=", set_trace},
};

void at_run(const char *line)
{
    int rc = BAD_COMMAND;
    for (const auto &command : COMMANDS) {
        size_t len = strlen(command.name);
        bool with_arg = command.name[len - 1] == '=';
        if (strncasecmp(line, command.name, len) == 0 && (with_arg ? line[len] != '\0' : line[len] == '\0')) {
            rc = command.run(line + len);
        }
    }
    if (rc == FRWK_ERROR_SUCCESS) {
        at_say("OK");
    } else if (rc == BAD_COMMAND) {
        at_say("ERROR");
    } else {
        at_say("+CME ERROR: %d", rc);
    }
}
