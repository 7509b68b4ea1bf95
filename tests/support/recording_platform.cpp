#include "support/recording_platform.h"

#include "platform/futex_lock.h"

namespace {

memm::FutexLock manager_lock;
memm::FutexLock mutexes[2000];  // by handle, which is an index above 0
std::atomic<unsigned> mutex_count{1};

std::string format_text(const char *format, va_list arguments)
{
    char *made = nullptr;
    const int length = vasprintf(&made, format, arguments);
    std::string result(made, static_cast<std::size_t>(length));
    std::free(made);
    return result;
}

int capture_debug(const char *format, va_list arguments)
{
    recorder().add(recorder().debug_, format_text(format, arguments));
    return 0;
}

// A block has exactly the size, for the address sanitizer.
unsigned get_block(Op op, unsigned size, void **block)
{
    const int code = size > recorder().largest_block ? 12 : fault_of(op);
    *block = code == kNullBlock ? nullptr : *block;
    if (code > 0 || code == kNullBlock)
        return static_cast<unsigned>(std::max(code, 0));
    const std::lock_guard guard(recorder().mutex_);
    const std::size_t lead = code == kMisaligned ? 4 : 0;
    auto *const memory = static_cast<unsigned char *>(std::malloc(size + lead));
    std::memset(memory, 0xa5, size + lead);  // what the library does not clear itself must not look as if it had
    (op == Op::alloc ? recorder().inside_ : recorder().outside_).insert(memory);
    *block = memory + lead;
    return 0;
}

class Listener : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &) override
    {
        fault = nullptr;
        EXPECT_EQ(recorder().depth_, 0U) << "the manager lock was left taken";
        EXPECT_EQ(dbg_vprintf_cb, &capture_debug) << "the sink of dbg_printf was left redirected";
        for (const char *prefix : {"/tmp/memm_dump_", "/var/tmp/memm_"})
            unlink((prefix + std::to_string(getpid())).c_str());
    }
};

const bool is_listening = (testing::UnitTest::GetInstance()->listeners().Append(new Listener), true);

}  // namespace

Recorder &recorder()
{
    static auto *the_one = new Recorder;  // never destroyed: other threads may still print at exit
    return *the_one;
}

std::string complaint()
{
    recorder().forget();
    memm_print_stats(nullptr), memm_print_objects(nullptr);
    const std::string report = recorder().take_debug() + recorder().take_trace();
    return complains(report) ? report : "";
}

std::string text(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string result = format_text(format, arguments);
    va_end(arguments);
    return result;
}

// --- the operations ---

extern "C" {

unsigned xm_alloc(const char *label, int option, unsigned size, void **block)
{
    recorder().add(recorder().allocations_, text("%s %d %u;", label, option, size));
    return get_block(Op::alloc, size, block);
}

unsigned xm_getmem(unsigned size, void **block) { return get_block(Op::getmem, size, block); }

unsigned xm_retmem(void *block)
{
    const int code = fault_of(Op::retmem);
    const std::lock_guard guard(recorder().mutex_);
    EXPECT_TRUE(recorder().outside_.erase(block) != 0 || block == nullptr)
        << "xm_retmem of a block that xm_getmem did not give, or that was given back before";
    std::free(block);
    return static_cast<unsigned>(code);
}

unsigned xmu_create(const char *, int, unsigned *handle)
{
    *handle = mutex_count++;
    return static_cast<unsigned>(fault_of(Op::create));
}

unsigned xmu_p(unsigned handle, int mode, int timeout)
{
    if (const int code = fault_of(Op::take); code != 0)
        return static_cast<unsigned>(code);
    memm::FutexLock &lock = mutexes[handle % std::size(mutexes)];
    return (mode == 1 ? lock.try_take() : lock.take_for(timeout)) ? 0 : 6;
}

unsigned xmu_v(unsigned handle) { return mutexes[handle % std::size(mutexes)].release() ? 0 : 1; }

void P(const char *tag)
{
    const bool is_nested = manager_lock.is_mine();
    manager_lock.take();
    ++recorder().depth_;
    if (!is_nested)
        recorder().add(recorder().tags_, std::string(tag) + " ");
}

void V(void)
{
    --recorder().depth_;
    EXPECT_TRUE(manager_lock.release()) << "V by a task that did not hold the manager lock";
}

void xtm_gettimestamp(unsigned *seconds, unsigned *microseconds)
{
    const unsigned long long now = recorder().clock_us.fetch_add(recorder().clock_step_us);
    *seconds = static_cast<unsigned>(now / 1000000);
    *microseconds = static_cast<unsigned>(now % 1000000);
}

int (*dbg_vprintf_cb)(const char *format, va_list arguments) = capture_debug;

int trc_def_printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recorder().add(recorder().trace_, format_text(format, arguments));
    va_end(arguments);
    return 0;
}

int err_printf(unsigned code, int severity, const char *module, const char *file, int line, const char *message)
{
    recorder().add(recorder().errors_, text("0x%05x %d %s %s%s: %s\n", code, severity, module, file,
                                            line > 0 ? "" : " (no line)", message));
    return 0;
}
}
