/*
 * What the two configuration files share: the directory and its lock, reading, finding and adding elements, saving,
 * and the recovery of a save that was cut off.
 */
#include "frwk_common_conf.h"

#include "frwk_bounded.h"
#include "frwk_common_module.h"
#include "frwk_start_conf.h"
#include "frwk_timer.h"
#include "frwk_xml_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#define CONF_DIR "/usrdata/odm"

enum { TEXT_SIZE = 256, LOCK_WAIT_MS = 3000, LOCK_POLL_US = 1000, LOOKS = 2, FILE_MODE = 0666 };

static void make_directory()
{
    if (access(CONF_DIR, F_OK) != 0) {
        char command[TEXT_SIZE];
        sprintf_s(command, sizeof command, "mkdir %s", CONF_DIR);
        frwk_system(command);
    }
}

/* The lock is the directory's own, so that no file has to be made for it, and ends with the process. */
static int lock_directory(const frwk_conf_site_t &site)
{
    int fd = open(CONF_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1; /* the save will say so */
    }
    frwk_uptime_t deadline;
    frwk_simple_timer_start(&deadline, LOCK_WAIT_MS);
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && (errno != EWOULDBLOCK || frwk_simple_timer_timeout(&deadline))) {
            frwk_trace_print(site.file, site.func, site.line, FRWK_TRACE_WARNING, "no lock on '%s', errno=%d", CONF_DIR,
                             errno);
            break;
        }
        usleep(LOCK_POLL_US);
    }
    return fd;
}

/* The file when it is whole: when its root element was closed. */
static frwk_conf_doc_ptr read_whole(const frwk_conf_t &conf)
{
    bool whole;
    frwk_conf_doc_ptr doc(frwk_xml_file_parse_quiet(conf.path, &whole));
    return whole ? std::move(doc) : nullptr;
}

/*
 * The settings on disk when a whole file or a backup holds them, read without a message; null otherwise.
 *
 * A save moves the file aside as the backup, writes it anew, and removes the backup. Cut off, it leaves a file that is
 * missing or a piece, which may well parse, and the old settings as the backup; or the new file whole and the backup
 * still there. So a whole file is always right, and otherwise the backup is, if it parses.
 */
static frwk_conf_doc_ptr find_settings(const frwk_conf_t &conf, bool *from_backup)
{
    *from_backup = false;
    frwk_conf_doc_ptr doc = read_whole(conf);
    if (doc != nullptr) {
        return doc;
    }
    bool whole;
    frwk_conf_doc_ptr backup(frwk_xml_file_parse_quiet(conf.backup, &whole));
    if (backup != nullptr) {
        doc = read_whole(conf); /* a moment's lack of memory must not bring back what was replaced */
        *from_backup = doc == nullptr;
    }
    return *from_backup ? std::move(backup) : std::move(doc);
}

static void recover(const frwk_conf_t &conf)
{
    bool from_backup;
    if (find_settings(conf, &from_backup) != nullptr && from_backup) {
        rename(conf.backup, conf.path);
    }
}

frwk_conf_writer::frwk_conf_writer(const frwk_conf_t &conf, const frwk_conf_site_t &site)
    : lock_((make_directory(), lock_directory(site)))
{
    recover(conf);
}

frwk_conf_writer::~frwk_conf_writer()
{
    if (lock_.get() >= 0) {
        flock(lock_.get(), LOCK_UN); /* closing would not do while a child forked meanwhile has the descriptor too */
    }
}

bool frwk_conf_exists(const frwk_conf_t &conf)
{
    return access(conf.path, F_OK) == 0;
}

/* Takes the root element of a document that was read, or reports that there is none. */
static frwk_conf_doc_ptr with_root(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_conf_doc_ptr doc,
                                   frwk_xml_node_t **root)
{
    if (doc == nullptr) {
        FRWK_CONF_ERR(site, "parse '%s' failed.", conf.path);
        return nullptr;
    }
    *root = frwk_xml_get_doc_root(doc.get());
    if (*root == nullptr) {
        FRWK_CONF_ERR(site, "document '%s' is null!", conf.path);
        return nullptr;
    }
    return doc;
}

frwk_conf_doc_ptr frwk_conf_open(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t **root)
{
    return with_root(conf, site, frwk_conf_doc_ptr(frwk_xml_file_parse(conf.path)), root);
}

frwk_conf_doc_ptr frwk_conf_read(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t **root,
                                 bool *present)
{
    cancel_guard uncancelled;
    *present = true;
    /* Another process may be saving: when its backup is gone by the time we look for it, the file is whole again. */
    for (int i = 0; i < LOOKS; i++) {
        bool from_backup;
        frwk_conf_doc_ptr doc = find_settings(conf, &from_backup);
        if (doc != nullptr) {
            return with_root(conf, site, std::move(doc), root);
        }
    }
    *present = frwk_conf_exists(conf);
    return *present ? frwk_conf_open(conf, site, root) : nullptr;
}

frwk_xml_node_t *frwk_conf_find(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t *root,
                                const char *module)
{
    frwk_xml_node_t *element = frwk_xml_get_child_node(root, module);
    if (element == nullptr) {
        FRWK_CONF_ERR(site, "get %s from '%s' failed", module, conf.path);
    }
    return element;
}

frwk_xml_node_t *frwk_conf_find_or_add(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t *root,
                                       const char *module, const char *end)
{
    frwk_xml_node_t *element = frwk_conf_find(conf, site, root, module);
    if (element != nullptr || !frwk_conf_set(site, root, module, nullptr, end)) {
        return element;
    }
    return frwk_xml_get_child_node(root, module);
}

bool frwk_conf_set(const frwk_conf_site_t &site, frwk_xml_node_t *parent, const char *name, const char *text,
                   const char *end)
{
    if (frwk_xml_set_node_append(parent, name, text) != FRWK_ERROR_SUCCESS) {
        FRWK_CONF_ERR(site, "frwk_xml_set_node_append %s failed%s", name, end);
        return false;
    }
    return true;
}

bool frwk_conf_set_number(const frwk_conf_site_t &site, frwk_xml_node_t *parent, const char *name, int value,
                          const char *end)
{
    char text[TEXT_SIZE];
    sprintf_s(text, sizeof text, "%d", value);
    return frwk_conf_set(site, parent, name, text, end);
}

bool frwk_conf_save(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_doc_t *doc, const char *path)
{
    if (frwk_xml_file_save(doc, path) != FRWK_ERROR_SUCCESS) {
        FRWK_CONF_ERR(site, "save %s config file fialed! from '%s'", conf.kind, conf.path);
        return false;
    }
    return true;
}

static bool write_synced(const char *path, const frwk_buffer_t &text)
{
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, FILE_MODE));
    size_t len = static_cast<size_t>(text.len);
    for (size_t done = 0; fd.get() >= 0 && done < len;) {
        ssize_t n = write(fd.get(), text.bp + done, len - done);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return fd.get() >= 0 && fsync(fd.get()) == 0;
}

/*
 * Puts the document in place in one step. Where no settings were, a save has nothing to keep as its backup, and cut
 * off it would leave a piece that is taken for the settings or that no setter can parse. What fails here is left to
 * the save to report.
 */
static void place_first(const frwk_conf_t &conf, frwk_xml_doc_t *doc)
{
    frwk_buffer_t text;
    if (!frwk_buffer_init(&text)) {
        return;
    }
    frwk_xml_cache_save(&text, doc->root, FRWK_XML_INDENT_SPACES);
    if (!write_synced(conf.fresh, text) || rename(conf.fresh, conf.path) != 0) {
        remove(conf.fresh);
    }
    frwk_buffer_free(&text);
}

/* Whether there are no settings: no file, or one that does not parse. One that cannot be opened now may hold some. */
static bool holds_nothing(const frwk_conf_t &conf)
{
    unique_fd readable(open(conf.path, O_RDONLY | O_CLOEXEC));
    if (readable.get() < 0) {
        return errno == ENOENT;
    }
    bool whole;
    return frwk_conf_doc_ptr(frwk_xml_file_parse_quiet(conf.path, &whole)) == nullptr;
}

static int add_default(const frwk_conf_t &conf, frwk_xml_node_t *root, const frwk_module_info_t &row)
{
    const frwk_conf_site_t &site = conf.default_site;
    if (!frwk_conf_set(site, root, row.name, nullptr, "!")) {
        return -1;
    }
    frwk_xml_node_t *element = frwk_xml_get_child_node(root, row.name);
    if (element == nullptr) {
        FRWK_CONF_ERR(site, "get %s failed", row.name);
        return FRWK_ERROR_NOT_FOUND;
    }
    return conf.fill(site, element, row) ? FRWK_ERROR_SUCCESS : -1;
}

static int build_default(const frwk_conf_t &conf, frwk_xml_doc_t *doc)
{
    const frwk_conf_site_t &site = conf.default_site;
    if (!frwk_conf_set(site, doc->root, "root", nullptr, "!")) {
        return -1;
    }
    frwk_xml_node_t *root = frwk_xml_get_doc_root(doc);
    if (root == nullptr) {
        FRWK_CONF_ERR(site, "document '%s' is null!", conf.path);
        return FRWK_ERROR_CONFIG_FILE;
    }
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if ((frwk_module_flags(id) & conf.flags) == conf.flags) {
            int rc = add_default(conf, root, g_s_modules_info[id]);
            if (rc != FRWK_ERROR_SUCCESS) {
                return rc;
            }
        }
    }
    return FRWK_ERROR_SUCCESS;
}

int frwk_conf_write_default(const frwk_conf_t &conf)
{
    frwk_conf_doc_ptr doc(frwk_xml_alloc_doc());
    if (doc == nullptr) {
        FRWK_CONF_ERR(conf.default_site, "alloc for xml doc failed!");
        return -1;
    }
    int rc = build_default(conf, doc.get());
    if (rc != FRWK_ERROR_SUCCESS) {
        return rc;
    }
    if (holds_nothing(conf)) {
        place_first(conf, doc.get());
    }
    return frwk_conf_save(conf, conf.default_site, doc.get(), conf.path) ? FRWK_ERROR_SUCCESS
                                                                         : conf.default_save_failed;
}
