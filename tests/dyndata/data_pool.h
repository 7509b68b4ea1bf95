#pragma once

#include "support/recording_platform.h"

#include "dyndata/area.h"

#include <gtest/gtest.h>

constexpr unsigned kOk = MEMM_OK, kNoMemory = MEMM_E_NO_MEMORY, kInvalid = MEMM_E_INVALID;

// A data pool with a look at its area.
class DataPool {
    unsigned id_;

public:
    DataPool(const char *name, int count, unsigned bytes)
    {
        static const bool started = memm_init(40, 4) == MEMM_OK && dyndata_init(24) == MEMM_OK;
        EXPECT_TRUE(started);
        id_ = static_cast<unsigned>(dyndata_initpool(name, count, bytes));
        EXPECT_NE(id_, 0xffffffffU);
    }

    unsigned id() const { return id_; }
    const memm::data::Area &area() const
    {
        return *static_cast<const memm::data::Area *>(memm_getpoolcookie_bypoolid(id_));
    }
    std::string bytes() const { return {reinterpret_cast<const char *>(area().buffer), area().bufsize}; }

    dyndata *make(const std::string &bytes) const
    {
        return dyndata_fromdata(id_, bytes.data(), static_cast<unsigned>(bytes.size()));
    }
};

inline std::string bytes_of(const dyndata *object)
{
    const auto *const data = reinterpret_cast<const char *>(dyndata_getdata(object));
    return data == nullptr ? "" : std::string(data, dyndata_getdatasize(object));
}
