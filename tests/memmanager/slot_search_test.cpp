// The library finds slots by an index; the model here looks at one slot after the other. Both must agree on the slot,
// the path and every counter.
#include "support/pools.h"
#include "support/recording_platform.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

constexpr const char *kDepleted = "memm_calloc() failed for pool '' (pool depleted)";

struct Shape {
    int slots, spare;
    bool index_fails;
    int share;  // of the operations, in percent
};

void PrintTo(const Shape &shape, std::ostream *out)
{
    *out << shape.slots << " slots, " << shape.spare << " spare" << (shape.index_fails ? ", without index" : "");
}

struct Model {
    std::vector<char> used;
    long last_normal, first_free = 0, last_used = -1;
    int now = 0, highest = 0, highest_above_base = 0, count_base = 0, spare_flag = 0;
    unsigned paths[MEMM_PATHS] = {}, scan_steps = 0;
    std::string trace;

    explicit Model(const Shape &shape)
        : used(static_cast<std::size_t>(shape.slots)),
          last_normal(shape.slots - 1 - std::clamp(shape.spare, 0, shape.slots))
    {
    }

    std::vector<long long> counters() const
    {
        return {now,      highest,  highest_above_base, paths[0],   paths[1],  paths[2],
                paths[3], paths[4], scan_steps,         first_free, last_used, spare_flag};
    }

    bool is_free(long slot) const { return used[static_cast<std::size_t>(slot)] == 0; }

    // The slot, or -1.
    long take(bool with_spare)
    {
        const long limit = with_spare ? static_cast<long>(used.size()) - 1 : last_normal;
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
            trace += text("Using spare buffer %ld\r\n", slot - last_normal);
        ++paths[MEMM_PATH_TOTAL];
        ++paths[path];
        if (slot > limit)
            return -1;
        used[static_cast<std::size_t>(slot)] = 1;
        highest = std::max(highest, ++now);
        highest_above_base = std::max(highest_above_base, now - count_base);
        last_used = std::max(last_used, slot);
        spare_flag = slot > last_normal ? 1 : spare_flag;
        return slot;
    }

    void give_back(long slot)
    {
        --now;
        used[static_cast<std::size_t>(slot)] = 0;
        first_free = std::min(first_free, slot);
        if (slot == last_used)
            while (last_used > 0 && is_free(last_used))
                --last_used;
    }
};

// A pool beside its model, driven through random operations. Its callbacks do some more of them.
class Driver {
    static inline Driver *current_;

    Shape shape_;
    Model model_{shape_};
    unsigned pool_ = 0;
    std::vector<void *> objects_;
    std::mt19937 random_{static_cast<unsigned>(shape_.slots)};
    int spare_flag_ = 0;
    int depth_ = 0;           // of callbacks
    bool gc_failed_ = false;  // the model has done the search that failed
    double wanted_ = 0;       // how full the pool shall be

    bool chance(double probability) { return std::uniform_real_distribution<>()(random_) < probability; }
    std::size_t any(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_); }

    long number(const unsigned char *slot) const
    {
        return (slot - pool_at(pool_).slots) / static_cast<long>(pool_at(pool_).slot_size);
    }

    void compare()
    {
        const memm_pool &p = pool_at(pool_);
        const auto *paths = p.alloc_count;
        ASSERT_EQ(
            (std::vector<long long>{p.cur_count, p.max_count, p.max_count_rel, paths[0], paths[1], paths[2], paths[3],
                                    paths[4], p.scan_steps, number(p.first_free), number(p.last_used), spare_flag_}),
            model_.counters());
        ASSERT_EQ(recorder().take_trace(), model_.trace);
        model_.trace.clear();
    }

    static int collect(void *, int attempt, int) { return current_->collect_garbage(attempt) ? 1 : 0; }
    static int release(void *) { return current_->on_release(), 0; }

    bool collect_garbage(int attempt)
    {
        EXPECT_EQ(model_.take(false), -1);
        const bool frees = !objects_.empty() && attempt < 3 && (is_dear() || chance(0.7));
        ++depth_;
        if (frees && (attempt > 0 || chance(0.7)))  // otherwise it promises in vain
            for (std::size_t count = 1 + any(3); count > 0 && !objects_.empty(); --count)
                give_back();
        if (frees && chance(0.1))
            take(true);
        --depth_;
        gc_failed_ = !frees;
        return frees;
    }

    void on_release()
    {
        ++depth_;
        if (depth_ < 3 && chance(0.1))
            step();
        --depth_;
    }

    // A depletion writes a file about every object: seldom wanted.
    bool is_dear() { return !chance(std::min(0.02, 2.0 / shape_.slots)); }

    void take(bool with_spare)
    {
        if ((with_spare ? model_.now == shape_.slots : model_.last_normal < 0) && is_dear())
            return;
        void *const object = with_spare   ? memm_calloc_nolock_nogc(pool_)
                             : depth_ > 0 ? memm_calloc_nolock(pool_)
                                          : memm_calloc(pool_);
        const long expected = std::exchange(gc_failed_, false) ? -1 : model_.take(with_spare);
        auto *const bytes = static_cast<unsigned char *>(object);
        ASSERT_EQ(object == nullptr ? -1 : number(bytes - 4), expected);
        if (object == nullptr) {
            EXPECT_NE(recorder().take_errors().find(kDepleted), std::string::npos);
            model_.trace += kDepleted;
            return;
        }
        ASSERT_EQ(std::count(bytes, bytes + 12, 0), 12);
        std::memset(object, 0xff, 12);
        objects_.push_back(object);
    }

    void give_back()
    {
        // Often the highest or the lowest of some, now and then of all.
        const auto some = chance(0.02) ? objects_.size() : std::min<std::size_t>(objects_.size(), 20);
        const auto end = objects_.end(), begin = end - static_cast<long>(some);
        auto which = objects_.begin() + static_cast<long>(any(objects_.size()));
        if (chance(0.3))
            which = chance(0.5) ? std::max_element(begin, end) : std::min_element(begin, end);
        void *const object = std::exchange(*which, objects_.back());
        objects_.pop_back();
        ASSERT_EQ(depth_ > 0 ? memm_free_nolock(object) : memm_free(object), 0);
        model_.give_back(number(static_cast<unsigned char *>(object) - 4));
    }

    void step()
    {
        const bool fill = static_cast<double>(objects_.size()) < wanted_ * shape_.slots;
        if (objects_.empty() || chance(fill ? 0.7 : 0.3))
            take(chance(0.2));
        else
            give_back();
    }

public:
    explicit Driver(const Shape &shape) : shape_(shape)
    {
        current_ = this;
        memm_pooloptions options{};
        options.gc_cb = collect;
        options.release_cb = release;
        options.spare_count = shape.spare;
        make_pool("", 1);
        if (shape.index_fails)
            recorder().fail_nth(Op::alloc, 2);
        pool_ = make_pool("", shape.slots, 12, options);
        memm_get_currentcount_ptr(pool_, &model_.count_base, &spare_flag_);
    }

    void run(int operations)
    {
        for (int i = 0; i < shape_.slots; ++i)
            take(false);
        std::size_t phase = 0;
        for (int i = 0; i < operations && !testing::Test::HasFatalFailure(); ++i) {
            if (phase-- == 0) {
                phase = any(static_cast<std::size_t>(2 * std::min(20000, shape_.slots) + 50));
                const double levels[] = {0, 0.5, 0.9, 0.99, 1, 1, 1, 1};
                wanted_ = levels[any(std::size(levels))];
                model_.count_base = static_cast<int>(any(static_cast<std::size_t>(shape_.slots)));
                spare_flag_ = model_.spare_flag = 0;
            }
            step();
            compare();
        }
        EXPECT_TRUE(model_.last_normal < 0 || std::count(std::begin(model_.paths), std::end(model_.paths), 0U) == 0)
            << "a path was never taken: the run proved less than it should";
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
