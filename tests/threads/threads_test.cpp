// Threads, signals and forks, on the default platform.
#include "support/file_calls.h"

#include <array>

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
    std::vector<std::jthread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned> allocated_{0}, released_{0};

    void release(Item *item)
    {
        if (item == nullptr)
            return;
        const std::string number = std::to_string(item->number);
        EXPECT_TRUE(item->number == item->same_number && dynstr_strcmp2(item->text, number.c_str()) == 0);
        EXPECT_EQ(dynstr_strcmp(strlist_getdynstr_at(item->list, 1), item->text), 0);
        llist_free_plist(&item->list);
        EXPECT_TRUE(memm_free(item->text) == 0 && memm_free(item) == 0);
        ++released_;
    }

    void work(unsigned seed)
    {
        for (int round = 0; !stop_; ++round) {
            seed = seed * 1103515245 + 12345;
            auto *const item = static_cast<Item *>(memm_calloc(pools[seed >> 16 & 1]));
            ASSERT_TRUE(item != nullptr && item->number == 0 && item->same_number == 0);
            item->number = item->same_number = seed;
            ++allocated_;
            const std::string number = std::to_string(seed);
            item->text = dynstr_fromstring(texts, number.c_str());
            item->list = strlist_fromstring(("first " + number).c_str(), " ", nodes, static_cast<int>(texts));
            EXPECT_EQ(memm_free(memm_refalloc(item)), 0);
            ++released_;
            release(boxes_[seed >> 20 & 15].exchange(item));
            if (round % 64 == 0)
                usleep(1);  // ThreadSanitizer delivers signals inside of library calls
        }
    }

public:
    const std::array<unsigned, 2> pools{make_pool("few", 50, sizeof(Item)), make_pool("many", 1000, sizeof(Item))};
    const int nodes = make_nodes(100);
    const unsigned texts = make_strings(4000, 2, 300);

    Traffic()
    {
        for (unsigned i = 0; i < 16; ++i)
            threads_.emplace_back([this, i] { work(i); });
    }
    void signal(unsigned thread, int number) { pthread_kill(threads_[thread % 16].native_handle(), number); }

    void end()
    {
        stop_ = true;
        threads_.clear();
        for (auto &box : boxes_)
            release(box.exchange(nullptr));
        EXPECT_EQ(dynstr_integrity_check(texts, 0), 1);
        EXPECT_EQ(pool_at(nodes).cur_count, 0);
        for (const unsigned pool : pools) {
            const memm_pool &p = pool_at(pool);
            EXPECT_TRUE(p.cur_count == 0 && p.refs == 0 && p.flags == 0);
            allocated_ -= p.alloc_count[MEMM_PATH_TOTAL], released_ -= p.free_count;
        }
        EXPECT_EQ(allocated_ | released_, 0U);
    }
};

// Everything works in a child that works in a parent; its reports have its own number, its parent's signals are gone.
void fork_and_wait(const OwnFolder &folder, unsigned pool, bool holds)
{
    if (holds)
        memm_lock("fork"), raise(SIGUSR2);
    const pid_t child = fork();
    if (holds)
        memm_unlock();
    if (child == 0) {
        EXPECT_TRUE(memm_free(memm_calloc(pool)) == 0 && content_of(folder.contents_path()) == "-");
#if !defined(__SANITIZE_THREAD__)  // holds signals back in the child of a process that had threads
        raise(SIGUSR1);
        EXPECT_NE(content_of(folder.usage_path()).find("Reason: SIGUSR1\r\n"), std::string::npos);
#endif
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ASSERT_EQ(status_of(child), 0);
}

std::atomic<int> handled{0};
int under_lock;

TEST(threads, keep_stamps_and_counters_while_handlers_lock_and_others_make_pools_ask_for_reports_and_fork)
{
    const OwnFolder folder;
    folder.order("many\nstats\n");
    std::signal(SIGALRM, [](int) {
        memm_lock("handler"), memm_lock("handler");
        under_lock = under_lock + 1;
        memm_unlock(), memm_unlock();
        ++handled;
    });
    Traffic traffic;
    std::thread maker([] {
        for (int count = 1; count <= 30; ++count)
            memm_free(memm_calloc(make_pool("", count * 20)));
    });
    unsigned seed = 1;
    for (int sent = 0; sent < scaled(100000, 5000000) && !testing::Test::HasFailure(); ++sent) {
        constexpr int kSignals[] = {SIGALRM, SIGALRM, SIGUSR1, SIGUSR2};
        seed = seed * 1103515245 + 12345;
        traffic.signal(seed >> 20, kSignals[seed >> 16 & 3]);
        std::this_thread::yield();
        void *const object = memm_getobject_byindex(seed >> 16 & 31, static_cast<int>(seed >> 20 & 15));
        memm_isvalidobj(object), memm_get_poolname(object), memm_set_trace(sent % 3);
        if (sent % 500 == 0)
            fork_and_wait(folder, traffic.pools[1], sent % 1000 == 0);
    }
    maker.join();
    traffic.end();
    EXPECT_EQ(under_lock, handled);
    const std::string report = content_of(folder.usage_path());
    EXPECT_TRUE(is_whole_report(report)) << report;
}

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

TEST(signals, wait_for_whoever_holds_the_pools)
{
    const OwnFolder folder;
    fail_always(Op::close, EIO);  // errno is kept whatever happens
    const unsigned pool = make_pool("busy", 3, 24, {.release_cb = [](void *) { return raise_both(); }});
    const std::function<void()> cases[] = {
        [] { memm_unlock(), V(), raise(SIGUSR1), raise(SIGUSR2); },  // no hold
        [] { P("test"), raise_both(), V(); },
        [] { memm_lock("test"), memm_lock("test"), raise_both(), memm_unlock(), raise_both(), memm_unlock(); },
        [] { memm_lock("test"), std::thread(raise_both).join(), memm_unlock(); },
        [=] { memm_free(memm_calloc(pool)); },
        [=] { memm_free_nolock(memm_calloc_nolock(pool)); },
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        dumps_opened = 0;
        cases[i]();
        EXPECT_EQ(dumps_opened, 2U) << i;
    }
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // have frames of their own
constexpr long kReportStack = sizeof(void *) == 8 && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 5120 : 4096;  // s390x

// The kernel's frame included.
long stack_used_by(int signal)
{
    static std::array<unsigned char, 1 << 16> bytes;
    bytes.fill(0xa5);
    const stack_t own{.ss_sp = bytes.data(), .ss_flags = 0, .ss_size = bytes.size()}, none{nullptr, SS_DISABLE, 0};
    sigaltstack(&own, nullptr);
    raise(signal);
    sigaltstack(&none, nullptr);
    return bytes.end() - std::ranges::find_if(bytes, [](unsigned char byte) { return byte != 0xa5; });
}

TEST(signals, need_at_most_4_KB_of_stack)
{
    const OwnFolder folder;
    folder.order("stats\nall\n");
    memm_calloc(make_pool("a", 4));
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};
    nothing.sa_flags = SA_ONSTACK;
    sigaction(SIGALRM, &nothing, nullptr);
    for (const int signal : {SIGUSR1, SIGUSR2}) {
        raise(signal);  // the program's own links are made on their first use
        const long used = stack_used_by(signal) - stack_used_by(SIGALRM);
        EXPECT_TRUE(used > 100 && used <= kReportStack) << signal << ": " << used;
    }
}
#endif

}  // namespace
