// Sessions with the tools, all that they print and how they end, beside what was read and found right before.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

class Transcript : public testing::TestWithParam<const char*> {};

// After a wanted change: tests/support/transcript.sh writes one anew, and what changed in it is read.
TEST_P(Transcript, IsWhatItWas) {
    const temp_dir dir;
    const std::string scripts = VELDAR_SOURCE_DIR "/tests/support/transcript.sh '";
    const std::string path = VELDAR_SOURCE_DIR "/tests/data/transcripts/" + std::string(GetParam());
    const std::string told = dir.file("told"), difference = dir.file("difference");
    const std::string run = scripts + path + "' '" VELDAR_TOOLS_DIR "' >'" + told + "' && diff -U 3 '" + path + "' '" +
                            told + "' >'" + difference + "'";
    EXPECT_EQ(std::system(run.c_str()), 0) << read_file(difference);  // NOLINT(cert-env33-c): a shell is what asks
}

INSTANTIATE_TEST_SUITE_P(Of, Transcript,
                         testing::Values("borders", "damage", "inspect", "load", "odd", "optimize", "sources", "stats",
                                         "upkeep", "usage", "wrecks"));

}  // namespace
}  // namespace veldar
