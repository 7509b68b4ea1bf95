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

unsigned long header_address(const void *object) { return reinterpret_cast<unsigned long>(object) - 4; }

Objects fill(unsigned pool)
{
    Objects all;
    while (pool_at(pool).cur_count < pool_at(pool).slot_count)
        all.push_back(memm_calloc(pool));
    return all;
}

std::string depletion_of(const char *pool) { return text("memm_calloc() failed for pool '%s' (pool depleted)", pool); }

std::string failure_of(const char *pool, int count, long size)
{
    return text("[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%ld)\r\n", pool, count, size);
}

void expect_depletion(const char *pool)
{
    EXPECT_EQ(recorder().take_errors(), "0x10002 2 memm memmanager: " + depletion_of(pool) + "\n");
    EXPECT_EQ(recorder().take_trace(), depletion_of(pool));
}

// --- start and creation ---

TEST(pools, start_once_and_not_with_impossible_numbers)
{
    const OwnFolder folder;
    EXPECT_EQ(memm_initpool("early", 2, 9, nullptr), -1);
    EXPECT_EQ(recorder().take_errors(), "0x10007 2 MEMM memmanager: memm_initpool() called before mem_init()\n");
    EXPECT_EQ(recorder().take_trace(), failure_of("early", 2, 9));
    for (const unsigned count : {0U, 0x800000U, UINT_MAX})
        EXPECT_EQ(memm_init(count, 4), MEMM_E_INVALID);
    EXPECT_EQ(memm_get_pool_nolock(0), nullptr);
    EXPECT_EQ(memm_calloc(0), nullptr);
    EXPECT_TRUE(recorder().take_allocations().empty());
    EXPECT_EQ(memm_init(5, 4), 0);
    EXPECT_EQ(recorder().take_mutex_calls().front(), "create(MEMM,1)");
    EXPECT_EQ(recorder().take_allocations().front(),
              (Recorder::Allocation{"MEMM", 1, 5 * slot_bytes(sizeof(memm_pool)) + kLead}));
    for (const unsigned count : {5U, 0U})
        EXPECT_EQ(memm_init(count, 4), MEMM_E_STARTED);
    EXPECT_EQ(recorder().take_trace(), "memm_init() may only be called once per process!"
                                       "memm_init() may only be called once per process!");
    for (int next = pool_at(0).cur_count; next < 5; ++next)
        EXPECT_EQ(memm_initpool("", 1, 1, nullptr), next);
    EXPECT_EQ(memm_initpool("one more", 3, 1, nullptr), -1);
    EXPECT_EQ(recorder().take_trace(), depletion_of("memm_pooldesc") + failure_of("one more", 3, slot_bytes(1)));
    EXPECT_EQ(content_of(folder.contents_path()).find("\r\n\r\nReason: " + depletion_of("memm_pooldesc")), 0U);
    recorder().take_errors();
}

TEST(pools, that_cannot_be_made_leave_nothing_but_a_trace)
{
    make_pool("twin", 1);
    constexpr int kSlot = -1;  // shown are the bytes of a slot
    struct {
        const char *name;
        int count, object_size, shown;
    } const cases[] = {{nullptr, 3, 8, 8},
                       {"a", INT_MIN, 8, 8},
                       {"a", 0, 8, 8},
                       {"a", 3, 0, 0},
                       {"a", 3, -8, -8},
                       {"twin", 3, 8, kSlot},
                       {"memm_pooldesc", 3, 8, kSlot},
                       {"a", INT_MAX, INT_MAX, INT_MAX},
                       {"a", 1, INT_MAX, INT_MAX},
                       {"a", 3, INT_MAX - 64, INT_MAX - 64},
                       {"a", 0x20000000, 4, 4}};
    const int before = pool_at(0).cur_count;
    recorder().forget();
    for (const auto &[name, count, size, shown] : cases) {
        EXPECT_EQ(memm_initpool(name, count, size, nullptr), -1);
        EXPECT_EQ(recorder().take_trace(), failure_of(name == nullptr ? "<no_name>" : name, count,
                                                      shown == kSlot ? static_cast<int>(slot_bytes(8)) : shown));
    }
    EXPECT_TRUE(recorder().take_allocations().empty());
    EXPECT_EQ(pool_at(0).cur_count, before);
}

TEST(pools, are_laid_out_as_documented)
{
    make_pool("first", 1);
    for (const unsigned size : {1U, 4U, 5U, 12U, 13U, 4000U})
        for (const unsigned slots : {1U, 256U, 257U}) {
            recorder().forget();
            const unsigned id = make_pool("", static_cast<int>(slots), static_cast<int>(size));
            const auto blocks = recorder().take_allocations();
            const memm_pool &pool = pool_at(id);
            EXPECT_EQ(pool.slot_size, slot_bytes(size));
            EXPECT_EQ(pool.last_item, pool.slots + (slots - 1) * pool.slot_size);
            EXPECT_EQ(pool.last_used, pool.slots - pool.slot_size);
            ASSERT_EQ(blocks.size(), slots > 256 ? 2U : 1U) << "large pools have an index";
            EXPECT_EQ(blocks[0], (Recorder::Allocation{"", 1, slots * pool.slot_size + kLead}));
            EXPECT_EQ(blocks.back().label, slots > 256 ? "MEMM" : "");
            for (void *object : fill(id)) {
                ASSERT_EQ(reinterpret_cast<std::uintptr_t>(object) % kWord, 0U);
                ASSERT_EQ(header_of(object), id);
                std::memset(object, 0xff, size);  // neither a neighbour's header nor beyond the block
            }
        }
    const auto print = [](void *) {};
    const auto release = [](void *) { return 0; };
    const auto release2 = [](void *, memm_release_fn) { return 0; };
    const auto second = pool_at(static_cast<unsigned>(memm_initpool2("2", 1, 1, print, release))).options;
    EXPECT_TRUE(second.print_cb == print && second.release_cb == release && second.release2_cb == nullptr);
    const auto third = pool_at(static_cast<unsigned>(memm_initpool3("3", 1, 1, print, release2))).options;
    EXPECT_TRUE(third.print_cb == print && third.release2_cb == release2 && third.release_cb == nullptr);
}

TEST(pools, answer_by_object_and_by_id)
{
    int base = 0;
    memm_pooloptions options{};
    options.cookie = &base;
    const unsigned pool = make_pool("named", 2, 8, options);
    void *const object = memm_calloc(pool);
    header_of(object) |= 0x02800000;  // tag and references are not part of the id
    EXPECT_STREQ(memm_get_poolname(object), "named");
    EXPECT_EQ(memm_get_poolid(object), static_cast<int>(pool));
    for (void *cookie :
         {memm_getpoolcookie(object), memm_getpoolcookie_nolock(object), memm_getpoolcookie_bypoolid(pool)})
        EXPECT_EQ(cookie, &base);
    EXPECT_TRUE(memm_instanceof_no_ori(object, pool) == 1 && memm_instanceof_no_ori(object, pool - 1) == 0);
    EXPECT_TRUE(memm_instanceof_no_ori(nullptr, -1U) == 1 && memm_instanceof_no_ori(nullptr, pool) == 0);
    EXPECT_EQ(*memm_get_currentcount_ptr(pool, &base, nullptr), 1);
    for (const unsigned id : {pool + 1, 0x7fffffU, 0x800000U | pool, UINT_MAX}) {
        EXPECT_STREQ(memm_get_poolname2(id), "invalid poolid");
        for (void *nothing : {static_cast<void *>(memm_get_pool_nolock(id)), memm_getpoolcookie_bypoolid(id),
                              static_cast<void *>(memm_get_currentcount_ptr(id, nullptr, nullptr)), memm_calloc(id),
                              memm_calloc_nolock(id), memm_calloc_nolock_nogc(id)})
            EXPECT_EQ(nothing, nullptr);
    }
}

// --- the life of an object ---

TEST(objects, stop_taking_references_at_254)
{
    const unsigned pool = make_pool("shared", 2);
    void *const object = memm_calloc(pool), *other = memm_calloc(pool);
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
    memm_refalloc(other);
    EXPECT_EQ(memm_free(other), 0);
    EXPECT_EQ(header_of(other), pool);
    EXPECT_EQ(pool_at(pool).refs, 254U);
    EXPECT_EQ(pool_at(pool).max_refs, 255U);
    EXPECT_EQ(pool_at(0).max_refs, 254U);
    EXPECT_EQ(memm_ex_free(&other), 0);
    EXPECT_EQ(header_of(other), 0xffffffffU);
    EXPECT_EQ(pool_at(pool).free_count, 2U);
    EXPECT_EQ(memm_ex_free(nullptr), 0);
}

// What the callbacks are to do, and what they did.
struct {
    int answer, calls;
    bool release_itself, given_release;
} script;

int release_by_script(void *object)
{
    ++script.calls;
    if (std::exchange(script.release_itself, false))
        memm_free_nolock(object);
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
    const char *const refused = "[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %u)\r\n",
                      *const refused2 = "[MEMM] memm_free: free2_ex failed for: 0x%08lx (poolid = %u)\r\n",
                      *const twice = "[MEMM] memm_free: Recursive release detected: 0x%08lx (poolid = %u)\r\n";
    struct {
        unsigned pool;
        int answer, result;
        const char *trace;
        int frees;
    } const cases[] = {{one, 0, 0, "", 1},
                       {one, MEMM_KEPT, 0, "", 0},
                       {one, -1, MEMM_E_SETUP, refused, 0},
                       {two, 0, 0, "", 1},
                       {two, MEMM_KEPT, MEMM_E_SETUP, refused2, 0},
                       {one, 0, 0, twice, 2},  // Deliberate: reported, and the slot freed twice
                       {two, 0, 0, twice, 2}};
    for (const auto &c : cases) {
        void *const object = memm_calloc(c.pool);
        const memm_pool before = pool_at(c.pool);
        script = {c.answer, 0, c.frees == 2, false};
        memm_refalloc(object);
        EXPECT_EQ(memm_free(object), 0);
        EXPECT_EQ(script.calls, 0) << "only the last holder asks";
        EXPECT_EQ(memm_free(object), c.result);
        EXPECT_EQ(script.calls, std::max(c.frees, 1));
        EXPECT_EQ(script.given_release, c.pool == two);
        EXPECT_EQ(recorder().take_trace(), text(c.trace, header_address(object), c.pool));
        EXPECT_EQ(header_of(object), c.frees != 0 ? 0xffffffffU : c.pool);
        EXPECT_EQ(pool_at(c.pool).cur_count, before.cur_count - c.frees);
        EXPECT_EQ(static_cast<int>(pool_at(c.pool).free_count - before.free_count), 1 + c.frees);
        script = {};
        memm_free(object);
        recorder().forget();
    }
}

TEST(objects, are_taken_and_released_under_their_own_tags)
{
    const unsigned pool = make_pool("tags", 4);
    recorder().take_tags();
    void *object = memm_calloc(pool);
    memm_free_nolock(memm_refalloc_nolock(memm_refalloc(object)));
    memm_free(object);
    memm_ex_free(&object);
    memm_free_nolock(memm_calloc_nolock(pool));
    memm_free_nolock(memm_calloc_nolock_nogc(pool));
    memm_initpool(nullptr, 0, 0, nullptr);
    EXPECT_EQ(recorder().take_tags(),
              (Strings{"memm_calloc", "memm_refalloc", "memm_free", "memm_free", "memm_initpool"}));
    recorder().take_trace();
}

// --- an empty pool ---

struct Collector {
    int free_at, stop_at;
    Objects objects;
    std::vector<int> attempts;
};

int collect_garbage(void *cookie, int attempt, int slot_size)
{
    auto &collector = *static_cast<Collector *>(cookie);
    EXPECT_EQ(slot_size, static_cast<int>(slot_bytes(8)));
    collector.attempts.push_back(attempt);
    if (attempt == collector.free_at)
        memm_free_nolock(collector.objects[0]);
    return static_cast<int>(attempt != collector.stop_at);
}

TEST(depletion, comes_after_the_collector_has_given_up)
{
    const OwnFolder folder;
    Collector collector{3, -1, {}, {}};
    memm_pooloptions options{};
    options.gc_cb = collect_garbage;
    options.cookie = &collector;
    const unsigned id = make_pool("collected", 2, 8, options);
    const memm_pool &pool = pool_at(id);
    collector.objects = fill(id);
    EXPECT_EQ(memm_calloc(id), collector.objects[0]);
    EXPECT_EQ(collector.attempts, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(pool.alloc_count[MEMM_PATH_TOTAL] == 7 && pool.alloc_count[MEMM_PATH_OTHER] == 4 && pool.flags == 0);

    collector = {-1, 1, {}, {}};
    EXPECT_EQ(memm_calloc_nolock(id), nullptr);
    EXPECT_EQ(collector.attempts, (std::vector<int>{0, 1}));
    expect_depletion("collected");
    EXPECT_EQ(pool.flags, 0x80000000U);
    EXPECT_EQ(memm_calloc_nolock_nogc(id), nullptr);
    EXPECT_EQ(collector.attempts.size(), 2U);
    expect_depletion("collected");
}

TEST(depletion, is_told_in_the_process_own_dump_file)
{
    const OwnFolder folder;
    const unsigned pool = make_pool("dry", 2, 8), alike = make_pool("dry too", 2, 8);
    const Objects objects = fill(pool);
    memm_calloc(alike);
    EXPECT_EQ(memm_calloc(pool), nullptr);
    expect_depletion("dry");
    memm_print_stats(nullptr);
    memm_print_objects2("dry", 4);
    EXPECT_EQ(content_of(folder.contents_path()),
              "\r\n\r\nReason: " + depletion_of("dry") + "\r\n" + recorder().take_debug());
    EXPECT_EQ(content_of(folder.usage_path()), "-");

    // A slot that names another pool is the better reason.
    header_of(objects[1]) = alike;
    memm_calloc(pool);
    const std::string finding = text("invalid poolid: %u.dry.1.0x%08lx", pool, header_address(objects[1])),
                      traced = "[MEMM] integrity check failed: " + finding + "\r\n";
    EXPECT_EQ(recorder().take_trace(), depletion_of("dry") + traced + traced);
    EXPECT_EQ(content_of(folder.contents_path()).find("\r\n\r\nReason: " + finding + "\r\n"), 0U);
    memm_set_trace(0);
    memm_calloc(pool);
    EXPECT_EQ(recorder().take_trace(), "");
    recorder().take_errors();
}

// --- faults ---

// The manager, pools of every kind and a lock; what can be had is used. True when nothing failed.
bool set_up()
{
    LOCK lock{};
    const bool is_started = memm_init(9, 4) == 0, is_locked = lock_initlock(&lock, "LOCK") == 0;
    const int small = memm_initpool("small", 4, 8, nullptr), indexed = memm_initpool("indexed", 400, 8, nullptr),
              texts = dynstr_initpool2("texts", 8, 256, 2);
    for (unsigned pool = 2; pool < 9; ++pool) {
        memm_free(memm_calloc_nolock_nogc(pool));
        memm_get_poolname2(pool);
        memm_enum_objects(pool, nullptr, nullptr);
    }
    dynstr_getstring(dynstr_fromstring(static_cast<unsigned>(texts), "text"));
    memm_print_stats(nullptr);
    memm_print_objects(nullptr);
    lock_print_allstats();
    return is_started && is_locked && small > 0 && indexed > 0 && texts > 0;
}

// What a set-up comes to when the n-th call fails: 0 without meeting the fault, 1 after it, 2 when it did harm.
int outcome_of_fault(Op op, unsigned n, Fault fault)
{
    const OwnFolder folder;
    recorder().fail_nth(op, n, 77, fault);
    const bool whole = set_up(), met = recorder().calls(op) >= n;
    recorder().fail_never();
    const int started = memm_init(9, 4);
    const int later = memm_initpool("later", 2, 8, nullptr);
    void *const object = memm_calloc(static_cast<unsigned>(later));
    const bool works = (started == 0 || started == MEMM_E_STARTED) && later > 0 && object != nullptr &&
                       memm_free(object) == 0 && recorder().manager_lock_depth() == 0;
    return !works || !(whole || met) ? 2 : met ? 1 : 0;
}

TEST(faults, of_the_platform_at_any_point_of_a_set_up_leave_a_manager_that_works)
{
    const Fault last = kWord == 8 ? Fault::misaligned : Fault::refused;
    const std::pair<Op, Fault> kinds[] = {
        {Op::alloc, Fault::refused}, {Op::alloc, Fault::null_block}, {Op::alloc, last}, {Op::create, Fault::refused}};
    for (const auto &[op, fault] : kinds) {
        int outcome = 1;
        unsigned n = 0;
        while (outcome == 1)  // the manager starts once in a process: every n has a child of its own
            if (const pid_t child = fork(); child == 0) {
                outcome = outcome_of_fault(op, n + 1, fault);
                _exit(outcome);
            } else {
                waitpid(child, &outcome, 0);
                outcome = WIFEXITED(outcome) ? WEXITSTATUS(outcome) : 3;
                ++n;
            }
        EXPECT_EQ(outcome, 0) << "call " << n;
        EXPECT_GT(n, op == Op::alloc ? 7U : 2U) << "there were fewer calls than expected";
    }
}

TEST(faults, make_pools_without_slots)
{
    const OwnFolder folder;
    const unsigned id = make_pool("", 1) + 1;
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("bare", 4, 8, nullptr), -1);
    const memm_pool &pool = pool_at(id);
    EXPECT_EQ(
        recorder().take_trace(),
        text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = 0)\r\n", header_address(&pool)) +
            failure_of("bare", 4, slot_bytes(8)));
    EXPECT_STREQ(memm_get_poolname2(id), "invalid poolid");
    EXPECT_EQ(memm_calloc(id), nullptr);
    expect_depletion("(null)");
    EXPECT_EQ(memm_calloc_nolock_nogc(id), nullptr);
    expect_depletion("(null)");
    EXPECT_TRUE(pool.alloc_count[MEMM_PATH_TOTAL] == 2 && pool.alloc_count[MEMM_PATH_OTHER] == 2);
    memm_print_stats(nullptr);
    EXPECT_EQ(recorder().take_debug().find("(null)"), std::string::npos) << "it has no row";
    EXPECT_EQ(make_pool("bare", 4), id + 1) << "the name is not taken";
}

// --- pointers that are no objects ---

TEST(objects, no_pointer_value_crashes)
{
    recorder().allow_reports();
    const unsigned pool = make_pool("strict", 4, 16);
    void *const object = memm_calloc(pool), *const freed = memm_calloc(pool), *const descriptor = &pool_at(pool);
    memm_free(freed);
    const auto map = [](int rights) { return mmap(nullptr, 8192, rights, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); };
    void *const hidden = map(PROT_NONE), *const unmapped = map(PROT_READ), *const fixed = map(PROT_READ);
    munmap(unmapped, 8192);
    unsigned stack[16] = {pool, 0x7fffff, pool << 8, pool << 24, pool | 0xff000000};
    const auto number = [](const void *pointer) { return reinterpret_cast<std::uintptr_t>(pointer); };
    const auto pointer = [](std::uintptr_t address) { return reinterpret_cast<void *>(address); };

    for (const std::uintptr_t base :
         {std::uintptr_t{0}, number(object), number(freed), number(pool_at(pool).last_item), number(hidden),
          number(unmapped), number(fixed), number(stack), number(descriptor),
          reinterpret_cast<std::uintptr_t>(&std::abort), UINTPTR_MAX / 2, UINTPTR_MAX - 8})
        for (const std::uintptr_t offset : {0U, 1U, 2U, 3U, 4U, 5U, 8U, 12U, 16U, 20U, 24U, 8192U}) {
            void *const wild = pointer(base + offset);
            if (wild == object)
                continue;
            const memm_pool before = pool_at(pool);
            EXPECT_EQ(memm_free(wild), 0);
            EXPECT_EQ(memm_free_nolock(wild), 0);
            EXPECT_EQ(recorder().take_trace().find("[MEMM] memm_free: Attempt to release invalid pointer: 0x"),
                      wild == nullptr || wild == pointer(4) ? std::string::npos : 0U);
            EXPECT_EQ(std::memcmp(&pool_at(pool), &before, sizeof before), 0);
            for (const auto ask : {memm_isvalidobj, memm_isvalidobj_nolock, memm_get_poolid, memm_getindex})
                ask(wild);
            memm_get_poolname(wild);
            memm_getpoolcookie(wild);
            memm_getpoolcookie_nolock(wild);
            memm_instanceof_no_ori(wild, pool);
            memm_getnext(wild);
            memm_printobject(wild, 0);
            // A reference is written wherever the header names a pool: not among the bytes that others need.
            if (base == 0 || ((base == number(hidden) || base == number(fixed)) && offset - 4 < 4096)) {
                EXPECT_EQ(memm_refalloc(wild), nullptr);
                EXPECT_EQ(memm_refalloc_nolock(wild), nullptr);
            }
        }
    EXPECT_EQ(memm_get_poolid(pointer(number(hidden) + 4)), 0x7fffff);
    EXPECT_EQ(memm_get_poolid(nullptr), -1);
    EXPECT_STREQ(memm_get_poolname(pointer(number(unmapped) + 4)), "invalid poolid");
    recorder().take_trace();
    memm_free(pointer(number(hidden) + 4));
    EXPECT_NE(recorder().take_trace().find("(poolid = 8388607)"), std::string::npos);
    EXPECT_EQ(memm_free(object), 0);
    EXPECT_EQ(pool_at(pool).cur_count, 0);
}

}  // namespace
