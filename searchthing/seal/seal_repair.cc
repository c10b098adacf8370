#include <xxhash.h>

#include <algorithm>
#include <memory>

#include "searchthing/seal/slice_seal.h"

namespace veldar {

namespace {

constexpr size_t STEP = 1024;  // bytes that share the hash of what stands before them

struct state_closer {
    void operator()(XXH64_state_t* state) const { XXH64_freeState(state); }
};
using state_ptr = std::unique_ptr<XXH64_state_t, state_closer>;

}  // namespace

bool seal_repair(std::span<uint8_t> bytes, uint64_t hash) {
    const state_ptr before(XXH64_createState()), state(XXH64_createState());
    if (before == nullptr || state == nullptr) return false;
    XXH64_reset(before.get(), 0);
    for (size_t begin = 0; begin < bytes.size(); begin += STEP) {
        const std::span<uint8_t> rest = bytes.subspan(begin);
        const std::span<uint8_t> step = rest.first(std::min(STEP, rest.size()));
        for (size_t i = 0; i < 8 * step.size(); i++) {
            const auto bit = static_cast<uint8_t>(1u << (i % 8));
            step[i / 8] ^= bit;
            XXH64_copyState(state.get(), before.get());
            XXH64_update(state.get(), rest.data(), rest.size());
            if (XXH64_digest(state.get()) == hash) return true;
            step[i / 8] ^= bit;
        }
        XXH64_update(before.get(), step.data(), step.size());
    }
    return false;
}

}  // namespace veldar
