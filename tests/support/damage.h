// Damage: hands a test every small way in which a file can be wrong.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace veldar {

// Receives the damaged bytes and what was done to them.
using damage_fn = std::function<void(const std::string& bytes, const std::string& what)>;

struct damage_options {
    size_t from = 0;             // the first byte to touch
    size_t to = ~size_t{0};      // and one past the last
    size_t truncation_step = 1;  // every how many bytes the file is cut
    size_t flip_step = 1;        // every how many bytes one byte is flipped
    size_t word_step = 4;        // every how many bytes a 32-bit word is set
};

// Calls `f` with the file cut at every length, with each byte flipped (all its bits, and its lowest one), and with each
// 32-bit word set to 0, to 1 in both byte orders, and to all-ones. `f` sees bytes that differ from the original.
// Returns the number of calls.
size_t damage_sweep(const std::string& bytes, const damage_options& options, const damage_fn& f);

// Writes the file with one bit of byte number `at` the other way round, which bit depends on `at`.
void write_flipped(const std::string& path, std::string bytes, size_t at);

// What became of the damages of a file: for each 16 bytes of it the statuses, and a digest of all that was seen.
class damage_outcomes {
  public:
    void add(const std::string& what, int status, const std::string& seen);
    std::string text() const;

  private:
    std::map<size_t, std::pair<std::set<int>, uint64_t>> rows_;
};

// Compares outcomes with those that were found right before, tests/data/outcomes/NAME. After a wanted change VELDAR_KEEP=1
// writes that anew; what changed in it is read before it is kept. Nothing is compared under the sanitizers, whose
// compiler may order what is unordered in another way.
void expect_kept(const std::string& name, const std::string& outcomes);

// The lines of tests/data/rows/NAME.
std::vector<std::string> data_rows(const std::string& name);

}  // namespace veldar
