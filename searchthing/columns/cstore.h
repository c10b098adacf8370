// The column store: the measures of a metric slice, one column set (cset.h) for every term that names a measure. It is
// the last section of the file, written with it and never changed.
//
// Little-endian, offsets from the section's start, which is a multiple of 8 in the file:
//
//   offset  size  field
//   0       8     magic "CSTORE01"
//   8       4     version: 2, or 1 (column sets as in cset_block1.h)
//   12      4     N: column sets
//   16      4     value numbers of the slice, preambles included (num_values of the slice's header)
//   20      4     preambles (num_dimsets): the measures are those of values `preambles` to `value numbers` - 1
//   24      8     F: offset of the footer, which the slice's header holds as cstore_ref
//   32            the column sets, without gaps, ascending by term number
//   F       4     N again
//   F + 4   4     XXH32 of the entries, with the XXH32 of the section's first 32 bytes as seed
//   F + 8   8     size of the section: F + 16 + 8 x N
//   F + 16  8 x N entries: {u32 term number, u32 offset of its column set in 8-byte units}, ascending by term number
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/columns/cset.h"
#include "searchthing/values/tsval_order.h"

namespace veldar {

// Collects the measures of one slice and writes the section. Memory is that of the encoded section and of at most 512
// elements for each measure. Functions report memory that is short as WARM_RC_NO_MEMORY "columnset writer data_buf
// malloc failure"; after a failure the builder can only be closed.
struct cs_builder_t {
    std::vector<cset_writer_t> sets;
    std::vector<uint32_t> set_of_rank;     // by measure rank: index into `sets` + 1; 0 for no column set
    std::vector<uint32_t> order;           // after finalize: the sets by rank
    std::vector<cs_tid_offset_t> entries;  // after finalize: as in the file
    uint32_t num_values = 0;               // after finalize, as the two below
    uint32_t num_preambles = 0;
    uint64_t footer_offset = 0;
};
// Starts a section of about this many column sets; 0 or WARM_RC_NO_MEMORY.
[[nodiscard]] int cs_builder_open(cs_builder_t* builder, uint32_t measures_hint, warm_rc_t* rc);
// Makes sure that the measure has a column set. `measure_rank` is its term number in the slice.
[[nodiscard]] int cs_add_columnset(cs_builder_t* builder, uint32_t measure_rank, warm_rc_t* rc);
// Adds the measure of one value; `value_no` is the value's number in the slice, counted with the preambles.
// `set_changed` tells that the value has another dimension set than the value before. 0; WARM_RC_NOT_FOUND "metric tid
// is not found in cstore"; WARM_RC_CORRUPT "ordering violation" when the value's number is not above that of the
// measure's element before.
[[nodiscard]] int cs_add_element(cs_builder_t* builder, uint32_t measure_rank, uint32_t value_no, bool set_changed,
                                 double v, warm_rc_t* rc);
// Encodes what is left and lays the section out; `cstore_ref` is what the slice's header must hold. 0; WARM_RC_CORRUPT
// "invalid tsval_id range" for an element of no value from num_preambles to num_values - 1; WARM_RC_FOOTER_OFFSET
// "cs_writer_footer_append offset overflow" for more than 32 GiB.
[[nodiscard]] int cs_finalize_offsets(cs_builder_t* builder, uint32_t num_values, uint32_t num_preambles,
                                      int64_t* cstore_ref, warm_rc_t* rc);
// Bytes of the finalized section, which its footer ends.
inline uint64_t cs_builder_size(const cs_builder_t* builder) {
    return builder->footer_offset + 16 + builder->entries.size() * sizeof(cs_tid_offset_t);
}
// Writes the finalized section at an offset of the file, 64 KiB at a time: 0 or WARM_RC_WRITE "writing cstore".
[[nodiscard]] int cs_sync_cstore(cs_builder_t* builder, int fd, uint64_t section_offset, warm_rc_t* rc);
// Frees everything; the builder can be opened again. Nothing on a closed one.
void cs_builder_close(cs_builder_t* builder);

// An open section: its directory. Any number of column sets may be read through it at a time, by one thread.
struct cs_reader_t {
    int fd = -1;  // not owned; -1 when closed
    uint32_t version = 0;
    uint64_t section_offset = 0;
    uint64_t section_size = 0;
    uint64_t footer_offset = 0;  // in the section
    uint32_t num_values = 0;
    uint32_t num_preambles = 0;
    buffer<cs_tid_offset_t> entries;
    // By term what opened sets have read, up to CS_REMEMBERED bytes in all.
    mutable std::map<uint32_t, std::shared_ptr<const cset_tables_t>> remembered;
    mutable uint64_t remembered_size = 0;
};
inline constexpr uint64_t CS_REMEMBERED = uint64_t{1} << 20;
// Opens the section at an offset of the file. 0; WARM_RC_FILE_SIZE "cstore file size"; the status of a read "cstore
// footer read"; WARM_RC_CORRUPT "cstore footer is corrupted", also for a section that the file cuts short;
// WARM_RC_UNSUPPORTED "cstore version" for a newer section; WARM_RC_NO_MEMORY "cstore entries".
[[nodiscard]] int cs_reader_open(cs_reader_t* reader, int fd, uint64_t section_offset, int64_t cstore_ref,
                                 warm_rc_t* rc);
// Where the column set of a measure lies, as an offset of the file: 0 or WARM_RC_NOT_FOUND "metric tid is not found in
// cstore".
[[nodiscard]] int cs_reader_find(const cs_reader_t* reader, uint32_t term_id, uint64_t* set_offset, warm_rc_t* rc);
// The same with the set's size, which reaches to the next one.
[[nodiscard]] int cs_reader_extent(const cs_reader_t* reader, uint32_t term_id, uint64_t* set_offset, uint64_t* size,
                                   warm_rc_t* rc);
// Reads the whole section: every checksum, every order, every number in a block's header. 0 or the failure of
// cset_reader_open or cset_reader_verify.
[[nodiscard]] int cs_verify(const cs_reader_t* reader, warm_rc_t* rc);
// Frees the directory; nothing on a closed one.
void cs_reader_close(cs_reader_t* reader);

}  // namespace veldar
