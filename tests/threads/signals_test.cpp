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
#include <cstring>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MEMM_SANITIZED true
#elif defined(__has_feature)
#define MEMM_SANITIZED (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define MEMM_SANITIZED false
#endif

namespace {

constexpr int kErrno = 12345;

// The row that the statistics have of this pool, up to the current count.
std::string row(unsigned pool)
{
    char text[64];
    std::snprintf(text, sizeof text, "\r\n %-25s %6d,", pool_at(pool).name, pool_at(pool).cur_count);
    return text;
}

bool is_whole(const std::string &report, const std::string &reason, const std::string &row)
{
    const std::string start = "\r\n\r\nReason: " + reason + "\r\n";
    const std::size_t total = report.find("\r\n Total usage ");
    return report.find(start) == 0 && report.find(row) != std::string::npos && total != std::string::npos &&
           report.find("%)\r\n\r\n", total) + 6 == report.size();
}

std::string report_of(const OwnFolder &folder, int signal, int pid = getpid())
{
    return content_of(signal == SIGUSR1 ? folder.usage_path(pid) : folder.contents_path(pid));
}

const char *name_of(int signal) { return signal == SIGUSR1 ? "SIGUSR1" : "SIGUSR2"; }

TEST(signals, find_the_file_complete_when_raise_returns)
{
    const OwnFolder folder;
    folder.order("stats\n");
    const unsigned pool = make_pool("changing", 30);
    for (int round = 0; round < scaled(10000); ++round) {
        const int signal = round % 2 == 0 ? SIGUSR1 : SIGUSR2;
        void *const object = round % 50 < 25 ? memm_calloc(pool) : memm_getfirst(pool);
        if (round % 50 >= 25) {
            memm_free(object);
        }
        errno = kErrno;
        raise(signal);
        ASSERT_EQ(errno, kErrno);
        ASSERT_TRUE(is_whole(report_of(folder, signal), name_of(signal), row(pool))) << report_of(folder, signal);
    }
    ASSERT_EQ(dumps_opened, static_cast<unsigned>(scaled(10000)));
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

const OwnFolder *raising_in;

// Several of each kind make one report of each; none now.
void raise_both()
{
    const unsigned before = dumps_opened;
    for (const int signal : {SIGUSR1, SIGUSR2, SIGUSR2, SIGUSR1}) {
        errno = kErrno;
        raise(signal);
        EXPECT_EQ(errno, kErrno);
    }
    EXPECT_EQ(dumps_opened, before) << "written while the pools were in use";
}

template <typename Work> void expect_reports_after(const char *what, Work work)
{
    const unsigned before = dumps_opened;
    work();
    EXPECT_EQ(dumps_opened, before + 2) << what;
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        EXPECT_TRUE(is_whole(report_of(*raising_in, signal), name_of(signal), "")) << what;
    }
}

int visit_and_raise(void *, void *) { return raise_both(), 1; }
int release_and_raise(void *) { return raise_both(), 0; }
bool has_raised;
int print_and_raise(const char *, ...) { return std::exchange(has_raised, true) ? 0 : (raise_both(), 0); }
int collect_and_raise(void *, int, int) { return raise_both(), 0; }

TEST(signals, wait_for_whoever_holds_the_pools)
{
    const OwnFolder folder;
    raising_in = &folder;
    folder.order("stats");
    memm_pooloptions options{};
    options.release_cb = release_and_raise;
    const unsigned pool = make_pool("busy", 3, 24, options);
    memm_set_trace(0);

    memm_unlock();  // held by nobody: nothing happens
    V();
    expect_reports_after("memm_lock", [] {
        memm_lock("test");
        raise_both();
        memm_lock("test");
        raise_both();
        memm_unlock();
        EXPECT_EQ(dumps_opened, 0U) << "not the last hold";
        errno = kErrno;
        memm_unlock();
        EXPECT_EQ(errno, kErrno);
    });
    expect_reports_after("P and V", [] {
        P("test");
        raise_both();
        V();
    });
    expect_reports_after("a release callback", [pool] { memm_free(memm_calloc(pool)); });
    void *const object = memm_calloc(pool);
    expect_reports_after("a visitor", [pool] { memm_enum_objects(pool, visit_and_raise, nullptr); });
    expect_reports_after("a visitor without the lock",
                         [pool] { memm_enum_objects_nolock(pool, visit_and_raise, nullptr); });
    expect_reports_after("a release without the lock", [object] { memm_free_nolock(object); });
    expect_reports_after("a print function", [] {
        has_raised = false;
        memm_print_stats2(nullptr, print_and_raise);
    });
    // The thread that lets go writes them, not the one that was signalled.
    expect_reports_after("another thread", [] {
        std::atomic<int> step{0};
        std::thread holder([&step] {
            memm_lock("holder");
            step = 1;
            while (step != 2) {
                std::this_thread::yield();
            }
            memm_unlock();
        });
        while (step != 1) {
            std::this_thread::yield();
        }
        raise_both();
        step = 2;
        holder.join();
    });
    options.release_cb = nullptr;
    options.gc_cb = collect_and_raise;
    const unsigned empty = make_pool("empty", 1, 8, options);
    memm_calloc(empty);
    const unsigned before = dumps_opened;
    memm_calloc_nolock(empty);
    EXPECT_EQ(dumps_opened, before + 3) << "the depletion's own, then the others";
    EXPECT_TRUE(is_whole(report_of(folder, SIGUSR2), "SIGUSR2", ""));
}

TEST(signals, of_a_thread_are_never_forgotten_while_others_pass_the_lock_on)
{
    const OwnFolder folder;
    make_pool("", 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 2; ++i) {
        threads.emplace_back([&stop, i] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            while (!stop) {
                memm_lock("other");
                spin(20 * i);
                memm_unlock();
                spin(500 * i);
            }
        });
    }
    for (int round = 0; round < scaled(2000); ++round) {
        const unsigned before = dumps_opened;
        raise(SIGUSR1);
        memm_lock("mine");  // whoever had the note has written by now, or it is left to this hold
        memm_unlock();
        ASSERT_EQ(dumps_opened, before + 1);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// --- storms ---

TEST(signals, at_random_moments_neither_stop_nor_break_what_they_interrupt)
{
    const OwnFolder folder;
    folder.order("stats\nstorm\n");
    const unsigned pool = make_pool("storm", 200), marker = make_pool("marker", 2);
    const auto texts = static_cast<unsigned>(dynstr_initpool2("texts", 40, 2000, 2));
    std::FILE *const null = std::fopen("/dev/null", "w");
    std::atomic<bool> stop{false};
    const auto work = [&](unsigned seed) {
        dynstr *const text = dynstr_fromstring(texts, "");
        std::vector<void *> objects;
        for (unsigned long round = 0; !stop; ++round) {
            seed = seed * 1103515245 + 12345;
            if (objects.size() < 40 && (seed >> 16 & 1) != 0) {
                objects.push_back(memm_calloc(pool));
                ASSERT_NE(objects.back(), nullptr);
            } else if (!objects.empty()) {
                ASSERT_EQ(memm_free(objects.back()), 0);
                objects.pop_back();
            }
            char number[16];
            std::snprintf(number, sizeof number, "%.*lu", static_cast<int>(seed >> 20 & 7), round % 100000);
            ASSERT_EQ(dynstr_setstring(text, number), 0U);
            ASSERT_EQ(dynstr_strcmp2(text, number), 0);
            std::free(std::malloc(seed >> 18 & 4095));
            std::fprintf(null, "%lu %s\n", round, number);
        }
        for (void *object : objects) {
            memm_free(object);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back(work, i);
    }
    unsigned seed = 1;
    for (int sent = 0; sent < scaled(200000); ++sent) {
        seed = seed * 1103515245 + 12345;
        pthread_kill(threads[seed >> 16 & 3].native_handle(), (seed >> 18 & 1) != 0 ? SIGUSR1 : SIGUSR2);
        spin(seed >> 20 & 1023);
    }
    // A report begins after the last signal of its kind: it knows what was done before that.
    memm_calloc(marker);
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        pthread_kill(threads[0].native_handle(), signal);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::fclose(null);
    EXPECT_GT(dumps_opened, 2U);
    EXPECT_TRUE(is_whole(report_of(folder, SIGUSR1), "SIGUSR1", row(marker)));
    const std::string contents = report_of(folder, SIGUSR2);
    EXPECT_NE(contents.find(row(marker)), std::string::npos);
    EXPECT_EQ(contents.rfind("\r\n\r\n"), contents.size() - 4);
    EXPECT_EQ(pool_at(pool).cur_count, 0);
    EXPECT_EQ(dynstr_integrity_check(texts, 0), 1);
}

// --- stack ---

volatile int sink;

void do_nothing(int) { sink = 1; }

// How much of a stack of its own a handler used.
template <typename Work> long stack_used(Work work)
{
    constexpr std::size_t kSize = 1 << 18;
    std::vector<unsigned char> stack(kSize, 0xa5);
    stack_t own{}, before{};
    own.ss_sp = stack.data();
    own.ss_size = kSize;
    sigaltstack(&own, &before);
    work();
    sigaltstack(&before, nullptr);
    return stack.end() - std::find_if(stack.begin(), stack.end(), [](unsigned char byte) { return byte != 0xa5; });
}

TEST(signals, need_at_most_4_KB_of_stack)
{
    if (MEMM_SANITIZED) {
        GTEST_SKIP() << "sanitizers have frames of their own";
    }
    const OwnFolder folder;
    folder.order("# all there is\nstats\nall\n");
    const unsigned pool = make_pool("a", 4), texts = static_cast<unsigned>(dynstr_initpool2("texts", 8, 256, 2));
    memm_refalloc(memm_calloc(pool));
    dynstr_fromstring(texts, "a text");
    header_of(memm_calloc(pool)) += 1;  // a finding to trace
    struct sigaction action {};
    action.sa_handler = do_nothing;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGALRM, &action, nullptr);
    const long frame = stack_used([] { raise(SIGALRM); });
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        for (const char *way : {"", "nowhere to write"}) {
            if (*way != '\0') {
                std::system(("rm -rf " + folder.path("/tmp ") + folder.path("/var")).c_str());
            }
            raise(signal);  // the program's own links are made on their first use
            const long used = stack_used([signal] { raise(signal); }) - frame;
            std::printf("%s %s: %ld bytes\n", name_of(signal), way, used);
            EXPECT_GT(used, 100);
            EXPECT_LE(used, 4096) << name_of(signal);
        }
    }
}

TEST(signals, in_a_child_are_answered_under_its_own_number)
{
    const OwnFolder folder;
    folder.order("stats");
    const unsigned pool = make_pool("parent's", 3);
    memm_calloc(pool);
    raise(SIGUSR1);
    memm_lock("parent");
    raise(SIGUSR2);  // the parent's: the child does not answer it
    const pid_t child = fork();
    if (child == 0) {
        memm_unlock();
        const bool inherited = report_of(folder, SIGUSR2) != "-";
        memm_calloc(pool);
        raise(SIGUSR1);
        _exit(inherited ? 1 : is_whole(report_of(folder, SIGUSR1), "SIGUSR1", row(pool)) ? 0 : 2);
    }
    memm_unlock();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report_of(folder, SIGUSR2, child), "-");
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        EXPECT_TRUE(is_whole(report_of(folder, signal), name_of(signal), row(pool)));
    }
}

}  // namespace
