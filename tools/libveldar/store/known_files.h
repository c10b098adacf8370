// The files that a store has loaded from, and how far: progress follows from the source maps and the slices alone.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "tools/libveldar/store/log_input.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

struct known_file {
    source_file file;
    uint64_t progress = 0;  // bytes that are indexed, in the decompressed file
    // The record at `progress` is indexed, but the file could not be read to learn where it ends: it is passed over
    // when the file is read again. It ends before `record_limit`.
    bool record_indexed = false;
    uint64_t record_limit = SOURCE_NO_LIMIT;
    uint32_t record_cut = 0;
    source_tail tail;   // the last one within the progress; size 0 when there is none
    uint32_t next = 0;  // the number of what the log goes on as behind the progress, since its lines took another form
};

struct known_files {
    std::map<uint32_t, known_file> by_number;
    // Heads by size, then by hash.
    std::map<uint32_t, std::unordered_multimap<uint64_t, uint32_t>> heads;
    uint32_t next_number = 1;
};

// Settles what a killed load left behind: finds the end of the last record in the slices of each bucket and marks the
// bucket as indexed up to there, then gathers the files. `open_end` gets the buckets whose last record could not be
// read; nothing may be added to those. Throws failure_t.
known_files known_files_gather(store* st, std::vector<uint32_t>* open_end);
// The file that this input goes on with, or null for a new one: its head hashes as it did, it is not shorter than what
// was loaded, and the bytes before the progress hash as they did. Of several the one with the same inode comes first.
// While the file that was loaded stands in its directory, another one that goes on like it is a `*copy`, and one that
// goes on otherwise is a new one: it only begins with the same lines.
known_file* known_files_identify(known_files* known, log_input* input, bool* copy);
// The numbers of the whole log that this file is of: one for each form that its lines had.
std::vector<uint32_t> known_files_of_log(const known_files& known, uint32_t number);
// Takes a new file, or the new whereabouts of a known one.
known_file* known_files_put(known_files* known, const source_file& file);
// The files that were forgotten and whose events may not all be deleted.
std::vector<uint32_t> known_files_to_delete(const store& st);
// Forgets a file: it counts as never loaded from now on. Throws failure_t.
void known_files_forget(known_files* known, store* st, uint32_t number);
// Whether the input is, byte for byte as far as its inode, size and time tell, what was loaded to its end.
bool known_file_unchanged(const known_file& known, const log_input& input);
// A hash of these, not 0: what the tail of a file that is not plain holds when the file was read to its end. Its length
// tells nothing, and a load that was cut off may have noted the file and not its new lines.
uint64_t log_input_state(const log_input& input);

}  // namespace veldar::tool
