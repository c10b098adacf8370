// A slice against its seal.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/check/fsck_slice.h"

namespace veldar::tool {

enum seal_state_t {
    SEAL_NONE,
    SEAL_HOLDS,
    SEAL_DIFFERS,
    SEAL_DAMAGED,     // the seal's own file
    SEAL_VANISHED,    // the slice
    SEAL_UNREADABLE,  // one of the two
};

struct seal_finding {
    std::string section;
    uint64_t offset = 0, size = 0;  // of a piece that is not what was sealed
    std::string place;              // what lives there; may be empty
};
// "lists at byte 65536: 65536 bytes are not what was sealed: terms 3 "a" to 9 "b"".
std::string seal_finding_text(const seal_finding& finding);

struct seal_report {
    seal_state_t state = SEAL_NONE;
    std::vector<seal_finding> findings;  // of SEAL_DIFFERS, at least one
    std::string error;                   // of SEAL_DAMAGED and SEAL_UNREADABLE: a message that names the file
};
// Reads the whole slice if it has a seal. May throw std::bad_alloc.
seal_report fsck_seal(const std::string& slice);

}  // namespace veldar::tool
