#include "small_pool.h"

#include <memmanager/platform.h>
#include <vector>

namespace {

TEST(string_pool_creation, sizes_records_buffers_and_reserve)
{
    recorder().allow_reports();
    ASSERT_EQ(memm_init(16, 16), 0);
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
        const auto allocations = recorder().take_allocations();
        EXPECT_EQ(std::count(allocations.begin(), allocations.end(), Recorder::Allocation{"DYNSTR", 1, c.buffer_bytes}),
                  c.real_buffers);
        EXPECT_EQ(recorder().take_errors(),
                  c.buffers < 5 ? "" : "0x10007 2 DYNSTR dynstring: dynstr_initpool(): poolcount exceeds maximum\n");
        const memm_pool &records = *memm_get_pool_nolock(static_cast<unsigned>(id));
        EXPECT_EQ(records.slot_count, static_cast<int>(c.capacity));
        EXPECT_EQ(records.options.spare_count, static_cast<int>(c.reserve));
    }
    EXPECT_EQ(dynstr_initpool2("none", 7, 83, 0), -1);
    EXPECT_EQ(dynstr_initpool2("b1", 7, 83, 2), -1) << "the name is taken";
}

}  // namespace
