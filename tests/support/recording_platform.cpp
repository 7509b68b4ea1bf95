#include "support/recording_platform.h"

#include "platform/futex_lock.h"

#include <memmanager/platform.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utility>

namespace {

// What the library does not clear itself must not look as if it had.
constexpr int kDirt = 0xa5;
constexpr std::size_t kMaxTags = 10000;

memm::FutexLock manager_lock;
thread_local unsigned own_depth = 0;

// By handle; a handle is an index above 0. A deque's elements stay where they are.
std::deque<memm::FutexLock> &mutexes()
{
    static auto *all = new std::deque<memm::FutexLock>(1);
    return *all;
}

std::string format_text(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string result(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(result.data(), result.size() + 1, format, arguments);
    return result;
}

int capture_debug(const char *format, va_list arguments)
{
    recorder().print(&Recorder::debug_, format, arguments);
    return recorder().print_result;
}

class Listener : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &) override { recorder().check_test_end(); }
};

const bool is_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new Listener);
    return true;
}();

}  // namespace

Recorder &recorder()
{
    static auto *the_one = new Recorder;  // never destroyed: other threads may still print at exit
    return *the_one;
}

std::string text(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string result = format_text(format, arguments);
    va_end(arguments);
    return result;
}

// --- captures ---

void Recorder::before_report()
{
    if (on_report) {
        on_report();
    }
}

void Recorder::print(std::string Recorder::*channel, const char *format, va_list arguments)
{
    const std::string more = format_text(format, arguments);
    const std::lock_guard guard(mutex_);
    this->*channel += more;
}

void Recorder::report(unsigned code, int severity, const char *module, const char *file, int line, const char *message)
{
    char start[64];
    std::snprintf(start, sizeof start, "0x%05x %d %s %s%s: ", code, severity, module, file,
                  line > 0 ? "" : " (no line)");
    const std::lock_guard guard(mutex_);
    errors_.append(start).append(message).append("\n");
}

void Recorder::forget()
{
    take_debug();
    take_trace();
    take_errors();
    take_tags();
    take_allocations();
    take_mutex_calls();
}

void Recorder::check_test_end()
{
    EXPECT_EQ(manager_lock_depth(), 0U) << "the manager lock was left taken";
    EXPECT_FALSE(stray_release_.exchange(false)) << "V by a task that did not hold the manager lock";
    EXPECT_EQ(dbg_vprintf_cb, &capture_debug) << "the sink of dbg_printf was left redirected";
    const std::string trace = take_trace(), errors = take_errors();
    if (!std::exchange(reports_allowed_, false)) {
        EXPECT_EQ(trace, "") << "traced, and not taken by the test";
        EXPECT_EQ(errors, "") << "reported through err_printf, and not taken by the test";
    }
    for (const char *prefix : {"/tmp/memm_dump_", "/var/tmp/memm_"}) {
        unlink((prefix + std::to_string(getpid())).c_str());
    }
}

// --- faults ---

void Recorder::fail_nth(Op op, unsigned n, unsigned code, Fault fault, unsigned repeated)
{
    const std::lock_guard guard(mutex_);
    Counter &counter = counters_[index(op)];
    counter.first = counter.calls + n;
    counter.beyond = counter.first + repeated;
    counter.code = code;
    counter.fault = fault;
}

void Recorder::fail_never()
{
    const std::lock_guard guard(mutex_);
    for (Counter &counter : counters_) {
        counter.first = counter.beyond = 0;
    }
}

Recorder::Outcome Recorder::next_outcome(Op op, unsigned &code)
{
    const std::lock_guard guard(mutex_);
    Counter &counter = counters_[index(op)];
    const unsigned number = ++counter.calls;
    if (number < counter.first || number >= counter.beyond) {
        return Outcome::succeed;
    }
    code = counter.code;
    return counter.fault == Fault::refused      ? Outcome::refused
           : counter.fault == Fault::null_block ? Outcome::null_block
                                                : Outcome::misaligned;
}

unsigned Recorder::outside_blocks() const
{
    const std::lock_guard guard(mutex_);
    return static_cast<unsigned>(outside_.size());
}

// --- memory: blocks of exactly the size, for the address sanitizer ---

void Recorder::note_allocation(const char *label, int option, unsigned size)
{
    const std::lock_guard guard(mutex_);
    allocations_.push_back({label, option, size});
}

unsigned Recorder::get_block(Op op, unsigned size, void **block)
{
    unsigned code = 0;
    const Outcome outcome = next_outcome(op, code);
    if (outcome == Outcome::refused) {
        return code;
    }
    const std::size_t lead = outcome == Outcome::misaligned ? 4 : 0;
    auto *memory = outcome == Outcome::null_block ? nullptr : static_cast<unsigned char *>(std::malloc(size + lead));
    if (memory != nullptr) {
        std::memset(memory, kDirt, size + lead);
        const std::lock_guard guard(mutex_);
        if (op == Op::alloc) {
            blocks_.push_back(memory);
        } else {
            outside_.insert(memory);
        }
    } else if (outcome == Outcome::succeed) {
        return 12;  // truly no memory
    }
    *block = memory == nullptr ? nullptr : memory + lead;
    return 0;
}

unsigned Recorder::give_back(void *block)
{
    unsigned code = 0;
    const Outcome outcome = next_outcome(Op::retmem, code);
    {
        const std::lock_guard guard(mutex_);
        if (outside_.erase(block) == 0 && block != nullptr) {
            ADD_FAILURE() << "xm_retmem of a block that xm_getmem did not give, or that was given back before";
            return 22;
        }
    }
    std::free(block);
    return outcome == Outcome::succeed ? 0 : code;
}

// --- mutexes ---

unsigned Recorder::make_mutex(const char *name, int option, unsigned *handle)
{
    unsigned code = 0;
    const Outcome outcome = next_outcome(Op::create, code);
    const std::lock_guard guard(mutex_);
    mutex_calls_.push_back("create(" + std::string(name) + "," + std::to_string(option) + ")");
    if (outcome != Outcome::succeed) {
        return code;
    }
    *handle = static_cast<unsigned>(mutexes().size());
    mutexes().emplace_back();
    return 0;
}

unsigned Recorder::take_mutex(unsigned handle, int mode, int timeout)
{
    memm::FutexLock *lock = nullptr;
    {
        const std::lock_guard guard(mutex_);
        mutex_calls_.push_back("p(" + std::to_string(mode) + "," + std::to_string(timeout) + ")");
        unsigned result = 0;
        if (!xmu_p_results_.empty()) {
            result = xmu_p_results_.front();
            xmu_p_results_.pop_front();
        }
        if (result != 0 || handle == 0 || handle >= mutexes().size()) {
            return result != 0 ? result : 22;
        }
        lock = &mutexes()[handle];
    }
    return (mode == 1 ? lock->try_take() : lock->take_for(timeout)) ? 0 : 6;
}

unsigned Recorder::drop_mutex(unsigned handle)
{
    const std::lock_guard guard(mutex_);
    mutex_calls_.emplace_back("v");
    return handle == 0 || handle >= mutexes().size() ? 22 : mutexes()[handle].release() ? 0 : 1;
}

void Recorder::script_xmu_p(std::vector<unsigned> results)
{
    const std::lock_guard guard(mutex_);
    xmu_p_results_.assign(results.begin(), results.end());
}

// --- the manager lock ---

void Recorder::enter(const char *tag)
{
    manager_lock.take();
    ++depth_;
    if (own_depth++ == 0) {
        const std::lock_guard guard(mutex_);
        if (tags_.size() < kMaxTags) {
            tags_.emplace_back(tag);
        }
    }
}

void Recorder::leave()
{
    if (!manager_lock.is_mine()) {
        stray_release_ = true;
        return;
    }
    --own_depth;
    --depth_;
    manager_lock.release();
}

// --- clock ---

void Recorder::set_clock(unsigned seconds, unsigned microseconds, unsigned step_us)
{
    const std::lock_guard guard(mutex_);
    now_us_ = seconds * 1000000ULL + microseconds;
    step_us_ = step_us;
}

void Recorder::advance_clock(unsigned microseconds)
{
    const std::lock_guard guard(mutex_);
    now_us_ += microseconds;
}

void Recorder::read_clock(unsigned *seconds, unsigned *microseconds)
{
    const std::lock_guard guard(mutex_);
    *seconds = static_cast<unsigned>(now_us_ / 1000000);
    *microseconds = static_cast<unsigned>(now_us_ % 1000000);
    now_us_ += step_us_;
}

// --- the operations ---

extern "C" {

unsigned xm_alloc(const char *label, int option, unsigned size, void **block)
{
    recorder().note_allocation(label, option, size);
    return recorder().get_block(Op::alloc, size, block);
}

unsigned xm_getmem(unsigned size, void **block) { return recorder().get_block(Op::getmem, size, block); }

unsigned xm_retmem(void *block) { return recorder().give_back(block); }

unsigned xmu_create(const char *name, int option, unsigned *handle)
{
    return recorder().make_mutex(name, option, handle);
}

unsigned xmu_p(unsigned handle, int mode, int timeout) { return recorder().take_mutex(handle, mode, timeout); }

unsigned xmu_v(unsigned handle) { return recorder().drop_mutex(handle); }

void P(const char *tag) { recorder().enter(tag); }

void V(void) { recorder().leave(); }

unsigned vemo_t_ident(int, int, int *id)
{
    *id = 4711;
    return 0;
}

unsigned xt_getname(int id, char *name)
{
    std::strcpy(name, id == 4711 ? "TEST and more" : "????");  // four characters are asked for
    return 0;
}

void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds) { recorder().read_clock(seconds, microseconds); }

int (*dbg_vprintf_cb)(const char *format, va_list arguments) = capture_debug;

int dbg_printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = __atomic_load_n(&dbg_vprintf_cb, __ATOMIC_ACQUIRE)(format, arguments);
    va_end(arguments);
    return result;
}

int trc_def_printf(const char *format, ...)
{
    recorder().before_report();
    va_list arguments;
    va_start(arguments, format);
    recorder().print(&Recorder::trace_, format, arguments);
    va_end(arguments);
    return recorder().print_result;
}

int err_printf(unsigned code, int severity, const char *module, const char *file, int line, const char *message)
{
    recorder().before_report();
    recorder().report(code, severity, module, file, line, message);
    return 0;
}
}
