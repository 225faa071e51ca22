/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The readers and writers of the configuration on hostile files. The first byte chooses the file and, as a cut-off
// save leaves them, whether the input is its content, its backup's, or both parts of it.
#include "fuzz.h"
#include "xml_checks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace {

const std::string DIR = "/usrdata/odm", START = DIR + "/start_conf.xml", LOG = DIR + "/log_conf.xml";

// Whether what was set can be found in a saved file again. By the rules of the format it cannot behind a declaration
// that stood further on in the first line, behind an attribute value at its limit, which counts entities as they are
// written, and where an element with a setting has children: its text then gains the indentation of the end tag.
bool readable(const std::string &path, const char *setting)
{
    CHECK(access((path + ".bak").c_str(), F_OK) != 0 && access((path + ".new").c_str(), F_OK) != 0);
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.find("<?") != std::string::npos || (text.size() > 500 && text.find('&') != std::string::npos)) {
        return false;
    }
    const Doc doc(frwk_xml_file_parse(path.c_str()));
    CHECK(doc != nullptr);
    frwk_xml_node_t *qti = frwk_xml_get_child_node(frwk_xml_get_doc_root(doc.get()), "qti");
    frwk_xml_node_t *element = frwk_xml_get_child_node(qti, setting);
    CHECK(element != nullptr);
    return frwk_list_empty(&element->children) != 0;
}

// What the monitor loads: whether qti is supervised, and its start arguments. The table is left as it was.
std::string load_qti()
{
    frwk_module_info_t built_in[FRWK_MODULE_MAX + 1];
    memcpy(built_in, g_s_modules_info, sizeof built_in);
    frwk_init_app_start_cfg();
    const frwk_module_info_t &qti = g_s_modules_info[FRWK_MODULE_QTI];
    const std::string loaded = ((qti.flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0 ? "supervised " : "alone ") +
                               std::string(qti.start_cmd != nullptr ? qti.start_cmd : "");
    for (int id = 1; id < FRWK_MODULE_MAX; id++) {
        if (g_s_modules_info[id].start_cmd != built_in[id].start_cmd) {
            free(g_s_modules_info[id].start_cmd);
        }
    }
    memcpy(g_s_modules_info, built_in, sizeof built_in);
    return loaded;
}

void change_start()
{
    load_qti();
    const int before = frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD);
    CHECK(before == 0 || before == 1);
    if (frwk_set_app_start_cmd(FRWK_MODULE_QTI, "-x <\"1&2\">") == 0 && readable(START, "start_cmd")) {
        CHECK(frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD) == before);
        CHECK(frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0) == -1); // saved, but no monitor runs
        CHECK(load_qti() == "alone -x <\"1&2\">");
    }
}

// The log settings are read at the start of a module, which for one without flags is little more than that.
int level_at_start()
{
    const int32_t flags = g_s_modules_info[FRWK_MODULE_QTI].flags;
    g_s_modules_info[FRWK_MODULE_QTI].flags = 0;
    CHECK(frwk_module_init(FRWK_MODULE_QTI, nullptr) == 0);
    g_s_modules_info[FRWK_MODULE_QTI].flags = flags;
    const int level = frwk_get_module_level();
    trace_all();
    return level;
}

void change_log()
{
    const int level = level_at_start();
    CHECK(level == 0 || level == 1 || level == 2 || level == 4 || level == 8);
    if (frwk_set_trace_info(FRWK_MODULE_QTI, 2, "info") == 0 && readable(LOG, "mode") && readable(LOG, "level")) {
        CHECK(level_at_start() == FRWK_TRACE_INFO);
        CHECK(frwk_all_set_trace_info(1, "error") == 0 && level_at_start() == FRWK_TRACE_ERROR);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t choice = size > 0 ? data[0] : 0;
    const std::string input(data + (size > 0), data + size), part = input.substr(0, input.size() * (choice >> 4) / 15);
    const std::pair<std::string, std::string> contents[] = {
        {input, ""}, {"", input}, {part, input.substr(part.size())}, {part, input}};
    const std::string path = (choice & 1) != 0 ? LOG : START;
    const auto put = [&](const std::string &name, const std::string &text) {
        remove(name.c_str());
        if (!text.empty() || (choice & 8) != 0) {
            std::ofstream(name) << text;
        }
    };
    mkdir(DIR.c_str(), 0755);
    put(path, contents[choice >> 1 & 3].first);
    put(path + ".bak", contents[choice >> 1 & 3].second);
    (choice & 1) != 0 ? change_log() : change_start();
    return 0;
}
