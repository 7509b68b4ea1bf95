// Locks that keep account of how often and how long their takers waited.
//
//     LOCK (the caller's) --mutex--> platform mutex, which lets its holder take it again
//       ^
//     registry: the first 50 records in the order of their registration; a later lock works, but is not listed
//
// A record's counters and depth are written by the holder of its mutex, and read and cleared by anybody.
#include "base/format.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "base/text.h"
#include "memmanager/manager_lock.h"
#include "memmanager/stopwatch.h"

#include <memmanager/lock.h>
#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <algorithm>
#include <atomic>
#include <strings.h>

namespace memm {

namespace {

constexpr int kNoTask = -1;
constexpr const char *kNobody = "----";  // task names have four characters

constexpr unsigned kMutexTimedOut = 6;
constexpr int kPatienceMs = 10000;

class LockRegistry {
    static constexpr unsigned kSize = 50;

    std::atomic<LOCK *> records_[kSize]{};
    std::atomic<unsigned> count_{0};

public:
    void enter(LOCK &lock) noexcept
    {
        unsigned place = count_.load(std::memory_order_relaxed);
        while (place < kSize && !count_.compare_exchange_weak(place, place + 1, std::memory_order_relaxed)) {
        }
        if (place < kSize) {
            records_[place].store(&lock, std::memory_order_release);
        }
    }

    template <typename Visit> void for_each(Visit visit) noexcept
    {
        for (unsigned i = 0; i < count_.load(std::memory_order_relaxed); ++i) {
            if (LOCK *lock = records_[i].load(std::memory_order_acquire); lock != nullptr) {
                visit(*lock);
            }
        }
    }
};

constinit LockRegistry locks;

// --- what is traced ---

// The filter is read while others set it: character by character, and its last one is always the end.
class TraceSwitch {
    static constexpr std::size_t kSize = 20;

    int level_ = 2;
    char filter_[kSize] = {};

public:
    void set(const char *filter, int level) noexcept
    {
        char text[kSize] = {};
        copy_bounded(text, filter, kSize);
        for (std::size_t i = 0; i < kSize; ++i) {
            store(filter_[i], text[i]);
        }
        store(level_, level);
    }

    int level() const noexcept { return load(level_); }
    char *filter() noexcept { return filter_; }

    bool lets_pass(const char *name, int level) const noexcept
    {
        char filter[kSize];
        for (std::size_t i = 0; i < kSize; ++i) {
            filter[i] = load(filter_[i]);
        }
        filter[kSize - 1] = '\0';  // the application has the address of the original
        return strncasecmp(known(name), filter, std::strlen(filter)) == 0 && this->level() >= level;
    }
};

constinit TraceSwitch trace_switch;

// The calling task. What the platform cannot tell stays as it was.
class Task {
    static constexpr std::size_t kNameLength = 4;

    char name_[32] = "----";  // more room than any platform's names need
    int id_ = kNoTask;

public:
    const char *name() noexcept
    {
        vemo_t_ident(0, 0, &id_);
        xt_getname(id_, name_);
        name_[kNameLength] = '\0';
        return name_;
    }
};

void trace_timeout(const LOCK &lock, Task &task, const char *tag) noexcept
{
    const char *const name = task.name();
    if (trace_switch.lets_pass(lock.name, 2)) {
        trc_def_printf("[%s] --- Task[%s](%s) --- Lock timeout. Active Task[%s]. Retrying...\r\n", known(lock.name),
                       name, known(tag), lock.owner_name);
    }
}

int trace_error(const LOCK &lock) noexcept
{
    return trace_switch.lets_pass(lock.name, 1) ? trc_def_printf("mutex lock error (%s)", known(lock.name)) : 0;
}

// --- taking ---

int count_hold(LOCK &lock) noexcept
{
    add(lock.lock_count, 1);
    return add(lock.depth, 1);
}

void count_wait(LOCK &lock, u32 microseconds) noexcept
{
    add(lock.wait_count, 1);
    add(lock.total_wait, microseconds);
    raise_to(lock.max_wait, microseconds);
}

// The new depth, or less than 1 without the lock.
int take(LOCK &lock, const char *tag) noexcept
{
    enum { kWait = 0, kTry = 1 };
    if (xmu_p(lock.mutex, kTry, 0) == 0) {
        return count_hold(lock);
    }
    Task task;
    timestat waiting{};
    start(waiting);
    unsigned result = xmu_p(lock.mutex, kWait, kPatienceMs);
    while (result == kMutexTimedOut) {  // for as long as it takes
        trace_timeout(lock, task, tag);
        result = xmu_p(lock.mutex, kWait, kPatienceMs);
    }
    if (result != 0) {
        return trace_error(lock);
    }
    stop(waiting);
    count_wait(lock, elapsed_us(waiting));
    return count_hold(lock);
}

// --- the table ---

// Rounded to single precision here and now: some targets calculate wider, and would print other last digits.
float rounded(float value) noexcept
{
    volatile float narrow = value;
    return narrow;
}

float to_float(u32 value) noexcept { return rounded(static_cast<float>(value)); }

float to_milliseconds(u32 microseconds) noexcept { return rounded(to_float(microseconds) / 1000.0F); }

// As "%.3f" prints, but with a point in every locale.
class Milliseconds {
    char text_[16];

public:
    // A float times 1000 is exact in double; so are the halves, which go to the even neighbour.
    explicit Milliseconds(float value) noexcept
    {
        const double thousandths = static_cast<double>(value) * 1000.0;
        auto whole = static_cast<u64>(thousandths);
        const double rest = thousandths - static_cast<double>(whole);
        if (rest > 0.5 || (rest == 0.5 && whole % 2 == 1)) {
            ++whole;
        }
        format_to(text_, sizeof text_, "%lu.%03lu", static_cast<unsigned long>(whole / 1000),
                  static_cast<unsigned long>(whole % 1000));
    }
    const char *text() const noexcept { return text_; }
};

void print_header() noexcept
{
    constexpr const char *kColumns = " %-13s %5s %7s %10s %10s %12s %12s %12s \r\n";
    dbg_printf(kColumns, "name", "depth", "active", "lock count", "wait count", "total (msec)", "avg (msec)",
               "max (msec)");
    dbg_printf(kColumns, "----", "-----", "------", "----------", "----------", "------------", "----------",
               "----------");
}

// Deliberate: only one of the two forms has a blank before its line end.
void print_row(const LOCK &lock) noexcept
{
    const int depth = load(lock.depth);
    const char *active = depth != 0 ? lock.owner_name : "";
    const auto lock_count = static_cast<unsigned long>(load(lock.lock_count));
    const u32 wait_count = load(lock.wait_count);
    if (wait_count == 0) {
        dbg_printf(" %-13s %5d %7s %10lu %10lu %12s %12s %12s\r\n", known(lock.name), depth, active, lock_count, 0UL,
                   "-", "-", "-");
        return;
    }
    const float total = to_milliseconds(load(lock.total_wait));
    const float average = rounded(total / to_float(wait_count));
    dbg_printf(" %-13s %5d %7s %10lu %10lu %12s %12s %12s \r\n", known(lock.name), depth, active, lock_count,
               static_cast<unsigned long>(wait_count), Milliseconds(total).text(), Milliseconds(average).text(),
               Milliseconds(to_milliseconds(load(lock.max_wait))).text());
}

void clear_counts(LOCK &lock) noexcept
{
    store(lock.lock_count, 0);
    store(lock.wait_count, 0);
    store(lock.total_wait, 0);
    store(lock.max_wait, 0);
}

// Deliberate: nothing here consults it, setting it changes nothing. It is there for applications that set it.
constinit std::atomic<int> fast_locking{0};

}  // namespace

}  // namespace memm

using namespace memm;

extern "C" {

int lock_initlock(LOCK *lock, const char *name)
{
    if (lock == nullptr) {
        return to_int(Result::invalid);
    }
    *lock = LOCK{};
    lock->name = name;
    lock->owner = kNoTask;
    copy_bounded(lock->owner_name, kNobody, sizeof lock->owner_name);
    locks.enter(*lock);
    return static_cast<int>(xmu_create(known(name), 1, &lock->mutex));
}

int lock_lock(LOCK *lock, int /*ignored*/, const char *tag) { return lock == nullptr ? -1 : take(*lock, tag); }

// Deliberate: whether the caller holds the lock is not checked, and the depth then falls below 0.
int lock_unlock(LOCK *lock)
{
    if (lock == nullptr) {
        return 0;
    }
    if (add(lock->depth, -1) == 0) {
        store(lock->owner, kNoTask);
    }
    return static_cast<int>(xmu_v(lock->mutex));
}

void lock_print_stats(LOCK *lock, int header)
{
    if (lock == nullptr) {
        return;
    }
    if (header != 0) {
        print_header();
    }
    print_row(*lock);
}

void lock_print_allstats(void)
{
    int header = 1;
    locks.for_each([&header](LOCK &lock) {
        lock_print_stats(&lock, header);
        header = 0;
    });
    dbg_printf("\r\n");
}

void lock_clear_allstats(void) { locks.for_each(clear_counts); }

void lock_settrace(const char *filter, int level) { trace_switch.set(filter, level); }

int lock_gettrace(const char *lockname, int level)
{
    return level < 0 ? trace_switch.level() : trace_switch.lets_pass(lockname, level);
}

int lock_gettracelevel(void) { return trace_switch.level(); }

char *lock_getapplfilter(void) { return trace_switch.filter(); }

void memm_lock(const char *tag) { ManagerLock::enter(tag); }

void memm_unlock(void) { ManagerLock::leave(); }

void memm_set_fast_trelk_locking(void) { fast_locking.store(1, std::memory_order_relaxed); }
}
