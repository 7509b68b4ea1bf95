// The file of orders that SIGUSR2 follows. The model reads it as a text of lines; the library reads pieces of it.
#include "models/family.h"
#include "support/file_calls.h"
#include "support/pools.h"
#include "support/recording_platform.h"

namespace {

const std::string kLong = "a name of more than a line, which is 63 characters: the rest is another line",
                  kStart = kLong.substr(0, 63), kRest = kLong.substr(63);

std::string printed(const std::string &line)
{
    recorder().take_debug();
    if (line == "stats")
        memm_print_stats(nullptr);
    else if (!line.empty() && line[0] != '#')
        memm_print_objects2(line == "all" ? nullptr : line.c_str(), 4);
    return recorder().take_debug();
}

std::string expected_of(const std::string &orders)
{
    std::string report = "\r\n\r\nReason: SIGUSR2\r\n", line;
    for (const char c : orders.substr(0, 65536) + '\n') {
        if (c != '\n')
            line += c;
        if (c == '\n' || line.size() == 63)  // what is longer goes on as a line of its own
            report += printed(std::exchange(line, "").c_str());
    }
    return report;
}

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static OwnFolder *const folder = [] {
        for (const char *name : {kStart.c_str(), kRest.c_str(), kLong.c_str(), "order.a"})
            memm_calloc(make_pool(name, 2));
        return new OwnFolder;
    }();
    const std::string words[] = {"stats", "all", "order.a",           "#", "\n", "\n", "\n", " ",
                                 kLong,   kRest, std::string(1, '\0')};
    Stream stream(bytes);
    Difference difference;
    while (!stream.is_empty() && difference.is_none()) {
        std::string orders;
        for (unsigned count = stream.below(24); count > 0; --count, ++operations)
            orders += stream.one_in(8) ? std::string(1, static_cast<char>(stream.next())) : stream.one_of(words);
        if (stream.one_in(16))  // the limit cuts the last line
            orders.insert(0, std::string(65536 - 64 - stream.below(64), '\n'));
        folder->order(orders);
        raise(SIGUSR2);
        difference.same(content_of(folder->contents_path()), expected_of(orders), orders.c_str());
    }
    return difference.first();
}
