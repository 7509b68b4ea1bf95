// Reports on signals, with the platform's own manager lock.
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/rounds.h"

#include <memmanager/dynstring.h>
#include <memmanager/platform.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MEMM_SANITIZED true
#elif defined(__has_feature)
#define MEMM_SANITIZED (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define MEMM_SANITIZED false
#endif

namespace {

// The row that the statistics have of this pool, up to the current count.
std::string row(unsigned pool)
{
    char text[64];
    std::snprintf(text, sizeof text, "\r\n %-25s %6d,", pool_at(pool).name, pool_at(pool).cur_count);
    return text;
}

const char *name_of(int signal) { return signal == SIGUSR1 ? "SIGUSR1" : "SIGUSR2"; }

// The signal's file is there from the reason to the end of the statistics, and has this row.
void expect_report(const OwnFolder &folder, int signal, const std::string &row, int pid = getpid())
{
    const std::string report = content_of(signal == SIGUSR1 ? folder.usage_path(pid) : folder.contents_path(pid));
    const std::size_t total = report.find("\r\n Total usage ");
    EXPECT_EQ(report.find(std::string("\r\n\r\nReason: ") + name_of(signal) + "\r\n"), 0U);
    EXPECT_TRUE(report.find(row) < total && report.find("%)\r\n\r\n", total) != std::string::npos) << row << report;
    EXPECT_EQ(report.rfind("\r\n\r\n"), report.size() - 4);
}

TEST(signals, find_the_file_complete_when_raise_returns)
{
    const OwnFolder folder;
    folder.order("stats\n");
    const unsigned pool = make_pool("changing", 30);
    for (int round = 0; round < scaled(10000) && !testing::Test::HasFailure(); ++round) {
        const int signal = round % 2 == 0 ? SIGUSR1 : SIGUSR2;
        void *const object = round % 50 < 25 ? memm_calloc(pool) : memm_getfirst(pool);
        if (round % 50 >= 25)
            memm_free(object);
        errno = 4711;
        raise(signal);
        EXPECT_EQ(errno, 4711);
        expect_report(folder, signal, row(pool));
    }
    EXPECT_EQ(dumps_opened, static_cast<unsigned>(scaled(10000)));
}

TEST(signals, are_handled_one_at_a_time_on_any_stack_and_restart_calls)
{
    make_pool("", 1);
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_ONSTACK), SA_RESTART | SA_ONSTACK);
        EXPECT_TRUE(sigismember(&action.sa_mask, SIGUSR1) == 1 && sigismember(&action.sa_mask, SIGUSR2) == 1);
    }
}

// --- deferred reports ---

// Several of each kind make one report of each; none now.
int raise_both()
{
    const unsigned before = dumps_opened;
    errno = 4711;
    for (const int signal : {SIGUSR1, SIGUSR2, SIGUSR2, SIGUSR1})
        raise(signal);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(dumps_opened, before) << "written while the pools were in use";
    return 0;
}

int raise_and_print(const char *, ...) { return raise_both(); }

void have_another_thread_hold_the_lock()
{
    std::atomic<int> step{0};
    const auto wait_for = [&step](int wanted) {
        while (step != wanted)
            std::this_thread::yield();
    };
    std::thread holder([&] {
        memm_lock("holder");
        step = 1;
        wait_for(2);
        memm_unlock();
    });
    wait_for(1);
    raise_both();
    step = 2;
    holder.join();
}

TEST(signals, wait_for_whoever_holds_the_pools)
{
    const OwnFolder folder;
    folder.order("stats");
    memm_set_trace(0);
    file_faults.close_error = EIO;  // errno is kept whatever happens
    memm_pooloptions options{};
    options.release_cb = [](void *) { return raise_both(); };
    const unsigned pool = make_pool("busy", 3, 24, options);
    options.release_cb = nullptr;
    options.gc_cb = [](void *, int attempt, int) { return raise_both(), attempt == 0 ? 1 : 0; };
    const unsigned empty = make_pool("empty", 1, 8, options);
    void *const object = memm_calloc(pool);
    memm_calloc(empty);
    const auto visit = [](void *, void *) { return raise_both(); };

    const std::pair<const char *, std::function<void()>> cases[] = {
        {"no hold", [] { memm_unlock(), V(), raise(SIGUSR1), raise(SIGUSR2); }},
        {"P and V", [] { P("test"), raise_both(), V(); }},
        {"nested holds",
         [] {
             memm_lock("test");
             memm_lock("test");
             raise_both();
             memm_unlock();
             raise_both();
             memm_unlock();
             EXPECT_EQ(errno, 4711);
         }},
        {"a visitor", [&] { memm_enum_objects(pool, visit, nullptr); }},
        {"a visitor without the lock", [&] { memm_enum_objects_nolock(pool, visit, nullptr); }},
        {"a release", [&] { memm_free(memm_calloc(pool)); }},
        {"a release without the lock", [&] { memm_free_nolock(object); }},
        {"a collector without the lock", [&] { memm_calloc_nolock(empty), --dumps_opened; }},  // the depletion's own
        {"output", [] { memm_print_stats2("no such pool", raise_and_print); }},
        {"another thread", have_another_thread_hold_the_lock},
    };
    for (const auto &[what, act] : cases) {
        const unsigned before = dumps_opened;
        act();
        EXPECT_EQ(dumps_opened, before + 2) << what;
        expect_report(folder, SIGUSR1, row(pool));
        expect_report(folder, SIGUSR2, row(pool));
    }
}

// The note may come between the holder's last look at the notes and its release; nobody takes the lock after it.
TEST(signals, are_never_forgotten_by_a_holder_that_is_letting_go)
{
    const OwnFolder folder;
    make_pool("", 1);
    const auto rounds = static_cast<unsigned>(scaled(10000));
    std::atomic<unsigned> started{0}, done{0};
    dumps_opened = 0;
    std::thread holder([&] {
        for (unsigned round = 1; round <= rounds; ++round) {
            while (started < round)
                std::this_thread::yield();
            spin(round % 400);
            memm_lock("holder");
            memm_unlock();
            done = round;
        }
    });
    for (unsigned round = 1; round <= rounds; ++round) {
        started = round;
        raise(SIGUSR1);
        while (done < round)
            std::this_thread::yield();
        EXPECT_EQ(dumps_opened, round);
    }
    holder.join();
}

TEST(signals, at_random_moments_neither_stop_nor_break_what_they_interrupt)
{
    const OwnFolder folder;
    folder.order("storm\nstats\n");
    const unsigned pool = make_pool("storm", 200), marker = make_pool("marker", 2);
    const auto texts = static_cast<unsigned>(dynstr_initpool2("texts", 40, 2000, 2));
    std::FILE *const null = std::fopen("/dev/null", "w");
    std::atomic<bool> stop{false};
    const auto work = [&](unsigned seed) {
        dynstr *const text = dynstr_fromstring(texts, "");
        for (unsigned round = 0; !stop; ++round) {
            seed = seed * 1103515245 + 12345;
            void *const object = memm_calloc(pool), *const block = std::malloc(seed >> 18 & 4095);
            char number[32];
            std::snprintf(number, sizeof number, "%.*u", static_cast<int>(seed >> 20 & 15), round);
            ASSERT_EQ(dynstr_setstring(text, number), 0U);
            ASSERT_EQ(dynstr_strcmp2(text, number), 0);
            std::fprintf(null, "%u %s\n", round, number);
            std::free(block);
            ASSERT_EQ(memm_free(object), 0);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back(work, i);
    unsigned seed = 1;
    const auto send = [&](int signal) {
        seed = seed * 1103515245 + 12345;
        pthread_kill(threads[seed >> 16 & 3].native_handle(), signal);
        spin(seed >> 20 & 1023);
    };
    for (int sent = 0; sent < scaled(200000); ++sent)
        send((seed >> 18 & 1) != 0 ? SIGUSR1 : SIGUSR2);
    memm_calloc(marker);  // a report begins after the last signal of its kind, and knows what was done before that
    send(SIGUSR1);
    send(SIGUSR2);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    std::fclose(null);
    expect_report(folder, SIGUSR1, row(marker));
    expect_report(folder, SIGUSR2, row(marker));
    EXPECT_EQ(pool_at(pool).cur_count, 0);
    EXPECT_EQ(dynstr_integrity_check(texts, 0), 1);
}

// How much of a stack of its own a handler uses.
long stack_used(int signal)
{
    std::vector<unsigned char> stack(1 << 18, 0xa5);
    stack_t own{}, before{};
    own.ss_sp = stack.data();
    own.ss_size = stack.size();
    sigaltstack(&own, &before);
    raise(signal);
    sigaltstack(&before, nullptr);
    return stack.end() - std::find_if(stack.begin(), stack.end(), [](unsigned char byte) { return byte != 0xa5; });
}

TEST(signals, need_at_most_4_KB_of_stack)
{
    if (MEMM_SANITIZED)
        GTEST_SKIP() << "sanitizers have frames of their own";
    const OwnFolder folder;
    folder.order("# all there is\nstats\nall\n");
    const unsigned pool = make_pool("a", 4);
    dynstr_fromstring(static_cast<unsigned>(dynstr_initpool2("texts", 8, 256, 2)), "a text");
    memm_refalloc(memm_calloc(pool));
    header_of(memm_calloc(pool)) += 1;  // a finding to trace
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGALRM, &action, nullptr);
    const long frame = stack_used(SIGALRM);  // the kernel's
    for (const bool has_place : {true, false}) {
        for (const int signal : {SIGUSR1, SIGUSR2}) {
            raise(signal);  // the program's own links are made on their first use
            const long used = stack_used(signal) - frame;
            std::printf("%s: %ld bytes\n", name_of(signal), used);
            EXPECT_TRUE(used > 100 && used <= 4096) << name_of(signal) << has_place << used;
        }
        std::filesystem::remove_all(folder.path("/tmp"));
        std::filesystem::remove_all(folder.path("/var"));
    }
}

TEST(signals, in_a_child_are_answered_under_its_own_number)
{
    const OwnFolder folder;
    folder.order("stats");
    const unsigned pool = make_pool("family", 3);
    memm_calloc(pool);
    raise(SIGUSR1);
    memm_lock("parent");
    raise(SIGUSR2);  // the parent's: the child does not answer it
    const pid_t child = fork();
    if (child == 0) {
        memm_unlock();
        memm_calloc(pool);
        raise(SIGUSR1);
        expect_report(folder, SIGUSR1, row(pool));
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    memm_unlock();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(content_of(folder.contents_path(child)), "-");
    expect_report(folder, SIGUSR1, row(pool));
    expect_report(folder, SIGUSR2, row(pool));
}

}  // namespace
