// Strings of pools with one to four buffers, kept in the plainest way: a text for each record and a list of records for
// each buffer, nothing cached. The model foretells every result, counter, record and byte. Texts of the long
// form are not its business.
#include "dynstring/text_pool.h"
#include "models/family.h"

using memm::strings::Reason;
using memm::strings::TextPool;

constexpr unsigned kNoMemory = MEMM_E_NO_MEMORY, kInvalid = MEMM_E_INVALID;

using Source = std::optional<std::string>;  // none: a null pointer; a record without a text is as one with ""

// A second pool, of plain objects, goes through every allocation and release that a call stands for: its descriptor and
// headers foretell those of the string pool, and its reports those of the manager.
class Trial {
    struct Record {
        std::string text{};  // with its zero; empty: none
        int buffer = -1;     // of the pool's
        unsigned max = 0;
        bool is_literal = false, is_deleted = false;

        std::string shown() const { return text.substr(0, text.size() - (text.empty() ? 0 : 1)); }
    };

    const unsigned id_;
    const TextPool &real_ = *memm::strings::text_pool(memm::PoolId{id_});
    TextPool texts_ = real_;
    std::vector<Record> records_;
    std::vector<int> lists_[memm::strings::kMaxBuffers];
    unsigned twin_;

    // --- records ---

    Record &at(int i) { return records_[static_cast<unsigned>(i)]; }
    int slots() const { return static_cast<int>(records_.size()); }
    dynstr *handle(int i) const { return static_cast<dynstr *>(object_at(id_, i)); }
    void *twin(int i) const { return object_at(twin_, i); }
    bool is_in_use(int i) const { return header_of(twin(i)) != 0xffffffff; }
    bool is_string(int i) { return is_in_use(i) && !at(i).is_deleted; }
    Source whole(int i) { return is_in_use(i) ? Source(at(i).shown()) : Source(); }
    std::string getstring(int i)
    {
        return !is_in_use(i) ? "*NOT_MEMMSTR*" : at(i).is_deleted ? "*DELETED_DYNSTR*" : at(i).shown();
    }

    int take(bool with_gc)
    {
        void *const taken = (with_gc ? memm_calloc : memm_calloc_nolock_nogc)(twin_);
        if (taken == nullptr)
            return -1;
        at(memm_getindex(taken)) = {};
        return memm_getindex(taken);
    }
    int release(int i) { return memm_free(twin(i)); }

    // --- buffers ---

    void recount()
    {
        TextPool &t = texts_;
        t.usedbytes = t.delbytes = 0;
        t.delcnt = 0;
        for (unsigned b = 0; b < t.bufcnt; ++b) {
            t.used[b] = t.cnt[b] = t.bufdelbytes[b] = t.bufdelcnt[b] = 0;
            t.first[b] = t.last[b] = t.firstdel[b] = nullptr;
            for (const int i : lists_[b]) {
                const auto size = static_cast<unsigned>(at(i).text.size()), dead = at(i).is_deleted ? size : 0;
                t.first[b] = t.cnt[b]++ == 0 ? handle(i) : t.first[b];
                t.last[b] = handle(i);
                t.firstdel[b] = dead != 0 && t.bufdelcnt[b]++ == 0 ? handle(i) : t.firstdel[b];
                t.used[b] += size;
                t.bufdelbytes[b] += dead;
            }
            t.usedbytes += t.used[b];
            t.delbytes += t.bufdelbytes[b];
            t.delcnt += static_cast<int>(t.bufdelcnt[b]);
        }
    }

    void compact(Reason reason)
    {
        const unsigned b = (texts_.curbuf + 1) % texts_.bufcnt;
        const unsigned bytes = texts_.bufdelbytes[b], records = texts_.bufdelcnt[b];
        for (const int i : lists_[b])
            if (at(i).is_deleted) {
                at(i) = {.max = at(i).max, .is_deleted = true};
                release(i);
            }
        std::erase_if(lists_[b], [this](int i) { return at(i).is_deleted; });
        texts_.gcmaxcnt = std::max(texts_.gcmaxcnt, records);
        texts_.gcmaxbytes = std::max(texts_.gcmaxbytes, bytes);
        texts_.gctotcnt += records;
        texts_.gctotbytes += bytes;
        ++texts_.gcreason[texts_.curbuf][static_cast<unsigned>(reason)];
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
        texts_.peakbytes = std::max(texts_.peakbytes, texts_.usedbytes - texts_.delbytes);
        texts_.peak[b] = std::max(texts_.peak[b], texts_.used[b] - texts_.bufdelbytes[b]);
        if (texts_.cnt[b] > texts_.balance_limit)
            compact(Reason::balance);
        if (texts_.gcrequest != 0)
            compact(Reason::depleted);
    }

    // The old text goes on under another record while the new one, which comes with its zero, finds its place. What is
    // asked for may be more than is needed then.
    unsigned rewrite(int d, const std::string &text, std::size_t asked, std::size_t needed)
    {
        const int stand_by = take(false);
        if (stand_by < 0)
            return kNoMemory;
        at(stand_by) = std::exchange(at(d), {});
        for (auto &list : lists_)
            std::replace(list.begin(), list.end(), d, stand_by);
        recount();
        const unsigned code = text.empty() ? 0 : place(d, text, asked, needed);
        at(d).is_literal = at(d).buffer < 0;
        at(d).max = at(stand_by).max;
        release(stand_by);
        return code;
    }

    unsigned place(int d, const std::string &text, std::size_t asked, std::size_t needed)
    {
        if (needed > 0x7ffffff)
            return kNoMemory;
        unsigned attempts = 0;
        for (bool fits = asked <= texts_.room(); !fits; fits = needed <= texts_.room()) {
            if (attempts++ == texts_.bufcnt) {
                texts_.flags |= TextPool::kRelocationFailed;
                return kNoMemory;
            }
            compact(Reason::buffer_full);
        }
        commit(d, text);
        return 0;
    }

    // --- what the calls do ---

    unsigned assign(int d, const Source &source, std::int64_t offset, std::int64_t length)
    {
        if (!is_string(d) || !source || offset < 0)
            return kInvalid;
        const std::int64_t requested = length < 0 ? std::ssize(*source) - offset : length;
        if (source->empty() || offset > std::ssize(*source) || requested < 1)
            return rewrite(d, "", 0, 0);
        const std::int64_t most = at(d).max == 0 ? INT64_MAX : at(d).max - 1;
        const auto kept = static_cast<std::size_t>(std::min(requested, most));
        return rewrite(d, source->substr(static_cast<std::size_t>(offset), kept) + '\0', kept + 1, kept + 1);
    }

    unsigned append(int d, const std::string &more, std::int64_t count)
    {
        if (!is_string(d))
            return kInvalid;
        if (more.empty() || count < 1)
            return 0;
        const std::string old = at(d).shown();
        const std::int64_t most = at(d).max == 0 ? INT64_MAX : at(d).max - 1 - std::ssize(old);
        const auto added = static_cast<std::size_t>(std::min(count, most));
        const std::string all = old + more.substr(0, added) + '\0';
        auto &list = lists_[texts_.curbuf];
        if (list.empty() || list.back() != d || added > texts_.room())
            return rewrite(d, all, old.size() + added + 1, all.size());
        list.pop_back();
        commit(d, all);
        return 0;
    }

    unsigned limit(int d, unsigned max)
    {
        if (!is_string(d))
            return kInvalid;
        const bool is_cut = max != 0 && max < at(d).text.size();
        const unsigned code = is_cut ? assign(d, whole(d), 0, static_cast<int>(max) - 1) : 0;
        if (code == 0)
            at(d).max = max < 2048 ? max : 0;
        return code;
    }

    // Makes a record and fills it; it goes back when that fails.
    dynstr *create(auto fill, bool with_gc)
    {
        const int d = take(with_gc);
        if (d < 0 || fill(d) == 0)
            return handle(d);
        release(d);
        return nullptr;
    }

    // --- decoding ---

    // Mostly a slot in use; of these the deleted and the forgotten ones too.
    int pick(Stream &in) const
    {
        const unsigned byte = in.next();
        int i = static_cast<int>(byte % 64) % slots();
        for (int steps = 0; byte < 240 && steps < slots() && !is_in_use(i); ++steps)
            i = (i + 1) % slots();
        return i;
    }

    // A text of the caller's, of one of the strings, or none.
    std::pair<Source, const char *> any_source(Stream &in)
    {
        const unsigned byte = in.next();
        if (byte == 255)
            return {};
        if (byte >= 200) {
            const int i = pick(in);
            const std::string text = getstring(i);
            const std::size_t offset = byte < 230 ? 0 : in.next() % (text.size() + 1);
            return {text.substr(offset), dynstr_getstring_nolock(handle(i)) + offset};
        }
        static std::string given;
        given.clear();
        for (auto length = byte < 190 ? byte % 24 : in.next() % (texts_.bufsize + 4); length > 0; --length)
            given += static_cast<char>('a' + (byte + given.size()) % 26);
        return {given, given.c_str()};
    }

    static int collect(void *trial, int attempt, int)
    {
        auto &self = *static_cast<Trial *>(trial);
        const bool goes_on = attempt < static_cast<int>(self.texts_.bufcnt);
        if (goes_on)
            self.compact(Reason::depleted);
        return int{goes_on};
    }

    static int last_release(void *object)
    {
        auto &self = *static_cast<Trial *>(memm_getpoolcookie(object));
        Record &record = self.at(memm_getindex(object));
        if (record.buffer < 0)
            return MEMM_OK;
        if (std::exchange(record.is_deleted, true))
            return MEMM_E_INVALID;
        self.recount();
        return MEMM_KEPT;
    }

public:
    Trial(int count, unsigned bytes, int buffers)
        : id_(make_strings(bytes, buffers, count)), records_(static_cast<std::size_t>(pool_at(id_).slot_count))
    {
        const std::intptr_t spare = pool_at(id_).options.spare_count;
        twin_ = make_pool("", slots(), sizeof(dynstr),
                          {.release_cb = last_release, .gc_cb = collect, .cookie = this, .spare_count = spare});
        memm_calloc(twin_);  // the spare record
        memm_get_currentcount_ptr(twin_, &texts_.delcnt, &texts_.gcrequest);
    }

    // Every operation reads the same bytes, whether it needs them or not.
    void step(Stream &in)
    {
        const auto any_number = [&in] { return in.one_in(10) ? INT_MAX >> in.below(20) : in.within(-1, 22); };
        const int d = pick(in), s = pick(in), offset = any_number(), length = any_number();
        const unsigned max = in.next() < 200 ? in.below(40) : 1900 + in.next();
        const auto [from, text] = any_source(in);
        dynstr *const to = handle(d), *const other = handle(s);
        switch (in.below(15)) {
        case 0:
            return same((max % 2 != 0 ? dynstr_setstring : dynstr_setstring_nolock)(to, text), assign(d, from, 0, -1),
                        "setstring");
        case 1:
            return same((max % 2 != 0 ? dynstr_setdynstr : dynstr_setdynstr_nolock)(to, other),
                        assign(d, whole(s), 0, -1), "setdynstr");
        case 2:
            return same(dynstr_setsubstring(to, text, offset, length), assign(d, from, offset, length), "setsubstring");
        case 3:
            return same(dynstr_addstring(to, text), from ? append(d, *from, std::ssize(*from)) : kInvalid, "addstring");
        case 4:
            return same(dynstr_addstring_size(to, text, length), append(d, from.value_or(""), length), "adding a part");
        case 5:
            if (!getstring(s).empty())  // an empty text may be copied too
                same(dynstr_setsubdynstr(to, other, offset, length),
                     is_string(s) ? assign(d, whole(s), offset, length) : kInvalid, "setsubdynstr");
            return;
        case 6:
            return same(dynstr_setmaxsize(to, max), limit(d, max), "setmaxsize");
        case 7:
            return same(dynstr_refalloc(to), memm_refalloc(twin(d)) == nullptr ? nullptr : to, "refalloc");
        case 8:
            return same(dynstr_calloc_maxsize(id_, max), create([&](int made) { return limit(made, max); }, true),
                        "calloc_maxsize");
        case 9:
            return same(dynstr_fromsubstring(id_, text, offset, length),
                        create([&, &source = from](int made) { return assign(made, source, offset, length); }, false),
                        "fromsubstring");
        case 10:
            return ask(d, s);
        case 11:
            if (const bool all = max % 2 != 0; !getstring(s).empty()) {
                const auto copied = [&](int made) {
                    return assign(made, whole(s), all ? 0 : offset, all ? -1 : length);
                };
                same(all ? dynstr_fromdynstr(other) : dynstr_fromsubdynstr(other, offset, length),
                     is_string(s) ? create(copied, true) : nullptr, "copy");
            }
            return;
        default:
            return same(memm_free(to), release(d), "free");
        }
    }

    void ask(int d, int s)
    {
        const std::string text = getstring(d);
        same(dynstr_getstring(handle(d)), text, "getstring");
        same(dynstr_strcmp(handle(d), handle(s)) < 0, text < getstring(s), "strcmp");
        same(is_string(d) ? dynstr_strlen(handle(d)) : text.size(), text.size(), "strlen");
        same(dynstr_getmaxsize(handle(d)), is_string(d) ? at(d).max : 0, "getmaxsize");
    }

    // The whole pool.
    void look()
    {
        same(dynstr_integrity_check(id_, 0), 1, "integrity_check");
        same(figures(pool_at(id_)), figures(pool_at(twin_)), "descriptor");
        if (const dynstr *const record = real_.trail.record(); record != nullptr) {
            const auto &list = lists_[real_.curbuf];
            const bool is_long = list.size() >= memm::strings::Ahead::kPlaces;
            same(is_long ? handle(list.end()[-memm::strings::Ahead::kPlaces]) : nullptr, record, "trail");
        }
        texts_.trail = real_.trail;
        same(std::memcmp(&real_, &texts_, sizeof real_), 0, "control block");
        for (unsigned b = 0; b < texts_.bufcnt; ++b) {
            std::string bytes;
            for (const int i : lists_[b]) {
                same(static_cast<const char *>(handle(i)->str), texts_.buf[b] + bytes.size(), "place of a text");
                bytes += at(i).text;
            }
            bytes.resize(texts_.bufsize);
            same(std::string_view(texts_.buf[b], texts_.bufsize), bytes, "bytes of a buffer");
        }
        for (int i = 0; i < slots(); ++i) {
            const unsigned header = header_of(twin(i));
            same(header_of(handle(i)), is_in_use(i) ? (header & 0xff800000) | id_ : header, "header of a record");
            if (!is_in_use(i))
                continue;
            const Record &r = at(i);
            const unsigned place = r.buffer < 0 ? handle(i)->info & 3U << 27 : static_cast<unsigned>(r.buffer) << 27,
                           flags = unsigned{r.is_literal} << 31 | unsigned{r.is_deleted} << 30;
            same(handle(i)->info, flags | place | r.max << 16 | r.text.size(), "record");
            same(handle(i)->str == nullptr, r.buffer < 0, "text of a record");
        }
    }
};

void step(Stream &in)
{
    static Trial trials[] = {{12, 120, 1}, {16, 340, 2}, {24, 540, 3}, {40, 900, 4}};
    Trial &trial = in.one_of(trials);
    trial.step(in);
    trial.look();
}
