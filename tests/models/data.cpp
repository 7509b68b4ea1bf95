// Data buffers against lists of byte strings.
#include "dyndata/area.h"
#include "models/family.h"
#include "support/file_calls.h"
#include "support/pools.h"

#include <memmanager/dyndata.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <utility>

namespace {

constexpr unsigned kOk = MEMM_OK, kNoMemory = MEMM_E_NO_MEMORY;

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
    struct Source {
        const void *pointer;
        std::string bytes;
    };

    unsigned id_, twins_;
    const memm::data::Area &area_ = *static_cast<const memm::data::Area *>(memm_getpoolcookie_bypoolid(id_));
    std::list<Object> objects_;  // in the order of their bytes; those without any stand anywhere
    unsigned curr_ = 0, max_ = 0;
    std::string given_;

    unsigned room() const { return area_.bufsize - curr_; }
    Place pick(Stream &in) { return std::next(objects_.begin(), in.next() % static_cast<int>(objects_.size())); }

    // Bytes from outside, or null.
    Source source(Stream &in)
    {
        if (in.one_in(32))
            return {nullptr, "none"};
        const unsigned most = in.one_in(8) ? area_.bufsize + 2 : area_.bufsize / 4;
        given_.assign(in.next() % most, static_cast<char>('a' + in.below(26)));
        return {given_.data(), given_};
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
        if (source.pointer == nullptr)
            return kOk;
        const unsigned most = object->max != 0 ? std::min(object->max, room()) : room();
        object->max = most == 0 ? 0 : object->max;
        const std::string kept = source.bytes.substr(0, most);
        place(object, static_cast<unsigned>(kept.size()), kept);
        return most < source.bytes.size() ? kNoMemory : kOk;
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
        if (source.pointer == nullptr || object->bytes.empty())
            return write(object, source);
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
        if (!fits)
            return kNoMemory;
        object->max = is_last ? object->max : 0;
        place(object, moved + count, object->bytes + source.bytes);
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
        found.same(handle == nullptr ? -1 : memm_getindex(handle), fits ? memm_getindex(object->twin) : -1, "created");
        if (!fits)
            release(object);
    }

public:
    Difference found;

    Trial(const char *name, int count, unsigned bytes)
        : id_(static_cast<unsigned>(dyndata_initpool(name, count, bytes))),
          twins_(static_cast<unsigned>(memm_initpool("", count, sizeof(dyndata), nullptr)))
    {
    }

    void step(Stream &in)
    {
        const unsigned what = in.below(16), max = in.below(20);
        const Source from = source(in);
        const auto length = static_cast<unsigned>(from.bytes.size());
        if (what < 4 || objects_.empty())
            return create(dyndata_fromdata(id_, from.pointer, length), 0, from);
        if (what == 4)
            return create(dyndata_calloc_maxsize(id_, max), max, {nullptr, ""});
        const Place object = pick(in);
        if (what < 7) {
            found.same(dyndata_setdata(object->handle, from.pointer, length), replace(object, from), "setdata");
        } else if (what < 12) {
            found.same(dyndata_adddata(object->handle, from.pointer, length), append(object, from), "adddata");
        } else if (what == 12) {
            found.same(dyndata_setmaxsize(object->handle, object->max = max), kOk, "setmaxsize");
        } else {
            const Place other = pick(in);
            const bool equal = object->bytes == other->bytes && !other->bytes.empty();
            found.same(dyndata_isdyndata_equal(object->handle, other->handle), int{equal}, "equal");
            found.same(dyndata_free(object->handle), 0, "free");
            release(object);
        }
    }

    void look()
    {
        std::string expected;
        for (const Object &object : objects_) {
            found.same(dyndata_getdata(object.handle), object.bytes.empty() ? nullptr : area_.buffer + expected.size(),
                       "place");
            found.same(dyndata_getdatasize(object.handle), object.size, "size");
            found.same(dyndata_getmaxsize(object.handle), object.max, "maximum size");
            expected += object.bytes;
        }
        expected.resize(area_.bufsize, '\0');
        found.same(std::string_view(reinterpret_cast<const char *>(area_.buffer), area_.bufsize), expected, "area");
        found.same(std::pair(area_.curr, area_.max), std::pair(curr_, max_), "bytes in use");
        found.same(figures(id_), figures(twins_), "counters");
    }
};

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static const bool started = memm_init(16, 1) == MEMM_OK && dyndata_init(3) == MEMM_OK;
    static Trial trials[] = {{"few", 8, 80}, {"many", 40, 300}, {"tight", 9, 40}};
    file_faults.open_error = EACCES;  // files for every depletion would take the most of the time
    for (Stream in(bytes); started && !in.is_empty(); ++operations) {
        Trial &trial = trials[in.below(std::size(trials))];
        trial.step(in);
        trial.look();
        if (!trial.found.is_none())
            return trial.found.first();
    }
    return "";
}
