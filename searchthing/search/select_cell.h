// The state of one projection in one row of a selection: what values add to, what merges, and what is told in the end.
//
// Merging is associative and commutative; only the last digits of the two sums, which are compensated (Neumaier:
// Rundungsfehleranalyse einiger Verfahren zur Summation endlicher Summen, ZAMM 1974), may depend on the order.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "searchthing/base/language.h"

namespace veldar {

struct cs_stats_t;         // cset_codec.h
struct distinct_sketch_t;  // distinct_sketch.h
struct quantile_sketch_t;  // quantile_sketch.h
struct select_sketch_free {
    void operator()(distinct_sketch_t* sketch) const;
    void operator()(quantile_sketch_t* sketch) const;
};
template <typename Sketch>
using select_sketch_ptr = std::unique_ptr<Sketch, select_sketch_free>;

// What is wanted of a field: bits of select_projection_t::aggregates.
enum select_aggregate_t : uint32_t {
    SELECT_COUNT = 1,  // of the values
    SELECT_SUM = 2,    // this and the three below, and the quantiles: of the values that are numbers
    SELECT_SUMSQ = 4,
    SELECT_MIN = 8,
    SELECT_MAX = 16,
    SELECT_AVG = 32,
    SELECT_DC = 64,       // how many different values there are
    SELECT_VALUES = 128,  // which
    SELECT_QUANTILES = 256,
};
inline constexpr uint32_t SELECT_ALL_AGGREGATES = 511;
static_assert(SELECT_ALL_AGGREGATES == 2 * SELECT_QUANTILES - 1);

// So many of the values of a cell are kept, the bytewise smallest.
inline constexpr size_t SELECT_MAX_VALUES = 4096;

struct compensated_sum_t {
    double sum = 0;
    double lost = 0;  // what rounding took from it
};
void compensated_sum_add(compensated_sum_t* into, double number);
double compensated_sum(const compensated_sum_t& of);

struct kept_values_t {
    std::set<std::string, std::less<>> texts;
    bool is_cut = false;  // there are more
};

struct select_cell_t {
    uint64_t count = 0;    // values
    uint64_t numbers = 0;  // those that are numbers; the next four are of these
    compensated_sum_t sum, sum_of_squares;
    double minimum = std::numeric_limits<double>::infinity();
    double maximum = -std::numeric_limits<double>::infinity();
    select_sketch_ptr<distinct_sketch_t>
        distinct;  // null until a value comes that is to be counted so, as the next two
    std::unique_ptr<kept_values_t> values;
    select_sketch_ptr<quantile_sketch_t> quantiles;
};

// A value as it stands in a term or a column. What is no number (NaN included) takes no part in numbers.
struct select_value_t {
    std::string_view text;
    double number = 0;
    bool is_number = false;
};
select_value_t select_value_of_text(const char* text);  // NUL-terminated; borrowed

// These may throw std::bad_alloc. They return by how many bytes the cell's memory has grown.

// Adds a value that occurs `times` times. `aggregates` is the same at every call for a cell.
size_t select_cell_add(select_cell_t* cell, const select_value_t& value, uint64_t times, uint32_t aggregates);
// Adds numbers of which only these sums are known; DC, VALUES, QUANTILES and SUMSQ need each of them.
void select_cell_add_stats(select_cell_t* cell, const cs_stats_t& stats);
size_t select_cell_merge(select_cell_t* into, const select_cell_t& other);
// Bytes that it holds beside itself.
size_t select_cell_size(const select_cell_t& cell);
// What the functions below stand on; once everything has been added.
void select_cell_settle(select_cell_t* cell);

// What is told. Without numbers sums are 0, the others NaN.
double select_cell_sum(const select_cell_t& cell);
double select_cell_sum_of_squares(const select_cell_t& cell);
double select_cell_minimum(const select_cell_t& cell);
double select_cell_maximum(const select_cell_t& cell);
double select_cell_average(const select_cell_t& cell);
double select_cell_distinct(const select_cell_t& cell, bool* is_estimate);
// The value of rank ceil(q n) of the n numbers, q from 0 to 1; beyond 4,096 different ones an estimate within 1 %.
double select_cell_quantile(const select_cell_t& cell, double q, bool* is_estimate);

}  // namespace veldar
