// The checker of one slice file: every rule of the format, and every relation between its sections.
//
// It reads the bytes on its own, without the engine's readers: those stop at the first fault, and this one goes on with
// whatever can still be told.
//
//   section         must hold
//   name            parses; its times are those of the header (of the values where the header has none)
//   header          known magic, known flags, zero reserves, widths that readers can take, counts that agree
//   values          newest first, times and addresses within the header's, the header's times met
//   m s st h d      as many bytes as the values need, or none
//   offsets         ascending over the lists that have bytes, payloads in range, the last one the size of all lists
//   lists           numbers ascend and are below num_values, each list fills its bytes, num_postings in all
//   metadata        count, earliest and latest time of each list
//   lexicon         num_terms terms, ascending and without a NUL, block ends ascend, blocks used up
//   dimension sets  magic, number of sets, ends that ascend to the body's size
//   everywhere      sections lie inside the file, and the bytes between and behind them are zero
//
// and in slices of metrics whose values begin with preambles
//
//   values          runs follow each other over all values, each newest first
//   dimension sets  ascend, as do their dimensions and columns; their terms exist and are of the kind of their place
//   lists           hold the runs whose sets hold the term
//   metadata        count, earliest and latest time of those runs
//   column store    a column for every metric of a set and no other, with an element for every value of its runs;
//                   every checksum
//
// Lists and metadata of older slices of metrics are not compared with anything.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/check/slice_image.h"

namespace veldar::tool {

struct fsck_finding {
    slice_section_t section = IN_HEADER;
    uint64_t offset = 0;    // in the file
    const char* what = "";  // the kind of fault, a literal
    std::string detail;     // the numbers
    bool has_term = false;
    uint32_t term = 0;      // its number
    std::string term_text;  // empty where the lexicon cannot tell it
};

struct fsck_encoding_facts {
    uint64_t lists = 0, bytes = 0;
};

// What was found and counted on the way; all of it what the checks got to see.
struct fsck_report {
    uint32_t per_kind = 10;  // findings to keep of one kind in one section
    std::vector<fsck_finding> findings;
    std::map<std::pair<slice_section_t, std::string_view>, uint64_t> kinds;  // all of them, counted
    uint64_t total = 0;
    std::array<fsck_encoding_facts, 4> encodings = {};  // by plo_type_t
    uint64_t term_bytes = 0;                            // text of all terms
    uint64_t deleted = 0;
    uint64_t samples = 0;  // elements of all columns
    bool has_times = false;
    st_time_t earliest = 0, latest = 0;  // of the values
};

// Checks an open image. May throw std::bad_alloc, and a failure_t when the file cannot be read; needs 16 bytes of memory
// a term.
void fsck_slice(const slice_image& image, fsck_report* report);

// "section at byte N: term 12 "text": what: detail" without the path.
std::string fsck_finding_text(const fsck_finding& finding);
// One line for each kind of which more was found than kept: "lists: what: 123 more".
std::vector<std::string> fsck_more_lines(const fsck_report& report);
// A term for people: control characters, quotes and bytes past 126 as \xNN, cut after 80 bytes.
std::string fsck_term_text(std::string_view term);

}  // namespace veldar::tool
