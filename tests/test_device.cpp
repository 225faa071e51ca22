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

// Where the programs are. Under an emulator the monitor cannot start them itself, so each of them gets a script beside
// a copy of the monitor.
std::string programs()
{
    std::string emulator = DEVICE_EMULATOR;
    if (emulator.empty()) {
        return DEVICE_PROGRAMS;
    }
    std::string dir = "/usrdata/programs";
    if (!exists(dir)) {
        for (const char *name : {"qmuxd", "atfwd_daemon", "serial_bridge", "dial_test"}) {
            write_file(dir + "/" + name, "#!/bin/sh\nexec " + emulator + " " DEVICE_PROGRAMS "/" + name + " \"$@\"\n");
            std::filesystem::permissions(dir + "/" + name, std::filesystem::perms::owner_all);
        }
        std::filesystem::copy(DEVICE_PROGRAMS "/monitor", dir);
    }
    return dir;
}

[[noreturn]] void become(const std::string &dir, std::vector<std::string> command)
{
    std::string emulator = DEVICE_EMULATOR;
    command[0] = (command[0] == "monitor" ? dir : DEVICE_PROGRAMS) + "/" + command[0];
    for (size_t end = emulator.size(); end != std::string::npos && !emulator.empty();) {
        size_t start = emulator.rfind(' ', end - 1);
        command.insert(command.begin(), emulator.substr(start + 1, end - start - 1));
        end = start;
    }
    std::vector<char *> argv;
    for (std::string &word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

Result run(const std::vector<std::string> &command, int seconds = 60)
{
    std::string dir = programs();
    return run_child([&] { become(dir, command); }, seconds);
}

pid_t spawn(const std::function<void()> &body)
{
    pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(127);
    }
    return pid;
}

// Ends a process and gives its wait status; -1 when it had to be killed.
int stop(pid_t pid, int signal)
{
    int status = -1;
    kill(pid, signal);
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return status;
}

// A raw terminal whose other side, the slave, a program opens by the name of a link.
struct Terminal {
    explicit Terminal(const std::string &link)
    {
        fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(0, grantpt(fd));
        EXPECT_EQ(0, unlockpt(fd));
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
    // What arrives until it ends in `end`.
    std::string receive(const std::string &end) const
    {
        std::string text;
        while (text.size() < end.size() || text.compare(text.size() - end.size(), end.size(), end) != 0) {
            std::string byte = raw_recv(fd, 1);
            if (byte.empty()) {
                break;
            }
            text += byte;
        }
        return text;
    }
    int fd;
    int slave;
};

// The process that holds a module's lock; 0 for none.
pid_t holder(const std::string &module)
{
    int fd = open(("/tmp/odm/lock/" + module).c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    bool held = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return held ? lock.l_pid : 0;
}

bool comes_anew(const std::string &module, pid_t old)
{
    return wait_until([&] { return holder(module) != 0 && holder(module) != old; }, 2 * DEADLINE_MS) &&
           run({"monitor_tool", "wait", module}).ok();
}

const char LOG[] = "/usrdata/messages";

size_t logged(const std::string &part)
{
    std::vector<std::string> lines = split_lines(read_file(LOG));
    return static_cast<size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string &line) { return contains(line, part); }));
}

struct Device : ::testing::Test {
    Device() : modem("/usrdata/modem"), left(std::make_unique<Terminal>("/usrdata/left")), right("/usrdata/right")
    {
        syslogd = spawn([] { execlp("busybox", "busybox", "syslogd", "-n", "-S", "-O", LOG, nullptr); });
        EXPECT_TRUE(wait_until([] { return exists(LOG) && exists("/dev/log"); }));
        EXPECT_TRUE(run({"monitor_tool", "start-cmd", "atfwd_daemon", "/usrdata/modem"}).ok());
        EXPECT_TRUE(run({"monitor_tool", "start-cmd", "serial_bridge", "-l /usrdata/left -r /usrdata/right"}).ok());
        EXPECT_TRUE(run({"logtool", "set", "all", "1", "info"}).ok());
        std::string dir = programs();
        monitor = spawn([&] { become(dir, {"monitor"}); });
        for (const char *module : MODULES) {
            EXPECT_TRUE(run({"monitor_tool", "wait", module}).ok()) << module;
        }
    }
    ~Device()
    {
        EXPECT_EQ(0, stop(monitor, SIGTERM)) << "the monitor ends in order";
        for (const char *module : MODULES) {
            EXPECT_EQ(0, holder(module)) << module;
            EXPECT_EQ(-1, raw_connect(module, 0)) << module;
        }
        stop(syslogd, SIGTERM);
    }
    static constexpr const char *MODULES[] = {"monitor", "atfwd_daemon", "serial_bridge", "qmuxd"};
    Terminal modem;
    std::unique_ptr<Terminal> left;
    Terminal right;
    pid_t syslogd;
    pid_t monitor;
};

TEST_F(Device, AnswersCommandLines)
{
    const struct {
        const char *line;
        int lines; // of the answer
        const char *part;
    } cases[] = {
        {"AT", 1, "OK\r\n"},
        {"ati", 2, "libfrwk example device, module 2\r\nOK"},
        {"AT+CCLK?", 2, "+CCLK: \"2"},
        {"AT+LOAD?", 2, "+LOAD: "},
        {"AT+MEM?", 2, "+MEM: "},
        {"AT+STATUS=qmuxd", 2, "+STATUS: qmuxd,1\r\nOK"},
        {"AT+STATUS=qti", 1, "+CME ERROR: 1\r"},
        {"AT+STATUS=", 1, "ERROR"},
        {"AT+PERIOD=499", 1, "+CME ERROR: 3"},
        {"AT+PERIOD=500", 1, "OK"},
        {"AT+SAMPLE", 1, "OK"},
        {"AT+REPORT", 1, "OK"},
        {"AT+MARK=one two", 1, "OK"},
        {"AT+TRACE=qmuxd,1,loud", 1, "ERROR"},
        {"AT+TRACE=qmuxd,1,info", 1, "OK"},
        {"AT+MEASURE", 2, "+MEASURED: "},
    };
    for (const auto &test : cases) {
        modem.send(std::string(test.line) + "\r");
        std::string answer;
        for (int i = 0; i < test.lines; i++) {
            answer += modem.receive("\r\n");
        }
        EXPECT_TRUE(contains(answer, test.part)) << test.line << " gave " << answer;
    }
    modem.send(std::string(5000, 'A') + "\n");
    EXPECT_EQ("ERROR\r\n", modem.receive("\n"));
    EXPECT_TRUE(wait_until([] { return logged("mark of module 2: one two") == 3; })) << "all but itself";
    EXPECT_EQ(2u, logged("report: ")) << read_file(LOG);
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
    right.send("back");
    EXPECT_EQ("back", raw_recv(left->fd, 4));

    left.reset(); // hangs up, and what is sent to it meanwhile waits for its return
    EXPECT_TRUE(wait_until([] { return logged("/usrdata/left hung up") > 0; }));
    right.send("while away");
    left = std::make_unique<Terminal>("/usrdata/left");
    EXPECT_EQ("while away", raw_recv(left->fd, 10));
    left->send("and again");
    EXPECT_EQ("and again", raw_recv(right.fd, 9));
}

TEST_F(Device, KeepsModulesRunning)
{
    pid_t old = holder("qmuxd");
    kill(old, SIGKILL);
    EXPECT_TRUE(comes_anew("qmuxd", old)) << "died";

    old = holder("qmuxd");
    usleep(2500 * 1000); // so that the monitor has had a first answer and no longer waits for the start
    kill(old, SIGSTOP);
    EXPECT_TRUE(comes_anew("qmuxd", old)) << "fell silent";
    EXPECT_EQ(1u, logged("qmuxd does not answer"));

    EXPECT_TRUE(run({"monitor_tool", "service", "qmuxd", "off"}).ok());
    EXPECT_TRUE(wait_until([] { return holder("qmuxd") == 0; }));
    usleep(2500 * 1000); // longer than a restart takes
    EXPECT_EQ(0, holder("qmuxd"));
    EXPECT_TRUE(run({"monitor_tool", "service", "qmuxd", "on"}).ok());
    EXPECT_TRUE(comes_anew("qmuxd", 0));

    EXPECT_TRUE(run({"monitor_tool", "start-cmd", "dial_test", "one  two"}).ok());
    EXPECT_TRUE(run({"monitor_tool", "service", "dial_test", "on"}).ok());
    EXPECT_TRUE(comes_anew("dial_test", 0));
    for (const char *request : {"reset", "reboot"}) {
        pid_t first = holder("atfwd_daemon");
        pid_t last = holder("qmuxd");
        EXPECT_TRUE(run({"monitor_tool", request}).ok());
        EXPECT_TRUE(comes_anew("atfwd_daemon", first)) << request;
        EXPECT_TRUE(comes_anew("qmuxd", last)) << request;
        EXPECT_TRUE(comes_anew("dial_test", 0)) << request;
        std::string command = read_file("/proc/" + std::to_string(holder("dial_test")) + "/cmdline");
        bool read_anew = std::string(request) == "reboot" && std::string(DEVICE_EMULATOR).empty();
        EXPECT_EQ(read_anew, contains(command, std::string("one\0two", 7))) << request;
    }
    Result echo = run({"monitor_tool", "send", "dial_test", "7", "68 65 6c6c6f", "--rsp", "6"});
    EXPECT_TRUE(echo.ok()) << echo;
    EXPECT_TRUE(contains(echo.out, "68 65 6c 6c 6f 00") && contains(echo.out, "|hello.|")) << echo;
    Result status = run({"monitor_tool", "status"});
    EXPECT_TRUE(contains(status.out, "-l /usrdata/left -r /usrdata/right")) << status;
    EXPECT_TRUE(contains(status.out, "qmuxd          yes  ")) << status;
    EXPECT_TRUE(contains(status.out, "mbimd          no             -  -           yes")) << status;
}

TEST_F(Device, ChangesTracesAtOnceAndForGood)
{
    EXPECT_TRUE(run({"logtool", "set", "qmuxd", "2", "debug"}).ok());
    EXPECT_TRUE(wait_until([] { return logged("debug|qmuxd.cpp|sample") >= 2; })) << "lines start";
    pid_t old = holder("qmuxd");
    kill(old, SIGTERM);
    EXPECT_TRUE(comes_anew("qmuxd", old));
    std::string from_new = "qmuxd[" + std::to_string(holder("qmuxd")) + "]: debug|";
    EXPECT_TRUE(wait_until([&] { return logged(from_new) > 0; })) << "stored";
    EXPECT_TRUE(contains(run({"logtool"}).out, "qmuxd          2     debug    yes\n"));

    EXPECT_TRUE(run({"logtool", "set", "qmuxd", "0", "null"}).ok());
    usleep(500 * 1000); // what was on its way has arrived
    size_t before = logged("qmuxd[");
    usleep(2000 * 1000);
    EXPECT_EQ(before, logged("qmuxd[")) << "lines stop";
}

TEST(LogTool, FollowsALog)
{
    const std::string path = "/usrdata/some/log";
    Terminal screen("/usrdata/screen");
    write_file(path, "Nov 1 00:00:00 host qmuxd[1]: error|a|b|1::old\n");
    std::string dir = programs();
    pid_t pid = spawn([&] {
        dup2(screen.slave, 1);
        become(dir, {"logtool", "follow", path});
    });
    EXPECT_TRUE(wait_until([&] {
        std::ofstream(path, std::ios::app) << "qti[1]: info|ready\n"; // until it has found the file's end
        usleep(100 * 1000);
        return contains(raw_recv(screen.fd, 1, 0), "q");
    }));
    std::ofstream(path, std::ios::app) << "x kernel: [12]: info|no module\nx qmuxd[1]: error|a|b|1::half" << std::flush;
    usleep(500 * 1000);
    std::ofstream(path, std::ios::app) << " line\n" << std::flush;
    EXPECT_TRUE(contains(screen.receive("half line\033[0m\n"), "ready\n\033[31mx qmuxd[1]: error|a|b|1::half line"));
    rename(path.c_str(), (path + ".0").c_str());
    write_file(path, "monitor[2]: warning|rotated\n");
    EXPECT_EQ("\033[33mmonitor[2]: warning|rotated\033[0m\n", screen.receive("\n"));
    write_file(path, "qti[3]: [qti]ASSERT(\n"); // shorter: emptied meanwhile
    EXPECT_EQ("\033[1;31mqti[3]: [qti]ASSERT(\033[0m\n", screen.receive("\n"));
    stop(pid, SIGTERM);
}

// qmuxd and serial_bridge have sockets here, but never answer.
TEST(Tools, RefuseMisuseWithOneLine)
{
    int silent[] = {raw_listen("qmuxd"), raw_listen("serial_bridge")};
    std::string long_text(100000, 'x');
    const struct {
        std::vector<std::string> command;
        int status;
        const char *line;
    } cases[] = {
        {{"logtool", "show"}, 2, "logtool: unknown command 'show' (see logtool --help)"},
        {{"logtool", "set", "qmuxd", "1"}, 2, "logtool: wrong number of arguments for 'set' (see logtool --help)"},
        {{"logtool", "set", "nobody", "1", "info"}, 2, "logtool: unknown module 'nobody'"},
        {{"logtool", "set", "logtool", "1", "info"}, 2, "logtool: logtool is a tool: it has no trace settings"},
        {{"logtool", "set", "qmuxd", "one", "info"}, 2, "logtool: 'one' is no mode: a number from 0 to 3"},
        {{"logtool", "set", "all", "4", "info"}, 2, "logtool: '4' is no mode: a number from 0 to 3"},
        {{"logtool", "set", "all", "1", "loud"},
         2,
         "logtool: unknown level 'loud': null, error, warning, info or debug"},
        {{"logtool", "set", "qmuxd", "1", "info"}, 1, "logtool: qmuxd does not answer: stored for its next start"},
        {{"logtool", "follow", "/usrdata/none"}, 1, "logtool: cannot follow /usrdata/none: No such file or directory"},
        {{"monitor_tool"}, 2, "monitor_tool: a command is missing (see monitor_tool --help)"},
        {{"monitor_tool", "dance"}, 2, "monitor_tool: unknown command 'dance' (see monitor_tool --help)"},
        {{"monitor_tool", "service", "qmuxd"},
         2,
         "monitor_tool: wrong number of arguments for 'service' (see monitor_tool --help)"},
        {{"monitor_tool", "service", "nobody", "on"}, 2, "monitor_tool: unknown module 'nobody'"},
        {{"monitor_tool", "service", "qmuxd", "maybe"}, 2, "monitor_tool: 'maybe' is neither on nor off"},
        {{"monitor_tool", "service", "logtool", "on"}, 2, "monitor_tool: logtool is no module that the monitor runs"},
        {{"monitor_tool", "service", "dial_test", "on"}, 1, "monitor_tool: stored, but the monitor is not running"},
        {{"monitor_tool", "start-cmd", "nobody", ""}, 2, "monitor_tool: unknown module 'nobody'"},
        {{"monitor_tool", "send", "dial_test", "7"}, 1, "monitor_tool: dial_test is not running"},
        {{"monitor_tool", "send", "qmuxd", "-1"},
         2,
         "monitor_tool: '-1' is no message id: a number from 0 to 2147483647"},
        {{"monitor_tool", "send", "qmuxd", "7", "0"}, 2, "monitor_tool: '0' is no body: pairs of hexadecimal digits"},
        {{"monitor_tool", "send", "qmuxd", "7", "--rsp"}, 2, "monitor_tool: '--rsp' lacks its number"},
        {{"monitor_tool", "send", "qmuxd", "7", "--rsp", "1x"},
         2,
         "monitor_tool: '1x' is no response size: a number from 0 to 1048576"},
        {{"monitor_tool", "wait", "serial_bridge", "0"},
         1,
         "monitor_tool: serial_bridge does not answer after 0 seconds"},
        {{"monitor_tool", "wait", "dial_test", "soon"},
         2,
         "monitor_tool: 'soon' is no number of seconds: a number from 0 to 86400"},
        {{"monitor_tool", "reboot"}, 1, "monitor_tool: the monitor is not running"},
        {{"monitor_tool", "reset", "now"},
         2,
         "monitor_tool: wrong number of arguments for 'reset' (see monitor_tool --help)"},
        {{"serial_bridge", "-l", "/dev/null"}, 2, "serial_bridge: usage: serial_bridge -l DEVICE -r DEVICE"},
        {{"atfwd_daemon", "a", "b"}, 2, "atfwd_daemon: usage: atfwd_daemon [TERMINAL]"},
    };
    for (const auto &test : cases) {
        Result result = run(test.command);
        EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == test.status) << test.line << result;
        EXPECT_EQ(test.line + std::string("\n"), result.err);
        EXPECT_EQ("", result.out) << test.line;
    }
    EXPECT_TRUE(contains(read_file("/usrdata/odm/start_conf.xml"), "dial_test")) << "a refused service is stored";
    int monitor = raw_listen("monitor");
    Result result = run({"monitor_tool", "service", "qmuxd", "off"});
    EXPECT_EQ("monitor_tool: the monitor does not answer\n", result.err);
    for (int fd : {silent[0], silent[1], monitor}) {
        close(fd);
    }
}

} // namespace
