// What do a release and an append of a data buffer cost beside the moving of bytes that they cannot do without?
#include "support.h"

#include <memmanager/dyndata.h>

#include <memory>

namespace {

using namespace bench;

constexpr std::size_t kBuffers = 1000;

unsigned data_pool(const char *name, std::size_t count, std::size_t bytes)
{
    static const bool started = dyndata_init(8) == MEMM_OK;
    const int id = started ? dyndata_initpool(name, static_cast<int>(count), static_cast<unsigned>(bytes)) : -1;
    if (id < 0) {
        std::fprintf(stderr, "bench: no data pool\n");
        std::exit(1);
    }
    return static_cast<unsigned>(id);
}

unsigned common_pool(std::size_t bytes)
{
    static std::map<std::size_t, unsigned> pools;
    const auto [place, is_new] = pools.try_emplace(bytes, 0);
    if (is_new) {
        place->second = data_pool("", kBuffers, kBuffers * bytes);
    }
    return place->second;
}

// ---- release of one of 1,000 buffers ----

class OurBuffers {
    unsigned pool_;
    std::vector<dyndata *> buffers_{kBuffers};

public:
    static constexpr const char *kName = "ours";
    explicit OurBuffers(std::size_t bytes) : pool_(common_pool(bytes)) {}
    void fill(const std::vector<char> &content)
    {
        for (dyndata *&buffer : buffers_) {
            buffer = dyndata_fromdata(pool_, content.data(), static_cast<unsigned>(content.size()));
        }
    }
    void release(std::size_t i) { dyndata_free(buffers_[i]); }
};

// The least that a release takes: the tail moves down, and one pass over as large slots adjusts the pointers to it.
class MoveAndPass {
    struct Slot {
        std::uint32_t is_used, header;
        char *data;
        std::uint32_t size;
    };
    std::vector<Slot> slots_{kBuffers};
    std::vector<char> area_;
    std::size_t used_ = 0;

public:
    static constexpr const char *kName = kMinimum;
    explicit MoveAndPass(std::size_t bytes) : area_(kBuffers * bytes) {}
    void fill(const std::vector<char> &content)
    {
        used_ = 0;
        for (Slot &slot : slots_) {
            char *const place = area_.data() + used_;
            slot = {1, 0, place, static_cast<std::uint32_t>(content.size())};
            std::memcpy(place, content.data(), content.size());
            used_ += content.size();
        }
    }
    void release(std::size_t i)
    {
        Slot &gone = slots_[i];
        for (Slot &slot : slots_) {
            if (slot.is_used != 0 && slot.data > gone.data) {
                slot.data -= gone.size;
            }
        }
        const char *const rest = gone.data + gone.size;
        std::memmove(gone.data, rest, static_cast<std::size_t>(area_.data() + used_ - rest));
        used_ -= gone.size;
        gone.is_used = 0;
        benchmark::DoNotOptimize(area_.data());
    }
};

// A step releases a random half of them.
template <class Rival> void add_releases(const std::string &job, std::size_t bytes)
{
    add(job, Rival::kName, 60, [bytes](benchmark::State &state) {
        Rival rival(bytes);
        const std::vector<char> content(bytes, 'x');
        std::vector<std::size_t> order(kBuffers);
        for (std::size_t i = 0; i < kBuffers; i++) {
            order[i] = i;
        }
        Random random(3);
        for (auto _ : state) {
            state.PauseTiming();
            rival.fill(content);
            random.shuffle(order);
            state.ResumeTiming();
            for (std::size_t i = 0; i < kBuffers / 2; i++) {
                rival.release(order[i]);
            }
            state.PauseTiming();
            for (std::size_t i = kBuffers / 2; i < kBuffers; i++) {
                rival.release(order[i]);
            }
            state.ResumeTiming();
        }
    });
}

// ---- append to the last run ----

constexpr std::size_t kRoom = 1U << 16;

struct OurLastRun {
    static constexpr const char *kName = "ours";
    dyndata *buffer;
    OurLastRun()
    {
        static const unsigned pool = data_pool("growing", 2, kRoom);
        buffer = dyndata_calloc(pool);
    }
    OurLastRun(const OurLastRun &) = delete;
    ~OurLastRun() { dyndata_free(buffer); }
    bool append(const std::vector<char> &content)
    {
        return dyndata_adddata(buffer, content.data(), static_cast<unsigned>(content.size())) == MEMM_OK;
    }
    void clear() { dyndata_setdata(buffer, nullptr, 0); }
};

// The lock is ours, as nested locks are: what is judged is the rest.
struct LockAndCopy {
    static constexpr const char *kName = kMinimum;
    std::vector<char> area = std::vector<char>(kRoom);
    std::size_t used = 0;
    bool append(const std::vector<char> &content)
    {
        memm_lock("append");
        std::memcpy(area.data() + used, content.data(), content.size());
        used += content.size();
        memm_unlock();
        return true;
    }
    void clear()
    {
        memm_lock("clear");
        std::memset(area.data(), 0, used);
        used = 0;
        memm_unlock();
    }
};

// A step fills the area.
template <class Rival> void add_appends(const std::string &job, std::size_t bytes)
{
    add(job, Rival::kName, static_cast<std::int64_t>(bytes) * 2, [bytes](benchmark::State &state) {
        Rival rival;
        const std::vector<char> content(bytes, 'x');
        bool good = true;
        for (auto _ : state) {
            for (std::size_t used = 0; used < kRoom; used += bytes) {
                good = rival.append(content) && good;
            }
            rival.clear();
        }
        if (!good) {
            state.SkipWithError("no room");
        }
    });
}

void register_jobs()
{
    for (const std::size_t bytes : {16, 64, 256}) {
        const std::string job = job_name("release of one of 1,000 buffers of " + std::to_string(bytes) + " B, x 500");
        set_goals(job, {{MoveAndPass::kName, 2.5}});
        add_releases<OurBuffers>(job, bytes);
        add_releases<MoveAndPass>(job, bytes);
    }
    for (const std::size_t bytes : {64, 256, 1024}) {
        const std::string job = job_name("64 KB appended to the last run, " + std::to_string(bytes) + " B each");
        set_goals(job, {{LockAndCopy::kName, 1.5}});
        add_appends<OurLastRun>(job, bytes);
        add_appends<LockAndCopy>(job, bytes);
    }
}

}  // namespace

int main(int argc, char **argv) { return bench::run_program(argc, argv, register_jobs); }
