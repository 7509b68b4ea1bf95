// How many instructions does a call take? For callgrind, which counts the same on every run however noisy the machine:
// each job runs a number of calls and then twice as many, and leaves a dump of each; the difference belongs to the
// calls alone. scripts/profile-table runs this program and prints what it finds.
//     profile [--second-thread] [JOB..]   the jobs whose names hold one of these texts, or all
#include "process.h"

#include <memmanager/dyndata.h>
#include <memmanager/strlist.h>

#include <cstring>
#include <string>
#include <string_view>

#include <glib.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

namespace {

using namespace bench;

constexpr int kCalls = 1000;
constexpr unsigned kItems = 1000;  // of a list
constexpr const char *kText = "sixteen bytes...";

unsigned objects, large_objects, strings, data;
int nodes;

void start_pools()
{
    objects = id_or_exit(memm_initpool("64 bytes", 10'000, 64, nullptr));
    large_objects = id_or_exit(memm_initpool("256 bytes", 1'000, 256, nullptr));
    strings = id_or_exit(dynstr_initpool2("strings", 10'000, 1U << 20, 4));
    nodes = static_cast<int>(id_or_exit(llist_initpool("nodes", 20'000, sizeof(llist), nullptr)));
    data = dyndata_init(4) == MEMM_OK ? id_or_exit(dyndata_initpool("data", 4'000, 1U << 20)) : 0;
}

// ---- how calls are repeated ----

void *held[2 * kCalls];  // what the calls of a job work on, one each

template <auto kMake> void make_each(int calls)
{
    for (int i = 0; i < calls; i++) {
        held[i] = kMake();
    }
}

template <auto kUse> void use_each(int calls)
{
    for (int i = 0; i < calls; i++) {
        kUse(held[i]);
    }
}

template <auto kCall> void repeat(int calls)
{
    for (int i = 0; i < calls; i++) {
        kCall();
    }
}

void nothing(int) {}

struct Job {
    const char *name, *who;
    int calls;
    void (*prepare)(int calls);
    void (*run)(int calls);  // what is counted
    void (*finish)(int calls);
};

// ---- objects ----

template <const unsigned &kPool> void *make_object() { return memm_calloc(kPool); }
void drop(void *object) { memm_free(object); }
template <std::size_t kSize> void *make_block() { return std::calloc(1, kSize); }
void drop_block(void *block) { std::free(block); }
void refer(void *object) { memm_refalloc(object); }
void drop_twice(void *object)
{
    memm_free(object);
    memm_free(object);
}

// The compiler must not drop a pair of calls that leaves nothing behind.
void *kept(void *object)
{
    __asm__ volatile("" : "+r"(object));
    return object;
}
template <auto kMake, void (*kDrop)(void *)> void pair() { kDrop(kept(kMake())); }
template <auto kMake, auto kThen> void *make_and()
{
    void *const made = kMake();
    kThen(made);
    return made;
}

// A random one of many is replaced; which ones stay the same in every run.
template <auto kMake, void (*kDrop)(void *), std::size_t kCount> class Churn {
    static inline std::vector<void *> live_;
    static inline Random random_{7};

public:
    static void prepare(int)
    {
        while (live_.size() < kCount) {
            live_.push_back(kMake());
        }
        random_ = Random(7);
    }
    static void step()
    {
        void *&one = live_[random_.below(kCount)];
        kDrop(one);
        one = kMake();
    }
    static void finish(int)
    {
        for (void *one : live_) {
            kDrop(one);
        }
        live_.clear();
    }
    static constexpr Job job(const char *name, const char *who)
    {
        return {name, who, 20 * kCalls, prepare, repeat<step>, finish};
    }
};

// ---- strings ----

dynstr *string_of(void *object) { return static_cast<dynstr *>(object); }

void *make_string() { return dynstr_fromstring(strings, kText); }
void *make_strdup() { return strdup(kText); }
void *make_std_string() { return new std::string(kText); }
void drop_std_string(void *text) { delete static_cast<std::string *>(text); }
void *make_g_string() { return g_string_new(kText); }
void drop_g_string(void *text) { g_string_free(static_cast<GString *>(text), 1); }

const char *volatile seen;
void get(void *string) { seen = dynstr_getstring(string_of(string)); }
void get_length(void *string) { seen = seen + (dynstr_strlen(string_of(string)) == 0 ? 1 : 0); }
void set(void *string) { dynstr_setstring(string_of(string), kText); }
void set_g_string(void *string) { g_string_assign(static_cast<GString *>(string), kText); }

// One text grows.
void append() { dynstr_addstring(string_of(held[0]), kText); }
void append_to_g_string() { g_string_append(static_cast<GString *>(held[0]), kText); }
template <auto kMake> void make_one(int) { held[0] = kMake(); }
template <auto kDrop> void drop_one(int) { kDrop(held[0]); }

constexpr const char *kFormat = "%s[%d]: state 0x%08x";
void *format() { return dynstr_fromprintf(strings, kFormat, "task", 1'234'567, 1'234'567U); }
void *format_with_glib() { return g_strdup_printf(kFormat, "task", 1'234'567, 1'234'567U); }
void *make_number() { return dynstr_fromulong(strings, 1'234'567); }

// Texts of 8 to 200 bytes, as many as fill nine tenths of the pool's buffers.
constexpr std::size_t kLiveStrings = (1U << 20) / 105 * 9 / 10;
const char *pick()
{
    static Random random(3);
    static const std::string text(200, 'x');
    return text.c_str() + random.below(193);
}
void *make_some_string() { return dynstr_fromstring(strings, pick()); }
void *make_some_std_string() { return new std::string(pick()); }

// ---- lists ----

void add_to_empty_list(void *&object)
{
    llist *list = nullptr;
    llist_addobject(&list, object, nodes);
    object = list;
}
void drop_list(void *&list)
{
    llist *first = static_cast<llist *>(list);
    llist_free_plist(&first);
}

llist *pushed;
void push(void *object) { llist_pushobject(&pushed, object, nodes); }
void drop_pushed(int) { llist_free_plist(&pushed); }

GSList *prepended;
void prepend(void *object) { prepended = g_slist_prepend(prepended, object); }
void drop_prepended(int)
{
    g_slist_free_full(prepended, drop_block);
    prepended = nullptr;
}

// Lists of objects with random keys.
Random keys(5);
template <auto kMake> void *make_keyed()
{
    void *const object = kMake();
    *static_cast<unsigned *>(object) = keys.next();
    return object;
}
int compare(const void *one, const void *other)
{
    const unsigned left = *static_cast<const unsigned *>(one), right = *static_cast<const unsigned *>(other);
    return left < right ? -1 : left > right ? 1 : 0;
}
void *make_list()
{
    llist *list = nullptr;
    for (unsigned i = 0; i < kItems; i++) {
        llist_pushobject(&list, make_keyed<make_object<objects>>(), nodes);
    }
    return list;
}
void sort(void *&list)
{
    llist *first = static_cast<llist *>(list);
    llist_sort(&first, [](void *placed, void *ordered) { return compare(placed, ordered); });
    list = first;
}
void *make_g_list()
{
    GSList *list = nullptr;
    for (unsigned i = 0; i < kItems; i++) {
        list = g_slist_prepend(list, make_keyed<make_block<64>>());
    }
    return list;
}
void sort_g_list(void *&list) { list = g_slist_sort(static_cast<GSList *>(list), compare); }
void drop_g_list(void *list) { g_slist_free_full(static_cast<GSList *>(list), drop_block); }

const std::string &long_text()
{
    static const std::string text = [] {
        std::string items;
        for (unsigned i = 0; i < kItems; i++) {
            items += (i == 0 ? "" : ",") + std::to_string(1'000'000'000U + i * 77'777U);
        }
        return items;
    }();
    return text;
}
void *split() { return strlist_fromstring(long_text().c_str(), ",", nodes, static_cast<int>(strings)); }
void split_and_drop()
{
    void *list = split();
    drop_list(list);
}
void *split_with_glib() { return g_strsplit(long_text().c_str(), ",", -1); }
void drop_items(void *items) { g_strfreev(static_cast<char **>(items)); }
void join(void *list) { memm_free(dynstr_fromstrlist(strings, static_cast<llist *>(list), ",")); }
void join_with_glib(void *items) { g_free(g_strjoinv(",", static_cast<char **>(items))); }

// ---- data buffers, locks ----

void *make_data() { return dyndata_fromdata(data, kText, 16); }
void drop_data(void *buffer) { dyndata_free(static_cast<dyndata *>(buffer)); }
void append_data() { dyndata_adddata(static_cast<dyndata *>(held[0]), kText, 16); }

void lock_manager()
{
    memm_lock("profile");
    memm_unlock();
}

LOCK named;
void lock_named()
{
    lock_lock(&named, 0, "profile");
    lock_unlock(&named);
}

pthread_mutex_t recursive = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
void lock_mutex()
{
    pthread_mutex_lock(&recursive);
    pthread_mutex_unlock(&recursive);
}

// ---- the table: a rival stands behind the job of ours ----

constexpr auto kObject = make_object<objects>;
constexpr auto kLarge = make_object<large_objects>;
constexpr auto kBlock = make_block<64>;
constexpr auto kLargeBlock = make_block<256>;
constexpr auto kReferred = make_and<kObject, refer>;

const Job kJobs[] = {
    {"allocate 64 B", "ours", kCalls, nothing, make_each<kObject>, use_each<drop>},
    {"allocate 64 B", "calloc", kCalls, nothing, make_each<kBlock>, use_each<drop_block>},
    {"release 64 B", "ours", kCalls, make_each<kObject>, use_each<drop>, nothing},
    {"release 64 B", "free", kCalls, make_each<kBlock>, use_each<drop_block>, nothing},
    {"allocate + release 64 B", "ours", kCalls, nothing, repeat<pair<kObject, drop>>, nothing},
    {"allocate + release 64 B", "calloc + free", kCalls, nothing, repeat<pair<kBlock, drop_block>>, nothing},
    {"allocate + release 256 B", "ours", kCalls, nothing, repeat<pair<kLarge, drop>>, nothing},
    {"allocate + release 256 B", "calloc + free", kCalls, nothing, repeat<pair<kLargeBlock, drop_block>>, nothing},
    Churn<kObject, drop, 9'000>::job("churn of 64 B, 9,000 live", "ours"),
    Churn<kBlock, drop_block, 9'000>::job("churn of 64 B, 9,000 live", "calloc + free"),
    {"add a reference", "ours", kCalls, make_each<kObject>, use_each<refer>, use_each<drop_twice>},
    {"drop a reference", "ours", kCalls, make_each<kReferred>, use_each<drop>, use_each<drop>},

    {"create a string", "ours", kCalls, nothing, make_each<make_string>, use_each<drop>},
    {"create a string", "strdup", kCalls, nothing, make_each<make_strdup>, use_each<drop_block>},
    {"release a string", "ours", kCalls, make_each<make_string>, use_each<drop>, nothing},
    {"release a string", "free", kCalls, make_each<make_strdup>, use_each<drop_block>, nothing},
    {"create + release a string", "ours", kCalls, nothing, repeat<pair<make_string, drop>>, nothing},
    {"create + release a string", "std::string", kCalls, nothing, repeat<pair<make_std_string, drop_std_string>>,
     nothing},
    {"get a string", "ours", kCalls, make_each<make_string>, use_each<get>, use_each<drop>},
    {"length of a string", "ours", kCalls, make_each<make_string>, use_each<get_length>, use_each<drop>},
    {"set a string", "ours", kCalls, make_each<make_string>, use_each<set>, use_each<drop>},
    {"set a string", "g_string_assign", kCalls, make_each<make_g_string>, use_each<set_g_string>,
     use_each<drop_g_string>},
    {"append 16 bytes", "ours", kCalls, make_one<make_string>, repeat<append>, drop_one<drop>},
    {"append 16 bytes", "g_string_append", kCalls, make_one<make_g_string>, repeat<append_to_g_string>,
     drop_one<drop_g_string>},
    {"formatted text", "ours", kCalls, nothing, repeat<pair<format, drop>>, nothing},
    {"formatted text", "g_strdup_printf", kCalls, nothing, repeat<pair<format_with_glib, g_free>>, nothing},
    {"number text", "ours", kCalls, nothing, repeat<pair<make_number, drop>>, nothing},
    Churn<make_some_string, drop, kLiveStrings>::job("string churn, 90 % live", "ours"),
    Churn<make_some_std_string, drop_std_string, kLiveStrings>::job("string churn, 90 % live", "std::string"),

    {"add to an empty list", "ours", kCalls, make_each<kObject>, use_each<add_to_empty_list>, use_each<drop_list>},
    {"push to a list", "ours", kCalls, make_each<kObject>, use_each<push>, drop_pushed},
    {"push to a list", "g_slist_prepend", kCalls, make_each<kBlock>, use_each<prepend>, drop_prepended},
    {"sort 1,000 nodes", "ours", 4, make_each<make_list>, use_each<sort>, use_each<drop_list>},
    {"sort 1,000 nodes", "g_slist_sort", 4, make_each<make_g_list>, use_each<sort_g_list>, use_each<drop_g_list>},
    {"split 1,000 items + release", "ours", 4, nothing, repeat<split_and_drop>, nothing},
    {"split 1,000 items + release", "g_strsplit", 4, nothing, repeat<pair<split_with_glib, drop_items>>, nothing},
    {"join 1,000 items + release", "ours", 4, make_each<split>, use_each<join>, use_each<drop_list>},
    {"join 1,000 items + release", "g_strjoinv", 4, make_each<split_with_glib>, use_each<join_with_glib>,
     use_each<drop_items>},

    {"create + release a data buffer", "ours", kCalls, nothing, repeat<pair<make_data, drop_data>>, nothing},
    {"append 16 bytes of data", "ours", kCalls, make_one<make_data>, repeat<append_data>, drop_one<drop_data>},
    {"manager lock", "ours", kCalls, nothing, repeat<lock_manager>, nothing},
    {"manager lock", "pthread recursive", kCalls, nothing, repeat<lock_mutex>, nothing},
    {"named lock", "ours", kCalls, nothing, repeat<lock_named>, nothing},
};

// The first run is not counted: it binds symbols and touches memory for the first time.
void count(const Job &job)
{
    for (const int times : {2, 1, 2}) {
        const int calls = times * job.calls;
        job.prepare(calls);
        CALLGRIND_ZERO_STATS;
        CALLGRIND_TOGGLE_COLLECT;
        job.run(calls);
        CALLGRIND_TOGGLE_COLLECT;
        job.finish(calls);
        const std::string label = std::string(job.name) + "/" + job.who + "/" + std::to_string(calls);
        CALLGRIND_DUMP_STATS_AT(label.c_str());
    }
}

// In a process of its own, as the heap is at start: what a call of the C library takes depends on what was there
// before.
void count_apart(const Job &job, bool second_thread)
{
    const pid_t child = fork();
    if (child == 0) {
        if (second_thread) {
            park_a_thread();
        }
        count(job);
        std::_Exit(0);  // the parked thread never ends
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        give_up(job.name);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<std::string_view> wanted;
    bool second_thread = false;
    for (const std::string_view argument : std::vector<std::string_view>(argv + 1, argv + argc)) {
        if (argument == "--second-thread") {
            second_thread = true;
        } else {
            wanted.push_back(argument);
        }
    }
    start_library();
    start_pools();
    lock_initlock(&named, "profile");
    for (const Job &job : kJobs) {
        bool is_wanted = wanted.empty();
        for (const std::string_view part : wanted) {
            is_wanted = is_wanted || std::string_view(job.name).find(part) != std::string_view::npos;
        }
        if (is_wanted) {
            count_apart(job, second_thread);
        }
    }
    return 0;
}
