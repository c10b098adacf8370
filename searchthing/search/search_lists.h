// The posting lists of a query's terms in one slice: into bits, into a list of numbers, and as filters of both. A list is
// read from the bits that its slice has kept, or with the marks in it (kept_lists.h), and remembered for the next time.
//
// All of it happens over the context's range. Each function gives 0 or a status that the context holds too.
#pragma once

#include <cstdint>

#include "libzero/resource.h"
#include "searchthing/search/search_literals.h"

namespace veldar {

// ORs a list into a bitmap. With `keep` it may be remembered.
[[nodiscard]] int list_or_into(conjunction_context* context, uint32_t term, bool keep, uint8_t* bitmap);
// Allocates and fills `ids` with the `count` numbers of a list. One that has more of them than the term's metadata counts
// is damage: cutting it would lose events.
[[nodiscard]] int list_start(conjunction_context* context, const term_lookup_t& term, buffer<uint32_t>* ids,
                             uint32_t* count);
// Keeps those of the `count` ascending ids that the list holds too, or with `keep` false the others.
[[nodiscard]] int list_filter_ids(conjunction_context* context, const term_lookup_t& term, bool keep, uint32_t* ids,
                                  uint32_t* count);
// The same with the bits of a bitmap. `scratch` is for lists whose bits are not at hand.
[[nodiscard]] int list_filter_bits(conjunction_context* context, uint32_t term, bool keep, buffer<uint8_t>* scratch,
                                   uint8_t* bitmap);
// A zeroed bitmap, allocated if it is not there yet.
[[nodiscard]] int list_scratch(conjunction_context* context, buffer<uint8_t>* bitmap);

}  // namespace veldar
