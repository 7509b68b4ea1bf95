#include "containers/sort.h"

#include <array>
#include <utility>

// Sorting goes by three means:
//
//     run     nodes that are in order already, rising or falling, are taken as they are
//     block   other nodes are copied into an array of fixed size and sorted there, without a branch that depends on a
//             comparison, for that could not be foretold
//     merge   sorted chains are merged two by two, the earlier with the later, as a binary counter counts
//
// No memory is needed but the array, and no order that the compare function invents can lose a node.
namespace memm::lists {

namespace {

// --- runs ---

// Cuts the longest run, rising or falling, off the front of the chain, as a sorted chain.
Node *take_run(Node *&chain, llist_compare_fn compare) noexcept
{
    Node *const first = chain;
    Node *next = first->next;
    if (next == nullptr || goes_before(next, first, compare)) {
        Node *run = first;  // falling: reversed on the way
        first->next = nullptr;
        while (next != nullptr && (run == first || goes_before(next, run, compare))) {
            run = std::exchange(next, std::exchange(next->next, run));
        }
        chain = next;
        return run;
    }
    Node *last = next;
    for (next = last->next; next != nullptr && !goes_before(next, last, compare); next = last->next) {
        last = next;
    }
    last->next = nullptr;
    chain = next;
    return first;
}

// --- blocks ---

// The newest first: what stood later goes before what it equals, so this order is to be kept among equals.
class Block {
    struct Entry {
        void *object;
        Node *node;
    };
    static constexpr int kMost = 256;
    using Entries = std::array<Entry, kMost>;

    llist_compare_fn compare_;
    std::ptrdiff_t count_ = 0;
    Entries one_;
    Entries other_;

    // What a compiler cannot turn into a branch.
    static std::ptrdiff_t choose(bool is_one, std::ptrdiff_t one, std::ptrdiff_t other) noexcept
    {
        return other ^ ((one ^ other) & -std::ptrdiff_t{is_one});
    }

    bool precedes(const Entry &newer, const Entry &older) const noexcept
    {
        return compare_(newer.object, older.object) <= 0;
    }

    // From both ends at once, which is two chains of work that do not wait for each other: neither of two halves of
    // equal length can run out before its half of the result is there. False when the compare function contradicts
    // itself, so that the ends do not meet.
    bool merge_inwards(const Entry *from, std::ptrdiff_t half, Entry *out) const noexcept
    {
        std::ptrdiff_t low_newer = 0;  // of the entries at the lower end so many are newer ones
        std::ptrdiff_t high_older = 0;
        for (std::ptrdiff_t i = 0; i < half; ++i) {
            const std::ptrdiff_t newer_low = low_newer, older_low = half + i - low_newer;
            const bool takes_newer = precedes(from[newer_low], from[older_low]);
            out[i] = from[choose(takes_newer, newer_low, older_low)];
            low_newer += takes_newer ? 1 : 0;

            const std::ptrdiff_t older_high = 2 * half - 1 - high_older, newer_high = half - 1 - i + high_older;
            const bool takes_older = precedes(from[newer_high], from[older_high]);
            out[2 * half - 1 - i] = from[choose(takes_older, older_high, newer_high)];
            high_older += takes_older ? 1 : 0;
        }
        return low_newer == high_older;
    }

    void merge_forwards(const Entry *newer, std::ptrdiff_t half, Entry *out) const noexcept
    {
        const Entry *const newer_end = newer + half;
        const Entry *older = newer_end;
        const Entry *const older_end = older + half;
        while (newer != newer_end && older != older_end) {
            *out++ = precedes(*newer, *older) ? *newer++ : *older++;
        }
        out = std::copy(newer, newer_end, out);
        std::copy(older, older_end, out);
    }

    Entries *sort() noexcept
    {
        Entries *from = &one_;
        Entries *to = &other_;
        for (std::ptrdiff_t half = 1; half < count_; half *= 2) {
            for (std::ptrdiff_t i = 0; i < count_; i += 2 * half) {
                if (!merge_inwards(from->data() + i, half, to->data() + i)) {
                    merge_forwards(from->data() + i, half, to->data() + i);
                }
            }
            std::swap(from, to);
        }
        return from;
    }

public:
    explicit Block(llist_compare_fn compare) noexcept : compare_(compare) {}

    // Cuts nodes off the front of the chain, as a sorted chain: as many as there are up to the size of the array, and
    // as are a power of two.
    Node *take(Node *&chain) noexcept
    {
        int seen = 0;
        for (const Node *node = chain; node != nullptr && seen < kMost; node = node->next) {
            ++seen;
        }
        for (count_ = 1; 2 * count_ <= seen;) {
            count_ *= 2;
        }
        for (std::ptrdiff_t i = count_; i-- > 0; chain = chain->next) {
            one_[static_cast<std::size_t>(i)] = {chain->obj, chain};
        }
        Node *sorted = nullptr;
        const Entries &entries = *sort();
        for (std::ptrdiff_t i = count_; i-- > 0;) {
            Node *const node = entries[static_cast<std::size_t>(i)].node;
            node->next = sorted;
            sorted = node;
        }
        return sorted;
    }
};

// The next nodes are in order, enough of them to take them as a run.
bool begins_with_run(const Node *chain, llist_compare_fn compare) noexcept
{
    constexpr int kWorthwhile = 8;
    const Node *next = chain->next;
    const bool falls = next == nullptr || goes_before(next, chain, compare);
    for (int left = kWorthwhile; left > 0 && next != nullptr && next->next != nullptr; --left, next = next->next) {
        if (goes_before(next->next, next, compare) != falls) {
            return false;
        }
    }
    return true;
}

// --- chains ---

// Takes the first node of `from` over to the end; false when that was the last one, and `other` follows.
bool take(Node **&end, Node *&from, Node *other) noexcept
{
    *end = from;
    end = &from->next;
    from = *end;
    if (from != nullptr) {
        return true;
    }
    *end = other;
    return false;
}

// Of two sorted chains, `newer` holds the objects that stood later.
Node *merge(Node *older, Node *newer, llist_compare_fn compare) noexcept
{
    Node *merged = nullptr;
    Node **end = &merged;
    void *older_object = older->obj;
    void *newer_object = newer->obj;
    for (;;) {
        if (compare(newer_object, older_object) <= 0) {
            if (!take(end, newer, older)) {
                return merged;
            }
            newer_object = newer->obj;
        } else {
            if (!take(end, older, newer)) {
                return merged;
            }
            older_object = older->obj;
        }
    }
}

}  // namespace

// Place i of the counter holds 2^i chains, the higher places those that stood earlier.
Node *sort(Node *chain, llist_compare_fn compare) noexcept
{
    constexpr int kPlaces = 32;
    Node *places[kPlaces] = {};
    Block block(compare);
    while (chain != nullptr) {
        Node *sorted = begins_with_run(chain, compare) ? take_run(chain, compare) : block.take(chain);
        int place = 0;
        for (; places[place] != nullptr; ++place) {
            sorted = merge(std::exchange(places[place], nullptr), sorted, compare);
        }
        places[place] = sorted;
    }
    Node *sorted = nullptr;
    for (Node *const older : places) {
        if (older != nullptr) {
            sorted = sorted == nullptr ? older : merge(older, sorted, compare);
        }
    }
    return sorted;
}

}  // namespace memm::lists
