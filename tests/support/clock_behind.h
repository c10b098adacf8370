#pragma once

namespace veldar {

// While it lives, the wall clock is an hour behind, so that no stamp of a file is an old one.
struct clock_behind {
    clock_behind();
    ~clock_behind();
    clock_behind(const clock_behind&) = delete;
    clock_behind& operator=(const clock_behind&) = delete;
};

}  // namespace veldar
