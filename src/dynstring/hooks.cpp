#include "dynstring/text_pool.h"

#include "memmanager/trace.h"
#include "memmanager/usage.h"

#include <memmanager/platform.h>
#include <cstring>

// What the memory manager asks of a string pool, with the manager lock held.
namespace memm::strings {

namespace {

constexpr std::size_t kShownText = 47;

u32 average(u32 total, u32 count) noexcept { return count == 0 ? 0 : total / count; }

int buffer_number(const dynstr &record) noexcept
{
    return is_in_buffer(record) ? static_cast<int>(info_of(record).buffer()) : -1;
}

}  // namespace

// A deleted record shows the text that it had.
void print_record(void *object)
{
    const auto &record = *static_cast<const dynstr *>(object);
    const StringInfo info = info_of(record);
    const char *const text = record.str == nullptr ? "" : record.str;
    const bool fits = strnlen(text, kShownText + 1) <= kShownText;
    dbg_printf(" - bnr=%d, maxsize=%d, size=%d, %s%sdata='%.*s%s'", buffer_number(record),
               static_cast<int>(info.max_size()), static_cast<int>(info.size()), info.is_deleted() ? "deleted, " : "",
               record.str == nullptr || info.is_literal() ? "literal, " : "", static_cast<int>(kShownText), text,
               fits ? "" : "...");
}

int is_shown(void *object, int level)
{
    constexpr int kLiveOnly = 4;
    if (object == nullptr) {
        return (level & kLiveOnly) == 0 ? 1 : 0;
    }
    const bool deleted = info_of(*static_cast<const dynstr *>(object)).is_deleted();
    return !deleted || (level & kLiveOnly) == 0 ? 1 : 0;
}

// An allocation that finds no record has each buffer compacted at most once. A pool whose buffers could not be had has
// no control block.
int collect_for_allocation(void *cookie, int attempt, int /*slot_size*/)
{
    auto *const pool = static_cast<TextPool *>(cookie);
    if (pool == nullptr || attempt >= static_cast<int>(pool->bufcnt)) {
        return 0;
    }
    compact(Held::by_caller(), *pool, Reason::depleted);
    return 1;
}

namespace {

void print_summary(const TextPool &pool, memm_printf_fn print) noexcept
{
    print(" %-25s  gc_cnt:%u, tot/avg/max:%u/%u/%u dynstr, %u/%u/%u bytes\r\n", "", pool.gccnt, pool.gctotcnt,
          average(pool.gctotcnt, pool.gccnt), pool.gcmaxcnt, pool.gctotbytes, average(pool.gctotbytes, pool.gccnt),
          pool.gcmaxbytes);
    for (u32 i = 0; i < pool.bufcnt && pool.gccnt != 0; ++i) {
        const u32(&ran)[kReasons] = pool.gcreason[i];
        print(" %16s %d, %s %3d%%/%3d%%/%3d%%\r\n", "- string buffer", static_cast<int>(i + 1),
              "gc reason ctx_balance/ctx_depleted/buffer_full:", percentage(ran[0], pool.gccnt),
              percentage(ran[1], pool.gccnt), percentage(ran[2], pool.gccnt));
    }
}

void print_buffer(const TextPool &pool, u32 i, memm_printf_fn print) noexcept
{
    u32 listed = 0;
    for (const dynstr *record = pool.first[i]; record != nullptr; record = record->next) {
        ++listed;
    }
    const u32 live = pool.used[i] - pool.bufdelbytes[i];
    print("\r\n  %s%13s %d, %12s %6d,%6d   %6d,%6d,%6d  ( %3d%%)   curr:%3d%% - %d", i == pool.curbuf ? "->" : "- ",
          "string buffer", static_cast<int>(i + 1), "# used/del:", static_cast<int>(listed - pool.bufdelcnt[i]),
          static_cast<int>(pool.bufdelcnt[i]), static_cast<int>(live), static_cast<int>(pool.peak[i]),
          static_cast<int>(pool.bufsize), percentage(pool.peak[i], pool.bufsize), percentage(live, pool.bufsize),
          static_cast<int>(pool.cnt[i]));
}

void print_detail(const TextPool &pool, int *live, int *peak, int *capacity, memm_printf_fn print) noexcept
{
    const bool failed = (pool.flags & TextPool::kRelocationFailed) != 0;
    const u32 live_bytes = pool.usedbytes - pool.delbytes;
    const u32 all_bytes = pool.bufsize * pool.bufcnt;
    print("\r\n  - %d %-19s %7s %13d   %6d,%6d,%6d  (%s%3d%%)   curr:%3d%%", static_cast<int>(pool.bufcnt), "buffers",
          "gc cnt:", static_cast<int>(pool.gccnt), static_cast<int>(live_bytes), static_cast<int>(pool.peakbytes),
          static_cast<int>(all_bytes), failed ? ">" : " ", failed ? 100 : percentage(pool.peakbytes, all_bytes),
          percentage(live_bytes, all_bytes));
    add_to(live, static_cast<int>(live_bytes));
    add_to(peak, static_cast<int>(pool.peakbytes));
    add_to(capacity, static_cast<int>(all_bytes));
    for (u32 i = 0; i < pool.bufcnt; ++i) {
        print_buffer(pool, i, print);
    }
}

}  // namespace

void print_usage(void *cookie, int *live, int *peak, int *capacity, memm_printf_fn print)
{
    const auto *const pool = static_cast<const TextPool *>(cookie);
    if (pool == nullptr) {
        return;
    }
    if (live == nullptr) {
        print_summary(*pool, print);
    } else {
        print_detail(*pool, live, peak, capacity, print);
    }
}

namespace {

void trace_failure(const char *text) noexcept
{
    if (is_traced(1)) {
        trc_def_printf("%s", text);
    }
}

}  // namespace

// An empty or literal record goes at once; one with a text in a buffer stays until that buffer is compacted. (A
// compaction gives its records back without asking.)
int release_record(void *object)
{
    TextPool *const pool = owner_pool(object);
    if (pool == nullptr) [[unlikely]] {
        if (object == nullptr) {
            trace_failure("[DYNSTR] \"Failed to get buffer nr\"\r\n");
        }
        trace_failure("[DYNSTR] \"loc_dynstr_free_ex invalid param\"\r\n");
        return MEMM_E_INVALID;
    }
    auto &record = *static_cast<dynstr *>(object);
    const StringInfo info = info_of(record);
    if (record.str == nullptr || info.is_literal()) {
        return MEMM_OK;
    }
    if (info.is_deleted()) [[unlikely]] {
        trace_failure("[DYNSTR] loc_dynstr_free_ex: dynstr is already freed\r\n");
        return MEMM_E_INVALID;
    }
    mark_deleted(*pool, record, info);
    return MEMM_KEPT;
}

}  // namespace memm::strings
