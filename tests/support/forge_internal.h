// What the forges of event slices and of metric slices share: numbers, bits and the sections that both write alike.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/forge.h"

namespace veldar::forging {

// Throws std::invalid_argument unless it holds.
void check(bool expressible, const std::string& what);
uint32_t bit_length(uint32_t v);
void put_be(std::string* out, uint64_t v, int bytes);

// A little-endian word stream filled from the least significant bit is a byte stream filled the same way.
struct bit_string {
    std::string bytes;
    uint64_t bits = 0;
    void put(uint64_t v, uint32_t nbits);
    std::string whole_words() const;
};

uint64_t next_section(uint64_t end);
void pad_to(std::string* out, uint64_t at);
std::string lexicon(const std::vector<std::string>& terms, uint32_t tperb, uint32_t uncompressed_size);
// From the picture's terms and postings alone: every term's encoding (with the term that a duplicate names), its list,
// and the section of offsets.
void choose_encodings(forge_picture* picture, const forge_options& options, std::vector<uint32_t>* dedup_target);
void forge_lists_of(forge_picture* picture, const forge_options& options);
std::string posting_offsets(const forge_picture& picture, const forge_options& options,
                            const std::vector<uint32_t>& dedup_target);

}  // namespace veldar::forging
