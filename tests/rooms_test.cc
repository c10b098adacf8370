// The rooms: a file includes only files of its own folder and of folders below, headers make no circle, and the engine
// depends on nothing but the C and C++ libraries, POSIX and xxHash.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

// Bottom up. The face stands in searchthing/ itself.
const std::vector<std::string> ENGINE_ROOMS = {
    "libzero",
    "searchthing/base",
    "searchthing/format",
    "searchthing/lexicon",
    "searchthing/values",
    "searchthing/postings",
    "searchthing/columns",
    "searchthing/slice",
    "searchthing/seal",
    "searchthing/hot",
    "searchthing/search",
    "searchthing/merge",
    "searchthing/directory",
    "searchthing/reading",
    "searchthing/upkeep",
    "searchthing",
};
const std::vector<std::string> TOOL_ROOMS = {
    "tools/libveldar/formats", "tools/libveldar/store",
    "tools/libveldar/query",   "tools/libveldar/load",
    "tools/libveldar/check",   "tools/libveldar/partial",
    "tools/libveldar/face",    "tools/veldar/output",
    "tools/veldar/commands",   "tools/python",
};
// These know of the library what a C program knows.
const std::set<std::string> FACES = {"tools/python"};
// Neighbours that know nothing of each other, though they stand in a row.
const std::set<std::string> APART = {"searchthing/hot", "searchthing/search", "searchthing/merge"};
// These work on whole slices: of the sections below `slice` they know the records alone.
const std::set<std::string> SLICE_USERS = {"searchthing/reading", "searchthing/upkeep"};
const std::set<std::string> SECTIONS = {"searchthing/lexicon", "searchthing/values", "searchthing/postings",
                                        "searchthing/columns"};
const std::set<std::string> SECTION_RECORDS = {
    "searchthing/values/st_tsval.h",
    "searchthing/values/tsval_order.h",
    "searchthing/lexicon/term_choice.h",
};

// What the tools know of the engine but for its installed headers; those that look inside slices know INSIDE as well.
const std::set<std::string> TOOL_HEADERS = {
    "searchthing/base/number.h",
    "searchthing/directory/health.h",
    "searchthing/directory/merge_manifest.h",
    "searchthing/directory/tsidx_list.h",
    "searchthing/format/metric_terms.h",
    "searchthing/format/warmslice_header.h",
    "searchthing/hot/hotslice.h",
    "searchthing/lexicon/matcher.h",
    "searchthing/seal/slice_seal.h",
    "searchthing/search/tokenizer.h",
    "searchthing/search/warmslice_search.h",
    "searchthing/slice/warmslice.h",
};
const std::set<std::string> INSIDE = {"searchthing/columns/cstore.h",         "searchthing/columns/dimset_io.h",
                                      "searchthing/lexicon/fclex.h",          "searchthing/postings/plist.h",
                                      "searchthing/slice/warmslice_lists.h",  "searchthing/slice/warmslice_runs.h",
                                      "searchthing/slice/warmslice_values.h", "searchthing/values/tsval.h"};
const std::set<std::string> LOOK_INSIDE = {"info", "slice_rows", "slice_events", "slice_metrics", "metric_catalog"};

// The installed headers, as cmake/install.cmake lists them.
const std::set<std::string>& face() {
    static const std::set<std::string> headers = [] {
        const std::string text = read_file(VELDAR_SOURCE_DIR "/cmake/install.cmake");
        std::set<std::string> found;
        for (const std::string list : {"set(face", "set(records"}) {
            const size_t begin = text.find(list) + list.size();
            std::istringstream words(text.substr(begin, text.find(')', begin) - begin));
            for (std::string word; words >> word;) found.insert("searchthing/" + word);
        }
        return found;
    }();
    return headers;
}

const std::set<std::string>& system_headers() {
    static const std::set<std::string> headers = {
        "byteswap.h",  "dirent.h",   "dlfcn.h",  "emmintrin.h", "endian.h", "errno.h",  "execinfo.h",  "fcntl.h",
        "immintrin.h", "inttypes.h", "limits.h", "link.h",      "locale.h", "math.h",   "sched.h",     "signal.h",
        "stdint.h",    "stdio.h",    "stdlib.h", "string.h",    "time.h",   "unistd.h", "x86intrin.h", "xxhash.h"};
    return headers;
}

std::string room_of(const std::string& file) {
    return fs::path(file).parent_path().string();
}

// How high a room stands; the tools stand on the whole engine. -1 for no room.
int height_of(const std::string& room) {
    int height = 0;
    for (const auto* rooms : {&ENGINE_ROOMS, &TOOL_ROOMS}) {
        for (const std::string& name : *rooms) {
            if (name == room) return height;
            height++;
        }
    }
    return -1;
}

bool is_engine(const std::string& file) {
    return !file.starts_with("tools/");
}

struct include_line {
    std::string target;
    bool angle = false;
};

std::vector<include_line> includes_of(const std::string& source) {
    std::vector<include_line> out;
    std::istringstream lines(source);
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find_first_not_of(" \t");
        if (at == std::string::npos || line[at] != '#') continue;
        const size_t word = line.find("include", at);
        const size_t open = line.find_first_of("\"<", at);
        if (word == std::string::npos || open == std::string::npos || word > open) continue;
        const size_t close = line.find_first_of("\">", open + 1);
        out.push_back({line.substr(open + 1, close - open - 1), line[open] == '<'});
    }
    return out;
}

using source_tree = std::map<std::string, std::string>;  // path from the root to text

source_tree read_rooms(const std::string& root) {
    source_tree tree;
    for (const char* area : {"libzero", "searchthing", "tools/libveldar", "tools/veldar", "tools/python"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root + "/" + area)) {
            const std::string extension = entry.path().extension().string();
            if (extension != ".h" && extension != ".cc") continue;
            tree[fs::relative(entry.path(), root).string()] = read_file(entry.path().string());
        }
    }
    return tree;
}

bool is_allowed_system_header(const std::string& file, const std::string& target) {
    if (target == "xxhash.h") return file.rfind("searchthing/", 0) == 0;
    if (target.rfind("sys/", 0) == 0 || target.rfind("linux/", 0) == 0) return true;
    return target.find_first_of("./") == std::string::npos || system_headers().contains(target);
}

void check_circles(const source_tree& tree, std::vector<std::string>* faults) {
    std::set<std::string> done;
    std::vector<std::string> path;
    const std::function<void(const std::string&)> visit = [&](const std::string& file) {
        if (!tree.contains(file) || done.contains(file)) return;
        if (std::find(path.begin(), path.end(), file) != path.end()) {
            faults->push_back(file + " includes itself by way of " + path.back());
            return;
        }
        path.push_back(file);
        for (const include_line& include : includes_of(tree.at(file))) visit(include.target);
        path.pop_back();
        done.insert(file);
    };
    for (const auto& [file, text] : tree) visit(file);
}

// What is wrong with one file's include of another of the house; empty for nothing.
std::string include_fault(const std::string& file, const std::string& target) {
    const std::string room = room_of(file), other = room_of(target);
    if (face().contains(file) && !face().contains(target)) return "which is not installed";
    if (room == other) return "";
    if (height_of(other) > height_of(room)) return "which stands higher";
    if (APART.contains(room) && APART.contains(other)) return "and these rooms know nothing of each other";
    if (FACES.contains(room) && target != "tools/libveldar/face/veldar.h") return "past veldar.h";
    if (target.ends_with("_internal.h")) return "which is of its room alone";
    if (!is_engine(file) && target.starts_with("searchthing/") && !face().contains(target) &&
        !TOOL_HEADERS.contains(target)) {
        const bool inside = room == "tools/libveldar/check" || LOOK_INSIDE.contains(fs::path(file).stem().string());
        if (!inside || !INSIDE.contains(target)) return "past the face";
    }
    if (SLICE_USERS.contains(room) && SECTIONS.contains(other) && !SECTION_RECORDS.contains(target)) {
        return "a section, past the slice";
    }
    return "";
}

std::vector<std::string> room_faults(const source_tree& tree) {
    std::vector<std::string> faults;
    for (const auto& [file, text] : tree) {
        if (height_of(room_of(file)) < 0) {
            faults.push_back(file + " stands in no room");
            continue;
        }
        for (const include_line& include : includes_of(text)) {
            const std::string both = file + " includes " + include.target;
            if (include.angle) {
                if (is_engine(file) && !is_allowed_system_header(file, include.target)) {
                    faults.push_back(both + ", a foreign header");
                }
            } else if (!tree.contains(include.target)) {
                faults.push_back(both + ", which is no file of the house");
            } else if (const std::string fault = include_fault(file, include.target); !fault.empty()) {
                faults.push_back(both + ", " + fault);
            }
        }
    }
    check_circles(tree, &faults);
    return faults;
}

TEST(Rooms, FilesIncludeOnlyDownwards) {
    const source_tree tree = read_rooms(VELDAR_SOURCE_DIR);
    EXPECT_GT(tree.size(), 200u);
    for (const std::string& fault : room_faults(tree)) ADD_FAILURE() << fault;
}

TEST(Rooms, PlantedFaultsAreReported) {
    const source_tree sound = {
        {"libzero/vbe.h", "#include <cstdint>\n"},
        {"searchthing/postings/plist.h", ""},
        {"searchthing/postings/plist_internal.h", "#include \"searchthing/postings/plist.h\"\n"},
        {"searchthing/slice/warmslice.h", "#include \"searchthing/postings/plist.h\"\n"},
        {"searchthing/hot/hotslice.h", "#include \"libzero/vbe.h\"\n#include <xxhash.h>\n"},
        {"tools/libveldar/query/ask.cc", "#include <zlib.h>\n#include \"searchthing/slice/warmslice.h\"\n"},
    };
    EXPECT_TRUE(room_faults(sound).empty());
    const std::pair<const char*, const char*> planted[] = {
        {"searchthing/base/list.cc", "#include \"searchthing/slice/warmslice.h\"\n"},  // upwards
        {"searchthing/novelty/list.cc", ""},                                           // in no room
        {"searchthing/base/list.cc", "  #  include <zlib.h>\n"},                       // foreign
        {"libzero/hash.cc", "#include <xxhash.h>\n"},                          // only the engine proper has xxHash
        {"searchthing/st.cc", "#include \"tools/libveldar/query/ask.cc\"\n"},  // the tools
        {"libzero/vbe.h", "#include \"libzero/vbe.h\"\n"},                     // a circle
        {"searchthing/merge/merge.cc", "#include \"searchthing/hot/hotslice.h\"\n"},                // a neighbour
        {"searchthing/slice/warmslice.h", "#include \"searchthing/postings/plist_internal.h\"\n"},  // an internal
        {"searchthing/reading/tsidx_query.cc", "#include \"searchthing/postings/plist.h\"\n"},      // a section
        {"tools/libveldar/query/ask.cc", "#include \"searchthing/postings/plist.h\"\n"},            // past the face
        {"tools/python/module.cc", "#include \"tools/libveldar/query/ask.cc\"\n"},                  // past veldar.h
        {"tools/libveldar/store/store.cc", "#include \"tools/libveldar/query/ask.cc\"\n"},          // upwards
    };
    for (const auto& [file, text] : planted) {
        source_tree tree = sound;
        tree[file] = text;
        EXPECT_EQ(room_faults(tree).size(), 1u) << file;
    }
}

// docs/architecture.md tells where each byte is written.
TEST(Rooms, TheTableOfBytesNamesFilesThatExist) {
    const std::string text = read_file(std::string(VELDAR_SOURCE_DIR) + "/docs/architecture.md");
    const size_t begin = text.find("## Where each byte is written"), end = text.find("\n[file-format.md]");
    ASSERT_LT(begin, end);
    size_t files = 0;
    for (size_t at = text.find('`', begin); at < end; at = text.find('`', text.find('`', at + 1) + 1)) {
        const std::string name = text.substr(at + 1, text.find('`', at + 1) - at - 1);
        if (!name.ends_with(".h") && !name.ends_with(".cc")) continue;
        files++;
        EXPECT_TRUE(fs::exists(std::string(VELDAR_SOURCE_DIR) + "/searchthing/" + name)) << name;
    }
    EXPECT_GT(files, 20u);
}

}  // namespace
}  // namespace veldar
