// Lists against vectors of nodes. The trial itself holds every object once, so what more an object is held is as often
// as it stands in the lists; nodes that a call leaves to its caller are released at once.
#include "models/family.h"
#include "support/file_calls.h"
#include "support/pools.h"

#include <memmanager/llist.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID, kNoMemory = MEMM_E_NO_MEMORY, kAny = 0xffffffff;
constexpr unsigned kLists = 4;
constexpr int kNodes = 14, kObjects = 10;

struct Node {
    int object;  // -1: null
    unsigned pool;
    llist *real = nullptr;  // until the list has been looked at
};
using Chain = std::vector<Node>;

int key_of(const void *object) { return object == nullptr ? -1 : *static_cast<const int *>(object); }
int compare(void *placed, void *ordered) { return key_of(placed) - key_of(ordered); }

class Trial {
    const unsigned node_pools_[2], object_pools_[2];
    void *objects_[kObjects];
    llist *lists_[kLists] = {};
    Chain chains_[kLists];
    unsigned type_ = kAny, walked_list_ = 0;
    int walked_ = 0;
    void *cursor_ = nullptr;

    void *real(int i) const { return i < 0 ? nullptr : objects_[i]; }
    unsigned type_of(int i) const { return object_pools_[i % 2]; }

    static int length(const Chain &chain)
    {
        const auto end = std::find_if(chain.begin(), chain.end(), [](const Node &node) { return node.object < 0; });
        return static_cast<int>(end - chain.begin());
    }
    // Where an index leads to; -1: nowhere.
    static int position(const Chain &chain, int index)
    {
        const int from_front = index < 0 ? index + length(chain) : index;
        return from_front < static_cast<int>(chain.size()) ? std::max(from_front, -1) : -1;
    }
    static int find(const Chain &chain, auto matches)
    {
        const auto place = std::find_if(chain.begin(), chain.end(), matches);
        return place == chain.end() ? -1 : static_cast<int>(place - chain.begin());
    }
    static int position_of(const Chain &chain, int object)
    {
        return find(chain, [object](const Node &node) { return node.object == object; });
    }
    static const Node &at(const Chain &chain, int i) { return chain[static_cast<unsigned>(i)]; }
    static void splice(Chain &to, int place, const Chain &more)
    {
        to.insert(to.begin() + place, more.begin(), more.end());
    }
    static int end_of(const Chain &chain) { return static_cast<int>(chain.size()); }

    int count(auto matches) const
    {
        long counted = 0;
        for (const Chain &chain : chains_)
            counted += std::count_if(chain.begin(), chain.end(), matches);
        return static_cast<int>(counted);
    }
    int in_use(unsigned pool) const
    {
        return count([pool](const Node &node) { return node.pool == pool; });
    }
    bool has_node(unsigned pool) const { return pool != kAny && in_use(pool) < kNodes; }

    int pick(Stream &in) const { return in.within(-1, kObjects - 1); }
    unsigned pick_pool(Stream &in) const { return in.one_in(16) ? kAny : in.one_of(node_pools_); }

    bool is_before(const Node &a, const Node &b) const { return key_of(real(a.object)) < key_of(real(b.object)); }

    // Before those that are equal, in a list in order.
    int place_of(const Chain &chain, int object) const
    {
        const auto before = [this](const Node &a, const Node &b) { return is_before(a, b); };
        return static_cast<int>(std::lower_bound(chain.begin(), chain.end(), Node{object, 0}, before) - chain.begin());
    }

    // --- operations ---

    void add(Stream &in, llist *&list, Chain &chain)
    {
        static constexpr unsigned (*kAdd[])(llist **, void *, int) = {llist_addobject, llist_addref, llist_pushobject};
        const auto before = [this](const Node &a, const Node &b) { return is_before(a, b); };
        const bool is_sorted = std::is_sorted(chain.begin(), chain.end(), before);
        const unsigned kind = in.below(is_sorted ? 5 : 4), pool = pick_pool(in);
        const int id = static_cast<int>(pool), object = pick(in), index = in.within(-10, end_of(chain));
        const bool is_made = has_node(pool);
        int place = kind < 2 ? end_of(chain) : 0;
        unsigned result = 0;
        if (kind != 1)
            memm_refalloc(real(object));  // what the list takes over
        if (kind < 3) {
            result = kAdd[kind](&list, real(object), id);
        } else if (kind == 3) {
            place = std::max(index < 0 ? index + length(chain) : index, 0);
            result = llist_insert_at(&list, real(object), index, id);
        } else {
            place = is_made ? place_of(chain, object) : 0;
            result = llist_insert_sorted(&list, real(object), id, compare) == 0 && is_made ? 0 : kNoMemory;
        }
        found.same(result, is_made ? 0 : kNoMemory, "adding");
        if (is_made)
            splice(chain, place, {{object, pool}});
        else if (kind != 1)
            memm_free(real(object));
    }

    void take_out(Stream &in, llist *&list, Chain &chain)
    {
        static constexpr unsigned (*kAt[])(llist **, int) = {llist_delete_at, llist_remove_at, llist_unlink_at};
        static constexpr unsigned (*kByObject[])(llist **, void *) = {llist_delete_byobject, llist_remove_byobject,
                                                                      llist_unlink_byobject};
        const unsigned how = in.below(3);
        const int index = in.within(-10, 13), object = pick(in);
        const bool by_object = in.one_in(2);
        const int place = by_object ? position_of(chain, object) : position(chain, index);
        const Node node = place < 0 ? Node{-1, 0} : at(chain, place);
        if (place >= 0)
            chain.erase(chain.begin() + place);
        const unsigned result = by_object ? kByObject[how](&list, real(object)) : kAt[how](&list, index);
        found.same(result, place < 0 ? kInvalid : 0, "taking out");
        if (how == 1)
            memm_free(real(node.object));
        if (how == 2)
            memm_free(node.real);
    }

    void order(Stream &in, llist *&list, Chain &chain)
    {
        if (in.one_in(3)) {
            found.same(llist_reverse(&list), 0U, "reverse");
            return std::reverse(chain.begin(), chain.end());
        }
        found.same(llist_sort(&list, compare), 0U, "sort");
        Chain sorted;
        for (const Node &node : chain)
            splice(sorted, place_of(sorted, node.object), {node});
        chain = length(chain) < 2 ? chain : sorted;
    }

    void move(Stream &in, llist *&list, Chain &chain)
    {
        const unsigned from = in.below(kLists);
        const bool at_end = in.one_in(2), is_same = &chains_[from] == &chain;
        const int index = in.within(-10, 13), place = std::max(index < 0 ? index + length(chain) : index, 0);
        Chain &source = chains_[from];
        const bool is_bad = source.empty() ? at_end : is_same || (!at_end && place > end_of(chain));
        found.same(at_end ? llist_addlist(&list, lists_[from]) : llist_insert_list_at(&list, lists_[from], index),
                   is_bad ? kInvalid : 0, "moving a list");
        if (!source.empty() && !is_bad) {
            splice(chain, at_end ? end_of(chain) : place, std::exchange(source, {}));
            lists_[from] = nullptr;
        }
    }

    void split(Stream &in, llist *&list, Chain &chain)
    {
        const int index = in.within(-10, 13), counted = length(chain);
        const unsigned to = in.below(kLists);
        const bool whole = index == 0 || index == -counted;
        const int before = whole ? -1 : position(chain, index - 1);
        const Chain rest(whole || before >= 0 ? chain.begin() + (before + 1) : chain.end(), chain.end());
        chain.resize(chain.size() - rest.size());
        llist *const tail = llist_split_at(&list, index);
        found.same(tail, rest.empty() ? nullptr : rest[0].real, "split");
        llist_addlist(&lists_[to], tail);
        splice(chains_[to], end_of(chains_[to]), rest);
    }

    void copy(Stream &in, llist *&list, Chain &chain)
    {
        const unsigned to = in.below(kLists), pool = in.one_of(node_pools_);
        if (in_use(pool) + length(chain) > kNodes)
            return;
        found.same(llist_clone(&lists_[to], list, static_cast<int>(pool)), 0U, "clone");
        Chain copied(chain.begin(), chain.begin() + length(chain));
        for (Node &node : copied)
            node = {node.object, pool};
        splice(chains_[to], end_of(chains_[to]), copied);
    }

    void replace_or_release(Stream &in, llist *&list, Chain &chain)
    {
        const int object = pick(in), index = in.within(-10, 13), place = position(chain, index);
        if (in.one_in(2)) {
            memm_refalloc(real(object));
            found.same(llist_setobject_at(list, real(object), index), place < 0 ? kInvalid : 0, "setobject_at");
            if (place >= 0)
                chain[static_cast<unsigned>(place)].object = object;
            else
                memm_free(real(object));
            return;
        }
        found.same(llist_free_plist(&list), 0U, "free_plist");
        found.same<llist *>(list, nullptr, "list variable");
        chain.clear();
    }

    // --- looking ---

    void look_at(Stream &in, llist *list, const Chain &chain)
    {
        const int index = in.within(-10, 13), place = position(chain, index), object = pick(in);
        const Node node = place < 0 ? Node{-1, 0} : at(chain, place);
        found.same(llist_getlength(list), length(chain), "getlength");
        found.same(llist_get_at(list, index), node.real, "get_at");
        found.same(llist_getobject_at(list, index), real(node.object), "getobject_at");
        found.same(llist_getindex_byobject(list, real(object)), position_of(chain, object), "getindex_byobject");
        const unsigned type = in.one_of(std::initializer_list<unsigned>{object_pools_[0], object_pools_[1], kAny, 0});
        found.same(llist_get_bytype(list, type, 7), nth_of_type(chain, 0, 1, type), "get_bytype, second");
    }

    // The n-th from there on whose object is of the type; null.
    void *nth_of_type(const Chain &chain, int from, int n, unsigned type) const
    {
        for (; from < end_of(chain); ++from) {
            const int object = at(chain, from).object;
            if (object >= 0 && (type == kAny || type_of(object) == type) && n-- == 0)
                return real(object);
        }
        return nullptr;
    }

    // One step of a walk during which the lists change.
    void walk_on(Stream &in)
    {
        const Chain &chain = chains_[walked_list_];
        const int last = find(chain, [this](const Node &node) { return real(node.object) == cursor_; });
        const bool goes_on = walked_ != 0 && last >= 0;
        void *const expected = nth_of_type(chain, goes_on ? last : 0, goes_on ? 1 : walked_, type_);
        const int steps = walked_ + (expected != nullptr && !chain.empty());
        found.same(llist_enum_bytype(lists_[walked_list_], type_, &walked_, &cursor_), expected, "enum_bytype");
        found.same(walked_, steps, "steps of enum_bytype");
        if (expected == nullptr) {
            walked_ = 0;
            walked_list_ = in.below(kLists);
            type_ = in.one_in(2) ? kAny : object_pools_[0];
        }
    }

    void compare_all()
    {
        for (unsigned i = 0; i < kLists; ++i) {
            const llist *real_node = lists_[i];
            for (Node &node : chains_[i]) {
                if (real_node == nullptr)
                    return found.note("a node is missing");
                if (node.real == nullptr)
                    node.real = const_cast<llist *>(real_node);
                found.expect(real_node == node.real, "node");
                found.same(real_node->obj, real(node.object), "object of a node");
                found.same(header_of(node.real), node.pool, "header of a node");
                real_node = real_node->next;
            }
            found.expect(real_node == nullptr, "end of a list");
        }
        for (int i = 0; i < kObjects; ++i) {
            const int holders = count([i](const Node &node) { return node.object == i; });
            found.same(header_of(objects_[i]), static_cast<unsigned>(holders) << 24 | type_of(i), "holders");
        }
        for (const unsigned pool : node_pools_)
            found.same(pool_at(pool).cur_count, in_use(pool), "nodes in use");
    }

public:
    Difference found;

    Trial() : node_pools_{make_nodes(), make_nodes()}, object_pools_{make_pool("", kObjects), make_pool("", kObjects)}
    {
        for (int i = 0; i < kObjects; ++i) {
            objects_[i] = memm_calloc(type_of(i));
            *static_cast<int *>(objects_[i]) = i * 3 % 5;
        }
    }
    static unsigned make_nodes()
    {
        make_pool("", 1);
        return static_cast<unsigned>(llist_initpool("", kNodes, sizeof(llist), nullptr));
    }

    void step(Stream &in)
    {
        static constexpr void (Trial::*kOperations[])(Stream &, llist *&, Chain &) = {
            &Trial::add,  &Trial::add,   &Trial::add,  &Trial::take_out,          &Trial::order,
            &Trial::move, &Trial::split, &Trial::copy, &Trial::replace_or_release};
        const unsigned list = in.below(kLists);
        (this->*in.one_of(kOperations))(in, lists_[list], chains_[list]);
        compare_all();
        look_at(in, lists_[list], chains_[list]);
        walk_on(in);
    }
};

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    file_faults.open_error = EACCES;  // files for every depletion would take the most of the time
    static Trial trial;
    for (Stream in(bytes); !in.is_empty() && trial.found.is_none(); ++operations)
        trial.step(in);
    return trial.found.first();
}
