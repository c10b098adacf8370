// A cursor over the terms of a lexicon, in ascending order: the walk for callers that read several lexicons at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "searchthing/lexicon/fclex.h"

namespace veldar {

struct fclex_cursor_t;
struct fclex_cursor_closer {
    void operator()(fclex_cursor_t* cursor) const;
};
using fclex_cursor_ptr = std::unique_ptr<fclex_cursor_t, fclex_cursor_closer>;

// The term that a cursor stands on; valid until the cursor moves.
struct fclex_cursor_term_t {
    uint32_t id = 0;
    uint32_t length = 0;         // at most 2047
    const char* text = nullptr;  // NUL-terminated; null at the end
};

// A cursor before the first term that begins with `prefix` (any term when it is null or empty), unless it is null comes
// behind `after`, and holds `infix`; or null with WARM_RC_NO_LEXICON for a null one, WARM_RC_NO_MEMORY, or the failure of the look-up.
// The lexicon and the infix must outlive it, and the lexicon may be used meanwhile; any number of cursors may share one. A file is read in pieces of at most
// `piece_bytes` (more only for a larger block).
fclex_cursor_ptr fclex_cursor_open(FCLEX* lex, const char* prefix, const char* after, std::string_view infix,
                                   uint64_t piece_bytes, st_query_info_t* stats, warm_rc_t* rc);
// Moves to the next term; after the last one the text is null. 0, WARM_RC_READ for a block that cannot be read, CORRUPT for
// damage, NO_MEMORY.
[[nodiscard]] int fclex_cursor_next(fclex_cursor_t* cursor, fclex_cursor_term_t* term, warm_rc_t* rc);

}  // namespace veldar
