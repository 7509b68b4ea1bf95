// What do lists cost beside the usual ones: sorting, walking, releasing, splitting and joining texts?
#include "support.h"

#include <memmanager/strlist.h>

#include <algorithm>
#include <forward_list>
#include <memory>
#include <memory_resource>

#include <glib.h>

#if __has_include(<absl/strings/str_split.h>)
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#define BENCH_HAS_ABSEIL 1
#endif

namespace {

using namespace bench;

constexpr std::size_t kSizes[] = {1'000, 10'000, 100'000}, kLargest = 1'000'000;

// What a job of `count` items does in each run: about as many steps in all, three times the list at least.
std::int64_t runs_for(std::size_t steps, std::size_t count)
{
    return static_cast<std::int64_t>(std::max<std::size_t>(steps / count, 3));
}

// Each run of `work` is `count` operations; a figure is that of one.
template <class Work> void add_per_item(const std::string &job, const char *rival, std::size_t count, Work work)
{
    const auto batch = static_cast<std::int64_t>(count);
    add(job, rival, runs_for(100'000, count) * batch, [=](benchmark::State &state) {
        while (state.KeepRunningBatch(batch)) {
            if (!work(count)) {
                state.SkipWithError("an item is missing");
            }
        }
    });
}

int node_pool()
{
    static const unsigned id = id_or_exit(llist_initpool("nodes", 1'200'000, sizeof(llist), nullptr));
    return static_cast<int>(id);
}

// ---- the same objects in lists of three kinds, whose nodes lie in the same places ----

// Slots of the node pool, in the order of their addresses. They are nodes of ours in every kind of list, as far as the
// pool knows: what has been sorted is compared by its sorting, not by its memory.
class Places {
    std::vector<llist *> places_;

public:
    explicit Places(std::size_t count) : places_(count)
    {
        for (llist *&place : places_) {
            place = nullptr;
            llist_addobject(&place, nullptr, node_pool());
        }
        if (!std::is_sorted(places_.begin(), places_.end())) {
            give_up("the nodes do not lie in order");
        }
    }
    Places(const Places &) = delete;
    ~Places()
    {
        for (llist *place : places_) {
            *place = {};  // the objects are no pool's
            memm_free(place);
        }
    }
    std::size_t count() const { return places_.size(); }
    llist *operator[](std::size_t i) const { return places_[i]; }
};

// Hands out one place after the other.
class PlacesInOrder : public std::pmr::memory_resource {
    const Places &places_;
    std::size_t next_ = 0;

    void *do_allocate(std::size_t bytes, std::size_t) override
    {
        if (bytes > sizeof(llist)) {
            give_up("a node of another size");
        }
        return places_[next_++];
    }
    void do_deallocate(void *, std::size_t, std::size_t) override {}
    bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override { return this == &other; }

public:
    explicit PlacesInOrder(const Places &places) : places_(places) {}
    void start_again() { next_ = 0; }
};

struct Item {
    int key;
};
using Items = std::vector<Item *>;

int compare_items(const void *one, const void *other)
{
    const int left = static_cast<const Item *>(one)->key, right = static_cast<const Item *>(other)->key;
    return left < right ? -1 : left > right ? 1 : 0;
}

struct OurList {
    static constexpr const char *kName = "ours";
    Places places;
    llist *first = nullptr;
    explicit OurList(std::size_t count) : places(count) {}
    void hold(const Items &items)
    {
        for (std::size_t i = 0; i < items.size(); i++) {
            *places[i] = {items[i], i + 1 < items.size() ? places[i + 1] : nullptr};
        }
        first = places[0];
    }
    void sort()
    {
        llist_sort(&first, [](void *placed, void *ordered) { return compare_items(placed, ordered); });
    }
    std::size_t length() { return static_cast<std::size_t>(llist_getlength(first)); }
    const Item *at(std::size_t index)
    {
        return static_cast<const Item *>(llist_getobject_at(first, static_cast<int>(index)));
    }
    template <class Visit> void visit(Visit visit) const
    {
        for (const llist *node = first; node != nullptr; node = node->next) {
            visit(*static_cast<const Item *>(node->obj));
        }
    }
};

struct GSlistList {
    static constexpr const char *kName = "g_slist";
    Places places;
    GSList *first = nullptr;
    static_assert(sizeof(GSList) == sizeof(llist));
    explicit GSlistList(std::size_t count) : places(count) {}
    GSList *node(std::size_t i) const { return reinterpret_cast<GSList *>(places[i]); }
    void hold(const Items &items)
    {
        for (std::size_t i = 0; i < items.size(); i++) {
            *node(i) = {items[i], i + 1 < items.size() ? node(i + 1) : nullptr};
        }
        first = node(0);
    }
    void sort() { first = g_slist_sort(first, compare_items); }
    std::size_t length() { return g_slist_length(first); }
    const Item *at(std::size_t index)
    {
        return static_cast<const Item *>(g_slist_nth_data(first, static_cast<guint>(index)));
    }
    template <class Visit> void visit(Visit visit) const
    {
        for (const GSList *node = first; node != nullptr; node = node->next) {
            visit(*static_cast<const Item *>(node->data));
        }
    }
};

struct ForwardList {
    static constexpr const char *kName = "std::forward_list";
    Places places;
    PlacesInOrder resource{places};
    std::pmr::forward_list<Item *> list{&resource};
    explicit ForwardList(std::size_t count) : places(count) {}
    void hold(const Items &items)
    {
        list.clear();
        resource.start_again();
        auto end = list.before_begin();
        for (Item *const item : items) {
            end = list.insert_after(end, item);
        }
    }
    void sort()
    {
        list.sort([](const Item *left, const Item *right) { return left->key < right->key; });
    }
    std::size_t length() { return static_cast<std::size_t>(std::distance(list.begin(), list.end())); }
    const Item *at(std::size_t index) { return *std::next(list.begin(), static_cast<std::ptrdiff_t>(index)); }
    template <class Visit> void visit(Visit visit) const
    {
        for (const Item *const item : list) {
            visit(*item);
        }
    }
};

// A chase through the nodes. Sorting puts the keys alone, in an array, into order: compares and no list.
struct BareNodes {
    static constexpr const char *kName = kMinimum;
    OurList list;
    std::vector<int> keys;
    explicit BareNodes(std::size_t count) : list(count) {}
    void hold(const Items &items)
    {
        list.hold(items);
        keys.resize(items.size());
        std::transform(items.begin(), items.end(), keys.begin(), [](const Item *item) { return item->key; });
    }
    void sort()
    {
        if (std::is_sorted(keys.rbegin(), keys.rend())) {
            std::reverse(keys.begin(), keys.end());
        } else if (!std::is_sorted(keys.begin(), keys.end())) {
            std::sort(keys.begin(), keys.end());
        }
    }
    std::size_t length() { return to_node(list.places.count()).second; }
    const Item *at(std::size_t index) { return static_cast<const Item *>(to_node(index).first->obj); }
    template <class Visit> void visit(Visit visit) const
    {
        for (const int key : keys) {
            visit(Item{key});
        }
    }

private:
    std::pair<const llist *, std::size_t> to_node(std::size_t index) const
    {
        const llist *node = list.first;
        std::size_t passed = 0;
        for (; passed < index && node != nullptr; passed++) {
            node = node->next;
        }
        return {node, passed};
    }
};

template <class Visit> void for_each_list(Visit visit)
{
    visit.template operator()<OurList>();
    visit.template operator()<GSlistList>();
    visit.template operator()<ForwardList>();
    visit.template operator()<BareNodes>();
}

// ---- sorting ----

using Arrange = void (*)(std::vector<Item> &, Random &);

// Another order each time: branch predictors learn a short list's compares by heart.
void at_random(std::vector<Item> &items, Random &random) { random.shuffle(items); }
void sorted(std::vector<Item> &, Random &) {}
void reversed(std::vector<Item> &items, Random &)
{
    std::sort(items.begin(), items.end(), [](const Item &a, const Item &b) { return a.key > b.key; });
}

template <class List> void sort_lists(benchmark::State &state, std::size_t count, Arrange arrange)
{
    std::vector<Item> objects(count);
    Items items(count);
    for (std::size_t i = 0; i < count; i++) {
        objects[i].key = static_cast<int>(i);
        items[i] = &objects[i];
    }
    List list(count);
    Random random(count);
    while (state.KeepRunningBatch(static_cast<std::int64_t>(count))) {
        state.PauseTiming();
        arrange(objects, random);
        list.hold(items);
        state.ResumeTiming();
        list.sort();
    }
    int next = 0;
    bool in_order = true;
    list.visit([&](const Item &item) { in_order = item.key == next++ && in_order; });
    if (!in_order || next != static_cast<int>(count)) {
        state.SkipWithError("not sorted");
    }
}

void add_sort(std::size_t count, const char *order, Arrange arrange, std::initializer_list<Goal> goals)
{
    const std::string job = sized_job(std::string("sort of a list ") + order + ", per node", count, "nodes");
    set_goals(job, goals);
    for_each_list([&]<class List>() {
        add(job, List::kName, runs_for(300'000, count) * static_cast<std::int64_t>(count),
            [=](benchmark::State &state) { sort_lists<List>(state, count, arrange); });
    });
}

// ---- walking ----

template <class Walk> void add_walk(const char *name, std::size_t count, Walk walk)
{
    const std::string job = sized_job(std::string(name) + ", per node", count, "nodes");
    set_goals(job, {{"std::forward_list", 1.2}});
    for_each_list([&]<class List>() {
        const auto batch = static_cast<std::int64_t>(count);
        add(job, List::kName, runs_for(3'000'000, count) * batch, [=](benchmark::State &state) {
            std::vector<Item> objects(count);
            Items items(count);
            std::transform(objects.begin(), objects.end(), items.begin(), [](Item &item) { return &item; });
            List list(count);
            list.hold(items);
            while (state.KeepRunningBatch(batch)) {
                benchmark::DoNotOptimize(walk(list, count));
                benchmark::ClobberMemory();
            }
        });
    });
}

void add_last(std::size_t count)
{
    add_walk("walk to the last", count, [](auto &list, std::size_t length) { return list.at(length - 1); });
}

// ---- releasing a list with its objects ----

struct OurOwners {
    static constexpr const char *kName = "ours";
    llist *first = nullptr;
    static unsigned object_pool()
    {
        static const unsigned id = id_or_exit(memm_initpool("list objects", 1'000'000, sizeof(Item), nullptr));
        return id;
    }
    void push() { llist_pushobject(&first, memm_calloc(object_pool()), node_pool()); }
    void release() { llist_free_plist(&first); }
};

struct GSListOwners {
    static constexpr const char *kName = "g_slist";
    GSList *first = nullptr;
    void push() { first = g_slist_prepend(first, g_malloc0(sizeof(Item))); }
    void release() { g_slist_free_full(std::exchange(first, nullptr), g_free); }
};

struct ForwardListOwners {
    static constexpr const char *kName = "std::forward_list";
    std::forward_list<std::unique_ptr<Item>> list;
    void push() { list.push_front(std::make_unique<Item>()); }
    void release() { list.clear(); }
};

// Nodes and objects go back to lists of free blocks.
struct BareOwners {
    static constexpr const char *kName = kMinimum;
    struct Node {
        void *object;
        Node *next;
    };
    FreeList nodes{sizeof(Node), kLargest}, objects{sizeof(void *), kLargest};
    Node *first = nullptr;
    void push() { first = new (nodes.allocate()) Node{objects.allocate(), first}; }
    void release()
    {
        while (first != nullptr) {
            Node *const gone = std::exchange(first, first->next);
            objects.release(gone->object);
            nodes.release(gone);
        }
    }
};

template <class Owners> void add_release(std::size_t count)
{
    const auto batch = static_cast<std::int64_t>(count);
    add(sized_job("release of a list with its objects, per node", count, "nodes"), Owners::kName,
        runs_for(300'000, count) * batch, [=](benchmark::State &state) {
            static Owners owners;
            while (state.KeepRunningBatch(batch)) {
                state.PauseTiming();
                for (std::size_t i = 0; i < count; i++) {
                    owners.push();
                }
                state.ResumeTiming();
                owners.release();
            }
        });
}

// ---- splitting and joining ----

// A pool for each size of job, with room for several of its lists and, where they are small, for as many joined texts
// as it has records.
int string_pool(std::size_t count)
{
    static std::map<std::size_t, int> pools;
    const auto [place, is_new] = pools.try_emplace(count, 0);
    if (is_new) {
        place->second = static_cast<int>(id_or_exit(dynstr_initpool2(
            "", static_cast<int>(8 * count), static_cast<unsigned>(std::max<std::size_t>(400 * count, 16'000)), 2)));
    }
    return place->second;
}

constexpr std::size_t kWhole = 32;  // bytes, more than any item has; as many may be read behind a text

const std::string &text_of(std::size_t count)
{
    static std::map<std::size_t, std::string> texts;
    std::string &text = texts[count];
    if (text.empty()) {
        Random random(count);
        for (std::size_t i = 0; i < count; i++) {
            text += (i == 0 ? "" : ",") + std::string(4 + random.below(24), static_cast<char>('a' + random.below(26)));
        }
        text.reserve(text.size() + kWhole);
    }
    return text;
}

dynstr *string_of(std::size_t count)
{
    static std::map<std::size_t, dynstr *> strings;
    dynstr *&string = strings[count];
    if (string == nullptr) {
        string = dynstr_fromstring(static_cast<unsigned>(string_pool(count)), text_of(count).c_str());
    }
    return string;
}

bool release_all(strlist *list, std::size_t count)
{
    const bool complete = llist_getlength(list) == static_cast<int>(count);
    return llist_free_plist(&list) == 0 && complete;
}

bool split_text(std::size_t count)
{
    return release_all(strlist_fromstring(text_of(count).c_str(), ",", node_pool(), string_pool(count)), count);
}

bool split_string(std::size_t count)
{
    return release_all(strlist_fromdynstr(string_of(count), ",", node_pool()), count);
}

bool split_with_glib(std::size_t count)
{
    char **const items = g_strsplit(text_of(count).c_str(), ",", -1);
    const bool complete = g_strv_length(items) == count;
    g_strfreev(items);
    return complete;
}

// Each item is found and copied to where the last one ended.
std::vector<char> plain_room;

bool split_into_room(std::size_t count)
{
    const std::string &text = text_of(count);
    plain_room.resize(std::max(plain_room.size(), text.size() + 1));
    std::size_t items = 1, at = 0;
    for (std::size_t end; (end = text.find(',', at)) != std::string::npos; at = end + 1, items++) {
        std::memcpy(plain_room.data() + at, text.data() + at, end - at);
        plain_room[end] = '\0';
    }
    std::memcpy(plain_room.data() + at, text.data() + at, text.size() + 1 - at);
    benchmark::ClobberMemory();
    return items == count;
}

std::vector<std::string_view> parts_of(std::string_view text)
{
    std::vector<std::string_view> parts;
    for (std::size_t end; (end = text.find(',')) != std::string_view::npos; text.remove_prefix(end + 1)) {
        parts.push_back(text.substr(0, end));
    }
    parts.push_back(text);
    return parts;
}

// No item is longer than kWhole, and as many bytes are copied of each: the next one overwrites what is too much.
bool join_into_room(const std::vector<std::string_view> &items)
{
    char *end = plain_room.data();
    for (const std::string_view item : items) {
        std::memcpy(end, item.data(), kWhole);
        end += item.size();
        *end++ = ',';
    }
    end[-1] = '\0';
    benchmark::ClobberMemory();
    return true;
}

#ifdef BENCH_HAS_ABSEIL
std::vector<std::string> absl_items(std::size_t count) { return absl::StrSplit(text_of(count), ','); }
#endif

void add_split(const char *from, bool (*split)(std::size_t))
{
    const std::string name = std::string("split of a ") + from + " and release, per item";
    for (const std::size_t count : {10U, 1'000U, 100'000U}) {
        const std::string job = sized_job(name, count, "items");
        set_goals(job, {{"g_strsplit", 2.5}});
        add_per_item(job, "ours", count, split);
        add_per_item(job, "g_strsplit", count, split_with_glib);
#ifdef BENCH_HAS_ABSEIL
        add_per_item(job, "absl", count, [](std::size_t items) { return absl_items(items).size() == items; });
#endif
        add_per_item(job, kMinimum, count, split_into_room);
    }
    const std::string growth = job_name(name + ", 100,000 beside 1,000 items");
    set_goals(growth, {{"1,000 items", 1.5}});
    add_per_item(growth, "ours", 100'000, split);
    add_per_item(growth, "1,000 items", 1'000, split);
}

void add_join(std::size_t count)
{
    const std::string job = sized_job("join, per item", count, "items");
    set_goals(job, {{"g_strjoinv", 0.3}});
    strlist *const list = strlist_fromstring(text_of(count).c_str(), ",", node_pool(), string_pool(count));
    add_per_item(job, "ours", count, [list](std::size_t items) {
        dynstr *const text = dynstr_fromstrlist(static_cast<unsigned>(string_pool(items)), list, ",");
        const bool complete = dynstr_strlen(text) == text_of(items).size();
        return memm_free(text) == 0 && complete;
    });
    char **const items = g_strsplit(text_of(count).c_str(), ",", -1);
    add_per_item(job, "g_strjoinv", count, [items](std::size_t) {
        char *const text = g_strjoinv(",", items);
        benchmark::DoNotOptimize(text);
        g_free(text);
        return true;
    });
#ifdef BENCH_HAS_ABSEIL
    add_per_item(job, "absl", count, [items = absl_items(count)](std::size_t) {
        benchmark::DoNotOptimize(absl::StrJoin(items, ","));
        return true;
    });
#endif
    plain_room.resize(std::max(plain_room.size(), text_of(count).size() + kWhole));
    add_per_item(job, kMinimum, count,
                 [parts = parts_of(text_of(count))](std::size_t) { return join_into_room(parts); });
}

void register_growth()
{
    add_sort(kLargest, "in random order", at_random, {});
    add_last(kLargest);
    for (const std::size_t count : {std::size_t{1'000}, std::size_t{100'000}, kLargest}) {
        add_release<OurOwners>(count);
        add_release<GSListOwners>(count);
        add_release<ForwardListOwners>(count);
        add_release<BareOwners>(count);
    }
}

void register_jobs()
{
    constexpr double kRandomGoals[] = {0.6, 0.85, 0.95};
    for (std::size_t i = 0; i < std::size(kSizes); i++) {
        add_sort(kSizes[i], "in random order", at_random,
                 {{"g_slist", kRandomGoals[i]}, {"std::forward_list", kRandomGoals[i]}});
    }
    for (const std::size_t count : {10'000U, 100'000U}) {
        add_sort(count, "that is sorted", sorted, {{"g_slist", 0.1}});
        add_sort(count, "that is reversed", reversed, {{"g_slist", 0.1}});
    }
    for (const std::size_t count : {1'000U, 100'000U}) {
        add_walk("length", count, [](auto &list, std::size_t) { return list.length(); });
        add_last(count);
    }
    add_split("text", split_text);
    add_split("string", split_string);
    for (const std::size_t count : {10U, 1'000U, 100'000U}) {
        add_join(count);
    }
}

}  // namespace

int main(int argc, char **argv) { return run_program(argc, argv, register_jobs, register_growth); }
