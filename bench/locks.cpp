// What do the manager lock, a named lock and the stopwatch cost beside what they are made of?
#include "support.h"

#include <memmanager/platform.h>
#include <memmanager/timestat.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <pthread.h>

namespace {

using namespace bench;

struct Manager {
    static constexpr const char *kName = "ours";
    void lock() { memm_lock("bench"); }
    void unlock() { memm_unlock(); }
};

struct Platform {
    static constexpr const char *kName = "ours";
    void lock() { P("bench"); }
    void unlock() { V(); }
};

struct Named {
    static constexpr const char *kName = "ours";
    LOCK record{};
    Named() { lock_initlock(&record, "bench"); }
    void lock() { lock_lock(&record, 0, "bench"); }
    void unlock() { lock_unlock(&record); }
};

struct RecursiveMutex {
    static constexpr const char *kName = "pthread recursive";
    pthread_mutex_t mutex;
    RecursiveMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attributes);
    }
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
};

// What getting into the library and out of it takes, twice, without anything done there.
struct EmptyCalls {
    static constexpr const char *kName = "empty calls";
    void lock() { memm_removeFromAllocateList(nullptr); }
    void unlock() { memm_removeFromAllocateList(nullptr); }
};

// The owner and the depth, and what gives other threads the right order: an atomic exchange and a store.
struct OwnerAndDepth {
    static constexpr const char *kName = kMinimum;
    std::atomic<const void *> owner = nullptr;
    unsigned depth = 0;
    void lock()
    {
        const void *const me = &errno;
        if (owner.load(std::memory_order_relaxed) == me) {
            depth++;
        } else if (second_thread) {
            owner.exchange(me, std::memory_order_acquire);
        } else {
            owner.store(me, std::memory_order_relaxed);
        }
    }
    void unlock()
    {
        if (depth > 0) {
            depth--;
        } else {
            owner.store(nullptr, std::memory_order_release);
        }
    }
};

// With `nested`, the lock is held already.
template <class Lock> void add_lock(const std::string &job, bool nested)
{
    add(job, Lock::kName, 1'000'000, [nested](benchmark::State &state) {
        static Lock lock;
        if (nested) {
            lock.lock();
        }
        for (auto _ : state) {
            lock.lock();
            benchmark::ClobberMemory();
            lock.unlock();
        }
        if (nested) {
            lock.unlock();
        }
    });
}

void add_stopwatch(const std::string &job)
{
    add(job, "ours", 200'000, [](benchmark::State &state) {
        timestat watch;
        for (auto _ : state) {
            timestat_starttime(&watch);
            timestat_stoptime(&watch);
            benchmark::DoNotOptimize(watch);
        }
    });
    add(job, kMinimum, 200'000, [](benchmark::State &state) {
        timespec watch[2];
        for (auto _ : state) {
            clock_gettime(CLOCK_MONOTONIC, &watch[0]);
            clock_gettime(CLOCK_MONOTONIC, &watch[1]);
            benchmark::DoNotOptimize(watch);
        }
    });
}

void register_jobs()
{
    for (const bool nested : {false, true}) {
        const std::string job = job_name(nested ? "manager lock, nested" : "manager lock, uncontended");
        set_goals(job, {{RecursiveMutex::kName, nested ? 0.85 : second_thread ? 1.0 : 0.75}});
        add_lock<Manager>(job, nested);
        add_lock<RecursiveMutex>(job, nested);
        add_lock<EmptyCalls>(job, nested);
        add_lock<OwnerAndDepth>(job, nested);
    }
    const std::string platform = job_name("P and V, uncontended");
    add_lock<Platform>(platform, false);
    add_lock<RecursiveMutex>(platform, false);
    add_lock<OwnerAndDepth>(platform, false);
    const std::string named = job_name("named lock, uncontended");
    add_lock<Named>(named, false);
    add_lock<RecursiveMutex>(named, false);

    const std::string stopwatch = job_name("stopwatch start + stop");
    set_goals(stopwatch, {{kMinimum, 1.1}});
    add_stopwatch(stopwatch);
}

}  // namespace

int main(int argc, char **argv) { return bench::run_program(argc, argv, register_jobs); }
