#include "small_pool.h"

#include <arpa/inet.h>
#include <climits>

namespace {

constexpr unsigned char kBytes[] = {0x01, 0xff, 0x2a, 0x00, 0xB2, 0x60};

// Sizes of the short and the long form, of the longest text, and one more.
TEST(long_texts, are_held_up_to_134217727_bytes)
{
    constexpr unsigned kLong = 1U << 29, kMost = 134217727, kNoMemory = MEMM_E_NO_MEMORY;
    const SmallPool pool(kMost + 200000, 1, 20);
    const std::string most(kMost, 'x'), complaint = "[DYNSTR] loc_setstrsize with invalid size\r\n";
    for (const unsigned size : {65534U, 65535U, 65536U, 65537U, kMost}) {
        const char *const written = most.c_str() + (kMost - (size - 1));
        dynstr *const d = dynstr_fromstring(pool.id(), written);
        ASSERT_NE(d, nullptr) << size;
        EXPECT_EQ(dynstr_strlen(d), size - 1);
        EXPECT_EQ(d->info, size > 65535 ? kLong | size : size);
        EXPECT_EQ(dynstr_strcmp2(d, written), 0);
        const unsigned longer = size + 1;
        EXPECT_EQ(dynstr_addstring(d, "y"), size == kMost ? kNoMemory : 0U) << "in place";
        EXPECT_EQ(d->info, size == kMost ? 1U << 31 : longer > 65535 ? kLong | longer : longer);
        EXPECT_EQ(recorder().take_trace(), size == kMost ? complaint : "");
        if (size == 65537) {
            EXPECT_EQ(dynstr_setmaxsize(d, 65536), 0U);
            EXPECT_EQ(d->info, kLong | 65536) << "no limit in the long form";
            EXPECT_EQ(dynstr_setmaxsize(d, 100), 0U);
            EXPECT_EQ(d->info, 100U << 16 | 100U);
        }
        memm_free(d);
        const memm_pooloptions &hooks = memm_get_pool_nolock(pool.id())->options;
        hooks.gc_cb(hooks.cookie, 0, 0);
    }
    EXPECT_EQ(dynstr_fromstring(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(dynstr_fromliteral(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(recorder().take_trace(), complaint + complaint);
}

TEST(values, are_written_as_their_readers_want_them)
{
    const SmallPool pool;
    const unsigned id = pool.id();
    dynstr *const dates[] = {pool.make(), pool.make()}, *string = nullptr, *part = nullptr;
    EXPECT_EQ(dynstr_setutcdatetime(dates[0], 0) + dynstr_setutcdatetime(dates[1], UINT_MAX), 0U);
    _dynstr_ex_fromprintf(id, &string, "%d %s", "file", 1, 7, "seven");
    _dynstr_ex_fromsubstring(id, &part, "abcd", 1, 2, "file", 1);
    const std::pair<dynstr *, const char *> texts[] = {{dates[0], "0001-01-01T00:00:00Z"},
                                                       {dates[1], "2106-02-07T06:28:15Z"},
                                                       {string, "7 seven"},
                                                       {part, "bc"},
                                                       {dynstr_fromulong(id, UINT_MAX), "4294967295"},
                                                       {dynstr_fromlong(id, INT_MIN), "-2147483648"},
                                                       {dynstr_fromipaddr(id, inet_addr("1.2.3.4")), "1.2.3.4"},
                                                       {dynstr_frommacaddr(id, kBytes), "01:ff:2a:00:b2:60"},
                                                       {dynstr_hexstringfromdata(id, kBytes, 2), "01ff"},
                                                       {dynstr_hexstringfromdata(id, nullptr, 5), ""}};
    for (const auto &[made, expected] : texts)
        EXPECT_STREQ(dynstr_getstring(made), expected);
}

}  // namespace
