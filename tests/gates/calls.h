#pragma once

#include "dynstring/text_pool.h"
#include "support/recording_platform.h"

#include <list>
#include <sys/mman.h>

// Calls of every exported function, with arguments that are made up from the types and the names of its parameters.
// calls.inc has a line for each, made from the list of exported symbols and the public headers.
namespace gates {

// What the pools of a world hold. The manager's own come first.
struct Sizes {
    int table = 64, controls = 4, areas = 4, objects = 12, strings = 40, nodes = 24, data = 6;
};

struct Parameter {
    std::string function, name;
    int number;
    bool is(const char *text) const { return name == text; }
    bool is_of(const char *family) const { return function.find(family) != function.npos; }
};

template <class T> using Of = std::type_identity<T>;  // a type as an argument

template <class T>
constexpr bool is_object =  // pointers to what lies in pools
    std::is_same_v<T, dynstr> || std::is_same_v<T, dyndata> || std::is_same_v<T, llist> || std::is_void_v<T>;

// Pools of each kind, and all that a call may want.
class World {
public:
    int objects, strings, nodes, data;
    std::mt19937 random{1};

    explicit World(const Sizes &sizes)
    {
        memm_init(static_cast<unsigned>(sizes.table), sizes.controls);
        dyndata_init(sizes.areas);
        objects = memm_initpool("objects", sizes.objects, 4, nullptr);  // too small for a node
        strings = dynstr_initpool2("strings", sizes.strings, 400, 2);
        nodes = llist_initpool("nodes", sizes.nodes, 1, nullptr);
        data = dyndata_initpool("data", sizes.data, 256);
        lock_initlock(&lock_, "lock");
    }

    // Everything is given back but the record that the string pool keeps for itself.
    void sweep()
    {
        kept_.clear();
        auto *const texts = static_cast<memm::strings::TextPool *>(memm_getpoolcookie_bypoolid(id(strings)));
        for (const int pool : {nodes, objects, strings, data})
            for (int i = 0; pool != -1 && i < pool_at(pool).slot_count; ++i)
                for (void *object; (object = memm_getobject_byindex(id(pool), i)) != nullptr &&
                                   (texts == nullptr || object != texts->spare) && memm_free(object) == 0;)
                    ;
    }

    // --- arguments that make sense, by type ---

    char good(Of<char>, const Parameter &p) { return p.is("escape") ? '\\' : ','; }
    const char *good(Of<const char *>, const Parameter &p)
    {
        return p.is("format") ? "%d and %x"
               : p.is("name") ? ""
                              : any<const char *>({"", ",", "a, b,c", "17", "no more than this"});
    }
    const char *const *good(Of<const char *const *>, const Parameter &) { return texts_; }
    const memm_pooloptions *good(Of<const memm_pooloptions *>, const Parameter &) { return &options_; }
    auto good(Of<int (*)(const char *, ...)>, const Parameter &) { return silence; }
    LOCK *good(Of<LOCK *>, const Parameter &) { return &lock_; }
    dynstr *good(Of<dynstr *>, const Parameter &) { return string(); }
    dyndata *good(Of<dyndata *>, const Parameter &) { return bytes(); }
    llist *good(Of<llist *>, const Parameter &p) { return list(p); }
    llist **good(Of<llist **>, const Parameter &p) { return kept(list(p)); }
    void **good(Of<void **>, const Parameter &p) { return kept<void *>(p.is("pobj") ? string() : nullptr); }
    void *good(Of<void *>, const Parameter &p)
    {
        return p.is("bytes") ? room(p) : any<void *>({string(), bytes(), memm_calloc(id(objects))});
    }
    template <std::integral T> T good(Of<T>, const Parameter &p) { return static_cast<T>(integer(p)); }
    template <class T> T *good(Of<T *>, const Parameter &p) { return static_cast<T *>(room(p)); }
    template <class T> const T *good(Of<const T *>, const Parameter &p) { return good(Of<T *>(), p); }
    template <class R, class... A> auto good(Of<R (*)(A...)>, const Parameter &)  // answers 0 and 1 by turns
    {
        return +[](A...) { return static_cast<R>(++turns_ % 2); };
    }

    // --- and such as make none ---

    template <std::integral T> std::vector<T> bad_ones(Of<T>, const Parameter &p)
    {
        std::vector<T> all;
        const bool is_room = p.is("size") || (p.is("n") && p.is_of("strncpy"));  // the caller's word
        for (const int value : {INT_MIN, -1, 0, 1, 65535, 65536, 1 << 27, INT_MAX, objects, strings, nodes, data})
            if (is_room ? value >= 0 && value <= 65536 : !(p.is("poolid") && p.is_of("dyndata_c") && value == nodes))
                all.push_back(static_cast<T>(value));
        return all;
    }
    template <class T> std::vector<T *> bad_ones(Of<T *>, const Parameter &p)
    {
        std::vector<T *> all{nullptr};
        if constexpr (is_object<std::remove_const_t<T>>)
            for (void *pointer : p.is("bytes") ? std::vector<void *>{} : wild())
                all.push_back(static_cast<T *>(pointer));
        return all;
    }
    template <class T> std::vector<T **> bad_ones(Of<T **>, const Parameter &p)
    {
        std::vector<T **> all{nullptr};
        for (T *pointer : p.is("cursor") ? std::vector<T *>{} : bad_ones(Of<T *>(), p))
            all.push_back(kept(pointer));
        return all;
    }

private:
    static inline LOCK lock_;
    static inline const memm_pooloptions options_{};
    static inline const char *const texts_[] = {"a", "b", nullptr};
    static inline int turns_ = 0;
    static int silence(const char *, ...) { return 0; }
    std::list<void *> kept_;  // what a parameter points to that is a pointer
    alignas(16) unsigned char scratch_[8][70000]{};

    static unsigned id(int pool) { return static_cast<unsigned>(pool); }
    template <class T> const T &any(const std::vector<T> &of) { return of[random() % of.size()]; }
    template <class T> T *kept(T value) { return reinterpret_cast<T *>(&kept_.emplace_back(value)); }

    void *room(const Parameter &p) { return std::strcpy(reinterpret_cast<char *>(scratch_[p.number]), "a=b,c"); }
    dynstr *string()
    {
        return dynstr_fromstring(id(strings), any<const char *>({"12", "a,b;c", "00:11:22:33:44:55", "true", "10.0.0.1",
                                                                 "2020-01-01T00:00:00Z", "", "a text of some length"}));
    }
    dyndata *bytes() { return dyndata_fromdata(id(data), "some bytes", 10); }
    llist *list(const Parameter &p)
    {
        llist *first = nullptr;
        for (int i = 0; i < (p.is_of("strpair") ? 2 : 3); ++i) {
            void *const pair = p.is_of("strpairlist") && !p.is("pair") ? list({"strpair", "", 0}) : nullptr;
            llist_addobject(&first, pair != nullptr ? pair : string(), nodes);
        }
        return first;
    }

    int integer(const Parameter &p)
    {
        if (p.is("strpool") || p.is("type"))
            return strings;
        if (p.is("poolid"))
            return p.is_of("dynstr_") ? strings : p.is_of("dyndata") ? data : p.is_of("memm_") ? objects : nodes;
        return p.is("objsize") || p.is("bytes") || p.is("bufsize") ? 64
               : p.is("size") || p.is("n")                         ? 16
                                                                   : static_cast<int>(random() % 4);
    }

    // Pointers of which each is no object of some kind: null is everybody's.
    std::vector<void *> wild()
    {
        static void *const hidden = mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        const auto text = reinterpret_cast<char *>(string()), node = reinterpret_cast<char *>(list({"", "", 0}));
        std::vector<void *> all{string(), bytes(), list({"", "", 0})};
        for (void *object : all)
            memm_free(object);
        all.insert(all.end(), {bytes(), &pool_at(id(strings)), text, text + 1, node, node + 8,
                               static_cast<char *>(hidden) + 4096, reinterpret_cast<void *>(&std::abort)});
        for (std::uintptr_t address = 1; address <= 8; ++address)
            all.push_back(reinterpret_cast<void *>(address));
        for (const int pool : {objects, strings, nodes, data})
            all.push_back(pool_at(id(pool)).last_item + 4);  // a free slot
        return all;
    }
};

struct Call {
    std::string name;
    std::size_t parameters;
    // With a bad argument for one parameter, which is the last to be made: what was released for it must not be taken
    // again for another. False when that parameter has no more bad ones; the call is made all the same.
    std::function<bool(World &, std::size_t parameter, std::size_t bad)> run_with_bad;

    void run(World &world) const { run_with_bad(world, parameters, 0); }
};

// --- calls whose arguments no table makes up; a name found here hides the exported one ---

inline constexpr auto &dynstr_fromvprintf = ::dynstr_fromprintf;
inline constexpr auto &_dynstr_ex_fromvprintf = ::_dynstr_ex_fromprintf;
inline unsigned dynstr_strlen(const dynstr *d)  // believes any other pointer
{
    return d == nullptr || dynstr_isdynstring(d) != 0 ? ::dynstr_strlen(d) : 0;
}
inline void memm_lock(const char *tag) { ::memm_lock(tag), ::memm_unlock(); }
inline void memm_unlock() { ::memm_lock("unlock"), ::memm_unlock(); }

// --- the table ---

inline std::vector<Parameter> parameters_of(const char *function, const std::string &prototype)
{
    std::vector<Parameter> all{{function, "", 0}};
    int depth = 0;
    for (const char c : prototype) {
        depth += (c == '(') - (c == ')');
        if (c == ',' && depth == 0)
            all.push_back({function, "", static_cast<int>(all.size())});
        else
            all.back().name = c == ' ' || c == '*' ? "" : all.back().name + c;  // the last word stays
    }
    return all;
}

template <class... P, class F> Call call_of(const char *name, const char *prototype, F function)
{
    const auto run = [=, parameters = parameters_of(name, prototype)](World &world, std::size_t wrong,
                                                                      std::size_t bad) {
        [[maybe_unused]] auto next = parameters.begin();
        std::tuple<P...> arguments{world.good(Of<P>(), *next++)...};
        std::size_t place = 0;
        bool is_bad = false;
        const auto spoil = [&]<class T>(T &argument) {
            if (place++ != wrong)
                return;
            const auto bad_ones = world.bad_ones(Of<T>(), parameters[wrong]);
            is_bad = bad < bad_ones.size();
            argument = is_bad ? bad_ones[bad] : argument;
        };
        std::apply([&](P &...each) { (spoil(each), ...); }, arguments);
        recorder().take_tags();
        std::apply(function, arguments);
        return is_bad;
    };
    return {name, sizeof...(P), run};
}
template <class R, class... P> Call make_call(const char *name, const char *prototype, R (*function)(P...))
{
    return call_of<P...>(name, prototype, function);
}
template <class R, class... P> Call make_call(const char *name, const char *prototype, R (*function)(P..., ...))
{
    return call_of<P...>(name, prototype, [function](P... arguments) { return function(arguments..., 7, 8); });
}

inline const std::vector<Call> &calls()
{
#define CALL(name, parameters) make_call(#name, parameters, &name),
    static const std::vector<Call> all{
#include "calls.inc"
    };
    return all;
}

}  // namespace gates
