// The service of a module in this process: up to four connections at once send hostile bytes in arbitrary cuts and with
// pauses, close and half-close when they like; then a well-behaved request must still be answered rightly.
#include "fuzz.h"

#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

enum { MSG_ECHO = 7, CONNECTIONS = 4 };

int32_t echo(uint32_t, uint32_t, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size, uint32_t)
{
    int32_t sum = 0;
    for (int32_t i = 0; i < req_len; i++) {
        sum += req[i]; // reads all that it was told of
    }
    for (int32_t i = 0; i < rsp_size && i < 4096; i++) {
        CHECK(rsp[i] == 0);
        rsp[i] = i < req_len ? req[i] : 0xff;
    }
    return sum;
}

int connect_to_service()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/tmp/odm/ipc/qmuxd");
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    CHECK(fd >= 0 && TEMP_FAILURE_RETRY(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address)) == 0);
    return fd;
}

void send_bytes(int fd, const std::string &bytes)
{
    (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

int threads()
{
    int count = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (readdir(tasks) != nullptr) {
        count++;
    }
    closedir(tasks);
    return count;
}

void check_service()
{
    int fd = connect_to_service();
    const frwk_ipc_reqhdr_t hdr = {FRWK_MODULE_QTI, MSG_ECHO, 0, 0, 4, 3};
    std::string request(reinterpret_cast<const char *>(&hdr), sizeof hdr);
    send_bytes(fd, request + "\1\2\3");
    frwk_ipc_rsphdr_t rsp;
    uint8_t data[5];
    CHECK(TEMP_FAILURE_RETRY(recv(fd, &rsp, sizeof rsp, MSG_WAITALL)) == sizeof rsp && rsp.rc == 6 && rsp.msg_len == 4);
    CHECK(TEMP_FAILURE_RETRY(recv(fd, data, sizeof data, MSG_WAITALL)) == 4 && memcmp(data, "\1\2\3\xff", 4) == 0);
    close(fd);
}

// Waits for the connection threads to end, so that what they leave behind shows.
void settle()
{
    static const int at_rest = (usleep(100000), threads());
    for (int i = 0; threads() > at_rest; i++) {
        CHECK(i < 100000); // 5 s
        usleep(50);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The fuzzer's own alarm clock must not end the waits of the service, which report a signal.
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    CHECK(frwk_module_init(FRWK_MODULE_QMUXD, [](uint32_t) {}) == 0);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    CHECK(frwk_ipc_init(echo) == 0);
    trace_to_nothing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    settle();
    FuzzedDataProvider input(data, size);
    int fds[CONNECTIONS] = {-1, -1, -1, -1};
    while (input.remaining_bytes() > 0) {
        int &fd = fds[input.ConsumeIntegralInRange<size_t>(0, CONNECTIONS - 1)];
        if (fd < 0) {
            fd = connect_to_service();
        }
        switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0:
            usleep(input.ConsumeIntegral<uint8_t>() * 4U);
            break;
        case 1:
            shutdown(fd, SHUT_WR);
            break;
        case 2:
            close(fd);
            fd = -1;
            break;
        case 3: {
            char buf[64];
            (void)!recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            break;
        }
        case 4: { // a header that is nearly right
            frwk_ipc_reqhdr_t hdr = {input.ConsumeIntegral<uint8_t>(),
                                     input.ConsumeIntegralInRange<uint32_t>(0, 9),
                                     input.ConsumeIntegralInRange<uint32_t>(0, 1),
                                     0,
                                     input.ConsumeIntegralInRange<int32_t>(-1, 300),
                                     input.ConsumeIntegralInRange<int32_t>(-1, 300)};
            send_bytes(fd, std::string(reinterpret_cast<const char *>(&hdr), sizeof hdr) +
                               input.ConsumeRandomLengthString(300));
            break;
        }
        default:
            send_bytes(fd, input.ConsumeRandomLengthString(64));
            break;
        }
    }
    for (int fd : fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
    settle();
    check_service();
    trace_all(); // a request may have changed it
    return 0;
}
