// The readers and writers of the configuration on hostile files. The first byte chooses the file and, as a cut-off
// save leaves them, whether the input is its content, its backup's, or both parts of it.
#include "fuzz.h"

#include <sys/stat.h>

namespace {

const std::string DIR = "/usrdata/odm";
const std::string START = DIR + "/start_conf.xml";
const std::string LOG = DIR + "/log_conf.xml";

void put(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *fp = fopen(path.c_str(), "w");
    CHECK(fp != nullptr && fwrite(data, 1, size, fp) == size && fclose(fp) == 0);
}

bool exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string content(const std::string &path)
{
    std::string text;
    if (FILE *fp = fopen(path.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, fp)) > 0;) {
            text.append(buf, n);
        }
        fclose(fp);
    }
    return text;
}

// Whether what was set can be found in a saved file again. By the rules of the format it cannot behind a declaration
// that stood further on in the first line, behind an attribute value at its limit, which counts entities as they are
// written, and where an element with a setting has children: its text then gains the indentation of the end tag.
bool readable(const std::string &path, const char *setting)
{
    const std::string text = content(path);
    if (text.find("<?") != std::string::npos || (text.size() > 500 && text.find('&') != std::string::npos)) {
        return false;
    }
    frwk_xml_doc_t *doc = frwk_xml_file_parse(path.c_str());
    CHECK(doc != nullptr);
    frwk_xml_node_t *qti = frwk_xml_get_child_node(frwk_xml_get_doc_root(doc), "qti");
    frwk_xml_node_t *element = frwk_xml_get_child_node(qti, setting);
    CHECK(element != nullptr);
    const bool plain = frwk_list_empty(&element->children) != 0;
    frwk_xml_free_doc(doc);
    return plain;
}

// Loads the monitor's table from the file, and gives it back as it was. The start arguments of qti are the caller's.
frwk_module_info_t load_qti()
{
    frwk_module_info_t built_in[FRWK_MODULE_MAX + 1];
    memcpy(built_in, g_s_modules_info, sizeof built_in);
    frwk_init_app_start_cfg();
    frwk_module_info_t qti = g_s_modules_info[FRWK_MODULE_QTI];
    for (int id = 1; id < FRWK_MODULE_MAX; id++) {
        if (id != FRWK_MODULE_QTI && g_s_modules_info[id].start_cmd != built_in[id].start_cmd) {
            free(g_s_modules_info[id].start_cmd);
        }
    }
    memcpy(g_s_modules_info, built_in, sizeof built_in);
    return qti;
}

void change_start()
{
    static const char cmd[] = "-x <\"1&2\">";
    free(load_qti().start_cmd);
    const int before = frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD);
    CHECK(before == 0 || before == 1);
    if (frwk_set_app_start_cmd(FRWK_MODULE_QTI, cmd) != 0) {
        return;
    }
    CHECK(!exists(START + ".bak") && !exists(START + ".new"));
    if (!readable(START, "start_cmd")) {
        return;
    }
    CHECK(frwk_get_app_monitor_conf(FRWK_MODULE_MBIMD) == before);
    CHECK(frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0) == -1); // saved, but no monitor runs
    frwk_module_info_t qti = load_qti();
    CHECK((qti.flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) == 0 && strcmp(qti.start_cmd, cmd) == 0);
    free(qti.start_cmd);
}

// The log settings are read at the start of a module, which for one without flags is little more than that.
int level_at_start()
{
    const int32_t flags = g_s_modules_info[FRWK_MODULE_QTI].flags;
    g_s_modules_info[FRWK_MODULE_QTI].flags = 0;
    CHECK(frwk_module_init(FRWK_MODULE_QTI, nullptr) == 0);
    g_s_modules_info[FRWK_MODULE_QTI].flags = flags;
    const int level = frwk_get_module_level();
    frwk_trace_set("debug");
    return level;
}

void change_log()
{
    const int level = level_at_start();
    CHECK(level == 0 || level == 1 || level == 2 || level == 4 || level == 8);
    if (frwk_set_trace_info(FRWK_MODULE_QTI, 2, "info") != 0) {
        return;
    }
    CHECK(!exists(LOG + ".bak") && !exists(LOG + ".new"));
    if (!readable(LOG, "mode") || !readable(LOG, "level")) {
        return;
    }
    CHECK(level_at_start() == FRWK_TRACE_INFO);
    CHECK(frwk_all_set_trace_info(1, "error") == 0);
    CHECK(level_at_start() == FRWK_TRACE_ERROR);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    trace_to_nothing();
    mkdir(DIR.c_str(), 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const uint8_t choice = data[0];
    const bool log = (choice & 1) != 0;
    const std::string path = log ? LOG : START;
    data++;
    size--;
    const size_t cut = size * (choice >> 4) / 15;
    remove(path.c_str());
    remove((path + ".bak").c_str());
    switch (choice >> 1 & 3) {
    case 0:
        put(path, data, size);
        break;
    case 1:
        put(path + ".bak", data, size);
        break;
    case 2: // two halves
        put(path, data, cut);
        put(path + ".bak", data + cut, size - cut);
        break;
    default: // a save cut off
        put(path, data, cut);
        put(path + ".bak", data, size);
        break;
    }
    if (log) {
        change_log();
    } else {
        change_start();
    }
    return 0;
}
