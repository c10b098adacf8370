#include "tools/libveldar/check/salvage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/st.h"
#include "searchthing/st_optimize.h"
#include "tools/libveldar/check/fsck_internal.h"
#include "tools/libveldar/check/slice_place.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

constexpr size_t MOST_REPAIRS = 64;  // pieces, two seconds each
constexpr size_t MOST_TERMS_NAMED = 1000;
constexpr uint64_t PLO_SPAN = 1024;
constexpr uint64_t SECTOR = 512;  // what a disk loses at once
constexpr uint32_t WRITE_LEVEL = 4;

[[noreturn]] void fail(const std::string& path) {
    throw failure_t{OUTCOME_IO, path + ": " + std::strerror(errno)};
}

// A copy of the slice, repaired as far as that goes, and what is wrong with it.
struct patient {
    std::string path;
    slice_image image;
    std::vector<seal_fault_t> faults;
    bool has_seal = false;
    std::vector<uint32_t> bad_terms;  // by their numbers, without a seal
};

void copy_slice(const std::string& slice, const std::string& copy) {
    std::error_code error;
    std::filesystem::copy_file(slice, copy, error);
    if (error) throw failure_t{OUTCOME_IO, copy + ": " + error.message()};
}

// Repairs in the copy what one bit makes whole. Leaves the other faults.
uint64_t repair(const slice_image& image, int fd, std::vector<seal_fault_t>* faults) {
    uint64_t repaired = 0;
    std::vector<seal_fault_t> left;
    for (const seal_fault_t& fault : *faults) {
        const bool is_inside = fault.offset + fault.size <= image.bytes.size();
        if (fault.hash == 0 || !is_inside || fault.size > SEAL_BLOCK || repaired + left.size() >= MOST_REPAIRS) {
            left.push_back(fault);
            continue;
        }
        const auto piece = image.bytes.subspan(fault.offset, fault.size);
        std::vector<uint8_t> bytes(piece.begin(), piece.end());
        if (!seal_repair(bytes, fault.hash)) {
            left.push_back(fault);
            continue;
        }
        const std::string_view whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        if (!disk_write_at(fd, whole, fault.offset)) fail_io("cannot write a repaired slice", {}, errno);
        repaired++;
    }
    *faults = std::move(left);
    return repaired;
}

slice_image open_image(const std::string& path) {
    slice_image image;
    std::string error;
    if (slice_image_open(path, &image, &error) != IMAGE_OPEN) throw failure_t{OUTCOME_IO, error};
    return image;
}

seal_section_t sealed_section(slice_section_t section) {
    switch (section) {
        case IN_VALUES:
            return SEALED_VALUES;
        case IN_M:
            return SEALED_M;
        case IN_S:
            return SEALED_S;
        case IN_ST:
            return SEALED_ST;
        case IN_H:
            return SEALED_H;
        case IN_D:
            return SEALED_D;
        case IN_OFFSETS:
            return SEALED_OFFSETS;
        case IN_LEXICON:
            return SEALED_LEXICON;
        case IN_LISTS:
            return SEALED_LISTS;
        case IN_METADATA:
            return SEALED_METADATA;
        default:
            return SEALED_HEADER;
    }
}

// What the checker blames: terms, and what lies around a byte.
struct blame {
    std::vector<uint32_t> terms;
    std::vector<seal_fault_t> places;
};

blame find_structural_faults(const slice_image& image) {
    blame out;
    fsck_report report;
    report.per_kind = UINT32_MAX;
    fsck_slice(image, &report);
    for (const fsck_finding& finding : report.findings) {
        const bool of_term = finding.has_term && finding.section != IN_LEXICON;
        if (of_term) out.terms.push_back(finding.term);
        if (of_term && finding.section == IN_METADATA) continue;
        const seal_section_t section = sealed_section(finding.section);
        // The byte of the lexicon is its block's; a term is blamed there by itself.
        const uint64_t margin = section == SEALED_LEXICON || section == SEALED_HEADER ? 0 : SECTOR;
        const uint64_t begin = finding.offset - std::min(finding.offset, margin);
        out.places.push_back({section, begin, finding.offset + margin + 1 - begin, 0});
    }
    return out;
}

bool overlap(const seal_fault_t& a, const seal_fault_t& b) {
    return a.offset < b.offset + b.size && b.offset < a.offset + a.size;
}

// Blocks in which something is blamed are lost as far as that goes.
void narrow(patient* patient) {
    const blame blamed = find_structural_faults(patient->image);
    std::vector<seal_fault_t> faults;
    for (const seal_fault_t& fault : patient->faults) {
        bool is_narrowed = false;
        for (const seal_fault_t& place : blamed.places) {
            if (place.section != fault.section || !overlap(place, fault)) continue;
            is_narrowed = true;
            faults.push_back(place);
        }
        if (!is_narrowed || fault.section == SEALED_HEADER) faults.push_back(fault);
    }
    patient->faults = std::move(faults);
    patient->bad_terms = blamed.terms;
}

// True when the slice is sound.
bool examine(const std::string& slice, patient* patient) {
    warm_rc_t rc;
    const int status = seal_check(slice, &patient->faults, &rc);
    patient->image = open_image(slice);
    patient->has_seal = status == 0;
    if (status == 0) return patient->faults.empty();
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw std::bad_alloc();
    const bool seal_is_gone = rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT;
    if (!seal_is_gone && rc.warm_rc != WARM_RC_CORRUPT) throw failure_t{OUTCOME_IO, slice_error(slice, rc)};
    const blame blamed = find_structural_faults(patient->image);
    patient->faults = blamed.places;
    patient->bad_terms = blamed.terms;
    return patient->faults.empty() && patient->bad_terms.empty();
}

// The slice open, and which of its events and terms are to be saved.
struct saved_t {
    warm_ptr warm;
    bool has_bad_marks = false;      // nobody knows which events were deleted
    std::vector<bool> lost_values;   // by number
    std::vector<bool> lost_lists;    // by term
    std::vector<bool> lost_terms;    // by number: the list or the text is lost
    std::vector<std::string> texts;  // by term; empty where it is not known
    std::vector<uint64_t> ends;      // by value, in `terms`
    std::vector<uint32_t> terms;
};

void lose(std::vector<bool>* lost, const number_range& range) {
    if (range.first == NO_NUMBER) return;
    for (uint64_t i = range.first; i <= range.last && i < lost->size(); i++) (*lost)[i] = true;
}

// The entry of a term's list, for terms from 1 on.
struct list_entry {
    uint64_t payload = 0;
    uint32_t type = PLO_RLE;
};
list_entry entry_of(const slice_image& image, uint32_t term) {
    const std::span<const uint8_t> entries = slice_section_bytes(image, IN_OFFSETS);
    const uint32_t width = _get_plo_size(&image.header), tag_bits = warm_header_plo_tag_bits(&image.header);
    if (term == 0 || uint64_t{term} * width > entries.size()) return {};
    const uint8_t* const at = entries.data() + size_t{term - 1} * width;
    const uint64_t entry = width == 8 ? load_be64(at) : load_be32(at);
    return {entry >> tag_bits, static_cast<uint32_t>(entry & ((1u << tag_bits) - 1))};
}

bool has_own_bytes(const list_entry& entry) {
    return entry.type == PLO_RLE || entry.type == PLO_BMAP;
}

// Entry n (from 0) says where the list of term n + 1 begins, and so where that of the last term before it that has bytes
// of its own ends.
number_range lists_of_entries(const slice_image& image, number_range entries) {
    if (entries.first == NO_NUMBER) return entries;
    entries.last += 1;
    while (entries.first > 0 && !has_own_bytes(entry_of(image, entries.first))) entries.first--;
    return entries;
}

// A term that names another's list loses it with that one.
void lose_duplicates(const slice_image& image, saved_t* saved) {
    for (uint32_t term = 1; term < saved->lost_lists.size(); term++) {
        const list_entry entry = entry_of(image, term);
        const bool names_lost = entry.type == PLO_DEDUP && warm_header_plo_tag_bits(&image.header) == 2 &&
                                entry.payload < saved->lost_lists.size() && saved->lost_lists[entry.payload];
        if (names_lost) saved->lost_lists[term] = true;
    }
}

void lose_faults(const patient& patient, saved_t* saved) {
    for (const seal_fault_t& fault : patient.faults) {
        switch (fault.section) {
            case SEALED_VALUES:
            case SEALED_M:
            case SEALED_S:
            case SEALED_ST:
            case SEALED_H:
                lose(&saved->lost_values, slice_place_numbers(patient.image, fault));
                break;
            case SEALED_LEXICON:
                lose(&saved->lost_terms, slice_place_numbers(patient.image, fault));
                break;
            case SEALED_LISTS:
                lose(&saved->lost_lists, slice_place_numbers(patient.image, fault));
                break;
            case SEALED_OFFSETS:
                lose(&saved->lost_lists, lists_of_entries(patient.image, slice_place_numbers(patient.image, fault)));
                break;
            case SEALED_D:
                saved->has_bad_marks = true;
                break;
            default:
                break;
        }
    }
    for (const uint32_t term : patient.bad_terms) lose(&saved->lost_lists, {term, term});
    lose_duplicates(patient.image, saved);
    for (size_t term = 0; term < saved->lost_terms.size(); term++) {
        if (saved->lost_lists[term]) saved->lost_terms[term] = true;
    }
}

void read_texts(const slice_image& image, saved_t* saved) {
    lexicon_image lexicon;
    saved->texts.resize(saved->lost_terms.size());
    if (!lexicon_image_read(image.bytes, image.sections[IN_LEXICON].offset, &lexicon)) {
        saved->lost_terms.assign(saved->lost_terms.size(), true);
        return;
    }
    for (uint32_t number = 0; number < lexicon.blocks; number++) {
        lexicon_block block;
        const uint64_t first = uint64_t{number} * lexicon.tperb;
        bool good = lexicon_block_begin(lexicon, number, &block);
        for (uint64_t term = first; term < std::min<uint64_t>(first + lexicon.tperb, saved->texts.size()); term++) {
            good = good && lexicon_block_next(&block) == nullptr;
            const bool is_term = good && !block.term.empty() && block.term.find('\0') == std::string::npos;
            // Of a list that is lost the name can be told.
            if (is_term && (!saved->lost_terms[term] || saved->lost_lists[term])) saved->texts[term] = block.term;
            if (!is_term) saved->lost_terms[term] = true;
        }
    }
}

// The numbers of a term's list; false when it cannot be read.
bool read_list(plist_reader* reader, uint32_t term, uint32_t values, std::vector<uint32_t>* numbers) {
    warm_rc_t rc;
    numbers->clear();
    if (_seek_reader(reader, term, &rc) != 0) return false;
    for (;;) {
        uint32_t number = 0;
        if (_next(reader, &number, &rc) != 0) return false;
        if (number == PLIST_END) return true;
        if (number >= values || (!numbers->empty() && number <= numbers->back())) return false;
        numbers->push_back(number);
    }
}

// Calls `f` with every number of every list that can be read; a list that cannot is lost.
template <typename F>
void for_each_posting(saved_t* saved, const F& f) {
    warm_rc_t rc;
    plist_reader reader;
    std::vector<uint32_t> numbers;
    const uint32_t values = st_warm_slice_values(saved->warm.get());
    if (_init_reader(&reader, saved->warm.get(), PLO_SPAN, nullptr, &rc) != 0) throw std::bad_alloc();
    for (uint32_t term = 0; term < saved->lost_terms.size(); term++) {
        if (saved->lost_terms[term]) continue;
        saved->lost_terms[term] = !read_list(&reader, term, values, &numbers);
        for (size_t i = 0; i < numbers.size() && !saved->lost_terms[term]; i++) f(numbers[i], term);
    }
}

// Turns the lists round.
void read_lists(saved_t* saved) {
    saved->ends.resize(st_warm_slice_values(saved->warm.get()));
    if (!st_warm_slice_has_postings(saved->warm.get())) return;
    uint64_t postings = 0;
    for_each_posting(saved, [&](uint32_t value, uint32_t) {
        saved->ends[value]++;
        postings++;
    });
    std::exclusive_scan(saved->ends.begin(), saved->ends.end(), saved->ends.begin(), uint64_t{0});
    saved->terms.resize(postings);
    // Each value's begin moves on to its end.
    for_each_posting(saved, [saved](uint32_t value, uint32_t term) { saved->terms[saved->ends[value]++] = term; });
}

// When the lost events were: those that can be read say so, the others lie between their neighbours.
class lost_times {
  public:
    explicit lost_times(const WARM* warm) : oldest_(st_warm_slice_earliest(warm)), later_(st_warm_slice_latest(warm)) {}
    void pass(st_time_t time, bool is_lost) {
        if (is_lost || is_unknown_) note(time);
        is_unknown_ = false;
        later_ = time;
    }
    void pass_unreadable() {
        note(later_);
        is_unknown_ = true;
    }
    void tell(salvage_report* report) {
        if (is_unknown_) note(oldest_);
        report->earliest = earliest_;
        report->latest = latest_;
    }

  private:
    void note(st_time_t time) {
        earliest_ = std::min(earliest_, time);
        latest_ = std::max(latest_, time);
    }
    st_time_t oldest_, later_;
    st_time_t earliest_ = INT32_MAX, latest_ = INT32_MIN;
    bool is_unknown_ = false;
};

struct thing_closer {
    void operator()(THING* thing) const { st_abandon(thing); }
};

// Puts one event; false when it cannot be saved.
bool put_event(THING* thing, const saved_t& saved, uint32_t id, const st_tsval& value,
               std::vector<std::string_view>* terms) {
    terms->clear();
    const uint64_t begin = id == 0 ? 0 : saved.ends[id - 1];
    for (uint64_t i = begin; i < saved.ends[id]; i++) {
        if (!saved.lost_terms[saved.terms[i]]) terms->push_back(saved.texts[saved.terms[i]]);
    }
    if (terms->empty()) return false;
    st_txn txn;
    txn.time = value.time;
    txn.subsecond = value.subsecond;
    txn.address = value.address;
    txn.seek_address = value.measure;
    txn.source = value.s;
    txn.source_type = value.st;
    txn.host = value.h;
    if (st_put_event(thing, &txn, *terms) != 0) {
        throw failure_t{OUTCOME_IO, "an event could not be written: " + index_failure_text(st_directory(thing))};
    }
    return true;
}

// Puts every event that can be read.
void put_events(THING* thing, const saved_t& saved, salvage_report* report) {
    std::vector<std::string_view> terms;
    warm_rc_t rc;
    lost_times lost(saved.warm.get());
    for (uint32_t id = 0; id < st_warm_slice_values(saved.warm.get()); id++) {
        st_tsval value;
        if (saved.lost_values[id] || tsval_reader_decode(&saved.warm->tsval_reader, id, &value, false, 0, &rc) != 0) {
            report->events_lost++;
            lost.pass_unreadable();
            continue;
        }
        const bool is_marked = value.s == ST_DELETED_SOURCE;
        const bool is_saved = !is_marked && put_event(thing, saved, id, value, &terms);
        const bool is_lost = !is_saved && (!is_marked || saved.has_bad_marks);
        lost.pass(value.time, is_lost);
        report->events += is_saved ? 1 : 0;
        report->events_lost += is_lost ? 1 : 0;
    }
    lost.tell(report);
}

void write_slice(const std::string& directory, const saved_t& saved, salvage_report* report) {
    TSWRITEOPTS options;
    st_tsidx_write_opts_init_write_level(&options, WRITE_LEVEL);
    options.seal = 0;  // it is sealed when it gets its name
    options.byte_size = UINT32_MAX;
    options.millisecond_mode = saved.warm->has_subseconds ? 1 : 0;
    std::unique_ptr<THING, thing_closer> thing(
        st_open_for_write(directory.c_str(), 0, TSIDX_ORDINARY_WRITER, &options));
    if (thing == nullptr) fail(directory);
    st_tsidx_set_durable(st_directory(thing.get()), 0);  // what it becomes is flushed
    put_events(thing.get(), saved, report);
    if (st_sync(thing.get()) != 0) {
        throw failure_t{OUTCOME_IO, directory + ": " + index_failure_text(st_directory(thing.get()))};
    }
    if (st_close(thing.release()) != 0) throw failure_t{OUTCOME_IO, directory + ": the slice could not be written"};
    if (report->events == 0) return;
    warm_rc_t rc;
    tsidx_listing_t listing;
    do {
        const int merged = st_optimize_directory(directory.c_str(), {.mode = TSIDX_OPTIMIZE_ALL}, &rc);
        if (merged != 0 && merged != WARM_RC_FEW_SLICES && merged != WARM_RC_FEW_SOURCES) {
            throw failure_t{OUTCOME_IO, slice_error(directory, rc)};
        }
        if (tsidx_list(directory.c_str(), &listing, &rc) != 0) throw failure_t{OUTCOME_IO, slice_error(directory, rc)};
        if (merged != 0) break;
    } while (listing.size() > 1);
    if (listing.size() != 1) throw failure_t{OUTCOME_IO, directory + ": what was saved does not fit one slice"};
    report->file = directory + "/" + listing[0].name;
}

void count_terms(const saved_t& saved, salvage_report* report) {
    for (size_t term = 0; term < saved.lost_terms.size(); term++) {
        if (!saved.lost_terms[term]) {
            report->terms++;
            continue;
        }
        report->terms_lost++;
        if (!saved.texts[term].empty() && report->lost_terms.size() < MOST_TERMS_NAMED) {
            report->lost_terms.push_back(saved.texts[term]);
        }
    }
}

void save_parts(const patient& patient, const std::string& directory, salvage_report* report) {
    warm_rc_t rc;
    saved_t saved;
    saved.warm.reset(st_warm_slice_open_rdonly(patient.path.c_str(), &rc));
    if (saved.warm == nullptr && rc.warm_rc == WARM_RC_NO_MEMORY) throw std::bad_alloc();
    if (saved.warm == nullptr && warm_rc_has_cause(&rc)) throw failure_t{OUTCOME_IO, slice_error(patient.path, rc)};
    const bool has_bad_header =
        std::any_of(patient.faults.begin(), patient.faults.end(), [](const seal_fault_t& fault) {
            return fault.section == SEALED_HEADER && fault.offset < WARM_HEADER_MAX_SIZE;
        });
    if (saved.warm == nullptr || (patient.has_seal && has_bad_header)) {
        report->is_hopeless = true;
        report->error = saved.warm == nullptr ? slice_error(patient.path, rc) : "its header is damaged";
        return;
    }
    if (st_warm_slice_is_msidx(saved.warm->body)) {
        report->is_hopeless = true;
        report->error = "a slice of metrics, of which parts cannot be saved";
        return;
    }
    if (!st_warm_slice_has_fclex(saved.warm.get())) {
        report->is_hopeless = true;
        report->error = "it is cut off behind its values";
        return;
    }
    saved.lost_values.resize(st_warm_slice_values(saved.warm.get()));
    saved.lost_terms.resize(st_warm_slice_terms(saved.warm.get()));
    saved.lost_lists.resize(saved.lost_terms.size());
    lose_faults(patient, &saved);
    read_texts(patient.image, &saved);
    read_lists(&saved);
    write_slice(directory, saved, report);
    count_terms(saved, report);
    if (report->terms_lost == 0) return;
    report->earliest = st_warm_slice_earliest(saved.warm.get());
    report->latest = st_warm_slice_latest(saved.warm.get());
}

}  // namespace

salvage_report salvage_slice(const std::string& slice, const std::string& directory, bool proved_only) {
    salvage_report report;
    patient patient;
    report.is_sound = examine(slice, &patient);
    if (report.is_sound) return report;
    report.is_metric = st_warm_slice_is_msidx(&patient.image.header);
    st_filename_metadata_t meta;
    if (tsidx_is_slice_name(slice.substr(slice.rfind('/') + 1).c_str(), &meta)) {
        report.earliest = meta.earliest;
        report.latest = meta.latest;
    }
    // Below the new index, and of the same name, which the engine reads.
    disk_make_directory(directory + "/copy");
    patient.path = directory + "/copy" + slice.substr(slice.rfind('/'));
    copy_slice(slice, patient.path);
    const unique_fd fd = disk_open(patient.path, O_RDWR);
    if (!fd.valid()) fail(patient.path);
    report.repaired_bits = repair(patient.image, fd.get(), &patient.faults);
    report.is_repaired = patient.faults.empty() && patient.bad_terms.empty();
    if (report.is_repaired) {
        report.file = patient.path;
        return report;
    }
    patient.image = open_image(patient.path);
    if (patient.has_seal && !proved_only) narrow(&patient);
    save_parts(patient, directory, &report);
    return report;
}

}  // namespace veldar::tool
