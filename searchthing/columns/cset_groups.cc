#include "searchthing/columns/cset_groups.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

#include "libzero/assertions.h"

namespace veldar {

namespace {

constexpr uint32_t BASE_BITS_BITS = 6, WIDTH_BITS = 6, PATCHES_BITS = 7, HIGH_BITS_BITS = 6, PLACE_BITS = 7;
static_assert(CSET_GROUP == 1u << PLACE_BITS);
constexpr uint32_t MAX_PATCHES = (1u << PATCHES_BITS) - 1;
constexpr uint32_t TRIED_WORSE = 2;  // widths after which narrower ones are given up
constexpr uint32_t FINENESS = 7;     // windows are looked for in steps of the range / 2^7

uint32_t bit_length(uint64_t number) {
    return static_cast<uint32_t>(std::bit_width(number));
}

uint64_t packed_size(uint32_t count, uint32_t width) {
    return (uint64_t{count} * width + 7) / 8;
}

std::span<const uint64_t> group_of(std::span<const uint64_t> numbers, uint32_t index) {
    const size_t begin = size_t{index} * CSET_GROUP;
    return numbers.subspan(begin, std::min<size_t>(CSET_GROUP, numbers.size() - begin));
}

uint32_t group_count(uint32_t numbers) {
    return (numbers + CSET_GROUP - 1) / CSET_GROUP;
}

// The high part of a number at a base and width.
int64_t high_part(uint64_t number, uint64_t base, uint32_t width) {
    return static_cast<int64_t>(number - base) >> width;
}

uint32_t signed_bits(int64_t number) {
    return bit_length(static_cast<uint64_t>(number < 0 ? ~number : number)) + 1;
}

uint64_t patches_cost(const cset_group_t& group) {
    return group.patches == 0 ? 0 : HIGH_BITS_BITS + uint64_t{group.patches} * (PLACE_BITS + group.high_bits);
}

// Numbers from `from` on, counted in parts of 2^shift: below[i] are those in the parts before part i.
struct part_counts {
    static constexpr size_t PARTS = size_t{1} << FINENESS;
    std::array<uint16_t, PARTS + 1> below = {};

    part_counts(std::span<const uint64_t> numbers, uint64_t from, uint32_t shift) {
        for (const uint64_t number : numbers) {
            const uint64_t part = (number - from) >> shift;
            if (part < PARTS) below[part + 1]++;
        }
        for (size_t i = 1; i <= PARTS; i++) below[i] = static_cast<uint16_t>(below[i] + below[i - 1]);
    }
    // The first of so many parts in a row that hold most numbers, and how many those are.
    size_t fullest(size_t parts, uint32_t* held) const {
        size_t best = 0;
        *held = 0;
        for (size_t part = 0; part + parts <= PARTS; part++) {
            const uint32_t count = below[part + parts] - uint32_t{below[part]};
            if (count <= *held) continue;
            *held = count;
            best = part;
        }
        return best;
    }
};

// Takes the narrower width at which the group is smallest: windows of the numbers' range, of which each leaves more of
// them to be patched. They are looked for in parts of the range, then again within the window that was best, while that
// is cheaper.
void plan_group(std::span<const uint64_t> numbers, cset_group_t* group) {
    const auto [lowest, highest] = std::minmax_element(numbers.begin(), numbers.end());
    const uint64_t low = *lowest, high = *highest;
    *group = {low, bit_length(high - low), 0, 0, 0};
    uint64_t cost = numbers.size() * group->width;
    bool goes_on = true;
    for (uint32_t range = group->width, shift = 0; goes_on && range > 0; range = shift) {
        const uint64_t from = group->base;
        shift = range - std::min(range, FINENESS);
        const part_counts counts(numbers, from, shift);
        uint32_t worse = 0;
        for (uint32_t width = range; width-- > shift && worse < TRIED_WORSE;) {
            uint32_t held = 0;
            const size_t part = counts.fullest(size_t{1} << (width - shift), &held);
            cset_group_t tried = {from + (part << shift), width, 0, static_cast<uint32_t>(numbers.size()) - held, 0};
            tried.high_bits = std::max(signed_bits(high_part(low, tried.base, width)),
                                       signed_bits(high_part(high, tried.base, width)));
            const uint64_t tried_cost = numbers.size() * width + patches_cost(tried);
            const bool fits = tried.patches <= MAX_PATCHES && tried.high_bits <= CSET_MAX_WIDTH;
            if (!fits || tried_cost >= cost) {
                worse++;
                continue;
            }
            worse = 0;
            cost = tried_cost;
            *group = tried;
        }
        goes_on = group->width == shift;  // the narrowest was best
    }
    if (group->patches == 0) group->high_bits = 0;
}

template <uint32_t WIDTH, size_t... PLACE>
void unpack_eight(const uint8_t* in, uint64_t base, uint64_t* out, std::index_sequence<PLACE...>) {
    ((out[PLACE] = base + ((load_le64(in + PLACE * WIDTH / 8) >> (PLACE * WIDTH % 8)) & ((uint64_t{1} << WIDTH) - 1))),
     ...);
}

// Eight numbers of a width take as many bytes as that: all shifts are known.
template <uint32_t WIDTH>
void unpack_eights(const uint8_t* in, uint32_t eights, uint64_t base, uint64_t* out) {
    for (uint32_t i = 0; i < eights; i++) {
        unpack_eight<WIDTH>(in + size_t{i} * WIDTH, base, out + size_t{i} * 8, std::make_index_sequence<8>());
    }
}

using unpack_fn = void (*)(const uint8_t*, uint32_t, uint64_t, uint64_t*);
template <size_t... WIDTH>
constexpr std::array<unpack_fn, sizeof...(WIDTH)> unpackers(std::index_sequence<WIDTH...>) {
    return {unpack_eights<WIDTH>...};
}
constexpr auto UNPACKERS = unpackers(std::make_index_sequence<CSET_MAX_WIDTH + 1>());

bool apply_patches(const cset_group_t& group, uint32_t count, const cset_bit_source& source, uint64_t* numbers) {
    if (group.patches == 0) return true;
    const uint64_t highs_at = group.places_at + uint64_t{group.patches} * PLACE_BITS;
    const uint64_t sign = uint64_t{1} << (group.high_bits - 1);
    for (uint32_t i = 0; i < group.patches; i++) {
        const uint64_t place = source.field(group.places_at + uint64_t{i} * PLACE_BITS, PLACE_BITS);
        const uint64_t bits = source.field(highs_at + uint64_t{i} * group.high_bits, group.high_bits);
        if (place >= count) return false;
        numbers[place] += ((bits ^ sign) - sign) << group.width;
    }
    return true;
}

}  // namespace

void cset_groups_plan(std::span<const uint64_t> numbers, cset_groups_t* groups) {
    ST_ASSERT(numbers.size() <= CSET_BLOCK_ELEMENTS);
    *groups = {};
    groups->count = static_cast<uint32_t>(numbers.size());
    uint64_t largest_base = 0;
    const uint32_t count = group_count(groups->count);
    groups->head_bits = BASE_BITS_BITS;
    for (uint32_t i = 0; i < count; i++) {
        const std::span<const uint64_t> of_group = group_of(numbers, i);
        cset_group_t* const group = &groups->groups[i];
        plan_group(of_group, group);
        ST_ASSERT(group->width <= CSET_MAX_WIDTH && group->high_bits <= CSET_MAX_WIDTH);
        largest_base = std::max(largest_base, group->base);
        groups->packed_size += packed_size(static_cast<uint32_t>(of_group.size()), group->width);
        groups->head_bits += WIDTH_BITS + PATCHES_BITS + patches_cost(*group);
    }
    groups->base_bits = bit_length(largest_base);
    ST_ASSERT(groups->base_bits <= CSET_MAX_WIDTH);
    groups->head_bits += uint64_t{count} * groups->base_bits;
}

void cset_groups_put_heads(std::span<const uint64_t> numbers, const cset_groups_t& groups, cset_bit_sink* sink) {
    sink->put(groups.base_bits, BASE_BITS_BITS);
    for (uint32_t i = 0; i < group_count(groups.count); i++) {
        const std::span<const uint64_t> of_group = group_of(numbers, i);
        const cset_group_t& group = groups.groups[i];
        sink->put(group.base, groups.base_bits);
        sink->put(group.width, WIDTH_BITS);
        sink->put(group.patches, PATCHES_BITS);
        if (group.patches == 0) continue;
        sink->put(group.high_bits - 1, HIGH_BITS_BITS);
        for (size_t k = 0; k < of_group.size(); k++) {
            if (high_part(of_group[k], group.base, group.width) != 0) sink->put(k, PLACE_BITS);
        }
        for (const uint64_t number : of_group) {
            const int64_t high = high_part(number, group.base, group.width);
            if (high != 0) sink->put(static_cast<uint64_t>(high) & cset_low_bits(group.high_bits), group.high_bits);
        }
    }
}

void cset_groups_put_packed(std::span<const uint64_t> numbers, const cset_groups_t& groups, uint8_t* out) {
    for (uint32_t i = 0; i < group_count(groups.count); i++) {
        const cset_group_t& group = groups.groups[i];
        cset_bit_sink sink{out};
        for (const uint64_t number : group_of(numbers, i)) {
            sink.put((number - group.base) & cset_low_bits(group.width), group.width);
        }
        out = sink.finish();
    }
}

bool cset_groups_get(cset_bit_source* source, uint32_t count, cset_groups_t* groups) {
    groups->count = count;
    groups->packed_size = 0;
    groups->base_bits = static_cast<uint32_t>(source->get(BASE_BITS_BITS));
    if (groups->base_bits > CSET_MAX_WIDTH) return false;
    for (uint32_t i = 0; i < group_count(count); i++) {
        cset_group_t* const group = &groups->groups[i];
        group->base = source->get(groups->base_bits);
        group->width = static_cast<uint32_t>(source->get(WIDTH_BITS));
        group->patches = static_cast<uint32_t>(source->get(PATCHES_BITS));
        group->high_bits = group->patches == 0 ? 0 : static_cast<uint32_t>(source->get(HIGH_BITS_BITS)) + 1;
        if (group->width > CSET_MAX_WIDTH || group->high_bits > CSET_MAX_WIDTH) return false;
        group->places_at = source->skip(uint64_t{group->patches} * (PLACE_BITS + group->high_bits));
        groups->packed_size += packed_size(std::min(CSET_GROUP, count - i * CSET_GROUP), group->width);
    }
    return !source->is_short;
}

bool cset_groups_unpack(const cset_groups_t& groups, const cset_bit_source& source, const uint8_t* packed, uint64_t low,
                        uint64_t* out) {
    uint32_t left = groups.count;
    for (const cset_group_t* group = groups.groups; left > 0; group++) {
        const uint32_t count = std::min(CSET_GROUP, left);
        const uint32_t eights = count / 8;
        UNPACKERS[group->width](packed, eights, low + group->base, out);
        for (uint32_t i = eights * 8; i < count; i++) {
            const uint64_t bit = uint64_t{i} * group->width;
            out[i] = low + group->base + ((load_le64(packed + bit / 8) >> (bit % 8)) & cset_low_bits(group->width));
        }
        if (!apply_patches(*group, count, source, out)) return false;
        packed += packed_size(count, group->width);
        out += count;
        left -= count;
    }
    return true;
}

}  // namespace veldar
