// The terms of an open slice in ascending order, and what its metadata say of them.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "searchthing/lexicon/fclex_cursor.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/lexicon/term_choice.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// A walk over the terms of one slice, which must outlive it, as must the choice.
class warm_terms {
  public:
    // Stands before the first term. `piece_bytes` is for reading the lexicon (fclex_cursor.h). 0; WARM_RC_MINIFIED for
    // a minified slice, or the failure of a read. May throw std::bad_alloc.
    [[nodiscard]] int open(WARM* warm, const term_choice_t& choice, uint64_t piece_bytes, warm_rc_t* rc);
    // Moves to the next term that is wanted, or to the end. 0, or the failure of a read.
    [[nodiscard]] int next(warm_rc_t* rc);
    bool at_end() const { return term_.text == nullptr; }
    // NUL-terminated; valid until the next move.
    std::string_view text() const { return {term_.text, term_.length}; }
    // Adds what the slice says of the term. Where it stores counts alone, the times are those of its name. 0, or a
    // failure of warm_slice_recomputed_metadata.
    [[nodiscard]] int add_totals(term_totals_t* totals, warm_rc_t* rc);

  private:
    bool is_wanted() const;
    [[nodiscard]] int look_up(warm_rc_t* rc);

    WARM* warm_ = nullptr;
    const term_choice_t* choice_ = nullptr;
    matcher_ptr matcher_;
    fclex_cursor_ptr cursor_;  // null where a single term is looked up
    bool looked_up_ = false;
    fclex_cursor_term_t term_;
};

// Receives a term, NUL-terminated and valid for this call only, its length and its event count.
using warm_term_fn = int (*)(const char* term, size_t length, uint64_t count, void* context);
// st_fclex_apply with event counts: the total of the results; -1 when the function stopped the walk, and then `rc` says
// nothing; else a failure as above.
[[nodiscard]] int64_t warm_slice_apply_terms(WARM* warm, const char* prefix, warm_term_fn fn, void* context,
                                             warm_rc_t* rc);
// st_fclex_enum with event counts in place of ids: how many answers there are, or a failure as above.
[[nodiscard]] int warm_slice_enum(WARM* warm, const char* prefix, st_enum_answer* answers, uint32_t capacity,
                                  bool case_flag, warm_rc_t* rc);

}  // namespace veldar
