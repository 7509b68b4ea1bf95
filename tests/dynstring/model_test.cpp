#include "support/recording_platform.h"
#include "support/text_pool_model.h"

#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string dump_file() { return text("/tmp/memm_dump_%d", getpid()); }

constexpr TextPoolTrial::Platform kRecorded = {
    .fail_next_outside_block = [] { recorder().fail_nth(Op::getmem, 1); },
    .take_reports =
        [](std::string &trace, std::string &errors) {
            trace = recorder().take_trace();
            errors = recorder().take_errors();
            const std::string no_file = "Could not open '" + dump_file() + "' stats file\r\n";
            for (std::size_t at = 0; (at = trace.find(no_file)) != std::string::npos;)
                trace.erase(at, no_file.size());
        },
};

TEST(text_pool_model, agrees_through_random_operations_on_one_to_four_buffers)
{
    struct Shape {
        const char *name;
        int count;
        unsigned bytes;
        int buffers;
    };
    ASSERT_EQ(memm_init(8, 8), 0);
    ASSERT_EQ(mkdir(dump_file().c_str(), 0700), 0);  // files for every depletion would take the most of the time
    std::mt19937 random(2071);
    std::vector<unsigned char> bytes(4096);
    for (const Shape &shape :
         {Shape{"one", 12, 120, 1}, {"two", 16, 340, 2}, {"three", 24, 540, 3}, {"four", 40, 900, 4}}) {
        recorder().fail_never();
        TextPoolTrial trial(dynstr_initpool2(shape.name, shape.count, shape.bytes, shape.buffers), kRecorded);
        while (trial.operations() < scaled(250000)) {
            std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
            ASSERT_EQ(trial.run(bytes), "") << shape.name << " after " << trial.operations();
            recorder().forget();
            memm_print_stats(shape.name);
            memm_print_objects2(shape.name, 0);
            const std::string report = recorder().take_debug();
            ASSERT_TRUE(report.find("failed") == report.npos && report.find("ERROR") == report.npos) << report;
        }
        unsigned reasons[3] = {};
        for (const auto &of_buffer : trial.model().counters().gcreason)
            for (int reason = 0; reason < 3; ++reason)
                reasons[reason] += of_buffer[reason];
        for (int reason = shape.buffers == 1 ? 1 : 0; reason < 3; ++reason)  // one buffer cannot get out of balance
            EXPECT_GT(reasons[reason], 0U) << shape.name << ": " << reason;
        EXPECT_NE(trial.model().counters().flags, 0U) << "no text was too large";
        EXPECT_NE(trial.model().descriptor().flags, 0U) << "the records never ran out";
    }
    rmdir(dump_file().c_str());
}

}  // namespace
