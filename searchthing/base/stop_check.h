// Long work that can be ended early: somebody is asked now and then whether it is still wanted.
#pragma once

#include <cstdint>

#include "searchthing/base/warm_rc.h"

namespace veldar {

// Asked by the thread that works; true, from then on, when the work is to end. Must not throw.
using warm_stop_fn = bool (*)(void* context);

struct stop_check {
    // Steps between two questions; the longest, the decoding of a term or a value, takes some 100 ns. Tests make it small.
    static inline uint64_t steps_a_question = 4096;

    warm_stop_fn asked = nullptr;  // null: the work always goes on
    void* context = nullptr;
    uint64_t steps = 0;  // since the last question

    // After so many steps more: 0, or WARM_RC_CANCELLED.
    [[nodiscard]] int after(uint64_t done, warm_rc_t* rc) {
        steps += done;
        return steps < steps_a_question ? 0 : ask(rc);
    }
    [[nodiscard]] int ask(warm_rc_t* rc) {
        steps = 0;
        const bool stops = asked != nullptr && asked(context);
        return stops ? _set_rc_msg(rc, WARM_RC_CANCELLED, "ended before it was done") : 0;
    }
};

}  // namespace veldar
