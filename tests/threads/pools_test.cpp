// Pools in the hands of many threads, on the default platform.
#include "support/pools.h"
#include "support/rounds.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Item {
    unsigned long number, same_number;
};

// Eight threads, each with an item of its own, pass items on through boxes: what one takes out, another has put in.
class Traffic {
    std::array<std::atomic<Item *>, 16> boxes_{};
    std::array<unsigned, 2> pools_{};
    std::vector<std::thread> threads_;
    std::atomic<unsigned> allocated_{0}, released_{0};
    std::atomic<bool> stop_{false};
    int rounds_;

    void release(Item *item)
    {
        if (item != nullptr) {
            EXPECT_EQ(item->number, item->same_number);
            EXPECT_EQ(memm_free(item), 0);
            released_.fetch_add(1, std::memory_order_relaxed);
        }
    }

    void work(unsigned seed)
    {
        for (int round = 0; round < rounds_ && !stop_; ++round) {
            seed = seed * 1103515245 + 12345;
            auto *const item = static_cast<Item *>(memm_calloc(pools_[seed >> 16 & 1]));
            ASSERT_NE(item, nullptr);
            ASSERT_EQ(item->number | item->same_number, 0U);
            item->number = item->same_number = seed;
            allocated_.fetch_add(1, std::memory_order_relaxed);
            if ((seed >> 17 & 3) == 0) {
                memm_refalloc(item);
                release(item);
            }
            release(boxes_[seed >> 20 & 15].exchange(item));
            if (round % 64 == 0) {
                usleep(1);  // ThreadSanitizer delivers signals inside of library calls
            }
        }
    }

public:
    explicit Traffic(int rounds) : rounds_(rounds)
    {
        pools_ = {make_pool("few", 24, sizeof(Item)), make_pool("many", 1000, sizeof(Item))};
        for (unsigned i = 0; i < 8; ++i) {
            threads_.emplace_back([this, i] { work(i); });
        }
    }

    void end()
    {
        for (std::thread &thread : threads_) {
            thread.join();
        }
        for (auto &box : boxes_) {
            release(box.exchange(nullptr));
        }
    }
    void stop()
    {
        stop_ = true;
        end();
    }

    int signal_all(int signal)
    {
        for (std::thread &thread : threads_) {
            pthread_kill(thread.native_handle(), signal);
        }
        return static_cast<int>(threads_.size());
    }

    template <typename Value> unsigned sum(Value value) const
    {
        return value(pool_at(pools_[0])) + value(pool_at(pools_[1]));
    }
    unsigned allocated() const { return allocated_; }
    unsigned released() const { return released_; }
    unsigned pool(int which) const { return pools_[static_cast<std::size_t>(which)]; }

    void expect_empty() const
    {
        for (const unsigned pool : pools_) {
            EXPECT_EQ(memm_enum_objects(pool, nullptr, nullptr), 0);
            EXPECT_EQ(pool_at(pool).cur_count, 0);
            EXPECT_EQ(pool_at(pool).refs, 0U);
            EXPECT_EQ(pool_at(pool).flags, 0U);
        }
    }
};

TEST(threads, pass_objects_on_and_every_counter_stays_exact)
{
    Traffic traffic(scaled(30000));
    traffic.end();
    traffic.expect_empty();
    EXPECT_EQ(traffic.sum([](const memm_pool &pool) { return pool.alloc_count[MEMM_PATH_TOTAL]; }),
              traffic.allocated());
    EXPECT_EQ(traffic.sum([](const memm_pool &pool) {
        unsigned paths = 0;
        for (int path = MEMM_PATH_FIRST_FREE; path < MEMM_PATHS; ++path) {
            paths += pool.alloc_count[path];
        }
        return paths;
    }),
              traffic.allocated());
    EXPECT_EQ(traffic.sum([](const memm_pool &pool) { return pool.free_count; }), traffic.released());
}

int print_nowhere(const char *, ...) { return 0; }

TEST(threads, go_on_while_others_make_pools_clear_statistics_and_switch_traces)
{
    Traffic traffic(scaled(30000));
    std::thread maker([] {
        for (int count = 1; count <= 30; ++count) {
            memm_free(memm_calloc(make_pool("", count * 20)));
        }
    });
    for (int round = 0; round < scaled(2000); ++round) {
        memm_clear_timestats();
        memm_set_trace(round % 3);
        for (int id = 0; id < 40; ++id) {
            const auto pool = static_cast<unsigned>(id);
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
    traffic.expect_empty();
}

// --- signals and forks in between ---

std::atomic<int> handled;
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

TEST(threads, allocate_while_their_handlers_take_the_manager_lock)
{
    struct sigaction action {};
    action.sa_handler = take_lock_in_handler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    Traffic traffic(1 << 30);
    int sent = 0;
    while (sent < scaled(100000)) {
        sent += traffic.signal_all(SIGALRM);
        while (handled < sent) {
            sched_yield();
        }
    }
    traffic.stop();
    traffic.expect_empty();
    memm_lock("main");
    EXPECT_EQ(under_lock, sent);
    memm_unlock();
}

// In a child: everything works that works in a parent, and the lock is nobody's.
int check_child(unsigned pool)
{
    for (int i = 0; i < 10; ++i) {
        void *const object = memm_calloc(pool);
        if (object == nullptr || memm_isvalidobj(object) == 0 || memm_free(object) != 0) {
            return 1;
        }
    }
    int visited = 0;
    const auto count = [](void *, void *counter) { return ++*static_cast<int *>(counter); };
    return memm_enum_objects(pool, count, &visited) == pool_at(pool).cur_count ? 0 : 2;
}

TEST(threads, fork_gives_the_child_whole_pools_and_a_lock_of_its_own)
{
    Traffic traffic(1 << 30);
    for (int round = 0; round < std::max(scaled(200), 5); ++round) {
        const bool nested = round % 2 == 0;  // the child has the holds of the thread that forked
        if (nested) {
            memm_lock("fork");
        }
        const pid_t child = fork();
        if (child == 0) {
            if (nested) {
                memm_unlock();
            }
            _exit(check_child(traffic.pool(0)));
        }
        if (nested) {
            memm_unlock();
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    traffic.stop();
    traffic.expect_empty();
}

}  // namespace
