// The examples are run as a reader would run them.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#ifdef MEMM_EXAMPLES_DIR

namespace {

testing::AssertionResult contains(const std::string &text, const char *pattern)
{
    regex_t expression;
    EXPECT_EQ(regcomp(&expression, pattern, REG_EXTENDED | REG_NOSUB), 0) << pattern;
    const bool found = regexec(&expression, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&expression);
    return found ? testing::AssertionSuccess() : testing::AssertionFailure() << pattern << "\nis not in\n" << text;
}

class Example {
    FILE *output_ = nullptr;
    pid_t pid_ = -1;

public:
    explicit Example(const std::string &name)
    {
        const std::string command = std::string("exec ").append(MEMM_EMULATOR " " MEMM_EXAMPLES_DIR "/").append(name);
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            close(ends[1]);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
        output_ = fdopen(ends[0], "r");
    }
    ~Example() { std::fclose(output_); }
    Example(const Example &) = delete;
    Example &operator=(const Example &) = delete;

    pid_t pid() const { return pid_; }

    // Up to the end, or to the line that holds this text.
    std::string read_until(const char *text)
    {
        std::string all;
        char line[512];
        while (std::fgets(line, sizeof line, output_) != nullptr) {
            all += line;
            if (text != nullptr && std::string(line).find(text) != std::string::npos) {
                break;
            }
        }
        return all;
    }

    int exit_status()
    {
        int status = -1;
        waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

std::string take_file(const std::string &prefix, pid_t pid)
{
    const std::string name = std::string(prefix).append(std::to_string(pid));
    std::ifstream file(name);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    unlink(name.c_str());
    return text;
}

TEST(snapshot, shows_the_machine_and_gives_everything_back)
{
    Example snapshot("snapshot");
    const std::string output = snapshot.read_until(nullptr);
    EXPECT_EQ(snapshot.exit_status(), 0);
    for (const char *shown : {
             "\nthis one: [0-9]+\\.processes\\.[0-9]+\\.0x[0-9a-f]+\\.\\[2 refs\\] - [0-9]+ [^,]+, [0-9]+ kB\n",
             "\nin one index:  *[0-9]+\\.processes\\.[0-9]+\\.0x[0-9a-f]+ - [0-9]+ [^,]+, [0-9]+ kB\n",
             "\nin none: it is free\n",
             "\n[0-9]+ strings replaced, .*: texts are unchanged, buffers are sound\n",
             " - lo: 127\\.0\\.0\\.1\r\n",
             " - time: 20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-5][0-9]Z\r\n",
             " - digest: [0-9a-f]{16}\r\n",
             "\n[0-9]+ facts, 0 differ",
             "\nauxv: [1-9][0-9]* bytes, the same again\ncpuinfo: [1-9][0-9]* bytes, (the same again|others now)\n",
             "\naddresses twice: [1-9][0-9]* bytes, the same again\n0 appends found no room\n",
             "\n[0-9]+ lines about memory\nMemTotal is [1-9][0-9]* kB\n",
             "\nNoSuchThing is \\*NOT_MEMMSTR\\*\n",
             "\n[1-9][0-9]* options of a mount point: [a-z].*\nescaped and split again: the same\n",
             "\n[0-9]+ process groups; the largest is [0-9]+: [1-9][0-9]* processes, [0-9]+ kB\n",
             "journal\\.+usage cur/max/avail \\(max\\.%\\): [78]/[78]/8 ",
             " - [0-9]+: picture of [0-9]+ processes\r\n",
             "\n texts  +[^\n]*\n  - 2 buffers  +gc cnt: +[1-9][0-9]* ",
             "\n Total usage  +",
             "\none index is gone: [0-9]+ processes, 0 further references\nboth are gone: 0 processes\n",
             "\nobjects left: 0\n",
             "\n mounts  +[0-9]+: 0\\.000/0\\.000/0\\.000\r\n    - first_free  +100%: ",
             "\nTime for 1000 elapsed measurements: ",
             "\n MEMM  +0  +0  +0  +-  +-  +-\r\n indexes  +0  +[1-9][0-9]* ",
         }) {
        EXPECT_TRUE(contains(output, shown));
    }
    EXPECT_FALSE(contains(output, "ERROR|integrity check failed"));
}

TEST(snapshot, answers_signals_while_it_serves)
{
    Example snapshot("snapshot --serve");
    snapshot.read_until("memm_dump_pools");
    kill(snapshot.pid(), SIGUSR1);
    kill(snapshot.pid(), SIGUSR2);
    kill(snapshot.pid(), SIGTERM);  // handled last: it waits for both handlers
    EXPECT_TRUE(contains(snapshot.read_until(nullptr), "\nobjects left: 0\n"));
    EXPECT_EQ(snapshot.exit_status(), 0);
    EXPECT_TRUE(contains(take_file("/var/tmp/memm_", snapshot.pid()),
                         "^\r\n\r\nReason: SIGUSR1\r\n(.*\n)* processes .*\n Total usage "));
    EXPECT_TRUE(contains(take_file("/tmp/memm_dump_", snapshot.pid()), "^\r\n\r\nReason: SIGUSR2\r\n"));
}

TEST(small_examples, run)
{
    for (const char *name : {"pools", "locks", "strings", "lists", "data"}) {
        Example example(name);
        example.read_until(nullptr);
        EXPECT_EQ(example.exit_status(), 0) << name;
        take_file("/tmp/memm_dump_", example.pid());
    }
}

}  // namespace

#endif
