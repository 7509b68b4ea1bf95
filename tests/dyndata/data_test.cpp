#include "dyndata/area.h"
#include "support/recording_platform.h"

#include <gtest/gtest.h>

namespace {

constexpr unsigned kOk = MEMM_OK, kNoMemory = MEMM_E_NO_MEMORY;
constexpr int kSlot = sizeof(void *) == 4 ? 12 : 24;

unsigned make_pool(const char *name, int count, unsigned bytes)
{
    static const bool started = memm_init(40, 4) == MEMM_OK && dyndata_init(24) == MEMM_OK;
    EXPECT_TRUE(started);
    return static_cast<unsigned>(dyndata_initpool(name, count, bytes));
}

dyndata *make(unsigned pool, const std::string &bytes)
{
    return dyndata_fromdata(pool, bytes.data(), static_cast<unsigned>(bytes.size()));
}

std::string bytes_of(const dyndata *object)
{
    const auto *const data = reinterpret_cast<const char *>(dyndata_getdata(object));
    return data == nullptr ? "" : std::string(data, dyndata_getdatasize(object));
}

unsigned long address(const void *object) { return reinterpret_cast<unsigned long>(object); }

TEST(data_buffers, lose_their_limit_where_it_cannot_be_kept)
{
    const unsigned pool = make_pool("limits", 5, 150000);
    dyndata *const object = dyndata_calloc(pool);
    EXPECT_EQ(dyndata_setmaxsize(object, 32767), kOk);
    EXPECT_EQ(dyndata_getmaxsize(object), 0U);
    EXPECT_EQ(dyndata_setmaxsize(object, 4), kOk);
    EXPECT_EQ(dyndata_setdata(object, "0123456789", 10), kNoMemory);
    EXPECT_EQ(bytes_of(object), "0123");
    const std::string large(70000, 'l');
    const auto grow_to = [&](unsigned size) {
        return dyndata_adddata(object, large.data(), size - dyndata_getdatasize(object));
    };
    EXPECT_EQ(grow_to(65535), kOk);
    EXPECT_EQ(object->sizeinfo, 0x4ffffU);
    EXPECT_EQ(grow_to(65536), kOk);
    EXPECT_EQ(dyndata_setmaxsize(object, 5), kOk);
    EXPECT_EQ(object->sizeinfo, 0x80010000U) << "the large form has no limit";
    dyndata *const later = make(pool, "later");
    EXPECT_EQ(grow_to(70000), kOk) << "moved to the end";
    EXPECT_EQ(bytes_of(object), "0123" + large.substr(4));
    EXPECT_EQ(bytes_of(later), "later");
}

TEST(data_reports, show_areas_and_bytes_to_the_last_character)
{
    const unsigned pool = make_pool("r_data", 4, 200);
    dyndata_free(make(pool, std::string(150, 'g')));
    const std::string l(48, 'l'), e(30, 'e'),
        area = " - data buffer                                        81,   150,   200  (  75%)\r\n";
    const dyndata *const objects[] = {dyndata_calloc(pool), make(pool, {"a\0b", 3}), make(pool, l), make(pool, e)};
    recorder().take_debug();
    memm_print_stats("r_");
    const std::string report = recorder().take_debug();
    const int used = 4 * kSlot;
    EXPECT_NE(
        report.find(
            text(" r_data                         4,     4,     4   %6d,%6d,%6d  ( 100%%)       0,    0,    -  \r\n",
                 used, used, used) +
            area),
        report.npos)
        << report;
    const std::string shown[] = {"0, data=''", "3, data='a'", "48, data='" + l.substr(1) + "...'",
                                 "30, data='" + e + "'"};
    std::string expected = "r_data....................usage cur/max/avail (max.%): 4/4/4 (100%)\r\n" + area;
    for (int i = 0; i < 4; ++i)
        expected += text(" %u.r_data.%d.0x%08lx - size=%s\r\n", pool, i, address(objects[i]), shown[i].c_str());
    memm_print_objects("r_data");
    EXPECT_EQ(recorder().take_debug(), expected + "\r\n\r\n");
}

}  // namespace
