#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/llist.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Object {  // in a pool
    int key;
    bool refuses;
};

struct ObjectModel {
    Object *real = nullptr;
    unsigned holders = 0, mine = 0;  // mine: references of the trial's own
};

struct NodeModel {
    int object;  // -1: null
    unsigned pool;
    unsigned extra = 0;  // holders beside the list
    llist *real = nullptr;
};

using Node = std::shared_ptr<NodeModel>;
using Chain = std::vector<Node>;
using Calls = std::vector<std::pair<void *, void *>>;

Calls compared;
bool only_greater;

// Null comes first.
int compare(void *placed, void *ordered)
{
    compared.emplace_back(placed, ordered);
    const auto key = [](void *object) { return object == nullptr ? -1 : static_cast<Object *>(object)->key; };
    const int difference = key(placed) - key(ordered);
    return only_greater ? difference > 0 : difference;
}

int is_key(void *held, void *key)
{
    return held != nullptr && static_cast<Object *>(held)->key == *static_cast<int *>(key);
}

int count_down(void *, void *left) { return (*static_cast<int *>(left))-- > 0; }

// Turns bytes into calls, and holds the library's lists against vectors of nodes after each. Every node in use is in
// exactly one chain: a list variable's, or a loose one that nobody but a shared holder knows.
class ListTrial {
    static constexpr unsigned kLists = 4, kObjects = 10;
    static constexpr int kNodes = 14;

    std::span<const unsigned char> bytes_;
    std::array<ObjectModel, kObjects> objects_;
    std::array<Chain, kLists> chains_;
    std::array<llist *, kLists> lists_{};
    std::vector<Chain> loose_;
    unsigned node_pools_[2], object_pools_[2], small_;
    unsigned type_ = 0, walked_list_ = 0;
    int walked_ = 0;
    void *cursor_ = nullptr;
    std::string found_;
    std::size_t operation_ = 0;

    unsigned next()
    {
        if (bytes_.empty())
            return 0;
        const unsigned byte = bytes_.front();
        bytes_ = bytes_.subspan(1);
        return byte;
    }
    template <typename T> void same(const T &result, const T &expected, const char *what)
    {
        if (!(result == expected) && found_.empty())
            found_ = text("%s, in operation %d of kind %zu", what, operations, operation_);
    }

    // --- objects ---

    static int release_object(void *object) { return static_cast<Object *>(object)->refuses ? 1 : 0; }
    int pick()
    {
        const unsigned i = next() % (kObjects + 1);
        if (i == kObjects)
            return -1;
        ObjectModel &object = objects_[i];
        if (object.holders == 0) {
            object = {static_cast<Object *>(memm_calloc(object_pools_[i % 2])), 1, 1};
            object.real->key = static_cast<int>(next() % 5);
        }
        return static_cast<int>(i);
    }
    int pick_mine()
    {
        const int i = pick();
        if (i >= 0 && at(i).mine == 0) {
            memm_refalloc(real(i));
            ++at(i).mine;
            ++at(i).holders;
        }
        return i;
    }
    ObjectModel &at(int i) { return objects_[static_cast<unsigned>(i)]; }
    void *real(int i) { return i < 0 ? nullptr : at(i).real; }
    unsigned type_of(int i) const { return object_pools_[i % 2]; }
    void take_over(int i)
    {
        if (i >= 0)
            --at(i).mine;
    }
    void give(int i)
    {
        if (i >= 0)
            ++at(i).mine;
    }
    bool drop(int i)
    {
        if (i < 0 || at(i).holders > 1 || !at(i).real->refuses) {
            at(i < 0 ? 0 : i).holders -= i >= 0;
            return true;
        }
        return false;
    }

    // --- chains ---

    static int length(const Chain &chain)
    {
        const auto end = std::find_if(chain.begin(), chain.end(), [](const Node &node) { return node->object < 0; });
        return static_cast<int>(end - chain.begin());
    }
    static int position(const Chain &chain, int index)
    {
        const int from_front = index < 0 ? index + length(chain) : index;
        return from_front < static_cast<int>(chain.size()) ? std::max(from_front, -1) : -1;
    }
    static int position_of(const Chain &chain, int object)
    {
        const auto is_holder = [object](const Node &node) { return node->object == object; };
        const auto found = std::find_if(chain.begin(), chain.end(), is_holder);
        return found == chain.end() ? -1 : static_cast<int>(found - chain.begin());
    }
    static Node cut(Chain &chain, int at)
    {
        const Node node = chain[static_cast<unsigned>(at)];
        chain.erase(chain.begin() + at);
        return node;
    }
    static void splice(Chain &chain, int at, const Chain &more)
    {
        chain.insert(chain.begin() + at, more.begin(), more.end());
    }
    unsigned release(Chain chain)
    {
        if (chain.empty())
            return 0;
        if (chain[0]->extra > 0) {
            --chain[0]->extra;
            loose_.push_back(chain);
            return 0;
        }
        while (chain.size() > 1) {
            if (release({cut(chain, 1)}) != 0) {
                loose_.push_back(chain);
                return MEMM_E_SETUP;
            }
        }
        if (!drop(chain[0]->object)) {
            loose_.push_back(chain);
            return MEMM_E_SETUP;
        }
        return 0;
    }
    int in_use(unsigned pool) const
    {
        int count = 0;
        const auto add = [&](const Chain &chain) {
            count += static_cast<int>(
                std::count_if(chain.begin(), chain.end(), [pool](const Node &n) { return n->pool == pool; }));
        };
        std::for_each(chains_.begin(), chains_.end(), add);
        std::for_each(loose_.begin(), loose_.end(), add);
        return count;
    }
    Node make(int pool, int object, int pending = 0) const
    {
        const auto id = static_cast<unsigned>(pool);
        const bool is_one = id == node_pools_[0] || id == node_pools_[1];
        return is_one && in_use(id) + pending < kNodes ? std::make_shared<NodeModel>(NodeModel{object, id}) : nullptr;
    }
    int pick_pool()
    {
        const unsigned n = next() % 16;
        return static_cast<int>(n == 15 ? -1U : n == 14 ? small_ : node_pools_[n % 2]);
    }

    // As it is written down: in strides of ten. Compares are noted.
    int place_of(const Chain &chain, int object, Calls &calls)
    {
        const auto passes = [&](std::size_t at) {
            calls.emplace_back(real(object), real(chain[at]->object));
            const auto key = [this](int i) { return i < 0 ? -1 : this->at(i).real->key; };
            return key(object) > key(chain[at]->object);
        };
        if (chain.empty() || !passes(0))
            return 0;
        std::size_t p = 0;
        for (;;) {
            const std::size_t q = std::min(p + 10, chain.size() - 1);
            if (q + 1 == chain.size() || !passes(q + 1))
                break;
            p = q;
        }
        while (p + 1 < chain.size() && passes(p + 1))
            ++p;
        return static_cast<int>(p) + 1;
    }

    // --- operations ---

    void add(llist *&list, Chain &chain)
    {
        const int pool = pick_pool(), index = static_cast<int>(next() % 24) - 10;
        const unsigned kind = next() % 5;
        const int object = kind == 1 ? pick() : pick_mine();
        const Node node = make(pool, object);
        unsigned expected = node == nullptr ? MEMM_E_NO_MEMORY : 0, result = 0;
        int place = static_cast<int>(chain.size());
        Calls calls;
        compared.clear();
        if (kind == 0) {
            result = llist_addobject(&list, real(object), pool);
        } else if (kind == 1) {
            result = llist_addref(&list, real(object), pool);
            if (node != nullptr && object >= 0) {
                ++at(object).holders;
                give(object);
            }
        } else if (kind == 2) {
            place = node == nullptr ? 0 : place_of(chain, object, calls);
            expected = 0;
            result = llist_insert_sorted(&list, real(object), pool, compare);
            same(compared, calls, "compares of insert_sorted");
        } else if (kind == 3) {
            place = 0;
            result = llist_pushobject(&list, real(object), pool);
        } else {
            place = std::max(index < 0 ? index + length(chain) : index, 0);
            result = llist_insert_at(&list, real(object), index, pool);
            if (node != nullptr && place > static_cast<int>(chain.size())) {  // leaked
                expected = MEMM_E_INVALID;
                loose_.push_back({node});
                take_over(object);
            }
        }
        same(result, expected, "adding");
        if (node != nullptr && expected == 0) {
            splice(chain, place, {node});
            take_over(object);
        }
    }

    void take_out(llist *&list, Chain &chain)
    {
        const unsigned how = next() % 5;
        const int index = static_cast<int>(next() % 24) - 10;
        const bool by_object = next() % 2 != 0;
        const int object = by_object ? pick() : -1;
        const int place = by_object ? position_of(chain, object) : position(chain, index);
        const Node node = place < 0 ? nullptr : cut(chain, place);
        const int held = node == nullptr ? -1 : node->object;
        unsigned expected = node == nullptr ? MEMM_E_INVALID : 0, result = expected;
        if (how == 0) {
            result = by_object ? llist_delete_byobject(&list, real(object)) : llist_delete_at(&list, index);
            expected = node == nullptr ? expected : release({node});
        } else if (how == 1 || (how == 2 && !by_object)) {
            if (how == 2)
                same(llist_getandremove_at(&list, index), real(held), "getandremove");
            else
                result = by_object ? llist_remove_byobject(&list, real(object)) : llist_remove_at(&list, index);
            if (node != nullptr) {
                give(held);
                node->object = -1;
                release({node});
            }
        } else if (node == nullptr || how == 3) {
            result = by_object ? llist_unlink_byobject(&list, real(object)) : llist_unlink_at(&list, index);
        } else {
            same(by_object ? llist_getandunlink_byobject(&list, real(object)) : llist_getandunlink_at(&list, index),
                 node->real, "getandunlink");
        }
        if (how > 1 && !(how == 2 && !by_object) && node != nullptr)
            loose_.push_back({node});
        same(result, expected, "taking out");
    }

    void order(llist *&list, Chain &chain)
    {
        only_greater = next() % 2 != 0;
        if (next() % 3 == 0) {
            same(llist_reverse(&list), 0U, "reverse");
            std::reverse(chain.begin(), chain.end());
        } else {
            same(llist_sort(&list, compare), 0U, "sort");
            Chain sorted;
            Calls unused;
            for (const Node &node : chain)
                splice(sorted, place_of(sorted, node->object, unused), {node});
            chain = length(chain) < 2 ? chain : sorted;
        }
        only_greater = false;
    }

    void move_whole(llist *&list, Chain &chain)
    {
        const unsigned from = next() % kLists;
        const bool loose = next() % 2 != 0 && !loose_.empty();
        if (!loose && !chains_[from].empty() && &chains_[from] == &chain) {
            same(llist_addlist(&list, list), unsigned{MEMM_E_INVALID}, "addlist of itself");
            same(llist_insert_list_at(&list, list, 0), unsigned{MEMM_E_INVALID}, "insert_list_at of itself");
            return;
        }
        Chain &source = loose ? loose_.back() : chains_[from];
        llist *const first = source.empty() ? nullptr : source[0]->real;
        const int index = static_cast<int>(next() % 24) - 10;
        const int place = std::max(index < 0 ? index + length(chain) : index, 0);
        const bool at_end = next() % 2 != 0, fits = place <= static_cast<int>(chain.size());
        const unsigned result = at_end ? llist_addlist(&list, first) : llist_insert_list_at(&list, first, index);
        const bool is_bad = at_end ? first == nullptr : first != nullptr && !fits;
        same(result, is_bad ? unsigned{MEMM_E_INVALID} : 0U, "moving a list");
        if (first != nullptr && !is_bad) {
            splice(chain, at_end ? static_cast<int>(chain.size()) : place, source);
            source.clear();
            if (loose)
                loose_.pop_back();
            else
                lists_[from] = nullptr;
        }
    }

    void split_or_move(llist *&list, Chain &chain)
    {
        if (next() % 2 != 0) {
            const int object = pick(), place = position_of(chain, object);
            const unsigned to = next() % (kLists + 1);
            llist **const destination = to == kLists ? nullptr : &lists_[to];
            const bool moves = place >= 0 && destination != nullptr;
            same(llist_move_byobject(&list, destination, real(object)), moves ? 0U : unsigned{MEMM_E_INVALID}, "move");
            if (place >= 0) {
                const Node node = cut(chain, place);
                (moves ? chains_[to] : loose_.emplace_back()).push_back(node);
            }
            return;
        }
        const int index = static_cast<int>(next() % 24) - 10, counted = length(chain);
        const bool whole = index == 0 || index == -counted;
        const int before = whole ? -1 : position(chain, index - 1);
        llist *const tail = llist_split_at(&list, index);
        if (whole || before >= 0) {
            const Chain rest(chain.begin() + (before + 1), chain.end());
            chain.resize(static_cast<unsigned>(before + 1));
            same(tail, rest.empty() ? nullptr : rest[0]->real, "split");
            if (!rest.empty())
                loose_.push_back(rest);
        } else {
            same<llist *>(tail, nullptr, "split nowhere");
        }
    }

    void copy(llist *&list, Chain &chain)
    {
        const unsigned to = next() % kLists;
        const int pool = pick_pool();
        Chain copied;
        if (next() % 2 != 0) {
            llist *const first = llist_refalloc(list, pool);
            for (const Node &node : chain) {
                if (const Node made = make(pool, node->object, static_cast<int>(copied.size())); made != nullptr) {
                    copied.push_back(made);
                    at(std::max(made->object, 0)).holders += made->object >= 0;
                }
            }
            same(first == nullptr, copied.empty(), "refalloc");
            adopt(first, copied);
            if (!copied.empty())
                loose_.push_back(copied);
            return;
        }
        unsigned expected = 0;
        for (int i = 0, left = length(chain); i < left && expected == 0; ++i) {
            const int object = chain[static_cast<unsigned>(i)]->object;
            const Node made = make(pool, object, static_cast<int>(copied.size()));
            ++at(object).holders;
            if (made == nullptr) {
                ++at(object).mine;  // the reference that is lost
                expected = MEMM_E_NO_MEMORY;
            } else {
                copied.push_back(made);
            }
        }
        same(llist_clone(&lists_[to], list, pool), expected, "clone");
        splice(chains_[to], static_cast<int>(chains_[to].size()), copied);
        if (expected != 0)
            release(std::exchange(chains_[to], {}));
    }

    void share_or_release(llist *&list, Chain &chain)
    {
        const unsigned what = next() % 8;
        if (what == 0) {
            ObjectModel &object = objects_[next() % kObjects];
            if (object.holders > 0)
                object.real->refuses = next() % 4 == 0;
        } else if (what == 1 && !chain.empty()) {
            const Node &node = chain[next() % chain.size()];
            memm_refalloc(node->real);
            ++node->extra;
        } else if (what == 2) {
            same(llist_free_plist(&list), release(std::exchange(chain, {})), "free_plist");
        } else if (what == 3) {
            const int object = pick_mine();
            const int index = static_cast<int>(next() % 24) - 10, place = position(chain, index);
            same(llist_setobject_at(list, real(object), index), place < 0 ? unsigned{MEMM_E_INVALID} : 0U, "setobject");
            if (place >= 0) {
                take_over(object);
                int &held = chain[static_cast<unsigned>(place)]->object;
                if (!drop(held))
                    give(held);  // nobody's reference any more
                held = object;
            }
        } else if (what == 4) {
            ObjectModel &object = objects_[next() % kObjects];
            if (object.mine > 0 && drop(static_cast<int>(&object - objects_.data()))) {
                --object.mine;
                memm_free(object.real);
            }
        } else if (!loose_.empty()) {
            const Chain last = std::move(loose_.back());
            loose_.pop_back();
            same(memm_free(last[0]->real), static_cast<int>(release(last)), "release of a loose list");
        }
    }

    // --- looking ---

    void look(llist *list, const Chain &chain)
    {
        const int index = static_cast<int>(next() % 24) - 10, place = position(chain, index), object = pick();
        const Node node = place < 0 ? nullptr : chain[static_cast<unsigned>(place)];
        same(llist_getlength(list), length(chain), "getlength");
        same(llist_get_at(list, index), node == nullptr ? nullptr : node->real, "get_at");
        same(llist_getobject_at(list, index), node == nullptr ? nullptr : real(node->object), "getobject_at");
        same(llist_getindex_byobject(list, real(object)), position_of(chain, object), "getindex_byobject");
        same(llist_inlist(list, real(object)), int{object >= 0 && position_of(chain, object) >= 0}, "inlist");
        int key = static_cast<int>(next() % 6);
        const auto has_key = [&](const Node &n) { return n->object >= 0 && at(n->object).real->key == key; };
        const auto found = std::find_if(chain.begin(), chain.end(), has_key);
        same(llist_searchobject(list, &key, is_key), found == chain.end() ? nullptr : real((*found)->object), "search");
    }

    bool is_of_type(const Node &node, unsigned type) const
    {
        return node->object >= 0 && (type == 0xffffffff || (type != 0 && type_of(node->object) == type));
    }
    // The n-th from there on whose object is of the type; null.
    void *nth_of_type(const Chain &chain, std::size_t from, int n, unsigned type)
    {
        for (; from < chain.size(); ++from)
            if (is_of_type(chain[from], type) && n-- == 0)
                return real(chain[from]->object);
        return nullptr;
    }
    void look_by_type(llist *list, const Chain &chain)
    {
        const unsigned types[] = {object_pools_[0], object_pools_[1], 0xffffffff, 0}, type = types[next() % 4];
        same(llist_get_bytype(list, type, 0), nth_of_type(chain, 0, 0, type), "get_bytype");
        same(llist_get_bytype(list, type, 7), nth_of_type(chain, 0, 1, type), "get_bytype, second");
        int left = static_cast<int>(next() % 5), visited = left;
        int matching = 0;
        for (int i = 0; i < length(chain); ++i)
            matching += type_of(chain[static_cast<unsigned>(i)]->object) == type;
        same(llist_enumcb_bytype(list, type, count_down, &left), std::min(visited, matching), "enumcb_bytype");
    }
    // One step of a walk during which the list changes.
    void walk_on()
    {
        const Chain &chain = chains_[walked_list_];
        const auto is_last = [this](const Node &node) { return real(node->object) == cursor_; };
        const auto last = std::find_if(chain.begin(), chain.end(), is_last);
        void *expected = nullptr;
        if (walked_ == 0 || last == chain.end())
            expected = nth_of_type(chain, 0, walked_, type_);
        else
            expected = nth_of_type(chain, static_cast<std::size_t>(last - chain.begin()), 1, type_);
        const int steps = walked_ + (expected != nullptr && !chain.empty());
        same(llist_enum_bytype(lists_[walked_list_], type_, &walked_, &cursor_), expected, "enum_bytype");
        same(walked_, steps, "steps of enum_bytype");
        if (expected == nullptr) {
            walked_ = 0;
            walked_list_ = next() % kLists;
            type_ = next() % 2 != 0 ? 0xffffffff : object_pools_[0];
        }
    }

    // --- agreement ---

    void adopt(llist *node, const Chain &chain)
    {
        for (const Node &expected : chain) {
            if (node == nullptr)
                return same(true, false, "a node is missing");
            if (expected->real == nullptr)
                expected->real = node;
            same(node, expected->real, "node");
            same(node->obj, real(expected->object), "object of a node");
            same(header_of(node), expected->extra << 24 | expected->pool, "holders of a node");
            node = node->next;
        }
        same<llist *>(node, nullptr, "end of a list");
    }
    // Nodes that a failed call has lost stand in their pool, and in no list that is known.
    void find_lost(const Chain &chain)
    {
        const auto is_known = [this](const void *node) {
            const auto holds = [node](const Chain &other) {
                return std::any_of(other.begin(), other.end(), [node](const Node &n) { return n->real == node; });
            };
            return std::any_of(chains_.begin(), chains_.end(), holds) ||
                   std::any_of(loose_.begin(), loose_.end(), holds);
        };
        NodeModel &lost = *chain[0];
        for (void *object = memm_getfirst(lost.pool); object != nullptr; object = memm_getnext(object)) {
            auto *const node = static_cast<llist *>(object);
            if (!is_known(node) && node->obj == real(lost.object) && (node->next == nullptr) == (chain.size() == 1)) {
                lost.real = node;
                return;
            }
        }
    }
    void compare_all()
    {
        for (unsigned i = 0; i < kLists; ++i)
            adopt(lists_[i], chains_[i]);
        for (const Chain &chain : loose_) {
            if (chain[0]->real == nullptr)
                find_lost(chain);
            adopt(chain[0]->real, chain);
        }
        for (unsigned i = 0; i < kObjects; ++i) {
            if (objects_[i].holders > 0) {
                same(header_of(objects_[i].real), (objects_[i].holders - 1) << 24 | type_of(static_cast<int>(i)),
                     "holders");
            }
        }
        for (const unsigned pool : node_pools_)
            same(pool_at(pool).cur_count, in_use(pool), "nodes in use");
    }

public:
    ListTrial()
    {
        memm_pooloptions options{};
        options.release_cb = release_object;
        for (unsigned &pool : object_pools_)
            pool = make_pool("", kObjects, sizeof(Object), options);
        for (unsigned &pool : node_pools_)
            pool = static_cast<unsigned>(llist_initpool("", kNodes, sizeof(llist), nullptr));
        small_ = make_pool("", 4, 4);
    }

    std::string run(std::span<const unsigned char> bytes)
    {
        using Operation = void (ListTrial::*)(llist *&, Chain &);
        static constexpr Operation kOperations[] = {&ListTrial::add,
                                                    &ListTrial::add,
                                                    &ListTrial::take_out,
                                                    &ListTrial::order,
                                                    &ListTrial::copy,
                                                    &ListTrial::move_whole,
                                                    &ListTrial::split_or_move,
                                                    &ListTrial::share_or_release,
                                                    &ListTrial::share_or_release};
        for (bytes_ = bytes; bytes_.size() > 16 && found_.empty(); ++operations) {
            const unsigned list = next() % kLists;
            operation_ = next() % std::size(kOperations);
            (this->*kOperations[operation_])(lists_[list], chains_[list]);
            compare_all();
            look(lists_[list], chains_[list]);
            look_by_type(lists_[list], chains_[list]);
            walk_on();
            refused += std::any_of(loose_.begin(), loose_.end(), [](const Chain &chain) { return chain.size() > 1; });
        }
        return found_;
    }

    // Everything is given back; what is left then.
    int release_everything()
    {
        for (unsigned i = 0; i < kObjects; ++i)
            if (objects_[i].holders > 0)
                objects_[i].real->refuses = false;
        for (unsigned i = 0; i < kLists; ++i)
            EXPECT_EQ(llist_free_plist(&lists_[i]), release(std::exchange(chains_[i], {})));
        while (!loose_.empty()) {
            const Chain chain = std::move(loose_.back());
            loose_.pop_back();
            EXPECT_EQ(memm_free(chain[0]->real), static_cast<int>(release(chain)));
        }
        for (ObjectModel &object : objects_)
            for (; object.mine > 0; --object.mine)
                memm_free(object.real);
        int left = 0;
        for (const unsigned pool : {node_pools_[0], node_pools_[1], object_pools_[0], object_pools_[1], small_})
            left += pool_at(pool).cur_count;
        return left;
    }

    bool was_depleted() const { return pool_at(node_pools_[0]).flags != 0; }

    int operations = 0, refused = 0;
};

TEST(lists, agree_with_vectors_through_random_operations)
{
    recorder().allow_reports();
    ListTrial trial;
    const std::string dump_file = text("/tmp/memm_dump_%d", getpid());
    unlink(dump_file.c_str());                     // of an earlier process of this number
    ASSERT_EQ(mkdir(dump_file.c_str(), 0700), 0);  // files for every depletion would take the most of the time
    std::mt19937 random(3141);
    std::vector<unsigned char> bytes(65536);
    while (trial.operations < scaled(1000000)) {
        std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
        ASSERT_EQ(trial.run(bytes), "");
        recorder().forget();
    }
    EXPECT_TRUE(trial.was_depleted() && trial.refused > 0);
    EXPECT_EQ(trial.release_everything(), 0);
    rmdir(dump_file.c_str());
}

}  // namespace
