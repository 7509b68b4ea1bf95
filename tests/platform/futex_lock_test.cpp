#include "platform/futex_lock.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using memm::FutexLock;

long scaled(long count)
{
    const char *const percent = std::getenv("MEMM_TEST_SCALE");
    return percent != nullptr ? count * std::atol(percent) / 100 : count;
}

template <class Call> bool on_another_thread(Call call)
{
    bool result = false;
    std::thread([&] { result = call(); }).join();
    return result;
}

TEST(futex_lock, nests_deeply_and_belongs_to_its_holder)
{
    FutexLock lock;
    EXPECT_FALSE(lock.release());
    lock.take();
    for (int depth = 1; depth < 300; ++depth)
        ASSERT_TRUE(depth % 2 == 0 ? lock.try_take() : lock.take_for(0));
    for (int depth = 300; depth > 0; --depth) {
        if (depth % 100 == 1) {
            EXPECT_FALSE(on_another_thread([&] { return lock.release() || lock.try_take() || lock.take_for(1); }))
                << depth;
        }
        EXPECT_TRUE(lock.release());
    }
    EXPECT_FALSE(lock.release());
    EXPECT_TRUE(on_another_thread([&] { return lock.take_for(0) && lock.release(); }));
}

TEST(futex_lock, keeps_threads_apart_and_wakes_every_waiter)
{
    FutexLock lock;
    long counter = 0;  // plain: ThreadSanitizer sees whether the lock orders the accesses
    const long rounds = scaled(50000);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (long round = 0; round < rounds; ++round) {
                if (i != 0)
                    lock.take();
                else
                    while (!lock.take_for(1))  // deadlines pass while others are woken
                        ;
                ++counter;
                if (round % 64 == 0) {
                    std::this_thread::yield();  // others run into the held lock
                }
                lock.release();
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 4 * rounds);
    EXPECT_TRUE(lock.is_free());
}

// ---- signals ----

FutexLock shared_lock;
long by_threads, by_handlers;  // each is written under the lock, and a handler never interrupts a handler of its thread
std::atomic<long> handled, timed_after;

void take_in_handler(int)
{
    shared_lock.take();
    shared_lock.take();
    by_handlers = by_handlers + 1;
    shared_lock.release();
    shared_lock.release();
    handled.fetch_add(1);
}

// Takes and releases the lock while signals come, the next one timed when the last one was seen, so that they never
// come faster than the machine can handle them. Answers how often the lock was taken.
long take_until_handled(long signals)
{
    long rounds = 0;
    for (long seen = 0; seen < signals; ++rounds) {
        seen = handled;
        if (timed_after.exchange(seen) != seen) {
            const itimerval soon{{0, 0}, {0, 1 + rounds % 7}};
            setitimer(ITIMER_REAL, &soon, nullptr);
        }
        shared_lock.take();
        by_threads = by_threads + 1;
        if (rounds % 3 == 0) {
            shared_lock.take();
            shared_lock.release();
        }
        shared_lock.release();
    }
    return rounds;
}

void catch_alarms()
{
    struct sigaction action {};
    action.sa_handler = take_in_handler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    by_threads = by_handlers = handled = 0;
    timed_after = -1;
}

TEST(futex_lock, may_be_taken_in_a_handler_at_any_instruction_of_the_only_thread)
{
    catch_alarms();
    EXPECT_EQ(take_until_handled(scaled(100000)), by_threads);
    EXPECT_TRUE(shared_lock.is_free());
}

TEST(futex_lock, may_be_taken_in_a_handler_at_any_instruction_of_many_threads)
{
    catch_alarms();
    std::atomic<long> rounds{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] { rounds += take_until_handled(scaled(100000)); });
    sigset_t alarm;  // blocked in this thread, so that the kernel picks the others in turn
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    for (auto &thread : threads)
        thread.join();
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    EXPECT_EQ(by_threads, rounds);
    EXPECT_EQ(by_handlers, handled);
    EXPECT_TRUE(shared_lock.is_free());
}

TEST(futex_lock, is_held_by_the_forking_thread_in_the_child)
{
    FutexLock lock;
    lock.take();
    lock.take();
    const pid_t child = fork();
    if (child == 0)
        _exit(lock.is_mine() && lock.release() && lock.release() && lock.is_free() && !lock.release() && lock.try_take()
                  ? 0
                  : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(lock.release() && lock.release() && lock.is_free());
}

}  // namespace
