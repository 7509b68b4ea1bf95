#include "dynstring/text_pool.h"

#include <memmanager/platform.h>
#include <cstring>

namespace memm::strings {

namespace {

// One pass along the list of a buffer. Findings print as they come; they change nothing.
class BufferCheck {
    const TextPool &pool_;
    const u32 buffer_;
    const bool verbose_;
    bool sound_ = true;
    int listed_ = 0;
    int deleted_ = 0;

    template <typename... Arguments> void fault(const char *text, Arguments... arguments) noexcept
    {
        sound_ = false;
        if constexpr (sizeof...(arguments) == 0) {
            dbg_printf("%s", text);
        } else {
            dbg_printf(text, arguments...);
        }
    }

    void check_ends() noexcept
    {
        const dynstr *const first = pool_.first[buffer_];
        const dynstr *const last = pool_.last[buffer_];
        const u32 used = pool_.used[buffer_];
        const int number = static_cast<int>(buffer_);
        if (first == nullptr && used != 0) {
            fault("\r\n  - E: buffer %d has no first dynstr but has used bytes, ", number);
        }
        if (last == nullptr && used != 0) {
            fault("\r\n  - E: buffer %d has no last dynstr but has used bytes, ", number);
        }
        if (last != nullptr && last->str - pool_.buf[buffer_] + size_of(*last) != used) {
            fault("\r\n  - E: buffer %d used bytes doesn't match last dynstr, ", number);
        }
        if (first != nullptr && first->prev != nullptr) {
            fault("\r\n  - E: first has nonzero prev, ");
        }
    }

    void check_size(const dynstr &record) noexcept
    {
        const StringInfo info = info_of(record);
        if (info.max_size() != 0 && info.max_size() < info.size()) {
            fault("\r\n  - E: DYNSTR_MAXSIZE(%d) < DYNSTR_SIZE(%d), ", static_cast<int>(info.max_size()),
                  static_cast<int>(info.size()));
        }
        const std::size_t real = record.str == nullptr ? 0 : std::strlen(record.str) + 1;
        if (info.size() != 0 && info.size() != real) {
            fault("\r\n  - E: DYNSTR_SIZE(%d) != strlen+1(%d, '%s'), ", static_cast<int>(info.size()),
                  static_cast<int>(real), dynstr_getstring(&record));
        }
    }

    void check_record(const dynstr &record) noexcept
    {
        const dynstr *const next = record.next;
        check_size(record);
        if (next != nullptr && next->prev != &record) {
            fault("\r\n  - E: next->prev != curr, ");
        }
        ++listed_;
        if (!is_in_buffer(record, buffer_)) {
            fault("\r\n  - E: curr has wrong buffernr, ");
        }
        deleted_ += info_of(record).is_deleted() ? 1 : 0;
        if (!is_in_buffer(record)) {
            fault("\r\n  - E: literal pstr found, ");
        }
        if (next == nullptr && &record != pool_.last[buffer_]) {
            fault("\r\n  - E: !next && last != curr, ");
        }
        if (next != nullptr && record.str >= next->str) {
            fault("\r\n  - E: next->str >= curr->str, ");
        }
    }

public:
    BufferCheck(const TextPool &pool, u32 buffer, bool verbose) noexcept
        : pool_(pool), buffer_(buffer), verbose_(verbose)
    {
    }

    bool run() noexcept
    {
        if (verbose_) {
            dbg_printf(" + alloc-list buffer %d: ", static_cast<int>(buffer_));
        }
        check_ends();
        for (dynstr *record = pool_.first[buffer_]; record != nullptr; record = record->next) {
            if (verbose_) {
                dbg_printf("\r\n%08lx", reinterpret_cast<unsigned long>(record->str));
                print_record(record);
            }
            check_record(*record);
        }
        if (verbose_) {
            dbg_printf("%s--> cnt=%d, delcnt=%d\r\n", sound_ ? "" : "\r\n  ", listed_, deleted_);
        }
        return sound_;
    }
};

// A pool without any object has nothing to check. Asked of the counter: the check may come without the lock, and a
// search would correct the slot index.
const TextPool *checkable(PoolId id) noexcept
{
    const PoolAid *const aid = registry.find_aid(id);
    return aid != nullptr && load(aid->pool->cur_count) > 0 ? text_pool_of(*aid) : nullptr;
}

bool check(PoolId id, bool verbose) noexcept
{
    const TextPool *const pool = checkable(id);
    if (pool == nullptr) {
        return true;
    }
    if (verbose) {
        dbg_printf("Checking dynstr pool '%s'\r\n", pool->name);
    }
    bool sound = true;
    for (u32 buffer = 0; buffer < pool->bufcnt; ++buffer) {
        sound = BufferCheck(*pool, buffer, verbose).run() && sound;
    }
    return sound;
}

}  // namespace

bool pool_is_sound(Held, PoolId id) noexcept { return check(id, false); }

}  // namespace memm::strings

using namespace memm;

extern "C" {

int dynstr_integrity_check(unsigned poolid, int verbose)
{
    const BusyTask busy;
    return strings::check(PoolId{poolid}, verbose != 0) ? 1 : 0;
}
}
