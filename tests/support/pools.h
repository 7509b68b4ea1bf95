#pragma once

#include <memmanager/memmanager.h>
#include <csignal>
#include <gtest/gtest.h>

// Makes a pool in a manager that is started by the first call.
inline unsigned make_pool(const char *name, int count, int size = 24, const memm_pooloptions &options = {})
{
    static const int started = memm_init(40, 4);
    EXPECT_EQ(started, 0);
    const int id = memm_initpool(name, count, size, &options);
    EXPECT_GT(id, 0) << name;
    return static_cast<unsigned>(id);
}

inline memm_pool &pool_at(unsigned id) { return *memm_get_pool_nolock(id); }

inline unsigned &header_of(void *object) { return static_cast<unsigned *>(object)[-1]; }
