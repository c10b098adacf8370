// The forge and the reference against bytes and answers written out by hand: everything else is compared with them.
#include "tests/support/forge.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "tests/support/reference.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

std::string unhex(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            i++;
            continue;
        }
        out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
        i += 2;
    }
    return out;
}

std::string bytes_at(const std::string& file, uint64_t at, uint64_t end) {
    return file.substr(at, end - at);
}

TEST(Forge, ValuesMetadataAndCompanionsAreTheWrittenExamples) {
    const std::vector<forge_event> events = {
        {.time = 100, .address = 10, .measure = 6, .s = 1, .terms = {"x"}},
        {.time = 103, .address = 15, .measure = 5, .s = 9, .terms = {"x", "y"}, .deleted = true}};
    forge_options options;
    options.wflags = FORGE_PACKED;
    forge_picture picture;
    std::string file = forge_slice(events, options, &picture);
    // Newest first, 2 bits of time and 3 of address: 3 and 5, then 0 and 0.
    EXPECT_EQ(bytes_at(file, 128, 136), unhex("17 00000000000000"));
    // The companion sections: each begins 1 to 8 bytes after the end of the one before.
    EXPECT_EQ(picture.at.m, 144u);
    EXPECT_EQ(bytes_at(file, 144, 145), unhex("35"));  // 5, 6 in 3 bits
    EXPECT_EQ(bytes_at(file, 152, 153), unhex("03"));  // all-ones cut to 1 bit, then 1
    EXPECT_EQ(bytes_at(file, 176, 177), unhex("01"));  // deleted, not deleted
    // 2 bits of count, 2 + 2 of times: x 2, 0, 3 and y 1, 3, 3.
    EXPECT_EQ(bytes_at(file, picture.at.metadata, picture.at.lexicon), unhex("72 0F 000000000000"));
    options.magic = "Veldar3";
    options.wflags = 0;
    file = forge_slice(events, options, &picture);
    EXPECT_EQ(bytes_at(file, 64, 80), unhex("00000067 0000000F 00000064 0000000A"));
    EXPECT_EQ(bytes_at(file, picture.at.metadata, picture.at.reverse_terms),
              unhex("00000002 00000064 00000067  00000001 00000067 00000067  0000000000000000"));
    EXPECT_EQ(picture.at.lexicon, picture.at.reverse_terms + 8);
    EXPECT_EQ(picture.at.reverse_lexicon % 4, picture.at.lexicon % 4);
}

// The dump lines of one example in the format document, as the file that they draw.
std::string documented_slice(const std::string& name) {
    std::istringstream lines(read_file(VELDAR_SOURCE_DIR "/docs/file-format.md"));
    std::string line, out;
    bool inside = false;
    while (std::getline(lines, line)) {
        const std::string fence = "```slice " + name + " ";
        if (line.rfind(fence, 0) == 0) {
            inside = true;
            out.resize(std::stoul(line.substr(fence.size())), '\0');
        } else if (inside && line == "```") {
            return out;
        } else if (inside) {
            const std::string bytes = unhex(line.substr(6, line.find("   ", 6) - 6));
            out.replace(std::stoul(line.substr(0, 4), nullptr, 16), bytes.size(), bytes);
        }
    }
    return {};
}

TEST(Forge, TheFormatDocumentShowsRealFiles) {
    const std::vector<forge_event> events = {
        {.time = 1000, .address = 0, .st = 1, .h = 2, .terms = {"host::a", "ok"}},
        {.time = 1001, .address = 57, .st = 1, .h = 2, .terms = {"host::a", "ok"}},
        {.time = 1001, .address = 120, .st = 1, .h = 3, .terms = {"error", "host::b"}},
        {.time = 1003, .address = 190, .st = 1, .h = 2, .terms = {"host::a", "ok", "slow"}}};
    forge_options created = forge_as_created(4);
    created.uncompressed_size = 30;  // with a NUL behind each term
    EXPECT_EQ(forge_slice(events, created), documented_slice("created"));
    forge_options packed;
    packed.wflags = FORGE_TAG2 | FORGE_PACKED | FORGE_PLO32;
    packed.tperb = 4;
    packed.forced = {{"host::a", forge_encoding::bmap},
                     {"host::b", forge_encoding::spo},
                     {"ok", forge_encoding::dedup},
                     {"slow", forge_encoding::spo}};
    EXPECT_EQ(forge_slice(events, packed), documented_slice("packed"));
}

TEST(Forge, EveryKindUsesEveryEncodingItCanExpress) {
    const std::vector<forge_event> events = forge_random_events(1, 400);
    for (const forge_options& kind : forge_all_kinds()) {
        forge_picture picture;
        const std::string file = forge_slice(events, kind, &picture);
        const std::set<forge_encoding> used(picture.encodings.begin(), picture.encodings.end());
        const size_t expressible = kind.wflags & FORGE_TAG2 ? 4 : kind.wflags & FORGE_TAG1 ? 2 : 1;
        EXPECT_EQ(used.size(), expressible) << kind.name();
        EXPECT_EQ(file.size(), picture.at.end) << kind.name();
    }
}

TEST(Reference, WildcardsAndComparisonsFollowTheWrittenTable) {
    const struct {
        const char *needle, *term;
        bool match;
    } cases[] = {{"", "any", true},       {"*", "", true},         {"abc", "abcd", false},   {"abc*", "abc", true},
                 {"*abc", "xxabc", true}, {"*abc", "abcx", false}, {"ab*cd", "abcd", true},  {"ab*cd", "acd", false},
                 {"ab*cd", "abd", false}, {"*a*b*", "bxa", false}, {"*a*b*", "xaxbx", true}, {"*aa", "aaa", false},
                 {"*aa", "baa", true},    {"*aa", "aaaa", true},   {"a**c", "abc", true},    {"ab*b", "ab", false}};
    for (const auto& c : cases) {
        EXPECT_EQ(reference_index::wildcard_matches(c.needle, c.term), c.match) << c.needle << " on " << c.term;
    }
    using enum reference_op;
    const struct {
        const char* value;
        std::set<reference_op> match;  // against 5
    } table[] = {{"", {lt, lte, neq}},  {"x", {gt, gte, neq}}, {"4", {lt, lte, neq}},    {"5.0", {lte, gte, eq}},
                 {"6", {gt, gte, neq}}, {"nan", {neq}},        {"1e999", {gt, gte, neq}}};
    for (const auto& row : table) {
        for (const reference_op op : {lt, lte, gt, gte, eq, neq}) {
            EXPECT_EQ(reference_index::compare_matches(op, row.value, 5), row.match.contains(op)) << row.value;
        }
    }
}

}  // namespace
}  // namespace veldar
