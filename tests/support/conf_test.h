/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What the tests of the settings files share.
#ifndef CONF_TEST_H
#define CONF_TEST_H

#include "frwk_test.h"

#include <sys/file.h>

#include <map>
#include <set>

inline const std::string DIR = "/usrdata/odm", LOG = DIR + "/log_conf.xml", START = DIR + "/start_conf.xml";

using Files = std::map<std::string, std::string>; // by path

// What lies in the directory.
inline Files snapshot()
{
    Files files;
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(DIR, missing)) {
        files[entry.path()] = read_file(entry.path());
    }
    return files;
}

inline void restore(const Files &files)
{
    std::filesystem::remove_all(DIR);
    for (const auto &[path, text] : files) {
        write_file(path, text);
    }
}

// A fresh device with this file, where it is not null.
inline void put(const std::string &path, const char *text)
{
    restore(text != nullptr ? Files{{path, text}} : Files());
}

// What a call returns and what it says: "result|trace|...", without what the parser says.
inline std::string call(const std::function<int()> &body)
{
    std::string text;
    const Texts traces = said([&] { text = std::to_string(body()); });
    for (const std::string &trace : traces) {
        text += trace.rfind("frwk_xml_", 0) == 0 ? "" : "|" + trace;
    }
    return text;
}

// What a call returns and the warning or error that it has traced last: "result|message".
inline std::string outcome_of(const std::function<int()> &act)
{
    frwk_debug_enable(3);
    frwk_trace_set("warning");
    Capture out;
    const std::string result = std::to_string(act());
    frwk_debug_enable(0);
    const Texts traces = lines_in(out.text(), "|");
    return traces.empty() ? result : result + traces.back();
}

const char MADE[] = "0|debug frwk_system: exec cmd 'mkdir /usrdata/odm' success!", BROKEN[] = "<root><qti>\n</root>";

struct Change {
    const char *before; // the file; null: there is none
    std::function<int()> change;
    std::string outcome, after; // of the call, and the file
};

inline void check(const std::string &path, const std::vector<Change> &changes)
{
    for (const Change &row : changes) {
        put(path, row.before);
        EXPECT_EQ(row.outcome, call(row.change));
        EXPECT_EQ(row.after.empty() ? Files() : Files({{path, row.after}}), snapshot()) << "with nothing beside it";
    }
}

// What a module finds at its start: qti's debug mode, level, supervision flag and start arguments.
inline std::string settings()
{
    const Result result = run_child([] {
        frwk_module_info_t &qti = g_s_modules_info[FRWK_MODULE_QTI];
        qti.flags &= ~FRWK_MODULE_FLAG_IPC; // the service has no part in this and would start a thread
        EXPECT_EQ(0, frwk_module_init(FRWK_MODULE_QTI, nullptr));
        const int monitored = frwk_get_app_monitor_conf(FRWK_MODULE_QTI);
        frwk_init_app_start_cfg();
        EXPECT_EQ(monitored, (qti.flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0) << "the query and the loader differ";
        printf("%d %d %d %s", frwk_get_module_debug_mode(), frwk_get_module_level(), monitored,
               qti.start_cmd != nullptr ? qti.start_cmd : "-");
    });
    EXPECT_TRUE(result.ok()) << result;
    return result.out;
}

// The directory's lock, tried once.
struct Lock {
    const int fd = open(DIR.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool held = flock(fd, LOCK_EX | LOCK_NB) == 0;
    ~Lock()
    {
        close(fd);
    }
};

#endif
