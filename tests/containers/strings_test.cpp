#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strlist.h>

namespace {

using Texts = std::vector<std::string>;

// The list is released.
Texts taken(strlist *list)
{
    Texts texts;
    for (int i = 0; i < llist_getlength(list); ++i)
        texts.push_back(strlist_getstring_at(list, i));
    llist_free_plist(&list);
    return texts;
}

TEST(string_lists, join_through_an_outside_block_or_not_at_all)
{
    make_pool("", 1);
    const int nodes = llist_initpool("", 40, sizeof(llist), nullptr), strings = dynstr_initpool2("", 40, 200, 2);
    const auto pool = static_cast<unsigned>(strings);
    strlist *list = nullptr;
    for (const char letter : {'a', 'b', 'c'})
        strlist_addstring(&list, std::string(20, letter).c_str(), nodes, strings);
    EXPECT_EQ(dynstr_strlen(dynstr_fromstrlist(pool, list, ",")), 62U);
    EXPECT_EQ(recorder().calls(Op::getmem), 1U);
    EXPECT_EQ(dynstr_fromstrlist(pool, list, std::string(90, '-').c_str()), nullptr);
}

TEST(string_lists, leave_out_what_finds_no_place)
{
    recorder().allow_reports();
    make_pool("", 1);
    const int nodes = llist_initpool("", 6, sizeof(llist), nullptr), strings = dynstr_initpool2("", 6, 200, 2);
    EXPECT_EQ(taken(strlist_fromstring("i,i,i,i,i,i,i,i,i", ",", nodes, strings)), Texts(6, "i"));
    // No room for the text: an empty item before a separator and in the escaped form, left out as the last one.
    const int narrow = dynstr_initpool2("", 20, 40, 2);
    std::string text = std::string(30, 'a') + ",b," + std::string(30, 'c');
    EXPECT_EQ(taken(strlist_fromstring(text.c_str(), ",", nodes, narrow)), (Texts{"", "b"}));
    EXPECT_EQ(taken(strlist_fromstring_escaped(text.data(), ',', '\\', nodes, narrow)), (Texts{"", "b", ""}));
}

}  // namespace
