#include "support/recording_platform.h"

#include "small_pool.h"

#include <cstring>

namespace {

constexpr unsigned kSlot = (sizeof(dynstr) + 4 + sizeof(void *) - 1) / sizeof(void *) * sizeof(void *);
constexpr unsigned kLead = sizeof(void *) - 4;

int pools() { return memm_get_pool_nolock(0)->cur_count; }

int control_blocks() { return memm_get_pool_nolock(1)->cur_count; }

TEST(string_pool_creation, sizes_records_buffers_and_reserve)
{
    ASSERT_EQ(memm_init(16, 16), 0);
    EXPECT_EQ(std::string(memm_get_poolname2(1)), "dynstr_pool");
    struct Case {
        const char *name;
        int count, buffers;  // 0: dynstr_initpool
        unsigned bytes, capacity, reserve, real_buffers, buffer_bytes;
    };
    for (const Case &c : {Case{"c50", 50, 0, 1001, 55, 5, 2, 500},
                          {"c51", 51, 0, 1000, 71, 20, 2, 500},
                          {"c10000", 10000, 0, 8, 10020, 20, 2, 4},
                          {"c10001", 10001, 0, 11, 10021, 20, 4, 2},
                          {"b1", 1, 1, 77, 6, 5, 1, 77},
                          {"b3", 7, 3, 2, 12, 5, 3, 0},
                          {"b5", 7, 5, 83, 12, 5, 4, 20}}) {
        recorder().forget();
        const int id = c.buffers == 0 ? dynstr_initpool(c.name, c.count, c.bytes)
                                      : dynstr_initpool2(c.name, c.count, c.bytes, c.buffers);
        ASSERT_EQ(id, pools() - 1);
        std::vector<Recorder::Allocation> expected(1 + c.real_buffers, {"DYNSTR", 1, c.buffer_bytes});
        expected[0] = {c.name, 1, c.capacity * kSlot + kLead};
        auto allocations = recorder().take_allocations();
        std::erase_if(allocations, [](auto &one) { return one.label == "MEMM"; });  // the library's own business
        EXPECT_EQ(allocations, expected) << c.name;
        EXPECT_EQ(recorder().take_errors(),
                  c.buffers < 5 ? "" : "0x10007 2 DYNSTR dynstring: dynstr_initpool(): poolcount exceeds maximum\n");
        const memm_pool &records = *memm_get_pool_nolock(static_cast<unsigned>(id));
        EXPECT_EQ(records.options.spare_count, static_cast<int>(c.reserve));
        EXPECT_EQ(records.slot_size, kSlot);
        const auto &texts = *static_cast<memm::strings::TextPool *>(records.options.cookie);
        memm::strings::TextPool fresh{};
        fresh.name = c.name;
        fresh.poolid = static_cast<unsigned>(id);
        fresh.bufcnt = c.real_buffers;
        fresh.bufsize = c.buffer_bytes;
        fresh.spare = reinterpret_cast<dynstr *>(records.slots + 4);
        fresh.capacity = c.capacity;
        fresh.pcurcnt = const_cast<int *>(&records.cur_count);
        fresh.balance_limit = c.capacity / c.real_buffers;
        std::copy(texts.buf, texts.buf + c.real_buffers, fresh.buf);
        EXPECT_EQ(std::memcmp(&texts, &fresh, sizeof fresh), 0) << c.name;
        EXPECT_EQ(records.count_base, &texts.delcnt);
        EXPECT_EQ(records.spare_flag, &texts.gcrequest);
        for (unsigned i = 0; i < c.real_buffers; ++i)
            EXPECT_TRUE(std::all_of(texts.buf[i], texts.buf[i] + c.buffer_bytes, [](char byte) { return byte == 0; }));
    }
    const int before = control_blocks();
    EXPECT_EQ(dynstr_initpool2("none", 7, 83, 0), -1);
    EXPECT_EQ(control_blocks(), before);
    EXPECT_EQ(dynstr_initpool2("b1", 7, 83, 2), -1) << "the name is taken";
    EXPECT_EQ(control_blocks(), before + 1) << "the control block is not given back";
    EXPECT_EQ(dynstr_initpool2(nullptr, 7, 83, 2), -1);
    const std::string error = "0x10007 2 DYNSTR dynstring: dynstring init failed\n";
    EXPECT_EQ(recorder().take_errors(), error + error);
    recorder().take_trace();
    EXPECT_EQ(dynstr_pool_set_dellist_threshold(2, 5), 0);
}

TEST(string_module, can_be_started_again_when_its_first_start_failed)
{
    recorder().fail_nth(Op::alloc, 2, 7, Fault::refused, 2);
    EXPECT_EQ(memm_init(8, 1), MEMM_E_NO_MEMORY);
    recorder().fail_never();
    EXPECT_EQ(dynstr_initpool("early", 5, 100), -1);
    EXPECT_EQ(dynstr_fromstring(1, "x"), nullptr);
    EXPECT_EQ(dynstr_init(1), 0U);
    dynstr *const record = dynstr_fromstring(static_cast<unsigned>(dynstr_initpool("strings", 5, 100)), "x");
    EXPECT_EQ(dynstr_init(1), static_cast<unsigned>(MEMM_E_NO_MEMORY)) << "the name is taken";
    EXPECT_EQ(dynstr_isdynstring(record), 1) << "the first start stays in force";
    EXPECT_EQ(dynstr_initpool("one too many", 5, 100), -1);
    const std::string failed = "0x10007 2 DYNSTR dynstring: dynstring init failed\n";
    EXPECT_EQ(recorder().take_errors(),
              failed + failed +
                  "0x10002 2 memm memmanager: memm_calloc() failed for pool 'dynstr_pool' (pool depleted)\n");
    recorder().allow_reports();
    void *const block = memm_getpoolcookie(record);
    memm_printobject(block, 1);
    EXPECT_EQ(recorder().take_debug(), text("%d.dynstr_pool.0.0x%08lx - 'strings'", memm_get_poolid(block),
                                            reinterpret_cast<unsigned long>(block)));
}

}  // namespace
