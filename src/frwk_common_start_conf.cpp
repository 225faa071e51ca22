/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The start configuration: every module's supervision flag and start arguments, kept in /usrdata/odm/start_conf.xml.
 */
#include "frwk_bounded.h"
#include "frwk_common_conf.h"
#include "frwk_common_module.h"
#include "frwk_ipc.h"
#include "frwk_start_conf.h"
#include "frwk_trace.h"

#include <stdlib.h>

#define START_CONF FRWK_CONF_DIR "/start_conf.xml"

enum { MONITOR_TIMEOUT_S = 3 };

/* Body of FRWK_MSG_SYS_MONITOR_CONF. */
struct monitor_conf_t {
    uint32_t module_id;
    int32_t value;
};
static_assert(sizeof(monitor_conf_t) == 8);

static bool fill_default(const frwk_conf_site_t &site, frwk_xml_node_t *element, const frwk_module_info_t &row)
{
    int service = (row.flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0 ? 1 : 0;
    return frwk_conf_set_number(site, element, "monitor_service", service, "!") &&
           frwk_conf_set(site, element, "start_cmd", row.start_cmd, "!");
}

static const frwk_conf_t conf = {
    {START_CONF, START_CONF ".new", FRWK_CONF_DIR},
    START_CONF ".bak",
    "start",
    0,
    fill_default,
    FRWK_CONF_SITE("frwk_init_app_start_cfg_file"),
    -1,
};

static bool is_monitored(const frwk_xml_node_t *service)
{
    return atoi(service->value) == 1;
}

static frwk_xml_node_t *find_setting(const frwk_conf_site_t &site, frwk_xml_node_t *entry, const char *name)
{
    frwk_xml_node_t *setting = frwk_xml_get_child_node(entry, name);
    if (setting == nullptr) {
        FRWK_CONF_ERR(site, "frwk_xml_get_child_node %s failed ", name);
    }
    return setting;
}

/* The text goes into the table for good. */
static char *copy_start_cmd(const frwk_xml_node_t *cmd)
{
    size_t size = static_cast<size_t>(cmd->len) + 1;
    char *copy = cmd->len > 0 ? static_cast<char *>(calloc(1, size)) : nullptr;
    if (copy != nullptr) {
        memcpy_s(copy, size, cmd->value, cmd->len);
    }
    return copy;
}

static void load_entry(const frwk_conf_site_t &site, frwk_xml_node_t *entry, frwk_module_info_t *row)
{
    frwk_xml_node_t *service = find_setting(site, entry, "monitor_service");
    if (service == nullptr) {
        return;
    }
    if (is_monitored(service)) {
        row->flags |= FRWK_MODULE_FLAG_MONITOR_SERVICE;
    } else {
        row->flags &= ~FRWK_MODULE_FLAG_MONITOR_SERVICE;
    }
    frwk_xml_node_t *cmd = find_setting(site, entry, "start_cmd");
    if (cmd != nullptr) {
        row->start_cmd = copy_start_cmd(cmd);
    }
}

void frwk_init_app_start_cfg(void)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    frwk_conf_found_t found = frwk_conf_find_settings(conf);
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = frwk_conf_missing(found) ? nullptr : frwk_conf_take(conf, site, std::move(found), &root);
    if (doc == nullptr) {
        return;
    }
    for (uint32_t id = 1; id < FRWK_MODULE_MAX; id++) {
        frwk_xml_node_t *entry = frwk_conf_find(conf, site, root, frwk_module_name(id));
        if (entry != nullptr) {
            load_entry(site, entry, &g_s_modules_info[id]);
        }
    }
}

int frwk_get_app_monitor_conf(uint32_t module_id)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    if (!frwk_module_valid(module_id)) {
        FRWK_CONF_ERR(site, "invalid module id=%d", static_cast<int>(module_id));
        return 0;
    }
    frwk_conf_found_t found = frwk_conf_find_settings(conf);
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = frwk_conf_missing(found) ? nullptr : frwk_conf_take(conf, site, std::move(found), &root);
    frwk_xml_node_t *entry = doc != nullptr ? frwk_conf_find(conf, site, root, frwk_module_name(module_id)) : nullptr;
    frwk_xml_node_t *service = entry != nullptr ? find_setting(site, entry, "monitor_service") : nullptr;
    if (service != nullptr) {
        return is_monitored(service) ? 1 : 0;
    }
    return (frwk_module_flags(module_id) & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0 ? 1 : 0;
}

int frwk_init_app_start_cfg_file(void)
{
    frwk_conf_writer writer(conf, FRWK_CONF_HERE);
    return frwk_conf_write_default(conf, writer);
}

/* Sets one setting of one module and saves. */
static int set_and_save(const frwk_conf_site_t &site, uint32_t module_id, const char *name, const char *text)
{
    if (!frwk_module_valid(module_id)) {
        FRWK_CONF_ERR(site, "invalid module id=%d", static_cast<int>(module_id));
        return FRWK_ERROR_INVALID_PARAM;
    }
    frwk_conf_writer writer(conf, site);
    frwk_conf_found_t found = frwk_conf_settle(conf, writer);
    if (frwk_conf_missing(found)) {
        int rc = frwk_conf_write_default(conf, writer);
        if (rc != FRWK_ERROR_SUCCESS) {
            FRWK_CONF_ERR(site, "frwk_init_app_start_cfg_file failed!");
            return rc;
        }
        found = frwk_conf_settle(conf, writer);
    }
    frwk_xml_node_t *root;
    frwk_conf_doc_ptr doc = frwk_conf_take(conf, site, std::move(found), &root);
    if (doc == nullptr) {
        return FRWK_ERROR_CONFIG_FILE;
    }
    frwk_xml_node_t *entry = frwk_conf_find_or_add(conf, site, root, frwk_module_name(module_id), " ");
    if (entry == nullptr || !frwk_conf_set(site, entry, name, text, " ") ||
        !frwk_conf_save(conf, site, writer, doc.get())) {
        return -1;
    }
    return FRWK_ERROR_SUCCESS;
}

int frwk_set_app_start_cmd(uint32_t module_id, const char *cmd)
{
    return set_and_save(FRWK_CONF_HERE, module_id, "start_cmd", cmd);
}

int frwk_set_app_monitor_conf(uint32_t module_id, int value)
{
    const frwk_conf_site_t site = FRWK_CONF_HERE;
    char text[16];
    sprintf_s(text, sizeof text, "%d", value);
    int rc = set_and_save(site, module_id, "monitor_service", text);
    if (rc != FRWK_ERROR_SUCCESS) {
        return rc;
    }
    /* Document and lock are released by now: the monitor may well read or change the file to answer. */
    const monitor_conf_t body = {module_id, value};
    int32_t answer = -1;
    rc = frwk_ipc_msg_set(FRWK_MODULE_MONITOR, FRWK_MSG_SYS_MONITOR_CONF, &body, sizeof body, MONITOR_TIMEOUT_S,
                          &answer);
    if (rc != FRWK_ERROR_SUCCESS || answer != 0) {
        FRWK_CONF_ERR(site, "frwk_ipc_msg_set FRWK_MODULE_MONITOR error ret : %d  rc : %d", rc, answer);
        return -1;
    }
    return FRWK_ERROR_SUCCESS;
}
