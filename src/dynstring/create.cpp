#include "dynstring/create.h"

#include "memmanager/slots.h"

#include <cstring>

namespace memm::strings {

[[gnu::noinline]] dynstr *create_at_length(Held held, TextPool &pool, Source source, int offset, int length) noexcept
{
    return create_with(held, allocate_without_gc(held, PoolId{pool.poolid}),
                       [&](dynstr &record) { return assign_first(held, pool, record, source, offset, length); });
}

dynstr *create_from_text(Held held, PoolId id, const char *text) noexcept
{
    TextPool *const pool = text_pool(id);
    if (pool == nullptr) {
        trace_bad_pool("dynstr_fromstring_nolock");
        return nullptr;
    }
    return create(held, *pool, text_given(text), 0, -1);
}

namespace {

// In the pool of its source. Making room for the record may move the source's text, so that is looked at afterwards.
dynstr *copy(Held held, const dynstr *source, int offset, int length) noexcept
{
    TextPool &pool = *owner_pool(source);
    return create_with(held, allocate(held, PoolId{pool.poolid}), [&](dynstr &record) {
        return assign_first(held, pool, record, whole_text(*source), offset, length);
    });
}

dynstr *copy_whole(Held held, const dynstr *source) noexcept
{
    if (!is_string(source)) {
        trace_bad_string("dynstr_fromdynstr_nolock");
        return nullptr;
    }
    return copy(held, source, 0, -1);
}

}  // namespace

// Deliberate: a bad source is reported as a bad pool.
dynstr *copy_part(Held held, const dynstr *source, int offset, int length) noexcept
{
    if (!is_string(source)) {
        trace_bad_pool("dynstr_fromsubdynstr_nolock");
        return nullptr;
    }
    return copy(held, source, offset, length);
}

namespace {

// The text stays the caller's; the record only points to it.
dynstr *refer_to(Held held, PoolId pool, const char *text) noexcept
{
    return create_with(held, allocate(held, pool), [&](dynstr &record) {
        const std::size_t length = std::strlen(text);
        if (length >= kMaxTextSize) {
            trace_bad_size();
            return Result::no_memory;
        }
        record.str = const_cast<char *>(text);
        set_size(record, static_cast<u32>(length + 1));
        set_literal(record, true);
        return Result::ok;
    });
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

// Called more than the others: in one piece.
[[gnu::flatten]] dynstr *dynstr_fromstring(unsigned poolid, const char *text)
{
    const ManagerLock lock("dynstr_fromstring");
    return create_from_text(lock.held(), PoolId{poolid}, text);
}

dynstr *dynstr_fromstring_nolock(unsigned poolid, const char *text)
{
    const BusyTask busy;
    return create_from_text(Held::by_caller(), PoolId{poolid}, text);
}

dynstr *dynstr_fromsubstring(unsigned poolid, const char *text, int offset, int length)
{
    TextPool *const pool = text_pool(PoolId{poolid});
    if (pool == nullptr) {
        trace_bad_pool("dynstr_fromsubstring");
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromsubstring");
    return strings::create(lock.held(), *pool, text_given(text), offset, length);
}

dynstr *dynstr_fromdynstr(const dynstr *source)
{
    const ManagerLock lock("dynstr_fromdynstr");
    return copy_whole(lock.held(), source);
}

dynstr *dynstr_fromdynstr_nolock(const dynstr *source)
{
    const BusyTask busy;
    return copy_whole(Held::by_caller(), source);
}

dynstr *dynstr_fromsubdynstr(const dynstr *source, int offset, int length)
{
    const ManagerLock lock("dynstr_fromsubdynstr");
    return copy_part(lock.held(), source, offset, length);
}

dynstr *dynstr_fromsubdynstr_nolock(const dynstr *source, int offset, int length)
{
    const BusyTask busy;
    return copy_part(Held::by_caller(), source, offset, length);
}

dynstr *dynstr_fromliteral(unsigned poolid, const char *text)
{
    if (text_pool(PoolId{poolid}) == nullptr) {
        trace_bad_pool("dynstr_fromliteral");
        return nullptr;
    }
    if (text == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("dynstr_fromliteral");
    return refer_to(lock.held(), PoolId{poolid}, text);
}
}
