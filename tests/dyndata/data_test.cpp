// What the model leaves open: sizes at which the form of a record changes, and reports.
#include "support/recording_platform.h"

unsigned make_data(const char *name, int count, unsigned bytes)
{
    return make_any_pool([=] { return dyndata_init(2) == 0 ? dyndata_initpool(name, count, bytes) : -1; });
}

dyndata *make(unsigned pool, const std::string &bytes)
{
    return dyndata_fromdata(pool, bytes.data(), static_cast<unsigned>(bytes.size()));
}

std::string bytes_of(const dyndata *object)
{
    return {reinterpret_cast<const char *>(dyndata_getdata(object)), dyndata_getdatasize(object)};
}

TEST(data_buffers, lose_their_limit_where_it_cannot_be_kept)
{
    const unsigned pool = make_data("limits", 5, 150000);
    const std::string large(70000, 'l');
    dyndata *const object = dyndata_calloc(pool);
    EXPECT_TRUE(dyndata_setmaxsize(object, 32767) == 0 && dyndata_getmaxsize(object) == 0);
    EXPECT_EQ(dyndata_setmaxsize(object, 4), 0U);
    EXPECT_EQ(dyndata_setdata(object, "0123456789", 10), unsigned{MEMM_E_NO_MEMORY});
    EXPECT_EQ(bytes_of(object), "0123");
    const auto grow_to = [&](unsigned size) {
        EXPECT_EQ(dyndata_adddata(object, large.data(), size - dyndata_getdatasize(object)), 0U);
        return object->sizeinfo;
    };
    EXPECT_EQ(grow_to(65535), 0x4ffffU);
    EXPECT_EQ(grow_to(65536), 0x80010000U);
    EXPECT_TRUE(dyndata_setmaxsize(object, 5) == 0 && object->sizeinfo == 0x80010000U) << "has no limit";
    dyndata *const later = make(pool, "later");
    EXPECT_EQ(grow_to(70000), 0x80011170U) << "moved to the end";
    EXPECT_EQ(bytes_of(object) + bytes_of(later), "0123" + large.substr(4) + "later");
}

TEST(data_reports, show_areas_and_bytes_to_the_last_character)
{
    const unsigned pool = make_data("r_data", 4, 200);
    dyndata_free(make(pool, std::string(150, 'g')));
    const std::string l(48, 'l'), e(30, 'e'),
        area = " - data buffer                                        81,   150,   200  (  75%)\r\n";
    const dyndata *const objects[] = {dyndata_calloc(pool), make(pool, {"a\0b", 3}), make(pool, l), make(pool, e)};
    memm_print_stats("r_");
    const int used = 4 * static_cast<int>(pool_at(pool).slot_size);
    const std::string row = text(" r_data                         4,     4,     4   %6d,%6d,%6d", used, used, used),
                      report = recorder().take_debug();
    EXPECT_NE(report.find(row + "  ( 100%)       0,    0,    -  \r\n" + area), report.npos) << report;
    EXPECT_NE(report.find(text("Total usage%44d,%6d,%6d  (", used + 81, used + 150, used + 200)), report.npos);
    const std::string shown[] = {"0, data=''", "3, data='a'", "48, data='" + l.substr(1) + "...'",
                                 "30, data='" + e + "'"};
    std::string expected = "r_data....................usage cur/max/avail (max.%): 4/4/4 (100%)\r\n" + area;
    for (int i = 0; i < 4; ++i)
        expected += text(" %u.r_data.%d.0x%08lx - size=%s\r\n", pool, i, address(objects[i]), shown[i].c_str());
    memm_print_objects("r_data");
    EXPECT_EQ(recorder().take_debug(), expected + "\r\n\r\n");
    memm_print_objects("dyndata_pool");
    EXPECT_NE(recorder().take_debug().find(" - 'r_data'\r\n"), std::string::npos);
    EXPECT_EQ(dyndata_initpool("r_data", 4, 200), -1) << "the name is taken";
    EXPECT_EQ(recorder().take_errors(), "0x10007 2 DYNDATA dyndata: dyndata init pool failed\n");
}

TEST(data_pools, refuse_what_is_not_theirs_and_pools_that_lost_their_area)
{
    const unsigned pool = make_data("own", 3, 100);
    dyndata *const object = make(pool, "bytes");
    memm_pooloptions &hooks = pool_at(pool).options;
    void *const foreign = memm_calloc(make_pool("", 1)), *const area = hooks.cookie;
    EXPECT_TRUE(hooks.release_cb(foreign) == MEMM_E_INVALID && hooks.release_cb(nullptr) == MEMM_E_INVALID);
    hooks.print_cb(foreign), pool_at(pool - 1).options.print_cb(nullptr);
    const std::string text = ": obj isn't a dyndata element\r\n";
    EXPECT_EQ(recorder().take_trace(), "[DYNDATA] loc_dyndata_free_ex" + text + "[DYNDATA] loc_dyndata_free_ex" + text +
                                           "[DYNDATA] loc_dyndata_printobject" + text);
    int current = 1;
    hooks.stats_cb(foreign, nullptr, nullptr, nullptr, dbg_printf);
    EXPECT_EQ(recorder().take_debug(), "");
    hooks.stats_cb(area, &current, nullptr, nullptr, dbg_printf);
    EXPECT_EQ(current, 1 + 5);
    for (void *const cookie : {foreign, static_cast<void *>(&current), static_cast<void *>(nullptr)}) {
        hooks.cookie = cookie;
        EXPECT_EQ(dyndata_setdata(object, "x", 1), unsigned{MEMM_E_INVALID});
        EXPECT_TRUE(dyndata_getdatasize(object) == 0 && make(pool, "y") == nullptr);
    }
    hooks.cookie = area;
    EXPECT_EQ(bytes_of(object), "bytes");
}
