// The defaults of the platform operations.
#include <memmanager/platform.h>
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kNotTheHolder = 1, kTimedOut = 6;
constexpr int kWait = 0, kTry = 1;

unsigned created()
{
    unsigned handle = 0;
    EXPECT_EQ(xmu_create("test", 1, &handle), 0U);
    return handle;
}

TEST(mutex, may_be_taken_again_by_its_holder_and_by_nobody_else)
{
    const unsigned mutex = created();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    EXPECT_EQ(xmu_p(mutex, kTry, 0) + xmu_p(mutex, kWait, 10000) + xmu_v(mutex), 0U);
    std::thread([=] {  // one hold is left
        EXPECT_TRUE(xmu_v(mutex) == kNotTheHolder && xmu_p(mutex, kTry, 0) == kTimedOut);
        EXPECT_EQ(xmu_p(mutex, kWait, 30), kTimedOut);
    })
        .join();
    EXPECT_EQ(xmu_v(mutex), 0U);
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    const unsigned shared = created();
    int counter = 0;  // plain: ThreadSanitizer sees whether the mutex orders the accesses
    const auto create_and_use = [=, &counter] {
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
    };
    std::thread threads[] = {std::thread(create_and_use), std::thread(create_and_use), std::thread(create_and_use)};
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 15000);
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
        std::string form = "%", expected;
        for (unsigned flags = static_cast<unsigned>(dice()) % 32; flags != 0; flags &= flags - 1)
            form += "-0+ #"[__builtin_ctz(flags)];
        const int width = number() % 41, precision = number() % 31;
        const auto print = [&](const std::string &conversion, auto value) {
            const std::string format = form + "*.*" + conversion + form + "17" + conversion + "100%%%.3s";
            char *text = nullptr;
            const int length = asprintf(&text, format.c_str(), width, precision, value, value, kUnterminated);
            expected.append(text, static_cast<std::size_t>(length));
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
        ASSERT_EQ(testing::internal::GetCapturedStdout(), expected) << form;
    }
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
        gmtime_r(&time, &tm);
        ASSERT_TRUE(std::memcmp(&date, &tm, kSame) == 0) << time;

        unsigned seconds = 0;
        date = {number(), number(), number(), number(), number(), number() / 2000, number(), 0, 0, 0};
        std::memcpy(&tm, &date, kSame);
        ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
        ASSERT_EQ(seconds, static_cast<unsigned>(timegm(&tm))) << round;
    }
}

}  // namespace
