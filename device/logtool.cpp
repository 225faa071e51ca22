/*
 * logtool: what the modules trace. Lists and changes their settings, and follows what they write into the system log.
 */
#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

enum { DEADLINE = 1000, FOLLOW_PERIOD = 200 }; /* milliseconds */

static const char USAGE[] =
    "usage: logtool                          lists the stored settings of every module\n"
    "       logtool set MODULE|all MODE LEVEL\n"
    "                                        changes them, and those of a running module at once\n"
    "       logtool follow [FILE]            shows the modules' lines in the system log as they\n"
    "                                        come (default /var/log/messages)\n"
    "MODE: 0 no traces, 1 or 2 to the system log, 3 to the module's standard output\n"
    "LEVEL: null, error, warning, info or debug; each includes those before it\n";

static const char LOG_CONF[] = "/usrdata/odm/log_conf.xml";

/* The level of that name; -1 for an unknown one. Unlike frwk_level_match(), it prints nothing. */
static int level_of(const char *name)
{
    static const char *const KNOWN[] = {"null", "error", "warning", "info", "debug"};
    for (const char *known : KNOWN) {
        if (strcasecmp(name, known) == 0) {
            return frwk_level_match(known);
        }
    }
    return -1;
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

static int list()
{
    frwk_xml_doc_t *doc = nullptr;
    if (access(LOG_CONF, F_OK) == 0) {
        doc = frwk_xml_file_parse(LOG_CONF);
        if (doc == nullptr) {
            device_fail(1, "%s cannot be read", LOG_CONF);
        }
    }
    frwk_xml_node_t *root = doc != nullptr ? frwk_xml_get_doc_root(doc) : nullptr;
    printf("%-14s %-5s %-8s %s\n", "module", "mode", "level", "running");
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        const char *name = frwk_module_name(id);
        if (has_settings(id)) {
            frwk_xml_node_t *section = root != nullptr ? frwk_xml_get_child_node(root, name) : nullptr;
            int rc = device_ping(id, DEADLINE);
            printf("%-14s %-5s %-8s %s\n", name, text_below(section, "mode"), text_below(section, "level"),
                   rc == FRWK_ERROR_SUCCESS     ? "yes"
                   : rc == FRWK_ERROR_NO_MODULE ? "no"
                                                : device_error(rc));
        }
    }
    frwk_xml_free_doc(doc);
    return 0;
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
    int level = level_of(level_text);
    if (level < 0) {
        device_fail(2, "unknown level '%s': null, error, warning, info or debug", level_text);
    }
    if (!all && !has_settings(id)) {
        device_fail(2, "%s is a tool: it has no trace settings", module);
    }
    int rc = all ? frwk_all_set_trace_info(mode, level_text) : frwk_set_trace_info(id, mode, level_text);
    if (rc != FRWK_ERROR_SUCCESS) {
        device_fail(1, "%s cannot be changed, result %d", LOG_CONF, rc);
    }
    int status = 0;
    for (uint32_t each = 1; each < FRWK_MODULE_MAX; each++) {
        if (each == id || (all && has_settings(each))) {
            status |= tell_module(each, mode, level);
        }
    }
    return status;
}

/* Colour of a level's lines on a terminal; null for a line that no module wrote. "... qmuxd[17]: error|..." */
static const char *colour_of(char *line)
{
    char *text = strstr(line, "]: ");
    char *bracket =
        text != nullptr ? static_cast<char *>(memrchr(line, '[', static_cast<size_t>(text - line))) : nullptr;
    if (bracket == nullptr) {
        return nullptr;
    }
    char *name = bracket;
    while (name > line && name[-1] != ' ') {
        name--;
    }
    *bracket = '\0';
    uint32_t id = frwk_module_id(name);
    *bracket = '[';
    if (id == FRWK_MODULE_MAX) {
        return nullptr;
    }
    static const char *const COLOURS[][2] = {
        {"error|", "\033[31m"}, {"warning|", "\033[33m"}, {"debug|", "\033[2m"}, {"[", "\033[1;31m"} /* an assertion */
    };
    for (const auto &colour : COLOURS) {
        if (strncmp(text + 3, colour[0], strlen(colour[0])) == 0) {
            return colour[1];
        }
    }
    return "";
}

static void show_line(char *line, bool coloured)
{
    const char *colour = colour_of(line);
    if (colour == nullptr) {
        return;
    }
    bool paint = coloured && colour[0] != '\0';
    printf("%s%s%s\n", paint ? colour : "", line, paint ? "\033[0m" : "");
    if (fflush(stdout) != 0) {
        device_fail(1, "cannot write: %s", strerror(errno)); /* nobody reads any more */
    }
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
        device_fail(1, "cannot read %s: %s", tail->path, strerror(errno));
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
    tail.coloured = isatty(STDOUT_FILENO);
    tail.fd = open(tail.path, O_RDONLY | O_CLOEXEC);
    if (tail.fd < 0 || lseek(tail.fd, 0, SEEK_END) < 0) {
        device_fail(1, "cannot follow %s: %s", tail.path, strerror(errno));
    }
    for (;;) {
        bool moved = show_new(&tail) || (is_replaced(&tail) && open_anew(&tail));
        if (!moved) {
            frwk_sleep(FOLLOW_PERIOD);
        }
    }
}

static const device_command_t COMMANDS[] = {
    {"set", 3, 3, set},
    {"follow", 0, 1, follow},
};

int main(int argc, char **argv)
{
    if (frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    return argc == 1 ? list() : device_run(COMMANDS, sizeof COMMANDS / sizeof *COMMANDS, USAGE, argc, argv);
}
