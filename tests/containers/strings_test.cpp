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
