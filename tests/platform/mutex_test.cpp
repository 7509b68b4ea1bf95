// Mutexes, and the lock that they and the manager's lock are made of.
#include "platform/futex_lock.h"
#include "support/rounds.h"

#include <memmanager/platform.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <set>
#include <thread>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

namespace {

constexpr unsigned kNotTheHolder = 1, kTimedOut = 6, kInvalid = 22;
constexpr int kWait = 0, kTry = 1;

unsigned created()
{
    unsigned handle = 0;
    EXPECT_EQ(xmu_create("test", 1, &handle), 0U);
    return handle;
}

template <class Call> void on_threads(int count, Call call)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(call, i);
    for (auto &thread : threads)
        thread.join();
}

TEST(mutex, may_be_taken_again_by_its_holder_and_by_nobody_else)
{
    const unsigned mutex = created();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    for (int depth = 0; depth < 300; ++depth)
        ASSERT_EQ(depth % 2 == 0 ? xmu_p(mutex, kTry, 0) : xmu_p(mutex, kWait, 10000), 0U);
    for (int depth = 300; depth > 1; --depth)
        ASSERT_EQ(xmu_v(mutex), 0U);
    on_threads(1, [=](int) {  // one hold is left
        EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
        EXPECT_EQ(xmu_p(mutex, kTry, 0), kTimedOut);
        for (const int timeout : {INT_MIN, 0, 1, 30, 1010}) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(xmu_p(mutex, kWait, timeout), kTimedOut) << timeout;
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(timeout));
        }
    });
    std::thread waiter([=] { EXPECT_EQ(xmu_p(mutex, kWait, INT_MAX) + xmu_v(mutex), 0U); });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // most likely asleep by now
    EXPECT_EQ(xmu_v(mutex), 0U);
    waiter.join();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
}

TEST(mutex, answers_an_error_to_handles_that_were_never_given_out)
{
    const unsigned mutex = created();
    for (const unsigned handle : {0U, mutex + 1, mutex + 64, 0x7fffffffU, UINT_MAX - 64, UINT_MAX})
        for (const unsigned result : {xmu_p(handle, kTry, 0), xmu_p(handle, kWait, 10000), xmu_v(handle)})
            EXPECT_EQ(result, kInvalid) << handle;
    EXPECT_EQ(xmu_p(mutex, 2, 0), kInvalid) << "unknown mode";
    EXPECT_EQ(xmu_create("test", 1, nullptr), kInvalid);
    EXPECT_EQ(created(), mutex + 1) << "the failure took no handle";
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    constexpr std::size_t kEach = 5000;
    std::vector<unsigned> handles[4];
    on_threads(4, [&](int i) {
        while (handles[i].size() < kEach)
            ASSERT_EQ(xmu_p(handles[i].emplace_back(created()), kTry, 0), 0U);
        for (const unsigned handle : handles[i])  // all are held: two handles of one lock would answer otherwise
            ASSERT_TRUE(xmu_v(handle) == 0 && xmu_v(handle) == kNotTheHolder);
    });
    std::set<unsigned> all;
    for (const auto &some : handles)
        all.insert(some.begin(), some.end());
    EXPECT_EQ(all.size(), 4 * kEach);
}

memm::FutexLock lock;

TEST(futex_lock, keeps_threads_apart_and_wakes_every_waiter)
{
    long counter = 0;  // plain: ThreadSanitizer sees whether the lock orders the accesses
    on_threads(4, [&counter](int i) {
        for (int round = 0; round < scaled(50000); ++round) {
            if (i != 0)
                lock.take();
            while (i == 0 && !lock.take_for(1))  // deadlines pass while others are woken
                ;
            ++counter;
            if (round % 64 == 0)
                std::this_thread::yield();  // others run into the held lock
            lock.release();
        }
    });
    EXPECT_EQ(counter, 4L * scaled(50000));
    EXPECT_TRUE(lock.is_free());
}

std::atomic<long> handled{0};
long under_lock;

// Each signal is timed when the last one was seen, so that they never come faster than the machine can handle them.
TEST(futex_lock, may_be_taken_in_a_handler_at_any_instruction_of_the_only_thread)
{
    struct sigaction action {};
    action.sa_handler = [](int) {
        lock.take();
        lock.take();
        under_lock = under_lock + 1;
        lock.release();
        lock.release();
        ++handled;
    };
    sigaction(SIGALRM, &action, nullptr);
    long rounds = 0;
    for (long seen = -1; seen < scaled(100000); ++rounds) {
        if (seen != handled) {
            const itimerval soon{{0, 0}, {0, 1 + rounds % 7}};
            seen = handled;
            setitimer(ITIMER_REAL, &soon, nullptr);
        }
        lock.take();
        lock.take();
        lock.release();
        ASSERT_TRUE(lock.is_mine());
        lock.release();
        ASSERT_FALSE(lock.is_mine());
    }
    EXPECT_EQ(under_lock, handled);
    EXPECT_TRUE(lock.is_free());
}

}  // namespace
