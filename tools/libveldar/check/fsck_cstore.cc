// The checker of column stores: every checksum and every number of a block by the engine's readers, which tell of each
// column what is wrong first, and the columns against the runs in which their measures were taken.
#include <fcntl.h>
#include <fmt/format.h>

#include <new>

#include "libzero/resource.h"
#include "searchthing/columns/cstore.h"
#include "tools/libveldar/check/fsck_internal.h"
#include "tools/libveldar/store/disk_file.h"

namespace veldar::tool {

namespace {

using value_ranges = std::vector<std::pair<uint32_t, uint32_t>>;  // first number and count

// Ranges that touch become one.
value_ranges joined(const value_ranges& ranges) {
    value_ranges out;
    for (const auto& [first, count] : ranges) {
        if (!out.empty() && out.back().first + out.back().second == first) {
            out.back().second += count;
        } else {
            out.push_back({first, count});
        }
    }
    return out;
}

value_ranges ranges_of(const cset_reader_t& column) {
    value_ranges out;
    for (size_t i = 0; i < column.runs.size(); i++) {
        const bool last = i + 1 == column.runs.size();
        const uint32_t end = last ? column.elements : column.runs[i + 1].first_ordinal;
        out.push_back({column.runs[i].first_value, end - column.runs[i].first_ordinal});
    }
    return joined(out);
}

void add_status(fsck_state* fsck, uint64_t offset, uint32_t term, const warm_rc_t& rc) {
    fsck_fail_unless_damage(*fsck, rc);
    fsck_add_term(fsck, IN_CSTORE, offset, term, "column cannot be read",
                  fmt::format("{}, status {}, block {}", rc.message, rc.warm_rc, rc.detail));
}

void check_column(fsck_state* fsck, const cs_reader_t& store, uint32_t term, const value_ranges& wanted) {
    cset_reader_t column;
    warm_rc_t rc;
    uint64_t offset = 0;
    if (cs_reader_find(&store, term, &offset, &rc) != 0 || cset_reader_open(&column, &store, term, nullptr, &rc) != 0) {
        return add_status(fsck, offset, term, rc);
    }
    fsck->report->samples += column.elements;
    if (ranges_of(column) != joined(wanted)) {
        fsck_add_term(fsck, IN_CSTORE, offset, term, "elements are not those of the measure's runs",
                      fmt::format("{} elements in {} ranges, runs make {}", column.elements, column.runs.size(),
                                  joined(wanted).size()));
    }
    if (cset_reader_verify(&column, &rc) != 0) add_status(fsck, offset, term, rc);
    cset_reader_close(&column);
}

}  // namespace

void fsck_check_cstore(fsck_state* fsck, const fsck_columns& columns) {
    const unique_fd fd = disk_open(fsck->image->path, O_RDONLY);
    const section_place& at = fsck->image->sections[IN_CSTORE];
    if (!fd.valid()) return;  // bytes without a file
    cs_reader_t store;
    warm_rc_t rc;
    const auto cstore_ref = static_cast<int64_t>(fsck->image->header.cstore_ref.get());
    if (cs_reader_open(&store, fd.get(), at.offset, cstore_ref, &rc) != 0) {
        fsck_fail_unless_damage(*fsck, rc);
        return fsck_add(fsck, IN_CSTORE, at.offset, "the engine refuses the column store",
                        fmt::format("{}, status {}", rc.message, rc.warm_rc));
    }
    const st_warm_slice_body& h = fsck->image->header;
    if (store.num_values != h.num_values.get() || store.num_preambles != h.num_dimsets.get()) {
        fsck_add(fsck, IN_CSTORE, at.offset, "numbers of values differ from the header's",
                 fmt::format("{} and {}, header {} and {}", store.num_values, store.num_preambles, h.num_values.get(),
                             h.num_dimsets.get()));
    }
    for (const cs_tid_offset_t& entry : std::span(store.entries.data(), store.entries.size())) {
        if (columns.contains(entry.term_id)) continue;
        fsck_add_term(fsck, IN_CSTORE, at.offset, entry.term_id, "column that no dimension set has", "");
    }
    for (const auto& [term, runs] : columns) check_column(fsck, store, term, runs);
    cs_reader_close(&store);
}

}  // namespace veldar::tool
