// The file of orders for SIGUSR2, held against the reports that its lines ask for.
#include "models/family.h"
#include "support/recording_platform.h"

std::string any_orders(Stream &in)
{
    static const std::string kPieces[] = {"\n", "stats\n", "all", "#", "dyn", "pool\n", "\r\n", std::string(1, '\0')};
    std::string orders;
    for (unsigned left = in.below(16); left > 0; --left)
        orders += in.one_in(4) ? std::string(in.below(80), static_cast<char>(in.next())) : in.one_of(kPieces);
    return orders;
}

std::string report_of(const char *line)
{
    if (std::string_view(line) == "stats")
        memm_print_stats(nullptr);
    else if (*line != '\0' && *line != '#')
        memm_print_objects2(std::string_view(line) == "all" ? nullptr : line, 4);
    return recorder().take_debug();
}

void step(Stream &in)
{
    static const OwnFolder folder;
    [[maybe_unused]] static void *const object = memm_calloc(make_pool("pool", 3));
    open_error = 0;
    const std::string orders = any_orders(in);
    folder.order(orders);
    std::string line, expected = "\r\n\r\nReason: SIGUSR2\r\n";
    for (const char character : orders + '\n') {
        const bool ends = character == '\n';
        line += ends ? "" : std::string(1, character);
        if (ends || line.size() == 63)
            expected += report_of(std::exchange(line, "").c_str());
    }
    raise(SIGUSR2);
    same(content_of(folder.contents_path()), expected, "report");
}
