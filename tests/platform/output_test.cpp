#include <memmanager/platform.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

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

TEST(output, goes_to_its_channel_in_one_write_a_call)
{
    Capture out(STDOUT_FILENO), err(STDERR_FILENO);
    int results = dbg_printf("%-5s|%5d|\r\n", "pool", 42) | dbg_printf("%.2f", 2.5) | dbg_printf("%s", "");
    results |= dbg_printf(nullptr) | trc_def_printf(nullptr) | trc_def_printf("[MEMM] %s\r\n", "trace");
    results |= err_printf(0x10002, 2, "memm", "memmanager", 123, "100% used: %s");
    results |= err_printf(0x10007, 2, nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(out.text(), "pool |   42|\r\n2.50");
    EXPECT_EQ(err.text(), "[MEMM] trace\r\n[memm] error 0x10002, severity 2, memmanager:123: 100% used: %s\r\n"
                          "[(null)] error 0x10007, severity 2, (null):0: (null)\r\n");
    EXPECT_EQ(out.writes, 2);
    EXPECT_EQ(err.writes, 3);
    EXPECT_EQ(results, 0);
}

TEST(output, of_any_length_is_whole_in_spite_of_signals_and_short_writes)
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
        dbg_printf("<%s>", text.c_str());
        trc_def_printf("<%s>%.1f", text.c_str(), 0.5);
        setitimer(ITIMER_REAL, &never, nullptr);
        EXPECT_EQ(by_libc.text(), "<" + text + ">0.5");
        EXPECT_EQ(by_pieces.text(), "<" + text + ">");
    }
}

TEST(output, that_cannot_be_written_harms_nothing)
{
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = 77;
    const int result = trc_def_printf("lost %d", 1) | err_printf(1, 2, "m", "f", 3, "lost"), after = errno;
    dup2(saved, STDERR_FILENO);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(after, 77);
}

std::string collected;

TEST(output, for_debugging_follows_its_sink)
{
    auto *const standard = dbg_vprintf_cb;
    Capture out(STDOUT_FILENO);
    dbg_vprintf_cb = [](const char *format, va_list arguments) {
        collected.resize(20);
        return std::vsnprintf(collected.data(), 20, format, arguments);
    };
    int results = dbg_printf("%d %s;", 1, "two") | dbg_printf(nullptr);
    dbg_vprintf_cb = nullptr;
    results |= dbg_printf("no sink;");
    dbg_vprintf_cb = standard;
    results |= dbg_printf("standard");
    EXPECT_EQ(out.text(), "no sink;standard");
    EXPECT_STREQ(collected.c_str(), "1 two;");
    EXPECT_EQ(results, 0);
}

TEST(output, is_no_cancellation_point)
{
    Capture out(STDOUT_FILENO);
    const auto print_cancelled = [](void *printed) -> void * {
        pthread_cancel(pthread_self());
        dbg_printf("whole");
        *static_cast<bool *>(printed) = true;
        pthread_testcancel();
        return nullptr;
    };
    bool printed = false;
    pthread_t thread{};
    void *result = nullptr;
    ASSERT_EQ(pthread_create(&thread, nullptr, print_cancelled, &printed), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(out.text(), "whole");
    EXPECT_TRUE(printed && result == PTHREAD_CANCELED) << "and the request is not lost";
}

}  // namespace
