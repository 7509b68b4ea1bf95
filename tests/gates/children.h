#pragma once

#include "support/recording_platform.h"

#include <memmanager/dynstring.h>

#include <csignal>
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
        return report;
    for (unsigned pool = 0; memm_get_pool_nolock(pool) != nullptr; ++pool)
        if (dynstr_integrity_check(pool, 0) == 0)
            return "unsound strings: " + std::to_string(pool);
    return recorder().outside_blocks() != 0 ? "outside blocks were not given back"
           : testing::Test::HasFailure()    ? "see above"
                                            : "";
}

// Forks that go on where they are made; each has a second of processor time, more on slow targets.
class Children {
    bool is_child_ = false;
    std::string failures_;

public:
    int count = 0;

    bool is_child() const { return is_child_; }

    // True in the child; the parent waits for its end.
    bool fork(const std::string &label)
    {
        ++count;
        const pid_t pid = _Fork();  // without the library's own handlers: it may have called this
        is_child_ = pid == 0;
        if (is_child_) {
            const rlimit seconds{scaled(100) < 100 ? 20U : 2U, 20U};
            setrlimit(RLIMIT_CPU, &seconds);
            alarm(60);
        } else if (int status = 0; waitpid(pid, &status, 0) != pid || status != 0) {
            failures_ += label + text(": status 0x%x\n", static_cast<unsigned>(status));
        }
        return is_child_;
    }

    // A child ends here with its verdict, printed; in the parent: which of them failed.
    std::string end()
    {
        if (is_child_) {
            const std::string wrong = verdict();
            std::fputs(wrong.c_str(), stderr);
            _exit(wrong.empty() ? 0 : 1);
        }
        return failures_.substr(0, 3000);
    }
};

}  // namespace gates
