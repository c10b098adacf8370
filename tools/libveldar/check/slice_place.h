// What lives at some bytes of a slice, for people who are told that these bytes are damaged.
#pragma once

#include <cstdint>
#include <string>

#include "searchthing/seal/slice_seal.h"
#include "tools/libveldar/check/slice_image.h"

namespace veldar::tool {

inline constexpr uint32_t NO_NUMBER = UINT32_MAX;

// Numbers from the first to the last; `first` NO_NUMBER for none.
struct number_range {
    uint32_t first = NO_NUMBER, last = 0;
    void add(uint32_t number) {
        if (first == NO_NUMBER) first = number;
        last = number;
    }
};

// The values, of a section that holds some, or the terms that lie in the bytes, as far as the rest of the slice can tell.
// May throw std::bad_alloc.
number_range slice_place_numbers(const slice_image& image, const seal_fault_t& fault);
// "terms 12 "abc" to 40 "abz"", "values 0 to 511", "sets 3 to 9": as far as the rest of the slice can tell; empty when
// it cannot. May throw std::bad_alloc.
std::string slice_place_text(const slice_image& image, const seal_fault_t& fault);

}  // namespace veldar::tool
