// Memory, clock and tasks: the small platform operations.
#include <memmanager/platform.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

int own_id()
{
    int id = -1;
    EXPECT_EQ(vemo_t_ident(0, 0, &id), 0U);
    return id;
}

TEST(task, has_the_kernels_identity_also_after_fork)
{
    EXPECT_EQ(own_id(), gettid());
    std::thread([parent = own_id()] {
        EXPECT_EQ(own_id(), gettid());
        EXPECT_NE(own_id(), parent);
    }).join();
    const pid_t child = fork();
    if (child == 0)
        _exit(own_id() == getpid() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_NE(vemo_t_ident(0, 0, nullptr), 0U);
}

TEST(task, name_is_four_characters_padded_with_blanks_and_not_terminated)
{
    const char *const names[][2] = {
        {"", "    "}, {"a", "a   "}, {"abc", "abc "}, {"abcd", "abcd"}, {"longest name 15", "long"}};
    for (const auto &[full, shown] : names) {
        ASSERT_EQ(pthread_setname_np(pthread_self(), full), 0);
        char name[8] = "#######";
        std::thread([&name, id = own_id()] { EXPECT_EQ(xt_getname(id, name), 0U); }).join();
        EXPECT_EQ(std::string(name), std::string(shown) + "###");
    }
}

TEST(task, name_of_an_unknown_task_is_an_error_that_writes_nothing)
{
    for (const int id : {0, -1, INT_MIN, INT_MAX, 1}) {  // 1 is another process
        char name[8] = "#######";
        errno = 0;
        EXPECT_NE(xt_getname(id, name), 0U) << id;
        EXPECT_STREQ(name, "#######");
        EXPECT_EQ(errno, 0);
    }
    EXPECT_NE(xt_getname(own_id(), nullptr), 0U);
}

TEST(memory, of_a_pool_is_zeroed_and_aligned_whatever_the_heap_held_before)
{
    for (const unsigned size : {0U, 1U, 15U, 16U, 200U, 4096U, 70001U, 3000000U}) {
        void *used = std::malloc(size + 1);
        std::memset(used, 0xff, size + 1);
        std::free(used);
        void *block = nullptr;
        ASSERT_EQ(xm_alloc("test", 1, size, &block), 0U);
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U) << size;
        EXPECT_EQ(std::string(static_cast<char *>(block), size), std::string(size, '\0'));
        std::free(block);  // the library never does; here it gives the next round a used heap

        ASSERT_EQ(xm_getmem(size, &block), 0U);
        ASSERT_NE(block, nullptr) << size;
        std::memset(block, 0xff, size);
        EXPECT_EQ(xm_retmem(block), 0U);
    }
    EXPECT_EQ(xm_retmem(nullptr), 0U);
    EXPECT_NE(xm_alloc("test", 1, 1, nullptr), 0U);
    EXPECT_NE(xm_getmem(1, nullptr), 0U);
}

TEST(clock, is_the_monotonic_one_split_into_seconds_and_microseconds)
{
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
    };
    for (int round = 0; round < 1000; ++round) {
        unsigned seconds = 0, microseconds = 0;
        const std::int64_t before = now();
        xtm_gettimestamp(&seconds, &microseconds);
        const std::int64_t stamp = std::int64_t{seconds} * 1000000 + microseconds, after = now();
        ASSERT_LT(microseconds, 1000000U);
        ASSERT_LE(before, stamp);
        ASSERT_LE(stamp, after);
    }
    unsigned value = 7;
    xtm_gettimestamp(&value, nullptr);
    xtm_gettimestamp(nullptr, &value);
    EXPECT_EQ(value, 7U);
}

}  // namespace
