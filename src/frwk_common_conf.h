/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What the two configuration files share. Both hold a root element, an element per module named as in the module
 * table, and in it an element per setting.
 *
 * A file is read, changed in memory and saved whole. Who changes one holds a lock meanwhile; who reads one does not.
 *
 * A save moves the file aside as the backup, writes it anew, and removes the backup once the new content is on the
 * disk. Cut off by a loss of power or a kill, it leaves a file that is missing or a piece, and the backup with the
 * settings; or the new file whole, and a backup that is out of date. Hence the rule: a whole file is always the one
 * used; where it is missing or a piece, a backup that parses is; and where one cannot tell, because a file cannot be
 * opened or read or memory is short, nothing is touched, since what one cannot see may be the only copy.
 */
#ifndef FRWK_COMMON_CONF_H
#define FRWK_COMMON_CONF_H

#include "frwk_guard.h"
#include "frwk_module.h"
#include "frwk_trace.h"
#include "frwk_xml_internal.h"

#include <stdint.h>

#include <memory>

/* Where the trace lines of shared code come from: the exported call that it works for. */
struct frwk_conf_site_t {
    const char *file;
    const char *func;
    int line;
};

#define FRWK_CONF_SITE(func) (frwk_conf_site_t{__FILE__, (func), __LINE__})
#define FRWK_CONF_HERE FRWK_CONF_SITE(__func__)
#define FRWK_CONF_ERR(site, ...) frwk_trace_print((site).file, (site).func, (site).line, FRWK_TRACE_ERROR, __VA_ARGS__)

#define FRWK_CONF_DIR "/usrdata/odm"

/* One of the two files. */
struct frwk_conf_t {
    frwk_xml_place_t place;
    const char *backup; /* where a save keeps the old content until the new one is safe */
    const char *kind;   /* the file's name in the message of a failed save */
    int32_t flags;      /* modules whose row has all of these have an element in the default file */
    /* Appends the default settings to a module's element. */
    bool (*fill)(const frwk_conf_site_t &site, frwk_xml_node_t *element, const frwk_module_info_t &row);
    frwk_conf_site_t default_site; /* of the call that writes the default file */
    int default_save_failed;       /* and its result when the file cannot be saved */
};

struct frwk_conf_doc_free {
    void operator()(frwk_xml_doc_t *doc) const
    {
        frwk_xml_free_doc(doc);
    }
};
using frwk_conf_doc_ptr = std::unique_ptr<frwk_xml_doc_t, frwk_conf_doc_free>;

/*
 * While it lives, this thread is the only one on the device that changes a file, and is not cancelled. Makes the
 * directory, and waits 3 seconds for another writer. Then it goes on without the lock: what the other one has on the
 * disk is left as it is, and what is saved comes in place in one step.
 */
class frwk_conf_writer {
public:
    frwk_conf_writer(const frwk_conf_t &conf, const frwk_conf_site_t &site);
    ~frwk_conf_writer();
    frwk_conf_writer(const frwk_conf_writer &) = delete;
    frwk_conf_writer &operator=(const frwk_conf_writer &) = delete;

    bool is_alone() const
    {
        return lock_.get() >= 0;
    }

private:
    cancel_guard uncancelled_;
    unique_fd lock_;
};

/* The settings as they were found, by the rule above. */
struct frwk_conf_found_t {
    frwk_xml_read_t read;  /* of the file; unknown where one cannot tell */
    frwk_conf_doc_ptr doc; /* of the file or the backup; null when neither can be used */
    bool in_backup;
};

/* Whether there are none yet. */
static inline bool frwk_conf_missing(const frwk_conf_found_t &found)
{
    return found.doc == nullptr && found.read.outcome == FRWK_XML_MISSING;
}

/* Finds the settings for reading them, changing nothing on disk. */
frwk_conf_found_t frwk_conf_find_settings(const frwk_conf_t &conf);

/* Finds the settings for changing them, and puts right what a save that was cut off has left. */
frwk_conf_found_t frwk_conf_settle(const frwk_conf_t &conf, const frwk_conf_writer &writer);

/* The document with its root element. Null, reported, when there is none. */
frwk_conf_doc_ptr frwk_conf_take(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_conf_found_t found,
                                 frwk_xml_node_t **root);

/* A module's element. Null, reported, when it is missing. */
frwk_xml_node_t *frwk_conf_find(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t *root,
                                const char *module);

/* The same, but adds a missing one. Null, reported, when it cannot be added; `end` ends that message. */
frwk_xml_node_t *frwk_conf_find_or_add(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t *root,
                                       const char *module, const char *end);

/* Sets or appends an element with a text ("" for null). False, reported, on failure; `end` ends that message. */
bool frwk_conf_set(const frwk_conf_site_t &site, frwk_xml_node_t *parent, const char *name, const char *text,
                   const char *end);

/* The same with a number. */
bool frwk_conf_set_number(const frwk_conf_site_t &site, frwk_xml_node_t *parent, const char *name, int value,
                          const char *end);

/* Saves the settings. False, reported, on failure. */
bool frwk_conf_save(const frwk_conf_t &conf, const frwk_conf_site_t &site, const frwk_conf_writer &writer,
                    frwk_xml_doc_t *doc);

/* Builds the default file and puts it in place of whatever is there. */
int frwk_conf_write_default(const frwk_conf_t &conf, const frwk_conf_writer &writer);

/* Sets the own debug mode and level from the log configuration, to 0 where it does not say. */
void frwk_log_conf_load(uint32_t module_id);

#endif
