#include "data_pool.h"

#include <functional>

namespace {

TEST(data_module, reports_failed_starts_and_pools_and_keeps_what_stands)
{
    const std::string no_start = "0x10007 2 DYNDATA dyndata: dyndata init failed\n";
    ASSERT_EQ(memm_init(16, 4), 0);
    EXPECT_EQ(dyndata_initpool("early", 2, 10), -1);
    for (const int count : {0, -1}) {
        EXPECT_EQ(dyndata_init(count), kNoMemory);
    }
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(dyndata_init(3), kNoMemory);
    EXPECT_EQ(recorder().take_errors(), no_start + no_start + no_start);
    EXPECT_EQ(dyndata_init(4), kOk);
    const int records_id = memm_get_pool_nolock(0)->cur_count - 1;
    const memm_pool &records = *memm_get_pool_nolock(static_cast<unsigned>(records_id));
    EXPECT_EQ(records.slot_size, sizeof(void *) == 4 ? 28U : 40U);
    recorder().forget();

    const int id = dyndata_initpool("data", 3, 100);
    EXPECT_EQ(id, records_id + 1);
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"dyndata_initpool"});
    const unsigned slots = sizeof(void *) == 4 ? 3 * 12 : 3 * 24 + 4;
    EXPECT_EQ(recorder().take_allocations(),
              (std::vector<Recorder::Allocation>{{"DYNDATA", 1, 100}, {"data", 1, slots}}));
    dyndata *const object = dyndata_fromdata(static_cast<unsigned>(id), "abc", 3);
    memm_printobject(memm_getpoolcookie(object), 1);
    EXPECT_EQ(recorder().take_debug(), text("%d.dyndata_pool.0.0x%08lx - 'data'", records_id,
                                            reinterpret_cast<unsigned long>(memm_getpoolcookie(object))));
    EXPECT_EQ(dyndata_init(4), kNoMemory) << "the name is taken";
    EXPECT_EQ(recorder().take_errors(), no_start);
    EXPECT_EQ(dyndata_isdyndata(object), 1) << "the first start stays in force";

    const std::string no_pool = "0x10007 2 DYNDATA dyndata: dyndata init pool failed\n";
    for (const Fault fault : {Fault::refused, Fault::null_block}) {
        recorder().fail_nth(Op::alloc, 1, 7, fault);
        EXPECT_EQ(dyndata_initpool("none", 3, 100), -1);
        EXPECT_EQ(records.cur_count, 1) << "the record goes back";
        EXPECT_EQ(recorder().take_errors(), "");
    }
    recorder().fail_nth(Op::alloc, 2);
    EXPECT_EQ(dyndata_initpool("none", 3, 100), -1);
    EXPECT_EQ(dyndata_initpool("data", 3, 100), -1) << "the name is taken";
    EXPECT_EQ(dyndata_initpool(nullptr, 3, 100), -1);
    EXPECT_EQ(recorder().take_errors(), no_pool + no_pool + no_pool);
    EXPECT_EQ(records.cur_count, 4) << "the record stays";
    EXPECT_EQ(dyndata_initpool("one too many", 3, 100), -1);
    EXPECT_EQ(recorder().take_errors(),
              "0x10002 2 memm memmanager: memm_calloc() failed for pool 'dyndata_pool' (pool depleted)\n");
    memm_print_stats(nullptr);
    memm_print_objects(nullptr);
    EXPECT_EQ(bytes_of(object), "abc");
    recorder().allow_reports();
}

TEST(data_buffers, lose_their_limit_where_it_cannot_be_kept)
{
    const DataPool pool("limits", 5, 150000);
    dyndata *const object = dyndata_calloc(pool.id());
    for (const auto &[max, kept] :
         {std::pair{4U, 4U}, {32766U, 32766U}, {32767U, 0U}, {65536U + 4, 0U}, {0xffffffffU, 0U}}) {
        EXPECT_EQ(dyndata_setmaxsize(object, max), kOk);
        EXPECT_EQ(dyndata_getmaxsize(object), kept);
        for (const auto make : {dyndata_calloc_maxsize, dyndata_calloc_maxlen}) {
            dyndata *const other = make(pool.id(), max);
            EXPECT_EQ(dyndata_getmaxsize(other), kept);
            dyndata_free(other);
        }
    }
    dyndata_setmaxsize(object, 4);
    EXPECT_EQ(dyndata_setdata(object, "0123456789", 10), kNoMemory);
    EXPECT_EQ(bytes_of(object), "0123");
    EXPECT_EQ(dyndata_adddata(object, "abcdefghij", 10), kOk);
    EXPECT_EQ(bytes_of(object), "0123abcdefghij");
    EXPECT_EQ(object->sizeinfo, 0x4000eU);

    const std::string large(70000, 'l');
    dyndata_setmaxsize(object, 0);
    EXPECT_EQ(dyndata_setdata(object, large.data(), 65535), kOk);
    dyndata_setmaxsize(object, 5);
    EXPECT_EQ(object->sizeinfo, 0x5ffffU);
    EXPECT_EQ(dyndata_adddata(object, "l", 1), kOk);
    EXPECT_EQ(object->sizeinfo, 0x80010000U) << "the large form has no limit";
    EXPECT_EQ(dyndata_setmaxsize(object, 5), kOk);
    EXPECT_EQ(dyndata_getmaxsize(object), 0U);
    EXPECT_EQ(dyndata_setdata(object, large.data(), 70000), kOk);
    EXPECT_EQ(bytes_of(object), large);
    dyndata *const later = pool.make("later");
    EXPECT_EQ(dyndata_adddata(object, "x", 1), kOk) << "moved to the end";
    EXPECT_EQ(bytes_of(object), large + "x");
    EXPECT_EQ(bytes_of(later), "later");
    EXPECT_EQ(dyndata_setdata(object, "tiny", 4), kOk);
    EXPECT_EQ(object->sizeinfo, 4U) << "nothing of the large size is left";

    EXPECT_EQ(dyndata_setdata(object, large.data(), 70000), kOk);
    EXPECT_EQ(dyndata_setdata(object, nullptr, 3), kOk);
    EXPECT_EQ(dyndata_getdata(object), nullptr);
    EXPECT_EQ(dyndata_getdatasize(object), 70000U) << "as its size word says";
    EXPECT_EQ(dyndata_isdyndata_equal(object, object), 0);
    EXPECT_EQ(dyndata_adddata(object, "new", 3), kOk);
    EXPECT_EQ(bytes_of(object), "new");
    EXPECT_EQ(dyndata_getmaxsize(object), 0U);
}

TEST(data_buffers, fill_an_area_to_its_last_byte)
{
    const DataPool pool("full", 5, 100);
    const std::string zeros(100, '\0'), bytes(100, 'b');
    dyndata *const object = pool.make(bytes);
    EXPECT_EQ(bytes_of(object), bytes);
    EXPECT_EQ(pool.make("1"), nullptr);
    dyndata *const empty = pool.make("");
    EXPECT_EQ(dyndata_isdyndata_equal(empty, empty), 0);
    dyndata_setmaxsize(empty, 7);
    EXPECT_EQ(dyndata_adddata(empty, "", 0), kOk);
    EXPECT_EQ(dyndata_getmaxsize(empty), 0U) << "no room takes the limit away";
    EXPECT_EQ(dyndata_adddata(object, "", 0), kNoMemory) << "no bytes want room, too";
    dyndata_setmaxsize(object, 7);
    EXPECT_EQ(dyndata_setdata(object, "1", 1), kNoMemory) << "the old bytes are still there when the new ones come";
    EXPECT_EQ(object->sizeinfo, 0U);
    EXPECT_EQ(pool.area().curr, 0U);
    EXPECT_EQ(pool.bytes(), zeros);

    dyndata *const first = pool.make(std::string(50, 'f'));
    EXPECT_EQ(dyndata_setdata(empty, "e", 1), kOk);
    EXPECT_EQ(dyndata_setdata(first, bytes.data(), 49), kOk);
    EXPECT_EQ(dyndata_setdata(empty, "ee", 2), kOk);
    EXPECT_EQ(dyndata_adddata(first, "", 0), kNoMemory) << "moving it takes the last room";
    EXPECT_EQ(first->data, pool.area().buffer);
    EXPECT_EQ(dyndata_setdata(empty, "e", 1), kOk);
    dyndata_setmaxsize(first, 60);
    EXPECT_EQ(dyndata_adddata(first, "", 0), kOk);
    EXPECT_EQ(first->data, pool.area().buffer + 1);
    EXPECT_EQ(first->sizeinfo, 49U) << "moved without its limit";
    dyndata_setdata(empty, "ee", 2);
    dyndata_setdata(first, bytes.data(), 49);
    dyndata_setdata(empty, "e", 1);
    EXPECT_EQ(dyndata_adddata(first, bytes.data(), 1), kOk);
    EXPECT_EQ(pool.area().curr, 51U);
    EXPECT_EQ(pool.area().max, 100U);
}

// What is no data buffer is refused by every call, and nothing is traced.
TEST(data_buffers, are_told_from_everything_else)
{
    const DataPool pool("told", 5, 100);
    dyndata *const object = pool.make("abc");
    dyndata *const released = pool.make("gone");
    dyndata_free(released);
    const auto pool_with = [](void *cookie, int size) {
        memm_pooloptions options{};
        options.cookie = cookie;
        return static_cast<unsigned>(memm_initpool("", 2, size, &options));
    };
    void *const record = memm_getpoolcookie(object);
    void *const plain = memm_calloc(pool_with(nullptr, sizeof(dyndata)));
    dyndata own{object->data, 3};
    std::vector<void *> others = {nullptr, released, &own, record, plain, reinterpret_cast<void *>(8)};
    for (void *const cookie : {static_cast<void *>(&own), static_cast<void *>(object), plain,
                               reinterpret_cast<void *>(8), reinterpret_cast<void *>(1)}) {
        others.push_back(memm_calloc(pool_with(cookie, sizeof(dyndata))));
    }
    others.push_back(memm_calloc(pool_with(record, 1)));
    for (const int offset : {-4, 1, 4, 1 << 20}) {
        others.push_back(reinterpret_cast<char *>(object) + offset);
    }
    for (void *const other : others) {
        auto *const d = static_cast<dyndata *>(other);
        EXPECT_EQ(dyndata_isdyndata(d), 0);
        EXPECT_EQ(dyndata_getdatasize(d) + dyndata_getmaxsize(d), 0U);
        EXPECT_EQ(dyndata_getdata(d), nullptr);
        EXPECT_EQ(dyndata_isdyndata_equal(d, object) + dyndata_isdyndata_equal(object, d), 0);
        EXPECT_EQ(dyndata_isdyndata_equal2(d, "abc", 3) + dyndata_isdyndata_equal2(object, nullptr, 3), 0);
        EXPECT_EQ(dyndata_setmaxsize(d, 1), kInvalid);
        EXPECT_EQ(dyndata_setdata(d, "x", 1), kInvalid);
        EXPECT_EQ(dyndata_adddata(d, "x", 1), kInvalid);
        EXPECT_EQ(dyndata_adddata(d, nullptr, 1), kOk);
    }
    EXPECT_EQ(dyndata_isdyndata(memm_calloc(pool_with(record, sizeof(dyndata)))), 1) << "its cookie is a record";
    EXPECT_EQ(bytes_of(object), "abc");

    const std::string foreign = ": obj isn't a dyndata element\r\n";
    const unsigned strangers = pool_with(nullptr, 1);
    EXPECT_EQ(dyndata_fromdata(strangers, "x", 1), nullptr);
    EXPECT_EQ(recorder().take_trace(), "[DYNDATA] loc_dyndata_setdata" + foreign);
    EXPECT_EQ(dyndata_fromdata(0xffffffff, "x", 1), nullptr);
    void *const small = dyndata_calloc_maxsize(strangers, 0x7fff0);
    EXPECT_EQ(memm_get_poolid(small), static_cast<int>(strangers));
    const dyndata *const descriptor = dyndata_calloc_maxsize(0, 5);
    EXPECT_EQ(descriptor->sizeinfo, 0U) << "descriptors are the manager's";

    memm_pool &descriptor_of_pool = *memm_get_pool_nolock(pool.id());
    descriptor_of_pool.options.cookie = &own;
    EXPECT_EQ(memm_free(object), MEMM_E_SETUP);
    memm_printobject(object, 1);
    EXPECT_NE(recorder().take_trace().find("[DYNDATA] loc_dyndata_printobject" + foreign), std::string::npos);
    descriptor_of_pool.options.cookie = record;
    EXPECT_EQ(memm_free(record), 0);
    EXPECT_EQ(dyndata_isdyndata(object), 0) << "the area's record was released";
}

TEST(data_buffers, that_were_written_over_harm_no_other)
{
    const DataPool pool("scribbled", 6, 100);
    for (const unsigned size : {0x8fffffffU, 0xffffU, 3U}) {
        for (const std::ptrdiff_t place : {-100000, -1, 0, 2, 9, 99, 100, 100000}) {
            for (int way = 0; way < 4; ++way) {
                dyndata *const objects[] = {pool.make("one"), pool.make("two"), pool.make("three")};
                *objects[1] = {pool.area().buffer + place, size};
                memm_printobject(objects[1], 1);
                dyndata_isdyndata_equal(objects[1], objects[0]);
                if (way == 1) {
                    dyndata_setdata(objects[1], "new", 3);
                } else if (way == 2) {
                    dyndata_adddata(objects[1], "added", 5);
                }
                for (dyndata *object : objects) {
                    EXPECT_EQ(dyndata_free(object), 0);
                }
                ASSERT_LE(pool.area().curr, 100U) << place;
                EXPECT_EQ(pool.bytes().find_first_not_of('\0', pool.area().curr), std::string::npos) << place;
                while (pool.area().curr > 0) {  // what nobody released
                    dyndata *const finder = dyndata_calloc(pool.id());
                    *finder = {pool.area().buffer, 100};
                    dyndata_free(finder);
                }
            }
        }
    }
}

TEST(data_buffers, take_the_lock_under_the_names_of_their_calls)
{
    const DataPool pool("tags", 5, 100);
    dyndata *const first = pool.make("abc"), *const object = pool.make("def");
    const unsigned id = pool.id();
    struct Case {
        const char *tag;  // "": none
        std::function<void()> call;
    };
    for (const Case &c : std::vector<Case>{
             {"memm_initpool", [] { dyndata_init(0); }},
             {"", [=] { dyndata_isdyndata(object); }},
             {"", [=] { dyndata_getmaxsize(object); }},
             {"", [=] { dyndata_setmaxsize(object, 50); }},
             {"", [=] { dyndata_getdatasize(object); }},
             {"", [=] { dyndata_isdyndata_equal(object, first); }},
             {"", [=] { dyndata_isdyndata_equal2(object, "def", 3); }},
             {"", [=] { dyndata_adddata(object, nullptr, 3); }},
             {"dyndata_getdata", [=] { dyndata_getdata(object); }},
             {"dyndata_getdata", [=] { dyndata_getdata(nullptr); }},
             {"memm_calloc", [=] { dyndata_calloc(id); }},
             {"memm_calloc", [=] { dyndata_calloc_maxsize(id, 5); }},
             {"memm_refalloc", [=] { dyndata_refalloc(first); }},
             {"memm_free", [=] { dyndata_free(first); }},
             {"dyndata_setdata", [=] { dyndata_setdata(object, "x", 1); }},
             {"dyndata_adddata", [=] { dyndata_adddata(first, "x", 1); }},
             {"dyndata_fromdata", [=] { dyndata_fromdata(id, "x", 1); }},
             {"dyndata_fromdata", [=] { dyndata_fromdata(id, "x", 200); }},
         }) {
        recorder().take_tags();
        c.call();
        EXPECT_EQ(recorder().take_tags(),
                  *c.tag == '\0' ? std::vector<std::string>{} : std::vector<std::string>{c.tag});
    }
    recorder().allow_reports();
}

TEST(data_reports, show_areas_and_bytes_to_the_last_character)
{
    const DataPool pool("r_data", 4, 200), none("r_none", 1, 0);
    EXPECT_EQ(none.make("x"), nullptr);
    dyndata *const gone = pool.make(std::string(50, 'g'));
    dyndata_free(gone);
    const std::string long_text(48, 'l');
    dyndata *const objects[] = {dyndata_calloc(pool.id()), pool.make(std::string("a\0b", 3)), pool.make(long_text),
                                pool.make(std::string(47, 'e'))};
    recorder().take_debug();
    memm_print_stats("r_");
    const int slot = sizeof(void *) == 4 ? 12 : 24;
    const std::string report = recorder().take_debug();
    EXPECT_EQ(
        report.substr(report.find(" r_data")),
        text(" r_data                         4,     4,     4   %6d,%6d,%6d  ( 100%%)       0,    0,    -  \r\n",
             4 * slot, 4 * slot, 4 * slot) +
            " - data buffer                                        98,    98,   200  (  49%)\r\n" +
            text(" r_none                         0,     1,     1   %6d,%6d,%6d  ( 100%%)       0,    0,    -  \r\n", 0,
                 slot, slot) +
            " - data buffer                                         0,     0,     0  (   0%)\r\n"
            " ----------------------                           ----------------------------  \r\n" +
            text(" Total usage                                      %6d,%6d,%6d  ( %3d%%)\r\n\r\n", 4 * slot + 98,
                 5 * slot + 98, 5 * slot + 200, (5 * slot + 98) * 100 / (5 * slot + 200)));

    const std::string shown[] = {
        " - size=0, data=''",
        " - size=3, data='a'",
        " - size=48, data='" + std::string(47, 'l') + "...'",
        " - size=47, data='" + std::string(47, 'e') + "'",
    };
    std::string expected = "r_data....................usage cur/max/avail (max.%): 4/4/4 (100%)\r\n"
                           " - data buffer                                        98,    98,   200  (  49%)\r\n";
    for (int i = 0; i < 4; ++i) {
        expected += text(" %u.r_data.%d.0x%08lx", pool.id(), i, reinterpret_cast<unsigned long>(objects[i])) +
                    shown[i] + "\r\n";
    }
    memm_print_objects("r_data");
    EXPECT_EQ(recorder().take_debug(), expected + "\r\n\r\n");

    memm_print_timestats("r_none");
    EXPECT_NE(recorder().take_debug().find("                            data buffer  curr/max/avail 0,0,0  (  0%)\r\n"),
              std::string::npos);

    // What lies behind the bytes is shown too, up to the end of the area.
    const DataPool small("r_small", 2, 60);
    for (dyndata *const object : {small.make(std::string(30, 'a')), small.make(std::string(30, 'b'))}) {
        memm_printobject(object, 1);
    }
    const std::string both = recorder().take_debug();
    EXPECT_NE(both.find(" - size=30, data='" + std::string(30, 'a') + std::string(17, 'b') + "...'"), both.npos);
    EXPECT_NE(both.find(" - size=30, data='" + std::string(30, 'b') + "'"), both.npos);
}

}  // namespace
