// The trace settings on disk: default file, setters, what a module takes at its start, recovery, the lock.
#include <gtest/gtest.h>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

namespace {

std::string entry(const std::string &name, const std::string &mode = "0", const std::string &level = "null")
{
    return "   <" + name + ">\n      <mode>" + mode + "</mode>\n      <level>" + level + "</level>\n   </" + name +
           ">\n";
}

std::string default_file()
{
    std::string text = "<root>\n";
    for (const char *name : {"monitor", "atfwd_daemon", "dial_test", "serial_bridge", "mbimd", "qti", "qmuxd"}) {
        text += entry(name);
    }
    return text + "</root>\n";
}

const std::string PARSE_FAILED = ": parse '/usrdata/odm/log_conf.xml' failed.";
const std::string MISSING = " from '/usrdata/odm/log_conf.xml' failed";
const Texts EMPTY_FILE = {"frwk_xml_file_parse: invalid xml '/usrdata/odm/log_conf.xml'!"};
const Texts BROKEN_FILE = {"frwk_xml_cache_parse: Error: line:2,status:4,cause:Opening and ending tag mismatch!",
                           "frwk_xml_file_parse: parse xml '/usrdata/odm/log_conf.xml' failed!"};
const char BROKEN[] = "<root><qti>\n</root>";

Texts operator+(Texts list, const std::string &more)
{
    list.push_back(more);
    return list;
}

TEST(LogConf, DefaultFile)
{
    std::filesystem::remove_all(DIR);
    for (const char *before : {NO_FILE, BROKEN, "<root/>"}) {
        if (before != NO_FILE) {
            put(LOG, before);
        }
        Outcome outcome = call(frwk_init_log_cfg_info);
        EXPECT_EQ(0, outcome.rc);
        EXPECT_EQ(before == NO_FILE ? Texts{"debug|frwk_system: exec cmd 'mkdir /usrdata/odm' success!"} : Texts{},
                  outcome.said);
        EXPECT_EQ(default_file(), read_file(LOG));
        EXPECT_EQ(Texts{"log_conf.xml"}, listing());
    }
}

TEST(LogConf, Setters)
{
    const auto set = [](uint32_t id, int mode, const char *level) {
        return [=] { return frwk_set_trace_info(id, mode, level); };
    };
    const auto set_all = [](int mode, const char *level) {
        return [=] { return frwk_all_set_trace_info(mode, level); };
    };
    const std::string full = default_file();
    const std::string hand_made = "<!-- by hand --><conf><x/><qti a=\"1\"><level>info</level><mode>3</mode></qti>"
                                  "<qti><mode>9</mode></qti></conf>";
    std::string all = "<root>\n" + entry("qti", "1", "info");
    Texts all_missing;
    for (const char *name : {"monitor", "atfwd_daemon", "dial_test", "serial_bridge", "mbimd", "qmuxd"}) {
        all += entry(name, "1", "info");
        all_missing.push_back(std::string("frwk_all_set_trace_info: get ") + name + MISSING);
    }
    all += "</root>\n";

    const struct {
        const char *name;
        const char *before;
        std::function<int()> call;
        int rc;
        Texts said;
        std::string after;
    } rows[] = {
        {"no file",
         NO_FILE,
         set(8, 3, "debug"),
         0,
         {},
         changed(full, "qti", entry("qti").substr(9), entry("qti", "3", "debug").substr(9))},
        {"no file, all", NO_FILE, set_all(0, "null"), 0, {}, full},
        {"level is no name",
         full.c_str(),
         set(8, -100, "<verbose & loud>"),
         0,
         {},
         changed(full, "<qti>", entry("qti").substr(9), entry("qti", "-100", "&lt;verbose &amp; loud&gt;").substr(9))},
        {"tool", NO_FILE, set(4, 1, "info"), 4, {"frwk_set_trace_info: logtool no need set log config"}, ""},
        {"other tool",
         full.c_str(),
         set(6, 1, "info"),
         4,
         {"frwk_set_trace_info: monitor_tool no need set log config"},
         full},
        {"id 0", NO_FILE, set(0, 1, "info"), 3, {"frwk_set_trace_info: invalid module id=0"}, ""},
        {"id 10", full.c_str(), set(10, 1, "info"), 3, {"frwk_set_trace_info: invalid module id=10"}, full},
        {"empty", "", set(8, 1, "info"), 4, EMPTY_FILE + ("frwk_set_trace_info" + PARSE_FAILED), ""},
        {"broken", BROKEN, set(8, 1, "info"), 4, BROKEN_FILE + ("frwk_set_trace_info" + PARSE_FAILED), BROKEN},
        {"broken, all", BROKEN, set_all(1, "info"), 4, BROKEN_FILE + ("frwk_all_set_trace_info" + PARSE_FAILED),
         BROKEN},
        {"no entry",
         "<root/>",
         set(8, 1, nullptr),
         0,
         {"frwk_set_trace_info: get qti" + MISSING},
         "<root>\n   <qti>\n      <mode>1</mode>\n      <level/>\n   </qti>\n</root>\n"},
        {"other root, order, attributes, comments",
         hand_made.c_str(),
         set(8, 1, "error"),
         0,
         {},
         "<!--  by hand  -->\n<conf>\n   <x/>\n   <qti a=\"1\">\n      <level>error</level>\n      <mode>1</mode>\n   "
         "</qti>\n"
         "   <qti>\n      <mode>9</mode>\n   </qti>\n</conf>\n"},
        {"some entries, all", "<root><qti/></root>", set_all(1, "info"), 0, all_missing, all},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        put_both(LOG, row.before, NO_FILE);
        std::filesystem::create_directories(DIR);
        Outcome outcome = call(row.call);
        EXPECT_EQ(row.rc, outcome.rc);
        EXPECT_EQ(row.said, outcome.said);
        EXPECT_EQ(row.after, read_file(LOG));
        EXPECT_FALSE(exists(LOG + ".bak"));
    }
}

// Where the directory is a file, nothing can be created.
TEST(LogConf, FileCannotBeCreated)
{
    std::filesystem::remove_all(DIR);
    write_file(DIR, "");
    const Texts not_saved = {"frwk_xml_file_save: create xml '/usrdata/odm/log_conf.xml' failed!",
                             "frwk_init_log_cfg_info: save log config file fialed! from '/usrdata/odm/log_conf.xml'"};
    Outcome outcome = call(frwk_init_log_cfg_info);
    EXPECT_EQ(7, outcome.rc);
    EXPECT_EQ(not_saved, outcome.said);

    outcome = call([] { return frwk_set_trace_info(8, 1, "info"); });
    EXPECT_EQ(4, outcome.rc) << "the result of the default writer is ignored";
    EXPECT_EQ(not_saved + EMPTY_FILE[0] + ("frwk_set_trace_info" + PARSE_FAILED), outcome.said);
    std::filesystem::remove_all(DIR);
}

// Starts a module and returns its mode and level behind what it has written.
std::string started(uint32_t id)
{
    Result result = run_child([id] {
        be_module(id);
        printf("%d %d", frwk_get_module_debug_mode(), frwk_get_module_level());
    });
    EXPECT_TRUE(result.ok()) << result;
    return result.out;
}

TEST(LogConf, TakenAtStart)
{
    const struct {
        const char *file;
        const char *out;
    } rows[] = {
        {NO_FILE, "0 0"},
        {"", "0 0"},
        {BROKEN, "0 0"},
        {"<root/>", "0 0"},
        {"<root><QTI><mode>2</mode><level>debug</level></QTI></root>", "0 0"},
        {"<root><qti><mode>2</mode><level>debug</level></qti></root>", "2 8"},
        {"<any><qti><level>Error</level><mode>0002</mode></qti><qti><mode>1</mode></qti></any>", "2 1"},
        {"<root><qti><mode>2</mode><level>debug</level>", "2 8"}, // not closed, and no backup
        {"<root><qti><mode>2x</mode><level/></qti></root>", "2 0"},
        {"<root><qti><mode>-1</mode><level>info</level></qti></root>", "-1 4"},
        {"<root><qti><mode>one</mode><level>warning</level></qti></root>", "0 2"},
        {"<root><qti><mode/><level>null</level></qti></root>", "0 0"},
        {"<root><qti><mode>00002</mode><level>debug</level></qti></root>", "0 0"},
        {"<root><qti><level>debug</level></qti></root>", "0 0"},
        {"<root><qti><mode>2</mode></qti></root>", "2 0"},
        {"<root><qti><mode>2</mode><level>verbose</level></qti></root>", "Unsupported trace level(verbose)\n2 0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file != NO_FILE ? row.file : "no file");
        put_both(LOG, row.file, NO_FILE);
        EXPECT_EQ(row.out, started(FRWK_MODULE_QTI));
        EXPECT_EQ(row.file != NO_FILE, exists(LOG));
    }
}

// A file that was cut off has its backup beside it. The mode that counts is told by where it stands.
TEST(LogConf, CutOffSave)
{
    const std::string whole = "<root><qti><mode>1</mode><level/></qti></root>";
    const std::string piece = "<root><qti><mode>1</mode><level/></qti>";
    const std::string backup = "<root><qti><mode>2</mode><level/></qti></root>";
    const std::string open_backup = "<root><qti><mode>2</mode><level/></qti>";
    const struct {
        const char *name;
        std::string file;
        std::string backup;
        const char *mode; // read; 0 when there are no settings
        bool recovered;
    } rows[] = {
        {"whole", whole, backup, "1", false},
        {"whole, comment behind", whole + "\n<!-- x -->\n ", backup, "1", false},
        {"whole, backup broken", whole, BROKEN, "1", false},
        {"empty-element root", "<root/>", backup, "0", false},
        {"empty-element root, blank", "<root a='1' / >", backup, "0", false},
        {"empty", "", backup, "2", true},
        {"piece that parses", piece, backup, "2", true},
        {"piece with a child named as the root", piece + "<root><root/></root>", backup, "2", true},
        {"piece, comment behind", piece + "<!-- x -->", backup, "2", true},
        {"piece that does not parse", piece.substr(0, 20), backup, "2", true},
        {"zeros", whole.substr(0, 30) + std::string(20, '\0'), backup, "2", true},
        {"two roots", whole + whole, backup, "2", true},
        {"backup not closed", "", open_backup, "2", true},
        {"both broken", BROKEN, BROKEN, "0", false},
        {"piece, backup broken", piece, BROKEN, "1", false},
        {"piece, backup empty", piece, "", "1", false},
    };
    for (const auto &row : rows) {
        for (bool missing : {false, true}) {
            if (missing && !row.recovered) {
                continue;
            }
            SCOPED_TRACE(row.name + std::string(missing ? ", file missing" : ""));
            std::filesystem::remove_all(DIR);
            write_file(LOG + ".bak", row.backup);
            if (!missing) {
                write_file(LOG, row.file);
            }
            EXPECT_EQ(row.mode + std::string(" 0"), started(FRWK_MODULE_QTI));
            EXPECT_EQ(missing ? "" : row.file, read_file(LOG)) << "reading changes nothing";
            EXPECT_EQ(row.backup, read_file(LOG + ".bak"));

            Outcome outcome = call([] { return frwk_set_trace_info(FRWK_MODULE_MBIMD, 3, "info"); });
            if (row.file == BROKEN && !row.recovered) {
                EXPECT_EQ(4, outcome.rc);
                EXPECT_EQ(BROKEN_FILE + ("frwk_set_trace_info" + PARSE_FAILED), outcome.said)
                    << "and nothing of the backup";
                continue;
            }
            EXPECT_EQ(0, outcome.rc);
            EXPECT_EQ(Texts{"frwk_set_trace_info: get mbimd" + MISSING}, outcome.said);
            EXPECT_EQ(row.mode + std::string(" 0"), started(FRWK_MODULE_QTI));
            EXPECT_EQ(Texts{"log_conf.xml"}, listing());
        }
    }
}

// A live save is waited for, but not for ever; reading does not wait at all.
TEST(LogConf, LockHeldElsewhere)
{
    put_both(LOG, "<root><qti/></root>", NO_FILE);
    {
        Lock lock;
        ASSERT_TRUE(lock.held);
        long start = now_ms();
        EXPECT_EQ("0 0", started(FRWK_MODULE_QTI));
        EXPECT_LT(now_ms() - start, 3000);
        start = now_ms();
        Outcome outcome = call([] { // a change that has begun is finished, whoever cancels its thread
            static int rc = -2;
            const auto body = [](void *) -> void * {
                rc = frwk_set_trace_info(FRWK_MODULE_QTI, 1, "info");
                pthread_testcancel();
                return nullptr;
            };
            pthread_t thread;
            void *ended = nullptr;
            EXPECT_EQ(0, pthread_create(&thread, nullptr, body, nullptr));
            EXPECT_EQ(0, pthread_cancel(thread));
            pthread_join(thread, &ended);
            EXPECT_EQ(PTHREAD_CANCELED, ended);
            return rc;
        });
        EXPECT_GE(now_ms() - start, 3000);
        EXPECT_EQ(0, outcome.rc);
        EXPECT_EQ(Texts{"warning|frwk_set_trace_info: no lock on '/usrdata/odm', errno=11"}, outcome.said);
    }
    EXPECT_EQ(0, frwk_all_set_trace_info(2, "info"));
    EXPECT_TRUE(Lock().held);
    EXPECT_EQ("2 4", started(FRWK_MODULE_QTI));
}

} // namespace
