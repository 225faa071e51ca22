// What the tests of the configuration files share.
#ifndef CONF_TEST_H
#define CONF_TEST_H

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "frwk_test.h"

namespace conf_test {

using Texts = std::vector<std::string>;

inline const std::string DIR = "/usrdata/odm";
inline const std::string LOG = DIR + "/log_conf.xml";
inline const std::string START = DIR + "/start_conf.xml";

constexpr const char *NO_FILE = nullptr; // as content: there is no such file

inline void put(const std::string &path, const char *content)
{
    std::filesystem::remove_all(path);
    if (content != NO_FILE) {
        frwk_test::write_file(path, content);
    }
}

// A fresh device whose file has this content, and its backup that.
inline void put_both(const std::string &path, const char *content, const char *backup)
{
    std::filesystem::remove_all(DIR);
    put(path, content);
    put(path + ".bak", backup);
}

// What lies in the directory.
inline Texts listing()
{
    Texts names;
    for (const auto &entry : std::filesystem::directory_iterator(DIR)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

// The text with the first `from` behind the first `after` replaced.
inline std::string changed(std::string text, const std::string &after, const std::string &from, const std::string &to)
{
    size_t at = text.find(from, text.find(after));
    EXPECT_NE(std::string::npos, at) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

struct Outcome {
    int rc;
    Texts said; // "function: message", behind "level|" where that is not error
};

// Makes a call with all traces on.
inline Outcome call(const std::function<int()> &body)
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
    frwk_test::Capture capture;
    Outcome outcome = {body(), {}};
    for (const frwk_test::TraceLine &trace : capture.traces()) {
        outcome.said.push_back((trace.level == "error" ? "" : trace.level + "|") + trace.func + ": " + trace.msg);
    }
    frwk_debug_enable(0);
    return outcome;
}

// Starts this process as a module without the IPC service, which has no part in this and would start a thread.
inline void be_module(uint32_t id)
{
    g_s_modules_info[id].flags &= ~FRWK_MODULE_FLAG_IPC;
    ASSERT_EQ(0, frwk_module_init(id, nullptr));
}

// The directory's lock, tried once.
struct Lock {
    Lock() : fd(open(DIR.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), held(flock(fd, LOCK_EX | LOCK_NB) == 0)
    {
    }
    ~Lock()
    {
        close(fd);
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

    int fd;
    bool held;
};

} // namespace conf_test

#endif
