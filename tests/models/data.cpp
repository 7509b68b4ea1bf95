// Data buffers against lists of byte strings.
#include "dyndata/area.h"
#include "models/family.h"

#include <list>

constexpr unsigned kOk = MEMM_OK, kNoMemory = MEMM_E_NO_MEMORY;

using Source = std::optional<std::string>;  // none: a null pointer

// A data pool and what is to be in it. A second pool, of plain objects, goes through every allocation and release that
// a call stands for: its descriptor foretells that of the data pool.
class Trial {
    struct Object {
        dyndata *handle;
        void *twin;
        unsigned max, size = 0;
        std::string bytes{};
    };
    using Place = std::list<Object>::iterator;

    const unsigned id_, twins_;
    const memm::data::Area &area_ = *static_cast<const memm::data::Area *>(memm_getpoolcookie_bypoolid(id_));
    std::list<Object> objects_;  // in the order of their bytes; those without any stand anywhere
    unsigned curr_ = 0, max_ = 0;

    unsigned room() const { return area_.bufsize - curr_; }
    Place pick(Stream &in) { return std::next(objects_.begin(), in.next() % static_cast<int>(objects_.size())); }

    Source any_source(Stream &in) const
    {
        if (in.one_in(32))
            return {};
        const unsigned most = in.one_in(8) ? area_.bufsize + 2 : area_.bufsize / 4;
        return std::string(in.next() % most, static_cast<char>('a' + in.below(26)));
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
        if (!source)
            return kOk;
        const unsigned most = object->max != 0 ? std::min(object->max, room()) : room();
        object->max = most == 0 ? 0 : object->max;
        const std::string kept = source->substr(0, most);
        place(object, static_cast<unsigned>(kept.size()), kept);
        return most < source->size() ? kNoMemory : kOk;
    }

    unsigned replace(Place object, const Source &source)
    {
        void *const holder = memm_calloc(twins_);
        if (holder == nullptr)
            return kNoMemory;
        const auto old = static_cast<unsigned>(std::exchange(object->bytes, "").size());
        const unsigned result = write(object, source);
        curr_ -= old;
        memm_free(holder);
        return result;
    }

    unsigned append(Place object, const Source &source)
    {
        if (!source || object->bytes.empty())
            return write(object, source);
        const bool is_last = std::all_of(std::next(object), objects_.end(), [](auto &o) { return o.bytes.empty(); });
        const unsigned moved = is_last ? 0 : object->size, at_once = moved + static_cast<unsigned>(source->size());
        bool fits = room() > moved && room() >= at_once;
        if (!is_last) {
            void *const work = memm_calloc(twins_), *const holder = work == nullptr ? work : memm_calloc(twins_);
            fits = fits && holder != nullptr;
            memm_free(holder);
            memm_free(work);
        }
        if (!fits)
            return kNoMemory;
        object->max = is_last ? object->max : 0;
        place(object, at_once, object->bytes + *source);
        return kOk;
    }

    void release(Place object)
    {
        memm_free(object->twin);
        curr_ -= static_cast<unsigned>(object->bytes.size());
        objects_.erase(object);
    }

    void create(dyndata *handle, unsigned max, const Source &source)
    {
        const Place object = objects_.insert(objects_.end(), {handle, memm_calloc(twins_), max});
        const bool fits = object->twin != nullptr && write(object, source) == kOk;
        same(handle == nullptr ? -1 : memm_getindex(handle), fits ? memm_getindex(object->twin) : -1, "created");
        if (!fits)
            release(object);
    }

public:
    Trial(int count, unsigned bytes)
        : id_(static_cast<unsigned>(dyndata_initpool("", count, bytes))), twins_(make_pool("", count, sizeof(dyndata)))
    {
    }

    void step(Stream &in)
    {
        const unsigned what = in.below(16), max = in.below(20);
        const Source from = any_source(in);
        const char *const pointer = from ? from->data() : nullptr;
        const auto length = static_cast<unsigned>(from.value_or("none").size());
        if (what < 4 || objects_.empty())
            return create(dyndata_fromdata(id_, pointer, length), 0, from);
        if (what == 4)
            return create(dyndata_calloc_maxsize(id_, max), max, {});
        const Place object = pick(in);
        if (what < 7)
            return same(dyndata_setdata(object->handle, pointer, length), replace(object, from), "setdata");
        if (what < 12)
            return same(dyndata_adddata(object->handle, pointer, length), append(object, from), "adddata");
        if (what == 12)
            return same(dyndata_setmaxsize(object->handle, object->max = max), kOk, "setmaxsize");
        same(dyndata_free(object->handle), 0, "free");
        release(object);
    }

    void look() const
    {
        std::string expected;
        for (const Object &object : objects_) {
            same(dyndata_getdata(object.handle), object.bytes.empty() ? nullptr : area_.buffer + expected.size(),
                 "place");
            same(dyndata_getdatasize(object.handle), object.size, "size");
            same(dyndata_getmaxsize(object.handle), object.max, "maximum size");
            const Object &first = objects_.front();
            same(dyndata_isdyndata_equal(object.handle, first.handle) != 0,
                 object.bytes == first.bytes && !first.bytes.empty(), "equal");
            expected += object.bytes;
        }
        expected.resize(area_.bufsize, '\0');
        same(std::string_view(reinterpret_cast<const char *>(area_.buffer), area_.bufsize), expected, "area");
        same(std::pair(area_.curr, area_.max), std::pair(curr_, max_), "bytes in use");
        same(figures(pool_at(id_)), figures(pool_at(twins_)), "counters");
    }
};

void step(Stream &in)
{
    [[maybe_unused]] static const int started = dyndata_init(3);
    static Trial trials[] = {{8, 80}, {40, 300}, {9, 40}};
    Trial &trial = in.one_of(trials);
    trial.step(in);
    trial.look();
}
