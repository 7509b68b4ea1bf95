#pragma once

#include "dynstring/text_pool.h"
#include "support/recording_platform.h"

#include <memmanager/dynstring.h>

#include <gtest/gtest.h>
#include <string>

// A string pool with a look inside; without a name, for names are given only once.
class SmallPool {
    unsigned id_;

public:
    explicit SmallPool(unsigned bytes = 4000, int buffers = 2, int count = 50)
    {
        static const int started = memm_init(64, 64);
        EXPECT_EQ(started, 0);
        id_ = static_cast<unsigned>(dynstr_initpool2("", count, bytes, buffers));
        EXPECT_NE(id_, 0xffffffffU);
    }

    unsigned id() const { return id_; }
    dynstr *make(const char *text = "", unsigned max = 0) const
    {
        dynstr *const record = dynstr_calloc_maxsize(id_, max);
        EXPECT_EQ(dynstr_setstring(record, text), 0U);
        return record;
    }
};
