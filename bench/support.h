#pragma once

#include "process.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dlfcn.h>

#if __has_include(<boost/pool/pool.hpp>)
#include <boost/pool/pool.hpp>
#define BENCH_HAS_BOOST 1
#endif

// What the benches share. A benchmark is called "job/rival"; all rivals of a job do the same number of steps on the
// same random numbers, in one process, their repetitions interleaved. A goal is a ratio of medians that stands beside
// its job; it travels in the JSON output to scripts/bench-table. A figure is the time of one operation wherever a job
// ends in ": 1,000 slots" (records, nodes, items), so that the same job shows how its cost grows.
//
// The C library drops its locks while a process has one thread and does not come back to that reliably. So every
// program runs either way as a process of its own: with --second-thread another thread is parked from the start. The
// largest jobs, which only show how a cost grows, leave the heap in pieces that other jobs' rivals would have to live
// with: they run in a third process, with --growth.
namespace bench {

// ---- jobs and goals ----

inline bool second_thread = false;

inline std::string job_name(const std::string &job)
{
    return job + (second_thread ? ", second thread parked" : ", one thread");
}

inline std::string with_commas(std::size_t count)
{
    std::string digits = std::to_string(count);
    for (auto at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), ",");
    }
    return digits;
}

inline std::string sized_job(const std::string &job, std::size_t count, const char *what)
{
    return job_name(job + ": " + with_commas(count) + " " + what);
}

// The contender that does no more than the job cannot do without: what no way of organising it can avoid.
inline constexpr const char *kMinimum = "minimum";

struct Goal {
    const char *rival;
    double ratio;
};

// Ours takes at most `ratio` times what the rival takes.
inline void set_goals(const std::string &job, std::initializer_list<Goal> goals)
{
    std::string text;
    for (const Goal &goal : goals) {
        text += (text.empty() ? "" : "; ") + std::string(goal.rival) + "=" + std::to_string(goal.ratio);
    }
    benchmark::AddCustomContext("goal " + job, text);
}

template <class Function>
benchmark::internal::Benchmark *add(const std::string &job, const char *rival, std::int64_t steps, Function function)
{
    return benchmark::RegisterBenchmark((job + "/" + rival).c_str(), function)->Iterations(steps);
}

// ---- libraries that may be missing ----

// Opened with its names to itself: an allocator must not take over the process's own malloc.
class Library {
    const char *file_;
    void *handle_;

public:
    explicit Library(const char *file) : file_(file), handle_(dlopen(file, RTLD_NOW | RTLD_LOCAL))
    {
        if (handle_ == nullptr) {
            std::fprintf(stderr, "bench: skipping a rival: %s\n", dlerror());
        }
    }
    explicit operator bool() const { return handle_ != nullptr; }

    template <class Function> void find(Function *&function, const char *name) const
    {
        function = handle_ == nullptr ? nullptr : reinterpret_cast<Function *>(dlsym(handle_, name));
        if (handle_ != nullptr && function == nullptr) {
            std::fprintf(stderr, "bench: %s has no %s\n", file_, name);
            std::exit(1);
        }
    }
};

struct Allocator {
    Library library;
    void *(*allocate)(std::size_t, std::size_t) = nullptr;
    void (*release)(void *) = nullptr;

    Allocator(const char *file, const char *allocate_name, const char *release_name) : library(file)
    {
        library.find(allocate, allocate_name);
        library.find(release, release_name);
    }
};
inline const Allocator jemalloc("libjemalloc.so.2", "calloc", "free");
inline const Allocator mimalloc("libmimalloc.so.2", "mi_calloc", "mi_free");

struct GString;  // the library's own type; only pointers to it are passed here

struct GLib {
    Library library{"libglib-2.0.so.0"};
    void *(*slice_alloc0)(std::size_t) = nullptr;
    void (*slice_free1)(std::size_t, void *) = nullptr;
    GString *(*string_new)(const char *) = nullptr;
    char *(*string_free)(GString *, int) = nullptr;
    GString *(*string_append)(GString *, const char *) = nullptr;
    char *(*strdup_printf)(const char *, ...) = nullptr;
    void (*free)(void *) = nullptr;

    GLib()
    {
        library.find(slice_alloc0, "g_slice_alloc0");
        library.find(slice_free1, "g_slice_free1");
        library.find(string_new, "g_string_new");
        library.find(string_free, "g_string_free");
        library.find(string_append, "g_string_append");
        library.find(strdup_printf, "g_strdup_printf");
        library.find(free, "g_free");
    }
};
inline const GLib glib;

struct Talloc {
    Library library{"libtalloc.so.2"};
    void *(*zero)(const void *, std::size_t, const char *) = nullptr;
    char *(*strdup)(const void *, const char *) = nullptr;
    char *(*strdup_append)(char *, const char *) = nullptr;
    char *(*asprintf)(const void *, const char *, ...) = nullptr;
    int (*free)(void *, const char *) = nullptr;

    Talloc()
    {
        library.find(zero, "_talloc_zero");
        library.find(strdup, "talloc_strdup");
        library.find(strdup_append, "talloc_strdup_append_buffer");
        library.find(asprintf, "talloc_asprintf");
        library.find(free, "_talloc_free");
    }
    void *new_context() const { return zero(nullptr, 1, "bench"); }
};
inline const Talloc talloc;

// ---- rivals that hand out zeroed objects of one size ----

// Pools last as long as the process: one per size and count.
inline unsigned pool_of(std::size_t size, std::size_t count)
{
    static std::map<std::pair<std::size_t, std::size_t>, unsigned> pools;
    const auto [place, is_new] = pools.try_emplace({size, count}, 0);
    if (is_new) {
        static std::vector<std::string> names;
        names.reserve(64);  // a pool keeps the pointer to its name
        const std::string &name = names.emplace_back(std::to_string(count) + " of " + std::to_string(size));
        const int id = memm_initpool(name.c_str(), static_cast<int>(count), static_cast<int>(size), nullptr);
        if (id < 0) {
            std::fprintf(stderr, "bench: no pool for %s bytes\n", name.c_str());
            std::exit(1);
        }
        place->second = static_cast<unsigned>(id);
    }
    return place->second;
}

struct OurPool {
    static constexpr const char *kName = "ours";
    static bool is_there() { return true; }
    unsigned id;
    OurPool(std::size_t size, std::size_t count) : id(pool_of(size, count)) {}
    void *allocate() { return memm_calloc(id); }
    void release(void *object) { memm_free(object); }
};

// A list of free blocks of one size, without a lock; what it hands out is zeroed.
struct FreeList {
    static constexpr const char *kName = kMinimum;
    static bool is_there() { return true; }
    std::size_t size;
    std::vector<std::byte> room;
    void **first = nullptr;
    FreeList(std::size_t object_size, std::size_t count) : size(object_size), room(object_size * count)
    {
        for (std::size_t i = count; i > 0; i--) {
            release(room.data() + (i - 1) * size);
        }
    }
    void *allocate()
    {
        void **const taken = first;
        first = static_cast<void **>(*taken);
        return std::memset(taken, 0, size);
    }
    void release(void *object)
    {
        *static_cast<void **>(object) = first;
        first = static_cast<void **>(object);
    }
};

struct Glibc {
    static constexpr const char *kName = "glibc";
    static bool is_there() { return true; }
    std::size_t size;
    Glibc(std::size_t object_size, std::size_t) : size(object_size) {}
    void *allocate() { return std::calloc(1, size); }
    void release(void *object) { std::free(object); }
};

template <const Allocator &kAllocator> struct Loaded {
    static constexpr const char *kName = &kAllocator == &jemalloc ? "jemalloc" : "mimalloc";
    static bool is_there() { return static_cast<bool>(kAllocator.library); }
    std::size_t size;
    Loaded(std::size_t object_size, std::size_t) : size(object_size) {}
    void *allocate() { return kAllocator.allocate(1, size); }
    void release(void *object) { kAllocator.release(object); }
};

// For several threads what is for one alone.
template <class Rival> struct Guarded : Rival {
    std::recursive_mutex mutex;
    using Rival::Rival;
    void *allocate()
    {
        const std::lock_guard guard(mutex);
        return Rival::allocate();
    }
    void release(void *object)
    {
        const std::lock_guard guard(mutex);
        Rival::release(object);
    }
};

#ifdef BENCH_HAS_BOOST
struct UnguardedBoostPool {
    static constexpr const char *kName = "boost";
    static bool is_there() { return true; }
    boost::pool<> pool;
    UnguardedBoostPool(std::size_t size, std::size_t) : pool(size) {}
    void *allocate() { return std::memset(pool.malloc(), 0, pool.get_requested_size()); }
    void release(void *object) { pool.free(object); }
};
// As safe as a pool of ours: for several threads, and for a callback that allocates again.
using BoostPool = Guarded<UnguardedBoostPool>;
#endif

struct Slices {
    static constexpr const char *kName = "slices";
    static bool is_there() { return static_cast<bool>(glib.library); }
    std::size_t size;
    Slices(std::size_t object_size, std::size_t) : size(object_size) {}
    void *allocate() { return glib.slice_alloc0(size); }
    void release(void *object) { glib.slice_free1(size, object); }
};

struct TallocChild {
    static constexpr const char *kName = "talloc";
    static bool is_there() { return static_cast<bool>(talloc.library); }
    std::size_t size;
    void *context = talloc.new_context();
    TallocChild(std::size_t object_size, std::size_t) : size(object_size) {}
    TallocChild(const TallocChild &) = delete;
    ~TallocChild() { talloc.free(context, __FILE__); }
    void *allocate() { return talloc.zero(context, size, "object"); }
    void release(void *object) { talloc.free(object, __FILE__); }
};

template <class Rival, class Run>
void add_rival(const std::string &job, std::size_t size, std::size_t count, std::int64_t steps, Run run)
{
    if (Rival::is_there()) {
        add(job, Rival::kName, steps, [=](benchmark::State &state) {
            Rival rival(size, count);
            run(state, rival);
        });
    }
}

// The same job for every rival: run(state, rival).
template <class Run>
void add_allocators(const std::string &job, std::size_t size, std::size_t count, std::int64_t steps, Run run)
{
    add_rival<OurPool>(job, size, count, steps, run);
    add_rival<Glibc>(job, size, count, steps, run);
    add_rival<Loaded<jemalloc>>(job, size, count, steps, run);
    add_rival<Loaded<mimalloc>>(job, size, count, steps, run);
#ifdef BENCH_HAS_BOOST
    add_rival<BoostPool>(job, size, count, steps, run);
#endif
    add_rival<Slices>(job, size, count, steps, run);
    add_rival<TallocChild>(job, size, count, steps, run);
    add_rival<FreeList>(job, size, count, steps, run);
}

// ---- the program ----

inline int run_program(
    int argc, char **argv, void (*register_jobs)(), void (*register_growth)() = [] {})
{
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    char repetitions[] = "--benchmark_repetitions=9";
    std::vector<char *> arguments{argv[0], interleaved, repetitions};
    for (int i = 1; i < argc; i++) {
        if (std::string_view(argv[i]) == "--second-thread") {
            second_thread = true;
        } else if (std::string_view(argv[i]) == "--growth") {
            register_jobs = register_growth;
        } else {
            arguments.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    start_library();
    if (second_thread) {
        park_a_thread();
    }
    register_jobs();
    benchmark::RunSpecifiedBenchmarks();
    std::fflush(stdout);
    std::_Exit(0);  // the parked thread never ends
}

}  // namespace bench
