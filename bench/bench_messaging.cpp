/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// A request and its answer between two processes: the library's service against a bare one of the same design, and the
// message systems that people use, with a lasting connection and with a fresh one for each request.
#include "growth.h"
#include <frwk.h>

#include <dbus/dbus.h>
#include <nanomsg/nn.h>
#include <nanomsg/reqrep.h>
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

namespace {

// A request begins with these words; its answer with the number, then zeros.
struct Head {
    uint32_t number;
    uint32_t answer_size;
};

constexpr size_t LARGEST = 65536;

struct Client {
    Client() = default;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    virtual ~Client() = default;
    virtual void request(const char *request, size_t size, char *answer, size_t answer_size) = 0;
};

Head head_of(const void *request)
{
    Head head;
    memcpy(&head, request, sizeof head);
    return head;
}

// The answer of the servers that do not make a buffer of their own.
const char *answer_to(const void *request, size_t *size)
{
    static char answer[LARGEST];
    Head head = head_of(request);
    memcpy(answer, &head.number, sizeof head.number);
    *size = head.answer_size;
    return answer;
}

// ---- the floor: a connection and a new detached thread for each request, and no check of anything

sockaddr_un address_of(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    return address;
}

const char *const floor_path = "/tmp/bench-floor";

void *serve_floor(void *arg)
{
    int fd = *static_cast<int *>(arg);
    frwk_ipc_reqhdr_t request;
    if (read(fd, &request, sizeof request) < 0) {
        _exit(1);
    }
    char *body = static_cast<char *>(calloc(1, static_cast<size_t>(request.msg_len)));
    if (read(fd, body, static_cast<size_t>(request.msg_len)) < 0) {
        _exit(1);
    }
    size_t size = sizeof(frwk_ipc_rsphdr_t) + static_cast<size_t>(request.rsp_size);
    char *answer = static_cast<char *>(calloc(1, size));
    frwk_ipc_rsphdr_t header = {0, request.rsp_size};
    memcpy(answer, &header, sizeof header);
    memcpy(answer + sizeof header, body, sizeof(uint32_t));
    if (write(fd, answer, size) < 0) {
        _exit(1);
    }
    close(fd);
    free(arg);
    free(body);
    free(answer);
    return nullptr;
}

[[noreturn]] void floor_server()
{
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = address_of(floor_path);
    CHECK(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(listener, 20) == 0);
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    for (;;) {
        int *fd = static_cast<int *>(malloc(sizeof *fd));
        *fd = accept(listener, nullptr, nullptr);
        pthread_t thread;
        CHECK(pthread_create(&thread, &detached, serve_floor, fd) == 0);
    }
}

struct FloorClient : Client {
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        frwk_ipc_reqhdr_t header = {2, 7, 0, 3, static_cast<int32_t>(answer_size), static_cast<int32_t>(size)};
        char *frame = static_cast<char *>(calloc(1, sizeof header + size));
        memcpy(frame, &header, sizeof header);
        memcpy(frame + sizeof header, request, size);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = address_of(floor_path);
        CHECK(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0);
        CHECK(write(fd, frame, sizeof header + size) > 0);
        frwk_ipc_rsphdr_t response;
        CHECK(read(fd, &response, sizeof response) == sizeof response);
        for (size_t got = 0; got < answer_size;) {
            ssize_t n = read(fd, answer + got, answer_size - got);
            CHECK(n > 0);
            got += static_cast<size_t>(n);
        }
        close(fd);
        free(frame);
    }
};

// ---- the library

std::atomic<unsigned> refusals; // by the limit of threads; such a request is tried again

int32_t our_handler(uint32_t, uint32_t, const uint8_t *req, int32_t, uint8_t *rsp, int32_t, uint32_t)
{
    memcpy(rsp, req, sizeof(uint32_t));
    return 0;
}

[[noreturn]] void our_server()
{
    CHECK(frwk_module_init(FRWK_MODULE_QMUXD, nullptr) == FRWK_ERROR_SUCCESS);
    CHECK(frwk_ipc_init(our_handler) == FRWK_ERROR_SUCCESS);
    for (;;) {
        pause();
    }
}

struct OurClient : Client {
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        for (;;) {
            int32_t result = -1;
            int rc = frwk_ipc_send_sync(FRWK_MODULE_QMUXD, FRWK_MSG_USER, request, static_cast<int32_t>(size), answer,
                                        static_cast<int32_t>(answer_size), 3, &result);
            if (rc == FRWK_ERROR_SUCCESS) {
                CHECK(result == 0);
                return;
            }
            CHECK(rc == FRWK_ERROR_RECV || rc == FRWK_ERROR_SEND);
            refusals++;
        }
    }
};

// ---- D-Bus through its daemon

const char *const bus_address = "unix:path=/tmp/bench-bus";

[[noreturn]] void bus_daemon()
{
    std::ofstream("/tmp/bench-bus.conf")
        << "<busconfig><type>session</type><listen>" << bus_address
        << "</listen><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    CHECK(freopen("/dev/null", "w", stderr) != nullptr); // it complains where it may not raise its limits
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--config-file=/tmp/bench-bus.conf", nullptr);
    _exit(1);
}

DBusConnection *open_bus()
{
    DBusConnection *bus = nullptr;
    for (int tries = 0; bus == nullptr && tries < 1000; tries++) {
        bus = dbus_connection_open_private(bus_address, nullptr);
        if (bus == nullptr) {
            usleep(10000);
        }
    }
    CHECK(bus != nullptr && dbus_bus_register(bus, nullptr));
    dbus_connection_set_exit_on_disconnect(bus, FALSE);
    return bus;
}

void append_bytes(DBusMessage *message, const char *bytes, size_t size)
{
    CHECK(dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(size),
                                   DBUS_TYPE_INVALID));
}

const char *bytes_in(DBusMessage *message, int *size)
{
    const char *bytes = nullptr;
    CHECK(dbus_message_get_args(message, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, size, DBUS_TYPE_INVALID));
    return bytes;
}

[[noreturn]] void libdbus_server()
{
    DBusConnection *bus = open_bus();
    CHECK(dbus_bus_request_name(bus, "org.bench.libdbus", 0, nullptr) > 0);
    while (dbus_connection_read_write(bus, -1)) {
        while (DBusMessage *call = dbus_connection_pop_message(bus)) {
            if (dbus_message_get_type(call) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                int got;
                size_t size;
                const char *answer = answer_to(bytes_in(call, &got), &size);
                DBusMessage *reply = dbus_message_new_method_return(call);
                append_bytes(reply, answer, size);
                dbus_connection_send(bus, reply, nullptr);
                dbus_connection_flush(bus);
                dbus_message_unref(reply);
            }
            dbus_message_unref(call);
        }
    }
    _exit(1);
}

struct LibdbusClient : Client {
    DBusConnection *bus = open_bus();
    ~LibdbusClient() override
    {
        dbus_connection_close(bus);
        dbus_connection_unref(bus);
    }
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        DBusMessage *call = dbus_message_new_method_call("org.bench.libdbus", "/", "org.bench", "Ask");
        append_bytes(call, request, size);
        DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, call, -1, nullptr);
        CHECK(reply != nullptr);
        int got;
        const char *bytes = bytes_in(reply, &got);
        CHECK(static_cast<size_t>(got) == answer_size);
        memcpy(answer, bytes, answer_size);
        dbus_message_unref(call);
        dbus_message_unref(reply);
    }
};

sd_bus *open_sd_bus()
{
    sd_bus *bus = nullptr;
    CHECK(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, bus_address) >= 0 && sd_bus_set_bus_client(bus, 1) >= 0);
    CHECK(sd_bus_start(bus) >= 0);
    return bus;
}

int answer_sd_bus(sd_bus_message *call, void *, sd_bus_error *)
{
    const void *request;
    size_t got, size;
    sd_bus_message *reply;
    CHECK(sd_bus_message_read_array(call, 'y', &request, &got) >= 0);
    const char *answer = answer_to(request, &size);
    CHECK(sd_bus_message_new_method_return(call, &reply) >= 0);
    CHECK(sd_bus_message_append_array(reply, 'y', answer, size) >= 0 && sd_bus_send(nullptr, reply, nullptr) >= 0);
    sd_bus_message_unref(reply);
    return 1;
}

[[noreturn]] void sd_bus_server()
{
    while (access("/tmp/bench-bus", F_OK) != 0) {
        usleep(10000);
    }
    sd_bus *bus = open_sd_bus();
    CHECK(sd_bus_add_object(bus, nullptr, "/", answer_sd_bus, nullptr) >= 0);
    CHECK(sd_bus_request_name(bus, "org.bench.sdbus", 0) >= 0);
    for (;;) {
        if (sd_bus_process(bus, nullptr) == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

struct SdBusClient : Client {
    sd_bus *bus = open_sd_bus();
    ~SdBusClient() override
    {
        sd_bus_flush_close_unref(bus);
    }
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        sd_bus_message *call, *reply;
        const void *bytes;
        size_t got;
        CHECK(sd_bus_message_new_method_call(bus, &call, "org.bench.sdbus", "/", "org.bench", "Ask") >= 0);
        CHECK(sd_bus_message_append_array(call, 'y', request, size) >= 0);
        CHECK(sd_bus_call(bus, call, 0, nullptr, &reply) >= 0);
        CHECK(sd_bus_message_read_array(reply, 'y', &bytes, &got) >= 0 && got == answer_size);
        memcpy(answer, bytes, answer_size);
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
    }
};

// ---- the message libraries, over Unix sockets

[[noreturn]] void nng_server()
{
    nng_socket socket;
    CHECK(nng_rep0_open(&socket) == 0 && nng_listen(socket, "ipc:///tmp/bench-nng", nullptr, 0) == 0);
    for (;;) {
        char *request;
        size_t got, size;
        CHECK(nng_recv(socket, &request, &got, NNG_FLAG_ALLOC) == 0);
        const char *answer = answer_to(request, &size);
        CHECK(nng_send(socket, const_cast<char *>(answer), size, 0) == 0);
        nng_free(request, got);
    }
}

struct NngClient : Client {
    nng_socket socket;
    NngClient()
    {
        CHECK(nng_req0_open(&socket) == 0 && nng_dial(socket, "ipc:///tmp/bench-nng", nullptr, 0) == 0);
    }
    ~NngClient() override
    {
        nng_close(socket);
    }
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        CHECK(nng_send(socket, const_cast<char *>(request), size, 0) == 0);
        size_t got = answer_size;
        CHECK(nng_recv(socket, answer, &got, 0) == 0 && got == answer_size);
    }
};

[[noreturn]] void zmq_server()
{
    void *socket = zmq_socket(zmq_ctx_new(), ZMQ_REP);
    CHECK(zmq_bind(socket, "ipc:///tmp/bench-zmq") == 0);
    for (;;) {
        static char request[LARGEST];
        size_t size;
        CHECK(zmq_recv(socket, request, sizeof request, 0) > 0);
        const char *answer = answer_to(request, &size);
        CHECK(zmq_send(socket, answer, size, 0) == static_cast<int>(size));
    }
}

struct ZmqClient : Client {
    void *socket;
    ZmqClient()
    {
        static void *context = zmq_ctx_new();
        socket = zmq_socket(context, ZMQ_REQ);
        int none = 0;
        zmq_setsockopt(socket, ZMQ_LINGER, &none, sizeof none);
        CHECK(zmq_connect(socket, "ipc:///tmp/bench-zmq") == 0);
    }
    ~ZmqClient() override
    {
        zmq_close(socket);
    }
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        CHECK(zmq_send(socket, request, size, 0) == static_cast<int>(size));
        CHECK(zmq_recv(socket, answer, answer_size, 0) == static_cast<int>(answer_size));
    }
};

[[noreturn]] void nanomsg_server()
{
    int socket = nn_socket(AF_SP, NN_REP);
    CHECK(nn_bind(socket, "ipc:///tmp/bench-nanomsg") >= 0);
    for (;;) {
        static char request[LARGEST];
        size_t size;
        CHECK(nn_recv(socket, request, sizeof request, 0) > 0);
        const char *answer = answer_to(request, &size);
        CHECK(nn_send(socket, answer, size, 0) == static_cast<int>(size));
    }
}

struct NanomsgClient : Client {
    int socket;
    NanomsgClient()
    {
        static int kept = nn_socket(AF_SP, NN_REQ); // else its threads would end and start with each connection
        socket = nn_socket(AF_SP, NN_REQ);
        CHECK(kept >= 0 && nn_connect(socket, "ipc:///tmp/bench-nanomsg") >= 0);
    }
    ~NanomsgClient() override
    {
        nn_close(socket);
    }
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        CHECK(nn_send(socket, request, size, 0) == static_cast<int>(size));
        CHECK(nn_recv(socket, answer, answer_size, 0) == static_cast<int>(answer_size));
    }
};

// ---- measuring

template <typename Lasting> struct Fresh : Client {
    void request(const char *request, size_t size, char *answer, size_t answer_size) override
    {
        Lasting client;
        client.request(request, size, answer, answer_size);
    }
};

struct Shape {
    const char *name;
    size_t request, answer;
};

void make_requests(Client &client, const Shape &shape, size_t count)
{
    static thread_local char request[LARGEST], answer[LARGEST];
    static std::atomic<uint32_t> numbers;
    for (size_t i = 0; i < count; i++) {
        Head head = {++numbers, static_cast<uint32_t>(shape.answer)};
        memcpy(request, &head, sizeof head);
        memset(answer, 0x5a, sizeof head);
        answer[shape.answer - 1] = 0x5a;
        client.request(request, shape.request, answer, shape.answer);
        CHECK(memcmp(answer, &head.number, sizeof head.number) == 0 && answer[shape.answer - 1] == 0);
    }
}

// So many clients, each with a connection and a thread of its own, share the requests of a batch.
template <typename Kind> std::function<double(size_t)> batch(Shape shape, size_t clients)
{
    auto all = std::make_shared<std::vector<std::unique_ptr<Client>>>();
    for (size_t i = 0; i < clients; i++) {
        all->push_back(std::make_unique<Kind>());
    }
    return [all, shape](size_t n) {
        double start = bench::now_ns();
        std::vector<std::thread> others;
        for (size_t i = 1; i < all->size(); i++) {
            others.emplace_back([&, i] { make_requests(*(*all)[i], shape, n / all->size()); });
        }
        make_requests(*(*all)[0], shape, n / all->size());
        for (std::thread &other : others) {
            other.join();
        }
        return bench::now_ns() - start;
    };
}

void run(const std::string &where, const Shape &shape, size_t clients, double most, double faster)
{
    bench::run({shape.name + where,
                {bench::floor_of(batch<FloorClient>(shape, clients)),
                 bench::ours_of(batch<OurClient>(shape, clients)),
                 {"sd-bus", batch<SdBusClient>(shape, clients)},
                 {"libdbus", batch<LibdbusClient>(shape, clients)},
                 {"NNG", batch<NngClient>(shape, clients)},
                 {"ZeroMQ", batch<ZmqClient>(shape, clients)},
                 {"nanomsg", batch<NanomsgClient>(shape, clients)},
                 {"sd-bus, fresh connection", batch<Fresh<SdBusClient>>(shape, clients)},
                 {"libdbus, fresh connection", batch<Fresh<LibdbusClient>>(shape, clients)},
                 {"NNG, fresh connection", batch<Fresh<NngClient>>(shape, clients)},
                 {"ZeroMQ, fresh connection", batch<Fresh<ZmqClient>>(shape, clients)},
                 {"nanomsg, fresh connection", batch<Fresh<NanomsgClient>>(shape, clients)}},
                most,
                0,
                "fresh connection",
                faster,
                clients,
                101});
}

void many_clients(benchmark::State &state)
{
    auto requests = batch<OurClient>({"", 64, 64}, static_cast<size_t>(state.range(0)));
    size_t share = 50, count = share * static_cast<size_t>(state.range(0));
    refusals = 0;
    for (auto _ : state) {
        requests(count);
    }
    double all = static_cast<double>(count * state.iterations());
    state.counters["requests a second"] = benchmark::Counter(all, benchmark::Counter::kIsRate);
    state.counters["refusals tried again, of 1,000"] = 1000.0 * refusals / all;
}
BENCHMARK(many_clients)
    ->Name("50 requests by each client (clients)")
    ->UseRealTime()
    ->MinTime(0.3)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Arg(12)
    ->Arg(16)
    ->Arg(20);

void start_server(void (*server)())
{
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, "server"); // for profiles
        server();
    }
}

void await(const char *path)
{
    for (int tries = 0; access(path, F_OK) != 0; tries++) {
        CHECK(tries < 1000);
        usleep(10000);
    }
}

// In a process of its own, with servers of its own, since none of these libraries lives well through a fork.
void run_on(int cores, const std::function<void()> &operations)
{
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, "client");
        bench::use_cores(cores);
        for (const char *path : {floor_path, "/tmp/bench-bus", "/tmp/bench-nng", "/tmp/bench-zmq", "/tmp/bench-nanomsg",
                                 "/tmp/odm/ipc/qmuxd"}) {
            unlink(path);
        }
        for (auto server : {floor_server, our_server, bus_daemon, libdbus_server, sd_bus_server, nng_server, zmq_server,
                            nanomsg_server}) {
            start_server(server);
        }
        for (const char *path : {floor_path, "/tmp/bench-bus", "/tmp/bench-nng", "/tmp/bench-zmq", "/tmp/bench-nanomsg",
                                 "/tmp/odm/ipc/qmuxd"}) {
            await(path);
        }
        usleep(300000); // the names on the bus
        CHECK(frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) == FRWK_ERROR_SUCCESS);
        operations();
        exit(0);
    }
    int status;
    waitpid(pid, &status, 0);
    if (status != 0) {
        exit(1);
    }
    usleep(300000); // its servers end after it
}

} // namespace

int main()
{
    bench::report();
    dbus_threads_init_default();
    const Shape small = {"64 bytes each way, ", 64, 64}, question = {"4 KB request, ", 4096, 64},
                answer = {"64 KB answer, ", 64, 65536};
    bench::print_header("### Messaging: a request and its answer between two processes");
    run_on(1, [&] {
        run("one core", small, 1, 1.0, 0);
        run("one core", question, 1, 1.05, 0);
        run("one core", answer, 1, 1.05, 0);
    });
    run_on(2, [&] {
        run("two cores", small, 1, 1.0, 2.5);
        run("4 clients on two cores", small, 4, 1.0, 2.5);
        run("two cores", question, 1, 1.05, 0);
        run("two cores", answer, 1, 1.05, 0);
        bench::run_growth();
    });
    return 0;
}
