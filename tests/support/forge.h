// The forge: builds the bytes of a `.tsidx` file from a plain description of its events.
//
// It shares no code with the engine: its own number, bit and section writers follow the format alone, so that a test
// which compares the engine with the forge compares two independent readings of the format.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace veldar {

struct forge_event {
    int32_t time = 0;
    uint32_t address = 0;
    uint32_t measure = 0;
    uint32_t s = 0, st = 0, h = 0;
    std::vector<std::string> terms;  // in any order; one named twice counts once
    bool deleted = false;            // s is stored as all-ones and the d bit is set
};

enum class forge_encoding { rle, bmap, spo, dedup };

// Which encoding each list gets, within what the header's flags can express.
enum class forge_lists {
    rle,    // every list RLE
    mixed,  // any of the expressible encodings, chosen by a hash of the seed and the term
};
// Whether RLE lists collapse runs of consecutive numbers.
enum class forge_runs { collapsed, plain, mixed };

// wflags bits, as numbers of the format.
inline constexpr uint64_t FORGE_TAG1 = 0x1, FORGE_PACKED = 0x2, FORGE_TAG2 = 0x8, FORGE_PLO32 = 0x10;

struct forge_options {
    std::string magic = "_TSIDX9";
    uint64_t wflags = 0;  // must be 0 for the 60-byte headers, which have no flag word
    uint32_t tperb = 8;
    forge_lists lists = forge_lists::mixed;
    forge_runs runs = forge_runs::collapsed;
    uint64_t seed = 1;
    std::map<std::string, forge_encoding> forced;  // a term's encoding, whatever `lists` says
    bool companions = true;                        // false: no m, s, st, h, d arrays (no event may be deleted then)
    bool measures_as_doubles = false;              // m_nbits 64: a metric slice of the first generation
    uint32_t uncompressed_size = 0;                // of the lexicon; 0 = the sum of the term lengths
    bool pad_to_8 = false;                         // zero bytes behind the last section, as freshly created slices have
    bool mini = false;                             // ends where the posting-list offsets would begin
    std::vector<std::string> bare_terms;           // terms that no event contains

    std::string name() const;  // for messages: magic, flags, tperb
    bool legacy() const { return magic[0] != '_'; }
    bool rev1() const { return magic == "_TSIDX8" || magic == "_TSIDX9" || magic == "_MSIDX4"; }
    bool metric() const { return magic.find("sidx") == 1 || magic.find("MSIDX") == 1 || measures_as_doubles; }
};

// Where everything of a forged file lies: absolute file offsets.
struct forge_offsets {
    uint64_t values = 0, m = 0, s = 0, st = 0, h = 0, d = 0;
    uint64_t posting_offsets = 0, metadata = 0, reverse_terms = 0, lexicon = 0, reverse_lexicon = 0;
    uint64_t postings = 0, dimsets = 0, end = 0;
};

// What a reader must find in a forged file.
struct forge_picture {
    std::vector<forge_event> values;              // by value number: newest first
    std::vector<std::string> terms;               // by term id: ascending bytes
    std::vector<std::vector<uint32_t>> postings;  // by term id: ascending value numbers
    std::vector<forge_encoding> encodings;        // by term id
    std::vector<std::string> lists;               // by term id: the list's own bytes (none for SPO and DEDUP)
    int32_t earliest = 0, latest = 0;
    uint32_t num_postings = 0;
    forge_offsets at;
};

// The file's bytes. Throws std::invalid_argument for what the chosen header cannot express.
std::string forge_slice(const std::vector<forge_event>& events, const forge_options& options,
                        forge_picture* picture = nullptr);

// The same events as only numbering and postings, without a file.
forge_picture forge_number(const std::vector<forge_event>& events, const std::vector<std::string>& bare_terms = {});

// "<latest>-<earliest>-<id>.tsidx" (or ".mini.tsidx") for these events.
std::string forge_file_name(const std::vector<forge_event>& events, uint64_t id, bool mini = false);
// Forges a slice into `directory` under that name and returns its path.
std::string forge_file(const std::string& directory, const std::vector<forge_event>& events,
                       const forge_options& options, uint64_t id = 1, forge_picture* picture = nullptr);

// What creation at this write level makes of the events: magic, no flags, run-free lists, 8 terms a block.
forge_options forge_as_created(uint32_t level);
// Every header kind with every combination of flags that it can carry, lists mixed.
std::vector<forge_options> forge_all_kinds();
// The kinds that hold events (no metric flavour).
std::vector<forge_options> forge_event_kinds();

// `count` seeded random events: clustered times, some ties, terms of all frequencies (one in every event, many rare
// ones, fields with numbers), companions, and about one event in 16 deleted.
std::vector<forge_event> forge_random_events(uint64_t seed, uint32_t count);

}  // namespace veldar
