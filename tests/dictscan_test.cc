// Runs the built tool and compares its output, its error lines and its exit status to the byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/damage.h"
#include "tests/support/forge.h"
#include "tests/support/reference.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

tool_result run(const std::vector<std::string>& arguments, const tool_options& options = {}) {
    return run_tool("dictscan", arguments, options);
}

std::string expected_output(const forge_picture& picture, const std::string& needle) {
    std::string out = "my needle: " + needle + "\n";
    for (size_t id = 0; id < picture.terms.size(); id++) {
        if (!needle.empty() && !reference_index::wildcard_matches(needle, picture.terms[id])) continue;
        out += std::to_string(id) + " " + std::to_string(picture.postings[id].size()) + " " + picture.terms[id] + "\n";
    }
    return out;
}

TEST(Dictscan, EveryHeaderKindAndPostingEncoding) {
    const std::vector<forge_event> events = forge_random_events(5, 60);
    for (forge_options options : forge_all_kinds()) {
        for (const forge_lists lists : {forge_lists::rle, forge_lists::mixed}) {
            options.lists = lists;
            SCOPED_TRACE(options.name());
            const temp_dir dir;
            forge_picture picture;
            const std::string path = forge_file(dir.path(), events, options, 1, &picture);
            for (const char* const needle : {"", "*1*", "host::*", "*0", "half", "nothing"}) {
                const tool_result all = run({path, needle, "ignored"});
                EXPECT_EQ(all.out, expected_output(picture, needle)) << needle;
                EXPECT_EQ(all.err, "");
                EXPECT_EQ(all.status, 0);
            }
        }
    }
}

TEST(Dictscan, UsageAndOpenErrors) {
    const temp_dir dir;
    const std::string usage = "usage: " VELDAR_TOOLS_DIR "/dictscan <index>.tsidx substring\n";
    write_file(dir.file("empty"), "");
    struct refusal {
        std::vector<std::string> arguments;
        std::string error;
    };
    const refusal cases[] = {
        {{}, usage},
        {{"one"}, usage},
        {{"", "x"}, "ERROR: unable to open  wrc=[-4,2]\n"},
        {{"/nowhere/slice", "x"}, "ERROR: unable to open /nowhere/slice wrc=[-4,2]\n"},
        {{"x.tsidx", "x"}, "ERROR: unable to open x.tsidx wrc=[-45,0]\n"},
    };
    for (const refusal& c : cases) {
        const tool_result result = run(c.arguments);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, c.error);
        EXPECT_EQ(result.status, 1);
    }
    const tool_result empty = run({dir.file("empty"), "x"});
    EXPECT_NE(empty.err.find("ERROR: unable to open " + dir.file("empty") + " wrc=[-49,"), std::string::npos);
    EXPECT_EQ(empty.status, 1);
}

TEST(Dictscan, LongTextsAndFailedWrites) {
    std::vector<forge_event> events = forge_random_events(6, 3000);
    events[0].terms.push_back(std::string(2047, 'm'));
    const temp_dir dir;
    forge_picture picture;
    const std::string path = forge_file(dir.path(), events, forge_as_created(3), 1, &picture);
    EXPECT_EQ(run({path, "*m*"}).out, expected_output(picture, "*m*"));
    const std::string huge(100000, 'x');  // longer than the output buffer
    EXPECT_EQ(run({path, huge}).out, "my needle: " + huge + "\n");
    const tool_result full = run({path, ""}, {"", 0, 0, "/dev/full"});
    EXPECT_EQ(full.status, 0);
    EXPECT_EQ(full.err, "");
}

}  // namespace
}  // namespace veldar
