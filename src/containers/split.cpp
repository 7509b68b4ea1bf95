#include "containers/strings.h"

#include <cstring>

namespace memm::lists {

namespace {

bool is_empty(const char *text) noexcept { return text == nullptr || *text == '\0'; }

// A finished record whose text is then set: it stays, empty, when that finds no room.
dynstr *make_record(Held held, int strpool, strings::TextPool *&pool) noexcept
{
    const PoolId id{static_cast<u32>(strpool)};
    pool = strings::text_pool(id);
    return pool == nullptr ? nullptr : strings::allocate_record(held, id);
}

// The item is what comes before a size of so many bytes is reached. Deliberate: that is a limit on the record, so where
// no record can hold it, the item keeps the whole source.
dynstr *make_item(Held held, int strpool, const strings::Source &source, std::size_t limit) noexcept
{
    strings::TextPool *pool = nullptr;
    dynstr *const item = make_record(held, strpool, pool);
    if (item == nullptr) {
        return nullptr;
    }
    if (limit > 1 && limit <= strings::kMaxSizeLimit) [[likely]] {
        static_cast<void>(strings::assign_first(held, *pool, *item, source, 0, static_cast<int>(limit - 1)));
        return item;
    }
    const auto set_limit = [item](u32 max) { strings::set_info(*item, strings::info_of(*item).with_max_size(max)); };
    set_limit(static_cast<u32>(limit));
    static_cast<void>(strings::assign(held, *pool, *item, source, 0, -1));
    set_limit(0);
    return item;
}

// A separator, at least one character long.
class Separator {
    const char *text_;
    std::size_t length_;

public:
    explicit Separator(const char *text) noexcept : text_(text), length_(std::strlen(text)) {}
    std::size_t length() const noexcept { return length_; }

    // The next one from here on; null when there is none before the end, where the text has its zero.
    const char *find(const char *from, const char *end) const noexcept
    {
        if (length_ == 1) {
            return static_cast<const char *>(std::memchr(from, *text_, static_cast<std::size_t>(end - from)));
        }
        return std::strstr(from, text_);
    }
};

// Deliberate: behind an item that keeps the whole rest of the text, the split goes on behind its separator all the
// same.
Node *split(Held held, const char *text, const Separator &separator, int poolid, int strpool) noexcept
{
    StringListBuilder items(held, poolid);
    const char *const end = text + std::strlen(text);
    for (const char *found; (found = separator.find(text, end)) != nullptr; text = found + separator.length()) {
        const strings::Source rest{strings::Source::Kind::text, text, static_cast<std::size_t>(end - text)};
        items.add(make_item(held, strpool, rest, static_cast<std::size_t>(found - text) + 1));
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

// The first item of what is left of a string's text, in the same pool. Making its record may move the text.
dynstr *make_part(Held held, strings::TextPool &pool, const dynstr &whole, int offset, int length) noexcept
{
    return strings::create_with(held, strings::allocate_record(held, PoolId{pool.poolid}), [&](dynstr &item) {
        return strings::assign_first(held, pool, item, strings::whole_text(whole), offset, length);
    });
}

// Only the place in the text is kept from item to item, for it moves. What is no string has a text that says so, of
// which every attempt to make an item is reported.
Node *split_string(Held held, const dynstr *string, const Separator &separator, int poolid) noexcept
{
    StringListBuilder items(held, poolid);
    strings::TextPool *const pool = strings::changeable(string);
    std::size_t offset = 0;
    for (bool more = true; more;) {
        const strings::Source source =
            pool != nullptr ? strings::whole_text(*string) : strings::text_given(strings::text_of(string));
        const char *const text = source.text == nullptr ? "" : source.text + offset;
        const char *const found = separator.find(text, text + (source.length - offset));
        more = found != nullptr;
        const auto length = more ? static_cast<std::size_t>(found - text) : 0;
        const int taken = more ? static_cast<int>(length) : -1;
        items.add(pool != nullptr ? make_part(held, *pool, *string, static_cast<int>(offset), taken)
                                  : strings::copy_part(held, string, static_cast<int>(offset), taken));
        offset += length + separator.length();
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
    return text == nullptr || is_empty(separator) ? nullptr
                                                  : split(lock.held(), text, Separator(separator), poolid, strpool);
}

strlist *strlist_fromstring_escaped(char *text, char separator, char escape, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstring_escaped");
    return text == nullptr ? nullptr : split_escaped(lock.held(), text, separator, escape, poolid, strpool);
}

strlist *strlist_fromdynstr(dynstr *string, const char *separator, int poolid)
{
    const ManagerLock lock("strlist_fromdynstr");
    return string == nullptr || is_empty(separator) ? nullptr
                                                    : split_string(lock.held(), string, Separator(separator), poolid);
}

strlist *strlist_fromstringarr(const char *const *array, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstringarr");
    return array == nullptr ? nullptr : from_array(lock.held(), array, poolid, strpool);
}
}
