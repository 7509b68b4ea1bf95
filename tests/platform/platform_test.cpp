// The defaults of the platform operations.
#include "platform/probe.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

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
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(call, i);
}

TEST(mutex, may_be_taken_again_by_its_holder_and_by_nobody_else)
{
    const unsigned mutex = created();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    EXPECT_EQ(xmu_p(mutex, kTry, 0) + xmu_p(mutex, kWait, 10000) + xmu_v(mutex), 0U);
    on_threads(1, [=](int) {  // one hold is left
        EXPECT_TRUE(xmu_v(mutex) == kNotTheHolder && xmu_p(mutex, kTry, 0) == kTimedOut);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(xmu_p(mutex, kWait, 30), kTimedOut);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    });
    EXPECT_EQ(xmu_v(mutex), 0U);
    for (const unsigned handle : {0U, mutex + 1, UINT_MAX})
        EXPECT_TRUE(xmu_p(handle, kTry, 0) == kInvalid && xmu_v(handle) == kInvalid) << handle;
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    const unsigned shared = created();
    int counter = 0;  // plain: ThreadSanitizer sees whether the mutex orders the accesses
    on_threads(4, [=, &counter](int) {
        std::vector<unsigned> handles(5000);
        for (unsigned &handle : handles) {
            ASSERT_EQ(xmu_p(handle = created(), kTry, 0), 0U);
            while (xmu_p(shared, kWait, 1) != 0)  // deadlines pass while others are woken
                ;
            ++counter;
            ASSERT_EQ(xmu_v(shared), 0U);
        }
        for (const unsigned handle : handles)  // all are held: two handles of one lock would answer otherwise
            ASSERT_TRUE(xmu_v(handle) == 0 && xmu_v(handle) == kNotTheHolder);
    });
    EXPECT_EQ(counter, 20000);
}

TEST(output, of_any_length_goes_to_its_channel)
{
    for (const std::size_t length : {0U, 1022U, 1024U, 400000U}) {
        std::string text(length, '\0');
        std::generate(text.begin(), text.end(), [n = 0U]() mutable { return static_cast<char>('0' + n++ % 61); });
        testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
        dbg_printf("%s%d", text.c_str(), 7);
        trc_def_printf("%s%.1f", text.c_str(), 0.5);
        err_printf(0x10002, 2, "memm", "memmanager", 123, "100% used: %s");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), text + "7");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  text + "0.5[memm] error 0x10002, severity 2, memmanager:123: 100% used: %s\r\n");
    }
}

// As in reports that signal handlers write: by a formatter of its own, and what that refuses by the C library's.
TEST(output, is_formatted_as_by_the_c_library)
{
    std::mt19937 dice(std::random_device{}());
    const auto number = [&] { return static_cast<int>(dice()) >> dice() % 32; };
    constexpr char kUnterminated[] = {'a', 'b', 'c'};
    for (int round = 0; round < 5000; ++round) {
        std::string form = "%", formats, expected;
        for (unsigned flags = static_cast<unsigned>(dice()) % 32; flags != 0; flags &= flags - 1)
            form += "-0+ #"[__builtin_ctz(flags)];
        const int width = number() % 41, precision = number() % 31;
        const auto print = [&](const std::string &conversion, auto value) {
            const std::string format = form + "*.*" + conversion + form + "17" + conversion + "100%%%.3s";
            char *text = nullptr;
            const int length = asprintf(&text, format.c_str(), width, precision, value, value, kUnterminated);
            expected.append(text, static_cast<std::size_t>(length)), formats += format + '\n';
            std::free(text);
            dbg_printf(format.c_str(), width, precision, value, value, kUnterminated);
        };
        const std::string letter(1, "diuxXo"[dice() % 6]);
        const long long wide = dice() % 9 == 0 ? LLONG_MIN : 1LL * number() * number();
        testing::internal::CaptureStdout();
        print(std::string("hh").substr(dice() % 3) + letter, number());
        print("lzt"[dice() % 3] + letter, static_cast<long>(wide));
        print((dice() % 2 == 0 ? "ll" : "j") + letter, wide);
        print("s", std::array{"(null)", "", "a", "seven b", "a text of thirty characters..."}[dice() % 5]);
        print("c", number());
        print("p", reinterpret_cast<void *>(static_cast<std::uintptr_t>(dice() % 4 == 0 ? 0 : wide)));
        print(std::string(1, "feg"[dice() % 3]), number() / 7.0);
        ASSERT_EQ(testing::internal::GetCapturedStdout(), expected) << formats;
    }
}

// Emulators have no copies by the kernel: there the tests for a missing call answer.
TEST(probe, tells_what_can_be_read_and_written)
{
    constexpr std::size_t kPage = 65536;
    void *const pages = mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const auto closed = reinterpret_cast<std::uintptr_t>(pages) + kPage;
    mprotect(reinterpret_cast<void *>(closed), kPage, PROT_NONE);
    std::uint32_t word = 0;
    for (const unsigned below : {4U, 5U, 8U})
        EXPECT_TRUE(memm::write_word(closed - below, below) && memm::read_word(closed - below, word) && word == below);
    for (const std::uintptr_t unreadable : {std::uintptr_t{0}, closed - 3, closed, ~std::uintptr_t{0}})
        EXPECT_FALSE(memm::read_word(unreadable, word) || memm::write_word(unreadable, 1)) << unreadable;
}

TEST(calendar, agrees_with_the_c_library_for_dates_of_any_kind)
{
    std::mt19937 random;
    const auto number = [&] { return static_cast<int>(random()) >> random() % 32; };
    constexpr std::size_t kSame = 8 * sizeof(int);  // the first fields are those of a tm
    for (int round = 0; round < 20000; ++round) {
        const std::time_t time = static_cast<unsigned>(random());
        std::tm tm{};
        xtm_date date;
        ASSERT_EQ(xtm_time_date_struct(&date, static_cast<unsigned>(time), 0, 1), 0U);
        ASSERT_EQ(xtm_gettimezone(&date.timezone) | xtm_getdaylightsaving(&date.daylightsaving), 0U);
        gmtime_r(&time, &tm);
        ASSERT_TRUE(std::memcmp(&date, &tm, kSame) == 0 && date.timezone == 0 && date.daylightsaving == 0) << time;

        unsigned seconds = 0;
        date = {number(), number(), number(), number(), number(), number() / 2000, number(), 0, 0, 0};
        std::memcpy(&tm, &date, kSame);
        ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
        ASSERT_EQ(seconds, static_cast<unsigned>(timegm(&tm))) << round;
    }
}

}  // namespace
