#include "support/file_calls.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/dynstring.h>
#include <memmanager/lock.h>
#include <memmanager/platform.h>
#include <climits>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Objects = std::vector<void *>;
using Strings = std::vector<std::string>;

constexpr unsigned kWord = sizeof(memm_word);
constexpr unsigned kLead = kWord - 4;  // in front of the first header

unsigned slot_bytes(unsigned object_size) { return (object_size + 4 + kWord - 1) / kWord * kWord; }

Objects fill(unsigned pool)
{
    Objects all;
    while (pool_at(pool).cur_count < pool_at(pool).slot_count) {
        all.push_back(memm_calloc(pool));
    }
    return all;
}

std::string depletion_message(const char *pool)
{
    return text("memm_calloc() failed for pool '%s' (pool depleted)", pool);
}

void expect_depletion(const char *pool)
{
    EXPECT_EQ(recorder().take_errors(), "0x10002 2 memm memmanager: " + depletion_message(pool) + "\n");
    EXPECT_EQ(recorder().take_trace(), depletion_message(pool));
}

// --- start and creation ---

TEST(pools, start_once_and_not_with_impossible_numbers)
{
    EXPECT_EQ(memm_initpool("early", 2, 9, nullptr), -1);
    EXPECT_EQ(recorder().take_errors(), "0x10007 2 MEMM memmanager: memm_initpool() called before mem_init()\n");
    EXPECT_EQ(recorder().take_trace(), "[MEMM] Failed to allocate early buffer (cnt=2, objsize=9)\r\n");
    for (const unsigned count : {0U, 0x800000U, 0xffffffffU}) {
        EXPECT_EQ(memm_init(count, 4), MEMM_E_INVALID);
    }
    EXPECT_EQ(memm_get_pool_nolock(0), nullptr);
    EXPECT_EQ(memm_calloc(0), nullptr);
    EXPECT_EQ(recorder().calls(Op::alloc) + recorder().calls(Op::create), 0U);
    EXPECT_EQ(memm_init(5, 4), 0);
    EXPECT_EQ(recorder().take_mutex_calls().front(), "create(MEMM,1)");
    EXPECT_EQ(recorder().take_allocations().front(),
              (Recorder::Allocation{"MEMM", 1, 5 * slot_bytes(sizeof(memm_pool)) + kLead}));
    for (const unsigned count : {5U, 0U}) {
        EXPECT_EQ(memm_init(count, 4), MEMM_E_STARTED);
        EXPECT_EQ(recorder().take_trace(), "memm_init() may only be called once per process!");
    }
    memm_set_trace(0);
    EXPECT_EQ(memm_init(5, 4), MEMM_E_STARTED);
    memm_set_trace(2);
    while (pool_at(0).cur_count < 5) {
        const int next = pool_at(0).cur_count;
        EXPECT_EQ(memm_initpool("", 1, 1, nullptr), next);
    }
    const OwnFolder folder;
    EXPECT_EQ(memm_initpool("one more", 3, 1, nullptr), -1);
    EXPECT_EQ(recorder().take_trace(),
              depletion_message("memm_pooldesc") +
                  text("[MEMM] Failed to allocate one more buffer (cnt=3, objsize=%u)\r\n", slot_bytes(1)));
    EXPECT_NE(content_of(folder.contents_path()).find("\r\n\r\nReason: " + depletion_message("memm_pooldesc")),
              std::string::npos);
    recorder().take_errors();
}

TEST(pools, that_cannot_be_made_leave_nothing_but_a_trace)
{
    make_pool("twin", 1);
    struct {
        const char *name;
        int count, object_size;
        long shown;  // 0: bytes of a slot
    } const cases[] = {
        {nullptr, 3, 8, 8},
        {"a", 0, 8, 8},
        {"a", -1, 8, 8},
        {"a", INT_MIN, 8, 8},
        {"a", 3, 0, 0},
        {"a", 3, -8, -8},
        {"twin", 3, 8, 0},
        {"memm_pooldesc", 3, 8, 0},
        {"dynstr_pool", 3, 8, 0},
        {"a", INT_MAX, INT_MAX, INT_MAX},
        {"a", 1, INT_MAX, INT_MAX},
        {"a", 3, INT_MAX - 64, INT_MAX - 64},
        {"a", 0x10000000, 100, 100},
        {"a", 0x20000000, 4, 4},
    };
    const int before = pool_at(0).cur_count;
    for (const auto &c : cases) {
        recorder().forget();
        EXPECT_EQ(memm_initpool(c.name, c.count, c.object_size, nullptr), -1);
        const long shown =
            c.shown != 0 || c.object_size <= 0 ? c.shown : slot_bytes(static_cast<unsigned>(c.object_size));
        EXPECT_EQ(recorder().take_tags(), Strings{"memm_initpool"});
        EXPECT_EQ(recorder().take_trace(), text("[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%ld)\r\n",
                                                c.name == nullptr ? "<no_name>" : c.name, c.count, shown));
        EXPECT_TRUE(recorder().take_allocations().empty());
    }
    EXPECT_EQ(pool_at(0).cur_count, before);
}

int release_nothing(void *) { return 0; }
int release2_nothing(void *, memm_release_fn) { return 0; }
void print_nothing(void *) {}

TEST(pools, are_laid_out_as_documented)
{
    make_pool("first", 1);
    for (const unsigned size : {1U, 4U, 5U, 12U, 13U, 4000U}) {
        for (const int count : {1, 256, 257}) {
            recorder().forget();
            const unsigned id = make_pool("", count, static_cast<int>(size));
            const auto blocks = recorder().take_allocations();
            const memm_pool &pool = pool_at(id);
            const auto slots = static_cast<unsigned>(count);
            EXPECT_EQ(pool.slot_size, slot_bytes(size));
            EXPECT_EQ(pool.last_item, pool.slots + (slots - 1) * pool.slot_size);
            EXPECT_EQ(pool.last_used, pool.slots - pool.slot_size);
            ASSERT_EQ(blocks.size(), count > 256 ? 2U : 1U) << "large pools have an index";
            EXPECT_EQ(blocks[0], (Recorder::Allocation{"", 1, slots * pool.slot_size + kLead}));
            EXPECT_EQ(blocks.back().label, count > 256 ? "MEMM" : "");
            for (void *object : fill(id)) {
                ASSERT_EQ(reinterpret_cast<std::uintptr_t>(object) % sizeof(memm_word), 0U);
                ASSERT_EQ(header_of(object), id);
                std::memset(object, 0xff, size);  // neither a neighbour's header nor beyond the block
            }
        }
    }
    const memm_pool &second = pool_at(static_cast<unsigned>(memm_initpool2("2", 1, 1, print_nothing, release_nothing)));
    EXPECT_TRUE(second.options.print_cb == print_nothing && second.options.release_cb == release_nothing &&
                second.options.release2_cb == nullptr);
    const memm_pool &third = pool_at(static_cast<unsigned>(memm_initpool3("3", 1, 1, print_nothing, release2_nothing)));
    EXPECT_TRUE(third.options.print_cb == print_nothing && third.options.release2_cb == release2_nothing &&
                third.options.release_cb == nullptr);
}

TEST(pools, answer_by_object_and_by_id)
{
    static int cookie;
    memm_pooloptions options{};
    options.cookie = &cookie;
    const unsigned pool = make_pool("named", 2, 8, options);
    void *const object = memm_calloc(pool);
    header_of(object) |= 0x02800000;  // tag and references are not part of the id
    EXPECT_STREQ(memm_get_poolname(object), "named");
    EXPECT_EQ(memm_get_poolid(object), static_cast<int>(pool));
    EXPECT_EQ(memm_getpoolcookie(object), &cookie);
    EXPECT_EQ(memm_getpoolcookie_nolock(object), &cookie);
    EXPECT_EQ(memm_getpoolcookie_bypoolid(pool), &cookie);
    EXPECT_EQ(memm_instanceof_no_ori(object, pool), 1);
    EXPECT_EQ(memm_instanceof_no_ori(object, pool - 1), 0);
    EXPECT_EQ(memm_instanceof_no_ori(nullptr, -1U), 1);
    EXPECT_EQ(memm_instanceof_no_ori(nullptr, pool), 0);
    int base = 0;
    EXPECT_EQ(*memm_get_currentcount_ptr(pool, &base, nullptr), 1);
    for (const unsigned id : {pool + 1, 0x7fffffU, 0x800000U | pool, UINT_MAX}) {
        EXPECT_EQ(memm_get_pool_nolock(id), nullptr);
        EXPECT_STREQ(memm_get_poolname2(id), "invalid poolid");
        EXPECT_EQ(memm_getpoolcookie_bypoolid(id), nullptr);
        EXPECT_EQ(memm_get_currentcount_ptr(id, nullptr, nullptr), nullptr);
        EXPECT_EQ(memm_calloc(id), nullptr);
        EXPECT_EQ(memm_calloc_nolock_nogc(id), nullptr);
    }
}

// --- the life of an object ---

TEST(objects, stop_taking_references_at_254)
{
    const unsigned pool = make_pool("shared", 2);
    void *const object = memm_calloc(pool);
    for (unsigned n = 1; n <= 254; ++n) {
        ASSERT_EQ(n % 2 == 0 ? memm_refalloc(object) : memm_refalloc_nolock(object), object);
        ASSERT_EQ(header_of(object), n << 24 | pool);
    }
    for (const unsigned kept : {255U, 0U}) {  // Deliberate: the refusal is written down, and wraps
        EXPECT_EQ(memm_refalloc(object), nullptr);
        EXPECT_EQ(recorder().take_errors(),
                  "0x10002 2 memm memmanager: memm__refalloc() failed (too many references for this object)\n");
        EXPECT_EQ(header_of(object), kept << 24 | pool);
    }
    EXPECT_EQ(pool_at(pool).refs, 254U);
    EXPECT_EQ(pool_at(pool).max_refs, 254U);
    EXPECT_EQ(pool_at(0).max_refs, 254U);

    void *other = memm_calloc(pool);
    memm_refalloc(other);
    EXPECT_EQ(memm_free(other), 0);
    EXPECT_EQ(header_of(other), pool);
    EXPECT_EQ(pool_at(pool).refs, 254U);
    EXPECT_EQ(pool_at(pool).max_refs, 255U);
    EXPECT_EQ(memm_ex_free(&other), 0);
    EXPECT_NE(other, nullptr);
    EXPECT_EQ(header_of(other), 0xffffffffU);
    EXPECT_EQ(pool_at(pool).free_count, 2U);
    EXPECT_EQ(memm_ex_free(nullptr), 0);
}

// What the callbacks below are to do, and what they did.
struct {
    int answer, calls;
    bool release_itself, given_release;
} script;

int release_by_script(void *object)
{
    ++script.calls;
    if (std::exchange(script.release_itself, false)) {
        memm_free_nolock(object);
    }
    return script.answer;
}

int release2_by_script(void *object, memm_release_fn release)
{
    script.given_release = release == memm_free_nolock;
    return release_by_script(object);
}

TEST(objects, are_released_as_their_callback_says)
{
    memm_pooloptions options{};
    options.release_cb = release_by_script;
    const unsigned one = make_pool("one", 2, 8, options);
    options.release_cb = [](void *) { return std::abort(), 0; };  // the other one is called instead
    options.release2_cb = release2_by_script;
    const unsigned two = make_pool("two", 2, 8, options);
    struct {
        unsigned pool;
        int answer, result;
        const char *trace;
        int frees;
    } const cases[] = {
        {one, 0, 0, "", 1},
        {one, MEMM_KEPT, 0, "", 0},
        {one, -1, MEMM_E_SETUP, "[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %u)\r\n", 0},
        {two, 0, 0, "", 1},
        {two, MEMM_KEPT, MEMM_E_SETUP, "[MEMM] memm_free: free2_ex failed for: 0x%08lx (poolid = %u)\r\n", 0},
    };
    for (const auto &c : cases) {
        script = {c.answer, 0, false, false};
        void *const object = memm_calloc(c.pool);
        const memm_pool before = pool_at(c.pool);
        memm_refalloc(object);
        EXPECT_EQ(memm_free(object), 0);
        EXPECT_EQ(script.calls, 0) << "only the last holder asks";
        EXPECT_EQ(memm_free(object), c.result);
        EXPECT_EQ(script.calls, 1);
        EXPECT_EQ(script.given_release, c.pool == two);
        EXPECT_EQ(recorder().take_trace(), text(c.trace, reinterpret_cast<unsigned long>(object) - 4, c.pool));
        EXPECT_EQ(header_of(object), c.frees != 0 ? 0xffffffffU : c.pool);
        EXPECT_EQ(pool_at(c.pool).cur_count, before.cur_count - c.frees);
        EXPECT_EQ(static_cast<int>(pool_at(c.pool).free_count - before.free_count), 1 + c.frees);
        script = {};
        memm_free(object);
        recorder().forget();
    }
    // Deliberate: a callback that releases its own object is reported, and the slot freed twice.
    for (const unsigned pool : {one, two}) {
        script = {0, 0, true, false};
        void *const object = memm_calloc(pool);
        EXPECT_EQ(memm_free(object), 0);
        EXPECT_EQ(recorder().take_trace(),
                  text("[MEMM] memm_free: Recursive release detected: 0x%08lx (poolid = %u)\r\n",
                       reinterpret_cast<unsigned long>(object) - 4, pool));
        EXPECT_EQ(pool_at(pool).cur_count, -1);
    }
}

// --- an empty pool ---

struct Collector {
    unsigned pool;
    Objects objects;
    std::vector<int> attempts;
    int stop_at, free_at;
};

int collect_garbage(void *cookie, int attempt, int slot_size)
{
    auto &collector = *static_cast<Collector *>(cookie);
    EXPECT_EQ(slot_size, static_cast<int>(pool_at(collector.pool).slot_size));
    collector.attempts.push_back(attempt);
    if (attempt == collector.free_at) {
        memm_free_nolock(collector.objects[0]);
    }
    return static_cast<int>(attempt != collector.stop_at);
}

TEST(depletion, comes_after_the_collector_has_given_up)
{
    const OwnFolder folder;
    Collector collector{0, {}, {}, -1, 3};
    memm_pooloptions options{};
    options.gc_cb = collect_garbage;
    options.cookie = &collector;
    const unsigned pool = collector.pool = make_pool("collected", 2, 8, options);
    collector.objects = fill(pool);
    const unsigned total = pool_at(pool).alloc_count[MEMM_PATH_TOTAL];
    EXPECT_EQ(memm_calloc(pool), collector.objects[0]);
    EXPECT_EQ(collector.attempts, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(pool_at(pool).alloc_count[MEMM_PATH_TOTAL], total + 5);
    EXPECT_EQ(pool_at(pool).alloc_count[MEMM_PATH_OTHER], 4U);
    EXPECT_EQ(pool_at(pool).flags, 0U);

    collector = {pool, {}, {}, 1, -1};
    EXPECT_EQ(memm_calloc_nolock(pool), nullptr);
    expect_depletion("collected");
    EXPECT_EQ(collector.attempts, (std::vector<int>{0, 1}));
    EXPECT_EQ(pool_at(pool).flags, 0x80000000U);
    EXPECT_EQ(memm_calloc_nolock_nogc(pool), nullptr);
    EXPECT_EQ(collector.attempts.size(), 2U);
    recorder().forget();
}

TEST(depletion, is_told_in_the_process_own_dump_file)
{
    const OwnFolder folder;
    const unsigned pool = make_pool("dry", 2, 8), alike = make_pool("dry too", 2, 8);
    const Objects objects = fill(pool);
    memm_calloc(alike);
    EXPECT_EQ(memm_calloc(pool), nullptr);
    expect_depletion("dry");
    EXPECT_EQ(recorder().take_tags().back(), "memm_calloc");
    memm_print_stats(nullptr);
    memm_print_objects2("dry", 4);
    EXPECT_EQ(content_of(folder.contents_path()),
              "\r\n\r\nReason: " + depletion_message("dry") + "\r\n" + recorder().take_debug());
    EXPECT_EQ(content_of(folder.usage_path()), "-");

    // A slot that names another pool is the better reason.
    header_of(objects[1]) = alike;
    memm_calloc(pool);
    const std::string finding =
        text("invalid poolid: %u.dry.1.0x%08lx", pool, reinterpret_cast<unsigned long>(objects[1]) - 4);
    EXPECT_EQ(recorder().take_trace().substr(depletion_message("dry").size()),
              "[MEMM] integrity check failed: " + finding + "\r\n[MEMM] integrity check failed: " + finding + "\r\n");
    EXPECT_EQ(content_of(folder.contents_path()).find("\r\n\r\nReason: " + finding + "\r\n"), 0U);
    header_of(objects[1]) = pool;

    memm_set_trace(0);
    EXPECT_EQ(memm_calloc(pool), nullptr);
    EXPECT_EQ(recorder().take_trace(), "");
    memm_set_trace(2);
    recorder().forget();
}

// --- faults ---

// The manager, pools of every kind and a lock; what can be had is used. True when nothing failed.
bool set_up()
{
    bool whole = memm_init(9, 4) == 0;
    const int pools[] = {memm_initpool("small", 4, 8, nullptr), memm_initpool("indexed", 400, 8, nullptr),
                         dynstr_initpool2("texts", 8, 256, 2)};
    LOCK lock{};
    whole = lock_initlock(&lock, "LOCK") == 0 && whole;
    for (const int pool : pools) {
        whole = whole && pool > 0;
    }
    for (int id = -1; id < 9; ++id) {
        const auto pool = static_cast<unsigned>(id);
        if (id > 1) {
            memm_free(memm_calloc_nolock_nogc(pool));
        }
        memm_get_poolname2(pool);
        memm_enum_objects(pool, nullptr, nullptr);
        memm_get_currentcount_ptr(pool, nullptr, nullptr);
    }
    dynstr_getstring(dynstr_fromstring(static_cast<unsigned>(pools[2]), "text"));
    dynstr_integrity_check(static_cast<unsigned>(pools[2]), 0);
    memm_print_stats(nullptr);
    memm_print_objects(nullptr);
    lock_print_allstats();
    EXPECT_EQ(recorder().manager_lock_depth(), 0U);
    return whole;
}

// What a set-up comes to when the n-th call fails: 0 without meeting the fault, 1 after it, 2 when it did harm.
int outcome_of_fault(Op op, unsigned n, Fault fault)
{
    const OwnFolder folder;
    recorder().fail_nth(op, n, 77, fault);
    const bool whole = set_up();
    const bool met = recorder().calls(op) >= n;
    EXPECT_TRUE(whole || met);
    recorder().fail_never();
    const int started = memm_init(9, 4);
    EXPECT_TRUE(started == 0 || started == MEMM_E_STARTED);
    const int later = memm_initpool("later", 2, 8, nullptr);
    EXPECT_GT(later, 0);
    void *const object = memm_calloc(static_cast<unsigned>(later));
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(memm_free(object), 0);
    EXPECT_EQ(recorder().manager_lock_depth(), 0U);
    return testing::Test::HasFailure() ? 2 : met ? 1 : 0;
}

// The manager starts once in a process: every n has a child of its own.
int outcome_in_child(Op op, unsigned n, Fault fault)
{
    const pid_t child = fork();
    if (child == 0) {
        const int outcome = outcome_of_fault(op, n, fault);
        std::fflush(nullptr);
        _exit(outcome);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
}

TEST(faults, of_the_platform_at_any_point_of_a_set_up_leave_a_manager_that_works)
{
    const std::pair<Op, Fault> kinds[] = {{Op::alloc, Fault::refused},
                                          {Op::alloc, Fault::null_block},
                                          {Op::create, Fault::refused},
                                          {Op::alloc, sizeof(void *) == 8 ? Fault::misaligned : Fault::refused}};
    for (const auto &[op, fault] : kinds) {
        int outcome = 1;
        unsigned n = 0;
        while (outcome == 1) {
            outcome = outcome_in_child(op, ++n, fault);
        }
        EXPECT_EQ(outcome, 0) << "call " << n;
        EXPECT_GT(n, op == Op::alloc ? 7U : 2U) << "there were fewer calls than expected";
    }
}

TEST(faults, make_pools_without_slots_or_without_index)
{
    const OwnFolder folder;
    for (const Fault fault : {Fault::refused, Fault::null_block, Fault::misaligned}) {
        if (fault == Fault::misaligned && sizeof(void *) == 4) {
            continue;
        }
        const unsigned next = make_pool("", 1) + 1;
        recorder().fail_nth(Op::alloc, 1, 77, fault);
        EXPECT_EQ(memm_initpool("bare", 4, 8, nullptr), -1);
        EXPECT_EQ(recorder().take_trace(),
                  text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = 0)\r\n"
                       "[MEMM] Failed to allocate bare buffer (cnt=4, objsize=%u)\r\n",
                       reinterpret_cast<unsigned long>(memm_get_pool_nolock(next)) - 4, slot_bytes(8)));
        ASSERT_NE(memm_get_pool_nolock(next), nullptr);
        EXPECT_STREQ(memm_get_poolname2(next), "invalid poolid");
        EXPECT_EQ(memm_calloc(next), nullptr);
        expect_depletion("(null)");
        EXPECT_EQ(memm_calloc_nolock_nogc(next), nullptr);
        expect_depletion("(null)");
        EXPECT_EQ(pool_at(next).alloc_count[MEMM_PATH_TOTAL], 2U);
        EXPECT_EQ(pool_at(next).alloc_count[MEMM_PATH_OTHER], 2U);
        memm_print_stats(nullptr);
        EXPECT_EQ(recorder().take_debug().find("(null)"), std::string::npos) << "it has no row";
        EXPECT_EQ(memm_get_pool_nolock(next + 1), nullptr);
        make_pool("bare", 4);  // the name is not taken
        pool_at(next + 1).name = "";
    }
}

// --- pointers that are no objects ---

TEST(objects, no_pointer_value_crashes)
{
    recorder().allow_reports();
    const unsigned pool = make_pool("strict", 4, 16);
    auto *const object = static_cast<unsigned char *>(memm_calloc(pool));
    auto *const freed = static_cast<unsigned char *>(memm_calloc(pool));
    memm_free(freed);
    const auto map = [](int protection) {
        return static_cast<unsigned char *>(mmap(nullptr, 8192, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    };
    unsigned char *const hidden = map(PROT_NONE), *const unmapped = map(PROT_READ), *const fixed = map(PROT_READ);
    munmap(unmapped, 8192);
    alignas(8) unsigned stack[] = {pool, pool, 0x7fffff, 0, pool << 8, pool << 24};
    const auto at = [](std::uintptr_t address) { return reinterpret_cast<void *>(address); };
    Objects wild = {object + 1,
                    object + 8,
                    freed,
                    freed + pool_at(pool).slot_size,
                    pool_at(pool).last_item + 4,
                    pool_at(pool).last_item + pool_at(pool).slot_size + 4,
                    hidden,
                    hidden + 4,
                    hidden + 8192,
                    unmapped + 4,
                    fixed + 4,
                    stack + 1,
                    stack + 2,
                    stack + 3,
                    stack + 4,
                    reinterpret_cast<unsigned char *>(stack + 4) + 1,
                    reinterpret_cast<void *>(&std::abort),
                    memm_get_pool_nolock(pool),
                    at(UINTPTR_MAX),
                    at(UINTPTR_MAX / 2 + 1),
                    at(UINTPTR_MAX - 3)};
    for (std::uintptr_t small = 0; small <= 8; ++small) {
        wild.push_back(at(small));
    }
    for (void *const pointer : wild) {
        const memm_pool before = pool_at(pool);
        EXPECT_EQ(memm_free(pointer), 0);
        EXPECT_EQ(memm_free_nolock(pointer), 0);
        const std::string trace = recorder().take_trace();
        if (pointer == nullptr || pointer == at(4)) {
            EXPECT_EQ(trace, "");
        } else {
            EXPECT_EQ(trace.find(text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = ",
                                      reinterpret_cast<unsigned long>(pointer) - 4)),
                      0U);
        }
        EXPECT_EQ(pool_at(pool).cur_count, before.cur_count);
        EXPECT_EQ(pool_at(pool).free_count, before.free_count);
        memm_isvalidobj(pointer);
        memm_isvalidobj_nolock(pointer);
        memm_get_poolid(pointer);
        memm_get_poolname(pointer);
        memm_getpoolcookie(pointer);
        memm_getpoolcookie_nolock(pointer);
        memm_instanceof_no_ori(pointer, pool);
        memm_getindex(pointer);
        memm_getnext(pointer);
        memm_printobject(pointer, 0);
        if (pointer != stack + 3 &&
            pointer != memm_get_pool_nolock(pool)) {  // their headers name pools: references count
            memm_refalloc(pointer);
            memm_refalloc_nolock(pointer);
        }
        EXPECT_EQ(recorder().manager_lock_depth(), 0U);
    }
    EXPECT_EQ(memm_refalloc(fixed + 4), nullptr) << "its header names pool 0, but cannot be written";
    EXPECT_EQ(memm_get_poolid(hidden + 4), 0x7fffff);
    EXPECT_EQ(memm_get_poolid(nullptr), -1);
    EXPECT_STREQ(memm_get_poolname(unmapped + 4), "invalid poolid");
    recorder().take_trace();
    memm_free(hidden + 4);
    EXPECT_NE(recorder().take_trace().find("(poolid = 8388607)"), std::string::npos);
    EXPECT_EQ(memm_free(object), 0);
    EXPECT_EQ(pool_at(pool).cur_count, 0);
}

TEST(objects, are_taken_and_released_under_their_own_tags)
{
    const unsigned pool = make_pool("tags", 4);
    recorder().take_tags();
    void *object = memm_calloc(pool);
    memm_refalloc(object);
    memm_refalloc_nolock(object);
    memm_free_nolock(object);
    memm_free(object);
    memm_ex_free(&object);
    memm_free_nolock(memm_calloc_nolock(pool));
    memm_free_nolock(memm_calloc_nolock_nogc(pool));
    memm_get_poolname(object);
    memm_getpoolcookie(object);
    EXPECT_EQ(recorder().take_tags(), (Strings{"memm_calloc", "memm_refalloc", "memm_free", "memm_free"}));
}

}  // namespace
