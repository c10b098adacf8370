// What the slices at one place answer to a question, as a partial answer (partial_stream.h).
#pragma once

#include <optional>
#include <string>

#include "tools/libveldar/partial/budget.h"
#include "tools/libveldar/partial/partial_stream.h"
#include "tools/libveldar/partial/question.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

// Where an answer begins and how far it may go.
struct answer_limits {
    answer_budget budget;
    std::optional<answer_cursor> from;  // where an earlier one ended
};

// Answers from the store, directory or slice at `path`, and returns where to go on: null when all is told. Limits go with
// events, samples, counts and statistics without rates (OUTCOME_USAGE else). What cannot be read is told to `trouble` and
// in the answer's end; a failure leaves an answer without its end. Throws failure_t, and what the sink throws.
std::optional<answer_cursor> partial_answer(const std::string& path, const question& asked, const partial_sink& sink,
                                            troubles* trouble, const answer_limits& limits = {});

// The choice of terms that a question of terms, fields, seen or new is about.
term_choice_t question_terms(const question& asked);

}  // namespace veldar::tool
