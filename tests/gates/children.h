#pragma once

#include "support/recording_platform.h"

#include <sys/resource.h>

// Forks that go on where they are made; each has a second of processor time, more on slow targets.
class Children {
    bool is_child_ = false;
    std::string failures_;

public:
    int count = 0;

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
        } else if (const int status = status_of(pid); status != 0) {
            failures_ += label + text(": status 0x%x\n", static_cast<unsigned>(status));
        }
        return is_child_;
    }

    // A child ends here, and looks at what has to hold whatever was done before; in the parent: which of them failed.
    std::string end()
    {
        if (!is_child_)
            return failures_.substr(0, 3000);
        fault = nullptr;
        EXPECT_EQ(recorder().manager_lock_depth(), 0U);
        if (!testing::Test::HasFailure())
            std::thread([] { memm_lock("second thread"), memm_unlock(); }).join();
        EXPECT_EQ(complaint(), "");
        for (unsigned pool = 0; memm_get_pool_nolock(pool) != nullptr; ++pool)
            EXPECT_NE(dynstr_integrity_check(pool, 0), 0) << pool;
        EXPECT_EQ(recorder().outside_blocks(), 0U);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
};
