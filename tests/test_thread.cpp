/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Mutexes, semaphores and threads.
#include "frwk_test.h"

namespace {

TEST(Thread, MutexesAndSemaphores)
{
    pthread_mutex_t mutex;
    EXPECT_EQ(0, frwk_mutex_create(&mutex));
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex)) << "locked, and not recursive";
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_trylock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
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
std::atomic<int> signals, passed;
int detached = -1, policy = -1; // as the library asks for it

int note_attributes(pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    pthread_attr_getdetachstate(attr, &detached);
    pthread_attr_getschedpolicy(attr, &policy);
    return pthread_create(id, attr, start, arg);
}

void *wait_twice(void *)
{
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    passed++;
    frwk_keep_running();
    passed++;
    return nullptr;
}

TEST(Thread, WaitsGoOnThroughSignals)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; }; // no SA_RESTART: the waits themselves must go on
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_EQ(0, frwk_sem_create(&sem));
    frwk_thread_cancel(FRWK_THREAD_INVALID);
    replace_call("pthread_create", note_attributes);
    const pthread_t thread = frwk_thread_create(wait_twice, nullptr);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, detached);
    EXPECT_EQ(SCHED_FIFO, policy) << "set, though without effect: it runs as its creator";
    for (int wait : {0, 1}) {
        for (int i = 1; i <= 3; i++) {
            usleep(20000);
            ASSERT_EQ(0, pthread_kill(thread, SIGUSR1));
            ASSERT_TRUE(wait_until([=] { return signals == 3 * wait + i; }));
        }
        usleep(20000);
        EXPECT_EQ(wait, passed);
        EXPECT_EQ(0, frwk_sem_post(&sem));
        EXPECT_TRUE(wait_until([] { return passed == 1; }));
    }
}

} // namespace
