// Pools in the hands of many threads, on the default platform.
#include "support/pools.h"
#include "support/rounds.h"

#include <array>
#include <atomic>
#include <pthread.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Item {
    unsigned number, same_number;
};

// --- a handler that takes the lock; the next signal is timed when the last one was seen ---

std::atomic<bool> is_ringing;
std::atomic<int> handled, timed_after{-1};
int under_lock;

void take_lock_in_handler(int)
{
    memm_lock("handler");
    memm_lock("handler");
    under_lock = under_lock + 1;
    memm_unlock();
    memm_unlock();
    ++handled;
}

void ring_after(suseconds_t microseconds)
{
    const int seen = handled;
    const itimerval soon{{0, 0}, {0, microseconds}};
    if (timed_after.exchange(seen) != seen)
        setitimer(ITIMER_REAL, &soon, nullptr);
}

// Eight threads pass items on through boxes: what one puts in, another takes out and releases.
class Traffic {
    std::array<std::atomic<Item *>, 16> boxes_{};
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    int rounds_;

    void release(Item *item)
    {
        if (item != nullptr) {
            EXPECT_EQ(item->number, item->same_number);
            EXPECT_EQ(memm_free(item), 0);
            ++released;
        }
    }

    void work(unsigned seed)
    {
        for (int round = 0; round < rounds_ && !stop_; ++round) {
            seed = seed * 1103515245 + 12345;
            auto *const item = static_cast<Item *>(memm_calloc(pools[seed >> 16 & 1]));
            ASSERT_TRUE(item != nullptr && item->number == 0 && item->same_number == 0);
            item->number = item->same_number = seed;
            ++allocated;
            if ((seed >> 17 & 3) == 0)
                release(static_cast<Item *>(memm_refalloc(item)));
            release(boxes_[seed >> 20 & 15].exchange(item));
            if (is_ringing)
                ring_after(1 + round % 7);
            if (round % 64 == 0)
                usleep(1);  // ThreadSanitizer delivers signals inside of library calls
        }
    }

public:
    const std::array<unsigned, 2> pools{make_pool("few", 24, sizeof(Item)), make_pool("many", 1000, sizeof(Item))};
    std::atomic<unsigned> allocated{0}, released{0};

    explicit Traffic(int rounds) : rounds_(rounds)
    {
        for (unsigned i = 0; i < 8; ++i)
            threads_.emplace_back([this, i] { work(i); });
    }

    void end(bool at_once = false)
    {
        stop_ = at_once;
        for (std::thread &thread : threads_)
            thread.join();
        for (auto &box : boxes_)
            release(box.exchange(nullptr));
        for (const unsigned pool : pools) {
            EXPECT_EQ(memm_enum_objects(pool, nullptr, nullptr), 0);
            EXPECT_TRUE(pool_at(pool).cur_count == 0 && pool_at(pool).refs == 0 && pool_at(pool).flags == 0);
        }
    }
};

TEST(threads, pass_objects_on_and_every_counter_stays_exact)
{
    Traffic traffic(scaled(30000));
    traffic.end();
    unsigned total = 0, by_path = 0, freed = 0;
    for (const unsigned pool : traffic.pools) {
        total += pool_at(pool).alloc_count[MEMM_PATH_TOTAL];
        freed += pool_at(pool).free_count;
        for (int path = MEMM_PATH_FIRST_FREE; path < MEMM_PATHS; ++path)
            by_path += pool_at(pool).alloc_count[path];
    }
    EXPECT_TRUE(total == traffic.allocated && by_path == total && freed == traffic.released);
}

int print_nowhere(const char *, ...) { return 0; }

TEST(threads, go_on_while_others_make_pools_clear_statistics_and_switch_traces)
{
    Traffic traffic(scaled(30000));
    std::thread maker([] {
        for (int count = 1; count <= 30; ++count)
            memm_free(memm_calloc(make_pool("", count * 20)));
    });
    for (int round = 0; round < scaled(2000); ++round) {
        memm_clear_timestats();
        memm_set_trace(round % 3);
        for (unsigned pool = 0; pool < 40; ++pool) {
            memm_get_poolname2(pool);
            memm_getpoolcookie_bypoolid(pool);
            void *const object = memm_getobject_byindex(pool, round % 20);
            memm_isvalidobj(object);
            memm_get_poolid(object);
        }
        memm_print_stats2("few", print_nowhere);
    }
    maker.join();
    traffic.end();
}

TEST(threads, allocate_while_their_handlers_take_the_manager_lock)
{
    struct sigaction action {};
    action.sa_handler = take_lock_in_handler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    is_ringing = true;
    Traffic traffic(1 << 30);
    sigset_t alarm;  // not here, so that the kernel picks the others in turn
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    while (handled < scaled(100000))
        usleep(1000);
    traffic.end(true);
    EXPECT_EQ(under_lock, handled);
}

// In a child: everything works that works in a parent.
int check_child(unsigned pool)
{
    void *const object = memm_calloc(pool);
    if (object == nullptr || memm_isvalidobj(object) == 0 || memm_free(object) != 0)
        return 1;
    int visited = 0;
    const auto count = [](void *, void *counter) { return ++*static_cast<int *>(counter); };
    return memm_enum_objects(pool, count, &visited) == pool_at(pool).cur_count ? 0 : 2;
}

TEST(threads, fork_gives_the_child_whole_pools_and_the_holds_of_the_forking_thread)
{
    Traffic traffic(1 << 30);
    for (int round = 0; round < scaled(200); ++round) {
        const bool holds = round % 2 == 0;
        if (holds)
            memm_lock("fork");
        const pid_t child = fork();
        if (holds)
            memm_unlock();
        if (child == 0)
            _exit(check_child(traffic.pools[1]));
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    traffic.end(true);
}

}  // namespace
