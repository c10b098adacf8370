// The language that every header of the engine is written in.
#pragma once

#if __cplusplus < 202002L
#error "veldar needs C++20: compile with -std=c++20 or later"
#endif
