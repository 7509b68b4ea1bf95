#pragma once

#include "support/recording_platform.h"

#include <memmanager/dynstring.h>

#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace gates {

// What has to hold whatever was done before. Empty, or what does not.
inline std::string verdict()
{
    fault = nullptr;
    if (recorder().manager_lock_depth() != 0)
        return "the manager lock was left taken";
    std::thread([] { memm_lock("second thread"), memm_unlock(); }).join();
    recorder().forget();
    memm_print_stats(nullptr);
    memm_print_objects(nullptr);
    const std::string report = recorder().take_debug() + recorder().take_trace();
    if (report.find("ERROR") != report.npos || report.find("failed") != report.npos)
        return "a report complains:\n" + report;
    for (unsigned pool = 0; memm_get_pool_nolock(pool) != nullptr; ++pool)
        if (dynstr_integrity_check(pool, 0) == 0)
            return "unsound strings: " + std::to_string(pool);
    return recorder().outside_blocks() != 0 ? "outside blocks were not given back"
           : testing::Test::HasFailure()    ? "see above"
                                            : "";
}

// Forks that go on where they are made; each has a second of processor time, more on slow targets.
class Children {
    struct Child {
        pid_t pid;
        int result;
        std::string label;
    };
    std::deque<Child> running_;
    int answer_ = -1;  // in a child
    std::string failures_;

    void finish(const Child &child)
    {
        char text[2000];
        const ssize_t length = read(child.result, text, sizeof text);
        int status = 0;
        waitpid(child.pid, &status, 0);
        close(child.result);
        if (status != 0 || length > 0)
            failures_ += child.label + ": " +
                         std::string(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))) +
                         (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                              : "exit " + std::to_string(WEXITSTATUS(status))) +
                         "\n";
    }

public:
    int count = 0;

    bool is_child() const { return answer_ != -1; }

    // True in the child.
    bool fork(const std::string &label)
    {
        if (running_.size() >= 2) {
            finish(running_.front());
            running_.pop_front();
        }
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        ++count;
        const pid_t pid = _Fork();  // without the library's own handlers: it may have called this
        if (pid == 0) {
            const rlimit seconds{scaled(100) < 100 ? 20U : 2U, 20U};
            setrlimit(RLIMIT_CPU, &seconds);
            alarm(60);
            answer_ = ends[1];
            return true;
        }
        close(ends[1]);
        running_.push_back({pid, ends[0], label});
        return false;
    }

    // A child ends here with its verdict; in the parent: what the children had to say.
    std::string end()
    {
        if (is_child()) {
            const std::string wrong = verdict();
            static_cast<void>(!write(answer_, wrong.data(), std::min<std::size_t>(wrong.size(), 2000)));
            _exit(wrong.empty() ? 0 : 1);
        }
        for (const Child &child : running_)
            finish(child);
        running_.clear();
        return failures_.substr(0, 3000);
    }
};

}  // namespace gates
