#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strlist.h>

namespace {

using Texts = std::vector<std::string>;

// A pool of nodes and one of strings; at the end nothing may be left in them.
struct StringLists {
    int nodes, strings;
    int before;

    explicit StringLists(int count = 3000, unsigned bytes = 400000)
    {
        make_pool("", 1);
        nodes = llist_initpool("", count, sizeof(llist), nullptr);
        strings = dynstr_initpool2("", count, bytes, 2);
        before = live();
    }
    StringLists(const StringLists &) = delete;
    ~StringLists() { EXPECT_EQ(live(), before); }
    unsigned pool() const { return static_cast<unsigned>(strings); }
    int live() const
    {
        const memm_pool &texts = pool_at(pool());
        return texts.cur_count - *texts.count_base + pool_at(static_cast<unsigned>(nodes)).cur_count;
    }
    strlist *make(const Texts &texts) const
    {
        strlist *list = nullptr;
        for (const std::string &item : texts)
            EXPECT_EQ(strlist_addstring(&list, item.c_str(), nodes, strings), 0U);
        return list;
    }
};

// The list is released.
Texts taken(strlist *list)
{
    Texts texts;
    for (int i = 0; i < llist_getlength(list); ++i)
        texts.push_back(strlist_getstring_at(list, i));
    EXPECT_EQ(llist_free_plist(&list), 0U);
    return texts;
}

std::string text_of(dynstr *string)
{
    const std::string copy = dynstr_getstring(string);
    memm_free(string);
    return copy;
}

TEST(string_lists, join_through_an_outside_block_or_not_at_all)
{
    const StringLists lists(40, 200);  // two buffers of 100
    strlist *const list = lists.make({std::string(20, 'a'), std::string(20, 'b'), std::string(20, 'c')});
    EXPECT_EQ(text_of(dynstr_fromstrlist(lists.pool(), list, ",")).size(), 62U);
    EXPECT_EQ(recorder().calls(Op::getmem), 1U);
    recorder().fail_nth(Op::getmem, 1);
    EXPECT_EQ(dynstr_fromstrlist(lists.pool(), list, "a long separator, for there is room now"), nullptr);
    EXPECT_EQ(recorder().outside_blocks(), 0U);
    EXPECT_EQ(dynstr_fromstrlist(lists.pool(), list, std::string(90, '-').c_str()), nullptr);
    EXPECT_EQ(taken(list).size(), 3U);
}

TEST(string_lists, leave_out_what_finds_no_place)
{
    const StringLists lists(6, 200);
    recorder().allow_reports();
    dynstr *const string = dynstr_fromstring(lists.pool(), "a,b,c,d,e,f,g,h,i");
    EXPECT_EQ(taken(strlist_fromstring("i,i,i,i,i,i,i,i,i", ",", lists.nodes, lists.strings)), Texts(5, "i"));
    EXPECT_EQ(taken(strlist_fromdynstr(string, ",", lists.nodes)).size(), 4U);  // one record is the source's
    memm_free(string);

    // No room for the text: an empty item before a separator and in the escaped form, left out as the last one.
    const StringLists narrow(20, 40);
    std::string text = std::string(30, 'a') + ",b," + std::string(30, 'c');
    EXPECT_EQ(taken(strlist_fromstring(text.c_str(), ",", narrow.nodes, narrow.strings)), (Texts{"", "b"}));
    EXPECT_EQ(taken(strlist_fromstring_escaped(text.data(), ',', '\\', narrow.nodes, narrow.strings)),
              (Texts{"", "b", ""}));
}

TEST(string_lists, may_hold_other_objects)
{
    const StringLists lists;
    strlist *list = lists.make({"7"});
    llist_addref(&list, list, lists.nodes);
    EXPECT_STREQ(strlist_getstring_at(list, 1), "");
    EXPECT_EQ(strlist_getdynstr_at(list, 1), nullptr);
    EXPECT_EQ(strlist_setstring_at(list, "8", 1), MEMM_E_INVALID);
    EXPECT_EQ(dynstr_frompartialstrlist(lists.pool(), list, ",", 0, 1), nullptr) << "left out or not";
    EXPECT_EQ(taken(strlist_clone(list, lists.nodes, lists.strings)), (Texts{"7", ""}));
    EXPECT_EQ(strlist_delete_at(&list, 1), 0U);
    taken(list);
    EXPECT_EQ(text_of(dynstr_fromstrlist(lists.pool(), nullptr, nullptr)), "");
    EXPECT_EQ(strlist_fromstring("a", "", lists.nodes, lists.strings), nullptr);
    dynstr *const string = dynstr_fromstring(lists.pool(), "a");
    EXPECT_EQ(strlist_fromdynstr(string, nullptr, lists.nodes), nullptr);
    memm_free(string);
    EXPECT_EQ(dynstr_fromstrlist_escaped(0, nullptr, ",", '\\'), nullptr);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromstrlist_escaped: invalid poolid passed\r\n");
}

}  // namespace
