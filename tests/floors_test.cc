// The engine's floors: a file includes only files of its own floor or below, headers make no circle, and the engine
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

// By floor, names up to the first '.'. Each stands for the files whose names go on with "_" too, unless a longer name
// fits them. Everything in libzero/ is floor 0.
constexpr std::pair<int, const char*> FLOORS[] = {
    {7, "st"},            // the generic handle
    {6, "health tsidx"},  // an index directory
    {5, "search warmslice_search warmslice_merge merge"},
    {4, "hotslice plist warmslice"},  // one slice, on disk and in memory
    {3, "bitmap dimset cset cstore fclex matcher query range_bitmap term_meta tokenizer tsval"},  // the sections
    {2, "bitpack packed_array timed_read tsidx_names warmslice_header warmslice_util write_options"},
    {1, "list log query_info st_init st_timeval warm_rc"},  // records that everything reports through
};

const std::map<std::string, int>& floor_table() {
    static const std::map<std::string, int> floors = [] {
        std::map<std::string, int> table;
        for (const auto& [floor, names] : FLOORS) {
            std::istringstream words(names);
            for (std::string name; words >> name;) table[name] = floor;
        }
        return table;
    }();
    return floors;
}

const std::set<std::string>& system_headers() {
    static const std::set<std::string> headers = {
        "byteswap.h",  "dirent.h",   "dlfcn.h",  "emmintrin.h", "endian.h", "errno.h",  "execinfo.h",  "fcntl.h",
        "immintrin.h", "inttypes.h", "limits.h", "link.h",      "locale.h", "math.h",   "sched.h",     "signal.h",
        "stdint.h",    "stdio.h",    "stdlib.h", "string.h",    "time.h",   "unistd.h", "x86intrin.h", "xxhash.h"};
    return headers;
}

int floor_of(const std::string& file) {
    if (file.rfind("libzero/", 0) == 0) return 0;
    const std::string name = fs::path(file).filename().string();
    const std::string stem = name.substr(0, name.find('.'));
    for (size_t end = stem.size(); end != std::string::npos && end > 0; end = stem.rfind('_', end - 1)) {
        const auto floor = floor_table().find(stem.substr(0, end));
        if (floor != floor_table().end()) return floor->second;
    }
    return -1;
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

source_tree read_engine(const std::string& root) {
    source_tree tree;
    for (const char* area : {"libzero", "searchthing"}) {
        for (const auto& entry : fs::directory_iterator(root + "/" + area)) {
            const std::string extension = entry.path().extension().string();
            if (extension != ".h" && extension != ".cc") continue;
            tree[std::string(area) + "/" + entry.path().filename().string()] = read_file(entry.path().string());
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

std::vector<std::string> floor_faults(const source_tree& tree) {
    std::vector<std::string> faults;
    for (const auto& [file, text] : tree) {
        const int floor = floor_of(file);
        if (floor < 0) {
            faults.push_back(file + " stands on no floor: add it to FLOORS in tests/floors_test.cc");
            continue;
        }
        for (const include_line& include : includes_of(text)) {
            const std::string both = file + " includes " + include.target;
            if (include.angle) {
                if (!is_allowed_system_header(file, include.target)) faults.push_back(both + ", a foreign header");
            } else if (!tree.contains(include.target)) {
                faults.push_back(both + ", which is no file of the engine");
            } else if (floor_of(include.target) > floor) {
                faults.push_back(both + ", which is " + std::to_string(floor_of(include.target) - floor) +
                                 " floor(s) up");
            }
        }
    }
    check_circles(tree, &faults);
    return faults;
}

TEST(Floors, TheEngineIncludesOnlyDownwards) {
    const source_tree tree = read_engine(VELDAR_SOURCE_DIR);
    EXPECT_GT(tree.size(), 20u);
    for (const std::string& fault : floor_faults(tree)) ADD_FAILURE() << fault;
}

TEST(Floors, PlantedFaultsAreReported) {
    const source_tree sound = {{"libzero/vbe.h", "#include <cstdint>\n"},
                               {"searchthing/plist.cc", "#include \"libzero/vbe.h\"\n#include <xxhash.h>\n"}};
    EXPECT_TRUE(floor_faults(sound).empty());
    const std::pair<const char*, const char*> planted[] = {
        {"searchthing/bitmap.cc", "#include \"searchthing/plist.cc\"\n"},  // upwards
        {"searchthing/novelty.cc", ""},                                    // on no floor
        {"searchthing/list.cc", "  #  include <zlib.h>\n"},                // foreign
        {"libzero/hash.cc", "#include <xxhash.h>\n"},                      // only the engine proper has xxHash
        {"searchthing/st.cc", "#include \"tools/veldar/command.h\"\n"},    // the tools
        {"libzero/vbe.h", "#include \"libzero/vbe.h\"\n"},                 // a circle
    };
    for (const auto& [file, text] : planted) {
        source_tree tree = sound;
        tree[file] = text;
        EXPECT_EQ(floor_faults(tree).size(), 1u) << file;
    }
}

}  // namespace
}  // namespace veldar
