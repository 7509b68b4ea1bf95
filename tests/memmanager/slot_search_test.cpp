// The library finds slots by an index; the model here looks at one slot after the other. Both must agree on the slot,
// the path and every counter.
#include "support/pools.h"
#include "support/recording_platform.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

struct Counters {
    int now = 0, highest = 0, highest_above_base = 0;
    unsigned paths[MEMM_PATHS] = {};
    unsigned scan_steps = 0;
    long first_free = 0, last_used = -1;
    int spare_flag = 0;

    bool operator==(const Counters &) const = default;
};

void PrintTo(const Counters &c, std::ostream *out)
{
    *out << c.now << '/' << c.highest << '/' << c.highest_above_base << " paths";
    for (const unsigned count : c.paths) {
        *out << ' ' << count;
    }
    *out << " steps " << c.scan_steps << " first_free " << c.first_free << " last_used " << c.last_used << " flag "
         << c.spare_flag;
}

struct Model {
    std::vector<char> used;
    long last_normal;
    const int *count_base;
    Counters counters;
    std::string trace;

    // The slot, or -1.
    long take(bool with_spare)
    {
        Counters &c = counters;
        const long limit = with_spare ? static_cast<long>(used.size()) - 1 : last_normal;
        const auto is_free = [this](long slot) { return used[static_cast<std::size_t>(slot)] == 0; };
        long slot = c.first_free;
        unsigned path = MEMM_PATH_OTHER;
        if (slot <= limit && is_free(slot)) {
            path = MEMM_PATH_FIRST_FREE;
            c.first_free = slot + 1;
        } else if (c.last_used < last_normal && is_free(c.last_used + 1)) {
            path = MEMM_PATH_LAST_USED;
            slot = c.last_used + 1;
        } else if (slot <= limit) {
            while (slot <= limit && !is_free(slot)) {
                ++c.scan_steps;
                ++slot;
            }
            if (slot <= limit) {
                path = MEMM_PATH_SCAN;
                c.first_free = slot + 1;
            }
        }
        if (slot - last_normal >= 10) {
            trace += text("Using spare buffer %ld\r\n", slot - last_normal);
        }
        ++c.paths[MEMM_PATH_TOTAL];
        ++c.paths[path];
        if (slot > limit) {
            return -1;
        }
        used[static_cast<std::size_t>(slot)] = 1;
        c.highest = std::max(c.highest, ++c.now);
        c.highest_above_base = std::max(c.highest_above_base, c.now - *count_base);
        c.last_used = std::max(c.last_used, slot);
        if (slot > last_normal) {
            c.spare_flag = 1;
        }
        return slot;
    }

    void give_back(long slot)
    {
        Counters &c = counters;
        --c.now;
        used[static_cast<std::size_t>(slot)] = 0;
        c.first_free = std::min(c.first_free, slot);
        if (slot == c.last_used) {
            while (c.last_used > 0 && used[static_cast<std::size_t>(c.last_used)] == 0) {
                --c.last_used;
            }
        }
    }
};

struct Shape {
    int slots, spare;
    bool index_fails;
    int share;  // of the operations, in percent
};

void PrintTo(const Shape &shape, std::ostream *out)
{
    *out << shape.slots << " slots, " << shape.spare << " spare" << (shape.index_fails ? ", without index" : "");
}

// A pool beside its model, driven through random operations. Its callbacks do some more of them.
class Driver {
    static inline Driver *current_;

    Shape shape_;
    unsigned pool_ = 0;
    Model model_;
    std::vector<void *> objects_;
    std::mt19937 random_;
    int count_base_ = 0, spare_flag_ = 0;
    int depth_ = 0;           // of callbacks
    bool gc_failed_ = false;  // the model has done the search that failed
    double wanted_ = 0;       // how full the pool shall be

    bool chance(double probability) { return std::uniform_real_distribution<>()(random_) < probability; }
    std::size_t any(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_); }

    long slot_of(const void *object) const
    {
        const memm_pool &pool = pool_at(pool_);
        return (static_cast<const unsigned char *>(object) - 4 - pool.slots) / static_cast<long>(pool.slot_size);
    }

    Counters counters() const
    {
        const memm_pool &pool = pool_at(pool_);
        const auto number = [&](const unsigned char *slot) {
            return (slot - pool.slots) / static_cast<long>(pool.slot_size);
        };
        Counters c{pool.cur_count,  pool.max_count,          pool.max_count_rel,     {},
                   pool.scan_steps, number(pool.first_free), number(pool.last_used), spare_flag_};
        std::copy(std::begin(pool.alloc_count), std::end(pool.alloc_count), c.paths);
        return c;
    }

    void compare()
    {
        ASSERT_EQ(counters(), model_.counters);
        ASSERT_EQ(recorder().take_trace(), model_.trace);
        model_.trace.clear();
    }

    static int collect(void *, int attempt, int) { return current_->collect_garbage(attempt); }
    static int release(void *) { return current_->on_release(); }

    int collect_garbage(int attempt)
    {
        EXPECT_EQ(model_.take(false), -1);
        const bool frees = !objects_.empty() && attempt < 3 && (is_dear() || chance(0.7));
        if (frees && (attempt > 0 || chance(0.7))) {  // otherwise it promises in vain
            ++depth_;
            for (std::size_t count = 1 + any(3); count > 0 && !objects_.empty(); --count) {
                give_back();
            }
            if (chance(0.2)) {
                take(true);
            }
            --depth_;
        }
        gc_failed_ = !frees;
        return frees ? 1 : 0;
    }

    int on_release()
    {
        if (depth_ < 2 && chance(0.1)) {
            ++depth_;
            step();
            --depth_;
        }
        return 0;
    }

    // A depletion writes a file about every object: seldom wanted.
    bool is_dear() { return !chance(std::min(0.02, 2.0 / shape_.slots)); }

    void take(bool with_spare)
    {
        if ((with_spare ? model_.counters.now == shape_.slots : model_.last_normal < 0) && is_dear()) {
            return;
        }
        void *const object = with_spare   ? memm_calloc_nolock_nogc(pool_)
                             : depth_ > 0 ? memm_calloc_nolock(pool_)
                                          : memm_calloc(pool_);
        const long expected = gc_failed_ ? -1 : model_.take(with_spare);
        gc_failed_ = false;
        ASSERT_EQ(object == nullptr ? -1 : slot_of(object), expected);
        if (object == nullptr) {
            EXPECT_EQ(recorder().take_errors(),
                      "0x10002 2 memm memmanager: memm_calloc() failed for pool '' (pool depleted)\n");
            model_.trace += "memm_calloc() failed for pool '' (pool depleted)";
            return;
        }
        const auto *bytes = static_cast<const unsigned char *>(object);
        ASSERT_TRUE(std::all_of(bytes, bytes + 12, [](unsigned char byte) { return byte == 0; }));
        std::memset(object, 0xff, 12);
        objects_.push_back(object);
    }

    void give_back()
    {
        std::size_t which = any(objects_.size());
        if (chance(0.3)) {  // the highest or the lowest one, but searched for only now and then where there are many
            const std::size_t look_at = std::min<std::size_t>(objects_.size(), chance(0.01) ? 100000 : 20);
            const auto begin = objects_.end() - static_cast<long>(look_at);
            which = static_cast<std::size_t>(
                (chance(0.5) ? std::max_element(begin, objects_.end()) : std::min_element(begin, objects_.end())) -
                objects_.begin());
        }
        void *const object = objects_[which];
        objects_[which] = objects_.back();
        objects_.pop_back();
        ASSERT_EQ(depth_ > 0 ? memm_free_nolock(object) : memm_free(object), 0);
        model_.give_back(slot_of(object));
    }

    void step()
    {
        const bool fill = static_cast<double>(objects_.size()) < wanted_ * shape_.slots;
        if (objects_.empty() || chance(fill ? 0.7 : 0.3)) {
            take(chance(0.2));
        } else {
            give_back();
        }
    }

public:
    explicit Driver(const Shape &shape) : shape_(shape), random_(static_cast<unsigned>(shape.slots))
    {
        current_ = this;
        memm_pooloptions options{};
        options.gc_cb = collect;
        options.release_cb = release;
        options.spare_count = shape.spare;
        make_pool("", 1);
        if (shape.index_fails) {
            recorder().fail_nth(Op::alloc, 2);
        }
        pool_ = make_pool("", shape.slots, 12, options);
        memm_get_currentcount_ptr(pool_, &count_base_, &spare_flag_);
        model_.used.resize(static_cast<std::size_t>(shape.slots));
        model_.last_normal = shape.slots - 1 - std::clamp(shape.spare, 0, shape.slots);
        model_.count_base = &count_base_;
    }

    void run(int operations)
    {
        for (int i = 0; i < shape_.slots; ++i) {
            take(false);
        }
        int phase = 0;
        for (int i = 0; i < operations && !testing::Test::HasFatalFailure(); ++i) {
            if (--phase < 0) {
                phase = static_cast<int>(
                    any(2 * std::min<std::size_t>(20000, static_cast<std::size_t>(shape_.slots)) + 50));
                const double levels[] = {0, 0.5, 0.9, 0.99, 1, 1, 1, 1};
                wanted_ = levels[any(std::size(levels))];
                count_base_ = static_cast<int>(any(static_cast<std::size_t>(shape_.slots)));
                spare_flag_ = model_.counters.spare_flag = 0;
            }
            step();
            compare();
        }
        for (const unsigned path : model_.counters.paths) {
            EXPECT_TRUE(path > 0 || model_.last_normal < 0) << "never taken: the run proved less than it should";
        }
    }
};

class SlotSearch : public testing::TestWithParam<Shape> {};

TEST_P(SlotSearch, agrees_with_a_search_that_looks_at_every_slot)
{
    Driver(GetParam()).run(scaled(GetParam().share * 10000));
}

INSTANTIATE_TEST_SUITE_P(pools, SlotSearch,
                         testing::Values(Shape{5, 1, false, 3}, Shape{8, -3, false, 3}, Shape{8, 12, false, 3},
                                         Shape{256, 20, false, 11}, Shape{257, 20, false, 15},
                                         Shape{4000, 300, false, 20}, Shape{4000, 0, true, 15},
                                         Shape{100000, 64, false, 30}));

}  // namespace
