#include "searchthing/search/distinct_sketch.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr size_t FIRST_LENGTH = 16;  // of the list of hashes before it is ordered for the first time

void set_register(distinct_sketch_t* sketch, uint64_t hash) {
    const uint64_t rest = hash << DISTINCT_REGISTER_BITS;
    const int zeros = rest == 0 ? 64 - static_cast<int>(DISTINCT_REGISTER_BITS) : __builtin_clzll(rest);
    uint8_t& held = sketch->registers[hash >> (64 - DISTINCT_REGISTER_BITS)];
    held = std::max(held, static_cast<uint8_t>(zeros + 1));
}

// The two series of Ertl's estimator: for the registers that are still 0, and for those that can grow no further.
double sigma(double x) {
    double y = 1, z = x, before = 0;
    do {
        x *= x;
        before = z;
        z += x * y;
        y += y;
    } while (z != before);
    return z;
}

double tau(double x) {
    double y = 1, z = 1 - x, before = 0;
    do {
        x = std::sqrt(x);
        before = z;
        y *= 0.5;
        z -= (1 - x) * (1 - x) * y;
    } while (z != before);
    return z / 3;
}

double estimate(const std::vector<uint8_t>& registers) {
    ST_ASSERT(registers.size() == DISTINCT_REGISTERS);
    std::array<uint32_t, DISTINCT_MAX_RANK + 1> holding = {};
    for (const uint8_t rank : registers) holding[rank]++;
    const double m = DISTINCT_REGISTERS;
    double z = m * tau(1 - holding[DISTINCT_MAX_RANK] / m);
    for (size_t rank = DISTINCT_MAX_RANK - 1; rank >= 1; rank--) z = 0.5 * (z + holding[rank]);
    z += m * sigma(holding[0] / m);
    return m * m / (2 * std::log(2.0) * z);
}

}  // namespace

void distinct_sketch_settle(distinct_sketch_t* sketch) {
    std::vector<uint64_t>& hashes = sketch->hashes;
    if (sketch->ordered == hashes.size()) return;
    ST_ASSERT(sketch->ordered < hashes.size() && sketch->registers.empty());
    const auto middle = hashes.begin() + static_cast<ptrdiff_t>(sketch->ordered);
    std::sort(middle, hashes.end());
    std::inplace_merge(hashes.begin(), middle, hashes.end());
    hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());
    sketch->ordered = hashes.size();
    if (hashes.size() <= DISTINCT_EXACT) return;
    sketch->registers.resize(DISTINCT_REGISTERS);
    for (const uint64_t hash : hashes) set_register(sketch, hash);
    hashes = {};
    sketch->ordered = 0;
}

void distinct_sketch_add(distinct_sketch_t* sketch, uint64_t hash) {
    if (!sketch->registers.empty()) return set_register(sketch, hash);
    sketch->hashes.push_back(hash);
    if (sketch->hashes.size() >= std::max(FIRST_LENGTH, 2 * sketch->ordered)) distinct_sketch_settle(sketch);
}

void distinct_sketch_merge(distinct_sketch_t* into, const distinct_sketch_t& other) {
    if (!other.registers.empty()) {
        if (into->registers.empty()) into->registers.resize(DISTINCT_REGISTERS);
        for (size_t i = 0; i < DISTINCT_REGISTERS; i++) {
            into->registers[i] = std::max(into->registers[i], other.registers[i]);
        }
        for (const uint64_t hash : into->hashes) set_register(into, hash);
        into->hashes = {};
        into->ordered = 0;
    }
    for (const uint64_t hash : other.hashes) distinct_sketch_add(into, hash);
    distinct_sketch_settle(into);
}

double distinct_sketch_count(const distinct_sketch_t& sketch, bool* is_estimate) {
    ST_ASSERT(sketch.ordered == sketch.hashes.size() && sketch.ordered <= DISTINCT_EXACT);
    ST_ASSERT(sketch.hashes.empty() || sketch.registers.empty());
    *is_estimate = !sketch.registers.empty();
    return *is_estimate ? estimate(sketch.registers) : static_cast<double>(sketch.hashes.size());
}

size_t distinct_sketch_size(const distinct_sketch_t& sketch) {
    return sketch.hashes.capacity() * sizeof(uint64_t) + sketch.registers.capacity();
}

}  // namespace veldar
