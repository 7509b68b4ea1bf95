// Lists against vectors of nodes. The model itself holds every object once, so what more an object is held is as often
// as it stands in the lists; nodes that a call leaves to its caller are released at once.
#include "models/family.h"

constexpr unsigned kInvalid = MEMM_E_INVALID, kNoMemory = MEMM_E_NO_MEMORY, kAny = 0xffffffff;
constexpr unsigned kLists = 4;
constexpr int kNodes = 14, kObjects = 10;

struct Node {
    int object;  // -1: null
    unsigned pool;
    llist *real = nullptr;  // until the list has been looked at
};
using Chain = std::vector<Node>;

int compare(void *placed, void *ordered)
{
    const auto key = [](const void *object) { return object == nullptr ? -1 : *static_cast<const int *>(object); };
    return key(placed) - key(ordered);
}
int key_of(const Node &node) { return node.object < 0 ? -1 : node.object * 3 % 5; }

int position_of(const Chain &chain, int object)
{
    const auto place = std::ranges::find(chain, object, &Node::object);
    return place == chain.end() ? -1 : static_cast<int>(place - chain.begin());
}
int end_of(const Chain &chain) { return static_cast<int>(chain.size()); }
int length(const Chain &chain)
{
    const int null = position_of(chain, -1);
    return null < 0 ? end_of(chain) : null;
}
int from_front(const Chain &chain, int index) { return index < 0 ? index + length(chain) : index; }
// Where an index leads to; -1: nowhere.
int position(const Chain &chain, int index)
{
    return from_front(chain, index) < end_of(chain) ? std::max(from_front(chain, index), -1) : -1;
}
void splice(Chain &to, int place, const Chain &more) { to.insert(to.begin() + place, more.begin(), more.end()); }

class Trial {
    const unsigned node_pools_[2] = {make_nodes(kNodes), make_nodes(kNodes)};
    const unsigned object_pools_[2] = {make_pool("", kObjects), make_pool("", kObjects)};
    void *objects_[kObjects];
    llist *lists_[kLists] = {};
    Chain chains_[kLists];
    unsigned type_ = kAny, walked_list_ = 0;
    int walked_ = 0;
    void *cursor_ = nullptr;

    // What an operation may need.
    unsigned list_ = 0, other_ = 0, how_ = 0, pool_ = 0;
    int index_ = 0, object_ = 0;

    void *real(int i) const { return i < 0 ? nullptr : objects_[i]; }
    unsigned type_of(int i) const { return object_pools_[i % 2]; }
    template <typename Value> int count(Value Node::*field, Value value) const
    {
        long counted = 0;
        for (const Chain &chain : chains_)
            counted += std::ranges::count(chain, value, field);
        return static_cast<int>(counted);
    }

    // --- operations ---

    void add(llist *&list, Chain &chain)
    {
        const unsigned how = how_ % (std::ranges::is_sorted(chain, {}, key_of) ? 5 : 4);
        const int id = static_cast<int>(pool_), index = std::min(index_, end_of(chain));
        const auto in_order = std::ranges::lower_bound(chain, key_of({object_, 0}), {}, key_of);  // before equal ones
        const int places[] = {end_of(chain), end_of(chain), 0, std::max(from_front(chain, index), 0),
                              static_cast<int>(in_order - chain.begin())};
        const bool is_made = pool_ != kAny && count(&Node::pool, pool_) < kNodes;
        void *const object = real(object_);
        if (how != 1)
            memm_refalloc(object);  // what the list takes over
        const unsigned result = how == 0   ? llist_addobject(&list, object, id)
                                : how == 1 ? llist_addref(&list, object, id)
                                : how == 2 ? llist_pushobject(&list, object, id)
                                : how == 3 ? llist_insert_at(&list, object, index, id)
                                           : llist_insert_sorted(&list, object, id, compare);
        same(result, is_made || how == 4 ? 0 : kNoMemory, "adding");
        if (is_made)
            splice(chain, places[how], {{object_, pool_}});
        else if (how != 1)
            memm_free(object);
    }

    void take_out(llist *&list, Chain &chain)
    {
        static constexpr unsigned (*kAt[])(llist **, int) = {llist_delete_at, llist_remove_at, llist_unlink_at};
        static constexpr unsigned (*kByObject[])(llist **, void *) = {llist_delete_byobject, llist_remove_byobject,
                                                                      llist_unlink_byobject};
        const unsigned how = how_ % 3;
        const bool by_object = how_ < 128;
        const int place = by_object ? position_of(chain, object_) : position(chain, index_);
        const Node node = place < 0 ? Node{-1, 0} : chain.begin()[place];
        if (place >= 0)
            chain.erase(chain.begin() + place);
        same(by_object ? kByObject[how](&list, real(object_)) : kAt[how](&list, index_), place < 0 ? kInvalid : 0,
             "taking out");
        if (how == 1)
            memm_free(real(node.object));
        if (how == 2)
            memm_free(node.real);
    }

    void order(llist *&list, Chain &chain)
    {
        const bool sorts = how_ % 3 != 0;
        same(sorts ? llist_sort(&list, compare) : llist_reverse(&list), 0U, "sort or reverse");
        if (sorts && length(chain) < 2)
            return;
        std::ranges::reverse(chain);
        if (sorts)
            std::ranges::stable_sort(chain, {}, key_of);
    }

    void move(llist *&list, Chain &chain)
    {
        Chain &source = chains_[other_];
        const bool at_end = how_ % 2 == 0;
        const int place = at_end ? end_of(chain) : std::max(from_front(chain, index_), 0);
        const bool is_bad = source.empty() ? at_end : other_ == list_ || place > end_of(chain);
        same(at_end ? llist_addlist(&list, lists_[other_]) : llist_insert_list_at(&list, lists_[other_], index_),
             is_bad ? kInvalid : 0, "moving a list");
        if (!source.empty() && !is_bad) {
            splice(chain, place, std::exchange(source, {}));
            lists_[other_] = nullptr;
        }
    }

    void split(llist *&list, Chain &chain)
    {
        const bool whole = index_ == 0 || index_ == -length(chain);
        const int before = whole ? -1 : position(chain, index_ - 1);
        const Chain rest(whole || before >= 0 ? chain.begin() + (before + 1) : chain.end(), chain.end());
        chain.resize(chain.size() - rest.size());
        llist *const tail = llist_split_at(&list, index_);
        same(tail, rest.empty() ? nullptr : rest[0].real, "split");
        llist_addlist(&lists_[other_], tail);
        splice(chains_[other_], end_of(chains_[other_]), rest);
    }

    void replace(llist *&list, Chain &chain)
    {
        const int place = position(chain, index_);
        memm_refalloc(real(object_));
        same(llist_setobject_at(list, real(object_), index_), place < 0 ? kInvalid : 0, "setobject_at");
        if (place >= 0)
            chain.begin()[place].object = object_;
        else
            memm_free(real(object_));
    }

    // --- looking ---

    void look_at(llist *list, const Chain &chain) const
    {
        const int place = position(chain, index_);
        const Node node = place < 0 ? Node{-1, 0} : chain.begin()[place];
        same(llist_getlength(list), length(chain), "getlength");
        same(llist_get_at(list, index_), node.real, "get_at");
        same(llist_getobject_at(list, index_), real(node.object), "getobject_at");
        same(llist_getindex_byobject(list, real(object_)), position_of(chain, object_), "getindex_byobject");
        same(llist_inlist(list, real(object_)), int{object_ >= 0 && position_of(chain, object_) >= 0}, "inlist");
        const unsigned types[] = {object_pools_[0], object_pools_[1], kAny, 0}, type = types[how_ % 4];
        same(llist_get_bytype(list, type, 7), nth_of_type(chain, 0, 1, type), "get_bytype, second");
    }

    // The n-th from there on whose object is of the type; null.
    void *nth_of_type(const Chain &chain, int from, int n, unsigned type) const
    {
        for (; from < end_of(chain); ++from) {
            const int object = chain.begin()[from].object;
            if (object >= 0 && (type == kAny || type_of(object) == type) && n-- == 0)
                return real(object);
        }
        return nullptr;
    }

    // One step of a walk during which the lists change.
    void walk_on()
    {
        const Chain &chain = chains_[walked_list_];
        const auto cursor = std::find(objects_, std::end(objects_), cursor_) - objects_;
        const int last = position_of(chain, static_cast<int>(cursor));
        const bool goes_on = walked_ != 0 && last >= 0;
        void *const expected = nth_of_type(chain, goes_on ? last : 0, goes_on ? 1 : walked_, type_);
        const int steps = walked_ + (expected != nullptr);
        same(llist_enum_bytype(lists_[walked_list_], type_, &walked_, &cursor_), expected, "enum_bytype");
        same(walked_, steps, "steps of enum_bytype");
        if (expected == nullptr) {
            walked_ = 0;
            walked_list_ = other_;
            type_ = how_ % 2 == 0 ? kAny : object_pools_[0];
        }
    }

    void compare_all()
    {
        for (unsigned i = 0; i < kLists; ++i) {
            llist *next = lists_[i];
            for (Node &node : chains_[i]) {
                if (next == nullptr)
                    return same(false, true, "a node of a list");
                node.real = node.real == nullptr ? next : node.real;
                same(std::tuple(next, next->obj, header_of(next)), std::tuple(node.real, real(node.object), node.pool),
                     "node");
                next = next->next;
            }
            same<llist *>(next, nullptr, "end of a list");
        }
        for (int i = 0; i < kObjects; ++i) {
            const int holders = count(&Node::object, i);
            same(header_of(objects_[i]), static_cast<unsigned>(holders) << 24 | type_of(i), "holders");
        }
        for (const unsigned pool : node_pools_)
            same(pool_at(pool).cur_count, count(&Node::pool, pool), "nodes in use");
    }

public:
    Trial()
    {
        for (int i = 0; i < kObjects; ++i) {
            objects_[i] = memm_calloc(type_of(i));
            *static_cast<int *>(objects_[i]) = key_of({i, 0});
        }
    }

    void step(Stream &in)
    {
        static constexpr void (Trial::*kOperations[])(llist *&, Chain &) = {
            &Trial::add,   &Trial::add,  &Trial::take_out, &Trial::take_out, &Trial::take_out,
            &Trial::order, &Trial::move, &Trial::split,    &Trial::replace};
        const auto operation = in.one_of(kOperations);
        list_ = in.below(kLists);
        other_ = in.below(kLists);
        how_ = in.next();
        pool_ = in.one_in(16) ? kAny : in.one_of(node_pools_);
        index_ = in.within(-10, 13);
        object_ = in.within(-1, kObjects - 1);
        (this->*operation)(lists_[list_], chains_[list_]);
        compare_all();
        look_at(lists_[list_], chains_[list_]);
        walk_on();
    }
};

void step(Stream &in)
{
    static Trial trial;
    trial.step(in);
}
