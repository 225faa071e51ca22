/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The log configuration: every module's debug mode and trace level, kept in /usrdata/odm/log_conf.xml.
 */
#include "frwk_common_conf.h"
#include "frwk_common_module.h"
#include "frwk_trace.h"

#include <stdlib.h>

#define LOG_CONF FRWK_CONF_DIR "/log_conf.xml"

enum { MODE_LEN_MAX = 4 };

static bool fill_default(const frwk_conf_site_t &site, frwk_xml_node_t *element, const frwk_module_info_t &)
{
    return frwk_conf_set(site, element, "mode", "0", "!") && frwk_conf_set(site, element, "level", "null", " ");
}

static const frwk_conf_t conf = {
    {LOG_CONF, LOG_CONF ".new", FRWK_CONF_DIR}, LOG_CONF ".bak",      "log", FRWK_MODULE_FLAG_SYSLOG, fill_default,
    FRWK_CONF_SITE("frwk_init_log_cfg_info"),   FRWK_ERROR_NOT_FOUND,
};

int frwk_init_log_cfg_info(void)
{
    frwk_conf_writer writer(conf, FRWK_CONF_HERE);
    return frwk_conf_write_default(conf, writer);
}

/* The settings, the default ones where there are none yet. Null, reported, when they cannot be had. */
static frwk_conf_doc_ptr open_for_change(const frwk_conf_site_t &site, const frwk_conf_writer &writer,
                                         frwk_xml_node_t **root)
{
    frwk_conf_found_t found = frwk_conf_settle(conf, writer);
    if (frwk_conf_missing(found)) {
        frwk_conf_write_default(conf, writer); /* a failure shows in what is found then */
        found = frwk_conf_settle(conf, writer);
    }
    return frwk_conf_take(conf, site, std::move(found), root);
}

/* Sets one module's entry in the tree; `end` ends the message of an element that cannot be added. */
static bool set_entry(const frwk_conf_site_t &site, frwk_xml_node_t *root, uint32_t module_id, const char *end,
                      int mode, const char *level)
{
    frwk_xml_node_t *element = frwk_conf_find_or_add(conf, site, root, frwk_module_name(module_id), end);
    return element != nullptr && frwk_conf_set_number(site, element, "mode", mode, " ") &&
           frwk_conf_set(site, element, "level", level, " ");
}

int frwk_set_trace_info(uint32_t module_id, int mode, const char *level)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    if (!frwk_module_valid(module_id)) {
        FRWK_CONF_ERR(site, "invalid module id=%d", static_cast<int>(module_id));
        return FRWK_ERROR_INVALID_PARAM;
    }
    if ((frwk_module_flags(module_id) & FRWK_MODULE_FLAG_SYSLOG) == 0) {
        FRWK_CONF_ERR(site, "%s no need set log config", frwk_module_name(module_id));
        return FRWK_ERROR_CONFIG_FILE;
    }
    frwk_conf_writer writer(conf, site);
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = open_for_change(site, writer, &root);
    if (doc == nullptr) {
        return FRWK_ERROR_CONFIG_FILE;
    }
    if (!set_entry(site, root, module_id, " ", mode, level) || !frwk_conf_save(conf, site, writer, doc.get())) {
        return -1;
    }
    return FRWK_ERROR_SUCCESS;
}

int frwk_all_set_trace_info(int mode, const char *level)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    frwk_conf_writer writer(conf, site);
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = open_for_change(site, writer, &root);
    if (doc == nullptr) {
        return FRWK_ERROR_CONFIG_FILE;
    }
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        if ((frwk_module_flags(id) & FRWK_MODULE_FLAG_SYSLOG) != 0 && !set_entry(site, root, id, "", mode, level)) {
            return -1;
        }
    }
    return frwk_conf_save(conf, site, writer, doc.get()) ? FRWK_ERROR_SUCCESS : FRWK_ERROR_NOT_FOUND;
}

static void load_entry(const frwk_conf_site_t &site, frwk_xml_node_t *entry)
{
    frwk_xml_node_t *mode = frwk_xml_get_child_node(entry, "mode");
    if (mode == nullptr || mode->len > MODE_LEN_MAX) {
        FRWK_CONF_ERR(site, "get mode from '%s' failed", conf.place.path);
        return;
    }
    frwk_debug_enable(atoi(mode->value));

    frwk_xml_node_t *level = frwk_xml_get_child_node(entry, "level");
    if (level == nullptr) {
        FRWK_CONF_ERR(site, "get level from '%s' failed", conf.place.path);
        return;
    }
    int value = frwk_level_match(level->value);
    g_s_module_ctx.level.store(value >= 0 ? value : FRWK_TRACE_NULL, std::memory_order_relaxed);
}

void frwk_log_conf_load(uint32_t module_id)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    frwk_debug_enable(0);
    g_s_module_ctx.level.store(FRWK_TRACE_NULL, std::memory_order_relaxed);
    if (!frwk_module_valid(module_id)) {
        FRWK_CONF_ERR(site, "invalid module id=%d", static_cast<int>(module_id));
        return;
    }
    frwk_conf_found_t found = frwk_conf_find_settings(conf);
    if (frwk_conf_missing(found)) {
        FRWK_CONF_ERR(site, "log file does not exist.");
        return;
    }
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = frwk_conf_take(conf, site, std::move(found), &root);
    if (doc == nullptr) {
        return;
    }
    frwk_xml_node_t *entry = frwk_conf_find(conf, site, root, frwk_module_name(module_id));
    if (entry != nullptr) {
        load_entry(site, entry);
    }
}
