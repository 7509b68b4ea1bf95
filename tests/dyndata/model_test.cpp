#include "data_pool.h"
#include "support/rounds.h"

#include <algorithm>
#include <list>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned kOk = MEMM_OK, kNoMemory = MEMM_E_NO_MEMORY;

// A data pool and what is to be in it. A second pool, of plain objects, goes through every allocation and release that
// a call stands for: its descriptor foretells that of the data pool.
class Trial {
    struct Object {
        dyndata *handle;
        void *twin;
        unsigned refs = 0, size = 0, max = 0;
    };
    struct Run {
        const Object *owner;  // null: on its way out
        std::string bytes;
    };
    struct Source {
        const void *pointer;
        std::string bytes;
    };

    DataPool pool_;
    unsigned twins_;
    std::list<Object> objects_;
    std::vector<Run> area_;
    unsigned curr_ = 0, max_ = 0;
    std::mt19937 random_{4711};
    std::string given_;
    char letter_ = 'a';

    unsigned next(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }
    Object &pick() { return *std::next(objects_.begin(), next(static_cast<unsigned>(objects_.size()))); }
    unsigned room() const { return pool_.area().bufsize - curr_; }

    auto run_of(const Object *owner)
    {
        return std::find_if(area_.begin(), area_.end(), [owner](const Run &run) { return run.owner == owner; });
    }

    // Bytes from outside, the bytes of an object or a part of them, or null.
    Source source()
    {
        if (next(4) == 0 && !area_.empty()) {
            const Run &run = area_[next(static_cast<unsigned>(area_.size()))];
            const unsigned from = next(static_cast<unsigned>(run.bytes.size()));
            return {dyndata_getdata(run.owner->handle) + from, run.bytes.substr(from, 1 + next(20))};
        }
        if (next(32) == 0) {
            return {nullptr, std::string(next(9), 'n')};
        }
        letter_ = letter_ == 'z' ? 'a' : static_cast<char>(letter_ + 1);
        given_.assign(next(8) == 0 ? next(pool_.area().bufsize + 2) : next(pool_.area().bufsize / 4), letter_);
        return {given_.data(), given_};
    }

    // --- what the calls do ---

    void grow(std::string bytes, const Object *owner)
    {
        curr_ += static_cast<unsigned>(bytes.size());
        max_ = std::max(max_, curr_);
        area_.push_back({owner, std::move(bytes)});
    }

    void drop(const Object *owner)
    {
        if (const auto run = run_of(owner); run != area_.end()) {
            curr_ -= static_cast<unsigned>(run->bytes.size());
            area_.erase(run);
        }
    }

    unsigned write(Object &object, const Source &source)
    {
        if (source.pointer == nullptr) {
            return kOk;
        }
        const unsigned most = object.max != 0 ? std::min(object.max, room()) : room();
        object.size = std::min(most, static_cast<unsigned>(source.bytes.size()));
        object.max = most == 0 ? 0 : object.max;
        if (object.size > 0) {
            grow(source.bytes.substr(0, most), &object);
        }
        return most < source.bytes.size() ? kNoMemory : kOk;
    }

    unsigned replace(Object &object, const Source &source)
    {
        void *const holder = memm_calloc(twins_);
        if (holder == nullptr) {
            return kNoMemory;
        }
        if (const auto old = run_of(&object); old != area_.end()) {
            old->owner = nullptr;
        }
        const unsigned result = write(object, source);
        drop(nullptr);
        memm_free(holder);
        return result;
    }

    unsigned append(Object &object, const Source &source)
    {
        const auto run = run_of(&object);
        if (source.pointer == nullptr || run == area_.end()) {
            return write(object, source);
        }
        const bool is_last = run == area_.end() - 1;
        const auto moved = is_last ? 0U : static_cast<unsigned>(run->bytes.size());
        bool fits = room() > moved && room() - moved >= source.bytes.size();
        if (!is_last) {
            void *const work = memm_calloc(twins_);
            void *const holder = work == nullptr ? nullptr : memm_calloc(twins_);
            fits = fits && holder != nullptr;
            memm_free(holder);
            memm_free(work);
        }
        if (!fits) {
            return kNoMemory;
        }
        object.size += static_cast<unsigned>(source.bytes.size());
        if (is_last) {
            std::string all = run->bytes + source.bytes;
            drop(&object);
            grow(std::move(all), &object);
        } else {
            run->owner = nullptr;
            grow(run->bytes + source.bytes, &object);
            drop(nullptr);
            object.max = 0;
        }
        return kOk;
    }

    void create(dyndata *handle, unsigned max, const Source &source)
    {
        objects_.push_back({handle, memm_calloc(twins_), 0, 0, max});
        Object &object = objects_.back();
        bool is_made = object.twin != nullptr;
        if (is_made && write(object, source) != kOk) {
            drop(&object);
            memm_free(object.twin);
            is_made = false;
        }
        EXPECT_EQ(handle != nullptr, is_made);
        if (is_made && handle != nullptr) {
            EXPECT_EQ(memm_getindex(handle), memm_getindex(object.twin));
        } else {
            objects_.pop_back();
        }
    }

    void release(Object &object)
    {
        memm_free(object.twin);
        if (object.refs-- == 0) {
            drop(&object);
            objects_.remove_if([&object](const Object &one) { return &one == &object; });
        }
    }

    void compare(const Object &a, const Object &b)
    {
        const auto one = run_of(&a), other = run_of(&b);
        const bool equal = one != area_.end() && other != area_.end() && one->bytes == other->bytes;
        EXPECT_EQ(dyndata_isdyndata_equal(a.handle, b.handle), equal ? 1 : 0);
        const std::string bytes = other == area_.end() ? given_ : other->bytes;
        EXPECT_EQ(dyndata_isdyndata_equal2(a.handle, bytes.data(), static_cast<unsigned>(bytes.size())),
                  one != area_.end() && one->bytes == bytes ? 1 : 0);
    }

    static std::vector<long> figures(const memm_pool &pool)
    {
        std::vector<long> all(pool.alloc_count, pool.alloc_count + MEMM_PATHS);
        for (const long figure :
             {long{pool.cur_count}, long{pool.max_count}, static_cast<long>(pool.free_count),
              static_cast<long>(pool.scan_steps), static_cast<long>(pool.flags), static_cast<long>(pool.refs),
              static_cast<long>(pool.max_refs), pool.first_free - pool.slots, pool.last_used - pool.slots}) {
            all.push_back(figure);
        }
        return all;
    }

public:
    Trial(const char *name, int count, unsigned bytes)
        : pool_(name, count, bytes), twins_(static_cast<unsigned>(memm_initpool("", count, sizeof(dyndata), nullptr)))
    {
    }

    bool is_full() const { return room() <= pool_.area().bufsize / 4; }
    const memm_pool &descriptor() const { return pool_.descriptor(); }

    void step()
    {
        const unsigned what = next(16);
        if (what < 4 || objects_.empty()) {
            const Source from = source();
            create(dyndata_fromdata(pool_.id(), from.pointer, static_cast<unsigned>(from.bytes.size())), 0, from);
        } else if (what < 6) {
            Object &object = pick();
            const Source from = source();
            const auto length = static_cast<unsigned>(from.bytes.size());
            EXPECT_EQ(dyndata_setdata(object.handle, from.pointer, length), replace(object, from));
        } else if (what < 12) {
            Object &object = pick();
            const Source from = source();
            const auto length = static_cast<unsigned>(from.bytes.size());
            EXPECT_EQ(dyndata_adddata(object.handle, from.pointer, length), append(object, from));
        } else if (what == 12) {
            const unsigned max = next(20);
            create(dyndata_calloc_maxsize(pool_.id(), max), max, {nullptr, ""});
        } else if (what == 13) {
            Object &object = pick();
            object.max = next(20);
            EXPECT_EQ(dyndata_setmaxsize(object.handle, object.max), 0U);
        } else if (what == 14 && next(4) == 0) {
            Object &object = pick();
            EXPECT_EQ(dyndata_refalloc(object.handle), object.handle);
            memm_refalloc(object.twin);
            ++object.refs;
        } else {
            Object &object = pick();
            compare(object, pick());
            EXPECT_EQ(dyndata_free(object.handle), 0);
            release(object);
        }
    }

    void check()
    {
        std::string expected;
        for (const Run &run : area_) {
            ASSERT_EQ(dyndata_getdata(run.owner->handle), pool_.area().buffer + expected.size());
            expected += run.bytes;
        }
        expected.resize(pool_.area().bufsize, '\0');
        ASSERT_EQ(pool_.bytes(), expected);
        ASSERT_EQ(pool_.area().curr, curr_);
        ASSERT_EQ(pool_.area().max, max_);
        for (const Object &object : objects_) {
            ASSERT_EQ(dyndata_getdatasize(object.handle), object.size);
            ASSERT_EQ(dyndata_getmaxsize(object.handle), object.max);
            ASSERT_EQ(object.handle->data == nullptr, run_of(&object) == area_.end());
        }
        ASSERT_EQ(figures(pool_.descriptor()), figures(*memm_get_pool_nolock(twins_)));
    }
};

TEST(data_pool_model, agrees_through_random_operations_in_full_areas_and_pools)
{
    Trial trials[] = {{"few", 8, 80}, {"many", 40, 300}, {"tight", 9, 40}};
    recorder().allow_reports();
    const std::string dump_file = text("/tmp/memm_dump_%d", getpid());
    ASSERT_EQ(mkdir(dump_file.c_str(), 0700), 0);  // files for every depletion would take the most of the time
    for (Trial &trial : trials) {
        int full = 0;
        const int rounds = scaled(1000000 / 3);
        for (int round = 0; round < rounds; ++round) {
            trial.step();
            trial.check();
            ASSERT_FALSE(testing::Test::HasFailure()) << trial.descriptor().name << ' ' << round;
            full += trial.is_full() ? 1 : 0;
            if (round % 1000 == 0) {
                recorder().forget();
            }
        }
        EXPECT_GT(full, rounds / 2) << trial.descriptor().name << ": the area was seldom full";
        EXPECT_NE(trial.descriptor().flags, 0U) << trial.descriptor().name << ": slots never ran out";
    }
    rmdir(dump_file.c_str());
}

}  // namespace
