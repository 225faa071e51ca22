/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What the two configuration files share: the directory and its lock, reading, finding and adding elements, saving,
 * and the recovery of a save that was cut off.
 */
#include "frwk_common_conf.h"

#include "frwk_bounded.h"
#include "frwk_common_module.h"
#include "frwk_start_conf.h"
#include "frwk_timer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

enum { TEXT_SIZE = 256, LOCK_WAIT_MS = 3000, LOCK_POLL_US = 1000 };

static void make_directory()
{
    if (access(FRWK_CONF_DIR, F_OK) != 0) {
        char command[TEXT_SIZE];
        sprintf_s(command, sizeof command, "mkdir %s", FRWK_CONF_DIR);
        frwk_system(command);
    }
}

static int trace_no_lock(const frwk_conf_site_t &site)
{
    frwk_trace_print(site.file, site.func, site.line, FRWK_TRACE_WARNING, "no lock on '%s', errno=%d", FRWK_CONF_DIR,
                     errno);
    return -1;
}

/*
 * The lock is the directory's own, so that no file has to be made for it, and ends with the process. The descriptor
 * that holds it; negative, reported, when it cannot be had.
 */
static int lock_directory(const frwk_conf_site_t &site)
{
    unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(open(FRWK_CONF_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC))));
    if (fd.get() < 0) {
        return trace_no_lock(site);
    }
    frwk_uptime_t deadline;
    frwk_simple_timer_start(&deadline, LOCK_WAIT_MS);
    while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && (errno != EWOULDBLOCK || frwk_simple_timer_timeout(&deadline))) {
            return trace_no_lock(site);
        }
        usleep(LOCK_POLL_US);
    }
    return fd.release();
}

frwk_conf_writer::frwk_conf_writer(const frwk_conf_t &conf, const frwk_conf_site_t &site)
    : lock_((make_directory(), lock_directory(site)))
{
    if (is_alone()) {
        remove(conf.place.fresh); /* left by a writer that was cut off */
    }
}

frwk_conf_writer::~frwk_conf_writer()
{
    if (is_alone()) {
        flock(lock_.get(), LOCK_UN); /* closing would not do while a child forked meanwhile has the descriptor too */
    }
}

/* Tells whether a name came or went in the directory since it was made. */
class name_watch {
public:
    name_watch() : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        inotify_add_watch(fd_.get(), FRWK_CONF_DIR, IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO);
    }
    bool has_seen_one() const
    {
        char event[sizeof(inotify_event) + NAME_MAX + 1];
        return read(fd_.get(), event, sizeof event) > 0;
    }

private:
    unique_fd fd_;
};

static frwk_conf_found_t look(const frwk_conf_t &conf)
{
    frwk_conf_found_t file = {frwk_xml_file_read(conf.place.path), nullptr, false};
    file.doc.reset(file.read.doc);
    if (file.read.outcome == FRWK_XML_WHOLE || file.read.outcome == FRWK_XML_UNKNOWN) {
        return file;
    }
    frwk_conf_found_t backup = {frwk_xml_file_read(conf.backup), nullptr, true};
    backup.doc.reset(backup.read.doc);
    return backup.doc != nullptr || backup.read.outcome == FRWK_XML_UNKNOWN ? std::move(backup) : std::move(file);
}

/* Found where every save leaves them, and none that goes on meanwhile has hidden them. */
static bool is_certain(const frwk_conf_found_t &found)
{
    return found.in_backup || found.read.outcome == FRWK_XML_WHOLE || found.read.outcome == FRWK_XML_UNKNOWN;
}

/*
 * A file that is missing or a piece may be one that another process is saving; when its backup is gone by the time we
 * look for it, that save has ended. So such a look counts only when no name came or went meanwhile.
 */
frwk_conf_found_t frwk_conf_find_settings(const frwk_conf_t &conf)
{
    cancel_guard uncancelled;
    frwk_conf_found_t found = look(conf);
    for (bool changed = true; changed && !is_certain(found);) {
        name_watch watch;
        found = look(conf);
        changed = watch.has_seen_one();
    }
    return found;
}

frwk_conf_found_t frwk_conf_settle(const frwk_conf_t &conf, const frwk_conf_writer &writer)
{
    frwk_conf_found_t found = frwk_conf_find_settings(conf);
    if (!writer.is_alone()) {
        return found;
    }
    if (found.in_backup && found.doc != nullptr) {
        if (rename(conf.backup, conf.place.path) == 0) {
            return look(conf);
        }
        found.doc = nullptr;
        found.read.outcome = FRWK_XML_UNKNOWN;
    } else if (found.read.outcome == FRWK_XML_WHOLE && access(conf.backup, F_OK) == 0) {
        sync(); /* the save may have been killed before its content was on the disk */
        remove(conf.backup);
    }
    return found;
}

frwk_conf_doc_ptr frwk_conf_take(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_conf_found_t found,
                                 frwk_xml_node_t **root)
{
    if (found.doc == nullptr) {
        frwk_xml_trace_failure(found.read, found.in_backup ? conf.backup : conf.place.path);
        FRWK_CONF_ERR(site, "parse '%s' failed.", conf.place.path);
        return nullptr;
    }
    *root = frwk_xml_get_doc_root(found.doc.get());
    if (*root == nullptr) {
        FRWK_CONF_ERR(site, "document '%s' is null!", conf.place.path);
        return nullptr;
    }
    return std::move(found.doc);
}

frwk_xml_node_t *frwk_conf_find(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t *root,
                                const char *module)
{
    frwk_xml_node_t *element = frwk_xml_get_child_node(root, module);
    if (element == nullptr) {
        FRWK_CONF_ERR(site, "get %s from '%s' failed", module, conf.place.path);
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

/* Reports a save that failed. */
static bool saved(const frwk_conf_t &conf, const frwk_conf_site_t &site, int rc)
{
    if (rc != FRWK_ERROR_SUCCESS) {
        FRWK_CONF_ERR(site, "save %s config file fialed! from '%s'", conf.kind, conf.place.path);
    }
    return rc == FRWK_ERROR_SUCCESS;
}

bool frwk_conf_save(const frwk_conf_t &conf, const frwk_conf_site_t &site, const frwk_conf_writer &writer,
                    frwk_xml_doc_t *doc)
{
    return saved(conf, site,
                 writer.is_alone() ? frwk_xml_file_save(doc, nullptr) : frwk_xml_file_place(doc, conf.place));
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
        FRWK_CONF_ERR(site, "document '%s' is null!", conf.place.path);
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

int frwk_conf_write_default(const frwk_conf_t &conf, const frwk_conf_writer &writer)
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
    if (!saved(conf, conf.default_site, frwk_xml_file_place(doc.get(), conf.place))) {
        return conf.default_save_failed;
    }
    if (writer.is_alone()) {
        remove(conf.backup); /* of what was replaced */
    }
    return FRWK_ERROR_SUCCESS;
}
