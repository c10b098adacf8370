// What questions cost: values, lists, reads, bytes. Answers stay right when nothing is kept or everything is read; only
// these figures tell. They change when the engine is tuned: take better ones over.
#include <gtest/gtest.h>

#include "searchthing/reading/tsidx_select.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice.h"
#include "tests/support/directory.h"
#include "tests/support/query_maker.h"

namespace veldar {
namespace {

// A line for each way to ask: the whole answer, 20 events, 20 candidates, a count, a selection.
std::string cost_of_questions(const std::string& path, const reference_index& reference,
                              const std::vector<std::string>& groups, const std::string& field) {
    std::string text;
    warm_rc_t rc;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &rc));
    std::vector<st_tsval> answers(reference.values().size() + 1);
    for (uint32_t way = 0; way < 5; way++) {
        query_maker maker(reference, 9);
        uint64_t sums[8] = {};
        st_query_info_t info;
        for (uint32_t i = 0; i < 20; i++) {
            const bool everything = i % 4 == 0;
            const std::string lispy = everything ? "[AND]" : maker.group(0).notation();
            select_options_t options;
            options.query = make_query(lispy.c_str(), everything ? reference_bounds() : maker.bounds());
            options.query.cumspan = 0;
            options.query.info = &info;
            options.query.opt_span = {i % 3 == 0 ? 3600 : 0, 0};
            options.spec.groups.assign(groups.begin(), groups.begin() + i % 3);
            if (!everything) options.spec.projections = {{field, i % 2 == 0 ? SELECT_SUM : SELECT_ALL_AGGREGATES}};
            options.sources = {{nullptr, path}};
            search_report_t a;
            select_report_t b;
            select_table_t table;
            uint64_t count = way == 0 ? answers.size() : 20;
            const int status = way == 4   ? select_read(options, &table, &b, &rc)
                               : way == 3 ? warm_slice_count(warm.get(), &options.query, &count, &a, &rc)
                                          : warm_slice_search(warm.get(), &options.query, answers.data(),
                                                              static_cast<uint32_t>(count), way != 2, &a, &rc);
            EXPECT_GE(status, 0) << rc.message;
            const uint64_t add[] = {a.range_end - a.range_begin + b.events,
                                    a.lists_read + b.lists_from_metadata,
                                    a.values_decoded + b.lists_counted,
                                    a.windows + b.lists_decoded,
                                    (a.from_metadata ? 1 : 0) + b.lists_probed,
                                    b.columns_read,
                                    b.columns_summed,
                                    b.refused};
            for (size_t k = 0; k < std::size(sums); k++) sums[k] += add[k];
        }
        for (const uint64_t sum : sums) text += std::to_string(sum) + " ";
        text += std::to_string(info.reads) + " " + std::to_string(info.bytes) + "\n";
    }
    return text;
}

TEST(Cost, Questions) {
    const temp_dir dir;
    std::vector<forge_event> events = forge_random_events(3, 9000);
    for (forge_event& event : events) event.deleted = false;
    const reference_index reference(events);
    std::string paths[] = {forge_file(dir.path(), events, forge_as_created(4), 1),
                           forge_file(dir.path(), events, forge_event_kinds().back(), 2)};
    EXPECT_EQ(cost_of_questions(paths[0], reference, {"host", "status"}, "bytes"),
              "130357 8480 65478 20 0 0 0 0 186 579140\n130357 16138 243 24 0 0 0 0 164 609847\n"
              "130357 834 243 20 0 0 0 0 94 300119\n130357 8463 0 19 1 0 0 0 130 487432\n"
              "65478 80 487 121 299 0 0 6832 552 1568632\n");
    EXPECT_EQ(cost_of_questions(paths[1], reference, {"host", "status"}, "bytes"),
              "130357 8474 65478 20 0 0 0 0 3550 3440438\n130357 16115 243 24 0 0 0 0 6524 5951349\n"
              "130357 828 243 20 0 0 0 0 457 686456\n130357 8451 0 19 1 0 0 0 3484 3347664\n"
              "65478 80 488 143 276 0 0 6832 4363 5038530\n");
}

}  // namespace
}  // namespace veldar
