#include "tools/libveldar/query/suggestion.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace veldar::tool {

namespace {

// How many letters have to be put in, left out, replaced or swapped with their neighbour to make one word the other.
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> before, above(b.size() + 1), row(b.size() + 1);
    std::iota(above.begin(), above.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); j++) {
            row[j + 1] = std::min({above[j + 1] + 1, row[j] + 1, above[j] + (a[i] == b[j] ? 0 : 1)});
            const bool swapped = i > 0 && j > 0 && a[i] == b[j - 1] && a[i - 1] == b[j];
            if (swapped) row[j + 1] = std::min(row[j + 1], before[j - 1] + 1);
        }
        before = above;
        std::swap(above, row);
    }
    return above[b.size()];
}

}  // namespace

std::string nearest_name(const std::string& word, const std::vector<std::string>& names) {
    std::string best;
    size_t least = std::min<size_t>(3, word.size() / 3 + 1) + 1;
    for (const std::string& name : names) {
        const size_t far = name.starts_with(word) && word.size() > 1 ? 1 : distance(word, name);
        if (far < least) {
            least = far;
            best = name;
        }
    }
    return best;
}

}  // namespace veldar::tool
