// The quantiles of numbers: exact up to 4,096 different ones, then within 1 % of the value.
//
// Beyond the exact list the state is a DDSketch (Masson, Rim, Lee: DDSketch: a fast and fully-mergeable quantile sketch
// with relative-error guarantees, VLDB 2019): bucket i counts the numbers of (g^(i-1), g^i], g = 1.01 / 0.99, each of
// which is within 1 % of 2 g^i / (g + 1). Negative numbers have buckets of their own, 0 is counted apart. The buckets
// of all doubles are fewer than 75,000 a sign, so none are ever joined. Which of the two a state is depends on the
// numbers alone, and so does every count: states can be merged in any order and any grouping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "searchthing/base/language.h"

namespace veldar {

inline constexpr size_t QUANTILE_EXACT = 4096;
inline constexpr double QUANTILE_ERROR = 0.01;
// Bucket numbers lie between these; the last is that of infinity.
inline constexpr int32_t QUANTILE_MIN_BUCKET = -37300;
inline constexpr int32_t QUANTILE_MAX_BUCKET = 35600;

struct quantile_number_t {
    double number;
    uint64_t times;
};

// The buckets of one sign: counts[i] belongs to bucket first + i.
struct quantile_buckets_t {
    int32_t first = 0;
    std::vector<uint64_t> counts;
};

// Empty as it is made. Everything here may throw std::bad_alloc.
struct quantile_sketch_t {
    std::vector<quantile_number_t> numbers;  // while exact; the first `ordered` of them ascend, none twice
    size_t ordered = 0;
    bool is_exact = true;
    uint64_t zeros = 0;  // the rest once the list is no longer exact
    quantile_buckets_t positive, negative;
};

// Adds a number (not NaN, asserted) as often as told.
void quantile_sketch_add(quantile_sketch_t* sketch, double number, uint64_t times);
void quantile_sketch_merge(quantile_sketch_t* into, const quantile_sketch_t& other);
// Orders the numbers, or turns to buckets: what the function below and the state's bytes stand on.
void quantile_sketch_settle(quantile_sketch_t* sketch);
// Of a settled sketch: the number of rank ceil(q n), at least 1, of all n in ascending order; q from 0 to 1. NaN when
// there are none.
double quantile_sketch_at(const quantile_sketch_t& sketch, double q);
// Bytes of memory that it holds.
size_t quantile_sketch_size(const quantile_sketch_t& sketch);

}  // namespace veldar
