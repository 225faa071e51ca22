/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * logtool: what the modules trace. Lists and changes their settings, and follows what they write into the system log.
 */
#include "device.h"
#include "json.h"
#include "options.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

enum { DEADLINE = 1000, FOLLOW_PERIOD = 200 }; /* milliseconds */

static bool s_json;

static const char LOG_CONF[] = "/usrdata/odm/log_conf.xml";

/* The level of that name. Unlike frwk_level_match(), it prints nothing on standard output about an unknown one. */
static int level_arg(const char *name)
{
    static const char *const KNOWN[] = {"null", "error", "warning", "info", "debug"};
    for (const char *known : KNOWN) {
        if (strcasecmp(name, known) == 0) {
            return frwk_level_match(known);
        }
    }
    device_fail(DEVICE_EXIT_USAGE, "unknown level '%s': null, error, warning, info or debug", name);
}

static bool has_settings(uint32_t id)
{
    return (g_s_modules_info[id].flags & FRWK_MODULE_FLAG_SYSLOG) != 0;
}

static const char *text_below(frwk_xml_node_t *section, const char *name)
{
    frwk_xml_node_t *node = section != nullptr ? frwk_xml_get_child_node(section, name) : nullptr;
    return node != nullptr && node->value != nullptr ? node->value : "-";
}

static frwk_xml_doc_t *stored_settings()
{
    frwk_xml_doc_t *doc = nullptr;
    if (access(LOG_CONF, F_OK) == 0) {
        doc = frwk_xml_file_parse(LOG_CONF);
        if (doc == nullptr) {
            device_fail(DEVICE_EXIT_FAILURE, "%s cannot be read", LOG_CONF);
        }
    }
    return doc;
}

/* What is stored for a module, "-" for nothing, and what it answers. */
struct settings_t {
    const char *name;
    const char *mode;
    const char *level;
    const char *running; /* "yes", "no", or why it does not answer */
    int rc;              /* of the request for its status */
    uint32_t status;
};

static void show_row(const settings_t *row)
{
    printf("%-14s %-5s %-8s %s\n", row->name, row->mode, row->level, row->running);
}

/* No message asks a module for its mode and level, and nothing of them is guessed. */
static void show_row_beside_live(const settings_t *row)
{
    bool live = row->rc == FRWK_ERROR_SUCCESS;
    bool dead = row->rc == FRWK_ERROR_NO_MODULE;
    char status[16] = "-";
    if (live) {
        snprintf(status, sizeof status, "0x%08x", row->status);
    }
    printf("%-14s %-5s %-8s %-10s  %-10s  %-10s  %s\n", row->name, row->mode, row->level, status,
           dead ? "-" : "not told", dead ? "-" : "not told", row->running);
}

static void show_object(const settings_t *row)
{
    fputs("{\"module\": ", stdout);
    json_text(row->name);
    fputs(", \"stored\": {\"mode\": ", stdout);
    json_text(strcmp(row->mode, "-") != 0 ? row->mode : nullptr);
    fputs(", \"level\": ", stdout);
    json_text(strcmp(row->level, "-") != 0 ? row->level : nullptr);
    fputs("}, \"running\": ", stdout);
    json_text(row->running);
    fputs(", \"live\": {\"status\": ", stdout);
    row->rc == FRWK_ERROR_SUCCESS ? printf("%u", row->status) : printf("null");
    fputs(", \"mode\": null, \"level\": null}}", stdout); /* no module tells them */
}

static settings_t settings_of(uint32_t id, frwk_xml_node_t *root, bool with_status)
{
    settings_t row = {};
    row.name = frwk_module_name(id);
    frwk_xml_node_t *section = root != nullptr ? frwk_xml_get_child_node(root, row.name) : nullptr;
    row.mode = text_below(section, "mode");
    row.level = text_below(section, "level");
    row.rc = with_status ? device_request(id, FRWK_MSG_SYS_STATUS, nullptr, 0, &row.status, sizeof row.status, DEADLINE,
                                          nullptr)
                         : device_ping(id, DEADLINE); /* which leaves no trace in the module's log */
    row.running = row.rc == FRWK_ERROR_SUCCESS ? "yes" : row.rc == FRWK_ERROR_NO_MODULE ? "no" : device_error(row.rc);
    return row;
}

/* Shows every module that has settings, with a text before the first, between two, and behind the last. */
static int each_module(void (*show)(const settings_t *), bool with_status, const char *before, const char *between,
                       const char *behind)
{
    frwk_xml_doc_t *doc = stored_settings();
    frwk_xml_node_t *root = doc != nullptr ? frwk_xml_get_doc_root(doc) : nullptr;
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if (has_settings(id)) {
            settings_t row = settings_of(id, root, with_status);
            fputs(before, stdout);
            show(&row);
            before = between;
        }
    }
    fputs(behind, stdout);
    frwk_xml_free_doc(doc);
    return 0;
}

static int show_json()
{
    return each_module(show_object, true, "[", ",\n ", "]\n");
}

static int show_stored(int, char **)
{
    return s_json ? show_json() : each_module(show_row, false, "module         mode  level    running\n", "", "");
}

static int list(int, char **)
{
    return s_json ? show_json()
                  : each_module(show_row_beside_live, true,
                                "module         mode  level    status      live mode   live level  running\n", "", "");
}

/* What is stored holds from the module's next start on; a running one is told by a message. */
static int tell_module(uint32_t id, int mode, int level)
{
    int32_t settings[2] = {mode, level};
    int rc = device_request(id, FRWK_MSG_SYS_LOG, settings, sizeof settings, nullptr, 0, DEADLINE, nullptr);
    if (rc != FRWK_ERROR_SUCCESS && rc != FRWK_ERROR_NO_MODULE) {
        fprintf(stderr, "logtool: %s %s: stored for its next start\n", frwk_module_name(id), device_error(rc));
        return 1;
    }
    printf("%s: %s\n", frwk_module_name(id), rc == FRWK_ERROR_SUCCESS ? "changed" : "stored for its next start");
    return 0;
}

static int set(int, char **argv)
{
    const char *module = argv[0];
    const char *level_text = argv[2];
    bool all = strcmp(module, "all") == 0;
    uint32_t id = all ? uint32_t{FRWK_MODULE_MAX} : device_module_arg(module);
    int mode = static_cast<int>(device_number_arg("mode", argv[1], 0, 3));
    int level = level_arg(level_text);
    if (!all && !has_settings(id)) {
        device_fail(DEVICE_EXIT_USAGE, "%s is a tool: it has no trace settings", module);
    }
    int rc = all ? frwk_all_set_trace_info(mode, level_text) : frwk_set_trace_info(id, mode, level_text);
    if (rc != FRWK_ERROR_SUCCESS) {
        device_fail(DEVICE_EXIT_FAILURE, "%s cannot be changed, result %d", LOG_CONF, rc);
    }
    int status = 0;
    for (uint32_t each = 1; each < FRWK_MODULE_MAX; each++) {
        if (each == id || (all && has_settings(each))) {
            status |= tell_module(each, mode, level);
        }
    }
    return status;
}

/* What `follow` shows: by default every module's lines of every level. */
static bool s_only[FRWK_MODULE_MAX];
static bool s_some;
static int s_threshold = FRWK_TRACE_DEBUG;
static enum { COLOUR_AUTO, COLOUR_ALWAYS, COLOUR_NEVER } s_colour;

/* What a line of the system log tells: "... qmuxd[17]: error|...". */
struct trace_line_t {
    uint32_t id; /* FRWK_MODULE_MAX when no module wrote it */
    int level;   /* FRWK_TRACE_NULL for one without a level, which is always shown */
    const char *colour;
};

static uint32_t module_of(char *line, char *text)
{
    char *bracket =
        text != nullptr ? static_cast<char *>(memrchr(line, '[', static_cast<size_t>(text - line))) : nullptr;
    if (bracket == nullptr) {
        return FRWK_MODULE_MAX;
    }
    char *name = bracket;
    while (name > line && name[-1] != ' ') {
        name--;
    }
    *bracket = '\0';
    uint32_t id = frwk_module_id(name);
    *bracket = '[';
    return id;
}

static trace_line_t read_line(char *line)
{
    static const struct {
        const char *begin;
        int level;
        const char *colour;
    } LEVELS[] = {{"error|", FRWK_TRACE_ERROR, "\033[31m"},
                  {"warning|", FRWK_TRACE_WARNING, "\033[33m"},
                  {"info|", FRWK_TRACE_INFO, ""},
                  {"debug|", FRWK_TRACE_DEBUG, "\033[2m"},
                  {"[", FRWK_TRACE_NULL, "\033[1;31m"}}; /* an assertion */
    char *text = strstr(line, "]: ");
    trace_line_t read = {module_of(line, text), FRWK_TRACE_NULL, ""};
    for (const auto &level : LEVELS) {
        if (text != nullptr && strncmp(text + 3, level.begin, strlen(level.begin)) == 0) {
            read.level = level.level;
            read.colour = level.colour;
        }
    }
    return read;
}

static void show_line(char *line, bool coloured)
{
    trace_line_t read = read_line(line);
    if (read.id == FRWK_MODULE_MAX || (s_some && !s_only[read.id]) || read.level > s_threshold) {
        return;
    }
    bool paint = coloured && read.colour[0] != '\0';
    printf("%s%s%s\n", paint ? read.colour : "", line, paint ? "\033[0m" : "");
    device_flush(); /* ends it when nobody reads any more */
}

struct tail_t {
    const char *path;
    int fd;
    bool coloured;
    size_t len;
    char text[8192]; /* the begin of a line; a longer one is shown in pieces */
};

/* Whether the log was rotated or emptied since it was opened and read to its end. */
static bool is_replaced(const tail_t *tail)
{
    struct stat named;
    struct stat opened;
    return stat(tail->path, &named) == 0 && fstat(tail->fd, &opened) == 0 &&
           (named.st_ino != opened.st_ino || named.st_dev != opened.st_dev ||
            opened.st_size < lseek(tail->fd, 0, SEEK_CUR));
}

/* Shows the lines that have come. @return false when there was nothing new */
static bool show_new(tail_t *tail)
{
    ssize_t n = read(tail->fd, tail->text + tail->len, sizeof tail->text - 1 - tail->len);
    if (n < 0) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot read %s: %s", tail->path, strerror(errno));
    }
    tail->len += static_cast<size_t>(n);
    tail->text[tail->len] = '\0';
    char *start = tail->text;
    char *stop = tail->text + tail->len;
    for (char *end; (end = static_cast<char *>(memchr(start, '\n', static_cast<size_t>(stop - start)))) != nullptr;
         start = end + 1) {
        *end = '\0';
        show_line(start, tail->coloured);
    }
    if (start == tail->text && tail->len == sizeof tail->text - 1) {
        show_line(start, tail->coloured);
        start = stop;
    }
    tail->len = static_cast<size_t>(stop - start);
    memmove(tail->text, start, tail->len);
    return n > 0;
}

static bool open_anew(tail_t *tail)
{
    int fd = open(tail->path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        close(tail->fd);
        tail->fd = fd;
        tail->len = 0;
    }
    return fd >= 0;
}

static int follow(int argc, char **argv)
{
    static tail_t tail;
    tail.path = argc > 0 ? argv[0] : "/var/log/messages";
    tail.coloured = s_colour == COLOUR_ALWAYS || (s_colour == COLOUR_AUTO && device_terminal());
    tail.fd = open(tail.path, O_RDONLY | O_CLOEXEC);
    if (tail.fd < 0 || lseek(tail.fd, 0, SEEK_END) < 0) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot follow %s: %s", tail.path, strerror(errno));
    }
    for (;;) {
        bool moved = show_new(&tail) || (is_replaced(&tail) && open_anew(&tail));
        if (!moved) {
            frwk_sleep(FOLLOW_PERIOD);
        }
    }
}

static void take_json(const char *)
{
    s_json = true;
}

static void take_module(const char *text)
{
    uint32_t id = device_module_arg(text);
    if (!has_settings(id)) {
        device_fail(DEVICE_EXIT_USAGE, "%s is a tool: it writes nothing into the system log", text);
    }
    s_only[id] = true;
    s_some = true;
}

static void take_level(const char *text)
{
    s_threshold = level_arg(text);
}

static void take_color(const char *text)
{
    if (strcmp(text, "auto") == 0) {
        s_colour = COLOUR_AUTO;
    } else if (strcmp(text, "always") == 0) {
        s_colour = COLOUR_ALWAYS;
    } else if (strcmp(text, "never") == 0) {
        s_colour = COLOUR_NEVER;
    } else {
        device_fail(DEVICE_EXIT_USAGE, "'%s' is neither auto, always nor never", text);
    }
}

static const device_option_t LIST_OPTIONS[] = {
    {"json", 'j', nullptr, "prints an array of objects instead of a table", take_json},
    {},
};

static const device_option_t FOLLOW_OPTIONS[] = {
    {"module", 'm', "MODULE", "shows this module's lines only; given again, those of one more", take_module},
    {"level", 'l', "LEVEL", "shows lines up to this level, and what has none, such as a failed assertion", take_level},
    {"color", 0, "WHEN",
     "colours errors, warnings and debug lines; auto, the default, does on a terminal unless NO_COLOR is set",
     take_color},
    {},
};

static const device_command_t COMMANDS[] = {
    {"list", "",
     "shows what is stored for each module beside what it has: it is asked for its status word. No message asks for "
     "its "
     "live mode and level: these are what it found stored when it started, or was told since",
     0, 0, list, LIST_OPTIONS, false},
    {"set", "MODULE|all MODE LEVEL",
     "stores mode and level, and tells a running module, which takes them at once; fails when it does not answer", 3, 3,
     set, nullptr, false},
    {"follow", "[FILE]", "shows the modules' lines in the system log as they come, also once the log is rotated", 0, 1,
     follow, FOLLOW_OPTIONS, false},
    {},
};

static const device_note_t ARGUMENTS[] = {
    {"MODULE", nullptr},
    {"MODE", "one of 0, 1, 2, 3: no traces; to the system log (1 and 2); to the module's standard output"},
    {"LEVEL", "one of null, error, warning, info, debug; each includes those before it"},
    {"WHEN", "one of auto, always, never"},
    {"FILE", "the system log, by default /var/log/messages"},
    {},
};

static const device_note_t FILES[] = {
    {LOG_CONF, "the stored settings; a module reads them when it starts"},
    {},
};

static const device_note_t EXAMPLES[] = {
    {"logtool set all 1 warning", "lets every module write errors and warnings into the system log"},
    {"logtool follow -m qmuxd -m monitor -l info", "shows what these two write, without debug lines"},
    {"logtool list --json | jq -r '.[] | select(.running == \"yes\").module'", "names the modules that run"},
    {},
};

static const device_program_t LOGTOOL = {
    "lists, changes and follows what the modules trace",
    "Without a command, it lists the stored settings of every module.",
    FRWK_MODULE_LOGTOOL,
    COMMANDS,
    show_stored,
    LIST_OPTIONS,
    ARGUMENTS,
    FILES,
    EXAMPLES,
    "the settings or the log cannot be read or written, or a running module was not told",
};

int main(int argc, char **argv)
{
    return device_run(&LOGTOOL, argc, argv);
}
