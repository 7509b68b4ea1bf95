// What may stand where the library writes and reads, and what may go wrong meanwhile, at every kind of report.
#include "gates/children.h"

#include <filesystem>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

// The three reports: what causes them, their file, and all that belongs into it.
struct Report {
    const char *reason;
    void (*cause)(unsigned full_pool);
    bool is_usage;
    void (*print)();
};
const Report kReports[] = {
    {"SIGUSR1", [](unsigned) { raise(SIGUSR1); }, true, [] { memm_print_stats(nullptr); }},
    {"SIGUSR2", [](unsigned) { raise(SIGUSR2); }, false, [] {}},
    {"memm_calloc() failed for pool 'full' (pool depleted)", [](unsigned pool) { memm_calloc(pool); }, false,
     [] { memm_print_stats(nullptr), memm_print_objects2("full", 4); }},
};

struct Obstacle {
    const char *name;
    void (*place)(const OwnFolder &, const std::string &path);
    long kept = -1;  // bytes of the report that are there afterwards; -1: all, -2: the file is not ours to write
};

// Who has no right to a file of another that stands there; only root can arrange that.
void be_nobody(const fs::path &path, int rights_on_folder)
{
    if (rights_on_folder != 0555)
        write_file(path, "another's"), fs::permissions(path, fs::perms(0666));
    fs::permissions(path.parent_path(), fs::perms(rights_on_folder));
    if (setgid(65534) != 0 || setuid(65534) != 0)
        _exit(0);
}

void limit_file_size(rlim_t bytes)
{
    const rlimit limit{bytes, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

const Obstacle kObstacles[] = {
    {"no orders", [](auto &folder, auto &) { fs::create_directory(folder.path("/etc/config/memm_dump_pools")); }},
    {"own file, longer",
     [](auto &, auto &path) { write_file(path, std::string(20000, 'x')), fs::permissions(path, fs::perms(0600)); }},
    {"symbolic link", [](auto &folder, auto &path) { fs::create_symlink(folder.path("/victim"), path); }},
    {"dangling link", [](auto &folder, auto &path) { fs::create_symlink(folder.path("/nowhere"), path); }},
    {"hard link", [](auto &folder, auto &path) { fs::create_hard_link(folder.path("/victim"), path); }},
    {"FIFO", [](auto &, auto &path) { mkfifo(path.c_str(), 0666); }},
    {"directory", [](auto &, auto &path) { fs::create_directories(path + "/not empty"); }, -2},
    {"another's file", [](auto &, auto &path) { be_nobody(path, 0777); }},
    {"read-only directory", [](auto &, auto &path) { be_nobody(path, 0555); }, -2},
    {"size limit", [](auto &, auto &) { limit_file_size(20); }, 20},
    {"short writes", [](auto &, auto &) { fail_always(Op::write, kShort); }},
    {"interruptions",
     [](auto &, auto &) { fault = [n = 0](Op op) mutable { return op == Op::write && ++n % 2 != 0 ? EINTR : 0; }; }},
    {"no write", [](auto &, auto &) { fail_always(Op::write, EDQUOT); }, 0},
};

bool is_own_file(const std::string &path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && status.st_mode == (S_IFREG | 0600) && status.st_nlink == 1 &&
           status.st_uid == geteuid();
}

void try_report(const OwnFolder &folder, const Report &report, const Obstacle &obstacle)
{
    const std::string path = report.is_usage ? folder.usage_path() : folder.contents_path(),
                      victim = folder.path("/victim");
    umask(0);
    write_file(victim, "do not touch");
    const unsigned full = make_pool("full", 1), quiet = make_pool("", 1);
    memm_calloc(full), memm_calloc(quiet);
    obstacle.place(folder, path);
    for (int round = 0; round < 2; ++round) {  // in the second there is a file of our own
        errno = 4711;
        report.cause(full);
        EXPECT_TRUE(errno == 4711 || report.reason[0] != 'S');
    }
    const std::string trace = recorder().take_trace();
    sigset_t pending;
    EXPECT_EQ(sigpending(&pending) | sigismember(&pending, SIGXFSZ), 0);
    fault = nullptr;
    limit_file_size(RLIM_INFINITY);
    recorder().take_debug();
    report.print();
    const std::string whole = std::string("\r\n\r\nReason: ").append(report.reason) + "\r\n" + recorder().take_debug();
    if (obstacle.kept == -2) {
        EXPECT_NE(trace.find("Could not open '" + path.substr(folder.path("").size()) + "' stats file\r\n"),
                  trace.npos);
    } else {
        EXPECT_EQ(content_of(path), whole.substr(0, static_cast<std::size_t>(obstacle.kept)));
    }
    EXPECT_EQ(is_own_file(path), obstacle.kept != -2);
    EXPECT_EQ(content_of(victim), "do not touch");
    EXPECT_FALSE(fs::exists(folder.path("/nowhere")));
}

TEST(files, are_written_where_they_are_ours_and_nowhere_else)
{
    Children children;
    for (const Obstacle &obstacle : kObstacles)
        for (const Report &report : kReports) {
            const OwnFolder folder;
            if (children.fork(std::string(obstacle.name) + " at " + report.reason))
                try_report(folder, report, obstacle);
            EXPECT_EQ(children.end(), "");
        }
}

}  // namespace
