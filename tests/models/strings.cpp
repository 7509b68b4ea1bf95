// Strings of pools with one to four buffers, kept in the plainest way: a text for each record and a list of records for
// each buffer, nothing cached. The model foretells every result, counter, record and byte. Texts of the long
// form are not its business.
#include "dynstring/text_pool.h"
#include "models/family.h"
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/dynstring.h>
#include <memmanager/platform.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <utility>

namespace {

constexpr unsigned kNoMemory = MEMM_E_NO_MEMORY, kInvalid = MEMM_E_INVALID;
const std::string kZero(1, '\0');

template <typename T> void raise(T &word, std::type_identity_t<T> value) { word = std::max(word, value); }

struct Source {  // what a text is made from: a null pointer, a record without a text or "" of the caller's, a text
    bool is_given = false;
    std::optional<std::string> text{};
};

// A second pool, of plain objects, goes through every allocation and release that a call stands for: its descriptor and
// headers foretell those of the string pool, and its reports those of the manager.
class Trial {
    enum Reason { kBalance, kDepleted, kBufferFull };
    struct Record {
        std::string text{};  // with its zero; empty: none
        int buffer = -1;     // of the pool's
        unsigned max = 0;
        bool is_literal = false, is_deleted = false;
    };

    const unsigned id_, twin_;
    memm::strings::TextPool texts_;
    std::vector<Record> records_;
    std::vector<int> lists_[memm::strings::kMaxBuffers];
    std::string given_;
    char letter_ = 'a';

    // --- records ---

    Record &at(int i) { return records_[static_cast<unsigned>(i)]; }
    void *object(unsigned pool, int i) const
    {
        return i < 0 ? nullptr : pool_at(pool).slots + static_cast<unsigned>(i) * pool_at(pool).slot_size + 4;
    }
    dynstr *handle(int i) const { return static_cast<dynstr *>(object(id_, i)); }
    bool is_in_use(int i) const { return header_of(object(twin_, i)) != 0xffffffff; }
    bool is_string(int i) { return is_in_use(i) && !at(i).is_deleted; }
    std::string text(int i) { return at(i).text.substr(0, at(i).text.size() - (at(i).text.empty() ? 0 : 1)); }
    Source whole(int i) { return {is_in_use(i), at(i).text.empty() ? std::nullopt : std::optional(text(i))}; }
    std::string getstring(int i)
    {
        return !is_in_use(i) ? "*NOT_MEMMSTR*" : at(i).is_deleted ? "*DELETED_DYNSTR*" : text(i);
    }

    int take(bool with_gc)
    {
        void *const taken = with_gc ? memm_calloc(twin_) : memm_calloc_nolock_nogc(twin_);
        if (taken == nullptr)
            return -1;
        at(memm_getindex(taken)) = {};
        return memm_getindex(taken);
    }
    unsigned release(int i) { return static_cast<unsigned>(memm_free(object(twin_, i))); }
    int last_release(int i)
    {
        if (at(i).buffer < 0)
            return MEMM_OK;
        if (at(i).is_deleted)
            return MEMM_E_INVALID;
        at(i).is_deleted = true;
        recount();
        return MEMM_KEPT;
    }

    // --- buffers ---

    void recount()
    {
        texts_.usedbytes = texts_.delbytes = 0;
        texts_.delcnt = 0;
        for (unsigned b = 0; b < texts_.bufcnt; ++b) {
            const std::vector<int> &list = lists_[b];
            texts_.used[b] = texts_.bufdelbytes[b] = texts_.bufdelcnt[b] = 0;
            texts_.first[b] = handle(list.empty() ? -1 : list.front());
            texts_.last[b] = handle(list.empty() ? -1 : list.back());
            texts_.firstdel[b] = nullptr;
            texts_.cnt[b] = static_cast<unsigned>(list.size());
            for (const int i : list) {
                const auto size = static_cast<unsigned>(at(i).text.size());
                texts_.used[b] += size;
                if (!at(i).is_deleted)
                    continue;
                texts_.bufdelbytes[b] += size;
                if (texts_.bufdelcnt[b]++ == 0)
                    texts_.firstdel[b] = handle(i);
            }
            texts_.usedbytes += texts_.used[b];
            texts_.delbytes += texts_.bufdelbytes[b];
            texts_.delcnt += static_cast<int>(texts_.bufdelcnt[b]);
        }
    }
    unsigned room() const { return texts_.bufsize - texts_.used[texts_.curbuf]; }

    void compact(Reason reason)
    {
        const unsigned b = (texts_.curbuf + 1) % texts_.bufcnt;
        const unsigned bytes = texts_.bufdelbytes[b], records = texts_.bufdelcnt[b];
        std::vector<int> kept;
        for (const int i : std::exchange(lists_[b], {})) {
            if (!at(i).is_deleted) {
                kept.push_back(i);
            } else {
                at(i).buffer = -1;
                at(i).text.clear();
                release(i);
            }
        }
        lists_[b] = kept;
        raise(texts_.gcmaxcnt, records);
        raise(texts_.gcmaxbytes, bytes);
        texts_.gctotcnt += records;
        texts_.gctotbytes += bytes;
        ++texts_.gcreason[texts_.curbuf][reason];
        ++texts_.gccnt;
        texts_.gcrequest = 0;
        texts_.curbuf = b;
        recount();
    }

    void commit(int d, const std::string &text)
    {
        const unsigned b = texts_.curbuf;
        at(d) = {.text = text, .buffer = static_cast<int>(b), .max = at(d).max};
        lists_[b].push_back(d);
        recount();
        raise(texts_.peakbytes, texts_.usedbytes - texts_.delbytes);
        raise(texts_.peak[b], texts_.used[b] - texts_.bufdelbytes[b]);
        if (texts_.cnt[b] > texts_.balance_limit)
            compact(kBalance);
        if (texts_.gcrequest != 0)
            compact(kDepleted);
    }

    // The old text goes on under another record.
    int set_aside(int d)
    {
        const int stand_by = take(false);
        if (stand_by >= 0) {
            at(stand_by) = std::exchange(at(d), {});
            for (auto &list : lists_)
                std::replace(list.begin(), list.end(), d, stand_by);
            recount();
        }
        return stand_by;
    }

    // The text comes with its zero; `predicted` is the size that was asked for.
    unsigned place(int d, const std::string &text, std::uint64_t predicted, bool outside)
    {
        if (predicted > 0x7ffffff)
            return kNoMemory;
        if (outside) {
            unsigned attempts = 0;
            do {
                if (attempts++ == texts_.bufcnt) {
                    texts_.flags |= memm::strings::TextPool::kRelocationFailed;
                    return kNoMemory;
                }
                compact(kBufferFull);
            } while (room() < predicted);
        }
        commit(d, text);
        return 0;
    }

    unsigned finish(int d, int stand_by, unsigned code)
    {
        at(d).is_literal = at(d).buffer < 0;
        at(d).max = at(stand_by).max;
        release(stand_by);
        return code;
    }

    // --- what the calls do; those that make a record answer its number or -1 ---

    unsigned assign(int d, const Source &source, std::int64_t offset, std::int64_t length)
    {
        if (!is_string(d) || !source.is_given || offset < 0)
            return kInvalid;
        const std::string all = source.text.value_or("");  // before its record is set aside
        const int stand_by = set_aside(d);
        if (stand_by < 0)
            return kNoMemory;
        const auto end = static_cast<std::int64_t>(all.size()), requested = length < 0 ? end - offset : length;
        if (!source.text.has_value() || offset > end || requested < 1)
            return finish(d, stand_by, 0);
        auto size = static_cast<std::uint64_t>(requested) + 1;
        if (const unsigned max = at(stand_by).max; max != 0 && size > max)
            size = max;
        const std::string part = all.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(size - 1));
        return finish(d, stand_by, place(d, part + kZero, size, size > room()));
    }

    unsigned append(int d, const std::string &more, std::int64_t count)
    {
        if (!is_string(d))
            return kInvalid;
        if (more.empty() || count < 1)
            return 0;
        const std::string old = text(d);
        const unsigned max = at(d).max;
        auto size = static_cast<std::int64_t>(old.size()) + count + 1;
        size = max == 0 ? size : std::min<std::int64_t>(size, max);
        const std::int64_t added = size - static_cast<std::int64_t>(old.size()) - 1;
        const std::string all = old + more.substr(0, static_cast<std::size_t>(added)) + kZero;
        auto &list = lists_[texts_.curbuf];
        const bool is_last = !list.empty() && list.back() == d, outside = (is_last ? added : size) > room();
        if (is_last && !outside) {
            list.pop_back();
            commit(d, all);
            return 0;
        }
        const int stand_by = set_aside(d);
        if (stand_by < 0)
            return kNoMemory;
        return finish(d, stand_by, place(d, all, all.size(), outside));
    }

    unsigned limit(int d, unsigned max)
    {
        if (max != 0 && max < at(d).text.size()) {
            if (const unsigned code = assign(d, whole(d), 0, static_cast<int>(max) - 1); code != 0)
                return code;
        }
        at(d).max = max < 2048 ? max : 0;
        return 0;
    }

    // Makes a record and fills it; it goes back when that fails.
    int create(bool with_gc, auto fill)
    {
        const int d = take(with_gc);
        if (d < 0 || fill(d) == 0)
            return d;
        release(d);
        return -1;
    }
    int create_from(bool with_gc, const Source &source, std::int64_t offset, std::int64_t length)
    {
        return create(with_gc, [&](int d) { return assign(d, source, offset, length); });
    }

    // --- decoding ---

    // Mostly a slot in use; of these the deleted and the forgotten ones too.
    int pick(Stream &in) const
    {
        const unsigned byte = in.next();
        const int slots = pool_at(id_).slot_count;
        int i = static_cast<int>(byte % 64) % slots;
        for (int steps = 0; byte < 240 && steps < slots && !is_in_use(i); ++steps)
            i = (i + 1) % slots;
        return i;
    }

    // A text of the caller's, of one of the strings, or none.
    std::pair<Source, const char *> source(Stream &in)
    {
        const unsigned byte = in.next();
        if (byte == 255)
            return {{}, nullptr};
        const auto of = [](const std::string &text) {
            return Source{true, text.empty() ? std::nullopt : std::optional(text)};
        };
        if (byte >= 200) {
            const int i = pick(in);
            const std::string text = getstring(i);
            const std::size_t offset = byte < 230 ? 0 : in.next() % (text.size() + 1);
            return {of(text.substr(offset)), dynstr_getstring_nolock(handle(i)) + offset};
        }
        given_.clear();
        for (auto length = byte < 190 ? byte % 24 : in.next() % (texts_.bufsize + 4); length > 0; --length)
            given_ += letter_ = letter_ == 'z' ? 'a' : static_cast<char>(letter_ + 1);
        return {of(given_), given_.c_str()};
    }

    static int number(Stream &in)
    {
        const unsigned byte = in.next();
        return byte < 230 ? static_cast<int>(byte % 24) - 1 : byte < 250 ? static_cast<int>(byte) * 300 : INT_MAX;
    }

    static long number_of(const dynstr *made) { return made == nullptr ? -1 : memm_getindex(made); }
    static long number_of(long code) { return code; }

    // The call has been made; the model follows it.
    void follow(auto result, auto model) { found.same(number_of(result), static_cast<long>(model()), "result"); }

#define FOLLOW(call, model) follow(call, [&] { return model; })

public:
    Difference found;

    Trial(int count, unsigned bytes, int buffers)
        : id_(static_cast<unsigned>(dynstr_initpool2("", count, bytes, buffers))), twin_([this] {
              memm_pooloptions options{};
              options.spare_count = pool_at(id_).options.spare_count;
              options.cookie = this;
              options.gc_cb = [](void *trial, int attempt, int) {
                  auto &self = *static_cast<Trial *>(trial);
                  const bool goes_on = attempt < static_cast<int>(self.texts_.bufcnt);
                  if (goes_on)
                      self.compact(kDepleted);
                  return int{goes_on};
              };
              options.release_cb = [](void *object) {
                  return static_cast<Trial *>(memm_getpoolcookie(object))->last_release(memm_getindex(object));
              };
              return static_cast<unsigned>(
                  memm_initpool("", pool_at(id_).slot_count, static_cast<int>(sizeof(dynstr)), &options));
          }()),
          texts_(*memm::strings::text_pool(memm::PoolId{id_})),
          records_(static_cast<std::size_t>(pool_at(id_).slot_count))
    {
        memm_calloc(twin_);  // the spare record
        memm_get_currentcount_ptr(twin_, &texts_.delcnt, &texts_.gcrequest);
    }
    Trial(const Trial &) = delete;

    // Every operation reads the same bytes, whether it needs them or not.
    void step(Stream &in)
    {
        const int d = pick(in), s = pick(in), offset = number(in), length = number(in);
        const unsigned max = in.next() < 200 ? in.below(40) : 1900 + in.next();
        const auto [source, pointer] = this->source(in);
        const Source &from = source;
        const std::string given = source.text.value_or("");
        const auto size = static_cast<std::int64_t>(given.size());
        dynstr *const to = handle(d), *const other = handle(s);
        switch (in.below(18)) {
        case 0:
            return FOLLOW(dynstr_setstring(to, pointer), assign(d, from, 0, -1));
        case 1:
            return FOLLOW(dynstr_setdynstr(to, other), assign(d, whole(s), 0, -1));
        case 2:
            return FOLLOW(dynstr_setsubstring(to, pointer, offset, length), assign(d, from, offset, length));
        case 3:
            return FOLLOW(dynstr_addstring(to, pointer), from.is_given ? append(d, given, size) : kInvalid);
        case 4:
        case 5:
        case 6:
            return FOLLOW(dynstr_addstring_size(to, pointer, length), append(d, given, length));
        case 7:
            return FOLLOW(dynstr_setmaxsize(to, max), is_string(d) ? limit(d, max) : kInvalid);
        case 8:
            return max < 40 ? ask(d, s)
                            : FOLLOW(dynstr_refalloc(to), memm_refalloc(object(twin_, d)) == nullptr ? -1 : d);
        case 9:
            return FOLLOW(dynstr_calloc_maxsize(id_, max), create(true, [&](int made) { return limit(made, max); }));
        case 10:
            return FOLLOW(dynstr_fromstring(id_, pointer), create_from(false, from, 0, -1));
        case 11:
            return FOLLOW(dynstr_fromsubstring(id_, pointer, offset, length), create_from(false, from, offset, length));
        default:
            return FOLLOW(memm_free(to), release(d));
        }
    }

    void ask(int d, int s)
    {
        const std::string text = getstring(d);
        char copied[16] = "dirt";
        found.same(dynstr_getstring(handle(d)), text, "getstring");
        found.same(dynstr_strncpy(copied, handle(d), sizeof copied), text.substr(0, sizeof copied - 1), "strncpy");
        found.same(dynstr_strcmp(handle(d), handle(s)) < 0, text < getstring(s), "strcmp");
        found.expect(!is_string(d) || dynstr_strlen(handle(d)) == text.size(), "strlen");
        found.same(dynstr_getmaxsize(handle(d)), is_string(d) ? at(d).max : 0, "getmaxsize");
    }

    // The whole pool.
    void look()
    {
        const auto &real = *memm::strings::text_pool(memm::PoolId{id_});
        found.same(dynstr_integrity_check(id_, 0), 1, "integrity_check");
        found.same(figures(id_), figures(twin_), "descriptor");
        found.same(std::memcmp(&real, &texts_, sizeof real), 0, "control block");
        for (unsigned b = 0; b < real.bufcnt; ++b) {
            std::string bytes;
            for (const int i : lists_[b]) {
                found.same(static_cast<const char *>(handle(i)->str), real.buf[b] + bytes.size(), "place of a text");
                bytes += at(i).text;
            }
            bytes.resize(real.bufsize);
            found.same(std::string_view(real.buf[b], real.bufsize), bytes, "bytes of a buffer");
        }
        for (int i = 0; i < pool_at(id_).slot_count; ++i) {
            const unsigned header = header_of(handle(i)), twin = header_of(object(twin_, i));
            found.expect(is_in_use(i) ? (header >> 24) == (twin >> 24) && (header & 0x7fffff) == id_ : header == twin,
                         "header of a record");
            if (!is_in_use(i))
                continue;
            const Record &r = at(i);
            const unsigned place = 3U << 27, is = r.buffer < 0 ? handle(i)->info & ~place : handle(i)->info;
            const unsigned expected = (r.is_literal ? 1U << 31 : 0) | (r.is_deleted ? 1U << 30 : 0) | r.max << 16 |
                                      static_cast<unsigned>(r.text.size());
            found.same(is, r.buffer < 0 ? expected : expected | static_cast<unsigned>(r.buffer) << 27, "record");
            found.expect(r.buffer >= 0 || handle(i)->str == nullptr, "text of a record");
        }
    }
};

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static const int started = memm_init(16, 4);
    static Trial trials[] = {{12, 120, 1}, {16, 340, 2}, {24, 540, 3}, {40, 900, 4}};
    file_faults.open_error = EACCES;  // files for every depletion would take the most of the time
    Stream in(bytes);
    Trial &trial = trials[in.below(std::size(trials))];
    for (; started == MEMM_OK && !in.is_empty() && trial.found.is_none(); ++operations) {
        trial.step(in);
        trial.look();
    }
    return trial.found.first();
}
