// Pools of plain objects. The library finds slots by an index and counters; the model looks at one slot after the
// other.
#include "support/pools.h"
#include "models/family.h"
#include "support/file_calls.h"
#include "support/recording_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr int kObjectBytes = 12;

struct Shape {
    int slots, spare;
    bool has_index;
    bool has_callbacks;
};
constexpr Shape kShapes[] = {{1, 0, false, false},   {5, 1, false, true},    {8, -3, false, true},
                             {8, 12, false, false},  {256, 20, false, true}, {257, 20, true, true},
                             {300, 9, false, false}, {900, 64, true, false}};

Difference difference;
std::string expected_trace, expected_errors;
unsigned highest_refs = 0;  // of any object

// What one pool has to look like.
struct Model {
    std::vector<int> holds;  // by slot; 0: free
    std::vector<char> tags;
    long last_normal, first_free = 0, last_used = -1;
    int now = 0, highest = 0, highest_above_base = 0, count_base = 0, spare_flag = 0;
    unsigned paths[MEMM_PATHS] = {}, scan_steps = 0, frees = 0, refs = 0, max_refs = 0;
    bool was_depleted = false;

    explicit Model(const Shape &shape)
        : holds(static_cast<std::size_t>(shape.slots)), tags(holds.size()),
          last_normal(shape.slots - 1 - std::clamp(shape.spare, 0, shape.slots))
    {
    }

    int &held(long slot) { return holds[static_cast<std::size_t>(slot)]; }
    bool is_free(long slot) { return held(slot) == 0; }

    // The slot, or -1.
    long take(bool with_spare)
    {
        const long limit = with_spare ? static_cast<long>(holds.size()) - 1 : last_normal;
        long slot = first_free;
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
            expected_trace += text("Using spare buffer %ld\r\n", slot - last_normal);
        ++paths[MEMM_PATH_TOTAL];
        ++paths[path];
        if (slot > limit)
            return -1;
        held(slot) = 1;
        tags[static_cast<std::size_t>(slot)] = 0;
        highest = std::max(highest, ++now);
        highest_above_base = std::max(highest_above_base, now - count_base);
        last_used = std::max(last_used, slot);
        spare_flag = slot > last_normal ? 1 : spare_flag;
        return slot;
    }

    void give_back(long slot)
    {
        ++operations;
        --now;
        ++frees;
        held(slot) = 0;
        first_free = std::min(first_free, slot);
        if (slot == last_used)
            while (last_used > 0 && is_free(last_used))
                --last_used;
    }

    // Deliberate: the count is written before it is refused, and wraps.
    bool refer(long slot)
    {
        const int extra = held(slot);
        held(slot) = extra % 256 + 1;
        if (extra >= 255)
            return false;
        max_refs = std::max(max_refs, ++refs);
        highest_refs = std::max(highest_refs, static_cast<unsigned>(extra));
        return true;
    }
};

// The library's pool beside its model. Its callbacks go on with the stream.
class Trial {
    Model model_;
    unsigned id_ = 0;
    std::string name_;
    int spare_flag_ = 0, depth_ = 0;  // of callbacks
    bool gc_failed_ = false;          // the model has done the search that failed
    int answer_ = 0;                  // of release_cb
    std::set<long> releasing_;        // nothing else may happen to these
    Stream *stream_ = nullptr;

    memm_pool &pool() const { return pool_at(id_); }
    void *object(long slot) const { return pool().slots + slot * static_cast<long>(pool().slot_size) + 4; }
    long slot_of(const void *address) const
    {
        return address == nullptr ? -1
                                  : (static_cast<const unsigned char *>(address) - 4 - pool().slots) /
                                        static_cast<long>(pool().slot_size);
    }
    unsigned header(long slot)
    {
        const auto tag = static_cast<unsigned>(model_.tags[static_cast<std::size_t>(slot)]);
        return model_.is_free(slot) ? ~0U : static_cast<unsigned>(model_.held(slot) - 1) << 24 | tag << 23 | id_;
    }
    // Near the ends as often as anywhere.
    long any_slot()
    {
        const long slots = static_cast<long>(model_.holds.size());
        const long from[] = {0, model_.last_used, model_.last_normal,
                             static_cast<long>(stream_->below(256)) * slots / 256};
        return std::clamp(stream_->one_of(from) + stream_->within(-2, 2), 0L, slots - 1);
    }

    static Trial &of(void *cookie) { return *static_cast<Trial *>(cookie); }

    int on_gc(int attempt)
    {
        difference.same(model_.take(false), -1L, "gc_cb although there is a slot");
        const bool again = attempt < 3 && !stream_->is_empty() && !stream_->one_in(3);
        ++depth_;
        for (unsigned count = again ? stream_->below(4) : 0; count > 0; --count)
            give_back(any_slot());
        --depth_;
        gc_failed_ = !again;
        return again ? 1 : 0;
    }

    int on_release(long slot)
    {
        releasing_.insert(slot);
        if (depth_ < 3 && stream_->one_in(5)) {
            ++depth_;
            step();
            --depth_;
        }
        releasing_.erase(slot);
        const int kAnswers[] = {0, 0, 0, MEMM_KEPT, -1};
        answer_ = model_.held(slot) == 1 ? stream_->one_of(kAnswers) : 0;
        return answer_;
    }

    bool take()
    {
        ++operations;
        const unsigned way = stream_->below(4);
        const bool with_spare = way == 0;
        void *const taken = with_spare               ? memm_calloc_nolock_nogc(id_)
                            : way == 1 || depth_ > 0 ? memm_calloc_nolock(id_)
                                                     : memm_calloc(id_);
        const long slot = std::exchange(gc_failed_, false) ? -1 : model_.take(with_spare);
        difference.same(slot_of(taken), slot, "slot");
        if (taken == nullptr) {
            const std::string message = "memm_calloc() failed for pool '" + name_ + "' (pool depleted)";
            expected_trace += message;
            expected_errors += "0x10002 2 memm memmanager: " + message + "\n";
            model_.was_depleted = true;
            return false;
        }
        const auto *const bytes = static_cast<const unsigned char *>(taken);
        difference.same(std::count(bytes, bytes + kObjectBytes, 0), long{kObjectBytes}, "zeroed bytes");
        std::memset(taken, 0xff, kObjectBytes);
        return true;
    }

    void give_back(long slot)
    {
        ++operations;
        if (releasing_.contains(slot))
            return;
        const bool is_free = model_.is_free(slot), is_last = !is_free && model_.held(slot) == 1;
        if (is_free)
            expected_trace += text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = %d)\r\n",
                                   reinterpret_cast<unsigned long>(object(slot)) - 4, 0x7fffff);
        answer_ = 0;
        const int result = depth_ > 0 ? memm_free_nolock(object(slot)) : memm_free(object(slot));
        if (is_last && answer_ == -1)
            expected_trace += text("[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %d)\r\n",
                                   reinterpret_cast<unsigned long>(object(slot)) - 4, static_cast<int>(id_));
        difference.same(result, is_last && answer_ == -1 ? int{MEMM_E_SETUP} : 0, "result of a release");
        if (is_last && answer_ == 0)
            model_.give_back(slot);
        else if (!is_free && !is_last)
            --model_.held(slot), --model_.refs, ++model_.frees;
    }

    void refer(long slot)
    {
        ++operations;
        if (model_.is_free(slot) || releasing_.contains(slot))
            return;
        const bool granted = model_.refer(slot);
        if (!granted)
            expected_errors +=
                "0x10002 2 memm memmanager: memm__refalloc() failed (too many references for this object)\n";
        difference.same(depth_ > 0 ? memm_refalloc_nolock(object(slot)) : memm_refalloc(object(slot)),
                        granted ? object(slot) : nullptr, "reference");
    }

    void tag(bool on)
    {
        memm_tag_objects(name_.c_str(), on ? this : nullptr);
        for (std::size_t slot = 0; slot < model_.holds.size(); ++slot)
            model_.tags[slot] = on && model_.holds[slot] != 0 ? 1 : model_.holds[slot] != 0 ? 0 : model_.tags[slot];
        difference.same(recorder().take_debug(),
                        text("%stagged %d object(s) in pool %s\r\n", on ? "" : "un", model_.now, name_.c_str()),
                        "tagging");
    }

    // Each visit may change the pool; what lies ahead of the walk as it is then is visited.
    void walk()
    {
        int visited = 0, left = stream_->one_in(2) ? 1 << 20 : static_cast<int>(stream_->below(8));
        const auto next = [this](long from) {
            while (from <= model_.last_used && model_.is_free(from))
                ++from;
            return from <= model_.last_used ? from : -1;
        };
        struct Walk {
            Trial *trial;
            decltype(next) *ahead;
            int *visited, *left;
            long reached = -1;
        } arguments{this, &next, &visited, &left};
        const auto visit = [](void *met, void *argument) {
            auto &[trial, ahead, count, remaining, reached] = *static_cast<Walk *>(argument);
            const long slot = trial->slot_of(met);
            difference.same(slot, (*ahead)(reached + 1), "walk");
            reached = slot;
            ++*count;
            ++trial->depth_;
            if (trial->depth_ < 3 && trial->stream_->one_in(4))
                trial->step();
            --trial->depth_;
            return --*remaining >= 0 ? 1 : 0;
        };
        const int count =
            depth_ > 0 ? memm_enum_objects_nolock(id_, visit, &arguments) : memm_enum_objects(id_, visit, &arguments);
        difference.same(count, visited, "visited");
        if (left >= 0)
            difference.same(next(arguments.reached + 1), -1L, "end of a walk");
    }

    void look_up(long slot)
    {
        void *const it = object(slot);
        const bool is_used = !model_.is_free(slot);
        long following = slot + 1;
        while (following <= model_.last_used && model_.is_free(following))
            ++following;
        difference.same(memm_getobject_byindex(id_, static_cast<int>(slot)), is_used ? it : nullptr, "by index");
        difference.same(memm_isvalidobj(it), is_used ? 1 : 0, "validity");
        difference.same(memm_getnext(it), is_used && following <= model_.last_used ? object(following) : nullptr,
                        "next");
        difference.same(memm_getindex(it), is_used ? static_cast<int>(slot) : 0, "index");
        difference.same(memm_search(id_, static_cast<int>(slot),
                                    [](void *met, int wanted) { return memm_getindex(met) == wanted ? 1 : 0; }),
                        is_used ? it : nullptr, "search");
        const auto first = std::find_if(model_.holds.begin(), model_.holds.end(), [](int holds) { return holds != 0; });
        difference.same(slot_of(memm_getfirst(id_)), first == model_.holds.end() ? -1L : first - model_.holds.begin(),
                        "first");
    }

public:
    explicit Trial(const Shape &shape) : model_(shape), name_(text("pool %d.%d", shape.slots, shape.spare))
    {
        memm_pooloptions options{};
        options.cookie = this;
        options.spare_count = shape.spare;
        if (shape.has_callbacks) {
            options.gc_cb = [](void *cookie, int attempt, int) { return of(cookie).on_gc(attempt); };
            options.release_cb = [](void *released) {
                Trial &trial = of(memm_getpoolcookie_nolock(released));
                return trial.on_release(trial.slot_of(released));
            };
        }
        make_pool("", 1);
        if (!shape.has_index && shape.slots > 256)
            recorder().fail_nth(Op::alloc, 2);
        id_ = make_pool(name_.c_str(), shape.slots, kObjectBytes, options);
        fault = nullptr;
        memm_get_currentcount_ptr(id_, &model_.count_base, &spare_flag_);
    }

    void run(Stream &stream)
    {
        stream_ = &stream;
        step();
        compare();
    }

    void step()
    {
        const unsigned choice = stream_->below(32);
        const auto slots = static_cast<unsigned>(model_.holds.size());
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
            model_.count_base = static_cast<int>(stream_->below(slots));
        else if (choice == 26)
            spare_flag_ = model_.spare_flag = 0;
        else if (choice == 27 && depth_ == 0)
            for (unsigned count = stream_->below(slots / 2 + 2); count > 0 && take(); --count)
                ;
        else if (choice == 28 && depth_ == 0)
            for (long slot = any_slot(); slot >= 0 && !stream_->is_empty() && !stream_->one_in(40); --slot)
                give_back(slot);
        else if (choice == 29)
            for (long slot = any_slot(), count = 260; count > 0; --count)
                refer(slot);
    }

    void compare()
    {
        const memm_pool &p = pool();
        const auto *paths = p.alloc_count, *expected = model_.paths;
        difference.same(
            (std::vector<long long>{p.cur_count, p.max_count, p.max_count_rel, paths[0], paths[1], paths[2], paths[3],
                                    paths[4], p.scan_steps, p.free_count, p.refs, p.max_refs, slot_of(p.first_free + 4),
                                    p.last_used < p.slots ? -1 : slot_of(p.last_used + 4), spare_flag_, p.flags != 0,
                                    static_cast<int>(pool_at(0).max_refs)}),
            (std::vector<long long>{model_.now, model_.highest, model_.highest_above_base, expected[0], expected[1],
                                    expected[2], expected[3], expected[4], model_.scan_steps, model_.frees, model_.refs,
                                    model_.max_refs, model_.first_free, model_.last_used, model_.spare_flag,
                                    model_.was_depleted, highest_refs}),
            name_.c_str());
        for (std::size_t slot = stream_->one_in(16) ? 0 : model_.holds.size(); slot < model_.holds.size(); ++slot)
            difference.same(header_of(object(static_cast<long>(slot))), header(static_cast<long>(slot)), "header");
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
