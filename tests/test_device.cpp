// The example device: its programs as they are, a real system log daemon, real terminals. What the demo checks as well
// is left to it.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "frwk_test.h"

using namespace frwk_test;

namespace {

const std::string EMULATOR = DEVICE_EMULATOR, PROGRAMS = DEVICE_PROGRAMS;

// Becomes the program of a command line.
void become(const std::string &line)
{
    execl("/bin/sh", "sh", "-c", ("exec " + EMULATOR + " " + PROGRAMS + "/" + line).c_str(), nullptr);
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
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    }
    // What arrives until `end`, with it.
    std::string receive(const std::string &end) const
    {
        std::string text, byte;
        do {
            byte = raw_recv(fd, 1);
            text += byte;
        } while (!byte.empty() && !contains(text, end));
        return text;
    }

    int fd, slave;
};

pid_t pid_of(const std::string &module)
{
    return atoi(read_file("/tmp/odm/lock/" + module).c_str());
}

void expect_anew(const std::string &module, pid_t old)
{
    EXPECT_TRUE(wait_until([&] { return pid_of(module) != old; }, 2 * DEADLINE_MS)) << module;
    expect_run("monitor_tool wait " + module);
}

const char LOG[] = "/usrdata/messages";

long logged(const std::string &part)
{
    const std::vector<std::string> lines = split_lines(read_file(LOG));
    return std::count_if(lines.begin(), lines.end(), [&](const std::string &line) { return contains(line, part); });
}

TEST(Device, GoesOnWhateverHappens)
{
    if (!EMULATOR.empty()) {
        GTEST_SKIP() << "the monitor cannot start programs of another machine";
    }
    Terminal modem("/usrdata/modem"), right("/usrdata/right");
    auto left = std::make_unique<Terminal>("/usrdata/left");
    Process syslogd, monitor;
    syslogd.start([] { execlp("busybox", "busybox", "syslogd", "-n", "-S", "-O", LOG, nullptr); });
    EXPECT_TRUE(wait_until([] { return exists(LOG) && exists("/dev/log"); }));
    expect_run("monitor_tool start-cmd atfwd_daemon /usrdata/modem");
    expect_run("monitor_tool start-cmd serial_bridge '-l /usrdata/left -r /usrdata/right'");
    expect_run("logtool set all 1 info");
    monitor.start([] { become("monitor"); });
    for (const std::string module : {"monitor", "atfwd_daemon", "serial_bridge", "qmuxd"}) {
        expect_run("monitor_tool wait " + module);
    }
    const std::pair<std::string, std::string> commands[] = {
        {std::string(5000, 'A'), "ERROR\r\n"}, {"AT+STATUS=", "ERROR\r\n"},   {"AT+PERIOD=499", "+CME ERROR: 3\r\n"},
        {"AT+PERIOD=500", "OK\r\n"},           {"AT+MARK=one two", "OK\r\n"}, {"AT+TRACE=qmuxd,1,loud", "ERROR\r\n"}};
    for (const auto &[line, answer] : commands) {
        modem.send(line + "\r");
        EXPECT_EQ(answer, modem.receive("\n")) << line;
    }
    EXPECT_TRUE(wait_until([] { return logged("mark of module 2: one two") == 3; })) << "all but itself";
    EXPECT_EQ("500", read_file("/usrdata/odm/qmuxd_period"));

    left.reset(); // hangs up, and what is sent to it meanwhile waits for its return
    EXPECT_TRUE(wait_until([] { return logged("/usrdata/left hung up") > 0; }));
    right.send("while away");
    left = std::make_unique<Terminal>("/usrdata/left");
    EXPECT_EQ("while away", raw_recv(left->fd, 10));

    pid_t old = pid_of("qmuxd");
    usleep(2500 * 1000); // so that the monitor has had a first answer and no longer waits for the start
    kill(old, SIGSTOP);
    expect_anew("qmuxd", old);
    EXPECT_EQ(1, logged("qmuxd does not answer"));
    old = pid_of("qmuxd");
    expect_run("monitor_tool service qmuxd off");
    usleep(2500 * 1000); // longer than a restart takes
    EXPECT_FALSE(exists("/proc/" + std::to_string(old)) || pid_of("qmuxd") != old);

    expect_run("monitor_tool start-cmd dial_test 'one  two'");
    expect_run("monitor_tool service dial_test on");
    expect_anew("dial_test", 0);
    for (const std::string request : {"reset", "reboot"}) { // the second one reads the settings anew
        old = pid_of("dial_test");
        expect_run("monitor_tool " + request);
        expect_anew("dial_test", old);
        const std::string command = read_file("/proc/" + std::to_string(pid_of("dial_test")) + "/cmdline");
        EXPECT_EQ(request == "reboot", contains(command, std::string("one\0two", 7))) << request;
    }
    const std::string echo = run("monitor_tool send dial_test 7 '68 65 6c6c6f' --rsp 6").out;
    EXPECT_TRUE(contains(echo, "68 65 6c 6c 6f 00") && contains(echo, "|hello.|")) << echo;
    EXPECT_EQ(0, monitor.stop(SIGTERM).status) << "ends in order";
    const std::string status = run("monitor_tool status").out;
    EXPECT_TRUE(contains(status, "\nqmuxd          no             -  -           no ")) << status;
    EXPECT_TRUE(contains(status, "\ndial_test      no             -  -           yes        one  two")) << status;
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
        {"logtool set all 4 info", 2, "logtool: '4' is no mode: a number from 0 to 3"},
        {"logtool set qmuxd 1 info", 1, "logtool: qmuxd does not answer: stored for its next start"},
        {"monitor_tool service qmuxd maybe", 2, "monitor_tool: 'maybe' is neither on nor off"},
        {"monitor_tool service dial_test on", 1, "monitor_tool: stored, but the monitor is not running"},
        {"monitor_tool send qmuxd 7 0", 2, "monitor_tool: '0' is no body: pairs of hexadecimal digits"},
        {"monitor_tool wait serial_bridge 0", 1, "monitor_tool: serial_bridge does not answer after 0 seconds"},
        {"serial_bridge -l /dev/null", 2, "serial_bridge: usage: serial_bridge -l DEVICE -r DEVICE"},
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
