#include "searchthing/search/quantile_sketch.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr size_t FIRST_LENGTH = 16;  // of the list of numbers before it is ordered for the first time
constexpr double GAMMA = (1 + QUANTILE_ERROR) / (1 - QUANTILE_ERROR);
const double LOG_GAMMA = std::log(GAMMA);

int32_t bucket_of(double magnitude) {
    if (std::isinf(magnitude)) return QUANTILE_MAX_BUCKET;
    return static_cast<int32_t>(std::ceil(std::log(magnitude) / LOG_GAMMA));
}

double number_of(int32_t bucket) {
    return std::exp(bucket * LOG_GAMMA) * (2 / (GAMMA + 1));  // of the last one infinity
}

void count(quantile_buckets_t* buckets, int32_t bucket, uint64_t times) {
    ST_ASSERT(bucket >= QUANTILE_MIN_BUCKET && bucket <= QUANTILE_MAX_BUCKET);
    std::vector<uint64_t>& counts = buckets->counts;
    if (counts.empty()) buckets->first = bucket;
    if (bucket < buckets->first) {
        counts.insert(counts.begin(), static_cast<size_t>(buckets->first - bucket), 0);
        buckets->first = bucket;
    }
    const auto place = static_cast<size_t>(bucket - buckets->first);
    if (place >= counts.size()) counts.resize(place + 1);
    counts[place] += times;
}

void count_number(quantile_sketch_t* sketch, double number, uint64_t times) {
    if (number == 0) {
        sketch->zeros += times;
    } else {
        count(number > 0 ? &sketch->positive : &sketch->negative, bucket_of(std::abs(number)), times);
    }
}

void merge_buckets(quantile_buckets_t* into, const quantile_buckets_t& other) {
    for (size_t i = 0; i < other.counts.size(); i++) {
        if (other.counts[i] != 0) count(into, other.first + static_cast<int32_t>(i), other.counts[i]);
    }
}

void turn_to_buckets(quantile_sketch_t* sketch) {
    ST_ASSERT(sketch->is_exact && sketch->zeros == 0 && sketch->positive.counts.empty());
    sketch->is_exact = false;
    for (const quantile_number_t& held : sketch->numbers) count_number(sketch, held.number, held.times);
    sketch->numbers = {};
    sketch->ordered = 0;
}

uint64_t total(const quantile_buckets_t& buckets) {
    uint64_t sum = 0;
    for (const uint64_t times : buckets.counts) sum += times;
    return sum;
}

}  // namespace

void quantile_sketch_settle(quantile_sketch_t* sketch) {
    std::vector<quantile_number_t>& numbers = sketch->numbers;
    if (sketch->ordered == numbers.size()) return;
    ST_ASSERT(sketch->ordered < numbers.size() && sketch->is_exact);
    const auto less = [](const quantile_number_t& a, const quantile_number_t& b) { return a.number < b.number; };
    const auto middle = numbers.begin() + static_cast<ptrdiff_t>(sketch->ordered);
    std::sort(middle, numbers.end(), less);
    std::inplace_merge(numbers.begin(), middle, numbers.end(), less);
    size_t kept = 0;
    for (size_t i = 1; i < numbers.size(); i++) {
        if (numbers[i].number == numbers[kept].number) {
            numbers[kept].times += numbers[i].times;
        } else {
            numbers[++kept] = numbers[i];
        }
    }
    numbers.resize(kept + 1);
    sketch->ordered = numbers.size();
    if (numbers.size() > QUANTILE_EXACT) turn_to_buckets(sketch);
}

void quantile_sketch_add(quantile_sketch_t* sketch, double number, uint64_t times) {
    ST_ASSERT(!std::isnan(number));
    if (!sketch->is_exact) return count_number(sketch, number, times);
    sketch->numbers.push_back({number == 0 ? 0.0 : number, times});
    if (sketch->numbers.size() >= std::max(FIRST_LENGTH, 2 * sketch->ordered)) quantile_sketch_settle(sketch);
}

void quantile_sketch_merge(quantile_sketch_t* into, const quantile_sketch_t& other) {
    if (!other.is_exact && into->is_exact) turn_to_buckets(into);
    into->zeros += other.zeros;
    merge_buckets(&into->positive, other.positive);
    merge_buckets(&into->negative, other.negative);
    for (const quantile_number_t& held : other.numbers) quantile_sketch_add(into, held.number, held.times);
    quantile_sketch_settle(into);
}

double quantile_sketch_at(const quantile_sketch_t& sketch, double q) {
    ST_ASSERT(sketch.ordered == sketch.numbers.size());
    uint64_t n = total(sketch.negative) + sketch.zeros + total(sketch.positive);
    for (const quantile_number_t& held : sketch.numbers) n += held.times;
    if (n == 0) return std::numeric_limits<double>::quiet_NaN();
    const double rank = std::ceil(std::clamp(q, 0.0, 1.0) * static_cast<double>(n));
    uint64_t left = std::clamp<uint64_t>(static_cast<uint64_t>(rank), 1, n);
    for (const quantile_number_t& held : sketch.numbers) {
        if (left <= held.times) return held.number;
        left -= held.times;
    }
    ST_ASSERT(!sketch.is_exact);  // no rank is above the sum of all counts
    const quantile_buckets_t& negative = sketch.negative;
    for (size_t i = negative.counts.size(); i-- > 0; left -= negative.counts[i]) {
        if (left <= negative.counts[i]) return -number_of(negative.first + static_cast<int32_t>(i));
    }
    if (left <= sketch.zeros) return 0;
    left -= sketch.zeros;
    const quantile_buckets_t& positive = sketch.positive;
    size_t i = 0;
    for (; i + 1 < positive.counts.size() && left > positive.counts[i]; i++) left -= positive.counts[i];
    ST_ASSERT(i < positive.counts.size() && left <= positive.counts[i]);
    return number_of(positive.first + static_cast<int32_t>(i));
}

size_t quantile_sketch_size(const quantile_sketch_t& sketch) {
    const size_t buckets = sketch.positive.counts.capacity() + sketch.negative.counts.capacity();
    return sketch.numbers.capacity() * sizeof(quantile_number_t) + buckets * sizeof(uint64_t);
}

}  // namespace veldar
