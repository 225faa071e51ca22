// Mutexes, semaphores and threads.
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

TEST(Thread, Mutex)
{
    pthread_mutex_t mutex;
    EXPECT_EQ(0, frwk_mutex_create(&mutex));
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex)) << "locked, and not recursive";
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_trylock(&mutex));
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, frwk_mutex_close(&mutex));

    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex, &attr);
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(EDEADLK, frwk_mutex_lock(&mutex)) << "results are handed on";
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, frwk_mutex_close(&mutex));
}

TEST(Thread, Semaphore)
{
    sem_t sem;
    EXPECT_EQ(0, frwk_sem_create(&sem));
    EXPECT_EQ(-1, sem_trywait(&sem)) << "starts at 0";
    EXPECT_EQ(0, frwk_sem_post(&sem));
    EXPECT_EQ(0, frwk_sem_post(&sem));
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    EXPECT_EQ(-1, sem_trywait(&sem));
    EXPECT_EQ(0, frwk_sem_close(&sem));

    sem_init(&sem, 0, SEM_VALUE_MAX);
    EXPECT_EQ(-1, frwk_sem_post(&sem)) << "results are handed on";
    EXPECT_EQ(0, frwk_sem_close(&sem));
}

struct Waiter {
    sem_t sem;
    std::atomic<pthread_t> tid{};
    std::atomic<bool> started{false};
    std::atomic<int> result{-2};
    std::atomic<bool> ended{false};
};

std::atomic<int> signals{0};

void *wait_for_post(void *arg)
{
    Waiter *waiter = static_cast<Waiter *>(arg);
    waiter->tid = pthread_self();
    waiter->started = true;
    waiter->result = frwk_sem_wait(&waiter->sem);
    waiter->ended = true;
    return nullptr;
}

TEST(Thread, WaitGoesOnThroughSignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; }; // no SA_RESTART: the wait itself must go on
    sigaction(SIGUSR1, &action, nullptr);

    Waiter waiter;
    ASSERT_EQ(0, frwk_sem_create(&waiter.sem));
    ASSERT_NE(FRWK_THREAD_INVALID, frwk_thread_create(wait_for_post, &waiter));
    ASSERT_TRUE(wait_until([&] { return waiter.started.load(); }));
    for (int i = 1; i <= 5; i++) {
        usleep(20000);
        ASSERT_EQ(0, pthread_kill(waiter.tid, SIGUSR1));
        ASSERT_TRUE(wait_until([&] { return signals == i; }));
    }
    usleep(20000);
    EXPECT_FALSE(waiter.ended);
    EXPECT_EQ(0, frwk_sem_post(&waiter.sem));
    ASSERT_TRUE(wait_until([&] { return waiter.ended.load(); }));
    EXPECT_EQ(0, waiter.result);
}

TEST(Thread, KeepRunningNeverReturns)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; };
    sigaction(SIGUSR1, &action, nullptr);
    static std::atomic<bool> returned{false};
    pthread_t tid = frwk_thread_create(
        [](void *) -> void * {
            frwk_keep_running();
            returned = true;
            return nullptr;
        },
        nullptr);
    ASSERT_NE(FRWK_THREAD_INVALID, tid);
    usleep(50000);
    ASSERT_EQ(0, pthread_kill(tid, SIGUSR1));
    ASSERT_TRUE(wait_until([] { return signals == 1; }));
    usleep(50000);
    EXPECT_FALSE(returned);
}

struct Started {
    std::atomic<bool> done{false};
    int argument = 0;
    int detach_state = -1;
    int policy = -1;
};

TEST(Thread, Create)
{
    Started started;
    pthread_t tid = frwk_thread_create(
        [](void *arg) -> void * {
            Started *record = static_cast<Started *>(arg);
            pthread_attr_t attr;
            sched_param param;
            pthread_getattr_np(pthread_self(), &attr);
            pthread_attr_getdetachstate(&attr, &record->detach_state);
            pthread_attr_destroy(&attr);
            pthread_getschedparam(pthread_self(), &record->policy, &param);
            record->argument = 42;
            record->done = true;
            return nullptr;
        },
        &started);
    ASSERT_NE(FRWK_THREAD_INVALID, tid);
    ASSERT_TRUE(wait_until([&] { return started.done.load(); }));
    EXPECT_EQ(42, started.argument);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, started.detach_state);
    EXPECT_EQ(SCHED_OTHER, started.policy) << "runs as its creator";
    EXPECT_EQ(SCHED_FIFO, thread_sched_policy) << "the attribute is set all the same";
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_detach_state);
}

TEST(Thread, CreateFails)
{
    trace_all();
    Capture out;
    fail_threads = true;
    EXPECT_EQ(FRWK_THREAD_INVALID, frwk_thread_create(wait_for_post, nullptr));
    fail_threads = false;
    EXPECT_EQ(Texts({"error|create thread error!"}), said(out.traces()));
}

TEST(Thread, Cancel)
{
    frwk_thread_cancel(FRWK_THREAD_INVALID);

    static Waiter waiter;
    static std::atomic<bool> cleaned{false};
    ASSERT_EQ(0, frwk_sem_create(&waiter.sem));
    pthread_t tid = frwk_thread_create(
        [](void *) -> void * {
            pthread_cleanup_push([](void *) { cleaned = true; }, nullptr);
            wait_for_post(&waiter);
            pthread_cleanup_pop(0);
            return nullptr;
        },
        nullptr);
    ASSERT_TRUE(wait_until([&] { return waiter.started.load(); }));
    frwk_thread_cancel(tid);
    EXPECT_TRUE(wait_until([] { return cleaned.load(); }));
    EXPECT_FALSE(waiter.ended);
}

} // namespace
