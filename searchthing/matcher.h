// Term matcher: a needle whose only wildcard is '*', split once and asked about many terms.
#pragma once

#include <cstdint>

namespace veldar {

struct OpaqueMatcher_T;

OpaqueMatcher_T* createMatcher(const char* needle);
int isMatch(const char* term, const OpaqueMatcher_T* matcher);
void freeOpaqueMatcher(OpaqueMatcher_T* matcher);
const char* getHardStart(const OpaqueMatcher_T* matcher);
const char* getHardEnd(const OpaqueMatcher_T* matcher);
const char* getWord(const OpaqueMatcher_T* matcher);
int getMatcherType(const OpaqueMatcher_T* matcher);
void debugOpaqueMatcher(const OpaqueMatcher_T* matcher);

}  // namespace veldar
