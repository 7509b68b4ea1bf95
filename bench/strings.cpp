// What does a string of a pool cost beside the usual strings: time, memory, and the longest wait for a compaction?
#include "support.h"

#include <memmanager/dynstring.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <fstream>
#include <memory>
#include <memory_resource>
#include <span>
#include <type_traits>

#include <malloc.h>
#include <unistd.h>

#if __has_include(<absl/strings/str_format.h>)
#include <absl/strings/str_cat.h>
#include <absl/strings/str_format.h>
#define BENCH_HAS_ABSEIL 1
#endif

namespace {

using namespace bench;

constexpr std::size_t kShortest = 8, kLongest = 200;
constexpr unsigned kPoolBytes = 1U << 20;

std::vector<std::string> make_texts(std::size_t count)
{
    Random random(7);
    std::vector<std::string> texts(count);
    for (std::string &text : texts) {
        text.resize(kShortest + random.below(kLongest - kShortest + 1));
        for (char &c : text) {
            c = static_cast<char>('!' + random.below('~' - '!'));
        }
    }
    return texts;
}
const std::vector<std::string> texts = make_texts(1024);

const std::string &pick(Random &random) { return texts[random.below(texts.size())]; }

// The goals are those of a process with one thread: most of the rivals take no lock, so with a second thread the two
// locks of a pair are published, not judged.
void set_string_goals(const std::string &job, std::initializer_list<Goal> goals)
{
    if (!second_thread) {
        set_goals(job, goals);
    }
}

// ---- rivals: create a string from a text, give it back ----

unsigned string_pool(const char *name, std::size_t count, unsigned bytes = kPoolBytes, int buffers = 4)
{
    const int id = dynstr_initpool2(name, static_cast<int>(count), bytes, buffers);
    if (id < 0) {
        std::fprintf(stderr, "bench: no string pool\n");
        std::exit(1);
    }
    return static_cast<unsigned>(id);
}

// Records for a full pool of short texts; the reserve of a pool that is churned.
constexpr std::size_t kRecords = 10'500;

unsigned common_pool()
{
    static const unsigned id = string_pool("bench", kRecords);
    return id;
}

struct Ours {
    static constexpr const char *kName = "ours";
    static bool is_there() { return true; }
    using String = dynstr *;
    unsigned id;
    explicit Ours(unsigned pool = common_pool()) : id(pool) {}
    String create(const char *text) { return dynstr_fromstring(id, text); }
    void release(String string) { memm_free(string); }
};

struct Strdup {
    static constexpr const char *kName = "strdup";
    static bool is_there() { return true; }
    using String = char *;
    String create(const char *text) { return strdup(text); }
    void release(String string) { std::free(string); }
};

struct StdString {
    static constexpr const char *kName = "std::string";
    static bool is_there() { return true; }
    using String = std::string *;
    String create(const char *text) { return new std::string(text); }
    void release(String string) { delete string; }
};

struct GStrings {
    static constexpr const char *kName = "GString";
    static bool is_there() { return static_cast<bool>(glib.library); }
    using String = GString *;
    String create(const char *text) { return glib.string_new(text); }
    void release(String string) { glib.string_free(string, 1); }
};

struct TallocStrings {
    static constexpr const char *kName = "talloc";
    static bool is_there() { return static_cast<bool>(talloc.library); }
    using String = char *;
    void *context = talloc.new_context();
    TallocStrings() = default;
    TallocStrings(const TallocStrings &) = delete;
    ~TallocStrings() { talloc.free(context, __FILE__); }
    String create(const char *text) { return talloc.strdup(context, text); }
    void release(String string) { talloc.free(string, __FILE__); }
};

// Safe for several threads, as all the others are.
struct PmrStrings {
    static constexpr const char *kName = "pmr";
    static bool is_there() { return true; }
    using String = std::pmr::string *;
    std::unique_ptr<std::pmr::synchronized_pool_resource> resource =
        std::make_unique<std::pmr::synchronized_pool_resource>();
    std::pmr::polymorphic_allocator<> allocator{resource.get()};
    String create(const char *text) { return allocator.new_object<std::pmr::string>(text); }
    void release(String string) { allocator.delete_object(string); }
};

// The text is measured and copied once, to where the last one ended; nothing is ever given back.
struct BumpCopy {
    static constexpr const char *kName = kMinimum;
    static bool is_there() { return true; }
    using String = char *;
    std::vector<char> room;
    std::size_t used = 0;
    explicit BumpCopy(std::size_t bytes = kPoolBytes) : room(bytes) {}
    String create(const char *text)
    {
        const std::size_t size = std::strlen(text) + 1;
        if (room.size() - used < size) {
            used = 0;
        }
        char *const place = room.data() + std::exchange(used, used + size);
        std::memcpy(place, text, size);
        return place;
    }
    void release(String) {}
};

template <class Visit> void for_each_rival(Visit visit)
{
    visit.template operator()<Ours>();
    visit.template operator()<Strdup>();
    visit.template operator()<StdString>();
    visit.template operator()<GStrings>();
    visit.template operator()<TallocStrings>();
    visit.template operator()<PmrStrings>();
    visit.template operator()<BumpCopy>();
}

// ---- create + release, churn ----

constexpr std::uint64_t kLiveSeed = 11;

constexpr std::size_t part_of_pool(std::size_t percent) { return kPoolBytes / 100 * percent; }

// As many strings as fill so many bytes, and a random one of them replaced at each step.
template <class Rival> class Live {
    Rival &rival_;
    Random random_{kLiveSeed};
    std::vector<typename Rival::String> strings_;

public:
    Live(Rival &rival, std::size_t bytes) : rival_(rival)
    {
        strings_.reserve(std::max(2 * kRecords, bytes / kShortest));
        for (std::size_t used = 0;;) {
            const std::string &text = pick(random_);
            used += text.size() + 1;
            if (used > bytes) {
                break;
            }
            const auto string = rival_.create(text.c_str());
            if (string == nullptr) {
                break;  // the ends of the buffers are too short for it
            }
            strings_.push_back(string);
        }
    }
    Live(const Live &) = delete;
    ~Live()
    {
        for (auto string : strings_) {
            rival_.release(string);
        }
    }
    std::size_t count() const { return strings_.size(); }

    bool step()
    {
        auto &string = strings_[random_.below(strings_.size())];
        rival_.release(string);
        string = rival_.create(pick(random_).c_str());
        return string != nullptr;
    }
};

void add_pairs()
{
    const std::string job = job_name("create + release");
    set_string_goals(job, {{"strdup", 2.5}, {"std::string", 1.7}});
    for_each_rival([&]<class Rival>() {
        if (Rival::is_there()) {
            add(job, Rival::kName, 200'000, [](benchmark::State &state) {
                Rival rival;
                Random random(5);
                for (auto _ : state) {
                    auto string = rival.create(pick(random).c_str());
                    benchmark::DoNotOptimize(string);
                    rival.release(string);
                }
            });
        }
    });
}

template <class Rival> void churn(benchmark::State &state, Rival &rival, std::size_t bytes)
{
    Live<Rival> live(rival, bytes);
    bool ok = true;
    for (auto _ : state) {
        ok = live.step() && ok;
    }
    if (!ok) {
        state.SkipWithError("a string found no room");
    }
}

void add_churn(std::size_t percent, double goal)
{
    const std::string job = job_name("churn, " + std::to_string(percent) + " % of the bytes live");
    set_string_goals(job, {{"std::string", goal}});
    for_each_rival([&]<class Rival>() {
        if (Rival::is_there()) {
            add(job, Rival::kName, 200'000, [percent](benchmark::State &state) {
                Rival rival;
                churn(state, rival, part_of_pool(percent));
            });
        }
    });
}

// ---- how the cost grows with the number of strings ----

constexpr std::size_t kAverage = (kShortest + kLongest) / 2 + 1;  // bytes of a text and its terminator

// Room for twice as many texts as are to live. Records that were released come back with a compaction.
template <class Rival> std::unique_ptr<Rival> make_roomy(std::size_t count)
{
    const std::size_t bytes = 2 * count * kAverage;
    if constexpr (std::is_same_v<Rival, Ours>) {
        static std::map<std::size_t, unsigned> pools;
        const auto [place, is_new] = pools.try_emplace(count, 0);
        if (is_new) {
            place->second = string_pool("", 2 * count + count / 2, static_cast<unsigned>(bytes));
        }
        return std::make_unique<Ours>(place->second);
    } else if constexpr (std::is_same_v<Rival, BumpCopy>) {
        return std::make_unique<BumpCopy>(bytes);
    } else {
        return std::make_unique<Rival>();
    }
}

template <class Rival> void add_growth(std::size_t count)
{
    const auto batch = static_cast<std::int64_t>(count);
    add(sized_job("string churn, 50 % of the bytes live", count, "records"), Rival::kName,
        std::max<std::int64_t>(2 * batch, 200'000),
        [count](benchmark::State &state) { churn(state, *make_roomy<Rival>(count), count * kAverage); });
    add(sized_job("strings created, then released, per string", count, "records"), Rival::kName,
        std::max<std::int64_t>(200'000 / batch, 1) * batch, [=](benchmark::State &state) {
            const auto rival = make_roomy<Rival>(count);
            std::vector<typename Rival::String> strings(count);
            Random random(5);
            while (state.KeepRunningBatch(batch)) {
                for (auto &string : strings) {
                    string = rival->create(pick(random).c_str());
                }
                for (const auto string : strings) {
                    rival->release(string);
                }
            }
        });
}

void register_growth()
{
    for (const std::size_t count : {1'000U, 100'000U, 1'000'000U}) {
        add_growth<Ours>(count);
        add_growth<Strdup>(count);
        add_growth<StdString>(count);
        add_growth<BumpCopy>(count);
    }
}

// ---- memory, each rival in a process of its own ----

// Bytes of this process's own pages that lie in memory.
double resident_bytes()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.starts_with("Anonymous:")) {
            return 1024.0 * std::atof(line.c_str() + std::strlen("Anonymous:"));
        }
    }
    std::fprintf(stderr, "bench: the kernel does not tell what is resident\n");
    std::exit(1);
}

// As Live does it. Without churn a pool needs no more records than strings.
std::size_t filled_count(std::size_t percent)
{
    Random random(kLiveSeed);
    std::size_t count = 0;
    for (std::size_t bytes = 0; bytes <= part_of_pool(percent); count++) {
        bytes += pick(random).size() + 1;
    }
    return count;
}

constexpr long kWarmUp = 1'000'000, kSteps = 10'000'000;

template <class Rival> std::unique_ptr<Rival> make_rival([[maybe_unused]] std::size_t records)
{
    if constexpr (std::is_same_v<Rival, Ours>) {
        return std::make_unique<Ours>(string_pool("footprint", records));
    } else {
        return std::make_unique<Rival>();
    }
}

template <class Rival> void print_footprint(std::size_t percent, bool churned)
{
    const std::size_t records = churned ? kRecords : filled_count(percent);
    malloc_trim(0);  // what is free on the heap would serve the first strings
    const double before = resident_bytes();
    const auto rival = make_rival<Rival>(records);
    Live<Rival> live(*rival, part_of_pool(percent));
    double after = resident_bytes(), warm = after;
    for (long i = 0; churned && i < kWarmUp + kSteps; i++) {
        if (i == kWarmUp) {
            warm = resident_bytes();
        }
        live.step();
    }
    after = resident_bytes();
    const double handle = sizeof(typename Rival::String);
    std::printf("%f %f\n", (after - before) / static_cast<double>(live.count()) - handle, after - warm);
}

struct Footprint {
    double bytes_per_string, growth;
};

Footprint measure_footprint(const char *rival, std::size_t percent, bool churned)
{
    std::array<char, 4096> self{};
    if (readlink("/proc/self/exe", self.data(), self.size() - 1) < 0) {
        return {};
    }
    const std::string command = "'" + std::string(self.data()) + "' --footprint " + rival + " " +
                                std::to_string(percent) + (churned ? " churned" : " filled");
    Footprint result{};
    FILE *const output = popen(command.c_str(), "r");
    if (output == nullptr || std::fscanf(output, "%lf %lf", &result.bytes_per_string, &result.growth) != 2) {
        std::fprintf(stderr, "bench: no result from %s\n", command.c_str());
    }
    pclose(output);
    return result;
}

template <class Rival> void add_footprint(const std::string &job, bool churned, double Footprint::*value)
{
    add(job, Rival::kName, 1, [churned, value](benchmark::State &state) {
        static std::array<Footprint, 2> known{};  // filled, churned: one run answers both questions
        Footprint &footprint = known[churned ? 1 : 0];
        for (auto _ : state) {
            if (footprint.bytes_per_string == 0) {
                footprint = measure_footprint(Rival::kName, churned ? 90 : 100, churned);
            }
        }
        state.counters["value"] = footprint.*value;
    })->Repetitions(1);
}

void add_footprints()
{
    const std::string filled = "bytes per live string, filled once",
                      churned = "bytes per live string, after churn at 90 %", growth = "growth over 10,000,000 steps";
    set_string_goals(filled, {{"std::string", 0.85}, {"talloc", 0.7}});
    set_string_goals(growth, {{"one page", 1}});
    add(growth, "one page", 1, [](benchmark::State &state) {
        for (auto _ : state) {
        }
        state.counters["value"] = 4096;
    })->Repetitions(1);
    for_each_rival([&]<class Rival>() {
        if (Rival::is_there()) {
            add_footprint<Rival>(filled, false, &Footprint::bytes_per_string);
            add_footprint<Rival>(churned, true, &Footprint::bytes_per_string);
            add_footprint<Rival>(growth, true, &Footprint::growth);
        }
    });
}

// ---- how long one compaction holds the lock ----

constexpr unsigned kBufferBytes = 256 * 1024;
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Compactions are rare: what they touch may be in the processor's caches still, or it may not.
void empty_caches()
{
    static std::vector<char> other(64U << 20, 1);
    for (std::size_t i = 0; i < other.size(); i += 64) {
        other[i]++;
    }
    benchmark::ClobberMemory();
}

// One buffer, filled until the longest text does not fit; `goes` says which texts are released. The text that does not
// fit then starts the compaction: the call that creates it is timed, and the rest of that call is short.
class OneBuffer {
    unsigned id_ = string_pool("one buffer", 8000, kBufferBytes, 1);
    const memm_pool *pool_ = memm_get_pool_nolock(id_);
    int empty_count_ = pool_->cur_count;
    std::string longest_ = std::string(kLongest, 'x');
    std::vector<dynstr *> strings_;

    dynstr *create_longest() { return dynstr_fromstring(id_, longest_.c_str()); }

public:
    void fill(Random &random)
    {
        dynstr *first = nullptr;
        do {  // until a compaction has taken what was there before
            memm_free(first);
            first = create_longest();
        } while (pool_->cur_count > empty_count_ + 1);
        strings_.assign(1, first);
        for (std::size_t used = longest_.size() + 1;;) {
            const std::string &text = pick(random);
            used += text.size() + 1;
            if (used > kBufferBytes - kShortest) {
                break;
            }
            strings_.push_back(dynstr_fromstring(id_, text.c_str()));
        }
    }

    template <class Goes> void release(Goes goes)
    {
        for (std::size_t i = 0; i < strings_.size(); i++) {
            if (goes(i)) {
                memm_free(std::exchange(strings_[i], nullptr));
            }
        }
    }

    // False when there was none.
    bool compact(double &seconds)
    {
        const Clock::time_point start = Clock::now();
        dynstr *const last = create_longest();
        seconds = seconds_since(start);
        const auto gone = std::count(strings_.begin(), strings_.end(), nullptr);
        const auto live = static_cast<std::ptrdiff_t>(strings_.size()) - gone;
        const bool was_compacted = last != nullptr && pool_->cur_count == empty_count_ + live + 1;
        memm_free(last);
        return was_compacted;
    }
};

OneBuffer &one_buffer()
{
    static OneBuffer buffer;
    return buffer;
}

template <class Goes> void compaction(benchmark::State &state, bool cold, Goes goes)
{
    OneBuffer &buffer = one_buffer();
    Random random(3);
    for (auto _ : state) {
        buffer.fill(random);
        buffer.release(goes);
        if (cold) {
            empty_caches();
        }
        double seconds = 0;
        if (!buffer.compact(seconds)) {
            state.SkipWithError("that was no compaction");
        }
        state.SetIterationTime(seconds);
        buffer.release([](std::size_t) { return true; });
    }
}

// The least that must be done: every byte is moved and looked at; as one text, or as texts of the usual lengths.
void move_and_look(benchmark::State &state, bool cold, bool one_text)
{
    std::vector<char> buffer(kBufferBytes);
    for (auto _ : state) {
        std::memset(buffer.data(), 'x', buffer.size() - 1);
        Random random(3);
        for (std::size_t end = pick(random).size(); !one_text && end < buffer.size(); end += pick(random).size() + 1) {
            buffer[end] = '\0';
        }
        if (cold) {
            empty_caches();
        }
        const Clock::time_point start = Clock::now();
        std::memmove(buffer.data(), buffer.data() + kLongest + 1, buffer.size() - kLongest - 1);
        benchmark::ClobberMemory();
        for (std::size_t length = 0; length < buffer.size();) {
            length += std::strlen(buffer.data() + length) + 1;
            benchmark::DoNotOptimize(length);
        }
        state.SetIterationTime(seconds_since(start));
    }
}

template <class Goes> void add_compaction(const char *released, bool cold, Goes goes)
{
    constexpr int kTimes = 51;
    const std::string job =
        job_name(std::string("compaction of 256 KB, ") + released + " released" + (cold ? ", caches empty" : ""));
    set_string_goals(job, {{kMinimum, 3.0}});
    add(job, "ours", 1, [=](benchmark::State &state) { compaction(state, cold, goes); })
        ->UseManualTime()
        ->Repetitions(kTimes);
    add(job, kMinimum, 1, [=](benchmark::State &state) { move_and_look(state, cold, true); })
        ->UseManualTime()
        ->Repetitions(kTimes);
    add(job, "minimum, each text", 1, [=](benchmark::State &state) { move_and_look(state, cold, false); })
        ->UseManualTime()
        ->Repetitions(kTimes);
}

void add_compactions()
{
    for (const bool cold : {false, true}) {
        add_compaction("the first text", cold, [](std::size_t i) { return i == 0; });
        add_compaction("every 10th text", cold, [](std::size_t i) { return i % 10 == 0; });
        add_compaction("every 2nd text", cold, [](std::size_t i) { return i % 2 == 0; });
        add_compaction("9 of 10 texts", cold, [](std::size_t i) { return i % 10 != 9; });
    }
}

// ---- operations ----

template <class Work> void add_work(const std::string &job, const char *rival, std::int64_t steps, Work work)
{
    add(job, rival, steps, [work](benchmark::State &state) {
        for (auto _ : state) {
            work();
        }
    });
}

// A new string, 256 times 16 bytes appended, released.
void add_append()
{
    static constexpr const char *kPart = "sixteen bytes...";
    constexpr int kParts = 256, kTexts = 1'000;
    const std::string job = job_name("256 times 16 bytes appended");
    set_string_goals(job, {{"g_string_append", 1.3}});
    add_work(job, "ours", kTexts, [] {
        dynstr *const string = dynstr_fromstring(common_pool(), kPart);
        for (int i = 0; i < kParts; i++) {
            dynstr_addstring(string, kPart);
        }
        memm_free(string);
    });
    if (glib.library) {
        add_work(job, "g_string_append", kTexts, [] {
            GString *const string = glib.string_new(kPart);
            for (int i = 0; i < kParts; i++) {
                glib.string_append(string, kPart);
            }
            glib.string_free(string, 1);
        });
    }
    add_work(job, "std::string", kTexts, [] {
        std::string string(kPart);
        for (int i = 0; i < kParts; i++) {
            string.append(kPart);
            benchmark::DoNotOptimize(string.data());
        }
    });
    if (talloc.library) {
        add_work(job, "talloc", kTexts, [] {
            char *string = talloc.strdup(nullptr, kPart);
            for (int i = 0; i < kParts; i++) {
                string = talloc.strdup_append(string, kPart);
            }
            talloc.free(string, __FILE__);
        });
    }
    add_work(job, kMinimum, kTexts, [] {
        static std::array<char, (kParts + 1) * 16 + 1> room;
        char *end = room.data();
        for (int i = 0; i <= kParts; i++) {
            const std::size_t length = std::strlen(kPart);
            std::memcpy(end, kPart, length + 1);
            end += length;
            benchmark::ClobberMemory();
        }
    });
}

// Digits straight into a buffer.
char *put(char *at, const char *text)
{
    const std::size_t length = std::strlen(text);
    std::memcpy(at, text, length);
    return at + length;
}

char *write_number(char *at, unsigned value, int base = 10) { return std::to_chars(at, at + 16, value, base).ptr; }

char *write_formatted(int value)
{
    static std::array<char, 64> room;
    char *at = write_number(put(put(room.data(), "task"), "["), static_cast<unsigned>(value));
    at = write_number(put(at, "]: state 0x00"), static_cast<unsigned>(value), 16);  // six digits of eight
    *at = '\0';
    return room.data();
}

char *write_plain_number(int value)
{
    static std::array<char, 16> room;
    *write_number(room.data(), static_cast<unsigned>(value)) = '\0';
    return room.data();
}

// The same work, `make` being the printf-like maker of a text and `drop` what gives it back.
template <class Make, class Drop> void add_formatted(const std::string &job, const char *rival, Make make, Drop drop)
{
    add(job, rival, 100'000, [make, drop](benchmark::State &state) {
        int value = 1'000'000;
        for (auto _ : state) {
            auto *const text = make(value++);
            benchmark::DoNotOptimize(text);
            drop(text);
        }
    });
}

void add_formatted_texts()
{
    static constexpr char kFormat[] = "%s[%d]: state 0x%08x";
    const std::string formatted = job_name("formatted text created + released");
    set_string_goals(formatted, {{"g_strdup_printf", 1.0}});
    const auto drop_ours = [](dynstr *text) { memm_free(text); };
    add_formatted(
        formatted, "ours", [](int value) { return dynstr_fromprintf(common_pool(), kFormat, "task", value, value); },
        drop_ours);

    const std::string number = job_name("number text created + released");
    set_string_goals(number, {{"g_strdup_printf", 0.9}});
    add_formatted(
        number, "ours", [](int value) { return dynstr_fromulong(common_pool(), static_cast<unsigned>(value)); },
        drop_ours);
    if (glib.library) {
        const auto drop = [](char *text) { glib.free(text); };
        add_formatted(
            formatted, "g_strdup_printf", [](int value) { return glib.strdup_printf(kFormat, "task", value, value); },
            drop);
        add_formatted(
            number, "g_strdup_printf",
            [](int value) { return glib.strdup_printf("%lu", static_cast<unsigned long>(value)); }, drop);
    }
    if (talloc.library) {
        const auto drop = [](char *text) { talloc.free(text, __FILE__); };
        add_formatted(
            formatted, "talloc", [](int value) { return talloc.asprintf(nullptr, kFormat, "task", value, value); },
            drop);
        add_formatted(
            number, "talloc",
            [](int value) { return talloc.asprintf(nullptr, "%lu", static_cast<unsigned long>(value)); }, drop);
    }
    const auto drop_string = [](std::string *text) { delete text; };
    add_formatted(
        number, "std::string", [](int value) { return new std::string(std::to_string(value)); }, drop_string);
#ifdef BENCH_HAS_ABSEIL
    add_formatted(
        formatted, "absl", [](int value) { return new std::string(absl::StrFormat(kFormat, "task", value, value)); },
        drop_string);
    add_formatted(
        number, "absl", [](int value) { return new std::string(absl::StrCat(value)); }, drop_string);
#endif
    add_formatted(formatted, kMinimum, write_formatted, [](char *) {});
    add_formatted(number, kMinimum, write_plain_number, [](char *) {});
}

// Hexadecimal texts by tables over plain buffers.
void write_hex(char *text, std::span<const unsigned char> bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const unsigned char byte : bytes) {
        *text++ = kDigits[byte >> 4];
        *text++ = kDigits[byte & 15];
    }
    *text = '\0';
}

constexpr std::array<unsigned char, 256> make_values()
{
    std::array<unsigned char, 256> values{};
    for (unsigned i = 0; i < 16; i++) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = static_cast<unsigned char>(i);
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = static_cast<unsigned char>(i);
    }
    return values;
}

void read_hex(std::span<unsigned char> bytes, const char *text)
{
    static constexpr std::array<unsigned char, 256> kValues = make_values();
    const auto value = [](char c) { return kValues[static_cast<unsigned char>(c)]; };
    for (unsigned char &byte : bytes) {
        byte = static_cast<unsigned char>(value(text[0]) << 4 | value(text[1]));
        text += 2;
    }
}

void add_hexadecimal()
{
    static std::array<unsigned char, 512> bytes;
    static std::array<char, 2 * bytes.size() + 1> text;
    Random random(9);
    for (unsigned char &byte : bytes) {
        byte = static_cast<unsigned char>(random.next());
    }
    write_hex(text.data(), bytes);
    static dynstr *const string = dynstr_hexstringfromdata(common_pool(), bytes.data(), bytes.size());
    if (string == nullptr || std::strcmp(dynstr_getstring(string), text.data()) != 0) {
        std::fprintf(stderr, "bench: the hexadecimal texts differ\n");
        std::exit(1);
    }

    const std::string writing = job_name("hexadecimal text of 1 KB written");
    set_string_goals(writing, {{kMinimum, 1.2}});
    add_work(writing, "ours", 10'000, [] { dynstr_sethexstring(string, bytes.data(), bytes.size()); });
    add_work(writing, kMinimum, 10'000, [] {
        write_hex(text.data(), bytes);
        benchmark::ClobberMemory();
    });
    const std::string reading = job_name("hexadecimal text of 1 KB read");
    set_string_goals(reading, {{kMinimum, 1.2}});
    add_work(reading, "ours", 10'000, [] { dynstr_gethexstring(string, bytes.data(), bytes.size()); });
    add_work(reading, kMinimum, 10'000, [] {
        read_hex(bytes, text.data());
        benchmark::ClobberMemory();
    });
}

// ---- the program ----

void register_jobs()
{
    add_pairs();
    add_churn(50, 1.2);
    add_churn(75, 1.5);
    add_churn(90, 1.5);
    add_append();
    add_formatted_texts();
    add_hexadecimal();
    add_compactions();
    if (!second_thread) {  // the same with several
        add_footprints();
    }
}

// --footprint RIVAL PERCENT churned|filled
int run_footprint(char **arguments)
{
    start_library();
    for_each_rival([&]<class Rival>() {
        if (std::string_view(Rival::kName) == arguments[0]) {
            print_footprint<Rival>(static_cast<std::size_t>(std::atoi(arguments[1])),
                                   std::string_view(arguments[2]) == "churned");
        }
    });
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 5 && std::string_view(argv[1]) == "--footprint") {
        return run_footprint(argv + 2);
    }
    return run_program(argc, argv, register_jobs, register_growth);
}
