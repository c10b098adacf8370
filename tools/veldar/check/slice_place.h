// What lives at some bytes of a slice, for people who are told that these bytes are damaged.
#pragma once

#include <cstdint>
#include <string>

#include "searchthing/seal/slice_seal.h"
#include "tools/veldar/check/slice_image.h"

namespace veldar::tool {

// "terms 12 "abc" to 40 "abz"", "values 0 to 511", "sets 3 to 9": as far as the rest of the slice can tell; empty when
// it cannot. May throw std::bad_alloc.
std::string slice_place_text(const slice_image& image, const seal_fault_t& fault);

}  // namespace veldar::tool
