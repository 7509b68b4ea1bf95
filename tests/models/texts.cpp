// Texts that are split into lists and pairs of strings, and joined again. Each operation gives back all that it makes.
#include "dynstring/text_pool.h"
#include "models/family.h"
#include "support/pools.h"

#include <memmanager/strpair.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

using Texts = std::vector<std::string>;

class Trial {
    const int nodes_ = llist_initpool("", 200, sizeof(llist), nullptr);
    const int strings_ = dynstr_initpool2("", 200, 400000, 2);
    const int before_ = live();

    unsigned pool() const { return static_cast<unsigned>(strings_); }
    int live() const
    {
        const memm_pool &texts = pool_at(pool());
        return texts.cur_count - *texts.count_base + pool_at(static_cast<unsigned>(nodes_)).cur_count;
    }

    // The list or the string is released.
    static Texts taken(strlist *list)
    {
        Texts texts;
        for (const llist *node = list; node != nullptr; node = node->next)
            texts.emplace_back(dynstr_getstring(static_cast<dynstr *>(node->obj)));
        llist_free_plist(&list);
        return texts;
    }
    static std::string taken(dynstr *string)
    {
        const std::string text = dynstr_getstring(string);
        memm_free(string);
        return text;
    }

    static std::string any_text(Stream &in, unsigned most)
    {
        std::string text;
        for (unsigned length = in.below(most); length > 0; --length)
            text += in.one_of(std::string_view(",;\\abc"));
        return in.one_in(64) ? std::string(2030 + in.below(30), 'm') + text : text;
    }
    static Texts any_texts(Stream &in)
    {
        Texts texts(in.below(6));
        std::generate(texts.begin(), texts.end(), [&in] { return any_text(in, 8); });
        return texts;
    }
    strlist *list_of(const Texts &texts)
    {
        strlist *list = nullptr;
        for (const std::string &text : texts)
            found.same(strlist_addstring(&list, text.c_str(), nodes_, strings_), 0U, "addstring");
        return list;
    }
    static std::string join(const Texts &parts, const std::string &separator, std::size_t first, std::size_t last)
    {
        std::string whole;
        for (std::size_t i = first; i < std::min(last, parts.size()); ++i)
            whole += (i == first ? "" : separator) + parts[i];
        return whole;
    }

    // --- operations ---

    void split(Stream &in)
    {
        const std::string separator = in.one_of(Texts{",", ";", ",,", ",;", "a,b"}), whole = any_text(in, 60);
        Texts parts, long_parts;  // an item that is too long for a limit holds the rest of the text
        std::size_t from = 0;
        for (std::size_t at; (at = whole.find(separator, from)) != whole.npos; from = at + separator.size()) {
            parts.push_back(whole.substr(from, at - from));
            long_parts.push_back(at - from < 2047 ? parts.back() : whole.substr(from));
        }
        parts.push_back(whole.substr(from));
        long_parts.push_back(parts.back());
        found.same(taken(strlist_fromstring(whole.c_str(), separator.c_str(), nodes_, strings_)), long_parts, "split");
        dynstr *const string = dynstr_fromstring(pool(), whole.c_str());
        strlist *const list = strlist_fromdynstr(string, separator.c_str(), nodes_);
        found.same(taken(strlist_todynstr(list, separator.c_str(), strings_)), whole, "joined again");
        found.same(taken(list), parts, "split of a string");
        memm_free(string);
    }

    void escape(Stream &in)
    {
        const std::string whole = any_text(in, 20);
        std::string kept, marked = whole;  // without escapes, with zeros for separators; and with zeros alone
        bool is_escaped = false;
        for (char &c : marked) {
            if (!is_escaped && (is_escaped = c == '\\'))
                continue;
            c = c == ',' && !is_escaped ? '\0' : c;
            is_escaped = false;
            kept += c;
        }
        // Nothing ends the text where it has become shorter. A separator at its end has an item behind it.
        std::string bytes = kept + marked.substr(kept.size());
        if (!marked.empty() && marked.back() == '\0')
            bytes += '\0';
        Texts parts;
        for (std::size_t at = 0; at < bytes.size(); at += parts.back().size() + 1)
            parts.emplace_back(bytes.c_str() + at);
        std::string changed = whole;
        found.same(taken(strlist_fromstring_escaped(changed.data(), ',', '\\', nodes_, strings_)), parts,
                   "split at escapes");
    }

    void join_all(Stream &in)
    {
        const Texts parts = any_texts(in);
        Texts escaped;
        const std::string separator = in.one_of(Texts{",", ";", "", ", "});
        for (const std::string &part : parts) {
            escaped.emplace_back();
            for (const char c : part)
                escaped.back() +=
                    (separator.size() < 2 && (c == '\\' || c == separator[0]) ? "\\" : "") + std::string(1, c);
        }
        strlist *const list = list_of(parts);
        found.same(taken(dynstr_fromstrlist(pool(), list, separator.c_str())), join(parts, separator, 0, 9), "join");
        found.same(taken(dynstr_fromstrlist_escaped(pool(), list, separator.c_str(), '\\')),
                   join(escaped, separator, 0, 9), "join with escapes");
        const unsigned first = in.below(6), last = in.below(6);
        found.same(taken(strlist_partialtodynstr(list, separator.c_str(), strings_, static_cast<int>(first),
                                                 static_cast<int>(last))),
                   join(parts, separator, first, last), "join of a part");
        found.same(taken(strlist_clone(list, nodes_, strings_)), parts, "clone");
        found.same(taken(strlist_refalloc(list, nodes_)), parts, "shared strings");
        taken(list);
    }

    void pairs(Stream &in)
    {
        strpairlist *list = nullptr;
        std::vector<std::pair<std::string, std::string>> model;
        for (unsigned count = in.below(5); count > 0; --count) {
            const std::string first = any_text(in, 3), second = any_text(in, 3);
            found.same(strpairlist_addstrings(&list, first.c_str(), second.c_str(), nodes_, strings_), 0U,
                       "addstrings");
            model.emplace_back(first, second);
        }
        const std::string delimiters = in.one_of(Texts{",", ";,", ",\\;"});
        std::string whole = any_text(in, 10), changed = whole;
        strpair *const pair = strpair_fromstring(changed.data(), delimiters.c_str(), nodes_, strings_);
        if (const std::size_t from = whole.find_first_not_of(delimiters); from != whole.npos) {
            const std::size_t end = std::min(whole.find_first_of(delimiters, from), whole.size());
            model.emplace_back(whole.substr(from, end - from), whole.substr(std::min(end + 1, whole.size())));
            if (end < whole.size())
                whole[end] = delimiters[0];
            found.same(strpairlist_addstringpair(&list, pair, nodes_), 0U, "addstringpair");
        }
        found.same(changed, whole, "text that was split into a pair");

        const int index = in.within(-1, 5), size = static_cast<int>(model.size());
        const bool is_there = index < size && (index >= 0 || size > 0);
        const unsigned expected = is_there ? 0 : MEMM_E_INVALID;
        found.same(strpairlist_setfirststring_at(list, "k", index), expected, "setfirststring_at");
        found.same(strpairlist_setsecondstring_at(list, "v", index), expected, "setsecondstring_at");
        if (is_there)
            model[static_cast<unsigned>(index < 0 ? size - 1 : index)] = {"k", "v"};
        found.same(std::string(strpairlist_getfirststring_at(list, index)), is_there ? "k" : "", "getfirststring_at");
        found.same(strpairlist_getlength(list), size, "getlength");
        const auto with_key = std::find_if(model.begin(), model.end(), [](auto &p) { return p.first == "k"; });
        found.same(std::string(strpairlist_getsecondstring_byfirststring(list, "k")),
                   with_key == model.end() ? "*NOT_MEMMSTR*" : with_key->second, "search");
        for (int i = 0; i < size; ++i) {
            const auto &[first, second] = model[static_cast<unsigned>(i)];
            strpair *const copy = strpair_clone(strpairlist_getpair_at(list, i), nodes_, strings_);
            found.same(taken(copy), Texts{first, second}, "clone of a pair");
        }
        llist_free_plist(&list);
    }

public:
    Difference found;

    void step(Stream &in)
    {
        static constexpr void (Trial::*kOperations[])(Stream &) = {&Trial::split, &Trial::escape, &Trial::join_all,
                                                                   &Trial::pairs};
        (this->*in.one_of(kOperations))(in);
        found.same(live(), before_, "nodes and strings left");
    }
};

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static const int started = memm_init(16, 6);
    static Trial trial;
    for (Stream in(bytes); started == MEMM_OK && !in.is_empty() && trial.found.is_none(); ++operations)
        trial.step(in);
    return trial.found.first();
}
