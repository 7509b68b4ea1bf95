#include "containers/strings.h"

#include <cstring>

namespace memm::lists {

namespace {

bool is_empty(const char *text) noexcept { return text == nullptr || *text == '\0'; }

// A finished record whose text is then set: it stays, empty, when that finds no room. `limit` bounds the text
// meanwhile.
dynstr *make_item(Held held, int strpool, const strings::Source &source, std::size_t limit) noexcept
{
    const PoolId id{static_cast<u32>(strpool)};
    strings::TextPool *const pool = strings::text_pool(id);
    auto *const item = pool == nullptr ? nullptr : static_cast<dynstr *>(allocate(held, id));
    if (item != nullptr) {
        const auto set_limit = [item](u32 max) {
            strings::set_info(*item, strings::info_of(*item).with_max_size(max));
        };
        set_limit(static_cast<u32>(limit));
        static_cast<void>(strings::assign(held, *pool, *item, source, 0, -1));
        set_limit(0);
    }
    return item;
}

// Deliberate: an item is cut at its separator by a limit on its size. Where no record can hold the limit, the item
// keeps the whole rest of the text, and the split goes on behind its separator all the same.
Node *split(Held held, const char *text, const char *separator, int poolid, int strpool) noexcept
{
    StringListBuilder items(held, poolid);
    const std::size_t step = std::strlen(separator);
    const char *const end = text + std::strlen(text);
    for (const char *found = std::strstr(text, separator); found != nullptr; found = std::strstr(text, separator)) {
        const strings::Source rest{strings::Source::Kind::text, text, static_cast<std::size_t>(end - text)};
        items.add(make_item(held, strpool, rest, static_cast<std::size_t>(found - text) + 1));
        text = found + step;
    }
    items.add(strings::create_from_text(held, PoolId{static_cast<u32>(strpool)}, text));
    return items.list();
}

// Turns separators into terminators and takes escape characters out, in place. Answers the end of what is to be split:
// a separator at the very end still has an item behind it.
const char *unescape(char *text, char separator, char escape) noexcept
{
    char *written = text;
    bool ends_in_separator = false;
    while (*text != '\0') {
        ends_in_separator = false;
        if (*text == escape) {
            if (*++text == '\0') {
                break;
            }
        } else if (*text == separator) {
            *text = '\0';
            ends_in_separator = true;
        }
        *written++ = *text++;
    }
    return ends_in_separator ? text + 1 : text;
}

// Deliberate: nothing ends the text where writing ended, so after removed escapes the last item keeps what stood there.
Node *split_escaped(Held held, char *text, char separator, char escape, int poolid, int strpool) noexcept
{
    StringListBuilder items(held, poolid);
    const char *const end = unescape(text, separator, escape);
    for (const char *item = text; item < end;) {
        const std::size_t length = std::strlen(item);
        items.add(make_item(held, strpool, strings::text_given(item), length + 1));
        item += length + 1;
    }
    return items.list();
}

// The text may move whenever an item is made: only the place in it is kept.
Node *split_string(Held held, const dynstr *string, const char *separator, int poolid) noexcept
{
    StringListBuilder items(held, poolid);
    const std::size_t step = std::strlen(separator);
    std::size_t offset = 0;
    for (bool more = true; more;) {
        const char *const text = strings::text_of(string) + offset;
        const char *const found = std::strstr(text, separator);
        more = found != nullptr;
        const std::size_t length = more ? static_cast<std::size_t>(found - text) : 0;
        items.add(strings::copy_part(held, string, static_cast<int>(offset), more ? static_cast<int>(length) : -1));
        offset += length + step;
    }
    return items.list();
}

Node *from_array(Held held, const char *const *array, int poolid, int strpool) noexcept
{
    StringListBuilder items(held, poolid);
    for (; *array != nullptr; ++array) {
        items.add(strings::create_from_text(held, PoolId{static_cast<u32>(strpool)}, *array));
    }
    return items.list();
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

strlist *strlist_fromstring(const char *text, const char *separator, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstring");
    return text == nullptr || is_empty(separator) ? nullptr : split(lock.held(), text, separator, poolid, strpool);
}

strlist *strlist_fromstring_escaped(char *text, char separator, char escape, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstring_escaped");
    return text == nullptr ? nullptr : split_escaped(lock.held(), text, separator, escape, poolid, strpool);
}

strlist *strlist_fromdynstr(dynstr *string, const char *separator, int poolid)
{
    const ManagerLock lock("strlist_fromdynstr");
    return string == nullptr || is_empty(separator) ? nullptr : split_string(lock.held(), string, separator, poolid);
}

strlist *strlist_fromstringarr(const char *const *array, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstringarr");
    return array == nullptr ? nullptr : from_array(lock.held(), array, poolid, strpool);
}
}
