// Threads, signals and forks, on the default platform.
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/rounds.h"

#include <memmanager/platform.h>
#include <memmanager/strlist.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <dlfcn.h>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

struct Item {
    unsigned number, same_number;
    dynstr *text;
    strlist *list;
};

// Threads pass items on through boxes, with a text and a list that say the same: what one puts in, another takes out,
// reads and releases.
class Traffic {
    std::array<std::atomic<Item *>, 16> boxes_{};
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};

    void release(Item *item)
    {
        if (item == nullptr)
            return;
        const std::string number = std::to_string(item->number);
        EXPECT_TRUE(item->number == item->same_number && dynstr_strcmp2(item->text, number.c_str()) == 0);
        EXPECT_EQ(dynstr_strcmp(strlist_getdynstr_at(item->list, 1), item->text), 0);
        EXPECT_EQ(memm_free(item->text), 0);
        llist_free_plist(&item->list);
        EXPECT_EQ(memm_free(item), 0);
        ++released;
    }

    void work(unsigned seed)
    {
        for (int round = 0; !stop_; ++round) {
            seed = seed * 1103515245 + 12345;
            auto *const item = static_cast<Item *>(memm_calloc(pools[seed >> 16 & 1]));
            ASSERT_TRUE(item != nullptr && item->number == 0 && item->same_number == 0);
            item->number = item->same_number = seed;
            ++allocated;
            const std::string number = std::to_string(seed);
            item->text = dynstr_fromstring(static_cast<unsigned>(texts), number.c_str());
            item->list = strlist_fromstring(("first " + number).c_str(), " ", nodes, texts);
            if ((seed >> 17 & 3) == 0) {
                EXPECT_EQ(memm_free(memm_refalloc(item)), 0);
                ++released;
            }
            release(boxes_[seed >> 20 & 15].exchange(item));
            if (round % 64 == 0)
                usleep(1);  // ThreadSanitizer delivers signals inside of library calls
        }
    }

public:
    const std::array<unsigned, 2> pools{make_pool("few", 50, sizeof(Item)), make_pool("many", 1000, sizeof(Item))};
    const int nodes = llist_initpool("nodes", 100, sizeof(llist), nullptr);
    const int texts = dynstr_initpool2("texts", 300, 4000, 2);
    std::atomic<unsigned> allocated{0}, released{0};

    explicit Traffic(unsigned threads = 8)
    {
        for (unsigned i = 0; i < threads; ++i)
            threads_.emplace_back([this, i] { work(i); });
    }
    void signal(unsigned thread, int number) { pthread_kill(threads_[thread % 8].native_handle(), number); }

    void end()
    {
        stop_ = true;
        for (std::thread &thread : threads_)
            thread.join();
        for (auto &box : boxes_)
            release(box.exchange(nullptr));
        EXPECT_EQ(dynstr_integrity_check(static_cast<unsigned>(texts), 0), 1);
        EXPECT_EQ(pool_at(static_cast<unsigned>(nodes)).cur_count, 0);
        for (const unsigned pool : pools) {
            const memm_pool &p = pool_at(pool);
            EXPECT_TRUE(p.cur_count == 0 && p.refs == 0 && p.flags == 0);
            allocated -= p.alloc_count[MEMM_PATH_TOTAL], released -= p.free_count;
        }
        EXPECT_EQ(allocated | released, 0U);
    }
};

int print_nowhere(const char *, ...) { return 0; }

TEST(threads, keep_the_stamps_of_objects_texts_and_lists_that_cross_them)
{
    Traffic traffic(32);
    while (traffic.allocated < static_cast<unsigned>(scaled(200000, 5000000)))
        usleep(1000);
    traffic.end();
}

std::atomic<int> handled{0};
int under_lock;

TEST(threads, keep_every_counter_while_handlers_take_the_lock_and_others_make_pools_and_ask_for_reports)
{
    const OwnFolder folder;
    folder.order("many\nstats\n");
    struct sigaction action {};
    action.sa_handler = [](int) {
        memm_lock("handler"), memm_lock("handler");
        under_lock = under_lock + 1;
        memm_unlock(), memm_unlock();
        ++handled;
    };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    Traffic traffic;
    std::thread maker([] {
        for (int count = 1; count <= 30; ++count)
            memm_free(memm_calloc(make_pool("", count * 20)));
    });
    unsigned seed = 1;
    for (int sent = 0; sent < scaled(100000, 2000000); ++sent, seed = seed * 1103515245 + 12345) {
        const int signals[] = {SIGALRM, SIGALRM, SIGUSR1, SIGUSR2};
        traffic.signal(seed >> 20, signals[seed >> 16 & 3]);
        spin(seed >> 20 & 1023);
        void *const object = memm_getobject_byindex(seed >> 16 & 31, static_cast<int>(seed >> 20 & 15));
        memm_isvalidobj(object), memm_get_poolid(object), memm_get_poolname(object), memm_set_trace(sent % 3);
        if (sent % 64 == 0)
            memm_print_stats2("few", print_nowhere);
    }
    maker.join();
    memm_calloc(make_pool("marker", 2));  // a report begins after the last signal of its kind
    traffic.signal(0, SIGUSR1), traffic.signal(1, SIGUSR2);
    traffic.end();
    EXPECT_EQ(under_lock, handled);
    for (const std::string &path : {folder.usage_path(), folder.contents_path()}) {
        const std::string report = content_of(path);
        EXPECT_TRUE(report.find("\r\n\r\nReason: SIGUSR") == 0 && report.rfind("%)\r\n\r\n") == report.size() - 6)
            << report;
        EXPECT_NE(report.find("\r\n marker                         1,"), report.npos) << report;
    }
}

// Everything works in a child that works in a parent; its reports have its own number, its parent's signals are gone.
bool works_in_child(const OwnFolder &folder, unsigned pool, bool holds)
{
    if (holds)
        memm_unlock();
    void *const object = memm_calloc(pool);
    const auto visit = [](void *, void *) { return 1; };
    const bool works = object != nullptr && memm_free(object) == 0 &&
                       memm_enum_objects(pool, visit, nullptr) == pool_at(pool).cur_count &&
                       content_of(folder.contents_path()) == "-";
    raise(SIGUSR1);
    return works && content_of(folder.usage_path()).find("Reason: SIGUSR1\r\n") != std::string::npos;
}

TEST(threads, fork_gives_the_child_whole_pools_and_the_holds_of_the_forking_thread)
{
    const OwnFolder folder;
    Traffic traffic;
    for (int round = 0; round < scaled(200, 10000); ++round) {
        const bool holds = round % 2 == 0;
        if (holds)
            memm_lock("fork"), raise(SIGUSR2);
        const pid_t child = fork();
        if (child == 0)
            _exit(works_in_child(folder, traffic.pools[1], holds) ? 0 : 1);
        if (holds)
            memm_unlock();
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    traffic.end();
}

void *report_until_cancelled(void *)
{
    for (;; pthread_testcancel())
        raise(SIGUSR1), raise(SIGUSR2);
}

TEST(threads, that_are_cancelled_finish_their_reports_and_hold_nothing)
{
    const OwnFolder folder;
    folder.order("stats\n");
    const unsigned pool = make_pool("pool", 1);
    for (unsigned round = 0; round < static_cast<unsigned>(scaled(200, 1000)); ++round) {
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, report_until_cancelled, nullptr), 0);
        for (dumps_opened = 0; dumps_opened < 1 + round % 3;)
            std::this_thread::yield();
        spin(round % 512 * 16);
        pthread_cancel(thread);
        void *result = nullptr;
        ASSERT_TRUE(pthread_join(thread, &result) == 0 && result == PTHREAD_CANCELED);
        EXPECT_NE(content_of(folder.usage_path()).find("%)\r\n\r\n"), std::string::npos);
        EXPECT_EQ(memm_free(memm_calloc(pool)), 0);
    }
}

TEST(shared_library, stays_what_it_is_however_often_it_is_opened_and_closed)
{
    const OwnFolder folder;
    void *object = nullptr;
    for (unsigned round = 0; round < 1000; ++round) {
        void *const library = dlopen(MEMM_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto call = [=]<typename Function>(Function *, const char *name) {
            return reinterpret_cast<Function *>(dlsym(library, name));
        };
        if (round == 0) {
            EXPECT_EQ(call(memm_init, "memm_init")(4, 1), 0);
            const int pool = call(memm_initpool, "memm_initpool")("pool", 1, 8, nullptr);
            object = call(memm_calloc, "memm_calloc")(static_cast<unsigned>(pool));
        }
        EXPECT_EQ(call(memm_isvalidobj, "memm_isvalidobj")(object), 1);
        dlclose(library);
        raise(SIGUSR1);
        ASSERT_EQ(dumps_opened, round + 1);
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
    EXPECT_TRUE(errno == 4711 && dumps_opened == before) << "written while the pools were in use";
    return 0;
}

int raise_and_print(const char *, ...) { return raise_both(); }

void raise_while_another_thread_holds_the_lock()
{
    std::atomic<int> step{0};
    std::thread holder([&] {
        memm_lock("holder");
        for (step = 1; step != 2;)
            std::this_thread::yield();
        memm_unlock();
    });
    while (step != 1)
        std::this_thread::yield();
    raise_both();
    step = 2;
    holder.join();
}

TEST(signals, wait_for_whoever_holds_the_pools)
{
    const OwnFolder folder;
    fail_always(Op::close, EIO);  // errno is kept whatever happens
    memm_pooloptions options{};
    options.release_cb = [](void *) { return raise_both(); };
    const unsigned pool = make_pool("busy", 3, 24, options);
    options.release_cb = nullptr;
    options.gc_cb = [](void *, int attempt, int) { return raise_both(), attempt == 0 ? 1 : 0; };
    const unsigned empty = make_pool("empty", 1, 8, options);
    void *const object = memm_calloc(pool);
    memm_calloc(empty);
    const auto visit = [](void *, void *) { return raise_both(); };
    const std::function<void()> cases[] = {
        [] { memm_unlock(), V(), raise(SIGUSR1), raise(SIGUSR2); },  // no hold
        [] { P("test"), raise_both(), V(); },
        [] { memm_lock("test"), memm_lock("test"), raise_both(), memm_unlock(), raise_both(), memm_unlock(); },
        [&] { memm_enum_objects(pool, visit, nullptr); },
        [&] { memm_enum_objects_nolock(pool, visit, nullptr); },
        [&] { memm_free(memm_calloc(pool)); },
        [&] { memm_free_nolock(object); },
        [&] { memm_calloc_nolock(empty), --dumps_opened; },  // the depletion's own
        [] { memm_print_stats2("no such pool", raise_and_print); },
        raise_while_another_thread_holds_the_lock,
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        dumps_opened = 0;
        cases[i]();
        EXPECT_EQ(dumps_opened, 2U) << i;
    }
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_ONSTACK), SA_RESTART | SA_ONSTACK);
        EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR1) & sigismember(&action.sa_mask, SIGUSR2), 1);
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
        for (unsigned round = 1; round <= rounds; done = round++) {
            while (started < round)
                std::this_thread::yield();
            spin(round % 400);
            memm_lock("holder"), memm_unlock();
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
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers have frames of their own";
#endif
    const OwnFolder folder;
    folder.order("# all there is\nstats\nall\n");
    make_pool("", 1);
    dynstr_fromstring(static_cast<unsigned>(dynstr_initpool2("texts", 8, 256, 2)), "a text");
    header_of(memm_calloc(make_pool("a", 4))) += 1;  // a finding to trace
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGALRM, &action, nullptr);
    const long frame = stack_used(SIGALRM);  // the kernel's
    for (const bool has_place : {true, false}) {
        if (!has_place)
            std::filesystem::remove_all(folder.path("/tmp")), std::filesystem::remove_all(folder.path("/var"));
        for (const int signal : {SIGUSR1, SIGUSR2}) {
            raise(signal);  // the program's own links are made on their first use
            const long used = stack_used(signal) - frame;
            EXPECT_TRUE(used > 100 && used <= 4096) << signal << has_place << used;
        }
    }
}

}  // namespace
