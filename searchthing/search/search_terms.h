// The lexicon's side of a search: which terms a literal or a comparison stands for. Each is looked up once a query and
// then answered from the context, so that the windows of a search cost no further lookups. For search_*.cc only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/search/search_literals.h"

namespace veldar {

bool is_wildcard(const conjunction_context* context, const std::string& literal);

// Each gives 0, or a status that context->rc holds too. What they point `out` at lives as long as the context. May
// throw std::bad_alloc.

// An exact term with its count and time span; one that the slice does not have is no failure.
[[nodiscard]] int lookup_exact(conjunction_context* context, const std::string& literal, const term_lookup_t** out);
// The ids of the terms that a wildcard literal matches, ascending, without those whose time span misses the bounds.
[[nodiscard]] int lookup_wildcard(conjunction_context* context, const std::string& literal,
                                  const std::vector<uint32_t>** out);
// The same for a comparison. When missing values match a NEQ, they are the terms to take out.
[[nodiscard]] int lookup_comparison(conjunction_context* context, const comp_t& comparison,
                                    const std::vector<uint32_t>** out);

}  // namespace veldar
