// Texts that are split into lists and pairs of strings, and joined again. Each operation gives back all that it makes.
#include "models/family.h"

int nodes, strings;

// The string is released.
std::string taken(dynstr *string)
{
    const std::string text = dynstr_getstring(string);
    memm_free(string);
    return text;
}

std::string any_text(Stream &in, unsigned most)
{
    std::string text(in.below(most), '\0');
    std::generate(text.begin(), text.end(), [&in] { return in.one_of(std::string_view(",;\\abc")); });
    return in.one_in(64) ? std::string(2030 + in.below(30), 'm') + text : text;
}

std::string join(const Texts &parts, const std::string &separator, std::size_t first, std::size_t last)
{
    std::string whole;
    for (std::size_t i = first; i < std::min(last, parts.size()); ++i)
        whole += (i == first ? "" : separator) + parts[i];
    return whole;
}

void split(Stream &in)
{
    const std::string separator = in.one_of(Texts{",", ";", ",,", ",;", "a,b"}), whole = any_text(in, 60);
    Texts parts, long_parts;  // an item that is too long for a limit holds the rest of the text
    for (std::size_t from = 0, end = 0; end != whole.npos; from = end + separator.size()) {
        end = whole.find(separator, from);
        parts.push_back(whole.substr(from, end - from));
        long_parts.push_back(end == whole.npos || end - from < 2047 ? parts.back() : whole.substr(from));
    }
    same(taken(strlist_fromstring(whole.c_str(), separator.c_str(), nodes, strings)), long_parts, "split");
    dynstr *const string = dynstr_fromstring(static_cast<unsigned>(strings), whole.c_str());
    strlist *const list = strlist_fromdynstr(string, separator.c_str(), nodes);
    same(taken(strlist_todynstr(list, separator.c_str(), strings)), whole, "joined again");
    same(taken(list), parts, "split of a string");
    memm_free(string);
}

void escape(Stream &in)
{
    std::string whole = any_text(in, 20), bytes = whole;
    auto kept = bytes.begin();
    bool is_escaped = false;
    for (char &c : bytes) {
        if (!is_escaped && (is_escaped = c == '\\'))
            continue;
        c = c == ',' && !is_escaped ? '\0' : c;
        is_escaped = false;
        *kept++ = c;
    }
    // Nothing ends the text where it has become shorter. A separator at its end has an item behind it.
    if (!bytes.empty() && bytes.back() == '\0')
        bytes += '\0';
    Texts parts;
    for (std::size_t at = 0; at < bytes.size(); at += parts.back().size() + 1)
        parts.emplace_back(bytes.c_str() + at);
    same(taken(strlist_fromstring_escaped(whole.data(), ',', '\\', nodes, strings)), parts, "split at escapes");
}

void join_all(Stream &in)
{
    Texts parts(in.below(6)), escaped(parts.size());
    strlist *list = nullptr;
    const std::string separator = in.one_of(Texts{",", ";", "", ", "});
    for (std::size_t i = 0; i < parts.size(); ++i) {
        parts[i] = any_text(in, 8);
        same(strlist_addstring(&list, parts[i].c_str(), nodes, strings), 0U, "addstring");
        for (const char c : parts[i])
            escaped[i] += (separator.size() < 2 && (c == '\\' || c == separator[0]) ? "\\" : "") + std::string(1, c);
    }
    const auto pool = static_cast<unsigned>(strings);
    same(taken(dynstr_fromstrlist(pool, list, separator.c_str())), join(parts, separator, 0, 9), "join");
    same(taken(dynstr_fromstrlist_escaped(pool, list, separator.c_str(), '\\')), join(escaped, separator, 0, 9),
         "join with escapes");
    const int first = in.within(0, 5), last = in.within(0, 5);
    same(taken(strlist_partialtodynstr(list, separator.c_str(), strings, first, last)),
         join(parts, separator, static_cast<unsigned>(first), static_cast<unsigned>(last)), "join of a part");
    same(taken(strlist_clone(list, nodes, strings)), parts, "clone");
    same(taken(strlist_refalloc(list, nodes)), parts, "shared strings");
    taken(list);
}

void pairs(Stream &in)
{
    strpairlist *list = nullptr;
    std::vector<Texts> model;
    for (unsigned count = in.below(5); count > 0; --count) {
        model.push_back({any_text(in, 3), any_text(in, 3)});
        same(strpairlist_addstrings(&list, model.back()[0].c_str(), model.back()[1].c_str(), nodes, strings), 0U,
             "addstrings");
    }
    const std::string delimiters = in.one_of(Texts{",", ";,", ",\\;"});
    const std::string whole = any_text(in, 10);
    strpair *const pair = strpair_fromstring(std::string(whole).data(), delimiters.c_str(), nodes, strings);
    if (const std::size_t from = whole.find_first_not_of(delimiters); from != whole.npos) {
        const std::size_t end = std::min(whole.find_first_of(delimiters, from), whole.size());
        model.push_back({whole.substr(from, end - from), whole.substr(std::min(end + 1, whole.size()))});
        same(strpairlist_addstringpair(&list, pair, nodes), 0U, "addstringpair");
    }

    const int size = static_cast<int>(model.size()), index = in.within(-1, 5),
              from_front = index < 0 ? size - 1 : index;
    const bool is_there = from_front >= 0 && from_front < size;
    const unsigned expected = is_there ? 0 : MEMM_E_INVALID;
    same(strpairlist_setfirststring_at(list, "k", index), expected, "setfirststring_at");
    same(strpairlist_setsecondstring_at(list, "v", index), expected, "setsecondstring_at");
    same(std::string(strpairlist_getfirststring_at(list, index)), is_there ? "k" : "", "getfirststring_at");
    if (is_there)
        model.begin()[from_front] = {"k", "v"};
    const auto with_key = std::ranges::find(model, "k", [](const Texts &texts) { return texts[0]; });
    same(std::string(strpairlist_getsecondstring_byfirststring(list, "k")),
         with_key == model.end() ? "*NOT_MEMMSTR*" : with_key->back(), "search");
    for (int i = 0; i < size; ++i)
        same(taken(strpair_clone(strpairlist_getpair_at(list, i), nodes, strings)), model.begin()[i],
             "clone of a pair");
    llist_free_plist(&list);
}

int live() { return pool_at(strings).cur_count - *pool_at(strings).count_base + pool_at(nodes).cur_count; }

void step(Stream &in)
{
    static constexpr void (*kOperations[])(Stream &) = {split, escape, join_all, pairs};
    nodes = nodes != 0 ? nodes : llist_initpool("", 200, sizeof(llist), nullptr);
    strings = strings != 0 ? strings : dynstr_initpool2("", 200, 400000, 2);
    const int before = live();
    in.one_of(kOperations)(in);
    same(live(), before, "nodes and strings left");
}
