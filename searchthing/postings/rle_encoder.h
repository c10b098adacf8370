// Encodes one RLE list, which plist.h draws.
#pragma once

#include <cstdint>

#include "libzero/vbe.h"

namespace veldar {

// The most that one event adds: a pending run and a gap. As much room is needed once more to end the list.
inline constexpr uint64_t RLE_MAX_EMIT = 1 + 2 * VBE_MAX_BYTES;

struct rle_encoder_t {
    uint8_t* at;                 // where the next byte goes; the caller bounds it
    uint32_t last = 0, run = 0;  // `run` events up to `last` wait, each one above the one before
    bool is_first = true;

    // Events ascend. The first is always stored as itself: 0 and 1 would otherwise look like a repetition or a run.
    void put(uint32_t id) {
        const uint32_t gap = id - last;
        last = id;
        if (gap == 1 && !is_first) {
            run++;
            return;
        }
        is_first = false;
        end_run();
        number(gap);
    }
    void end_run() {
        if (run == 0) return;
        *at++ = 0;
        number(run);
        run = 0;
    }

  private:
    void number(uint32_t value) {
        if (value < 0x80) {
            *at++ = static_cast<uint8_t>(value);
        } else if (value < 0x4000) {
            *at++ = static_cast<uint8_t>(value | 0x80);
            *at++ = static_cast<uint8_t>(value >> 7);
        } else {
            at += st_encode_to_vbe(at, value);
        }
    }
};

}  // namespace veldar
