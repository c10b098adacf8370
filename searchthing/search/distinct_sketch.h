// How many different values there are, from their 64-bit hashes: exact up to 4,096 of them, then about.
//
// Beyond the exact set the state is a HyperLogLog of 2^14 registers (Flajolet, Fusy, Gandouet, Meunier: HyperLogLog,
// AofA 2007), read by the estimator of Ertl (New cardinality estimation algorithms for HyperLogLog sketches, 2017),
// which needs no table of corrections: standard error 1.04 / sqrt(2^14) = 0.81 %. Which of the two a state is depends on
// the values alone, and so does every register: states can be merged in any order and any grouping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "searchthing/base/language.h"

namespace veldar {

inline constexpr size_t DISTINCT_EXACT = 4096;
inline constexpr uint32_t DISTINCT_REGISTER_BITS = 14;
inline constexpr size_t DISTINCT_REGISTERS = size_t{1} << DISTINCT_REGISTER_BITS;
// The largest a register can be: the zeros in front of the hash's other bits, and one.
inline constexpr uint8_t DISTINCT_MAX_RANK = 64 - DISTINCT_REGISTER_BITS + 1;

// Empty as it is made. Everything here may throw std::bad_alloc.
struct distinct_sketch_t {
    std::vector<uint64_t> hashes;  // while exact; the first `ordered` of them ascend, none twice
    size_t ordered = 0;
    std::vector<uint8_t> registers;  // DISTINCT_REGISTERS of them once the set is no longer exact, else none
};

void distinct_sketch_add(distinct_sketch_t* sketch, uint64_t hash);
void distinct_sketch_merge(distinct_sketch_t* into, const distinct_sketch_t& other);
// Orders the hashes, or turns to registers: what the two functions below and the state's bytes stand on.
void distinct_sketch_settle(distinct_sketch_t* sketch);
// Of a settled sketch: how many values, and whether that is an estimate.
double distinct_sketch_count(const distinct_sketch_t& sketch, bool* is_estimate);
// Bytes of memory that it holds.
size_t distinct_sketch_size(const distinct_sketch_t& sketch);

}  // namespace veldar
