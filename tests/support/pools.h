#pragma once

#include <memmanager/dyndata.h>
#include <memmanager/lock.h>
#include <memmanager/platform.h>
#include <memmanager/strpair.h>
#include <memmanager/timestat.h>
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <unistd.h>

// Pools of each kind, in a manager that is started by the first call.
inline unsigned make_any_pool(const std::function<int()> &make)
{
    static const int started = memm_init(40, 20);
    EXPECT_EQ(started, 0);
    const int id = make();
    EXPECT_GT(id, 0);
    return static_cast<unsigned>(id);
}
inline unsigned make_pool(const char *name, int count, int size = 24, const memm_pooloptions &options = {})
{
    return make_any_pool([&] { return memm_initpool(name, count, size, &options); });
}
inline unsigned make_strings(unsigned bytes = 4000, int buffers = 2, int count = 50)
{
    return make_any_pool([=] { return dynstr_initpool2("", count, bytes, buffers); });
}
inline unsigned make_nodes(int count)
{
    return make_any_pool([=] { return llist_initpool("", count, sizeof(llist), nullptr); });
}

inline memm_pool &pool_at(auto id) { return *memm_get_pool_nolock(static_cast<unsigned>(id)); }

inline unsigned long address(const void *object) { return reinterpret_cast<unsigned long>(object); }

inline unsigned &header_of(void *object) { return static_cast<unsigned *>(object)[-1]; }

// What a pool counts, to compare two pools that went through the same.
inline auto figures(const memm_pool &pool)
{
    return std::tuple(pool.cur_count, pool.max_count, pool.max_count_rel, pool.free_count, pool.scan_steps, pool.flags,
                      pool.refs, pool.max_refs, pool.first_free - pool.slots, pool.last_used - pool.slots,
                      std::vector(pool.alloc_count, pool.alloc_count + MEMM_PATHS));
}

// The list is released.
using Texts = std::vector<std::string>;
inline Texts taken(strlist *list)
{
    Texts texts;
    for (const llist *node = list; node != nullptr; node = node->next)
        texts.emplace_back(dynstr_getstring(static_cast<dynstr *>(node->obj)));
    llist_free_plist(&list);
    return texts;
}

// A report as it looks: each of its lines ends with a '|', which shows the blanks before it. The first line is dropped.
inline std::string lines(const std::string &picture)
{
    std::string report = picture.substr(1);
    std::ranges::replace(report, '|', '\r');
    return report;
}

// Rounds of a long random test: a part of them where MEMM_TEST_SCALE says so, in percent.
inline int scaled(int rounds)
{
    const char *percent = std::getenv("MEMM_TEST_SCALE");
    return percent == nullptr ? rounds : static_cast<int>(static_cast<long long>(rounds) * std::atoi(percent) / 100);
}

// Whether the counts are to be those of a soak, however long they take: MEMM_TEST_FULL is set.
inline bool is_full_run() { return std::getenv("MEMM_TEST_FULL") != nullptr; }
inline int scaled(int rounds, int full) { return is_full_run() ? full : scaled(rounds); }
