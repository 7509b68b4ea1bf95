#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strpair.h>

#include <random>

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

Texts split(const std::string &whole, const std::string &separator)
{
    Texts parts;
    std::size_t from = 0;
    for (std::size_t at; (at = whole.find(separator, from)) != whole.npos; from = at + separator.size())
        parts.push_back(at - from < 2047 ? whole.substr(from, at - from) : whole.substr(from));
    parts.push_back(whole.substr(from));
    return parts;
}

std::string join(const Texts &parts, const std::string &separator)
{
    std::string whole;
    for (const std::string &part : parts)
        whole += (&part == &parts.front() ? "" : separator) + part;
    return whole;
}

TEST(string_lists, are_split_and_joined_again)
{
    const StringLists lists;
    std::mt19937 random(577);
    std::vector<std::pair<std::string, std::string>> cases = {
        {"", ","}, {",", ","}, {"a,,b", ","}, {"a,", ","}, {"aaa", "aa"}, {"a--b-", "--"}, {"x", "xx"}};
    for (const std::size_t length : {2045U, 2046U, 2047U, 2048U, 3000U, 70000U}) {
        cases.push_back({std::string(length, 'm') + ",x,y", ","});
        cases.push_back({"x," + std::string(length, 'm'), ","});
    }
    for (int i = 0; i < scaled(3000); ++i) {
        std::string whole;
        for (auto length = random() % 60; length > 0; --length)
            whole += ",;ab"[random() % 4];
        cases.push_back({whole, Texts{",", ";", ",,", ",;", "a,b"}[random() % 5]});
    }
    for (const auto &[whole, separator] : cases) {
        const Texts parts = split(whole, separator);
        const bool is_cut = whole.size() < 2047 || whole.find(separator) < 2047 || whole.find(separator) == whole.npos;
        ASSERT_EQ(taken(strlist_fromstring(whole.c_str(), separator.c_str(), lists.nodes, lists.strings)), parts);
        dynstr *const string = dynstr_fromstring(lists.pool(), whole.c_str());
        strlist *const list = strlist_fromdynstr(string, separator.c_str(), lists.nodes);
        ASSERT_EQ(text_of(strlist_todynstr(list, separator.c_str(), lists.strings)), whole);
        ASSERT_TRUE(taken(list) == parts || !is_cut);
        memm_free(string);
    }
}

TEST(string_lists, are_joined_with_escapes_and_split_again)
{
    const StringLists lists;
    std::mt19937 random(1729);
    for (int i = 0; i < scaled(3000); ++i) {
        Texts parts(1 + random() % 6);
        for (std::string &part : parts)
            for (auto length = random() % 8; length > 0; --length)
                part += ",\\ab"[random() % 4];
        strlist *const list = lists.make(parts);
        std::string escaped = text_of(dynstr_fromstrlist_escaped(lists.pool(), list, ",", '\\'));
        std::string expected;
        for (const std::string &part : parts) {
            expected += &part == &parts.front() ? "" : ",";
            for (const char c : part)
                expected += (c == ',' || c == '\\' ? "\\" : "") + std::string(1, c);
        }
        ASSERT_EQ(escaped, expected);
        const auto first = static_cast<int>(random() % 8) - 1, last = static_cast<int>(random() % 8) - 1;
        const auto middle =
            Texts(parts.begin() + std::min<long>(std::max(first, 0), static_cast<long>(parts.size())), parts.end());
        const std::size_t count = static_cast<std::size_t>(std::max(last - std::max(first, 0), 0));
        ASSERT_EQ(text_of(strlist_partialtodynstr(list, "--", lists.strings, first, last)),
                  join({middle.begin(), middle.begin() + static_cast<long>(std::min(count, middle.size()))}, "--"));
        // The last item keeps what stood where escapes were taken out; with a comma at the end that is an item too
        // many.
        const bool has_escapes = escaped.find('\\') != escaped.npos;
        Texts back = taken(strlist_fromstring_escaped(escaped.data(), ',', '\\', lists.nodes, lists.strings));
        if (!has_escapes) {
            ASSERT_EQ(back, escaped[0] == '\0' && expected.empty() ? Texts{} : parts);
        } else {
            ASSERT_GE(back.size(), parts.size());
            for (std::size_t part = 0; part + 1 < parts.size(); ++part)
                ASSERT_EQ(back[part], parts[part]);
            ASSERT_EQ(back[parts.size() - 1].substr(0, parts.back().size()), parts.back());
        }
        taken(list);
    }
    struct {
        const char *whole;
        Texts items;
    } const cases[] = {{"a\\,b,c", {"a,b", "cc"}},
                       {"x,y,", {"x", "y", ""}},
                       {"", {}},
                       {",", {"", ""}},
                       {"a\\", {"a\\"}},
                       {"\\,", {",,"}},
                       {"a\\\\b", {"a\\bb"}}};
    for (const auto &c : cases) {
        std::string whole = c.whole;
        EXPECT_EQ(taken(strlist_fromstring_escaped(whole.data(), ',', '\\', lists.nodes, lists.strings)), c.items)
            << c.whole;
    }
    strlist *const list = lists.make({"a,b", "c\\d"});
    EXPECT_EQ(text_of(dynstr_fromstrlist_escaped(lists.pool(), list, ",", '\\')), "a\\,b,c\\\\d");
    EXPECT_EQ(text_of(dynstr_fromstrlist_escaped(lists.pool(), list, ", ", '\\')), "a,b, c\\d");
    EXPECT_EQ(text_of(dynstr_fromstrlist_escaped(lists.pool(), list, "", '\\')), "a,bc\\\\d");
    EXPECT_EQ(text_of(dynstr_fromstrlist(lists.pool(), list, nullptr)), "a,bc\\d");
    taken(list);
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
    const Texts items(20, "item");
    const char *array[] = {"a", "b", "c", "d", "e", "f", "g", "h", nullptr};
    const std::string whole = join(items, ",");
    dynstr *const string = dynstr_fromstring(lists.pool(), "a,b,c,d,e,f,g,h,i");
    EXPECT_EQ(taken(strlist_fromstring(whole.c_str(), ",", lists.nodes, lists.strings)), Texts(5, "item"));
    EXPECT_EQ(taken(strlist_fromdynstr(string, ",", lists.nodes)).size(), 4U);  // one record is the source's
    EXPECT_LE(taken(strlist_fromstringarr(array, lists.nodes, lists.strings)).size(), 6U);
    memm_free(string);

    // No room for the text: an empty item before a separator and in the escaped form, left out as the last one.
    const StringLists narrow(20, 40);
    std::string text = std::string(30, 'a') + ",b," + std::string(30, 'c');
    EXPECT_EQ(taken(strlist_fromstring(text.c_str(), ",", narrow.nodes, narrow.strings)), (Texts{"", "b"}));
    EXPECT_EQ(taken(strlist_fromstring_escaped(text.data(), ',', '\\', narrow.nodes, narrow.strings)),
              (Texts{"", "b", ""}));
}

TEST(string_lists, give_and_take_items)
{
    const StringLists lists;
    strlist *list = lists.make({"7", "seven"});
    EXPECT_EQ(strlist_addulong(&list, 4294967295U, lists.nodes, lists.strings), 0U);
    unsigned value = 0;
    EXPECT_EQ(strlist_getulong_at(list, &value, -1), 0U);
    EXPECT_EQ(value, 4294967295U);
    EXPECT_EQ(strlist_getulong_at(list, &value, 1), MEMM_E_INVALID);
    EXPECT_EQ(strlist_getulong_at(list, &value, 9), MEMM_E_INVALID);
    EXPECT_STREQ(strlist_getstring_at(list, 9), "");
    EXPECT_EQ(strlist_getdynstr_at(list, 9), nullptr);
    EXPECT_EQ(strlist_setstring_at(list, "8", 0), 0U);
    EXPECT_EQ(strlist_setstring_at(list, nullptr, 0), MEMM_E_INVALID);
    llist_addobject(&list, list->next->next, lists.nodes);  // no string
    memm_refalloc(list->next->next);
    EXPECT_STREQ(strlist_getstring_at(list, 3), "");
    EXPECT_EQ(strlist_getdynstr_at(list, 3), nullptr);
    EXPECT_EQ(strlist_setstring_at(list, "8", 3), MEMM_E_INVALID);
    EXPECT_EQ(dynstr_frompartialstrlist(lists.pool(), list, ",", 0, 1), nullptr);
    int index = 0;
    void *cursor = nullptr;
    Texts seen;
    while (dynstr *const string = strlist_enum_dynstr(list, &index, &cursor))
        seen.push_back(dynstr_getstring(string));
    EXPECT_EQ(seen, (Texts{"8", "seven", "4294967295"}));
    EXPECT_EQ(taken(strlist_clone(list, lists.nodes, lists.strings)), (Texts{"8", "seven", "4294967295", ""}));
    EXPECT_EQ(strlist_delete_at(&list, 3), 0U);
    strlist *copy = strlist_refalloc(list, lists.nodes);
    EXPECT_EQ(strlist_getdynstr_at(copy, 1), strlist_getdynstr_at(list, 1));
    taken(list);
    EXPECT_EQ(taken(copy), (Texts{"8", "seven", "4294967295"}));
    EXPECT_EQ(text_of(dynstr_fromstrlist(lists.pool(), nullptr, ",")), "");
    dynstr *string = nullptr;
    _dynstr_ex_fromstrlist(lists.pool(), &string, nullptr, ",", __FILE__, __LINE__);
    EXPECT_EQ(dynstr_strlen(string), 0U);
    memm_free(string);
    EXPECT_EQ(dynstr_fromstrlist_escaped(0, nullptr, ",", '\\'), nullptr);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromstrlist_escaped: invalid poolid passed\r\n");
}

TEST(pairs, are_split_from_texts_and_found_by_their_first)
{
    const StringLists lists;
    struct {
        const char *whole, *delimiters, *first, *second, *afterwards;
    } const cases[] = {
        {"a:b", ":", "a", "b", "a:b"},         {"a:b", "=:", "a", "b", "a=b"}, {"a=b=c", "=", "a", "b=c", "a=b=c"},
        {"key", "=", "key", "", "key"},        {"=x", "=", "x", "", "=x"},     {"", ":", nullptr, nullptr, ""},
        {":::", ":", nullptr, nullptr, ":::"}, {"a:", ":", "a", "", "a:"}};
    strpairlist *list = nullptr;
    for (const auto &c : cases) {
        std::string whole = c.whole;
        strpair *const pair = strpair_fromstring(whole.data(), c.delimiters, lists.nodes, lists.strings);
        EXPECT_EQ(whole, c.afterwards);
        ASSERT_EQ(pair == nullptr, c.first == nullptr) << c.whole;
        if (pair != nullptr) {
            EXPECT_STREQ(strpair_getfirststring(pair), c.first);
            EXPECT_STREQ(strpair_getsecondstring(pair), c.second);
            EXPECT_EQ(strpairlist_addstringpair(&list, pair, lists.nodes), 0U);
        }
    }
    llist_addobject(&list, nullptr, lists.nodes);  // passed by the search
    EXPECT_EQ(strpairlist_addstrings(&list, "k", "1", lists.nodes, lists.strings), 0U);
    EXPECT_EQ(strpairlist_addstrings(&list, "k", "2", lists.nodes, lists.strings), 0U);
    EXPECT_STREQ(strpairlist_getsecondstring_byfirststring(list, "k"), "1");
    EXPECT_STREQ(strpairlist_getsecondstring_byfirststring(list, "K"), "*NOT_MEMMSTR*");
    EXPECT_EQ(strpairlist_getsecond_byfirststring(list, nullptr), nullptr);
    EXPECT_EQ(strpairlist_getlength(list), 6);
    EXPECT_EQ(strpairlist_setfirststring_at(list, "new", 7), 0U);
    EXPECT_EQ(strpairlist_setsecondstring_at(list, "3", 7), 0U);
    EXPECT_EQ(strpairlist_setsecondstring_at(list, "3", 6), MEMM_E_INVALID);
    EXPECT_EQ(strpair_setsecondstring(strpairlist_getpair_at(list, 8), "4"), 0U);
    EXPECT_STREQ(strpairlist_getfirststring_at(list, 7), "new");
    EXPECT_EQ(dynstr_strcmp2(strpairlist_getsecond_at(list, 8), "4"), 0);
    EXPECT_STREQ(strpairlist_getsecondstring_at(list, 99), "");
    EXPECT_EQ(strpairlist_getfirst_at(list, 6), nullptr);

    strpair *const copy = strpair_clone(strpairlist_getpair_at(list, 0), lists.nodes, lists.strings);
    EXPECT_NE(strpair_getfirst(copy), strpairlist_getfirst_at(list, 0));
    EXPECT_EQ(strpairlist_setpair_at(list, copy, 1), 0U);
    strpairlist *shallow = strpairlist_clone(list, lists.nodes);
    EXPECT_EQ(strpairlist_getlength(shallow), 6);
    EXPECT_EQ(strpairlist_getpair_at(shallow, 1), copy);
    while (shallow != nullptr)
        llist_remove_at(&shallow, 0);
    EXPECT_EQ(strpairlist_delete_at(&list, 0), 0U);
    EXPECT_EQ(llist_free_plist(&list), 0U);
}

}  // namespace
