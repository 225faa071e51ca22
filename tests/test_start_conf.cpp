// The start configuration on disk: default file, setters and the message to the monitor, query, the monitor's table;
// shell commands.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "conf_test.h"

using namespace conf_test;
using namespace frwk_test;

namespace {

const std::string PARSE_FAILED = ": parse '/usrdata/odm/start_conf.xml' failed.";
const std::string MISSING = " from '/usrdata/odm/start_conf.xml' failed";
const Texts BROKEN_FILE = {"frwk_xml_cache_parse: Error: line:1,status:4,cause:Opening and ending tag mismatch!",
                           "frwk_xml_file_parse: parse xml '/usrdata/odm/start_conf.xml' failed!"};
const Texts EMPTY_FILE = {"frwk_xml_file_parse: invalid xml '/usrdata/odm/start_conf.xml'!"};
const char BROKEN[] = "<root><qti></root>";

Texts operator+(Texts list, const std::string &more)
{
    list.push_back(more);
    return list;
}

std::string entry(const char *name, const char *service, const char *cmd = "<start_cmd/>")
{
    return std::string("   <") + name + ">\n      <monitor_service>" + service + "</monitor_service>\n      " + cmd +
           "\n   </" + name + ">\n";
}

const std::string DEFAULT_FILE =
    "<root>\n" + entry("monitor", "0") + entry("atfwd_daemon", "1") + entry("dial_test", "0") + entry("logtool", "0") +
    entry("serial_bridge", "1", "<start_cmd>-l /dev/smd7 -r /dev/ttyHSL1</start_cmd>") + entry("monitor_tool", "0") +
    entry("mbimd", "1") + entry("qti", "1") + entry("qmuxd", "1") + "</root>\n";

TEST(StartConf, DefaultFile)
{
    std::filesystem::remove_all(DIR);
    for (const char *before : {NO_FILE, BROKEN, "<root/>"}) {
        if (before != NO_FILE) {
            put(START, before);
        }
        Outcome outcome = call(frwk_init_app_start_cfg_file);
        EXPECT_EQ(0, outcome.rc);
        EXPECT_EQ(before == NO_FILE ? Texts{"debug|frwk_system: exec cmd 'mkdir /usrdata/odm' success!"} : Texts{},
                  outcome.said);
        EXPECT_EQ(DEFAULT_FILE, read_file(START));
        EXPECT_EQ(Texts{"start_conf.xml"}, listing());
    }
    Result result = run_child([] { // the table of the calling process, and texts of any length
        std::string cmd(1000, 'x');
        g_s_modules_info[FRWK_MODULE_QTI].start_cmd = cmd.data();
        g_s_modules_info[FRWK_MODULE_QTI].flags = 0;
        EXPECT_EQ(0, frwk_init_app_start_cfg_file());
        EXPECT_EQ(changed(DEFAULT_FILE, "", entry("qti", "1"),
                          entry("qti", "0", ("<start_cmd>" + cmd + "</start_cmd>").c_str())),
                  read_file(START));
    });
    EXPECT_TRUE(result.ok()) << result;
}

TEST(StartConf, Setters)
{
    const auto set = [](uint32_t id, const char *cmd) { return [=] { return frwk_set_app_start_cmd(id, cmd); }; };
    const auto supervise = [](uint32_t id) { return [=] { return frwk_set_app_monitor_conf(id, 1); }; };
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
         set(8, "-a <b> & 'c'"),
         0,
         {},
         changed(DEFAULT_FILE, "<qti>", "<start_cmd/>", "<start_cmd>-a &lt;b&gt; &amp; &apos;c&apos;</start_cmd>")},
        {"null",
         DEFAULT_FILE.c_str(),
         set(5, nullptr),
         0,
         {},
         changed(DEFAULT_FILE, "", "<start_cmd>-l /dev/smd7 -r /dev/ttyHSL1</start_cmd>", "<start_cmd/>")},
        {"no entry",
         "<x/>",
         set(3, "y"),
         0,
         {"frwk_set_app_start_cmd: get dial_test" + MISSING},
         "<x>\n   <dial_test>\n      <start_cmd>y</start_cmd>\n   </dial_test>\n</x>\n"},
        {"empty", "", set(3, "y"), 4, EMPTY_FILE + ("frwk_set_app_start_cmd" + PARSE_FAILED), ""},
        {"broken", BROKEN, set(3, "y"), 4, BROKEN_FILE + ("frwk_set_app_start_cmd" + PARSE_FAILED), BROKEN},
        {"broken, flag", BROKEN, supervise(3), 4, BROKEN_FILE + ("frwk_set_app_monitor_conf" + PARSE_FAILED), BROKEN},
        {"id 0", NO_FILE, set(0, "y"), 3, {"frwk_set_app_start_cmd: invalid module id=0"}, ""},
        {"id 10, flag", NO_FILE, supervise(10), 3, {"frwk_set_app_monitor_conf: invalid module id=10"}, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        put_both(START, row.before, NO_FILE);
        std::filesystem::create_directories(DIR);
        Outcome outcome = call(row.call);
        EXPECT_EQ(row.rc, outcome.rc);
        EXPECT_EQ(row.said, outcome.said);
        EXPECT_EQ(row.after, read_file(START));
        EXPECT_FALSE(exists(START + ".bak"));
    }
    std::filesystem::remove_all(DIR); // where the directory is a file, nothing can be created
    write_file(DIR, "");
    Outcome outcome = call(supervise(3));
    EXPECT_EQ(-1, outcome.rc);
    EXPECT_EQ((Texts{"frwk_xml_file_save: create xml '/usrdata/odm/start_conf.xml' failed!",
                     "frwk_init_app_start_cfg_file: save start config file fialed! from '/usrdata/odm/start_conf.xml'",
                     "frwk_set_app_monitor_conf: frwk_init_app_start_cfg_file failed!"}),
              outcome.said);
    std::filesystem::remove_all(DIR);
}

TEST(StartConf, MonitorIsTold)
{
    const struct {
        const char *name;
        bool running;
        std::string answer;
        int rc;
        const char *said; // the end of the message
    } rows[] = {
        {"not running", false, "", -1, "ret : 1  rc : -1"},
        {"success", true, bytes_of(RspHdr{0, 0}), 0, ""},
        {"handler failed", true, bytes_of(RspHdr{2, 0}), -1, "ret : 2  rc : 2"},
        {"handler's other result", true, bytes_of(RspHdr{-7, 0}), -1, "ret : 0  rc : -7"},
        {"no answer", true, "", -1, "ret : 19  rc : -1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        put_both(START, NO_FILE, NO_FILE);
        std::string request;
        bool unlocked = false;
        std::thread monitor;
        if (row.running) {
            monitor = std::thread([&, listener = raw_listen("monitor")] {
                int fd = raw_accept(listener);
                request = raw_recv(fd, 32);
                unlocked = Lock().held;
                raw_send(fd, row.answer);
                close(fd);
                close(listener);
            });
        }
        Outcome outcome = call([] { return frwk_set_app_monitor_conf(FRWK_MODULE_DIAL_TEST, -5); });
        EXPECT_EQ(row.rc, outcome.rc);
        std::string last = outcome.said.empty() ? "" : outcome.said.back();
        EXPECT_EQ(row.rc == 0 ? "debug|frwk_system: exec cmd 'mkdir /usrdata/odm' success!"
                              : std::string("frwk_set_app_monitor_conf: frwk_ipc_msg_set FRWK_MODULE_MONITOR error ") +
                                    row.said,
                  last);
        EXPECT_EQ(changed(DEFAULT_FILE, "<dial_test>", "0", "-5"), read_file(START)) << "whatever the monitor said";
        if (row.running) {
            monitor.join();
            const int32_t body[2] = {FRWK_MODULE_DIAL_TEST, -5};
            EXPECT_EQ(bytes_of(ReqHdr{0, 503, 0, 3, 0, 8}) + bytes_of(body), request);
            EXPECT_TRUE(unlocked);
        }
    }
    Result result = run_child([] { // the monitor itself is told without a socket, and may change the file then
        ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_MONITOR, nullptr));
        frwk_ipc_init([](uint32_t from, uint32_t msg, const uint8_t *req, int32_t len, uint8_t *, int32_t, uint32_t) {
            const int32_t expected[2] = {FRWK_MODULE_QTI, 1};
            bool right = from == 1 && msg == 503 && len == 8 && memcmp(req, expected, 8) == 0;
            return right && frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x") == 0 ? 0 : 1;
        });
        EXPECT_EQ(0, frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 1));
    });
    EXPECT_TRUE(result.ok()) << result;
}

// The query's answer for qti and what it says; qti's flag and start_cmd in the table that a monitor then loads.
TEST(StartConf, QueryAndLoad)
{
    const std::string no_flag = "frwk_get_app_monitor_conf: frwk_xml_get_child_node monitor_service failed ";
    const struct {
        const char *file;
        int monitored;
        Texts said;
        const char *loaded;
    } rows[] = {
        {NO_FILE, 1, {}, "7 built-in"},
        {"", 1, EMPTY_FILE + ("frwk_get_app_monitor_conf" + PARSE_FAILED), "7 built-in"},
        {BROKEN, 1, BROKEN_FILE + ("frwk_get_app_monitor_conf" + PARSE_FAILED), "7 built-in"},
        {"<r/>", 1, {"frwk_get_app_monitor_conf: get qti" + MISSING}, "7 built-in"},
        {"<r><qti><start_cmd>x</start_cmd></qti></r>", 1, {no_flag}, "7 built-in"},
        {"<r><qti><monitor_service>0</monitor_service></qti></r>", 0, {}, "3 built-in"},
        {"<r><qti><monitor_service>01</monitor_service><start_cmd/></qti></r>", 1, {}, "7 (null)"},
        {"<r><qti><monitor_service>&#49;</monitor_service><start_cmd>a &lt; b</start_cmd></qti></r>", 0, {}, "3 a < b"},
        {"<r><qti><monitor_service> 1x</monitor_service></qti><qti/></r>", 1, {}, "7 built-in"},
        {"<r><qti><monitor_service>2</monitor_service></qti></r>", 0, {}, "3 built-in"},
        {"<r><qti><monitor_service>yes</monitor_service></qti></r>", 0, {}, "3 built-in"},
        {"<r><qti><monitor_service/></qti></r>", 0, {}, "3 built-in"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file != NO_FILE ? row.file : "no file");
        put_both(START, row.file, NO_FILE);
        Outcome outcome = call([] { return frwk_get_app_monitor_conf(FRWK_MODULE_QTI); });
        EXPECT_EQ(row.monitored, outcome.rc);
        EXPECT_EQ(row.said, outcome.said);
        Result result = run_child([] {
            static char cmd[] = "built-in";
            frwk_module_info_t &qti = g_s_modules_info[FRWK_MODULE_QTI];
            qti.start_cmd = cmd;
            be_module(FRWK_MODULE_MONITOR);
            printf("%d %s", qti.flags, qti.start_cmd != nullptr ? qti.start_cmd : "(null)");
            EXPECT_EQ((qti.flags & FRWK_MODULE_FLAG_MONITOR_SERVICE) != 0, frwk_get_app_monitor_conf(FRWK_MODULE_QTI));
        });
        EXPECT_TRUE(result.ok()) << result;
        EXPECT_EQ(row.loaded, result.out) << "and start-up says nothing";
    }
    for (uint32_t id : {0U, 10U, 0xffffffffU}) {
        Outcome outcome = call([id] { return frwk_get_app_monitor_conf(id); });
        EXPECT_EQ(0, outcome.rc);
        EXPECT_EQ(Texts{"frwk_get_app_monitor_conf: invalid module id=" + std::to_string(static_cast<int>(id))},
                  outcome.said);
    }
    put_both(START, "", "<r><qti><monitor_service>0</monitor_service></qti></r>"); // a save that was cut off
    Outcome outcome = call([] { return frwk_get_app_monitor_conf(FRWK_MODULE_QTI); });
    EXPECT_EQ(0, outcome.rc);
    EXPECT_EQ(Texts{}, outcome.said);
}

// The loader's own messages, which start-up keeps silent.
TEST(StartConf, LoaderSays)
{
    put_both(START, "<r><qti><start_cmd/></qti><qmuxd><monitor_service>0</monitor_service></qmuxd></r>", NO_FILE);
    Texts expected;
    for (const char *name :
         {"monitor", "atfwd_daemon", "dial_test", "logtool", "serial_bridge", "monitor_tool", "mbimd"}) {
        expected.push_back(std::string("frwk_init_app_start_cfg: get ") + name + MISSING);
    }
    expected.push_back("frwk_init_app_start_cfg: frwk_xml_get_child_node monitor_service failed ");
    expected.push_back("frwk_init_app_start_cfg: frwk_xml_get_child_node start_cmd failed ");
    Outcome outcome = call([] { return frwk_init_app_start_cfg(), 0; });
    EXPECT_EQ(expected, outcome.said);
    EXPECT_EQ(3, g_s_modules_info[FRWK_MODULE_QMUXD].flags);
    EXPECT_EQ(7, g_s_modules_info[FRWK_MODULE_QTI].flags);
    g_s_modules_info[FRWK_MODULE_QMUXD].flags = 7;
}

TEST(System, ResultsAndMessages)
{
    const struct {
        const char *cmd;
        int rc;
        const char *said;
    } rows[] = {
        {nullptr, 0, "frwk_system: shell cmd is null!"},
        {"", 0, "frwk_system: shell cmd is null!"},
        {"true", 1, "debug|frwk_system: exec cmd 'true' success!"},
        {"exit 3", 0, "frwk_system: exec cmd 'exit 3' errno=3"},
        {"kill -9 $$", 0, "frwk_system: exec cmd 'kill -9 $$' errno=0"},
        {"frwk-no-such-command 2>/dev/null", 0, "frwk_system: exec cmd 'frwk-no-such-command 2>/dev/null' errno=127"},
    };
    for (const auto &row : rows) {
        Outcome outcome = call([&] { return frwk_system(row.cmd); });
        EXPECT_EQ(row.rc, outcome.rc);
        EXPECT_EQ(Texts{row.said}, outcome.said);
    }
    Result result = run_child([] { // without children to wait for, the call itself fails
        signal(SIGCHLD, SIG_IGN);
        Outcome outcome = call([] { return frwk_system("exit 0"); });
        EXPECT_EQ(0, outcome.rc);
        EXPECT_EQ(Texts{"frwk_system: exec cmd exit 0 error!"}, outcome.said);
    });
    EXPECT_TRUE(result.ok()) << result;
}

} // namespace
