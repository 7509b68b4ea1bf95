// Every exported function: with bad arguments, under failures of the platform, in pools that are too small.
#include "gates/calls.h"
#include "gates/children.h"

namespace {

using namespace gates;

TEST(bad_input, harms_nothing_in_any_parameter_of_any_function)
{
    const OwnFolder folder;
    const auto rounds = static_cast<unsigned>(std::max(1, scaled(3)));
    recorder().largest_block = 1 << 24;
    Children children;
    for (const Call &call : calls()) {
        if (!children.fork(call.name))
            continue;
        static World world({});
        bool is_bad = true;
        for (std::size_t parameter = 0; parameter < call.parameters; ++parameter)
            for (std::size_t n = 0; n == 0 || is_bad; ++n) {
                memm_set_trace(static_cast<int>(n % 3));
                is_bad = call.run_with_bad(world, parameter, n / rounds);
                world.sweep();
                recorder().forget();
            }
        children.end();
    }
    EXPECT_EQ(children.end(), "");
    EXPECT_GE(children.count, 150) << "functions";
}

int reports_left = 1 << 30;

// Every function, reports between them. Arguments make sense while nothing fails.
void run_script(const Sizes &sizes)
{
    for (const int signal : {SIGUSR1, SIGUSR2})
        std::signal(signal, SIG_IGN);  // the manager may fail to start
    static World world(sizes);         // pools keep pointers into it
    const unsigned empty = static_cast<unsigned>(memm_initpool("empty", 1, 4, nullptr));
    memm_calloc(empty);
    int count = 0;
    for (const Call &call : calls()) {
        call.run(world);
        if (++count % 3 != 0 && reports_left-- > 0)
            memm_calloc(empty), raise(count % 2 == 0 ? SIGUSR1 : SIGUSR2);
        world.sweep();
        recorder().forget();
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kForkShare = 20;  // percent: forks are dear there
#else
constexpr int kForkShare = 100;
#endif

constexpr std::pair<Op, int> kWays[] = {
    {Op::alloc, 7},           {Op::alloc, kNullBlock}, {Op::alloc, kMisaligned}, {Op::getmem, 7},
    {Op::getmem, kNullBlock}, {Op::retmem, 7},         {Op::create, 7},          {Op::take, 7},
    {Op::open, EACCES},       {Op::fstat, EIO},        {Op::ftruncate, EIO},     {Op::write, kShort},
    {Op::write, EINTR},       {Op::write, ENOSPC},     {Op::close, EIO}};

// The script's own process meets no fault: at every call that can fail it leaves children behind who meet one each.
TEST(faults, at_every_call_of_the_platform_leave_pools_that_work)
{
    const OwnFolder folder;
    folder.order("stats\nall\n");
    Children children;
    const int stride = std::max(1, 100 / std::max(1, scaled(kForkShare)));
    int points = 0;
    fault = [&](Op op) {
        for (const auto &[met, code] : kWays)
            for (const bool for_ever : {false, true})
                if (met == op && points++ % stride == 0 &&
                    children.fork(text("fault point %d: operation %d, code %d, for ever %d", points,
                                       static_cast<int>(op), code, for_ever))) {
                    reports_left = 4;  // they take the most of the time
                    // An interruption that never ends would be one.
                    fault = [=, met = met, code = code, later = 0](Op next) mutable {
                        return for_ever && next == met && (code != EINTR || ++later % 2 == 0) ? code : 0;
                    };
                    return code;
                }
        return 0;
    };
    run_script({});
    EXPECT_EQ(children.end(), "");
    std::printf("%d fault points, %d tried\n", points, children.count);
    EXPECT_GE(points, 5000);
}

// Each pool of the script with room for one, for two, up to what it needs.
TEST(depletion, of_any_pool_at_any_size_leaves_pools_that_work)
{
    const OwnFolder folder;
    Children children;
    for (int Sizes::*size : {&Sizes::table, &Sizes::controls, &Sizes::areas, &Sizes::objects, &Sizes::strings,
                             &Sizes::nodes, &Sizes::data})
        for (Sizes sizes; sizes.*size > 0; --(sizes.*size))
            if (children.fork(text("at size %d", sizes.*size)))
                run_script(sizes), children.end();
    EXPECT_EQ(children.end(), "");
}

}  // namespace
