// Term matcher: a needle whose only wildcard is '*' (any run of bytes, also none), split once and asked about many
// terms. There is no escape, no case folding, and a needle without '*' matches only the identical term.
//
// The needle's pieces, the runs between its stars, have to occur in order and without overlap. The last piece of a
// needle that does not end with '*' must end the term, and is looked for from left to right among occurrences that do
// not overlap:
// "*aa" matches "baa" and "aaaa" but not "aaa", whose first "aa" leaves a single byte. This is meant.
#pragma once

#include <memory>
#include <string_view>

namespace veldar {

struct OpaqueMatcher_T;

// A new matcher, or null when memory is short. Ended by freeOpaqueMatcher; between the two it is constant, so any
// number of threads may match with it.
OpaqueMatcher_T* createMatcher(const char* needle);
// 1 when the NUL-terminated term matches, else 0.
int isMatch(const char* term, const OpaqueMatcher_T* matcher);
// The same with '*' for any bytes, without that exception: "*aa" matches "aaa" too.
bool matcher_spans(const char* term, const OpaqueMatcher_T* matcher);
void freeOpaqueMatcher(OpaqueMatcher_T* matcher);  // null is allowed
struct matcher_closer {
    void operator()(OpaqueMatcher_T* matcher) const { freeOpaqueMatcher(matcher); }
};
using matcher_ptr = std::unique_ptr<OpaqueMatcher_T, matcher_closer>;

// The fixed start, the fixed end and the whole of the needle; null when it has none. They live as long as the matcher.
const char* getHardStart(const OpaqueMatcher_T* matcher);
const char* getHardEnd(const OpaqueMatcher_T* matcher);
const char* getWord(const OpaqueMatcher_T* matcher);
// The longest piece of the needle, which every term holds that matches in either way; empty when it has none.
std::string_view getLongestPiece(const OpaqueMatcher_T* matcher);
// 4 for a needle without '*', 3 for one with '*' and text, -1 for the empty needle and for stars alone.
int getMatcherType(const OpaqueMatcher_T* matcher);
// Prints the pieces to standard output.
void debugOpaqueMatcher(const OpaqueMatcher_T* matcher);

}  // namespace veldar
