// What do lists cost beside the usual ones: sorting, walking, splitting and joining texts?
#include "support.h"

#include <memmanager/strlist.h>

#include <algorithm>
#include <forward_list>
#include <memory_resource>
#include <numeric>

#include <glib.h>

namespace {

using namespace bench;

int node_pool()
{
    static const unsigned id = id_or_exit(llist_initpool("nodes", 400'000, sizeof(llist), nullptr));
    return static_cast<int>(id);
}

std::string with_commas(std::size_t count)
{
    std::string digits = std::to_string(count);
    for (auto at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), ",");
    }
    return digits;
}

// ---- the same objects in lists of three kinds, whose nodes lie in memory in the order of the list ----

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
    std::vector<llist *> nodes;
    llist *first = nullptr;
    explicit OurList(std::size_t count) : nodes(count)
    {
        for (llist *&node : nodes) {
            node = nullptr;
            llist_addobject(&node, nullptr, node_pool());
        }
    }
    OurList(const OurList &) = delete;
    ~OurList()
    {
        hold(Items(nodes.size()));  // the objects are no pool's
        llist_free_plist(&first);
    }
    void hold(const Items &items)
    {
        for (std::size_t i = 0; i < items.size(); i++) {
            *nodes[i] = {items[i], i + 1 < items.size() ? nodes[i + 1] : nullptr};
        }
        first = nodes.front();
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
    std::vector<GSList> nodes;
    GSList *first = nullptr;
    explicit GSlistList(std::size_t count) : nodes(count) {}
    void hold(const Items &items)
    {
        for (std::size_t i = 0; i < items.size(); i++) {
            nodes[i] = {items[i], i + 1 < items.size() ? &nodes[i + 1] : nullptr};
        }
        first = nodes.data();
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
    std::vector<std::byte> room;
    std::pmr::monotonic_buffer_resource resource{room.data(), room.size()};
    std::pmr::forward_list<Item *> list{&resource};
    explicit ForwardList(std::size_t count) : room(count * 2 * sizeof(void *) + 64) {}
    void hold(const Items &items)
    {
        list.clear();
        resource.release();
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

template <class Visit> void for_each_list(Visit visit)
{
    visit.template operator()<OurList>();
    visit.template operator()<GSlistList>();
    visit.template operator()<ForwardList>();
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
    for (auto _ : state) {
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
    const std::string job = job_name("sort of " + with_commas(count) + " nodes, " + order);
    set_goals(job, goals);
    for_each_list([&]<class List>() {
        add(job, List::kName, static_cast<std::int64_t>(std::max<std::size_t>(300'000 / count, 3)),
            [=](benchmark::State &state) { sort_lists<List>(state, count, arrange); });
    });
}

// ---- walking ----

template <class Walk> void add_walk(const char *name, std::size_t count, Walk walk)
{
    const std::string job = job_name(std::string(name) + " of " + with_commas(count) + " nodes");
    set_goals(job, {{"std::forward_list", 1.2}});
    for_each_list([&]<class List>() {
        add(job, List::kName, static_cast<std::int64_t>(3'000'000 / count), [=](benchmark::State &state) {
            std::vector<Item> objects(count);
            Items items(count);
            std::transform(objects.begin(), objects.end(), items.begin(), [](Item &item) { return &item; });
            List list(count);
            list.hold(items);
            for (auto _ : state) {
                benchmark::DoNotOptimize(walk(list, count));
                benchmark::ClobberMemory();
            }
        });
    });
}

// ---- splitting and joining: per item ----

// A pool for each size of job, with room for several of its lists.
int string_pool(std::size_t count)
{
    static std::map<std::size_t, int> pools;
    const auto [place, is_new] = pools.try_emplace(count, 0);
    if (is_new) {
        place->second = static_cast<int>(
            id_or_exit(dynstr_initpool2("", static_cast<int>(8 * count), static_cast<unsigned>(400 * count), 2)));
    }
    return place->second;
}

const std::string &text_of(std::size_t count)
{
    static std::map<std::size_t, std::string> texts;
    std::string &text = texts[count];
    if (text.empty()) {
        Random random(count);
        for (std::size_t i = 0; i < count; i++) {
            text += (i == 0 ? "" : ",") + std::string(4 + random.below(24), static_cast<char>('a' + random.below(26)));
        }
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

// Each call of `work` is about `count` items.
template <class Work> void add_per_item(const std::string &job, const char *rival, std::size_t count, Work work)
{
    const auto batch = static_cast<std::int64_t>(count);
    add(job, rival, std::max<std::int64_t>(100'000 / batch, 3) * batch, [=](benchmark::State &state) {
        while (state.KeepRunningBatch(batch)) {
            if (!work(count)) {
                state.SkipWithError("an item is missing");
            }
        }
    });
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

void add_split(const char *from, bool (*split)(std::size_t))
{
    const std::string name = std::string("split a ") + from + " and release, per item: ";
    for (const std::size_t count : {10U, 1'000U, 100'000U}) {
        const std::string job = job_name(name + with_commas(count) + " items");
        set_goals(job, {{"g_strsplit", 3.0}});
        add_per_item(job, "ours", count, split);
        add_per_item(job, "g_strsplit", count, split_with_glib);
    }
    const std::string growth = job_name(name + "100,000 beside 1,000 items");
    set_goals(growth, {{"1,000 items", 1.5}});
    add_per_item(growth, "ours", 100'000, split);
    add_per_item(growth, "1,000 items", 1'000, split);
}

void add_join(std::size_t count)
{
    const std::string job = job_name("join, per item: " + with_commas(count) + " items");
    set_goals(job, {{"g_strjoinv", 0.8}});
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
}

void register_jobs()
{
    for (const std::size_t count : {1'000U, 10'000U, 100'000U}) {
        add_sort(count, "in random order", at_random, {{"g_slist", 1.0}, {"std::forward_list", 1.0}});
    }
    for (const std::size_t count : {10'000U, 100'000U}) {
        add_sort(count, "sorted", sorted, {{"g_slist", 0.1}});
        add_sort(count, "reversed", reversed, {{"g_slist", 0.1}});
    }
    for (const std::size_t count : {1'000U, 100'000U}) {
        add_walk("length", count, [](auto &list, std::size_t) { return list.length(); });
        add_walk("walk to the last", count, [](auto &list, std::size_t length) { return list.at(length - 1); });
    }
    add_split("text", split_text);
    add_split("string", split_string);
    for (const std::size_t count : {10U, 1'000U, 100'000U}) {
        add_join(count);
    }
}

}  // namespace

int main(int argc, char **argv) { return run_program(argc, argv, register_jobs); }
