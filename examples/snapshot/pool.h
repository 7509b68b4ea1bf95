// The two lines that every section needs.
#pragma once

#include <memmanager/memmanager.h>
#include <memmanager/platform.h>

#include <cstdio>
#include <cstdlib>

// Pools are made at start; a program that cannot have its pools does not begin.
inline unsigned make_pool(const char *name, int count, std::size_t object_size, const memm_pooloptions *options)
{
    const int pool = memm_initpool(name, count, static_cast<int>(object_size), options);
    if (pool < 0) {
        std::fprintf(stderr, "no pool '%s'\n", name);
        std::exit(1);
    }
    return static_cast<unsigned>(pool);
}

template <typename Object> Object *take(unsigned pool) { return static_cast<Object *>(memm_calloc(pool)); }
