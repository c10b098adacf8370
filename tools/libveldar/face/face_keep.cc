// veldar.h: merging and checking.
#include <cerrno>

#include "tools/libveldar/check/fsck_seal.h"
#include "tools/libveldar/check/fsck_slice.h"
#include "tools/libveldar/face/face.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"

using namespace veldar::tool;

namespace {

void put_finding(veldar_table* table, const std::string& path, std::string_view section, uint64_t offset,
                 const std::string& what) {
    column_put(&table->columns[0], std::string_view(path));
    column_put(&table->columns[1], section);
    column_put(&table->columns[2], offset);
    column_put(&table->columns[3], std::string_view(what));
}

// Nothing for a slice that is gone.
void check_slice(const std::string& path, bool quick, troubles* trouble, veldar_table* table) {
    const seal_report seal = fsck_seal(path);
    if (seal.state == SEAL_VANISHED) return;
    if (seal.state == SEAL_UNREADABLE) troubles_add(trouble, seal.error);
    if (seal.state == SEAL_DAMAGED) put_finding(table, path, "seal", 0, seal.error);
    for (const seal_finding& finding : seal.findings) {
        put_finding(table, path, finding.section, finding.offset, seal_finding_text(finding));
    }
    if (quick) return;
    slice_image image;
    std::string error;
    const image_state_t state = slice_image_open(path, &image, &error);
    if (state == IMAGE_UNREADABLE) troubles_add(trouble, error);
    if (state != IMAGE_OPEN) return;
    fsck_report report;
    fsck_slice(image, &report);
    for (const fsck_finding& finding : report.findings) {
        put_finding(table, path, slice_section_name(finding.section), finding.offset, fsck_finding_text(finding));
    }
}

}  // namespace

extern "C" {

veldar_status veldar_optimize(veldar_store* store, int everything, veldar_optimize_result* result) {
    return face_run(&store->hearing, [&](const face_call& call) {
        merge_settings settings;
        settings.everything = everything != 0;
        settings.is_final = true;
        settings.drops_deleted = true;
        const merge_totals totals = merge_directories(store_index_directories(store->path), settings);
        for (const std::string& failure : totals.failures) say_trouble(failure);
        record_to({.size = 0,
                   .merges = totals.merges,
                   .slices_before = totals.slices_before,
                   .slices_after = totals.slices_after,
                   .bytes_before = totals.bytes_before,
                   .bytes_after = totals.bytes_after},
                  result);
        if (work_stops()) return call.end(OUTCOME_INTERRUPTED);
        if (totals.failures.empty()) return totals.merges != 0 ? VELDAR_OK : VELDAR_END;
        return call.end(totals.out_of_space ? OUTCOME_IO : OUTCOME_INCOMPLETE);
    });
}

veldar_status veldar_fsck(veldar_store* store, int quick, veldar_table** table) {
    *table = nullptr;
    return face_run(&store->hearing, [&](const face_call& call) {
        auto to = std::make_unique<veldar_table>();
        for (const char* const name : {"path", "section"}) table_column(to.get(), name, VELDAR_TEXT);
        table_column(to.get(), "offset", VELDAR_UINT64);
        table_column(to.get(), "what", VELDAR_TEXT);
        const slice_set set = slices_list_all(store->path);
        troubles trouble;
        slices_tell_errors(set, &trouble);
        for (size_t i = 0; i < set.slices->size(); i++) {
            if (work_stops()) return call.end(OUTCOME_INTERRUPTED);
            check_slice(set.slices->path(i), quick != 0, &trouble, to.get());
        }
        to->rows = to->columns[0].valid.size();
        const bool is_damaged = to->rows > 0;
        *table = to.release();
        if (is_damaged) return face_failed({OUTCOME_DAMAGED, std::to_string((*table)->rows) + " faults were found"});
        return trouble.incomplete ? call.end(OUTCOME_INCOMPLETE) : VELDAR_END;
    });
}

}  // extern "C"
