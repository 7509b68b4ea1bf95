#include "dynstring/edit.h"

#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <cstring>

namespace memm::strings {

const char *text_of(const void *pointer) noexcept
{
    const PoolAid *const aid = owner_of(pointer);
    if (aid == nullptr || load(aid->pool->options.cookie) == nullptr) {
        return "*NOT_MEMMSTR*";
    }
    if (aid->pool->slot_size < slot_bytes(sizeof(dynstr)) || text_pool_of(*aid) == nullptr) {
        return "*NOT_DYNSTR*";
    }
    const auto &record = *static_cast<const dynstr *>(pointer);
    if (info_of(record).is_deleted()) {
        return "*DELETED_DYNSTR*";
    }
    return record.str == nullptr ? "" : record.str;
}

namespace {

// A text that is in place may have to be shortened to fit; when that fails the limit stays as it was.
Result limit(Held held, dynstr &record, u32 max) noexcept
{
    if (max != 0 && max < size_of(record)) {
        if (const Result cut = assign(held, &record, whole_text(record), 0, static_cast<int>(max - 1));
            cut != Result::ok) {
            return cut;
        }
    }
    set_info(record, info_of(record).with_max_size(max));
    return Result::ok;
}

void trace_bad_argument(const char *text) noexcept
{
    if (is_traced(1)) {
        trc_def_printf("%s", text);
    }
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

dynstr *dynstr_calloc(unsigned poolid) { return static_cast<dynstr *>(memm_calloc(poolid)); }

// Any pool may be asked; where its objects are too small for records, or are descriptors, nothing is written.
dynstr *dynstr_calloc_maxsize(unsigned poolid, unsigned max)
{
    dynstr *const record = dynstr_calloc(poolid);
    const PoolAid *const aid = record == nullptr ? nullptr : registry.find_aid(PoolId{poolid});
    if (aid != nullptr && aid->is_ordinary && aid->pool->slot_size >= slot_bytes(sizeof(dynstr))) {
        set_info(*record, info_of(*record).with_max_size(max));
    }
    return record;
}

dynstr *dynstr_calloc_maxlen(unsigned poolid, unsigned max) { return dynstr_calloc_maxsize(poolid, max + 1); }

dynstr *dynstr_refalloc(dynstr *d) { return static_cast<dynstr *>(memm_refalloc(d)); }

const char *dynstr_getstring(const dynstr *d)
{
    const ManagerLock lock("dynstr_getstring");
    return text_of(d);
}

const char *dynstr_getstring_nolock(const dynstr *d) { return text_of(d); }

// Deliberately cheap: any other pointer than null is believed to be a record.
unsigned dynstr_strlen(const dynstr *d) { return d == nullptr ? 0 : length_of(*d); }

unsigned dynstr_getmaxsize(const dynstr *d)
{
    if (!is_string(d)) {
        trace_bad_argument("[DYNSTR] \"dynstr_getmaxsize() invalid param\"\r\n");
        return 0;
    }
    return info_of(*d).max_size();
}

unsigned dynstr_setmaxsize(dynstr *d, unsigned max)
{
    if (!is_string(d)) {
        trace_bad_argument("[DYNSTR] \"dynstr_setmaxsize() invalid param\"\r\n");
        return to_c(Result::invalid);
    }
    const ManagerLock lock("dynstr_setmaxsize");
    return to_c(limit(lock.held(), *d, max));
}

unsigned dynstr_reset(dynstr *d)
{
    if (!is_string(d)) {
        trace_bad_argument("[DYNSTR] \"dynstr_reset() invalid param\"\r\n");
        return to_c(Result::invalid);
    }
    const ManagerLock lock("dynstr_reset");
    const Result emptied = assign(lock.held(), d, text_given(""), 0, -1);
    if (emptied == Result::ok) {
        set_info(*d, info_of(*d).with_max_size(0));
    }
    return to_c(emptied);
}

int dynstr_strcmp(const dynstr *a, const dynstr *b)
{
    const ManagerLock lock("dynstr_strcmp");
    return std::strcmp(text_of(a), text_of(b));
}

int dynstr_strcmp2(const dynstr *d, const char *text)
{
    const ManagerLock lock("dynstr_strcmp2");
    return std::strcmp(text_of(d), text == nullptr ? "" : text);
}

char *dynstr_strncpy(char *destination, const dynstr *d, unsigned n)
{
    const ManagerLock lock("dynstr_strncpy");
    if (destination != nullptr && n >= 1) {
        std::strncpy(destination, text_of(d), n - 1);
        destination[n - 1] = '\0';
    }
    return destination;
}
}
