#pragma once

#include "dynstring/text_pool.h"

#include <memmanager/dynstring.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// A string pool kept in the plainest way: a list of record numbers and a byte string for each buffer, slots searched
// one by one, nothing cached. It foretells every result, every word of the pool's descriptor and control block, every
// record and every byte of the buffers. Texts of the long form are not its business.
class TextPoolModel {
public:
    enum class Place { nowhere, buffer, caller };

    struct Record {
        bool in_use = false;
        unsigned refs = 0;  // beyond the first
        bool literal = false, deleted = false;
        unsigned size = 0, max = 0;
        Place place = Place::nowhere;
        unsigned buffer = 0, at = 0;    // Place::buffer
        const char *callers = nullptr;  // Place::caller
    };

    // What a text is made from: nothing at all, a record without a text or an empty text from outside, a text.
    struct Source {
        bool given = false, has_text = false;
        std::string text{};
    };

    explicit TextPoolModel(int poolid);

    int slots() const { return static_cast<int>(records_.size()); }
    const Record &record(int i) const { return records_[static_cast<std::size_t>(i)]; }
    bool is_string(int i) const { return record(i).in_use && !record(i).deleted; }
    std::string text(int i) const;       // what lies there, of deleted records too
    std::string getstring(int i) const;  // with the texts that stand for others
    Source whole(int i) const;
    dynstr *handle(int i) const;  // null below 0
    const memm::strings::TextPool &counters() const { return texts_; }
    const memm_pool &descriptor() const { return pool_; }

    // --- operations; those that make a record answer its number or -1 ---
    unsigned assign(int d, const Source &source, std::int64_t offset, std::int64_t length);
    unsigned append(int d, const std::string &text, std::int64_t count);
    unsigned print(int d, const std::string &text);
    unsigned limit(int d, unsigned max);
    unsigned reset(int d);
    int create_empty(unsigned max);
    int create(bool with_gc, const Source &source, std::int64_t offset, std::int64_t length);
    int create_printed(const std::string &text);
    int create_literal(const char *text);
    unsigned release(int i);
    bool refer(int i);
    void next_outside_block_fails() { block_fails_ = true; }

    // --- what the library reported meanwhile ---
    std::string trace, errors;

    // Empty when the library's pool is as foretold.
    std::string difference() const;

private:
    Record &at(int i) { return records_[static_cast<std::size_t>(i)]; }
    unsigned room() const { return texts_.bufsize - texts_.used[texts_.curbuf]; }
    int take(bool reserve);
    int allocate(bool with_gc);
    void free_slot(int i);
    void deplete();
    void compact(unsigned reason);
    int set_aside(int d);
    unsigned place(int d, const std::string &text, std::uint64_t predicted, bool outside);
    void commit(int d, const std::string &text);
    unsigned finish(int d, int stand_by, unsigned code);
    void mark_deleted(int i);
    int give_back_unless(unsigned code, int d);
    std::string records_difference() const;

    memm_pool pool_;
    memm::strings::TextPool texts_;
    const int poolid_;
    int first_free_ = 0, last_used_ = -1;
    std::vector<Record> records_;
    std::vector<int> lists_[4];
    std::string bytes_[4];
    bool block_fails_ = false;
};

// Turns bytes into calls and holds library and model against each other after each. A stream may be anything; the next
// one goes on where the last one ended.
class TextPoolTrial {
public:
    // What a program that runs trials tells about its platform; null: no failures, no comparison.
    struct Platform {
        void (*fail_next_outside_block)() = nullptr;
        void (*take_reports)(std::string &trace, std::string &errors) = nullptr;
    };

    TextPoolTrial(int poolid, Platform platform)
        : model_(poolid), poolid_(static_cast<unsigned>(poolid)), platform_(platform)
    {
    }

    // Empty, or the first difference.
    std::string run(std::span<const unsigned char> bytes);

    const TextPoolModel &model() const { return model_; }
    int operations() const { return operations_; }

private:
    struct Input {
        TextPoolModel::Source source;
        const char *pointer;
    };

    unsigned next();
    int pick();
    Input input();
    int number();
    void call(unsigned operation);
    void expect(bool holds, const char *what);
    void same(unsigned result, unsigned expected) { expect(result == expected, "result"); }
    void same(const dynstr *result, int expected) { expect(result == model_.handle(expected), "new record"); }
    void reported(bool really, const char *function, const char *message = "");

    TextPoolModel model_;
    unsigned poolid_;
    Platform platform_;
    std::span<const unsigned char> bytes_;
    int operations_ = 0;
    std::string given_, found_;
    char letter_ = 'a';
};
