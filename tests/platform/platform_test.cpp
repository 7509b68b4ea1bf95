// The defaults of the platform operations.
#include "base/format.h"
#include "base/wide.h"
#include "platform/probe.h"
#include "support/pools.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

constexpr unsigned kNotTheHolder = 1, kTimedOut = 6;
constexpr int kWait = 0, kTry = 1;

unsigned created()
{
    unsigned handle = 0;
    EXPECT_EQ(xmu_create("test", 1, &handle), 0U);
    return handle;
}

TEST(mutex, may_be_taken_again_by_its_holder_and_by_nobody_else)
{
    const unsigned mutex = created();
    EXPECT_EQ(xmu_v(mutex), kNotTheHolder);
    EXPECT_EQ(xmu_p(mutex, kTry, 0) + xmu_p(mutex, kWait, 10000) + xmu_v(mutex), 0U);
    std::jthread([=] {  // one hold is left
        EXPECT_TRUE(xmu_v(mutex) == kNotTheHolder && xmu_p(mutex, kTry, 0) == kTimedOut);
        EXPECT_EQ(xmu_p(mutex, kWait, 30), kTimedOut);
    });
    EXPECT_EQ(xmu_v(mutex), 0U);
}

TEST(mutex, table_grows_while_threads_create_and_use)
{
    const unsigned shared = created();
    int counter = 0;  // plain: ThreadSanitizer sees whether the mutex orders the accesses
    const auto create_and_use = [=, &counter] {
        for (int i = 0; i < 5000; ++i) {
            ASSERT_EQ(xmu_p(created(), kTry, 0), 0U) << "another's";
            while (xmu_p(shared, kWait, 1) != 0)  // deadlines pass while others are woken
                ;
            ++counter;
            ASSERT_EQ(xmu_v(shared), 0U);
        }
    };
    for (std::thread threads[] = {std::thread(create_and_use), std::thread(create_and_use)}; auto &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 10000);
}

TEST(output, of_any_length_goes_to_its_channel)
{
    for (const std::size_t length : {0U, 1022U, 1024U, 400000U}) {
        std::string text(length, '\0');
        std::generate(text.begin(), text.end(), [n = 0U]() mutable { return static_cast<char>('0' + n++ % 61); });
        testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
        dbg_printf("%s%d", text.c_str(), 7);
        trc_def_printf("%s%.1f", text.c_str(), 0.5);
        err_printf(0x10002, 2, "memm", "memmanager", 123, "100% used: %s");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), text + "7");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  text + "0.5[memm] error 0x10002, severity 2, memmanager:123: 100% used: %s\r\n");
    }
}

TEST(calendar, agrees_with_the_c_library_for_dates_of_any_kind)
{
    std::mt19937 random;
    const auto number = [&] { return static_cast<int>(random()) >> random() % 32; };
    constexpr std::size_t kSame = 8 * sizeof(int);  // the first fields are those of a tm
    for (int round = 0; round < 20000; ++round) {
        const std::time_t time = static_cast<unsigned>(random());
        std::tm tm{};
        xtm_date date;
        ASSERT_EQ(xtm_time_date_struct(&date, static_cast<unsigned>(time), 0, 1), 0U);
        gmtime_r(&time, &tm);
        ASSERT_TRUE(std::memcmp(&date, &tm, kSame) == 0) << time;

        unsigned seconds = 0;
        date = {number(), number(), number(), number(), number(), number() / 2000, number(), 0, 0, 0};
        std::memcpy(&tm, &date, kSame);
        ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
        ASSERT_EQ(seconds, static_cast<unsigned>(timegm(&tm))) << round;
    }
}

TEST(operations, refuse_what_makes_no_sense)
{
    unsigned number = 0, other = 0;
    int id = 0;
    xtm_date date{};
    char name[] = "12345";
    const unsigned mutex = created();
    for (const unsigned result :
         {xm_alloc("", 0, 8, nullptr), xm_getmem(8, nullptr), xmu_create("", 1, nullptr), xmu_p(0, kTry, 0),
          xmu_p(UINT_MAX, kTry, 0), xmu_p(mutex, 7, 0), xmu_v(0), xmu_v(UINT_MAX), vemo_t_ident(0, 0, nullptr),
          xt_getname(gettid(), nullptr), xtm_time_date_struct(nullptr, 1, 0, 1), xtm_gettimezone(nullptr),
          xtm_time_date_struct_to_seconds(nullptr, &date), xtm_time_date_struct_to_seconds(&number, nullptr),
          xtm_getdaylightsaving(nullptr)})
        EXPECT_EQ(result, unsigned{EINVAL});
    EXPECT_EQ(xt_getname(INT_MAX, name), unsigned{ESRCH});
    xtm_gettimestamp(nullptr, &number), xtm_gettimestamp(&number, nullptr);
    EXPECT_EQ(std::tuple(number, std::string(name)), std::tuple(0U, "12345"));
    EXPECT_TRUE(xtm_gettimezone(&id) + xtm_getdaylightsaving(&id) == 0 && id == 0);

    prctl(PR_SET_NAME, "ab"), vemo_t_ident(0, 0, &id), xt_getname(id, name), xtm_gettimestamp(&number, &other);
    EXPECT_TRUE(std::string(name) == "ab  5" && number > 0 && other < 1000000) << name;
    dbg_vprintf_cb = nullptr;
    testing::internal::CaptureStdout();
    const std::string wide = "%99999999999d", precise = "%.99999999999d";  // the C library refuses them, too
    EXPECT_EQ(dbg_printf(nullptr) + trc_def_printf(nullptr) + dbg_printf(wide.c_str(), 7), 0);
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO), errno = 0;
    EXPECT_TRUE(trc_def_printf("lost") == 0 && errno == 0);
    dup2(saved, STDERR_FILENO);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(memm::format_to(name, 3, wide.c_str(), 1) + memm::format_to(name, 0, precise.c_str(), 1), 0U);
    EXPECT_TRUE(memm::format_to(name, 3, "%ls", L"xyz") == 3 && std::string(name) == "xy");
}

TEST(memory, is_zeroed_and_aligned_and_may_run_out)
{
    static void *blocks[4];  // such a block is never given back
    void *block = nullptr, **kept = blocks;
    for (const unsigned size : {0U, 1U, 100U, 5U << 20}) {
        ASSERT_EQ(xm_alloc("test", 0, size, &block), 0U);
        ASSERT_TRUE(block != nullptr && reinterpret_cast<std::uintptr_t>(block) % 16 == 0) << size;
        *kept++ = block;
        const auto *bytes = static_cast<const char *>(block);
        EXPECT_EQ(std::count(bytes, bytes + size, 0), size);
    }
    ASSERT_TRUE(xm_getmem(0, &block) == 0 && block != nullptr && xm_retmem(block) == 0);
    const unsigned refused = sizeof(void *) == 4 ? ENOMEM : 0;  // elsewhere as much is to be had
    EXPECT_TRUE(refused == 0 || xm_alloc("test", 0, UINT_MAX, &block) + xm_getmem(UINT_MAX, &block) == 2 * refused);
}

// With the kernel's help, and where a process is not given it.
TEST(words, are_read_and_written_where_that_harms_nobody)
{
    const sock_filter refuse[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 1, 0),
                                  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_writev, 0, 1),
                                  BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                                  BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{std::size(refuse), const_cast<sock_filter *>(refuse)};
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto at = reinterpret_cast<std::uintptr_t>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(reinterpret_cast<void *>(at + page), page, PROT_READ);
    mprotect(reinterpret_cast<void *>(at + 2 * page), page, PROT_NONE);
    const std::uintptr_t writable[] = {at, at + 9, at + 6}, readable[] = {at + page},
                         neither[] = {at + 2 * page - 2, at + 2 * page, 0, 4, UINTPTR_MAX - 1};
    for (std::uint32_t value = 7; value < 9; ++value) {
        std::uint32_t word = 1;
        errno = 5;
        for (const std::uintptr_t address : writable)
            EXPECT_TRUE(memm::write_word(address, value) && memm::read_word(address, word) && word == value);
        for (const std::uintptr_t address : readable)
            EXPECT_TRUE(!memm::write_word(address, value) && memm::read_word(address, word) && word == 0);
        for (const std::uintptr_t address : neither)
            EXPECT_FALSE(memm::write_word(address, value) || memm::read_word(address, word)) << address;
        EXPECT_EQ(errno, 5);
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
    }
}

TEST(wide, counts_zeros_of_any_length_at_any_place)
{
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        const std::size_t size = round % 50 == 0 ? 70'000 : round % 700;
        std::vector<char> bytes(size);  // nothing is read around it: AddressSanitizer sees
        const unsigned values = 1U << random() % 9;
        for (char &byte : bytes)
            byte = static_cast<char>(random() % values);
        for (const auto count_zeros : {memm::count_zeros, memm::count_zeros_narrow})
            EXPECT_EQ(count_zeros(bytes.data(), bytes.data() + size), std::count(bytes.begin(), bytes.end(), 0))
                << size;
    }
}

// As compactions use it: gaps between the pieces, each of which goes as far down as all gaps before it are wide.
TEST(wide, pieces_arrive_whole_and_nothing_behind_the_last_one_changes)
{
    std::mt19937 random(1);
    const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    for (int round = 0; round < 2000; ++round) {
        std::string memory(below(4000) + 600, '.');
        for (char &c : memory)
            c = static_cast<char>(random());
        const std::string before = memory;
        std::vector<memm::Move> moves;
        std::string wanted;
        unsigned at = 0, down = 0;
        for (unsigned gap = 1; at + gap + 400 < memory.size(); gap = below(below(8) == 0 ? 300 : 40) + 1) {
            const unsigned length = below(below(8) == 0 ? 400 : 225);
            moves.push_back({memory.data() + (at += gap), length, down += gap});
            wanted += before.substr(at, length);
            at += length;
        }
        const auto move_down = round % 2 == 0 ? memm::move_down : memm::move_down_narrow;
        move_down(moves.data(), static_cast<unsigned>(moves.size()), memory.data() + memory.size());
        EXPECT_TRUE(memory.starts_with(wanted) && memory.ends_with(before.substr(at))) << round;
    }
}
