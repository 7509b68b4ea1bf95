// Reports on signals where the application has its own P and V.
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/platform.h>
#include <thread>
#include <unistd.h>

namespace {

using Strings = std::vector<std::string>;

TEST(signals, take_the_applications_lock_under_their_own_names)
{
    const OwnFolder folder;
    make_pool("", 1);
    recorder().take_tags();
    raise(SIGUSR2);
    raise(SIGUSR1);
    EXPECT_EQ(recorder().take_tags(), (Strings{"SIGUSR2", "SIGUSR1"}));
    EXPECT_EQ(content_of(folder.contents_path()), "\r\n\r\nReason: SIGUSR2\r\n");
    memm_print_stats(nullptr);
    EXPECT_EQ(content_of(folder.usage_path()), "\r\n\r\nReason: SIGUSR1\r\n" + recorder().take_debug());
}

// The reports come before the last hold is gone, so its tag stays the only outermost one.
TEST(signals, wait_until_the_pools_are_let_go_whoevers_lock_it_is)
{
    const OwnFolder folder;
    static memm_pooloptions options;
    options.release_cb = [](void *) {
        return raise(SIGUSR1), raise(SIGUSR2), raise(SIGUSR1), static_cast<int>(dumps_opened);
    };
    const unsigned pool = make_pool("busy", 2, 8, options);
    memm_lock("test");
    raise(SIGUSR1);
    EXPECT_EQ(dumps_opened, 0U);
    recorder().take_tags();
    memm_unlock();
    EXPECT_EQ(dumps_opened, 1U);
    EXPECT_TRUE(recorder().take_tags().empty());
    dumps_opened = 0;
    void *const object = memm_calloc(pool);
    EXPECT_EQ(memm_free(object), 0) << "none opened inside of the callback";
    EXPECT_EQ(dumps_opened, 2U);
    EXPECT_EQ(recorder().take_tags(), (Strings{"memm_calloc", "memm_free"}));
    dumps_opened = 0;
    EXPECT_EQ(memm_free_nolock(memm_calloc_nolock(pool)), 0);
    EXPECT_EQ(dumps_opened, 2U);
    EXPECT_EQ(recorder().take_tags(), Strings{"SIGUSR1"}) << "nobody had the lock; the second one is answered under it";
}

TEST(signals, do_not_enter_the_applications_lock_while_it_is_being_entered)
{
    const OwnFolder folder;
    const unsigned pool = make_pool("", 1);
    recorder().take_tags();
    P("owner");
    std::atomic<bool> entering{false};
    std::thread waiter([&] {
        entering = true;
        memm_free(memm_calloc(pool));
    });
    while (!entering)
        std::this_thread::yield();
    usleep(20000);  // time to run into P
    pthread_kill(waiter.native_handle(), SIGUSR1);
    usleep(20000);
    V();
    waiter.join();
    EXPECT_EQ(recorder().take_tags(), (Strings{"owner", "memm_calloc", "memm_free"}));
    EXPECT_EQ(dumps_opened, 1U);
}

}  // namespace
