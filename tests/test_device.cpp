// The example device from end to end: its programs as they are, a real system log daemon, real terminals.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "frwk_test.h"

using namespace frwk_test;

namespace {

const std::string EMULATOR = DEVICE_EMULATOR, PROGRAMS = DEVICE_PROGRAMS;

// Where the monitor is. Under an emulator it cannot start the programs itself, so each of them gets a script beside a
// copy of it.
std::string monitor_dir()
{
    const std::string dir = "/usrdata/programs";
    if (EMULATOR.empty()) {
        return PROGRAMS;
    }
    for (const std::string name : {"qmuxd", "atfwd_daemon", "serial_bridge", "dial_test"}) {
        write_file(dir + "/" + name, "#!/bin/sh\nexec " + EMULATOR + " " + PROGRAMS + "/" + name + " \"$@\"\n");
        std::filesystem::permissions(dir + "/" + name, std::filesystem::perms::owner_all);
    }
    std::filesystem::copy(PROGRAMS + "/monitor", dir);
    return dir;
}

// Becomes the program of a command line.
void become(const std::string &line, const std::string &dir = PROGRAMS)
{
    execl("/bin/sh", "sh", "-c", ("exec " + EMULATOR + " " + dir + "/" + line).c_str(), nullptr);
    _exit(127);
}

Result run(const std::string &line)
{
    return run_child([&] { become(line); });
}

void expect_run(const std::string &line)
{
    const Result result = run(line);
    EXPECT_TRUE(result.ok()) << line << result;
}

// A raw terminal whose other side, the slave, a program opens by the name of a link.
struct Terminal {
    explicit Terminal(const std::string &link) : fd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_TRUE(grantpt(fd) == 0 && unlockpt(fd) == 0);
        slave = open(ptsname(fd), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings;
        EXPECT_EQ(0, tcgetattr(slave, &settings));
        cfmakeraw(&settings);
        EXPECT_EQ(0, tcsetattr(slave, TCSANOW, &settings));
        unlink(link.c_str());
        EXPECT_EQ(0, symlink(ptsname(fd), link.c_str()));
    }
    ~Terminal()
    {
        close(slave);
        close(fd);
    }
    void send(const std::string &bytes) const
    {
        for (size_t done = 0; done < bytes.size();) {
            ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(n, 0);
            done += static_cast<size_t>(n);
        }
    }
    // What arrives until `end`, with it.
    std::string receive(const std::string &end) const
    {
        std::string text;
        while (!contains(text, end)) {
            const std::string byte = raw_recv(fd, 1);
            if (byte.empty()) {
                break;
            }
            text += byte;
        }
        return text;
    }

    int fd, slave;
};

// The process that holds a module's lock; 0 for none.
pid_t holder(const std::string &module)
{
    int fd = open(("/tmp/odm/lock/" + module).c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const bool held = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return held ? lock.l_pid : 0;
}

void expect_anew(const std::string &module, pid_t old)
{
    EXPECT_TRUE(wait_until([&] { return holder(module) != 0 && holder(module) != old; }, 2 * DEADLINE_MS)) << module;
    expect_run("monitor_tool wait " + module);
}

const char LOG[] = "/usrdata/messages";

long logged(const std::string &part)
{
    const std::vector<std::string> lines = split_lines(read_file(LOG));
    return std::count_if(lines.begin(), lines.end(), [&](const std::string &line) { return contains(line, part); });
}

struct Device : ::testing::Test {
    Device() : modem("/usrdata/modem"), left(std::make_unique<Terminal>("/usrdata/left")), right("/usrdata/right")
    {
        syslogd.start([] { execlp("busybox", "busybox", "syslogd", "-n", "-S", "-O", LOG, nullptr); });
        EXPECT_TRUE(wait_until([] { return exists(LOG) && exists("/dev/log"); }));
        expect_run("monitor_tool start-cmd atfwd_daemon /usrdata/modem");
        expect_run("monitor_tool start-cmd serial_bridge '-l /usrdata/left -r /usrdata/right'");
        expect_run("logtool set all 1 info");
        monitor.start([dir = monitor_dir()] { become("monitor", dir); });
        for (const std::string module : MODULES) {
            expect_run("monitor_tool wait " + module);
        }
    }
    ~Device()
    {
        EXPECT_EQ(0, monitor.stop(SIGTERM).status) << "the monitor ends in order";
        for (const char *module : MODULES) {
            EXPECT_EQ(0, holder(module)) << module;
        }
    }

    static constexpr const char *MODULES[] = {"monitor", "atfwd_daemon", "serial_bridge", "qmuxd"};
    Terminal modem;
    std::unique_ptr<Terminal> left;
    Terminal right;
    Process syslogd, monitor;
};

TEST_F(Device, AnswersCommandLines)
{
    const std::pair<const char *, const char *> rows[] = {
        {"AT", "OK\r\n"},
        {"ati", "libfrwk example device, module 2\r\nOK\r\n"},
        {"AT+CCLK?", "+CCLK: \"2"},
        {"AT+LOAD?", "+LOAD: "},
        {"AT+STATUS=qmuxd", "+STATUS: qmuxd,1\r\nOK\r\n"},
        {"AT+STATUS=qti", "+CME ERROR: 1\r\n"},
        {"AT+STATUS=", "ERROR\r\n"},
        {"AT+PERIOD=499", "+CME ERROR: 3\r\n"},
        {"AT+PERIOD=500", "OK\r\n"},
        {"AT+SAMPLE", "OK\r\n"},
        {"AT+MARK=one two", "OK\r\n"},
        {"AT+TRACE=qmuxd,1,loud", "ERROR\r\n"},
        {"AT+TRACE=qmuxd,1,info", "OK\r\n"},
    };
    for (const auto &[line, answer] : rows) {
        modem.send(line + std::string("\r"));
        EXPECT_TRUE(contains(modem.receive(answer), answer)) << line;
        modem.receive(contains(answer, "\n") ? "" : "OK\r\n");
    }
    modem.send(std::string(5000, 'A') + "\n");
    EXPECT_EQ("ERROR\r\n", modem.receive("\n"));
    modem.send("AT+MEASURE\r");
    EXPECT_EQ("OK\r\n+MEASURED: ", modem.receive("+MEASURED: "));
    EXPECT_TRUE(wait_until([] { return logged("mark of module 2: one two") == 3; })) << "all but itself";
    EXPECT_EQ("500", read_file("/usrdata/odm/qmuxd_period"));
}

TEST_F(Device, BridgesBytes)
{
    std::string bytes;
    for (int i = 0; i < 100000; i++) {
        bytes += static_cast<char>(i * 7 + i / 256);
    }
    std::thread sender([&] { left->send(bytes); });
    EXPECT_EQ(bytes, raw_recv(right.fd, bytes.size())) << "to the right, faster than it is read";
    sender.join();

    left.reset(); // hangs up, and what is sent to it meanwhile waits for its return
    EXPECT_TRUE(wait_until([] { return logged("/usrdata/left hung up") > 0; }));
    right.send("while away");
    left = std::make_unique<Terminal>("/usrdata/left");
    EXPECT_EQ("while away", raw_recv(left->fd, 10));
}

TEST_F(Device, KeepsModulesRunning)
{
    pid_t old = holder("qmuxd");
    kill(old, SIGKILL);
    expect_anew("qmuxd", old);

    old = holder("qmuxd");
    usleep(2500 * 1000); // so that the monitor has had a first answer and no longer waits for the start
    kill(old, SIGSTOP);
    expect_anew("qmuxd", old);
    EXPECT_EQ(1, logged("qmuxd does not answer"));

    expect_run("monitor_tool service qmuxd off");
    EXPECT_TRUE(wait_until([] { return holder("qmuxd") == 0; }));
    usleep(2500 * 1000); // longer than a restart takes
    EXPECT_EQ(0, holder("qmuxd"));
    expect_run("monitor_tool service qmuxd on");
    expect_anew("qmuxd", 0);

    expect_run("monitor_tool start-cmd dial_test 'one  two'");
    expect_run("monitor_tool service dial_test on");
    expect_anew("dial_test", 0);
    for (const std::string request : {"reset", "reboot"}) {
        const pid_t first = holder("atfwd_daemon"), last = holder("dial_test");
        expect_run("monitor_tool " + request);
        expect_anew("atfwd_daemon", first);
        expect_anew("dial_test", last);
        const std::string command = read_file("/proc/" + std::to_string(holder("dial_test")) + "/cmdline");
        EXPECT_EQ(request == "reboot" && EMULATOR.empty(), contains(command, std::string("one\0two", 7))) << request;
    }
    const std::string echo = run("monitor_tool send dial_test 7 '68 65 6c6c6f' --rsp 6").out;
    EXPECT_TRUE(contains(echo, "68 65 6c 6c 6f 00") && contains(echo, "|hello.|")) << echo;
    const std::string status = run("monitor_tool status").out;
    EXPECT_TRUE(contains(status, "qmuxd          yes  ")) << status;
    EXPECT_TRUE(contains(status, "mbimd          no             -  -           yes")) << status;
}

TEST_F(Device, ChangesTracesAtOnceAndForGood)
{
    expect_run("logtool set qmuxd 2 debug");
    EXPECT_TRUE(wait_until([] { return logged("debug|qmuxd.cpp|sample") >= 2; })) << "lines start";
    const pid_t old = holder("qmuxd");
    kill(old, SIGTERM);
    expect_anew("qmuxd", old);
    const std::string from_new = "qmuxd[" + std::to_string(holder("qmuxd")) + "]: debug|";
    EXPECT_TRUE(wait_until([&] { return logged(from_new) > 0; })) << "stored";
    EXPECT_TRUE(contains(run("logtool").out, "qmuxd          2     debug    yes\n"));

    expect_run("logtool set qmuxd 0 null");
    usleep(500 * 1000); // what was on its way has arrived
    const long before = logged("qmuxd[");
    usleep(2000 * 1000);
    EXPECT_EQ(before, logged("qmuxd[")) << "lines stop";
}

TEST(LogTool, FollowsALog)
{
    const std::string path = "/usrdata/some/log";
    Terminal screen("/usrdata/screen");
    write_file(path, "Nov 1 00:00:00 host qmuxd[1]: error|a|b|1::old\n");
    Process tool;
    tool.start([&] {
        dup2(screen.slave, 1);
        become("logtool follow " + path);
    });
    EXPECT_TRUE(wait_until([&] {
        std::ofstream(path, std::ios::app) << "qti[1]: info|ready\n"; // until it has found the file's end
        return raw_recv(screen.fd, 1, 100) == "q";
    }));
    std::ofstream(path, std::ios::app) << "x kernel: [12]: info|no module\nx qmuxd[1]: error|a|b|1::half" << std::flush;
    usleep(500 * 1000);
    std::ofstream(path, std::ios::app) << " line\n";
    EXPECT_TRUE(contains(screen.receive("half line\033[0m\n"), "ready\n\033[31mx qmuxd[1]: error|a|b|1::half line"));
    rename(path.c_str(), (path + ".0").c_str());
    write_file(path, "monitor[2]: warning|rotated\n");
    EXPECT_EQ("\033[33mmonitor[2]: warning|rotated\033[0m\n", screen.receive("\n"));
    write_file(path, "qti[3]: [qti]ASSERT(\n"); // shorter: emptied meanwhile
    EXPECT_EQ("\033[1;31mqti[3]: [qti]ASSERT(\033[0m\n", screen.receive("\n"));
}

// qmuxd and serial_bridge have sockets here, but never answer.
TEST(Tools, RefuseMisuseWithOneLine)
{
    const int silent[] = {raw_listen("qmuxd"), raw_listen("serial_bridge")};
    const struct {
        std::string command;
        int status;
        std::string line;
    } rows[] = {
        {"logtool show", 2, "logtool: unknown command 'show' (see logtool --help)"},
        {"logtool set qmuxd 1", 2, "logtool: wrong number of arguments for 'set' (see logtool --help)"},
        {"logtool set nobody 1 info", 2, "logtool: unknown module 'nobody'"},
        {"logtool set logtool 1 info", 2, "logtool: logtool is a tool: it has no trace settings"},
        {"logtool set all 4 info", 2, "logtool: '4' is no mode: a number from 0 to 3"},
        {"logtool set all 1 loud", 2, "logtool: unknown level 'loud': null, error, warning, info or debug"},
        {"logtool set qmuxd 1 info", 1, "logtool: qmuxd does not answer: stored for its next start"},
        {"logtool follow /usrdata/none", 1, "logtool: cannot follow /usrdata/none: No such file or directory"},
        {"monitor_tool", 2, "monitor_tool: a command is missing (see monitor_tool --help)"},
        {"monitor_tool service qmuxd maybe", 2, "monitor_tool: 'maybe' is neither on nor off"},
        {"monitor_tool service logtool on", 2, "monitor_tool: logtool is no module that the monitor runs"},
        {"monitor_tool service dial_test on", 1, "monitor_tool: stored, but the monitor is not running"},
        {"monitor_tool send dial_test 7", 1, "monitor_tool: dial_test is not running"},
        {"monitor_tool send qmuxd -1", 2, "monitor_tool: '-1' is no message id: a number from 0 to 2147483647"},
        {"monitor_tool send qmuxd 7 0", 2, "monitor_tool: '0' is no body: pairs of hexadecimal digits"},
        {"monitor_tool send qmuxd 7 --rsp", 2, "monitor_tool: '--rsp' lacks its number"},
        {"monitor_tool wait serial_bridge 0", 1, "monitor_tool: serial_bridge does not answer after 0 seconds"},
        {"monitor_tool reboot", 1, "monitor_tool: the monitor is not running"},
        {"serial_bridge -l /dev/null", 2, "serial_bridge: usage: serial_bridge -l DEVICE -r DEVICE"},
        {"atfwd_daemon a b", 2, "atfwd_daemon: usage: atfwd_daemon [TERMINAL]"},
    };
    for (const auto &row : rows) {
        const Result result = run(row.command);
        EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == row.status) << row.line << result;
        EXPECT_EQ(row.line + "\n", result.err + result.out);
    }
    EXPECT_TRUE(contains(read_file("/usrdata/odm/start_conf.xml"), "dial_test")) << "a refused service is stored";
    for (int fd : {silent[0], silent[1], raw_listen("monitor")}) {
        const Result result = run("monitor_tool service qmuxd off");
        EXPECT_EQ("monitor_tool: the monitor does not answer\n", result.err);
        close(fd);
    }
}

} // namespace
