#include "data_pool.h"
#include "support/rounds.h"

#include <list>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A data pool and what is to be in it. A second pool, of plain objects, goes through every allocation and release that
// a call stands for: its descriptor foretells that of the data pool.
class Trial {
    struct Object {
        dyndata *handle;
        void *twin;
        unsigned max, refs = 0, size = 0;
        std::string bytes{};
    };
    using Place = std::list<Object>::iterator;
    struct Source {
        const void *pointer;
        std::string bytes;
    };

    DataPool pool_;
    unsigned twins_;
    std::list<Object> objects_;  // in the order of their bytes; those without any stand anywhere
    unsigned curr_ = 0, max_ = 0;
    std::mt19937 random_{4711};
    std::string given_;

    unsigned next(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }
    unsigned room() const { return pool_.area().bufsize - curr_; }
    Place pick() { return std::next(objects_.begin(), next(static_cast<unsigned>(objects_.size()))); }

    // Bytes of an object or a part of them, bytes from outside, or null.
    Source source()
    {
        if (const Place own = next(4) == 0 && curr_ > 0 ? pick() : objects_.end();
            own != objects_.end() && !own->bytes.empty()) {
            const unsigned from = next(static_cast<unsigned>(own->bytes.size()));
            return {dyndata_getdata(own->handle) + from, own->bytes.substr(from, 1 + next(20))};
        }
        given_.assign(next(next(8) == 0 ? pool_.area().bufsize + 2 : pool_.area().bufsize / 4),
                      static_cast<char>('a' + next(26)));
        return {next(32) == 0 ? nullptr : given_.data(), given_};
    }

    // --- what the calls do ---

    void place(Place object, unsigned at_once, const std::string &bytes)
    {
        max_ = std::max(max_, curr_ + at_once);
        curr_ += static_cast<unsigned>(bytes.size() - object->bytes.size());
        object->bytes = bytes;
        object->size = static_cast<unsigned>(bytes.size());
        objects_.splice(objects_.end(), objects_, object);
    }

    unsigned write(Place object, const Source &source)
    {
        if (source.pointer == nullptr) {
            return kOk;
        }
        const unsigned most = object->max != 0 ? std::min(object->max, room()) : room();
        object->max = most == 0 ? 0 : object->max;
        const std::string kept = source.bytes.substr(0, most);
        place(object, static_cast<unsigned>(kept.size()), kept);
        return most < source.bytes.size() ? kNoMemory : kOk;
    }

    unsigned replace(Place object, const Source &source)
    {
        void *const holder = memm_calloc(twins_);
        if (holder == nullptr) {
            return kNoMemory;
        }
        const auto old = static_cast<unsigned>(std::exchange(object->bytes, "").size());
        const unsigned result = write(object, source);
        curr_ -= old;
        memm_free(holder);
        return result;
    }

    unsigned append(Place object, const Source &source)
    {
        if (source.pointer == nullptr || object->bytes.empty()) {
            return write(object, source);
        }
        const bool is_last = std::all_of(std::next(object), objects_.end(), [](auto &o) { return o.bytes.empty(); });
        const unsigned moved = is_last ? 0 : object->size;
        const auto count = static_cast<unsigned>(source.bytes.size());
        bool fits = room() > moved && room() - moved >= count;
        if (!is_last) {
            void *const work = memm_calloc(twins_), *const holder = work == nullptr ? work : memm_calloc(twins_);
            fits = fits && holder != nullptr;
            memm_free(holder);
            memm_free(work);
        }
        if (!fits) {
            return kNoMemory;
        }
        object->max = is_last ? object->max : 0;
        place(object, moved + count, object->bytes + source.bytes);
        return kOk;
    }

    void create(dyndata *handle, unsigned max, const Source &source)
    {
        const Place object = objects_.insert(objects_.end(), {handle, memm_calloc(twins_), max});
        const bool fits = object->twin != nullptr && write(object, source) == kOk;
        ASSERT_EQ(handle != nullptr, fits);
        if (fits) {
            EXPECT_EQ(memm_getindex(handle), memm_getindex(object->twin));
        } else {
            release(object);
        }
    }

    void release(Place object)
    {
        memm_free(object->twin);
        if (object->refs-- == 0) {
            curr_ -= static_cast<unsigned>(object->bytes.size());
            objects_.erase(object);
        }
    }

    static auto figures(const memm_pool &pool)
    {
        return std::tuple(pool.cur_count, pool.max_count, pool.free_count, pool.scan_steps, pool.flags, pool.refs,
                          pool.max_refs, pool.first_free - pool.slots, pool.last_used - pool.slots,
                          std::vector(pool.alloc_count, pool.alloc_count + MEMM_PATHS));
    }

public:
    Trial(const char *name, int count, unsigned bytes)
        : pool_(name, count, bytes), twins_(static_cast<unsigned>(memm_initpool("", count, sizeof(dyndata), nullptr)))
    {
    }

    bool is_full() const { return room() <= pool_.area().bufsize / 4; }
    bool ran_dry() const { return memm_get_pool_nolock(twins_)->flags != 0; }

    void step()
    {
        const unsigned what = next(16), max = next(20);
        const Source from = source();
        const auto length = static_cast<unsigned>(from.bytes.size());
        const Place object = objects_.empty() ? objects_.end() : pick();
        if (what < 4 || objects_.empty()) {
            create(dyndata_fromdata(pool_.id(), from.pointer, length), 0, from);
        } else if (what < 6) {
            EXPECT_EQ(dyndata_setdata(object->handle, from.pointer, length), replace(object, from));
        } else if (what < 12) {
            EXPECT_EQ(dyndata_adddata(object->handle, from.pointer, length), append(object, from));
        } else if (what == 12) {
            create(dyndata_calloc_maxsize(pool_.id(), max), max, {nullptr, ""});
        } else if (what == 13) {
            EXPECT_EQ(dyndata_setmaxsize(object->handle, object->max = max), kOk);
        } else if (what == 14 && max < 5) {
            EXPECT_EQ(dyndata_refalloc(object->handle),
                      memm_refalloc(object->twin) == nullptr ? nullptr : object->handle);
            ++object->refs;
        } else {
            const Place other = pick();
            const bool equal = object->bytes == other->bytes && !other->bytes.empty();
            EXPECT_EQ(dyndata_isdyndata_equal(object->handle, other->handle), equal ? 1 : 0);
            EXPECT_EQ(dyndata_isdyndata_equal2(object->handle, from.pointer, length),
                      object->bytes == from.bytes && length > 0 && from.pointer != nullptr ? 1 : 0);
            EXPECT_EQ(dyndata_free(object->handle), 0);
            release(object);
        }
    }

    void check() const
    {
        std::string expected;
        for (const Object &object : objects_) {
            const auto *const data = object.bytes.empty() ? nullptr : pool_.area().buffer + expected.size();
            ASSERT_EQ(std::tuple(dyndata_getdata(object.handle), dyndata_getdatasize(object.handle),
                                 dyndata_getmaxsize(object.handle)),
                      std::tuple(data, object.size, object.max));
            expected += object.bytes;
        }
        expected.resize(pool_.area().bufsize, '\0');
        ASSERT_EQ(pool_.bytes(), expected);
        ASSERT_EQ(std::tuple(pool_.area().curr, pool_.area().max), std::tuple(curr_, max_));
        ASSERT_EQ(figures(*memm_get_pool_nolock(pool_.id())), figures(*memm_get_pool_nolock(twins_)));
    }
};

TEST(data_pool_model, agrees_through_random_operations_in_full_areas_and_pools)
{
    Trial trials[] = {{"few", 8, 80}, {"many", 40, 300}, {"tight", 9, 40}};
    recorder().allow_reports();
    const std::string dump_file = text("/tmp/memm_dump_%d", getpid());
    ASSERT_EQ(mkdir(dump_file.c_str(), 0700), 0);  // files for every depletion would take the most of the time
    const int rounds = scaled(1000000 / 3);
    for (Trial &trial : trials) {
        int full = 0;
        for (int round = 0; round < rounds; ++round) {
            trial.step();
            trial.check();
            ASSERT_FALSE(HasFailure()) << &trial - trials << ", round " << round;
            full += trial.is_full() ? 1 : 0;
            if (round % 1000 == 0) {
                recorder().forget();
            }
        }
        EXPECT_GT(full, rounds / 2) << "the area was seldom full";
        EXPECT_TRUE(trial.ran_dry());
    }
    rmdir(dump_file.c_str());
}

}  // namespace
