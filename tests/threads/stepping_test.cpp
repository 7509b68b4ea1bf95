// A signal at every instruction. The processor stops behind each instruction of a script (the trap flag); wherever that
// is in this program, the library included, a copy of the process gets the signal, goes on undisturbed to the end and
// looks at what became of it.
#include "support/file_calls.h"

#include <set>
#include <ucontext.h>

// Sanitizers multiply the instructions, and their own run in between.
#if (defined(__x86_64__) || defined(__i386__)) && !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)

extern "C" const char __executable_start, etext;

namespace {

#ifdef __x86_64__
constexpr int kPosition = REG_RIP;
#else
constexpr int kPosition = REG_EIP;
#endif
constexpr greg_t kTrapFlag = 0x100;

volatile sig_atomic_t is_stepping, sent;  // sent: to a copy
unsigned opened_before;                   // dump files, when it came
int positions;

bool is_of_interest(greg_t position)
{
    static std::set<greg_t> seen;  // what of this program has been interrupted
    const auto *const place = reinterpret_cast<const char *>(position);
    return place >= &__executable_start && place < &etext && (seen.insert(position).second || is_full_run());
}

void on_step(int, siginfo_t *, void *context)
{
    greg_t *const registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    if (is_stepping != 0 && is_of_interest(registers[kPosition])) {
        ++positions;
        const pid_t copy = _Fork();
        if (copy == 0) {
            is_stepping = 0, opened_before = dumps_opened;
            sent = positions % 2 == 0 ? SIGUSR1 : SIGUSR2;
            alarm(10);
            raise(sent);
        } else if (const int status = status_of(copy); status != 0) {
            is_stepping = 0, ADD_FAILURE() << "status " << status << " after " << positions << " positions";
        }
    }
    registers[REG_EFL] = is_stepping != 0 ? registers[REG_EFL] | kTrapFlag : registers[REG_EFL] & ~kTrapFlag;
}

// A call of the library, step by step. In a copy, the report that was asked for has begun when it is over.
template <typename Call> auto stepped(const Call &call)
{
    if (sent == 0 && !testing::Test::HasFailure()) {
        is_stepping = 1;
        raise(SIGTRAP);
    }
    const auto result = call();
    is_stepping = 0;
    EXPECT_TRUE(sent == 0 || dumps_opened > opened_before) << "forgotten";
    return result;
}

void give_back(void *object)
{
    EXPECT_EQ(stepped([=] { return memm_free(object); }), 0);
}

// Slots of a full pool come back and are found in each way; references.
void go_through_slots(unsigned pool)
{
    const int filled = pool_at(pool).slot_count;
    void *all[400], *const first = memm_calloc(pool);
    for (int i = 1; i < filled; ++i)
        all[i] = memm_calloc(pool);
    EXPECT_EQ(stepped([=] { return memm_refalloc(first); }), first);
    for (void *const object : {all[filled / 2], all[filled - 2], all[1], all[filled - 1], first})
        give_back(object);
    for (const int i : {1, filled - 2, filled - 1, filled / 2})
        EXPECT_EQ(stepped([=] { return memm_calloc(pool); }), all[i]);
    for (int i = 1; i < filled; ++i)
        memm_free(all[i]);
    give_back(first);
    EXPECT_EQ(pool_at(pool).cur_count, 0);
}

// Texts of two buffers: placed, replaced, appended and printed to, until both have been compacted.
void go_through_texts(unsigned pool)
{
    dynstr *const first = dynstr_fromstring(pool, "leaves a gap");
    dynstr *const keeper = stepped([=] { return dynstr_fromstring(pool, "keeper"); });
    const char *const place = dynstr_getstring(keeper);
    dynstr *const text = stepped([=] { return dynstr_fromstring(pool, ""); });
    give_back(first);
    for (int round = 0; round < 10; ++round) {
        EXPECT_EQ(stepped([=] { return dynstr_setstring(text, "a text of thirty-two characters."); }), 0U);
        EXPECT_EQ(stepped([=] { return dynstr_addstring(text, " and more"); }), 0U);
        EXPECT_EQ(stepped([=] { return dynstr_sprintf(text, "%d %s", round, dynstr_getstring(keeper)); }), 0U);
        EXPECT_EQ(dynstr_getstring(text), std::to_string(round) + " keeper");
    }
    EXPECT_TRUE(dynstr_getstring(keeper) != place && dynstr_strcmp2(keeper, "keeper") == 0) << "not compacted";
    give_back(text), give_back(keeper);
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

void step_through_the_script()
{
    const OwnFolder folder;
    folder.order("stats\n");
    struct sigaction action {};
    action.sa_sigaction = on_step;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
    go_through_slots(make_pool("few", 12));
    go_through_slots(make_pool("many", 400));
    go_through_texts(make_strings(300, 2, 12));
    if (sent != 0) {
        std::thread([] { memm_lock("second"), memm_unlock(); }).join();
        const std::string report = content_of(sent == SIGUSR1 ? folder.usage_path() : folder.contents_path());
        EXPECT_TRUE(is_whole_report(report)) << report;
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    std::printf("%d positions\n", positions);
    EXPECT_GT(positions, 1000);
}

TEST(a_signal_at_every_instruction, is_answered_beside_nobody) { step_through_the_script(); }

TEST(a_signal_at_every_instruction, is_answered_beside_another_thread)
{
    const std::jthread other([](const std::stop_token &end) {
        while (!end.stop_requested())
            usleep(1000);
    });
    step_through_the_script();
}

}  // namespace

#endif
