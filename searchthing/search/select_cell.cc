#include "searchthing/search/select_cell.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>

#include "libzero/assertions.h"
#include "searchthing/base/number.h"
#include "searchthing/columns/cset_codec.h"
#include "searchthing/search/distinct_sketch.h"
#include "searchthing/search/quantile_sketch.h"

namespace veldar {

namespace {

constexpr double NOTHING = std::numeric_limits<double>::quiet_NaN();
constexpr size_t TEXT_NODE = 80;  // bytes of a kept text's node, about

// Drops texts until no more than allowed are left.
void cut_values(kept_values_t* values) {
    while (values->texts.size() > SELECT_MAX_VALUES) {
        values->texts.erase(std::prev(values->texts.end()));
        values->is_cut = true;
    }
}

size_t keep_text(kept_values_t* values, std::string_view text) {
    const auto place = values->texts.lower_bound(text);
    if (place != values->texts.end() && *place == text) return 0;
    if (values->texts.size() == SELECT_MAX_VALUES && place == values->texts.end()) {
        values->is_cut = true;
        return 0;
    }
    values->texts.emplace_hint(place, text);
    cut_values(values);
    return TEXT_NODE + text.size();
}

template <typename Owner>
typename Owner::pointer made(Owner* part) {
    if (*part == nullptr) part->reset(new typename Owner::element_type());
    return part->get();
}

// Runs `change(part)` and tells by how much the part's memory grew.
template <typename Owner, typename Size, typename Change>
size_t grown(Owner* part, Size size, Change change) {
    const size_t before = *part == nullptr ? 0 : size(**part);
    change(made(part));
    const size_t after = size(**part);
    return after > before ? after - before : 0;
}

}  // namespace

void select_sketch_free::operator()(distinct_sketch_t* sketch) const {
    delete sketch;
}
void select_sketch_free::operator()(quantile_sketch_t* sketch) const {
    delete sketch;
}

void compensated_sum_add(compensated_sum_t* into, double number) {
    const double sum = into->sum + number;
    const bool is_larger = std::abs(into->sum) >= std::abs(number);
    into->lost += is_larger ? into->sum - sum + number : number - sum + into->sum;
    into->sum = sum;
}

double compensated_sum(const compensated_sum_t& of) {
    // Infinite sums lose infinities, which cancel out to NaN.
    return std::isfinite(of.sum) ? of.sum + of.lost : of.sum;
}

select_value_t select_value_of_text(const char* text) {
    select_value_t value = {.text = text};
    value.is_number = parse_query_number(text, &value.number) && !std::isnan(value.number);
    return value;
}

size_t select_cell_add(select_cell_t* cell, const select_value_t& value, uint64_t times, uint32_t aggregates) {
    size_t more = 0;
    cell->count += times;
    if ((aggregates & SELECT_DC) != 0) {
        const uint64_t hash = XXH64(value.text.data(), value.text.size(), 0);
        more +=
            grown(&cell->distinct, distinct_sketch_size, [&](distinct_sketch_t* d) { distinct_sketch_add(d, hash); });
    }
    if ((aggregates & SELECT_VALUES) != 0) more += keep_text(made(&cell->values), value.text);
    if (!value.is_number) return more;
    cell->numbers += times;
    const double n = static_cast<double>(times);
    compensated_sum_add(&cell->sum, value.number * n);
    if ((aggregates & SELECT_SUMSQ) != 0) compensated_sum_add(&cell->sum_of_squares, value.number * value.number * n);
    cell->minimum = std::min(cell->minimum, value.number);
    cell->maximum = std::max(cell->maximum, value.number);
    if ((aggregates & SELECT_QUANTILES) != 0) {
        more += grown(&cell->quantiles, quantile_sketch_size,
                      [&](quantile_sketch_t* q) { quantile_sketch_add(q, value.number, times); });
    }
    return more;
}

void select_cell_add_stats(select_cell_t* cell, const cs_stats_t& stats) {
    cell->count += stats.count + stats.nans;
    cell->numbers += stats.count;
    if (stats.count == 0) return;
    compensated_sum_add(&cell->sum, stats.sum);
    cell->minimum = std::min(cell->minimum, stats.min);
    cell->maximum = std::max(cell->maximum, stats.max);
}

size_t select_cell_merge(select_cell_t* into, const select_cell_t& other) {
    size_t more = 0;
    into->count += other.count;
    into->numbers += other.numbers;
    for (const auto sum : {&select_cell_t::sum, &select_cell_t::sum_of_squares}) {
        compensated_sum_add(&(into->*sum), (other.*sum).sum);
        (into->*sum).lost += (other.*sum).lost;
    }
    into->minimum = std::min(into->minimum, other.minimum);
    into->maximum = std::max(into->maximum, other.maximum);
    if (other.distinct != nullptr) {
        more += grown(&into->distinct, distinct_sketch_size,
                      [&](distinct_sketch_t* d) { distinct_sketch_merge(d, *other.distinct); });
    }
    if (other.values != nullptr) {
        kept_values_t* const values = made(&into->values);
        for (const std::string& text : other.values->texts) more += keep_text(values, text);
        values->is_cut |= other.values->is_cut;
    }
    if (other.quantiles != nullptr) {
        more += grown(&into->quantiles, quantile_sketch_size,
                      [&](quantile_sketch_t* q) { quantile_sketch_merge(q, *other.quantiles); });
    }
    return more;
}

size_t select_cell_size(const select_cell_t& cell) {
    size_t size = 0;
    if (cell.distinct != nullptr) size += distinct_sketch_size(*cell.distinct);
    if (cell.quantiles != nullptr) size += quantile_sketch_size(*cell.quantiles);
    if (cell.values == nullptr) return size;
    for (const std::string& text : cell.values->texts) size += TEXT_NODE + text.size();
    return size;
}

void select_cell_settle(select_cell_t* cell) {
    if (cell->distinct != nullptr) distinct_sketch_settle(cell->distinct.get());
    if (cell->quantiles != nullptr) quantile_sketch_settle(cell->quantiles.get());
}

double select_cell_sum(const select_cell_t& cell) {
    return compensated_sum(cell.sum);
}
double select_cell_sum_of_squares(const select_cell_t& cell) {
    return compensated_sum(cell.sum_of_squares);
}
double select_cell_minimum(const select_cell_t& cell) {
    return cell.numbers == 0 ? NOTHING : cell.minimum;
}
double select_cell_maximum(const select_cell_t& cell) {
    return cell.numbers == 0 ? NOTHING : cell.maximum;
}
double select_cell_average(const select_cell_t& cell) {
    return cell.numbers == 0 ? NOTHING : select_cell_sum(cell) / static_cast<double>(cell.numbers);
}

double select_cell_distinct(const select_cell_t& cell, bool* is_estimate) {
    *is_estimate = false;
    return cell.distinct == nullptr ? 0 : distinct_sketch_count(*cell.distinct, is_estimate);
}

double select_cell_quantile(const select_cell_t& cell, double q, bool* is_estimate) {
    *is_estimate = cell.quantiles != nullptr && !cell.quantiles->is_exact;
    if (cell.quantiles == nullptr || cell.numbers == 0) return NOTHING;
    ST_ASSERT(cell.minimum <= cell.maximum);
    return std::clamp(quantile_sketch_at(*cell.quantiles, q), cell.minimum, cell.maximum);
}

}  // namespace veldar
