// Damage: hands a test every small way in which a file can be wrong.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

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

}  // namespace veldar
