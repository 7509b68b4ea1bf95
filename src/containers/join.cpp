#include "containers/strings.h"
#include "dynstring/place.h"

#include <cstring>
#include <string_view>

namespace memm::lists {

namespace {

// What is joined: the items [first, last) of a list, with a separator between them. `escape` is put before each of its
// own kind and of the separator's inside an item; 0 for none.
struct Join {
    const Node *list;
    std::string_view separator;
    char escape;
    int first;
    int last;

    bool escapes(char character) const noexcept
    {
        return escape != '\0' && (character == escape || (!separator.empty() && character == separator.front()));
    }
};

// Deliberate: a longer separator cannot be escaped.
char usable_escape(std::string_view separator, char escape) noexcept { return separator.size() <= 1 ? escape : '\0'; }

bool holds_only_strings(const Node *list) noexcept
{
    for (; list != nullptr; list = list->next) {
        if (!strings::is_string(list->obj)) {
            return false;
        }
    }
    return true;
}

std::string_view text_of(const Node &node) noexcept
{
    const strings::Source source = strings::whole_text(*static_cast<const dynstr *>(node.obj));
    return {source.text == nullptr ? "" : source.text, source.length};
}

u64 size_escaped(const Join &join, std::string_view text) noexcept
{
    u64 size = text.size();
    if (join.escape != '\0') {
        for (const char character : text) {
            size += join.escapes(character) ? 1 : 0;
        }
    }
    return size;
}

char *write(char *to, std::string_view text) noexcept
{
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

char *write_escaped(char *to, const Join &join, std::string_view text) noexcept
{
    if (join.escape == '\0') {
        return write(to, text);
    }
    for (const char character : text) {
        if (join.escapes(character)) {
            *to++ = join.escape;
        }
        *to++ = character;
    }
    return to;
}

// Calls separator() and item(text) in the order in which they stand; answers how many items there were.
template <typename Separator, typename Item>
int for_each_piece(const Join &join, Separator separator, Item item) noexcept
{
    int index = 0;
    int joined = 0;
    for (const Node *node = join.list; node != nullptr && index < join.last; node = node->next, ++index) {
        if (index >= join.first) {
            if (joined++ > 0) {
                separator();
            }
            item(text_of(*node));
        }
    }
    return joined;
}

// Measured once and written once, into room of the exact size. No item makes no text; empty items make an empty one.
Result fill(Held held, strings::TextPool &pool, dynstr &string, const Join &join) noexcept
{
    if (!holds_only_strings(join.list)) {
        return Result::invalid;
    }
    u64 size = 1;
    const int joined = for_each_piece(
        join, [&] { size += join.separator.size(); }, [&](std::string_view text) { size += size_escaped(join, text); });
    strings::Rewrite rewrite(held, pool, string);  // of a new string: there is no old text to set aside
    char *room = joined == 0 ? nullptr : rewrite.make_room(size, size);
    if (room != nullptr) {
        for_each_piece(
            join, [&] { room = write(room, join.separator); },
            [&](std::string_view text) { room = write_escaped(room, join, text); });
        *room = '\0';
        rewrite.wrote(static_cast<u32>(size), static_cast<u32>(size));
    }
    return rewrite.finish();
}

dynstr *join(Held held, unsigned strpool, const Join &join) noexcept
{
    const PoolId id{strpool};
    strings::TextPool *const pool = strings::text_pool(id);
    if (pool == nullptr || (join.list != nullptr && !is_node(join.list))) {
        return nullptr;
    }
    return strings::create_with(held, allocate(held, id),
                                [&](dynstr &string) { return fill(held, *pool, string, join); });
}

// Asked before the lock is taken.
bool is_string_pool(unsigned strpool, const char *function) noexcept
{
    if (strings::text_pool(PoolId{strpool}) == nullptr) {
        strings::trace_bad_pool(function);
        return false;
    }
    return true;
}

std::string_view separator_given(const char *separator) noexcept { return separator == nullptr ? "" : separator; }

int counted(const Node *list) noexcept { return is_node(list) ? length(list) : 0; }

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

dynstr *dynstr_fromstrlist(unsigned strpool, llist *list, const char *separator)
{
    if (!is_string_pool(strpool, "dynstr_fromstrlist")) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromstrlist");
    return join(lock.held(), strpool, {list, separator_given(separator), '\0', 0, counted(list)});
}

dynstr *dynstr_frompartialstrlist(unsigned strpool, llist *list, const char *separator, int first, int last)
{
    if (!is_string_pool(strpool, "dynstr_frompartialstrlist")) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_frompartialstrlist");
    return join(lock.held(), strpool, {list, separator_given(separator), '\0', first, last});
}

dynstr *dynstr_fromstrlist_escaped(unsigned strpool, llist *list, const char *separator, char escape)
{
    if (!is_string_pool(strpool, "dynstr_fromstrlist_escaped")) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromstrlist_escaped");
    const std::string_view text = separator_given(separator);
    return join(lock.held(), strpool, {list, text, usable_escape(text, escape), 0, counted(list)});
}

void _dynstr_ex_fromstrlist(unsigned strpool, dynstr **slot, llist *list, const char *separator, const char *file,
                            int line)
{
    if (slot != nullptr) {
        *slot = dynstr_fromstrlist(strpool, list, separator);
        memm_addToAllocateList(slot, file, line);
    }
}

void _dynstr_ex_fromstrlist_escaped(unsigned strpool, dynstr **slot, llist *list, const char *separator, char escape,
                                    const char *file, int line)
{
    if (slot != nullptr) {
        *slot = dynstr_fromstrlist_escaped(strpool, list, separator, escape);
        memm_addToAllocateList(slot, file, line);
    }
}

void _dynstr_ex_frompartialstrlist(unsigned strpool, dynstr **slot, llist *list, const char *separator, int first,
                                   int last, const char *file, int line)
{
    if (slot != nullptr) {
        *slot = dynstr_frompartialstrlist(strpool, list, separator, first, last);
        memm_addToAllocateList(slot, file, line);
    }
}
}
