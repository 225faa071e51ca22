// Mutexes, semaphores and threads.
#include <limits.h>
#include <signal.h>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

TEST(Thread, MutexesAndSemaphores)
{
    pthread_mutex_t mutex;
    EXPECT_EQ(0, frwk_mutex_create(&mutex));
    EXPECT_EQ(0, frwk_mutex_lock(&mutex));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex)) << "locked, and not recursive";
    EXPECT_EQ(0, frwk_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_trylock(&mutex));
    EXPECT_EQ(EBUSY, frwk_mutex_close(&mutex)) << "results are handed on";

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
std::atomic<int> started, signals, ended, cleaned;

void *wait_for_post(void *)
{
    pthread_cleanup_push([](void *) { cleaned++; }, nullptr);
    started++;
    EXPECT_EQ(0, frwk_sem_wait(&sem));
    ended++;
    pthread_cleanup_pop(0);
    return nullptr;
}

void *park(void *)
{
    started++;
    frwk_keep_running();
    ended++;
    return nullptr;
}

TEST(Thread, WaitsGoOnThroughSignalsUntilCancelled)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals++; }; // no SA_RESTART: the waits themselves must go on
    sigaction(SIGUSR1, &action, nullptr);
    frwk_thread_cancel(FRWK_THREAD_INVALID);
    ASSERT_EQ(0, frwk_sem_create(&sem));
    const pthread_t threads[] = {frwk_thread_create(wait_for_post, nullptr), frwk_thread_create(park, nullptr),
                                 frwk_thread_create(wait_for_post, nullptr)};
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_detach_state);
    EXPECT_EQ(SCHED_FIFO, thread_sched_policy) << "set, though without effect: it runs as its creator";
    ASSERT_TRUE(wait_until([] { return started == 3; }));
    for (int i = 0; i < 6; i++) {
        usleep(20000);
        ASSERT_EQ(0, pthread_kill(threads[i % 3], SIGUSR1));
        ASSERT_TRUE(wait_until([=] { return signals == i + 1; }));
    }
    usleep(20000);
    EXPECT_EQ(0, ended);
    frwk_thread_cancel(threads[0]);
    EXPECT_TRUE(wait_until([] { return cleaned == 1; }));
    EXPECT_EQ(0, frwk_sem_post(&sem));
    ASSERT_TRUE(wait_until([] { return ended == 1; }));
}

} // namespace
