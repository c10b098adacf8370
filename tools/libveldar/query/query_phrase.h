// Phrases: texts that the index knows the words of, and that only the raw records decide.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace veldar::tool {

// A part of a phrase between two "*". Where it has to be whole, the record's word begins or ends there too.
struct raw_piece {
    std::string text;  // folded
    bool whole_begin = false;
    bool whole_end = false;
};

// A check of the raw record: it holds the piece, or one of its lines holds the pieces in this order, letters folded.
struct raw_pattern {
    std::vector<raw_piece> pieces;
};

// The check of a phrase, and the terms, some with a "*" where the phrase cuts a word, that every record holding it
// has. The phrase cuts words at its "*", and at its ends when it `may_cut` there.
raw_pattern phrase_pattern(std::string_view phrase, bool may_cut, std::vector<std::string>* terms);

// Whether a folded record passes the check.
bool record_holds(std::string_view record, const raw_pattern& pattern);

}  // namespace veldar::tool
