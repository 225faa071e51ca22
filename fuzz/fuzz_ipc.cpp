/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// The service of a module in this process: up to four connections at once send hostile bytes in arbitrary cuts and with
// pauses, close and half-close when they like; then a well-behaved request must still be answered rightly.
#include "fuzz.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <numeric>

namespace {

enum { MSG_ECHO = 7, CONNECTIONS = 4 };

int32_t echo(uint32_t, uint32_t, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    for (int32_t i = 0; i < rsp_size && i < 4096; i++) {
        CHECK(rsp[i] == 0);
        rsp[i] = i < req_len ? req[i] : 0xff;
    }
    return std::accumulate(req, req + std::max(req_len, 0), 0); // reads all that it was told of
}

bool start_service()
{
    // The fuzzer's own alarm clock must not end the waits of the service, which report a signal.
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    CHECK(frwk_module_init(FRWK_MODULE_QMUXD, [](uint32_t) {}) == 0 && frwk_ipc_init(echo) == 0);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    usleep(100000);
    return true;
}

int connect_to_service()
{
    const sockaddr_un address = {AF_UNIX, "/tmp/odm/ipc/qmuxd"};
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    CHECK(TEMP_FAILURE_RETRY(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address)) == 0);
    return fd;
}

void send_bytes(int fd, const std::string &bytes)
{
    (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void send_request(int fd, const frwk_ipc_reqhdr_t &hdr, const std::string &body)
{
    send_bytes(fd, std::string(reinterpret_cast<const char *>(&hdr), sizeof hdr) + body);
}

void check_service()
{
    int fd = connect_to_service();
    send_request(fd, {FRWK_MODULE_QTI, MSG_ECHO, 0, 0, 4, 3}, "\1\2\3");
    char answer[13]; // one byte more than is due
    CHECK(TEMP_FAILURE_RETRY(recv(fd, answer, sizeof answer, MSG_WAITALL)) == 12);
    CHECK(memcmp(answer, "\6\0\0\0\4\0\0\0\1\2\3\xff", 12) == 0);
    close(fd);
}

// Waits for the connection threads to end, so that what they leave behind shows.
void settle()
{
    const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    static const auto at_rest = threads();
    for (int i = 0; threads() > at_rest; i++) {
        CHECK(i < 100000); // 5 s
        usleep(50);
    }
}

void act(int *fd, FuzzedDataProvider *input)
{
    const auto number = [&](int most) { return static_cast<uint32_t>(input->ConsumeIntegralInRange(-1, most)); };
    switch (input->ConsumeIntegralInRange(0, 6)) {
    case 0:
        usleep(input->ConsumeIntegral<uint8_t>() * 4U);
        break;
    case 1:
        shutdown(*fd, SHUT_WR);
        break;
    case 2:
        close(std::exchange(*fd, -1));
        break;
    case 3: // a header that is nearly right
        send_request(*fd,
                     {FRWK_MODULE_QTI, number(9), number(1), 0, static_cast<int32_t>(number(300)),
                      static_cast<int32_t>(number(300))},
                     input->ConsumeRandomLengthString(300));
        break;
    default:
        send_bytes(*fd, input->ConsumeRandomLengthString(64));
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool served = start_service();
    trace_all(); // a request may have changed it
    settle();
    FuzzedDataProvider input(data, size);
    int fds[CONNECTIONS] = {-1, -1, -1, -1};
    while (input.remaining_bytes() > 0) {
        int &fd = fds[input.ConsumeIntegralInRange<size_t>(0, CONNECTIONS - 1)];
        fd = fd < 0 ? connect_to_service() : fd;
        act(&fd, &input);
    }
    std::for_each(fds, fds + CONNECTIONS, close);
    settle();
    check_service();
    return 0;
}
