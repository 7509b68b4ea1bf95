#include "support/text_pool_model.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace {

constexpr unsigned kNoMemory = MEMM_E_NO_MEMORY, kInvalid = MEMM_E_INVALID;
constexpr unsigned kBalance = 0, kDepleted = 1, kBufferFull = 2;
const std::string kZero(1, '\0');

template <typename T> void raise(T &word, std::type_identity_t<T> value) { word = std::max(word, value); }

std::string hex_address(const void *address)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%08lx", reinterpret_cast<unsigned long>(address));
    return text;
}

// Padding included: both sides were zero when they were copied.
template <typename T> std::string words_differ(const char *what, const T &expected, const T &real)
{
    const auto *a = reinterpret_cast<const unsigned *>(&expected), *b = reinterpret_cast<const unsigned *>(&real);
    for (std::size_t i = 0; i < sizeof(T) / sizeof *a; ++i) {
        if (a[i] != b[i]) {
            return std::string(what) + " at byte " + std::to_string(i * 4) + ": expected " + std::to_string(a[i]) +
                   ", is " + std::to_string(b[i]);
        }
    }
    return "";
}

}  // namespace

// --- the memory manager's part ---

TextPoolModel::TextPoolModel(int poolid)
    : pool_(*memm_get_pool_nolock(static_cast<unsigned>(poolid))),
      texts_(*static_cast<memm::strings::TextPool *>(memm_getpoolcookie_bypoolid(static_cast<unsigned>(poolid)))),
      poolid_(poolid), records_(static_cast<std::size_t>(pool_.slot_count))
{
    for (std::string &bytes : bytes_)
        bytes.assign(texts_.bufsize, '\0');
    at(0).in_use = true;  // the spare record
    first_free_ = 1;
    last_used_ = 0;
}

dynstr *TextPoolModel::handle(int i) const
{
    return i < 0 ? nullptr
                 : reinterpret_cast<dynstr *>(pool_.slots + static_cast<std::size_t>(i) * pool_.slot_size + 4);
}

int TextPoolModel::take(bool reserve)
{
    const int normal = slots() - 1 - static_cast<int>(pool_.options.spare_count);
    const int limit = reserve ? slots() - 1 : normal;
    int found = -1, path = MEMM_PATH_OTHER;
    if (first_free_ <= limit && !at(first_free_).in_use) {
        found = first_free_++;
        path = MEMM_PATH_FIRST_FREE;
    } else if (last_used_ < normal && !at(last_used_ + 1).in_use) {
        found = last_used_ + 1;
        path = MEMM_PATH_LAST_USED;
    } else {
        int i = first_free_;
        for (; i <= limit && at(i).in_use; ++i)
            ++pool_.scan_steps;
        if (i <= limit) {
            found = i;
            first_free_ = i + 1;
            path = MEMM_PATH_SCAN;
        }
    }
    ++pool_.alloc_count[MEMM_PATH_TOTAL];
    ++pool_.alloc_count[path];
    if (found >= 0) {
        at(found) = {.in_use = true};
        raise(pool_.max_count, ++pool_.cur_count);
        raise(pool_.max_count_rel, pool_.cur_count - texts_.delcnt);
        raise(last_used_, found);
        texts_.gcrequest |= found > normal ? 1 : 0;
    }
    return found;
}

int TextPoolModel::allocate(bool with_gc)
{
    int found = take(!with_gc);
    for (unsigned attempt = 0; with_gc && found < 0 && attempt < texts_.bufcnt; ++attempt) {
        compact(kDepleted);
        found = take(false);
    }
    if (found < 0)
        deplete();
    return found;
}

void TextPoolModel::deplete()
{
    const std::string message = std::string("memm_calloc() failed for pool '") + pool_.name + "' (pool depleted)";
    pool_.flags |= 0x80000000U;
    errors += "0x10002 2 memm memmanager: " + message + "\n";
    trace += message;
}

void TextPoolModel::free_slot(int i)
{
    at(i).in_use = false;
    --pool_.cur_count;
    ++pool_.free_count;
    first_free_ = std::min(first_free_, i);
    while (last_used_ > 0 && !at(last_used_).in_use)
        --last_used_;
}

unsigned TextPoolModel::release(int i)
{
    const std::string slot = hex_address(reinterpret_cast<const char *>(handle(i)) - 4);
    Record &r = at(i);
    if (!r.in_use) {
        trace += "[MEMM] memm_free: Attempt to release invalid pointer: " + slot + " (poolid = 8388607)\r\n";
    } else if (r.refs > 0) {
        --r.refs;
        --pool_.refs;
        ++pool_.free_count;
    } else if (r.place != Place::buffer) {
        free_slot(i);
    } else if (r.deleted) {
        trace +=
            "[DYNSTR] loc_dynstr_free_ex: dynstr is already freed\r\n[MEMM] memm_free: free_ex failed for: " + slot +
            " (poolid = " + std::to_string(poolid_) + ")\r\n";
        return MEMM_E_SETUP;
    } else {
        mark_deleted(i);
    }
    return 0;
}

bool TextPoolModel::refer(int i)
{
    if (!record(i).in_use) {
        errors += "0x10002 2 memm memmanager: memm__refalloc() failed (invalid object passed)\n";
        return false;
    }
    ++at(i).refs;
    raise(pool_.max_refs, ++pool_.refs);
    return true;
}

// --- texts ---

std::string TextPoolModel::text(int i) const
{
    const Record &r = record(i);
    return r.place == Place::buffer   ? bytes_[r.buffer].substr(r.at, r.size - 1)
           : r.place == Place::caller ? std::string(r.callers)
                                      : std::string();
}

std::string TextPoolModel::getstring(int i) const
{
    return !record(i).in_use ? "*NOT_MEMMSTR*" : record(i).deleted ? "*DELETED_DYNSTR*" : text(i);
}

TextPoolModel::Source TextPoolModel::whole(int i) const
{
    return {record(i).in_use, record(i).place != Place::nowhere, text(i)};
}

void TextPoolModel::mark_deleted(int i)
{
    Record &r = at(i);
    r.deleted = true;
    texts_.delbytes += r.size;
    texts_.bufdelbytes[r.buffer] += r.size;
    ++texts_.delcnt;
    ++texts_.bufdelcnt[r.buffer];
}

void TextPoolModel::compact(unsigned reason)
{
    const unsigned b = (texts_.curbuf + 1) % texts_.bufcnt;
    std::vector<int> kept;
    std::string left;
    unsigned records = 0;
    for (const int i : lists_[b]) {
        Record &r = at(i);
        if (!r.deleted) {
            kept.push_back(i);
            left += text(i) + kZero;
            continue;
        }
        ++records;
        r.place = Place::nowhere;
        r.size = 0;
        release(i);
    }
    for (unsigned start = 0; const int i : kept)
        at(i).at = std::exchange(start, start + record(i).size);
    const unsigned bytes = texts_.used[b] - static_cast<unsigned>(left.size());
    texts_.used[b] -= bytes;
    texts_.usedbytes -= bytes;
    texts_.delbytes -= bytes;
    texts_.delcnt -= static_cast<int>(records);
    texts_.cnt[b] -= records;
    texts_.bufdelcnt[b] = texts_.bufdelbytes[b] = 0;
    raise(texts_.gcmaxcnt, records);
    raise(texts_.gcmaxbytes, bytes);
    texts_.gctotcnt += records;
    texts_.gctotbytes += bytes;
    ++texts_.gcreason[texts_.curbuf][reason];
    ++texts_.gccnt;
    texts_.gcrequest = 0;
    texts_.curbuf = b;
    left.resize(texts_.bufsize);
    bytes_[b] = left;
    lists_[b] = kept;
}

// The old text goes on under another record.
int TextPoolModel::set_aside(int d)
{
    const int stand_by = allocate(false);
    if (stand_by >= 0) {
        const unsigned refs = std::exchange(at(d).refs, 0);
        at(stand_by) = at(d);
        at(d) = {.in_use = true, .refs = refs};
        for (auto &list : lists_)
            std::replace(list.begin(), list.end(), d, stand_by);
    }
    return stand_by;
}

// The text comes with its zero; `predicted` is the size that was asked for.
unsigned TextPoolModel::place(int d, const std::string &text, std::uint64_t predicted, bool outside)
{
    if (predicted > 0x7ffffff) {
        trace += "[DYNSTR] loc_setstrsize with invalid size\r\n";
        return kNoMemory;
    }
    if (outside) {
        if (std::exchange(block_fails_, false))
            return kNoMemory;
        unsigned attempts = 0;
        do {
            if (attempts++ == texts_.bufcnt) {
                texts_.flags |= 0x40000000U;
                return kNoMemory;
            }
            compact(kBufferFull);
        } while (room() < predicted);
    }
    if (predicted != text.size())
        trace += "[DYNSTR] WARNING: loc_dynstr_updatepool fixed wrong predicted size\r\n";
    commit(d, text);
    return 0;
}

void TextPoolModel::commit(int d, const std::string &text)
{
    const unsigned b = texts_.curbuf;
    Record &r = at(d);
    r.place = Place::buffer;
    r.literal = false;
    r.buffer = b;
    r.at = texts_.used[b];
    r.size = static_cast<unsigned>(text.size());
    bytes_[b].replace(r.at, r.size, text);
    lists_[b].push_back(d);
    ++texts_.cnt[b];
    texts_.used[b] += r.size;
    texts_.usedbytes += r.size;
    raise(texts_.peakbytes, texts_.usedbytes - texts_.delbytes);
    raise(texts_.peak[b], texts_.used[b] - texts_.bufdelbytes[b]);
    if (texts_.cnt[b] > texts_.balance_limit)
        compact(kBalance);
    if (texts_.gcrequest != 0)
        compact(kDepleted);
}

unsigned TextPoolModel::finish(int d, int stand_by, unsigned code)
{
    Record &r = at(d);
    r.literal = r.place != Place::buffer;
    r.max = record(stand_by).max;
    release(stand_by);
    return code;
}

unsigned TextPoolModel::assign(int d, const Source &source, std::int64_t offset, std::int64_t length)
{
    if (!is_string(d) || !source.given || offset < 0)
        return kInvalid;
    const int stand_by = set_aside(d);
    if (stand_by < 0)
        return kNoMemory;
    const auto all = static_cast<std::int64_t>(source.text.size());
    const std::int64_t requested = length < 0 ? all - offset : length;
    if (!source.has_text || offset > all || requested < 1)
        return finish(d, stand_by, 0);
    auto size = static_cast<std::uint64_t>(requested) + 1;
    if (const unsigned max = record(stand_by).max; max != 0 && size > max)
        size = max;
    const std::string rest = source.text.substr(static_cast<std::size_t>(offset));
    const std::string text = rest.substr(0, static_cast<std::size_t>(size - 1)) + kZero;
    return finish(d, stand_by, place(d, text, size, size > room()));
}

unsigned TextPoolModel::append(int d, const std::string &text, std::int64_t count)
{
    if (!is_string(d))
        return kInvalid;
    if (text.empty() || count < 1)
        return 0;
    const Record &r = record(d);
    const std::string old = this->text(d);
    std::int64_t added = count + 1, size = static_cast<std::int64_t>(old.size()) + added;
    if (r.max != 0 && size > r.max) {
        added -= size - r.max;
        size = r.max;
    }
    const std::string all = old + text.substr(0, static_cast<std::size_t>(added - 1)) + kZero;
    auto &list = lists_[texts_.curbuf];
    const bool at_end = !list.empty() && list.back() == d;
    const bool outside = (at_end ? added - 1 : size) > room();
    if (at_end && !outside) {
        list.pop_back();
        --texts_.cnt[texts_.curbuf];
        texts_.used[texts_.curbuf] -= r.size;
        texts_.usedbytes -= r.size;
        commit(d, all);
        return 0;
    }
    const int stand_by = set_aside(d);
    if (stand_by < 0)
        return kNoMemory;
    if (outside && std::exchange(block_fails_, false)) {  // the stand-by record stays for good
        at(d).literal = true;
        at(d).max = record(stand_by).max;
        return kNoMemory;
    }
    return finish(d, stand_by, place(d, all, all.size(), outside));
}

unsigned TextPoolModel::print(int d, const std::string &text)
{
    const int stand_by = set_aside(d);
    if (stand_by < 0)
        return kNoMemory;
    const unsigned max = record(stand_by).max;
    const std::string cut = (max == 0 ? text : text.substr(0, max - 1)) + kZero;
    return finish(d, stand_by, place(d, cut, cut.size(), cut.size() > room()));
}

unsigned TextPoolModel::limit(int d, unsigned max)
{
    if (max != 0 && max < record(d).size) {
        if (const unsigned code = assign(d, whole(d), 0, static_cast<int>(max) - 1); code != 0)
            return code;
    }
    at(d).max = max < 2048 ? max : 0;
    return 0;
}

unsigned TextPoolModel::reset(int d)
{
    const unsigned code = assign(d, {true, false}, 0, -1);
    at(d).max = code == 0 ? 0 : record(d).max;
    return code;
}

int TextPoolModel::create_empty(unsigned max)
{
    const int d = allocate(true);
    if (d >= 0)
        at(d).max = max < 2048 ? max : 0;
    return d;
}

int TextPoolModel::give_back_unless(unsigned code, int d)
{
    if (d >= 0 && code != 0) {
        release(d);
        return -1;
    }
    return d;
}

int TextPoolModel::create(bool with_gc, const Source &source, std::int64_t offset, std::int64_t length)
{
    const int d = allocate(with_gc);
    return give_back_unless(d < 0 ? 0 : assign(d, source, offset, length), d);
}

int TextPoolModel::create_printed(const std::string &text)
{
    const int d = allocate(false);
    return give_back_unless(d < 0 ? 0 : print(d, text), d);
}

int TextPoolModel::create_literal(const char *text)
{
    const int d = allocate(true);
    if (d >= 0) {
        Record &r = at(d);
        r.place = Place::caller;
        r.literal = true;
        r.callers = text;
        r.size = static_cast<unsigned>(std::strlen(text) + 1);
    }
    return d;
}

// --- comparison ---

std::string TextPoolModel::records_difference() const
{
    for (int i = 0; i < slots(); ++i) {
        const Record &r = record(i);
        const dynstr &real = *handle(i);
        const bool in_buffer = r.place == Place::buffer;
        const unsigned header = r.in_use ? static_cast<unsigned>(poolid_) | r.refs << 24 : 0xffffffffU;
        const unsigned info = (r.literal ? 1U << 31 : 0) | (r.deleted ? 1U << 30 : 0) |
                              (in_buffer ? r.buffer << 27 : 0) | r.max << 16 | r.size;
        const unsigned mask = in_buffer ? ~0U : ~(3U << 27);
        const char *str = in_buffer ? texts_.buf[r.buffer] + r.at : r.callers;
        if (reinterpret_cast<const unsigned *>(&real)[-1] != header ||
            (r.in_use && ((real.info & mask) != info || real.str != str)))
            return "record " + std::to_string(i) + " '" + getstring(i) + "'";
    }
    return "";
}

std::string TextPoolModel::difference() const
{
    memm_pool pool = pool_;
    pool.first_free = pool.slots + static_cast<std::size_t>(first_free_) * pool.slot_size;
    pool.last_used = pool.slots + static_cast<std::size_t>(last_used_) * pool.slot_size;
    auto texts = texts_;
    for (unsigned b = 0; b < texts.bufcnt; ++b) {
        const std::vector<int> &list = lists_[b];
        texts.first[b] = handle(list.empty() ? -1 : list.front());
        texts.last[b] = handle(list.empty() ? -1 : list.back());
        const auto deleted = std::find_if(list.begin(), list.end(), [this](int i) { return record(i).deleted; });
        texts.firstdel[b] = handle(deleted == list.end() ? -1 : *deleted);
        for (std::size_t i = 0; i < list.size(); ++i) {
            const dynstr &real = *handle(list[i]);
            if (real.prev != handle(i == 0 ? -1 : list[i - 1]) ||
                real.next != handle(i + 1 == list.size() ? -1 : list[i + 1]))
                return "record " + std::to_string(list[i]) + ": neighbours";
        }
        if (std::memcmp(texts.buf[b], bytes_[b].data(), texts.bufsize) != 0)
            return "bytes of buffer " + std::to_string(b);
    }
    const auto id = static_cast<unsigned>(poolid_);
    std::string found = words_differ("descriptor", pool, *memm_get_pool_nolock(id));
    found += words_differ("control block", texts,
                          *static_cast<const memm::strings::TextPool *>(memm_getpoolcookie_bypoolid(id)));
    return found + records_difference();
}

// --- the trial ---

unsigned TextPoolTrial::next()
{
    if (bytes_.empty())
        return 0;
    const unsigned byte = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return byte;
}

// Mostly a slot in use; of these the deleted and the forgotten ones too.
int TextPoolTrial::pick()
{
    const unsigned byte = next();
    int i = static_cast<int>(byte % 64) % model_.slots();
    for (int steps = 0; byte < 240 && steps < model_.slots() && !model_.record(i).in_use; ++steps)
        i = (i + 1) % model_.slots();
    return i;
}

// A text of the caller's, of one of the strings, or none.
TextPoolTrial::Input TextPoolTrial::input()
{
    const unsigned byte = next();
    if (byte == 255)
        return {{}, nullptr};
    if (byte >= 200) {
        const int i = pick();
        const std::string text = model_.getstring(i);
        const std::size_t offset = byte < 230 ? 0 : next() % (text.size() + 1);
        return {{true, offset < text.size(), text.substr(offset)}, dynstr_getstring_nolock(model_.handle(i)) + offset};
    }
    const std::size_t length = byte < 190 ? byte % 24 : next() % (model_.counters().bufsize + 4);
    given_.clear();
    while (given_.size() < length) {
        given_ += letter_;
        letter_ = letter_ == 'z' ? 'a' : static_cast<char>(letter_ + 1);
    }
    return {{true, length > 0, given_}, given_.c_str()};
}

int TextPoolTrial::number()
{
    const unsigned byte = next();
    return byte < 230 ? static_cast<int>(byte % 24) - 1 : byte < 250 ? static_cast<int>(byte) * 300 : INT_MAX;
}

void TextPoolTrial::expect(bool holds, const char *what)
{
    if (!holds && found_.empty())
        found_ = what;
}

void TextPoolTrial::reported(bool really, const char *function, const char *message)
{
    if (really)
        model_.trace += std::string("[DYNSTR] ") + function + message + "\r\n";
}

// Every operation reads the same arguments, whether it needs them or not.
void TextPoolTrial::call(unsigned operation)
{
    static const char *const kLiterals[] = {"", "x", "a literal", "a literal longer than some buffers"};
    const int d = pick(), s = pick(), offset = number(), length = number();
    const unsigned max = next() < 200 ? next() % 40 : 1900 + next();
    const Input in = input();
    const char *const literal = kLiterals[static_cast<std::size_t>(s) % 4], *const printed =
                                                                                in.pointer == nullptr ? "" : in.pointer;
    dynstr *const to = model_.handle(d), *const from = model_.handle(s);
    const bool good = model_.is_string(d), good_source = model_.is_string(s);
    const auto size = static_cast<int>(in.source.text.size());
    switch (operation) {
    case 0:
    case 1:
        return same(dynstr_setstring(to, in.pointer), model_.assign(d, in.source, 0, -1));
    case 2:
        return same(dynstr_setstring_nolock(to, in.pointer), model_.assign(d, in.source, 0, -1));
    case 3:
        return same(dynstr_setdynstr(to, from), model_.assign(d, model_.whole(s), 0, -1));
    case 4:
        reported(offset >= 0 && !good, "dynstr_setsubstring", ": invalid dynstring passed");
        return same(dynstr_setsubstring(to, in.pointer, offset, length), model_.assign(d, in.source, offset, length));
    case 5:
        reported(offset >= 0 && !(good && good_source), "dynstr_setsubdynstr", ": invalid dynstring passed");
        return same(dynstr_setsubdynstr(to, from, offset, length),
                    good_source ? model_.assign(d, model_.whole(s), offset, length) : kInvalid);
    case 6:
    case 7:
        return same(dynstr_addstring(to, in.pointer),
                    in.source.given ? model_.append(d, in.source.text, size) : kInvalid);
    case 8:
    case 9:
        return same(dynstr_addstring_size(to, in.pointer, length), model_.append(d, in.source.text, length));
    case 10:
        reported(!good, "\"dynstr_setmaxsize() invalid param\"");
        return same(dynstr_setmaxsize(to, max), good ? model_.limit(d, max) : kInvalid);
    case 11:
        reported(!good, "\"dynstr_reset() invalid param\"");
        return same(dynstr_reset(to), good ? model_.reset(d) : kInvalid);
    case 12:
        reported(!good, "dynstr_sprintf: invalid dynstr passed");
        return same(dynstr_sprintf(to, "%s", printed), good ? model_.print(d, in.source.text) : kInvalid);
    case 13:
        if (max >= 40 && model_.record(d).refs < 200)
            expect((dynstr_refalloc(to) == to) == model_.refer(d), "dynstr_refalloc");
        return;
    case 14:
        if (platform_.fail_next_outside_block != nullptr) {
            platform_.fail_next_outside_block();
            model_.next_outside_block_fails();
        }
        return;
    case 15:
        return same(dynstr_calloc_maxsize(poolid_, max), model_.create_empty(max));
    case 16:
        return same(dynstr_fromliteral(poolid_, literal), model_.create_literal(literal));
    case 17:
        reported(!good_source, "dynstr_fromdynstr_nolock", ": invalid dynstring passed");
        return same(dynstr_fromdynstr(from), good_source ? model_.create(true, model_.whole(s), 0, -1) : -1);
    case 18:
        reported(!good_source, "dynstr_fromsubdynstr_nolock", ": invalid poolid passed");
        return same(dynstr_fromsubdynstr(from, offset, length),
                    good_source ? model_.create(true, model_.whole(s), offset, length) : -1);
    case 19:
        return same(dynstr_fromsubstring(poolid_, in.pointer, offset, length),
                    model_.create(false, in.source, offset, length));
    case 20:
        return same(dynstr_fromprintf(poolid_, "%s", printed), model_.create_printed(in.source.text));
    case 21:
    case 22:
        return same(dynstr_fromstring(poolid_, in.pointer), model_.create(false, in.source, 0, -1));
    case 23:
    case 24: {
        const std::string text = model_.getstring(d);
        expect(dynstr_getstring(to) == text && dynstr_strcmp2(to, text.c_str()) == 0, "dynstr_getstring");
        expect((dynstr_strcmp(to, from) == 0) == (text == model_.getstring(s)), "dynstr_strcmp");
        expect(!good || dynstr_strlen(to) == text.size(), "dynstr_strlen");
        reported(!good, "\"dynstr_getmaxsize() invalid param\"");
        expect(dynstr_getmaxsize(to) == (good ? model_.record(d).max : 0), "dynstr_getmaxsize");
        return expect(dynstr_integrity_check(poolid_, 0) == 1, "dynstr_integrity_check");
    }
    default:
        return same(static_cast<unsigned>(memm_free(to)), model_.release(d));
    }
}

std::string TextPoolTrial::run(std::span<const unsigned char> bytes)
{
    bytes_ = bytes;
    found_.clear();
    while (!bytes_.empty() && found_.empty()) {
        const unsigned operation = next() % 32;
        call(operation);
        std::string trace = model_.trace, errors = model_.errors;
        if (platform_.take_reports != nullptr)
            platform_.take_reports(trace, errors);
        expect(trace == model_.trace && errors == model_.errors, "reports");
        const std::string difference = model_.difference();
        expect(difference.empty(), "state");
        if (!found_.empty()) {
            found_ = "operation " + std::to_string(operation) + ": " + found_ + ": " + difference +
                     "\nexpected: " + model_.trace + model_.errors + "\nreported: " + trace + errors;
        }
        model_.trace.clear();
        model_.errors.clear();
        ++operations_;
    }
    return found_;
}
