#include <memmanager/platform.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

// What is written to a file descriptor, one string for each write (of at most a page).
class Capture {
    int file_, saved_, ends_[2] = {-1, -1};
    std::vector<std::string> writes_;
    std::thread reader_;

public:
    explicit Capture(int file, int flags = O_DIRECT) : file_(file), saved_(dup(file))
    {
        EXPECT_EQ(pipe2(ends_, flags), 0);
        dup2(ends_[1], file);
        reader_ = std::thread([this] {
            char bytes[65536];
            for (ssize_t count; (count = read(ends_[0], bytes, sizeof bytes)) != 0;)
                if (count > 0)
                    writes_.emplace_back(bytes, static_cast<std::size_t>(count));
        });
    }
    int reading_end() const { return ends_[0]; }

    std::vector<std::string> writes()
    {
        dup2(saved_, file_);
        close(saved_);
        close(ends_[1]);
        reader_.join();
        close(ends_[0]);
        return writes_;
    }
    std::string text()
    {
        std::string all;
        for (const auto &piece : writes())
            all += piece;
        return all;
    }
};

TEST(output, goes_to_its_channel_in_one_write_a_call)
{
    Capture out(STDOUT_FILENO), err(STDERR_FILENO);
    int results = dbg_printf("%-5s|%5d|\r\n", "pool", 42);
    results |= dbg_printf(nullptr) | trc_def_printf(nullptr) | dbg_printf("%s", "");
    results |= dbg_printf("%.2f", 2.5);
    results |= trc_def_printf("[MEMM] %s\r\n", "trace");
    results |= err_printf(0x10002, 2, "memm", "memmanager", 123, "100% used: %s");
    results |= err_printf(0x10007, 2, nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(out.writes(), (std::vector<std::string>{"pool |   42|\r\n", "2.50"}));
    EXPECT_EQ(err.writes(),
              (std::vector<std::string>{"[MEMM] trace\r\n",
                                        "[memm] error 0x10002, severity 2, memmanager:123: 100% used: %s\r\n",
                                        "[(null)] error 0x10007, severity 2, (null):0: (null)\r\n"}));
    EXPECT_EQ(results, 0);
}

TEST(output, longer_than_the_buffer_is_written_whole)
{
    for (const std::size_t length : {1019U, 1022U, 1024U, 1025U, 5000U, 300000U}) {
        const std::string text(length, 'x');
        Capture by_pieces(STDOUT_FILENO), by_libc(STDERR_FILENO);
        dbg_printf("<%s>", text.c_str());
        trc_def_printf("<%s>%.1f", text.c_str(), 0.5);
        EXPECT_EQ(by_pieces.text(), "<" + text + ">");
        EXPECT_EQ(by_libc.text(), "<" + text + ">0.5");
    }
}

TEST(output, survives_signals_and_short_writes)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART: write() is interrupted
    sigaction(SIGALRM, &action, nullptr);
    std::string text(400000, '\0');
    for (std::size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>('0' + i * i % 61);
    Capture out(STDOUT_FILENO, 0);
    fcntl(out.reading_end(), F_SETPIPE_SZ, 4096);
    const itimerval often{{0, 50}, {0, 50}}, never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    dbg_printf("%s", text.c_str());
    dbg_printf("%.1f%s", 0.5, text.c_str());
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(out.text(), text + "0.5" + text);
}

TEST(output, that_cannot_be_written_harms_nothing)
{
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = 77;
    const int result = trc_def_printf("lost %d", 1) | err_printf(1, 2, "m", "f", 3, "lost");
    const int after = errno;
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(after, 77);
}

std::string collected;

TEST(output, for_debugging_follows_its_sink)
{
    collected.clear();
    auto *const standard = dbg_vprintf_cb;
    Capture out(STDOUT_FILENO);
    dbg_vprintf_cb = [](const char *format, va_list arguments) {
        char text[64];
        const int length = std::vsnprintf(text, sizeof text, format, arguments);
        collected += text;
        return length;
    };
    EXPECT_EQ(dbg_printf("%d %s;", 1, "two"), 0);
    EXPECT_EQ(dbg_printf(nullptr), 0);
    dbg_vprintf_cb = nullptr;
    EXPECT_EQ(dbg_printf("no sink;"), 0);
    dbg_vprintf_cb = standard;
    EXPECT_EQ(dbg_printf("standard"), 0);
    EXPECT_EQ(out.text(), "no sink;standard");
    EXPECT_EQ(collected, "1 two;");
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
    EXPECT_TRUE(printed);
    EXPECT_EQ(result, PTHREAD_CANCELED) << "and the request is not lost";
}

}  // namespace
