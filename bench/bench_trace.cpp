/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Trace lines: printed to the console (a file in memory), suppressed, and sent to the system log.
#define SPDLOG_ACTIVE_LEVEL SPDLOG_LEVEL_TRACE
#include "empty_call.h"
#include "rounds.h"
#include <frwk.h>

#include <signal.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <cstring>
#include <fstream>

namespace {

const char *const console_path = "/tmp/console.txt";
const char *const spdlog_path = "/tmp/spdlog.txt";
const char *const link_name = "wwan0";

int line_number = 0; // of the last call, for the check

// Empties the file, prints the lines, and looks at the last one.
template <typename Print> double print_batch(const char *path, size_t n, Print print)
{
    CHECK(truncate(path, 0) == 0);
    double start = bench::now_ns();
    print(n);
    double spent = bench::now_ns() - start;

    std::ifstream file(path);
    std::string line, last;
    size_t count = 0;
    while (std::getline(file, line)) {
        last = line;
        count++;
    }
    const std::string origin = "|info|bench_trace.cpp|";
    const std::string message =
        "|" + std::to_string(line_number) + "::link wwan0 is up after " + std::to_string(n - 1) + " ms";
    CHECK(count == n && last.compare(0, 12, "[logtool]202") == 0 && last.substr(28, origin.size()) == origin);
    CHECK(last.size() > message.size() && last.substr(last.size() - message.size()) == message);
    return spent;
}

double floor_console(size_t n)
{
    return print_batch(console_path, n, [](size_t lines) {
        for (size_t i = 0; i < lines; i++) {
            time_t now = time(nullptr);
            tm parts;
            char date[32];
            localtime_r(&now, &parts);
            strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
            line_number = __LINE__ + 1;
            fprintf(stdout, "[%s]%s|%s|%s|%s|%d::link %s is up after %d ms\n", "logtool", date, "info",
                    "bench_trace.cpp", __func__, line_number, link_name, static_cast<int>(i));
        }
        fflush(stdout);
    });
}

double our_console(size_t n)
{
    frwk_debug_enable(3);
    return print_batch(console_path, n, [](size_t lines) {
        for (size_t i = 0; i < lines; i++) {
            line_number = __LINE__ + 1;
            FRWK_INFO("link %s is up after %d ms", link_name, static_cast<int>(i));
        }
        fflush(stdout);
    });
}

double spdlog_file(size_t n)
{
    static const auto logger = [] {
        auto made = spdlog::basic_logger_st("file", spdlog_path, true);
        made->set_pattern("[logtool]%Y-%m-%d %H:%M:%S|%l|%s|%!|%#::%v");
        return made;
    }();
    return print_batch(spdlog_path, n, [](size_t lines) {
        for (size_t i = 0; i < lines; i++) {
            line_number = __LINE__ + 1;
            SPDLOG_LOGGER_INFO(logger, "link {} is up after {} ms", link_name, static_cast<int>(i));
        }
        logger->flush();
    });
}

// ---- suppressed lines

double floor_suppressed(size_t n)
{
    return bench::timed([](size_t calls) {
        for (size_t i = 0; i < calls; i++) {
            bench_empty_call(__FILE__, __func__, __LINE__, FRWK_TRACE_DEBUG, "link %s is up after %d ms", link_name,
                             static_cast<int>(i));
        }
    })(n);
}

double our_suppressed(size_t n)
{
    return bench::timed([](size_t calls) {
        for (size_t i = 0; i < calls; i++) {
            frwk_trace_print(__FILE__, __func__, __LINE__, FRWK_TRACE_DEBUG, "link %s is up after %d ms", link_name,
                             static_cast<int>(i));
        }
    })(n);
}

double our_macro_suppressed(size_t n)
{
    return bench::timed([](size_t calls) {
        for (size_t i = 0; i < calls; i++) {
            FRWK_DBG("link %s is up after %d ms", link_name, static_cast<int>(i));
        }
    })(n);
}

double spdlog_suppressed(size_t n)
{
    spdlog::logger *logger = spdlog::get("file").get();
    return bench::timed([logger](size_t calls) {
        for (size_t i = 0; i < calls; i++) {
            SPDLOG_LOGGER_DEBUG(logger, "link {} is up after {} ms", link_name, static_cast<int>(i));
        }
    })(n);
}

// ---- the system log: a process that takes what is sent to /dev/log, and passes on the lines that start a batch's
// check

int check_fd;

void start_log_daemon()
{
    int fds[2];
    CHECK(pipe(fds) == 0);
    int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    CHECK(bind(log, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char text[4096];
        for (;;) {
            ssize_t size = recv(log, text, sizeof text, 0);
            if (size > 0 && text[size - 1] == '#' && write(fds[1], text, static_cast<size_t>(size)) < 0) {
                _exit(1);
            }
        }
    }
    close(log);
    close(fds[1]);
    check_fd = fds[0];
}

// Sends the lines, then one that comes back, and looks at it. The check is not timed.
template <typename Send> double log_batch(size_t n, Send send)
{
    double start = bench::now_ns();
    for (size_t i = 0; i < n; i++) {
        send(i, "");
    }
    double spent = bench::now_ns() - start;
    send(n, "#");
    char text[4096] = {};
    CHECK(read(check_fd, text, sizeof text - 1) > 0);
    std::string expected = "info|bench_trace.cpp|link_up|77::link wwan0 is up after " + std::to_string(n) + " ms#";
    CHECK(strncmp(text, "<190>", 5) == 0 && strstr(text, expected.c_str()) != nullptr);
    return spent;
}

double bare_syslog(size_t n)
{
    return log_batch(n, [](size_t i, const char *mark) {
        syslog(LOG_INFO, "%s|%s|%s|%d::link %s is up after %d ms%s", "info", "bench_trace.cpp", "link_up", 77,
               link_name, static_cast<int>(i), mark);
    });
}

double our_syslog(size_t n)
{
    frwk_debug_enable(1);
    return log_batch(n, [](size_t i, const char *mark) {
        frwk_trace_print("bench/bench_trace.cpp", "link_up", 77, FRWK_TRACE_INFO, "link %s is up after %d ms%s",
                         link_name, static_cast<int>(i), mark);
    });
}

double spdlog_syslog(size_t n)
{
    static const auto logger = [] {
        auto made = spdlog::syslog_logger_st("syslog", "logtool", LOG_PID | LOG_CONS, LOG_LOCAL7, true);
        made->set_formatter(
            std::make_unique<spdlog::pattern_formatter>("%l|%s|%!|%#::%v", spdlog::pattern_time_type::local, ""));
        return made;
    }();
    return log_batch(n, [](size_t i, const char *mark) {
        logger->log(spdlog::source_loc{"bench_trace.cpp", 77, "link_up"}, spdlog::level::info,
                    "link {} is up after {} ms{}", link_name, static_cast<int>(i), mark);
    });
}

} // namespace

int main()
{
    bench::use_cores(2);
    bench::report(); // standard output becomes the console of the module
    start_log_daemon();
    bench::use_cores(1);
    bench::measuring_clock = CLOCK_THREAD_CPUTIME_ID;
    CHECK(freopen(console_path, "a", stdout) != nullptr);
    CHECK(frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) == FRWK_ERROR_SUCCESS);
    openlog("logtool", LOG_PID | LOG_CONS, LOG_LOCAL7);
    frwk_trace_set("info");

    bench::print_header("### Trace, one core");
    bench::run({"console line",
                {bench::floor_of(floor_console), bench::ours_of(our_console), {"spdlog to a file", spdlog_file}},
                0.6});
    bench::run({"suppressed line (floor: an empty variadic call)",
                {bench::floor_of(floor_suppressed), bench::ours_of(our_suppressed), {"spdlog", spdlog_suppressed}},
                1.3});
    bench::run({"suppressed line, by the macro",
                {bench::floor_of(floor_suppressed), bench::ours_of(our_macro_suppressed)},
                0,
                2});
    bench::run({"syslog line (floor: bare syslog())",
                {bench::floor_of(bare_syslog), bench::ours_of(our_syslog), {"spdlog to syslog", spdlog_syslog}},
                1.1});
    return 0;
}
