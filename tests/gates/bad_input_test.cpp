// Whatever is passed to whichever function: nothing crashes, hangs or breaks the pools.
#include "gates/calls.h"
#include "gates/children.h"
#include "support/file_calls.h"

namespace {

TEST(bad_input, harms_nothing_in_any_parameter_of_any_function)
{
    const OwnFolder folder;
    const int rounds = std::max(1, scaled(3));
    recorder().largest_block = 1 << 24;
    recorder().allow_reports();
    gates::Children children;
    std::atomic<int> &made = *static_cast<std::atomic<int> *>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (const gates::Call &call : gates::calls()) {
        if (!children.fork(call.name))
            continue;
        static gates::World world({});
        for (std::size_t i = 0; i < call.bad_ones.size(); ++i)
            for (std::size_t bad = 0, count = call.bad_ones[i](world); bad < count; ++bad)
                for (int round = 0; round < rounds; ++round, ++made) {
                    call.operator_(world, static_cast<int>(i), static_cast<int>(bad));
                    world.sweep();
                    recorder().forget();
                }
        children.end();
    }
    EXPECT_EQ(children.end(), "");
    std::printf("%d calls\n", made.load());
    EXPECT_GE(made, 6000 * rounds);
}

}  // namespace
