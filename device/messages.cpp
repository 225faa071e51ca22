/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "messages.h"

#include "options.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { NAMES_MAX = 1024, NAME_SIZE = 32 };

struct name_t {
    uint32_t module; /* FRWK_MODULE_MAX for all */
    uint32_t msg;
    char name[NAME_SIZE];
};

static const name_t LIBRARY[] = {
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_CTRL0, "CTRL0"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_CTRL1, "CTRL1"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_CTRL2, "CTRL2"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_LOG, "LOG"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_STATUS, "STATUS"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_PING, "PING"},
    {FRWK_MODULE_MAX, FRWK_MSG_SYS_NOP, "NOP"},
    {FRWK_MODULE_MONITOR, FRWK_MSG_SYS_REBOOT, "REBOOT"},
    {FRWK_MODULE_MONITOR, FRWK_MSG_SYS_RESET, "RESET"},
    {FRWK_MODULE_MONITOR, FRWK_MSG_SYS_MONITOR_CONF, "MONITOR_CONF"},
};

static name_t s_names[NAMES_MAX];
static int s_count;

const char *message_module(uint32_t id)
{
    const char *name = id > 0 && id < FRWK_MODULE_MAX ? frwk_module_name(id) : nullptr;
    return name != nullptr ? name : "?";
}

static const char *find_name(const name_t *names, int count, uint32_t module, uint32_t msg)
{
    for (int i = 0; i < count; i++) {
        if (names[i].msg == msg && names[i].module == module) {
            return names[i].name;
        }
    }
    return nullptr;
}

const char *message_name(uint32_t module, uint32_t msg)
{
    const uint32_t any = FRWK_MODULE_MAX;
    const int library = sizeof LIBRARY / sizeof *LIBRARY;
    const char *name = find_name(s_names, s_count, module, msg);
    name = name != nullptr ? name : find_name(s_names, s_count, any, msg);
    name = name != nullptr ? name : find_name(LIBRARY, library, module, msg);
    return name != nullptr ? name : find_name(LIBRARY, library, any, msg);
}

const char *message_result(int32_t result)
{
    switch (result) {
    case FRWK_ERROR_SUCCESS:
        return "SUCCESS";
    case FRWK_ERROR_NO_MODULE:
        return "NO_MODULE";
    case FRWK_ERROR_FAILED:
        return "FAILED";
    case FRWK_ERROR_INVALID_PARAM:
        return "INVALID_PARAM";
    case FRWK_ERROR_CONFIG_FILE:
        return "CONFIG_FILE";
    case FRWK_ERROR_NO_MEMORY:
        return "NO_MEMORY";
    case FRWK_ERROR_NOT_FOUND:
        return "NOT_FOUND";
    case FRWK_ERROR_UNSUPPORTED:
        return "UNSUPPORTED";
    case FRWK_ERROR_SOCKET:
        return "SOCKET";
    case FRWK_ERROR_FILE_CREATE:
        return "FILE_CREATE";
    case FRWK_ERROR_NO_HANDLER:
        return "NO_HANDLER";
    case FRWK_ERROR_THREAD:
        return "THREAD";
    case FRWK_ERROR_ASYNC:
        return "ASYNC";
    case FRWK_ERROR_SEND:
        return "SEND";
    case FRWK_ERROR_RECV:
        return "RECV";
    default:
        return nullptr;
    }
}

/* What is wrong with a line; null when it is right. */
static const char *read_line(char *line)
{
    char *rest = nullptr;
    line[strcspn(line, "#\r\n")] = '\0';
    const char *module = strtok_r(line, " \t", &rest);
    const char *number = module != nullptr ? strtok_r(nullptr, " \t", &rest) : nullptr;
    const char *text = number != nullptr ? strtok_r(nullptr, " \t", &rest) : nullptr;
    if (module == nullptr) {
        return nullptr;
    }
    if (text == nullptr || strtok_r(nullptr, " \t", &rest) != nullptr) {
        return "a module, a number and a name are expected";
    }
    name_t name = {};
    name.module = strcmp(module, "*") == 0 ? uint32_t{FRWK_MODULE_MAX} : frwk_module_id(module);
    if (name.module == FRWK_MODULE_MAX && *module != '*') {
        return "unknown module";
    }
    char *end;
    errno = 0;
    unsigned long msg = strtoul(number, &end, 0);
    if (!isdigit(static_cast<unsigned char>(*number)) || *end != '\0' || errno != 0 || msg > UINT32_MAX) {
        return "this is no number of a message";
    }
    name.msg = static_cast<uint32_t>(msg);
    if (strlen(text) >= sizeof name.name) {
        return "the name is too long";
    }
    for (const char *at = text; *at != '\0'; at++) {
        if (!isgraph(static_cast<unsigned char>(*at))) {
            return "a name has printable ASCII characters only";
        }
    }
    if (s_count == NAMES_MAX) {
        return "too many names";
    }
    snprintf(name.name, sizeof name.name, "%s", text);
    s_names[s_count++] = name;
    return nullptr;
}

void message_read_names(const char *path)
{
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot read %s: %s", path, strerror(errno));
    }
    char line[256];
    /* cppcheck-suppress nullPointerRedundantCheck ; device_fail() does not return */
    for (int number = 1; fgets(line, sizeof line, file) != nullptr; number++) {
        bool whole = strchr(line, '\n') != nullptr || feof(file);
        const char *fault = whole ? read_line(line) : "the line is too long";
        if (fault != nullptr) {
            device_fail(DEVICE_EXIT_FAILURE, "%s, line %d: %s", path, number, fault);
        }
    }
    if (ferror(file)) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot read %s: %s", path, strerror(errno));
    }
    fclose(file);
}
