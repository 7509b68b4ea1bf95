#include "containers/strings.h"
#include "dynstring/place.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

namespace memm::lists {

namespace {

// The end of the list: only strings are joined, so that there is no node before that ends it for counting.
constexpr int kAll = INT_MAX;

// What is joined: the items [first, last) of a list, with a separator between them. `escape` is put before each of its
// own kind and of the separator's inside an item; 0 for none.
struct Join {
    const Node *list;
    std::string_view separator;
    char escape;
    int first;
    int last;

    // For an escape that is not 0.
    bool escapes(char character) const noexcept
    {
        return character == escape || (!separator.empty() && character == separator.front());
    }
};

// Deliberate: a longer separator cannot be escaped.
char usable_escape(std::string_view separator, char escape) noexcept { return separator.size() <= 1 ? escape : '\0'; }

// Tells strings from other objects. Most items lie in the same pool as the one before.
class StringTest {
    PoolAid known_;  // a copy: what it needs stays in registers

public:
    // Begins with a string pool.
    explicit StringTest(const PoolAid &strings) noexcept : known_(strings) {}

    bool is_in_known_pool(const void *item) const noexcept
    {
        const auto slot = reinterpret_cast<std::uintptr_t>(item) - kHeaderBytes;
        return known_.holds(slot) && known_.is_slot(slot) &&
               ObjectHeader::of_slot(reinterpret_cast<const unsigned char *>(slot)).pool() == known_.id;
    }
    bool is_string(const void *item) noexcept
    {
        return is_in_known_pool(item) ? !strings::info_of(*static_cast<const dynstr *>(item)).is_deleted()
                                      : is_in_another_pool(item);
    }

private:
    [[gnu::noinline]] bool is_in_another_pool(const void *item) noexcept
    {
        if (!strings::is_string(item)) {
            return false;
        }
        known_ = *owner_of(item);
        return true;
    }
};

[[gnu::noinline]] std::string_view text_elsewhere(const dynstr &record) noexcept
{
    const strings::Source source = strings::whole_text(record);
    return {source.text == nullptr ? "" : source.text, source.length};
}

[[gnu::always_inline]] inline std::string_view text_of(const Node &node) noexcept
{
    const auto &record = *static_cast<const dynstr *>(node.obj);
    return strings::is_in_buffer(record) ? std::string_view(record.str, strings::info_of(record).size() - 1)
                                         : text_elsewhere(record);
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

struct Measure {
    bool only_strings = true;     // all items of the list, also those that are left out
    const Node *first = nullptr;  // of those that are joined
    int count = 0;
    u64 size = 0;  // without a terminating zero
};

Measure measure(const Join &join) noexcept
{
    Measure result;
    StringTest test{PoolAid{}};
    int index = 0;
    for (const Node *node = join.list; node != nullptr; node = node->next, ++index) {
        if (!test.is_string(node->obj)) {
            result.only_strings = false;
            return result;
        }
        if (index >= join.first && index < join.last) {
            result.first = result.count++ == 0 ? node : result.first;
            result.size += size_escaped(join, text_of(*node));
        }
    }
    if (result.count > 1) {
        result.size += join.separator.size() * static_cast<u64>(result.count - 1);
    }
    return result;
}

// Short pieces of the pool's own texts are copied with what stands behind them, which is cheaper than to look at their
// length; the next piece overwrites that.
constexpr std::size_t kShort = 32;

// A text in one of the pool's buffers, and kShort bytes from its start on too.
bool may_read_on(const strings::TextPool &pool, const char *text, u32 buffer) noexcept
{
    const auto at = reinterpret_cast<std::uintptr_t>(text);
    const auto first = reinterpret_cast<std::uintptr_t>(pool.buf[buffer]);
    return at >= first && at + kShort <= first + pool.used[buffer];
}

// Room for a text that is written piece by piece.
class Writer {
    const strings::TextPool &pool_;
    char *to_;
    char *const end_;

public:
    Writer(const strings::TextPool &pool, char *room, u64 size) noexcept : pool_(pool), to_(room), end_(room + size) {}

    void put(char character) noexcept { *to_++ = character; }
    void put(std::string_view text) noexcept
    {
        std::memcpy(to_, text.data(), text.size());
        to_ += text.size();
    }
    void put_item(const Node &node) noexcept
    {
        const std::string_view text = text_of(node);
        const auto &record = *static_cast<const dynstr *>(node.obj);
        if (text.size() <= kShort && static_cast<std::size_t>(end_ - to_) >= kShort &&
            may_read_on(pool_, record.str, strings::info_of(record).buffer())) [[likely]] {
            std::memcpy(to_, text.data(), kShort);
            to_ += text.size();
        } else {
            put(text);
        }
    }
};

void write_item(const Join &join, const Node &node, Writer &writer) noexcept
{
    if (join.escape == '\0') {
        writer.put_item(node);
        return;
    }
    for (const char character : text_of(node)) {
        if (join.escapes(character)) {
            writer.put(join.escape);
        }
        writer.put(character);
    }
}

void write(const Join &join, const Measure &measured, Writer &writer) noexcept
{
    const Node *node = measured.first;
    write_item(join, *node, writer);
    for (int left = measured.count - 1; left > 0; --left) {
        node = node->next;
        if (join.separator.size() == 1) [[likely]] {
            writer.put(join.separator.front());
        } else {
            writer.put(join.separator);
        }
        write_item(join, *node, writer);
    }
}

// The texts of a list, written to the fill position of a pool one behind the other, each with the separator behind it,
// as long as they lie in the buffers of one pool and there is room.
class Chain {
    const StringTest test_;
    const strings::TextPool &texts_;
    const char separator_;
    char *to_;
    char *const end_;
    u32 buffer_ = 0;                // where short texts are expected
    std::uintptr_t last_from_ = 0;  // the last of its places from which kShort bytes can be read

    void look_in(u32 buffer) noexcept
    {
        buffer_ = buffer;
        last_from_ = reinterpret_cast<std::uintptr_t>(texts_.buf[buffer]) + texts_.used[buffer] - kShort;
    }

public:
    Chain(const strings::TextPool &pool, const PoolAid &items, const strings::TextPool &texts, char separator) noexcept
        : test_(items), texts_(texts), separator_(separator), to_(pool.fill_position()),
          end_(to_ + std::min(pool.room(), strings::kMaxTextSize))
    {
        look_in(texts.curbuf);
    }
    char *end() const noexcept { return to_; }

    // Short texts that lie in one buffer, each copied with what stands behind it. The first node that it leaves.
    [[gnu::always_inline]] const Node *write_short(const Node *node) noexcept
    {
        const auto last_to = reinterpret_cast<std::uintptr_t>(end_) - 2 * kShort;
        const StringTest test = test_;
        char *to = to_;
        while (node != nullptr && test.is_in_known_pool(node->obj)) {
            const auto &record = *static_cast<const dynstr *>(node->obj);
            const strings::StringInfo info = strings::info_of(record);
            if (!info.is_plain_in(buffer_) || info.size() - 1 > kShort ||
                reinterpret_cast<std::uintptr_t>(record.str) > last_from_ ||
                reinterpret_cast<std::uintptr_t>(to) > last_to) [[unlikely]] {
                break;
            }
            std::memcpy(to, record.str, kShort);
            to += info.size();
            to[-1] = separator_;
            node = node->next;
        }
        to_ = to;
        return node;
    }

    // Any text; short ones of its buffer may follow.
    bool write_one(const Node &node) noexcept
    {
        if (!test_.is_in_known_pool(node.obj)) {
            return false;
        }
        const auto &record = *static_cast<const dynstr *>(node.obj);
        const strings::StringInfo info = strings::info_of(record);
        if (!info.is_plain() || info.size() == 0 || info.size() + kShort > static_cast<std::size_t>(end_ - to_)) {
            return false;
        }
        std::memcpy(to_, record.str, info.size() - 1);
        to_ += info.size();
        to_[-1] = separator_;
        look_in(info.buffer());
        return true;
    }
};

// Whole lists of texts in the buffers of one pool, joined by one character, need not be measured: they are
// written to the fill position as they are met. The size of the text there, its zero included; 0, and free space is as
// it was, where anything else turns up or room is short.
[[gnu::noinline]] u32 write_at_once(const strings::TextPool &pool, const PoolAid &items, const strings::TextPool &texts,
                                    const Node *node, const char separator) noexcept
{
    Chain chain(pool, items, texts, separator);
    while ((node = chain.write_short(node)) != nullptr && chain.write_one(*node)) {
        node = node->next;
    }
    char *const room = pool.fill_position();
    char *const end = chain.end();
    if (node != nullptr || end == room) [[unlikely]] {
        std::memset(room, 0, std::min<std::size_t>(end - room + kShort, pool.room()));
        return 0;
    }
    std::memset(end - 1, 0, kShort);  // the separator, and what was copied too much
    return static_cast<u32>(end - room);
}

[[gnu::always_inline]] inline u32 write_at_once(const strings::TextPool &pool, const Join &join) noexcept
{
    if (join.list == nullptr || join.separator.size() != 1 || join.escape != '\0' || join.first > 0 ||
        join.last != kAll) {
        return 0;
    }
    const strings::TextPool *const texts = strings::owner_pool(join.list->obj);
    return texts == nullptr
               ? 0
               : write_at_once(pool, registry.aid(PoolId{texts->poolid}), *texts, join.list, join.separator.front());
}

// Measured once and written once, into room of the exact size. No item makes no text; empty items make an empty one.
[[gnu::noinline]] Result fill_measured(Held held, strings::TextPool &pool, dynstr &string, const Join &join) noexcept
{
    const Measure measured = measure(join);
    if (!measured.only_strings) {
        return Result::invalid;
    }
    strings::Rewrite rewrite(held, pool, string);  // of a new string: there is no old text to set aside
    const u64 size = measured.size + 1;
    char *const room = measured.count == 0 ? nullptr : rewrite.make_room(size, size);
    if (room != nullptr) {
        Writer writer(pool, room, size);
        write(join, measured, writer);
        writer.put('\0');
        rewrite.wrote(static_cast<u32>(size), static_cast<u32>(size));
    }
    return rewrite.finish();
}

[[gnu::always_inline]] inline Result fill(Held held, strings::TextPool &pool, dynstr &string, const Join &join) noexcept
{
    const u32 size = write_at_once(pool, join);
    if (size == 0) {
        return fill_measured(held, pool, string, join);
    }
    string.str = pool.fill_position();
    strings::commit(held, pool, string, strings::StringInfo{0}.with_size(size));
    return Result::ok;
}

// Inline, for what most callers leave out is known then.
[[gnu::always_inline]] inline dynstr *join(Held held, strings::TextPool &pool, const Join &join) noexcept
{
    if (join.list != nullptr && !is_node(join.list)) {
        return nullptr;
    }
    return strings::create_with(held, allocate(held, PoolId{pool.poolid}),
                                [&](dynstr &string) { return fill(held, pool, string, join); });
}

// Asked before the lock is taken.
[[gnu::always_inline]] inline strings::TextPool *text_pool(unsigned strpool, const char *function) noexcept
{
    strings::TextPool *const pool = strings::text_pool(PoolId{strpool});
    if (pool == nullptr) {
        strings::trace_bad_pool(function);
    }
    return pool;
}

// One character as a rule.
std::string_view separator_given(const char *separator) noexcept
{
    if (separator == nullptr) {
        return "";
    }
    return separator[0] != '\0' && separator[1] == '\0' ? std::string_view(separator, 1) : separator;
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

dynstr *dynstr_fromstrlist(unsigned strpool, llist *list, const char *separator)
{
    strings::TextPool *const pool = text_pool(strpool, "dynstr_fromstrlist");
    if (pool == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromstrlist");
    return join(lock.held(), *pool, {list, separator_given(separator), '\0', 0, kAll});
}

dynstr *dynstr_frompartialstrlist(unsigned strpool, llist *list, const char *separator, int first, int last)
{
    strings::TextPool *const pool = text_pool(strpool, "dynstr_frompartialstrlist");
    if (pool == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_frompartialstrlist");
    return join(lock.held(), *pool, {list, separator_given(separator), '\0', first, last});
}

dynstr *dynstr_fromstrlist_escaped(unsigned strpool, llist *list, const char *separator, char escape)
{
    strings::TextPool *const pool = text_pool(strpool, "dynstr_fromstrlist_escaped");
    if (pool == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromstrlist_escaped");
    const std::string_view text = separator_given(separator);
    return join(lock.held(), *pool, {list, text, usable_escape(text, escape), 0, kAll});
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
