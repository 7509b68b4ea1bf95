// Pools of plain objects. The library finds slots by an index and counters; the model looks at one slot after the
// other.
#include "support/pools.h"
#include "models/family.h"
#include "support/file_calls.h"
#include "support/recording_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

namespace {

constexpr int kObjectBytes = 12;
constexpr unsigned kFree = ~0U, kTag = 1U << 23, kReference = 1U << 24;

struct Shape {
    int slots, spare;
    bool has_index, has_callbacks;
};
constexpr Shape kShapes[] = {{1, 0, false, false},   {5, 1, false, true},    {8, -3, false, true},
                             {8, 12, false, false},  {256, 20, false, true}, {257, 20, true, true},
                             {300, 9, false, false}, {4200, 64, true, false}};

Difference difference;
std::string expected_trace, expected_errors;
unsigned highest_refs = 0;  // of any object

// What one pool has to look like.
struct Model {
    std::vector<unsigned> headers;
    unsigned id = 0;
    int last_normal, first_free = 0, last_used = -1;
    int now = 0, highest = 0, highest_above_base = 0, count_base = 0, spare_flag = 0;
    unsigned paths[MEMM_PATHS] = {}, scan_steps = 0, frees = 0, refs = 0, max_refs = 0, flags = 0;

    explicit Model(const Shape &shape)
        : headers(static_cast<std::size_t>(shape.slots), kFree),
          last_normal(shape.slots - 1 - std::clamp(shape.spare, 0, shape.slots))
    {
    }

    int slots() const { return static_cast<int>(headers.size()); }
    unsigned &header(int slot) { return headers[static_cast<std::size_t>(slot)]; }
    bool is_free(int slot) { return header(slot) == kFree; }

    int used_from(int slot)
    {
        while (slot <= last_used && is_free(slot))
            ++slot;
        return slot <= last_used ? slot : -1;
    }

    // The slot, or -1.
    int take(bool with_spare)
    {
        const int limit = with_spare ? slots() - 1 : last_normal;
        int slot = first_free;
        unsigned path = MEMM_PATH_OTHER;
        if (slot <= limit && is_free(slot)) {
            path = MEMM_PATH_FIRST_FREE;
            first_free = slot + 1;
        } else if (last_used < last_normal && is_free(last_used + 1)) {
            path = MEMM_PATH_LAST_USED;
            slot = last_used + 1;
        } else if (slot <= limit) {
            for (; slot <= limit && !is_free(slot); ++slot)
                ++scan_steps;
            if (slot <= limit) {
                path = MEMM_PATH_SCAN;
                first_free = slot + 1;
            }
        }
        if (slot - last_normal >= 10)
            expected_trace += text("Using spare buffer %d\r\n", slot - last_normal);
        ++paths[MEMM_PATH_TOTAL];
        ++paths[path];
        if (slot > limit)
            return -1;
        header(slot) = id;
        highest = std::max(highest, ++now);
        highest_above_base = std::max(highest_above_base, now - count_base);
        last_used = std::max(last_used, slot);
        spare_flag = slot > last_normal ? 1 : spare_flag;
        return slot;
    }

    void give_back(int slot)
    {
        --now;
        header(slot) = kFree;
        first_free = std::min(first_free, slot);
        if (slot == last_used)
            while (last_used > 0 && is_free(last_used))
                --last_used;
    }

    // Deliberate: the count is written before it is refused, and wraps.
    bool refer(int slot)
    {
        const unsigned count = (header(slot) >> 24) + 1;
        header(slot) += kReference;
        if (count >= 255)
            return false;
        max_refs = std::max(max_refs, ++refs);
        highest_refs = std::max(highest_refs, count);
        return true;
    }
};

// The library's pool beside its model. Its callbacks go on with the stream.
class Trial {
    Model model_;
    const unsigned &id_ = model_.id;
    std::string name_;
    int spare_flag_ = 0, depth_ = 0;  // of callbacks
    bool gc_failed_ = false;          // the model has done the search that failed
    int answer_ = 0;                  // of release_cb
    std::set<int> releasing_;         // nothing else may happen to these
    int reached_ = -1, visits_left_ = 0;
    Stream *stream_ = nullptr;

    void *object(int slot) const { return pool_at(id_).slots + slot * static_cast<int>(pool_at(id_).slot_size) + 4; }
    unsigned long address(int slot) const { return reinterpret_cast<unsigned long>(object(slot)) - 4; }
    int slot_of(const void *object) const
    {
        if (object == nullptr)
            return -1;
        const auto distance = static_cast<const unsigned char *>(object) - 4 - pool_at(id_).slots;
        return static_cast<int>(distance / static_cast<int>(pool_at(id_).slot_size));
    }
    int any_slot()  // near the ends as often as anywhere
    {
        const int from[] = {0, model_.last_used, model_.last_normal,
                            static_cast<int>(stream_->below(256)) * model_.slots() / 256};
        return std::clamp(stream_->one_of(from) + stream_->within(-2, 2), 0, model_.slots() - 1);
    }
    void step_inside(unsigned chances)
    {
        ++depth_;
        if (depth_ < 4 && stream_->one_in(chances))
            step();
        --depth_;
    }

    int on_gc(int attempt)
    {
        difference.same(model_.take(false), -1, "gc_cb although there is a slot");
        const bool again = attempt < 3 && !stream_->is_empty() && !stream_->one_in(3);
        ++depth_;
        for (unsigned count = again ? stream_->below(4) : 0; count > 0; --count)
            give_back(any_slot());
        --depth_;
        gc_failed_ = !again;
        return again ? 1 : 0;
    }

    int on_release(int slot)
    {
        releasing_.insert(slot);
        step_inside(5);
        releasing_.erase(slot);
        const int answers[] = {0, 0, 0, MEMM_KEPT, -1};
        return answer_ = stream_->one_of(answers);
    }

    bool take()
    {
        ++operations;
        const unsigned way = stream_->below(4);
        void *const taken = (way == 0                 ? memm_calloc_nolock_nogc
                             : way == 1 || depth_ > 0 ? memm_calloc_nolock
                                                      : memm_calloc)(id_);
        const int slot = std::exchange(gc_failed_, false) ? -1 : model_.take(way == 0);
        difference.same(slot_of(taken), slot, "slot");
        if (taken == nullptr) {
            const std::string message = "memm_calloc() failed for pool '" + name_ + "' (pool depleted)";
            expected_trace += message + text("Could not open '/tmp/memm_dump_%d' stats file\r\n", getpid());
            expected_errors += "0x10002 2 memm memmanager: " + message + "\n";
            model_.flags = 0x80000000U;
            return false;
        }
        const auto *const bytes = static_cast<const unsigned char *>(taken);
        difference.same(std::count(bytes, bytes + kObjectBytes, 0), long{kObjectBytes}, "zeroed bytes");
        std::memset(taken, 0xff, kObjectBytes);
        return true;
    }

    void give_back(int slot)
    {
        ++operations;
        if (releasing_.contains(slot))
            return;
        const bool was_free = model_.is_free(slot), was_shared = !was_free && model_.header(slot) >= kReference;
        if (was_free)
            expected_trace += text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = %d)\r\n",
                                   address(slot), 0x7fffff);
        answer_ = 0;
        const int result = (depth_ > 0 ? memm_free_nolock : memm_free)(object(slot));
        if (answer_ == -1)
            expected_trace +=
                text("[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %u)\r\n", address(slot), id_);
        difference.same(result, answer_ == -1 ? int{MEMM_E_SETUP} : 0, "result of a release");
        model_.frees += !was_free && answer_ == 0 ? 1 : 0;
        if (was_shared)
            model_.header(slot) -= kReference, --model_.refs;
        else if (!was_free && answer_ == 0)
            model_.give_back(slot);
    }

    void refer(int slot)
    {
        ++operations;
        if (model_.is_free(slot) || releasing_.contains(slot))
            return;
        const bool granted = model_.refer(slot);
        if (!granted)
            expected_errors +=
                "0x10002 2 memm memmanager: memm__refalloc() failed (too many references for this object)\n";
        difference.same((depth_ > 0 ? memm_refalloc_nolock : memm_refalloc)(object(slot)),
                        granted ? object(slot) : nullptr, "reference");
    }

    void tag(bool on)
    {
        memm_tag_objects(name_.c_str(), on ? this : nullptr);
        for (unsigned &header : model_.headers)
            header = header == kFree ? kFree : on ? header | kTag : header & ~kTag;
        const std::string expected =
            text("%stagged %d object(s) in pool %s\r\n", on ? "" : "un", model_.now, name_.c_str());
        difference.same(recorder().take_debug(), expected, "tagging");
    }

    // Each visit may change the pool; what lies ahead of the walk as it is then is visited.
    static int visit(void *met, void *cookie)
    {
        Trial &trial = *static_cast<Trial *>(cookie);
        difference.same(trial.slot_of(met), trial.model_.used_from(trial.reached_ + 1), "walk");
        trial.reached_ = trial.slot_of(met);
        const int reached = trial.reached_, left = --trial.visits_left_;
        trial.step_inside(4);
        trial.reached_ = reached;  // a walk inside of this one has its own
        trial.visits_left_ = left;
        return left > 0 ? 1 : 0;
    }

    void walk()
    {
        const int most = stream_->one_in(2) ? 1 << 20 : stream_->within(1, 8);
        reached_ = -1;
        visits_left_ = most;
        const int count = (depth_ > 0 ? memm_enum_objects_nolock : memm_enum_objects)(id_, visit, this);
        difference.same(count, most - visits_left_, "visited");
        if (visits_left_ > 0)
            difference.same(model_.used_from(reached_ + 1), -1, "end of a walk");
    }

    void look_up(int slot)
    {
        const auto matches = [](void *met, int wanted) { return memm_getindex(met) == wanted ? 1 : 0; };
        void *const it = object(slot), *const used = model_.is_free(slot) ? nullptr : it;
        difference.same(memm_getobject_byindex(id_, slot), used, "by index");
        difference.same(memm_isvalidobj(it) + memm_isvalidobj_nolock(it), used ? 2 : 0, "validity");
        difference.same(slot_of(memm_getnext(it)), used ? model_.used_from(slot + 1) : -1, "next");
        difference.same(memm_getindex(it), used ? slot : 0, "index");
        difference.same(memm_search(id_, slot, matches), used, "search");
        difference.same(slot_of(memm_getfirst(id_)), model_.used_from(0), "first");
    }

public:
    explicit Trial(const Shape &shape) : model_(shape), name_(text("pool %d.%d", shape.slots, shape.spare))
    {
        memm_pooloptions options{};
        options.cookie = this;
        options.spare_count = shape.spare;
        if (shape.has_callbacks) {
            options.gc_cb = [](void *cookie, int attempt, int) { return static_cast<Trial *>(cookie)->on_gc(attempt); };
            options.release_cb = [](void *object) {
                Trial &trial = *static_cast<Trial *>(memm_getpoolcookie_nolock(object));
                return trial.on_release(trial.slot_of(object));
            };
        }
        make_pool("", 1);
        if (!shape.has_index)
            recorder().fail_nth(Op::alloc, 2);
        model_.id = make_pool(name_.c_str(), shape.slots, kObjectBytes, options);
        fault = nullptr;
        memm_get_currentcount_ptr(id_, &model_.count_base, &spare_flag_);
    }

    void run(Stream &stream)
    {
        stream_ = &stream;
        step();
        compare();
    }

    int share_of(int slots) { return static_cast<int>(stream_->next()) * slots / 400; }

    void step()
    {
        const unsigned choice = stream_->below(32);
        if (choice < 8)
            take();
        else if (choice < 16)
            give_back(any_slot());
        else if (choice < 20)
            refer(any_slot());
        else if (choice < 22)
            look_up(any_slot());
        else if (choice < 24)
            walk();
        else if (choice == 24)
            tag(stream_->one_in(2));
        else if (choice == 25)
            model_.count_base = static_cast<int>(stream_->next());
        else if (choice == 26)
            spare_flag_ = model_.spare_flag = 0;
        else if (choice == 27 && depth_ == 0)
            for (int count = share_of(std::min(model_.slots(), 900)); count >= 0 && take(); --count)
                ;
        else if (choice == 28 && depth_ == 0)
            for (int slot = any_slot(), count = share_of(model_.slots()); slot >= 0 && count > 0; --slot, --count)
                give_back(slot);
        else if (choice == 29)
            for (int slot = any_slot(), count = 260; count > 0; --count)
                refer(slot);
    }

    void compare()
    {
        const memm_pool &p = pool_at(id_);
        const unsigned(&is)[MEMM_PATHS] = p.alloc_count, (&shall)[MEMM_PATHS] = model_.paths;
        using Numbers = std::vector<long long>;
        difference.same((Numbers{p.cur_count, p.max_count, p.max_count_rel, is[0], is[1], is[2], is[3], is[4],
                                 p.scan_steps, p.free_count, p.refs, p.max_refs, slot_of(p.first_free + 4), spare_flag_,
                                 p.flags, pool_at(0).max_refs}),
                        (Numbers{model_.now, model_.highest, model_.highest_above_base, shall[0], shall[1], shall[2],
                                 shall[3], shall[4], model_.scan_steps, model_.frees, model_.refs, model_.max_refs,
                                 model_.first_free, model_.spare_flag, model_.flags, highest_refs}),
                        name_.c_str());
        difference.same(p.last_used < p.slots ? -1 : slot_of(p.last_used + 4), model_.last_used, "last_used");
        for (int slot = stream_->one_in(16) ? 0 : model_.slots(); slot < model_.slots(); ++slot)
            difference.same(header_of(object(slot)), model_.header(slot), "header");
        difference.same(recorder().take_trace(), std::exchange(expected_trace, ""), "trace");
        difference.same(recorder().take_errors(), std::exchange(expected_errors, ""), "errors");
    }
};

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static std::vector<std::unique_ptr<Trial>> trials;
    file_faults.open_error = EACCES;  // files for every depletion would take the most of the time
    for (const Shape &shape : kShapes)
        if (trials.size() < std::size(kShapes))
            trials.push_back(std::make_unique<Trial>(shape));
    Stream stream(bytes);
    while (!stream.is_empty() && difference.is_none())
        for (Trial &trial = *stream.one_of(trials); !stream.is_empty() && difference.is_none() && !stream.one_in(32);)
            trial.run(stream);
    return difference.first();
}
