// The merged lexicon of a directory.
#include <algorithm>
#include <filesystem>
#include <map>

#include "searchthing/merge/merged_lexicon.h"
#include "searchthing/st_optimize.h"
#include "searchthing/upkeep/tsidx_merge_lex.h"
#include "tests/support/directory.h"
#include "tests/support/fsck.h"
#include "tests/support/hot_events.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

class MergedLexicon : public directory_test {
  protected:
    // A slice every twelve random events; the counts are summed up here.
    void put_slices(int slices) {
        const directory_ptr tsidx = open_directory(dir.path());
        std::vector<forge_event> events = forge_random_events(11, static_cast<uint32_t>(12 * slices));
        const forge_picture picture = forge_number(events);
        for (size_t id = 0; id < picture.terms.size(); id++) counts[picture.terms[id]] = picture.postings[id].size();
        for (size_t i = 0; i < events.size(); i++) {
            ASSERT_EQ(put_event(tsidx.get(), events[i]), 0);
            if (i % 12 == 11) {
                ASSERT_EQ(st_tsidx_sync(tsidx.get()), 0);
            }
        }
    }
    std::string expected(uint32_t min_events) const {
        std::string out = "my needle: *\n";
        uint32_t id = 0;
        for (const auto& [term, count] : counts) {
            if (count < min_events) continue;
            out += std::to_string(id++) + " " + std::to_string(count) + " " + term + "\n";
        }
        return out;
    }
    std::string listed() const { return run_tool("dictscan", {dir.file("merged_lexicon.lex"), "*"}).out; }
    std::string status() const { return read_file(dir.file("optimize.result")); }
    size_t temporaries() const {
        size_t found = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator(dir.path())) {
            found += entry.path().filename().string().starts_with(TSIDX_MERGED_LEXICON_PART);
        }
        return found;
    }

    const temp_dir dir;
    std::map<std::string, size_t> counts;
    warm_rc_t rc;
};

TEST_F(MergedLexicon, HoldsEveryTermWithItsCountAndIsFiltered) {
    put_slices(5);
    const size_t slices = 5;
    ASSERT_EQ(st_optimize_lex(dir.path().c_str(), 2, 3, 0, 0, false, &rc), 0);
    EXPECT_EQ(listed(), expected(0));
    EXPECT_EQ(fsck_findings(dir.file("merged_lexicon.lex")), "");
    EXPECT_EQ(status(), "veldar-optimize-lex complete with rc=0 wrc=[0,0]\n");
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0, 64, 3, true, &rc), 0);
    EXPECT_EQ(listed(), expected(3));
    EXPECT_NE(expected(3), expected(0));
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0, 0, 1000000, true, &rc), WARM_RC_ZERO_TERMS);
    EXPECT_EQ(listed(), expected(3));
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), slices + 1, 0, 0, 0, false, &rc), 0);
    EXPECT_TRUE(status().starts_with("veldar-optimize-lex complete with rc=-31 wrc=[-31,")) << status();
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0, 8, 0, false, &rc), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0xFFFFFFFF, 0, 0, false, &rc), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(listed(), expected(3));
    EXPECT_EQ(temporaries(), 0U);
    // It is no slice.
    EXPECT_EQ(st_tsidx_distinct_term_count(open_for_reading(dir.path()).get()), static_cast<int64_t>(counts.size()));
}

TEST_F(MergedLexicon, TooFewSlicesAndNoDirectory) {
    put_slices(1);
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0, 0, 0, false, &rc), 0);
    EXPECT_EQ(rc.warm_rc, WARM_RC_FEW_SLICES);
    EXPECT_TRUE(status().starts_with("veldar-optimize-lex complete with rc=-30 wrc=[-30,")) << status();
    EXPECT_EQ(st_optimize_lex(dir.path().c_str(), 0, 0, 0, 0, true, &rc), WARM_RC_OPEN);
    EXPECT_FALSE(fs::exists(dir.file("merged_lexicon.lex")));
    EXPECT_EQ(st_optimize_lex("", 0, 0, 0, 0, false, &rc), -1);
    EXPECT_EQ(rc.warm_rc, -33);
    EXPECT_EQ(st_optimize_lex(dir.file("missing").c_str(), 0, 0, 0, 0, false, &rc), WARM_RC_OPEN);
}

// As a damaged lexicon may have it.
TEST_F(MergedLexicon, ATermThatComesTwiceIsRefused) {
    merged_lexicon_file file(dir.file("part"));
    ASSERT_EQ(file.create(0, 0, &rc), 0);
    EXPECT_EQ(file.put("a", 1, &rc), 0);
    EXPECT_EQ(file.put("a", 2, &rc), WARM_RC_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace veldar
