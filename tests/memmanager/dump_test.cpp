// Dump files: what they obey, and what stands in their way.
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/platform.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const std::string kReason1 = "\r\n\r\nReason: SIGUSR1\r\n", kReason2 = "\r\n\r\nReason: SIGUSR2\r\n";

std::string statistics()
{
    recorder().take_debug();
    memm_print_stats(nullptr);
    return recorder().take_debug();
}

std::string objects(const char *prefix)
{
    recorder().take_debug();
    memm_print_objects2(prefix, 4);
    return recorder().take_debug();
}

// --- the order file ---

TEST(dump, follows_its_order_file_line_by_line)
{
    const OwnFolder folder;
    const std::string long_name = "long_name_" + std::string(60, 'x') + "tail of it", start = long_name.substr(0, 63),
                      rest = long_name.substr(63);
    memm_calloc(make_pool("order.a", 2));
    memm_calloc(make_pool("order.b", 2));
    memm_calloc(make_pool("sta", 2));
    memm_calloc(make_pool(long_name.c_str(), 2));
    memm_calloc(make_pool(rest.c_str(), 2));
    const std::string a = objects("order.a"), both = objects("order."), all = objects(nullptr), sta = objects("sta"),
                      none = objects("no such pool"), stats = statistics();
    const std::string filler = "#" + std::string(61, '-') + "\n";  // 63 characters: 1040 of them leave room for 16
    std::string almost_full;
    for (int i = 0; i < 1040; ++i)
        almost_full += filler;
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"\n\n#stats\n# all\n\n", ""},
        {"# comment\n\nstats\norder.\n", stats + both},
        {"order.a\nstats\norder.a", a + stats + a},
        {"all\nno such pool\n", all + none},
        {"stats \n all\n", none + none},
        {long_name + "\n", objects(start.c_str()) + objects(rest.c_str())},
        {start + "\norder.a\n", objects(start.c_str()) + a},
        {"#" + std::string(62, '-') + "stats\n", stats},  // the rest of a long comment is no comment
        {almost_full + "#23456789012\nstats\n", sta},     // the limit cuts the last line
        {almost_full + "#2345678\nstats\nall\n", stats + objects("a")},
        {almost_full + almost_full + "all\n", ""},
    };
    for (const auto &[order, expected] : cases) {
        folder.order(order);
        raise(SIGUSR2);
        EXPECT_EQ(content_of(folder.contents_path()), kReason2 + expected) << order.substr(0, 80);
    }
}

TEST(dump, takes_orders_from_regular_files_alone)
{
    const OwnFolder folder;
    make_pool("", 1);
    const std::string order = folder.path("/etc/config/memm_dump_pools"), other = folder.path("/etc/other");
    write_file(other, "stats\n");
    const std::pair<std::function<void()>, bool> cases[] = {
        {[] {}, false},
        {[&] { fs::create_directory(order); }, false},
        {[&] {
             mkfifo(order.c_str(), 0600);
             EXPECT_EQ(write(openat(AT_FDCWD, order.c_str(), O_RDWR), "stats\n", 6), 6);
         },
         false},
        {[&] { fs::create_symlink("/dev/zero", order); }, false},
        {[&] { fs::create_symlink(other, order); }, true},
        {[&] { fs::create_hard_link(other, order); }, true},
    };
    for (const auto &[prepare, is_followed] : cases) {
        prepare();
        raise(SIGUSR2);
        EXPECT_EQ(content_of(folder.contents_path()), kReason2 + (is_followed ? statistics() : ""));
        fs::remove_all(order);
    }
}

// --- what may stand at a file's name ---

struct Dumped {
    int signal;
    std::string path, expected;
};

std::vector<Dumped> dumps(const OwnFolder &folder)
{
    return {{SIGUSR1, folder.usage_path(), kReason1 + statistics()}, {SIGUSR2, folder.contents_path(), kReason2}};
}

bool is_own_file(const std::string &path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0777) == 0600 &&
           status.st_nlink == 1 && status.st_uid == geteuid();
}

TEST(dump, writes_over_nothing_but_its_own_file)
{
    const OwnFolder folder;
    make_pool("", 1);
    umask(0);
    const std::string victim = folder.path("/victim"), text = "do not touch";
    const std::function<void(const std::string &)> attacks[] = {
        [](const std::string &) {},
        [&](const std::string &name) { fs::create_symlink(victim, name); },
        [&](const std::string &name) { fs::create_symlink(folder.path("/nowhere"), name); },
        [&](const std::string &name) { fs::create_hard_link(victim, name); },
        [](const std::string &name) { mkfifo(name.c_str(), 0666); },
        [&](const std::string &name) {
            mkfifo(name.c_str(), 0666);
            static_cast<void>(openat(AT_FDCWD, name.c_str(), O_RDONLY | O_NONBLOCK));  // somebody reads it
        },
        [](const std::string &name) { fs::create_symlink("/dev/full", name); },
    };
    write_file(victim, text);
    for (const auto &attack : attacks) {
        for (const Dumped &dump : dumps(folder)) {
            fs::remove_all(dump.path);
            attack(dump.path);
            raise(dump.signal);
            raise(dump.signal);  // now there is one of our own
            EXPECT_EQ(content_of(dump.path), dump.expected);
            EXPECT_TRUE(is_own_file(dump.path));
            EXPECT_EQ(content_of(victim), text);
            EXPECT_FALSE(fs::exists(folder.path("/nowhere")));
        }
    }
    for (const Dumped &dump : dumps(folder)) {
        fs::remove_all(dump.path);
        fs::create_directories(dump.path + "/not empty");
        raise(dump.signal);
        const std::string name = dump.path.substr(folder.path("").size());
        EXPECT_EQ(recorder().take_trace(), "Could not open '" + name + "' stats file\r\n");
        memm_set_trace(0);
        raise(dump.signal);
        memm_set_trace(2);
        EXPECT_TRUE(fs::exists(dump.path + "/not empty"));
    }
}

TEST(dump, leaves_the_files_of_others_alone)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can have another user's file";
    const OwnFolder folder;
    make_pool("", 1);
    constexpr uid_t kNobody = 65534;
    for (const bool is_sticky : {true, false}) {
        fs::permissions(folder.path("/var/tmp"), fs::perms(is_sticky ? 01777 : 0777));
        int gate[2];
        ASSERT_EQ(pipe(gate), 0);
        const pid_t child = fork();
        if (child == 0) {
            char go = 0;
            const bool is_ready = read(gate[0], &go, 1) == 1 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
            raise(SIGUSR1);
            _exit(!is_ready ? 99 : is_own_file(folder.usage_path()) ? 1 : 2);
        }
        const std::string name = folder.usage_path(child);
        write_file(name, "root's own");
        fs::permissions(name, fs::perms(0666));
        ASSERT_EQ(write(gate[1], "g", 1), 1);
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), is_sticky ? 2 : 1) << "who may remove it replaces it";
        EXPECT_TRUE(!is_sticky || content_of(name) == "root's own");
    }
}

// --- calls that fail ---

TEST(dump, is_whole_after_short_and_interrupted_writes_and_harmless_after_failing_ones)
{
    const OwnFolder folder;
    for (int i = 0; i < 30; ++i) {
        make_pool("", 1);  // more than a buffer of rows
    }
    const std::string whole = kReason1 + statistics();
    struct {
        FileFaults faults;
        std::size_t kept;
    } const cases[] = {
        {{.write_most = 1}, whole.size()},          {{.write_most = 7, .interrupt_every = 2}, whole.size()},
        {{.fstat_error = EIO}, whole.size()},       {{.ftruncate_error = EIO}, whole.size()},
        {{.close_error = EIO}, whole.size()},       {{.write_error = ENOSPC}, 0},
        {{.write_error = EIO, .room = 1000}, 1000}, {{.write_error = EDQUOT, .room = 4100}, 4100},
    };
    for (const auto &c : cases) {
        write_file(folder.usage_path(), "from before, and longer" + whole);
        file_faults = c.faults;
        errno = 4711;
        raise(SIGUSR1);
        EXPECT_EQ(errno, 4711);
        file_faults = {};
        EXPECT_EQ(content_of(folder.usage_path()), whole.substr(0, c.kept));
    }
    raise(SIGUSR1);
    EXPECT_EQ(content_of(folder.usage_path()), whole);
}

TEST(dump, of_a_process_with_a_file_size_limit_ends_at_the_limit)
{
    const OwnFolder folder;
    const unsigned pool = make_pool("", 1);
    const std::string whole = kReason1 + statistics();
    memm_calloc(pool);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{100, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    raise(SIGUSR1);  // the signal that goes with the limit would end the process
    EXPECT_EQ(memm_calloc(pool), nullptr);
    sigset_t size_signal, pending;  // whoever has it blocked does not find it later
    sigemptyset(&size_signal);
    sigaddset(&size_signal, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &size_signal, nullptr);
    raise(SIGUSR1);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGXFSZ), 0);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(content_of(folder.usage_path()), whole.substr(0, 100));
    EXPECT_EQ(content_of(folder.contents_path()).size(), 100U);
    recorder().forget();
}

// --- callbacks and channels that do what they should not: not in the handler itself ---

void have_dumped(int signal)
{
    memm_lock("test");
    raise(signal);
    memm_unlock();
}

unsigned dry_pool;

void allocate_from_dry_pool() { EXPECT_EQ(memm_calloc_nolock(dry_pool), nullptr); }

int depletions_reported()
{
    const std::string errors = recorder().take_errors();
    int count = 0;
    for (std::size_t at = 0; (at = errors.find("failed for pool 'dry'", at)) != std::string::npos; ++at)
        ++count;
    recorder().forget();
    return count;
}

TEST(dump, is_not_begun_again_by_a_depletion_inside_of_it)
{
    const OwnFolder folder;
    folder.order("dry\n");
    memm_pooloptions options{};
    options.print_cb = [](void *) { allocate_from_dry_pool(); };
    options.stats_cb = [](void *, int *, int *, int *, memm_printf_fn print) {
        allocate_from_dry_pool();
        print("[%s %.2f]", "stats", 1.5);
    };
    dry_pool = make_pool("dry", 1, 8, options);
    memm_calloc(dry_pool);

    struct {
        std::function<void()> act;
        std::string path;
        int reports;
    } const cases[] = {
        {[] { have_dumped(SIGUSR1); }, folder.usage_path(), 1},
        {[] { have_dumped(SIGUSR2); }, folder.contents_path(), 2},
        {[] { memm_calloc(dry_pool); }, folder.contents_path(), 4},
    };
    for (const auto &c : cases) {
        dumps_opened = 0;
        pool_at(dry_pool).flags = 0;
        c.act();
        EXPECT_EQ(dumps_opened, 1U);
        EXPECT_EQ(depletions_reported(), c.reports);
        EXPECT_EQ(pool_at(dry_pool).flags, 0x80000000U);
        EXPECT_NE(content_of(c.path).find("[stats 1.50]\r\n"), std::string::npos);
        EXPECT_EQ(content_of(c.path).rfind("\r\n\r\n"), content_of(c.path).size() - 4);
    }
}

TEST(dump, is_written_once_when_an_output_channel_allocates_from_the_empty_pool)
{
    const OwnFolder folder;
    dry_pool = make_pool("dry", 1);
    memm_calloc(dry_pool);
    recorder().on_report = allocate_from_dry_pool;
    EXPECT_EQ(memm_calloc(dry_pool), nullptr);
    recorder().on_report = nullptr;
    EXPECT_EQ(dumps_opened, 1U);
    EXPECT_GE(depletions_reported(), 2);
    EXPECT_EQ(memm_calloc(dry_pool), nullptr);
    EXPECT_EQ(dumps_opened, 2U) << "the next one is told again";
    recorder().forget();
}

TEST(dump, takes_the_debug_output_of_its_own_thread_alone)
{
    const OwnFolder folder;
    folder.order("printing\n");
    memm_pooloptions options{};
    options.print_cb = [](void *) {
        dbg_printf(" mine");
        std::thread([] { dbg_printf("another thread's"); }).join();
    };
    const unsigned pool = make_pool("printing", 1, 8, options);
    memm_calloc(pool);
    have_dumped(SIGUSR2);
    EXPECT_EQ(recorder().take_debug(), "another thread's");
    EXPECT_NE(content_of(folder.contents_path()).find(" mine\r\n"), std::string::npos);
    EXPECT_EQ(content_of(folder.contents_path()).find("another"), std::string::npos);
    EXPECT_EQ(memm_calloc(pool), nullptr);
    EXPECT_EQ(recorder().take_debug(), "another thread's");
    dbg_printf("back");
    EXPECT_EQ(recorder().take_debug(), "back");
    recorder().forget();
}

}  // namespace
