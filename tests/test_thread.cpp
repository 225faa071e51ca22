/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Mutexes, semaphores and threads.
#include "conf_test.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <thread>

namespace {

TEST(Thread, MutexesAndSemaphores)
{
    pthread_mutex_t mutex;
    EXPECT_EQ(0, frwk_mutex_create(&mutex));
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex)) << "locked, and not recursive";
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, frwk_mutex_close(&mutex));

    sem_t sem;
    EXPECT_EQ(0, frwk_sem_create(&sem));
    EXPECT_EQ(-1, sem_trywait(&sem)) << "starts at 0";
    EXPECT_EQ(0, frwk_sem_post(&sem));
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    EXPECT_EQ(-1, sem_trywait(&sem));
    EXPECT_EQ(0, frwk_sem_close(&sem));
    sem_init(&sem, 0, SEM_VALUE_MAX);
    EXPECT_EQ(-1, frwk_sem_post(&sem)) << "results are handed on";
}

sem_t sem;
std::atomic<int> passed;
int detached = -1, policy = -1; // as the library asks for it

int note_attributes(pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    pthread_attr_getdetachstate(attr, &detached);
    pthread_attr_getschedpolicy(attr, &policy);
    return pthread_create(id, attr, start, arg);
}

void *wait_twice(void *)
{
    fault_after(1, {"sem_wait", EINTR});
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    EXPECT_TRUE(no_more_faults());
    fault_after(1, {"sem_wait", EINTR});
    passed++;
    frwk_keep_running();
    passed++;
    return nullptr;
}

TEST(Thread, WaitsGoOnThroughSignals)
{
    ASSERT_EQ(0, frwk_sem_create(&sem));
    replace_call("pthread_create", note_attributes);
    EXPECT_NE(FRWK_THREAD_INVALID, frwk_thread_create(wait_twice, nullptr));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, detached);
    EXPECT_EQ(SCHED_FIFO, policy) << "set, though without effect: it runs as its creator";
    usleep(50000);
    EXPECT_EQ(0, passed);
    EXPECT_EQ(0, frwk_sem_post(&sem));
    EXPECT_TRUE(wait_until([] { return passed == 1; }));
    usleep(50000);
    EXPECT_EQ(1, passed);
    EXPECT_TRUE(no_more_faults());
}

// Cancels a thread once it sleeps in this call, and tells whether the call was finished nevertheless.
bool finishes_cancelled(const std::function<void()> &call)
{
    std::atomic<bool> begun{false}, returned{false}, cancelled{true};
    const int fds = count_fds(getpid());
    std::thread thread([&] {
        begun = true;
        call();
        returned = true;
        frwk_sleep(60000);
        cancelled = false;
    });
    EXPECT_TRUE(wait_until([&] { return begun.load(); }));
    usleep(50000);
    frwk_thread_cancel(FRWK_THREAD_INVALID);
    frwk_thread_cancel(thread.native_handle());
    thread.join();
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(fds, count_fds(getpid()));
    return returned;
}

TEST(Thread, CancelledInEveryCall)
{
    raw_listen("mbimd"); // takes what it is sent and says nothing
    listen(raw_listen("qti"), 0);
    raw_connect("qti"); // fills the queue, so that the next one waits
    ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_QMUXD, nullptr));
    frwk_sem_create(&sem);
    const std::string big(8000000, 'x'); // more than a socket holds
    ASSERT_EQ(0, mkfifo("/tmp/fifo", 0600));
    const auto send = [&](uint32_t to, size_t size) {
        frwk_ipc_send_sync(to, MSG_ECHO, big.data(), static_cast<int>(size), nullptr, 0, 60, nullptr);
    };
    const std::pair<const char *, std::function<void()>> calls[] = {
        {"sleep", [] { frwk_sleep(60000); }},
        {"semaphore", [] { frwk_sem_wait(&sem); }},
        {"keep running", [] { frwk_keep_running(); }},
        {"connect", [&] { send(FRWK_MODULE_QTI, 1); }},
        {"send", [&] { send(FRWK_MODULE_MBIMD, big.size()); }},
        {"answer", [&] { send(FRWK_MODULE_MBIMD, 1); }},
        {"acknowledgement", [] { frwk_ipc_msg_notify(FRWK_MODULE_MBIMD, MSG_ECHO, "x", 1); }},
        {"broadcast", [] { frwk_ipc_msg_broadcast_data(MSG_ECHO, "x", 1); }},
        {"status", [] { frwk_get_module_status(FRWK_MODULE_MBIMD); }},
        {"handler", [&] { send(FRWK_MODULE_QMUXD, 1); }},
        {"value", [] { frwk_get_file_value("/tmp/fifo", std::array<char, 4>().data(), 4); }},
        {"command", [] { frwk_system("sleep 60"); }}};
    for (const auto &[name, call] : calls) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(finishes_cancelled(call));
    }
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child left";

    std::filesystem::create_directories(DIR);
    const auto save = [] { EXPECT_EQ(0, frwk_set_app_start_cmd(FRWK_MODULE_QTI, "x")); };
    EXPECT_TRUE((Lock(), finishes_cancelled(save)));
    EXPECT_EQ(Files({{START, read_file(START)}}), snapshot());
    EXPECT_TRUE(contains(read_file(START), "<start_cmd>x</start_cmd>"));
    EXPECT_TRUE(Lock().held);
    const int monitor = raw_listen("monitor"); // the value is saved, then the monitor is asked
    EXPECT_FALSE(finishes_cancelled([] { frwk_set_app_monitor_conf(FRWK_MODULE_QTI, 0); }));
    EXPECT_EQ(0, frwk_get_app_monitor_conf(FRWK_MODULE_QTI));
    EXPECT_TRUE(Lock().held);
    close(monitor);
}

} // namespace
