// What does an object of a pool cost beside an object of the usual allocators?
#include "support.h"

namespace {

using namespace bench;

// A word of the object is written and read, as any user does.
void use(void *object, std::uintptr_t value)
{
    *static_cast<std::uintptr_t *>(object) = value;
    benchmark::DoNotOptimize(object);
}

std::uintptr_t used(const void *object) { return *static_cast<const std::uintptr_t *>(object); }

struct Pairs {
    template <class Rival> void operator()(benchmark::State &state, Rival &rival) const
    {
        for (auto _ : state) {
            void *const object = rival.allocate();
            use(object, 1);
            rival.release(object);
        }
    }
};

// `live` of `capacity` objects are alive, at random places of what was full once. A step replaces a random one.
struct Churn {
    std::size_t capacity, live;

    template <class Rival> void operator()(benchmark::State &state, Rival &rival) const
    {
        Random random(42);
        std::vector<void *> objects(capacity);
        for (void *&object : objects) {
            use(object = rival.allocate(), 1);
        }
        random.shuffle(objects);
        while (objects.size() > live) {
            rival.release(objects.back());
            objects.pop_back();
        }
        std::uintptr_t sum = 0;
        for (auto _ : state) {
            void *&object = objects[random.below(live)];
            sum += used(object);
            rival.release(object);
            use(object = rival.allocate(), 1);
        }
        if (sum != static_cast<std::uintptr_t>(state.iterations())) {
            state.SkipWithError("an object was handed out twice");
        }
        for (void *object : objects) {
            rival.release(object);
        }
    }
};

void add_pairs(std::size_t size, std::initializer_list<Goal> one_thread, std::initializer_list<Goal> parked)
{
    const std::string job = job_name("allocate + release " + std::to_string(size) + " B");
    set_goals(job, second_thread ? parked : one_thread);
    add_allocators(job, size, 1000, 300'000, Pairs{});
}

void add_churn(std::size_t capacity, std::int64_t steps, double goal)
{
    for (const std::size_t percent : {50, 90, 99}) {
        const std::string job = sized_job("churn of 64 B, " + std::to_string(percent) + " % live", capacity, "slots");
        set_goals(job, {{"glibc", goal}});
        add_allocators(job, 64, capacity, steps, Churn{capacity, capacity * percent / 100});
    }
}

// Wall-clock time by pairs of both threads together.
template <class Rival> void add_contention(const std::string &job)
{
    if (Rival::is_there()) {
        add(job, Rival::kName, 10'000'000,  // who sleeps and who runs changes in phases
            [](benchmark::State &state) {
                static Rival shared(64, 1000);
                Pairs{}(state, shared);
            })
            ->Threads(2)
            ->UseRealTime();
    }
}

void add_contentions()
{
    const std::string job = "two threads contend for one pool of 64 B";
    set_goals(job, {{"boost", 1.0}});
    add_contention<OurPool>(job);
    add_contention<Glibc>(job);
    add_contention<Loaded<jemalloc>>(job);
    add_contention<Loaded<mimalloc>>(job);
#ifdef BENCH_HAS_BOOST
    add_contention<BoostPool>(job);
#endif
    add_contention<Slices>(job);
    add_contention<Guarded<TallocChild>>(job);
}

void register_jobs()
{
    add_pairs(16, {{"glibc", 1.3}, {"boost", 1.0}}, {{"glibc", 1.1}});
    add_pairs(64, {{"glibc", 1.15}, {"boost", 1.0}}, {{"glibc", 0.75}});
    add_pairs(256, {{"glibc", 0.6}}, {{"glibc", 0.85}});
    add_churn(1'000, 200'000, 2.0);
    add_churn(100'000, 300'000, 1.2);
    add_churn(1'000'000, 500'000, 1.2);
    if (second_thread) {  // the job brings threads of its own
        add_contentions();
    }
}

}  // namespace

int main(int argc, char **argv) { return bench::run_program(argc, argv, register_jobs); }
