// Pools of plain objects. The library finds slots by an index and counters; the model looks at one slot after the
// other.
#include "models/family.h"
#include "support/recording_platform.h"

constexpr unsigned kFree = ~0U, kReference = 1U << 24;

std::string expected_trace, expected_errors;
unsigned highest_refs = 0;  // of any object

// A pool and what it has to look like. Its callbacks go on with the stream.
class Trial {
    const int last_normal_;
    std::vector<unsigned> headers_;
    const std::size_t bytes_;  // of an object; many are zeroed in another way than few
    unsigned id_ = 0;
    memm_pool pool_{};  // the counters
    int first_free_ = 0, last_used_ = -1, count_base_ = 0, spare_flag_ = 0, expected_spare_flag_ = 0;

    int depth_ = 0;            // of callbacks
    bool gc_failed_ = false;   // the model has done the search that failed
    int answer_ = 0;           // of release_cb
    std::set<int> releasing_;  // nothing else may happen to these
    int reached_ = -1, visits_left_ = 0;
    Stream *stream_ = nullptr;

    int slots() const { return static_cast<int>(headers_.size()); }
    unsigned &header(int slot) { return headers_[static_cast<std::size_t>(slot)]; }
    bool is_free(int slot) { return header(slot) == kFree; }
    void *object(int slot) const { return object_at(id_, slot); }
    unsigned long address(int slot) const { return reinterpret_cast<unsigned long>(object(slot)) - 4; }
    int slot_of(const void *object) const { return object == nullptr ? -1 : memm_getindex(object); }
    int share_of(int slots) { return static_cast<int>(stream_->next()) * slots / 400; }
    int any_slot()  // near the ends as often as anywhere
    {
        const int from[] = {0, last_used_, last_normal_, static_cast<int>(stream_->below(256)) * slots() / 256};
        return std::clamp(stream_->one_of(from) + stream_->within(-2, 2), 0, slots() - 1);
    }
    int used_from(int slot)
    {
        while (slot <= last_used_ && is_free(slot))
            ++slot;
        return slot <= last_used_ ? slot : -1;
    }

    // The slot of the next object, or -1.
    int search(bool with_spare)
    {
        const int limit = with_spare ? slots() - 1 : last_normal_;
        const bool is_first = first_free_ <= limit && is_free(first_free_),
                   is_next = !is_first && last_used_ < last_normal_ && is_free(last_used_ + 1);
        int slot = is_next ? last_used_ + 1 : first_free_;
        for (; !is_next && slot <= limit && !is_free(slot); ++slot)
            ++pool_.scan_steps;
        const unsigned path = is_first        ? MEMM_PATH_FIRST_FREE
                              : is_next       ? MEMM_PATH_LAST_USED
                              : slot <= limit ? MEMM_PATH_SCAN
                                              : MEMM_PATH_OTHER;
        if (slot - last_normal_ >= 10)
            expected_trace += text("Using spare buffer %d\r\n", slot - last_normal_);
        ++pool_.alloc_count[MEMM_PATH_TOTAL];
        ++pool_.alloc_count[path];
        if (slot > limit)
            return -1;
        first_free_ = path == MEMM_PATH_LAST_USED ? first_free_ : slot + 1;
        last_used_ = std::max(last_used_, slot);
        header(slot) = id_;
        pool_.max_count = std::max(pool_.max_count, ++pool_.cur_count);
        pool_.max_count_rel = std::max(pool_.max_count_rel, pool_.cur_count - count_base_);
        expected_spare_flag_ |= int{slot > last_normal_};
        return slot;
    }

    // --- callbacks; the calls inside of them are those that take no lock ---

    void step_inside(unsigned chances)
    {
        ++depth_;
        if (depth_ < 4 && !stream_->is_empty() && stream_->one_in(chances))
            step();
        --depth_;
    }

    int on_gc(int attempt)
    {
        same(search(false), -1, "gc_cb although there is a slot");
        const bool again = attempt < 3 && !stream_->is_empty() && !stream_->one_in(3);
        ++depth_;
        for (unsigned count = again ? stream_->below(4) : 0; count > 0; --count)
            give_back(any_slot());
        --depth_;
        gc_failed_ = !again;
        return int{again};
    }

    int on_release(int slot)
    {
        releasing_.insert(slot);
        step_inside(5);
        releasing_.erase(slot);
        const int answers[] = {0, 0, 0, 0, 0, 0, 0, MEMM_KEPT, -1};
        return answer_ = stream_->one_of(answers);
    }

    // Each visit may change the pool; what lies ahead of the walk as it is then is visited.
    int on_visit(int slot)
    {
        same(slot, used_from(reached_ + 1), "walk");
        const int left = --visits_left_;
        step_inside(4);
        reached_ = slot;  // a walk inside of this one has its own
        visits_left_ = left;
        return int{left > 0};
    }

    // --- operations ---

    bool take()
    {
        const unsigned way = stream_->below(4);
        void *const taken = (way == 0                 ? memm_calloc_nolock_nogc
                             : way == 1 || depth_ > 0 ? memm_calloc_nolock
                                                      : memm_calloc)(id_);
        const int slot = std::exchange(gc_failed_, false) ? -1 : search(way == 0);
        same(slot_of(taken), slot, "slot");
        if (taken == nullptr) {
            const std::string message = text("memm_calloc() failed for pool '%s' (pool depleted)", pool_at(id_).name);
            expected_trace += message + text("Could not open '/tmp/memm_dump_%d' stats file\r\n", getpid());
            expected_errors += "0x10002 2 memm memmanager: " + message + "\n";
            pool_.flags = 0x80000000U;
            return false;
        }
        same(std::string(static_cast<char *>(taken), bytes_), std::string(bytes_, '\0'), "zeroed bytes");
        std::memset(taken, 0xff, bytes_);
        return true;
    }

    void give_back(int slot)
    {
        if (releasing_.contains(slot))
            return;
        const bool was_free = is_free(slot), was_shared = !was_free && header(slot) >= kReference;
        if (was_free)
            expected_trace += text("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = %d)\r\n",
                                   address(slot), 0x7fffff);
        answer_ = 0;
        const int result = (depth_ > 0 ? memm_free_nolock : memm_free)(object(slot));
        same(result, answer_ == -1 ? int{MEMM_E_SETUP} : 0, "release");
        if (answer_ == -1)
            expected_trace +=
                text("[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %u)\r\n", address(slot), id_);
        if (was_free || answer_ != 0)
            return;
        ++pool_.free_count;
        if (was_shared) {
            header(slot) -= kReference;
            --pool_.refs;
            return;
        }
        --pool_.cur_count;
        header(slot) = kFree;
        first_free_ = std::min(first_free_, slot);
        if (slot == last_used_)
            while (last_used_ > 0 && is_free(last_used_))
                --last_used_;
    }

    // Deliberate: the count is written before it is refused, and wraps.
    void refer(int slot)
    {
        if (is_free(slot) || releasing_.contains(slot))
            return;
        const unsigned count = (header(slot) >> 24) + 1;
        const bool granted = count < 255;
        header(slot) += kReference;
        if (granted) {
            pool_.max_refs = std::max(pool_.max_refs, ++pool_.refs);
            highest_refs = std::max(highest_refs, count);
        } else {
            expected_errors +=
                "0x10002 2 memm memmanager: memm__refalloc() failed (too many references for this object)\n";
        }
        same((depth_ > 0 ? memm_refalloc_nolock : memm_refalloc)(object(slot)), granted ? object(slot) : nullptr,
             "reference");
    }

    void walk(int most)
    {
        const auto visit = [](void *met, void *trial) {
            return static_cast<Trial *>(trial)->on_visit(memm_getindex(met));
        };
        reached_ = -1;
        visits_left_ = most;
        const int count = (depth_ > 0 ? memm_enum_objects_nolock : memm_enum_objects)(id_, visit, this);
        same(count, most - visits_left_, "visited");
        if (visits_left_ > 0)
            same(used_from(reached_ + 1), -1, "end of a walk");
    }

    void look_up(int slot)
    {
        const auto matches = [](void *met, int wanted) { return int{memm_getindex(met) == wanted}; };
        void *const it = object(slot), *const used = is_free(slot) ? nullptr : it;
        same(memm_calloc(~0U), static_cast<void *>(nullptr), "an object of no pool");
        same(memm_getobject_byindex(id_, slot), used, "by index");
        same(memm_isvalidobj(it) + memm_isvalidobj_nolock(it), used ? 2 : 0, "validity");
        same(slot_of(memm_getnext(it)), used ? used_from(slot + 1) : -1, "next");
        same(memm_getindex(it), used ? slot : 0, "index");
        same(memm_search(id_, slot, matches), used, "search");
        same(slot_of(memm_getfirst(id_)), used_from(0), "first");
    }

    void step()
    {
        ++operations;
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
            walk(stream_->one_in(2) ? 1 << 20 : stream_->within(1, 8));
        else if (choice == 25)
            count_base_ = static_cast<int>(stream_->next());
        else if (choice == 26)
            spare_flag_ = expected_spare_flag_ = 0;
        else if (choice == 27 && depth_ == 0)
            for (int count = stream_->one_in(4) ? slots() : share_of(slots()); count >= 0 && take(); --count)
                ;
        else if (choice == 28 && depth_ == 0)
            for (int slot = any_slot(), count = share_of(slots()); slot >= 0 && count > 0; --slot, --count)
                give_back(slot);
        else if (choice == 29)
            for (int slot = any_slot(), count = 260; count > 0; --count)
                refer(slot);
    }

public:
    Trial(const char *name, int slots, int spare, bool has_index)
        : last_normal_(slots - 1 - std::clamp(spare, 0, slots)), headers_(static_cast<std::size_t>(slots), kFree),
          bytes_(slots == 257 ? 600 : 12)
    {
        const auto gc = [](void *trial, int attempt, int) { return static_cast<Trial *>(trial)->on_gc(attempt); };
        const memm_release_fn release = [](void *object) {
            return static_cast<Trial *>(memm_getpoolcookie_nolock(object))->on_release(memm_getindex(object));
        };
        recorder().fail_nth(Op::alloc, has_index ? 0 : 2);
        id_ = make_pool(
            name, slots, static_cast<int>(bytes_),  // objects without a callback are released in the short way
            {.release_cb = slots % 2 != 0 ? release : nullptr, .gc_cb = gc, .cookie = this, .spare_count = spare});
        fault = nullptr;
        pool_.slots = pool_at(id_).slots;
        memm_get_currentcount_ptr(id_, &count_base_, &spare_flag_);
    }

    void step_and_compare(Stream &stream)
    {
        stream_ = &stream;
        step();
        const int size = static_cast<int>(pool_at(id_).slot_size);
        pool_.first_free = pool_.slots + first_free_ * size;
        pool_.last_used = pool_.slots + last_used_ * size;
        same(figures(pool_at(id_)), figures(pool_), "descriptor");
        same(std::pair(spare_flag_, pool_at(0).max_refs), std::pair(expected_spare_flag_, highest_refs), "flags");
        for (int slot = stream.one_in(16) ? 0 : slots(); slot < slots(); ++slot)
            same(header_of(object(slot)), header(slot), "header");
        same(recorder().take_trace(), std::exchange(expected_trace, ""), "trace");
        same(recorder().take_errors(), std::exchange(expected_errors, ""), "errors");
    }
};

void step(Stream &in)
{
    // None's name begins with another's, so that the report of a depletion has only one pool.
    static Trial trials[] = {{"a", 1, 0, false},    {"b", 5, 1, false},   {"c", 8, -3, false},  {"d", 8, 12, false},
                             {"e", 256, 20, false}, {"f", 257, 20, true}, {"g", 300, 9, false}, {"h", 4224, 0, true}};
    in.one_of(trials).step_and_compare(in);
}
