#include <memmanager/platform.h>

#include <chrono>
#include <climits>
#include <latch>
#include <set>
#include <thread>
#include <vector>

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

template <class Call> unsigned on_another_thread(Call call)
{
    unsigned result = UINT_MAX;
    std::thread([&] { result = call(); }).join();
    return result;
}

TEST(mutex, may_be_taken_again_by_its_holder_and_by_nobody_else)
{
    const unsigned mutex = created();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    EXPECT_EQ(xmu_p(mutex, kTry, 0), 0U);
    EXPECT_EQ(xmu_p(mutex, kWait, 10000), 0U);
    EXPECT_EQ(on_another_thread([=] { return xmu_v(mutex); }), kNotTheHolder);
    EXPECT_EQ(xmu_v(mutex), 0U);
    EXPECT_EQ(on_another_thread([=] { return xmu_p(mutex, kTry, 0); }), kTimedOut) << "one hold is left";
    for (const int timeout : {INT_MIN, 0, 1})
        EXPECT_EQ(on_another_thread([=] { return xmu_p(mutex, kWait, timeout); }), kTimedOut) << timeout;
    EXPECT_EQ(xmu_v(mutex), 0U);
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    EXPECT_EQ(on_another_thread([=] { return xmu_p(mutex, kTry, 0) + xmu_v(mutex); }), 0U);
}

TEST(mutex, waits_no_shorter_than_its_timeout_and_wakes_when_the_holder_lets_go)
{
    const unsigned mutex = created();
    ASSERT_EQ(xmu_p(mutex, kTry, 0), 0U);
    for (const int timeout : {30, 1010})
        std::thread([=] {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(xmu_p(mutex, kWait, timeout), kTimedOut);
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(timeout));
        }).join();
    std::thread waiter([=] {
        EXPECT_EQ(xmu_p(mutex, kWait, INT_MAX), 0U);
        EXPECT_EQ(xmu_v(mutex), 0U);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // most likely asleep by now
    EXPECT_EQ(xmu_v(mutex), 0U);
    waiter.join();
}

TEST(mutex, answers_an_error_to_handles_that_were_never_given_out)
{
    const unsigned mutex = created();
    for (const unsigned handle : {0U, mutex + 1, mutex + 64, 0x7fffffffU, UINT_MAX - 64, UINT_MAX}) {
        EXPECT_EQ(xmu_p(handle, kTry, 0), kInvalid) << handle;
        EXPECT_EQ(xmu_p(handle, kWait, 10000), kInvalid) << handle;
        EXPECT_EQ(xmu_v(handle), kInvalid) << handle;
    }
    EXPECT_EQ(xmu_p(mutex, 2, 0), kInvalid) << "unknown mode";
    EXPECT_EQ(xmu_create("test", 1, nullptr), kInvalid);
    EXPECT_EQ(created(), mutex + 1) << "the failure took no handle";
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    constexpr std::size_t kThreads = 4, kEach = 5000;
    std::vector<unsigned> handles[kThreads];
    std::vector<std::thread> threads;
    std::latch start(kThreads);
    for (auto &mine : handles)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (std::size_t i = 0; i < kEach; ++i) {
                mine.push_back(created());
                ASSERT_EQ(xmu_p(mine.back(), kTry, 0), 0U);
            }
            for (const unsigned handle :
                 mine) {  // all are held: of two handles of one lock, one would answer otherwise
                ASSERT_EQ(xmu_v(handle), 0U);
                ASSERT_EQ(xmu_v(handle), kNotTheHolder);
            }
        });
    for (auto &thread : threads)
        thread.join();
    std::set<unsigned> all;
    for (const auto &mine : handles)
        all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), kThreads * kEach);
}

}  // namespace
