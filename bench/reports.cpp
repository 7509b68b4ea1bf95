// What does the statistics report cost beside one look at every slot?
#include "support.h"

namespace {

using namespace bench;

constexpr std::size_t kPools = 100, kSlots = 10'000, kSize = 64;

// Pools with a random half of their slots in use.
struct FilledPools {
    std::vector<unsigned> ids;
    FilledPools()
    {
        Random random(17);
        std::vector<void *> objects(kSlots);
        for (std::size_t i = 0; i < kPools; i++) {
            ids.push_back(id_or_exit(memm_initpool("", kSlots, kSize, nullptr)));
            for (void *&object : objects) {
                object = memm_calloc(ids.back());
            }
            random.shuffle(objects);
            for (std::size_t k = 0; k < kSlots / 2; k++) {
                memm_free(objects[k]);
            }
        }
    }
};

int print_nothing(const char *, ...) { return 0; }

// Do all headers name their pool, or no pool? Each is read once and nothing else is looked at.
bool all_headers_fit(unsigned id)
{
    constexpr std::uint32_t kFree = 0xffffffffU, kPoolBits = 0x7fffffU;
    const memm_pool &pool = *memm_get_pool_nolock(id);
    const unsigned char *slot = pool.slots;
    bool all_fit = true;
    for (std::size_t i = 0; i < kSlots; i++, slot += pool.slot_size) {
        std::uint32_t header;
        std::memcpy(&header, slot, sizeof header);
        all_fit = all_fit && (header == kFree || (header & kPoolBits) == id);
    }
    return all_fit;
}

void register_jobs()
{
    static const FilledPools pools;
    const std::string job = job_name("statistics of 100 pools, 1,000,000 slots");
    set_goals(job, {{kMinimum, 1.2}});
    add(job, "ours", 20, [](benchmark::State &state) {
        for (auto _ : state) {
            memm_print_stats2(nullptr, print_nothing);
        }
    });
    add(job, kMinimum, 20, [](benchmark::State &state) {
        for (auto _ : state) {
            for (const unsigned id : pools.ids) {
                if (!all_headers_fit(id)) {
                    state.SkipWithError("a header is damaged");
                }
            }
        }
    });
}

}  // namespace

int main(int argc, char **argv) { return bench::run_program(argc, argv, register_jobs); }
