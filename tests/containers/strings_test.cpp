#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strlist.h>

namespace {

using Texts = std::vector<std::string>;

struct StringLists {
    int nodes, strings;

    StringLists(int count, unsigned bytes)
    {
        make_pool("", 1);
        nodes = llist_initpool("", count, sizeof(llist), nullptr);
        strings = dynstr_initpool2("", count, bytes, 2);
    }
    strlist *make(const Texts &texts) const
    {
        strlist *list = nullptr;
        for (const std::string &item : texts)
            EXPECT_EQ(strlist_addstring(&list, item.c_str(), nodes, strings), 0U);
        return list;
    }
};

Texts texts_of(strlist *list)
{
    Texts texts;
    for (int i = 0; i < llist_getlength(list); ++i)
        texts.push_back(strlist_getstring_at(list, i));
    return texts;
}

TEST(string_lists, join_through_an_outside_block_or_not_at_all)
{
    const StringLists lists(40, 200);  // two buffers of 100
    const auto pool = static_cast<unsigned>(lists.strings);
    strlist *const list = lists.make({std::string(20, 'a'), std::string(20, 'b'), std::string(20, 'c')});
    EXPECT_EQ(dynstr_strlen(dynstr_fromstrlist(pool, list, ",")), 62U);
    EXPECT_EQ(recorder().calls(Op::getmem), 1U);
    EXPECT_EQ(dynstr_fromstrlist(pool, list, std::string(90, '-').c_str()), nullptr);
}

TEST(string_lists, leave_out_what_finds_no_place)
{
    recorder().allow_reports();
    const StringLists few(6, 200);
    EXPECT_EQ(texts_of(strlist_fromstring("i,i,i,i,i,i,i,i,i", ",", few.nodes, few.strings)), Texts(6, "i"));
    // No room for the text: an empty item before a separator and in the escaped form, left out as the last one.
    const StringLists narrow(20, 40);
    std::string text = std::string(30, 'a') + ",b," + std::string(30, 'c');
    EXPECT_EQ(texts_of(strlist_fromstring(text.c_str(), ",", narrow.nodes, narrow.strings)), (Texts{"", "b"}));
    EXPECT_EQ(texts_of(strlist_fromstring_escaped(text.data(), ',', '\\', narrow.nodes, narrow.strings)),
              (Texts{"", "b", ""}));
}

TEST(string_lists, may_hold_other_objects)
{
    const StringLists lists(10, 200);
    strlist *list = lists.make({"7"});
    llist_addref(&list, list, lists.nodes);
    EXPECT_EQ(texts_of(list), (Texts{"7", ""}));
    EXPECT_EQ(strlist_setstring_at(list, "8", 1), MEMM_E_INVALID);
    EXPECT_EQ(texts_of(strlist_clone(list, lists.nodes, lists.strings)), (Texts{"7", ""}));
}

}  // namespace
