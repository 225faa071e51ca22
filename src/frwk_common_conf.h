/*
 * What the two configuration files share. Both hold a root element, an element per module named as in the module
 * table, and in it an element per setting.
 *
 * A file is read, changed in memory and saved whole. Who changes one holds a lock meanwhile; who reads one does not.
 * Power may go in the middle of a save: see find_settings() for what is then taken.
 */
#ifndef FRWK_COMMON_CONF_H
#define FRWK_COMMON_CONF_H

#include <memory>
#include <stdint.h>

#include "frwk_guard.h"
#include "frwk_module.h"
#include "frwk_trace.h"
#include "frwk_xml.h"

/* Where the trace lines of shared code come from: the exported call that it works for. */
struct frwk_conf_site_t {
    const char *file;
    const char *func;
    int line;
};

#define FRWK_CONF_SITE(func) (frwk_conf_site_t{__FILE__, (func), __LINE__})
#define FRWK_CONF_HERE FRWK_CONF_SITE(__func__)
#define FRWK_CONF_ERR(site, ...) frwk_trace_print((site).file, (site).func, (site).line, FRWK_TRACE_ERROR, __VA_ARGS__)

/* One of the two files. */
struct frwk_conf_t {
    const char *path;
    const char *backup; /* where a save keeps the old content until the new one is safe */
    const char *fresh;  /* where the first content is prepared */
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
 * directory and puts right what a save that was cut off has left.
 */
class frwk_conf_writer {
public:
    frwk_conf_writer(const frwk_conf_t &conf, const frwk_conf_site_t &site);
    ~frwk_conf_writer();
    frwk_conf_writer(const frwk_conf_writer &) = delete;
    frwk_conf_writer &operator=(const frwk_conf_writer &) = delete;

private:
    cancel_guard uncancelled_;
    unique_fd lock_;
};

/* Whether the file exists. */
bool frwk_conf_exists(const frwk_conf_t &conf);

/* Reads the file for changing it. Null, reported, when it cannot be parsed or has no root element. */
frwk_conf_doc_ptr frwk_conf_open(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t **root);

/* Reads the settings, changing nothing on disk. As frwk_conf_open(), but null and unreported when there are none. */
frwk_conf_doc_ptr frwk_conf_read(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_node_t **root,
                                 bool *present);

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

/* Saves to the path, to where the document was read from when it is null. False, reported, on failure. */
bool frwk_conf_save(const frwk_conf_t &conf, const frwk_conf_site_t &site, frwk_xml_doc_t *doc, const char *path);

/* Builds and saves the default file. The caller is a frwk_conf_writer. */
int frwk_conf_write_default(const frwk_conf_t &conf);

/* Sets the own debug mode and level from the log configuration, to 0 where it does not say. */
void frwk_log_conf_load(uint32_t module_id);

#endif
