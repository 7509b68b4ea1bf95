#pragma once

#include "dynstring/text_pool.h"

#include <memmanager/dyndata.h>
#include <memmanager/lock.h>
#include <memmanager/strpair.h>
#include <memmanager/timestat.h>

#include <climits>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <tuple>
#include <type_traits>
#include <vector>

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
    bool is_of(const char *family) const { return function.find(family) != std::string::npos; }
};

template <class Function> struct Callback;  // answers 0 and 1 by turns
inline int turns = 0;
template <class R, class... A> struct Callback<R (*)(A...)> {
    static R call(A...) { return static_cast<R>(++turns % 2); }
};
template <class R, class... A> struct Callback<R (*)(A..., ...)> {
    static R call(A..., ...) { return R(); }
};

template <class T> constexpr bool is_callback = std::is_function_v<std::remove_pointer_t<T>>;
template <class T>
constexpr bool is_object =  // pointers to what lies in pools
    std::is_same_v<T, dynstr> || std::is_same_v<T, dyndata> || std::is_same_v<T, llist> || std::is_void_v<T>;

// Pools of each kind, and all that a call may want.
class World {
public:
    int objects, strings, nodes, data;
    std::mt19937 random;

    explicit World(const Sizes &sizes, unsigned seed = 1) : random(seed)
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
        auto *const texts = static_cast<memm::strings::TextPool *>(memm_getpoolcookie_bypoolid(id(strings)));
        for (const int pool : {nodes, objects, strings, data})
            for (int i = 0; pool != -1 && i < memm_get_pool_nolock(id(pool))->slot_count; ++i)
                for (void *object; (object = memm_getobject_byindex(id(pool), i)) != nullptr &&
                                   (texts == nullptr || object != texts->spare) && memm_free(object) == 0;)
                    ;
    }

    template <class T> T good(const Parameter &p)
    {
        if constexpr (std::is_same_v<T, char>) {
            return p.is("escape") ? '\\' : ',';
        } else if constexpr (std::is_integral_v<T>) {
            return static_cast<T>(integer(p));
        } else if constexpr (is_callback<T>) {
            return Callback<T>::call;
        } else if constexpr (std::is_same_v<T, const char *>) {
            return p.is("format") ? "%d and %x"
                   : p.is("name") ? ""
                                  : any<const char *>({"", ",", "a, b,c", "17", "no more than this"});
        } else if constexpr (std::is_same_v<T, const char *const *>) {
            return texts_;
        } else if constexpr (std::is_same_v<T, const memm_pooloptions *>) {
            return &options_;
        } else if constexpr (std::is_same_v<T, LOCK *>) {
            return &lock_;
        } else {
            using Target = std::remove_const_t<std::remove_pointer_t<T>>;
            if constexpr (std::is_same_v<Target, dynstr>)
                return string();
            else if constexpr (std::is_same_v<Target, dyndata>)
                return bytes();
            else if constexpr (std::is_same_v<Target, llist>)
                return list(p);
            else if constexpr (std::is_same_v<Target, llist *>)
                return kept(list(p));
            else if constexpr (std::is_same_v<Target, void *>)
                return kept<void *>(p.is("pobj") ? string() : nullptr);
            else if (std::is_void_v<Target> && !p.is("bytes"))
                return static_cast<T>(any<void *>({string(), bytes(), memm_calloc(id(objects))}));
            else
                return reinterpret_cast<T>(std::strcpy(reinterpret_cast<char *>(scratch_[p.number]), "a=b,c"));
        }
    }

    template <class T> std::vector<T> bad_ones(const Parameter &p)
    {
        if constexpr (is_callback<T>) {
            return {nullptr};
        } else if constexpr (std::is_pointer_v<T>) {
            using Target = std::remove_pointer_t<T>;
            std::vector<T> all{nullptr};
            if constexpr (is_object<std::remove_const_t<Target>>)
                for (void *pointer : p.is("bytes") ? std::vector<void *>{} : wild<std::remove_const_t<Target>>())
                    all.push_back(static_cast<T>(pointer));
            else if constexpr (std::is_same_v<T, llist **> || std::is_same_v<T, void **>)
                for (void *pointer : p.is("cursor") ? std::vector<void *>{} : wild<std::remove_pointer_t<Target>>())
                    all.push_back(kept<Target>(static_cast<Target>(pointer)));
            return all;
        } else {
            std::vector<T> all;
            const bool is_room =
                p.is("size") || (p.is("n") && p.is_of("strncpy"));  // the caller's word for what the destination holds
            for (const int value : {INT_MIN, -1, 0, 1, 65535, 65536, 1 << 27, INT_MAX, objects, strings, nodes, data})
                if (is_room ? value >= 0 && value <= 65536
                            : !(p.is("poolid") && p.is_of("dyndata_c") && value == nodes))
                    all.push_back(static_cast<T>(value));
            return all;
        }
    }

private:
    static inline LOCK lock_;
    static inline const memm_pooloptions options_{};
    static inline const char *const texts_[] = {"a", "b", nullptr};
    void *kept_[64]{};
    std::size_t kept_count_ = 0;
    alignas(16) unsigned char scratch_[8][70000]{};

    static unsigned id(int pool) { return static_cast<unsigned>(pool); }
    template <class T> const T &any(const std::vector<T> &of) { return of[random() % of.size()]; }
    template <class T> T *kept(T value)
    {
        void *&place = kept_[kept_count_++ % 64];
        place = value;
        return reinterpret_cast<T *>(&place);
    }

    dynstr *string()
    {
        return dynstr_fromstring(id(strings), any<const char *>({"12", "a,b;c", "00:11:22:33:44:55", "true", "10.0.0.1",
                                                                 "2020-01-01T00:00:00Z", "", "a text of some length"}));
    }
    dyndata *bytes() { return dyndata_fromdata(id(data), "some bytes", 10); }
    llist *list(const Parameter &p)
    {
        llist *first = nullptr;
        const bool of_pairs = p.is_of("strpairlist") && !p.is("pair");
        for (int i = 0; i < (p.is_of("strpair") ? 2 : 3); ++i)
            llist_addobject(&first,
                            of_pairs ? static_cast<void *>(strpair_fromstrings("a", "b", nodes, strings)) : string(),
                            nodes);
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

    // Pointers that are no object of this kind: null is everybody's.
    template <class T> std::vector<void *> wild()
    {
        static char *const hidden =
            static_cast<char *>(mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        const auto text = reinterpret_cast<char *>(string()), node = reinterpret_cast<char *>(list({"", "", 0}));
        void *const deleted = string(), *const released = bytes(), *const loose = list({"", "", 0});
        for (void *object : {deleted, released, loose})
            memm_free(object);
        std::vector<void *> all{deleted, released, loose, text + 1, node + 8, hidden + 4, hidden + 4096};
        all.push_back(reinterpret_cast<void *>(&std::abort));
        all.push_back(memm_get_pool_nolock(id(strings)));
        for (std::uintptr_t address = 1; address <= 8; ++address)
            all.push_back(reinterpret_cast<void *>(address));
        for (const int pool : {objects, strings, nodes, data})
            all.push_back(memm_get_pool_nolock(id(pool))->last_item + 4);  // a free slot
        all.push_back(std::is_same_v<T, dynstr> ? node : text);
        all.push_back(std::is_same_v<T, dyndata> ? static_cast<void *>(node) : bytes());
        return all;
    }
};

struct Call {
    std::string name;
    std::vector<std::function<std::size_t(World &)>> bad_ones;       // of each parameter
    std::function<void(World &, int parameter, int bad)> operator_;  // with one bad argument, or none
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
        depth += c == '(' ? 1 : c == ')' ? -1 : 0;
        if (depth < 0)
            break;
        if (c == ',' && depth == 0)
            all.push_back({function, "", static_cast<int>(all.size())});
        else
            all.back().name = c == ' ' || c == '*' ? "" : all.back().name + c;  // the last word stays
    }
    return all;
}

template <class R, class... P, class F> Call call_of(const char *name, const char *prototype, F run)
{
    const auto parameters = parameters_of(name, prototype);
    Call call{name, {}, {}};
    [&]<std::size_t... I>(std::index_sequence<I...>)
    {
        call.bad_ones = {[=](World &world) { return world.bad_ones<P>(parameters[I]).size(); }...};
        call.operator_ = [=](World &world, int parameter, [[maybe_unused]] int bad) {
            // The bad one comes last: what was released for it must not be taken again for another.
            std::tuple<P...> arguments{world.good<P>(parameters[I])...};
            ((parameter == static_cast<int>(I)
                  ? void(std::get<I>(arguments) = world.bad_ones<P>(parameters[I])[static_cast<std::size_t>(bad)])
                  : void()),
             ...);
            if constexpr (std::is_pointer_v<R> && !std::is_same_v<R, const char *>) {
                const R is = run(std::get<I>(arguments)...);
                using First = std::tuple_element_t<0, std::tuple<P..., int>>;
                const bool is_refusal = is_object<std::remove_cv_t<std::remove_pointer_t<First>>> && parameter == 0 &&
                                        bad == 0 && !parameters[0].is_of("todynstr");  // no list is an empty one
                EXPECT_TRUE(!is_refusal || is == nullptr) << name;
            } else {
                run(std::get<I>(arguments)...);
            }
        };
    }
    (std::index_sequence_for<P...>{});
    return call;
}
template <class R, class... P> Call make_call(const char *name, const char *prototype, R (*function)(P...))
{
    return call_of<R, P...>(name, prototype, function);
}
template <class R, class... P> Call make_call(const char *name, const char *prototype, R (*function)(P..., ...))
{
    return call_of<R, P...>(name, prototype, [function](P... arguments) { return function(arguments..., 7, 8); });
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
