// The defaults of the platform operations, and the lock that mutexes and the manager's lock are made of.
#include "platform/futex_lock.h"
#include "support/rounds.h"

#include <memmanager/platform.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr unsigned kNotTheHolder = 1, kTimedOut = 6, kInvalid = 22;
enum { kWait = 0, kTry = 1 };

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
    for (const unsigned handle : {0U, mutex + 1, mutex + 64, 0x7fffffffU, UINT_MAX - 64, UINT_MAX})
        for (const unsigned result : {xmu_p(handle, kTry, 0), xmu_p(handle, kWait, 10000), xmu_v(handle)})
            EXPECT_EQ(result, kInvalid) << handle;
    EXPECT_EQ(xmu_p(mutex, 2, 0), kInvalid) << "unknown mode";
    EXPECT_EQ(xmu_create("test", 1, nullptr), kInvalid);
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    on_threads(4, [&](int) {
        std::vector<unsigned> handles;
        while (handles.size() < 5000)
            ASSERT_EQ(xmu_p(handles.emplace_back(created()), kTry, 0), 0U);
        for (const unsigned handle : handles)  // all are held: two handles of one lock would answer otherwise
            ASSERT_TRUE(xmu_v(handle) == 0 && xmu_v(handle) == kNotTheHolder);
    });
}

memm::FutexLock lock;
std::atomic<long> handled{0};
long under_lock;

TEST(futex_lock, keeps_threads_and_handlers_apart_and_wakes_every_waiter)
{
    struct sigaction action {};
    action.sa_handler = [](int) {
        lock.take(), lock.take();
        under_lock = under_lock + 1;
        lock.release(), lock.release();
        ++handled;
    };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    long counter = 0;  // plain: ThreadSanitizer sees whether the lock orders the accesses
    // First the only thread, then four. A signal is timed when the last one was seen, so that they do not pile up.
    for (const int threads : {0, 4}) {
        const auto work = [&](int i) {
            long seen = -1;
            for (int round = 0; threads == 0 ? handled < scaled(50000) : round < scaled(50000); ++round) {
                if (i == 0 && seen != handled) {
                    const itimerval soon{{0, 0}, {0, 1 + round % 7}};
                    seen = handled;
                    setitimer(ITIMER_REAL, &soon, nullptr);
                }
                while (i == 1 && !lock.take_for(1))  // deadlines pass while others are woken
                    ;
                lock.take(), lock.take();
                ++counter;
                if (round % 64 == 0)
                    std::this_thread::yield();  // others run into the held lock
                lock.release();
                ASSERT_TRUE(lock.is_mine());
                if (i == 1)
                    lock.release();
                --counter, ++counter;
                lock.release();
                ASSERT_FALSE(lock.is_mine());
            }
        };
        if (threads == 0)
            work(0), counter = 0;
        else
            on_threads(threads, work);
    }
    EXPECT_EQ(counter, 4L * scaled(50000));
    EXPECT_EQ(under_lock, handled);
    EXPECT_TRUE(lock.is_free());
}

// --- output ---

// What is written to a file descriptor, and in how many writes (of at most a page). Writers soon have to wait.
class Capture {
    int file_, saved_, ends_[2] = {-1, -1};
    std::string text_;
    std::thread reader_;

public:
    int writes = 0;

    explicit Capture(int file) : file_(file), saved_(dup(file))
    {
        EXPECT_EQ(pipe2(ends_, O_DIRECT), 0);
        fcntl(ends_[0], F_SETPIPE_SZ, 4096);
        dup2(ends_[1], file);
        reader_ = std::thread([this] {
            char bytes[4096];
            for (ssize_t count; (count = read(ends_[0], bytes, sizeof bytes)) != 0; writes += count > 0)
                text_.append(bytes, static_cast<std::size_t>(std::max(count, ssize_t{0})));
        });
    }
    std::string text()
    {
        dup2(saved_, file_);
        close(ends_[1]);
        reader_.join();
        return text_;
    }
};

std::string collected;

TEST(output, goes_to_its_channel_in_one_write_a_call)
{
    Capture out(STDOUT_FILENO), err(STDERR_FILENO);
    int results = dbg_printf("%-5s|%5d|\r\n", "pool", 42) | dbg_printf("%.2f", 2.5) | dbg_printf("%s", "");
    results |= dbg_printf(nullptr) | trc_def_printf(nullptr) | trc_def_printf("[MEMM] %s\r\n", "trace");
    results |= err_printf(0x10002, 2, "memm", "memmanager", 123, "100% used: %s");
    results |= err_printf(0x10007, 2, nullptr, nullptr, 0, nullptr);
    auto *const standard = dbg_vprintf_cb;
    dbg_vprintf_cb = [](const char *format, va_list) { return collected += format, 0; };
    results |= dbg_printf("to the sink") | dbg_printf(nullptr);
    dbg_vprintf_cb = nullptr;
    results |= dbg_printf("|no sink");
    dbg_vprintf_cb = standard;
    EXPECT_EQ(out.text(), "pool |   42|\r\n2.50|no sink");
    EXPECT_EQ(err.text(), "[MEMM] trace\r\n[memm] error 0x10002, severity 2, memmanager:123: 100% used: %s\r\n"
                          "[(null)] error 0x10007, severity 2, (null):0: (null)\r\n");
    EXPECT_EQ(collected, "to the sink");
    EXPECT_TRUE(out.writes == 3 && err.writes == 3 && results == 0);
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = 77;
    results = trc_def_printf("lost %d", 1) | err_printf(1, 2, "m", "f", 3, "lost") | (errno - 77);
    dup2(saved, STDERR_FILENO);
    EXPECT_EQ(results, 0);
}

TEST(output, of_any_length_is_whole_in_spite_of_signals_short_writes_and_cancellation)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART: write() is interrupted
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 50}, {0, 50}}, never{};
    for (const std::size_t length : {1019U, 1022U, 1024U, 1025U, 5000U, 400000U}) {
        std::string text(length, '\0');
        for (std::size_t i = 0; i < length; ++i)
            text[i] = static_cast<char>('0' + i * i % 61);
        Capture by_pieces(STDOUT_FILENO), by_libc(STDERR_FILENO);
        setitimer(ITIMER_REAL, &often, nullptr);
        bool went_on = false;
        std::thread printer([&] {
            pthread_cancel(pthread_self());
            dbg_printf("<%s>", text.c_str());
            trc_def_printf("<%s>%.1f", text.c_str(), 0.5);
            went_on = true;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        });
        printer.join();
        setitimer(ITIMER_REAL, &never, nullptr);
        EXPECT_EQ(by_libc.text(), "<" + text + ">0.5");
        EXPECT_EQ(by_pieces.text(), "<" + text + ">");
        EXPECT_TRUE(went_on);
    }
}

// --- the small ones ---

int own_id()
{
    int id = -1;
    EXPECT_EQ(vemo_t_ident(0, 0, &id), 0U);
    return id;
}

TEST(task, has_the_kernels_identity_and_a_name_of_four_characters)
{
    EXPECT_EQ(own_id(), gettid());
    std::thread([] { EXPECT_EQ(own_id(), gettid()); }).join();
    int status = -1;
    if (fork() == 0)
        _exit(own_id() == getpid() ? 0 : 1);
    wait(&status);
    EXPECT_EQ(status, 0);
    const char *const names[][2] = {{"", "    "}, {"a", "a   "}, {"abcd", "abcd"}, {"longest name 15", "long"}};
    for (const auto &[full, shown] : names) {
        ASSERT_EQ(pthread_setname_np(pthread_self(), full), 0);
        char name[8] = "#######";
        std::thread([&name, id = own_id()] { EXPECT_EQ(xt_getname(id, name), 0U); }).join();
        EXPECT_EQ(std::string(name), std::string(shown) + "###");
    }
    for (const int id : {0, -1, INT_MIN, INT_MAX, 1}) {  // 1 is another process
        char name[8] = "#######";
        errno = 0;
        EXPECT_NE(xt_getname(id, name), 0U) << id;
        EXPECT_TRUE(std::string(name) == "#######" && errno == 0);
    }
}

TEST(memory, of_a_pool_is_zeroed_and_aligned_whatever_the_heap_held_before)
{
    for (const unsigned size : {0U, 1U, 15U, 16U, 200U, 4096U, 70001U, 3000000U}) {
        void *block = nullptr;
        ASSERT_TRUE(xm_getmem(size, &block) == 0 && block != nullptr) << size;
        std::memset(block, 0xff, size);
        EXPECT_EQ(xm_retmem(block), 0U);
        ASSERT_TRUE(xm_alloc("test", 1, size, &block) == 0 && block != nullptr) << size;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U) << size;
        EXPECT_EQ(std::string(static_cast<char *>(block), size), std::string(size, '\0'));
        std::free(block);  // the library never does; here it gives the next round a used heap
    }
    EXPECT_EQ(xm_retmem(nullptr), 0U);
}

// Against the C library's, in which time_t has 64 bits. Its result holds for years that fit; the calendar repeats every
// 400 years, which carries it to all others.
void expect_same_seconds(xtm_date date)
{
    const int cycles = date.years / 400;
    std::tm tm{};
    tm.tm_sec = date.seconds, tm.tm_min = date.minutes, tm.tm_hour = date.hours;
    tm.tm_mday = date.day, tm.tm_mon = date.month, tm.tm_year = date.years - cycles * 400;
    unsigned seconds = 0;
    ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
    ASSERT_EQ(seconds, static_cast<unsigned>(timegm(&tm) + std::int64_t{cycles} * 146097 * 86400))
        << date.years << ' ' << date.month << ' ' << date.day << ' ' << date.hours << ' ' << date.minutes;
}

TEST(calendar, agrees_with_the_c_library_for_dates_of_any_kind)
{
    std::mt19937 random(std::random_device{}());
    const auto number = [&] { return static_cast<int>(static_cast<unsigned>(random())) >> random() % 32; };
    const unsigned special[] = {0, 86399, 86400, 951782400, 951868799, 4107542399, 4107542400, UINT_MAX};  // leap days
    for (unsigned round = 0; round < 20000 && !HasFatalFailure(); ++round) {
        const std::time_t time = round < std::size(special) ? special[round] : static_cast<unsigned>(random());
        xtm_date date;
        ASSERT_EQ(xtm_time_date_struct(&date, static_cast<unsigned>(time), 0, 1), 0U);
        ASSERT_EQ(xtm_gettimezone(&date.timezone) | xtm_getdaylightsaving(&date.daylightsaving), 0U);
        std::tm tm{};
        gmtime_r(&time, &tm);
        const xtm_date expected{tm.tm_sec,  tm.tm_min,  tm.tm_hour, tm.tm_mday, tm.tm_mon,
                                tm.tm_year, tm.tm_wday, tm.tm_yday, 0,          0};
        ASSERT_EQ(std::memcmp(&date, &expected, sizeof date), 0) << time;
        expect_same_seconds(date);
        expect_same_seconds({number(), number(), number(), number(), number(), number(), number(), 0, 0, 0});
    }
    for (const int extreme : {INT_MIN, INT_MAX})
        expect_same_seconds({extreme, extreme, extreme, extreme, extreme, extreme, 0, 0, 0, 0});
}

TEST(small_operations, answer_an_error_to_null_and_the_monotonic_time)
{
    unsigned value = 7, microseconds = 0;
    xtm_date date{};
    xtm_gettimestamp(&value, nullptr);
    xtm_gettimestamp(nullptr, &value);
    for (const unsigned result :
         {xm_alloc("test", 1, 1, nullptr), xm_getmem(1, nullptr), vemo_t_ident(0, 0, nullptr),
          xt_getname(own_id(), nullptr), xtm_time_date_struct(nullptr, 1, 0, 1), xtm_gettimezone(nullptr),
          xtm_getdaylightsaving(nullptr), xtm_time_date_struct_to_seconds(nullptr, &date),
          xtm_time_date_struct_to_seconds(&value, nullptr)})
        EXPECT_NE(result, 0U);
    EXPECT_EQ(value, 7U);
    const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::microseconds(1); };
    for (int round = 0; round < 1000; ++round) {
        const auto before = now();
        xtm_gettimestamp(&value, &microseconds);
        const auto stamp = value * 1000000LL + microseconds;
        ASSERT_TRUE(microseconds < 1000000 && before <= stamp && stamp <= now());
    }
}

}  // namespace
