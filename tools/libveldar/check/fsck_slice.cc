#include "tools/libveldar/check/fsck_slice.h"

#include <fmt/format.h>

#include <new>

#include "searchthing/slice/warmslice.h"
#include "tools/libveldar/check/fsck_internal.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

constexpr size_t SHOWN_TERM_BYTES = 80;

// Counts a finding; whether it is to be kept.
bool count_finding(fsck_state* fsck, slice_section_t section, const char* what) {
    fsck->report->total++;
    return ++fsck->report->kinds[{section, what}] <= fsck->report->per_kind;
}

// What the engine itself says to a file in which nothing was found wrong.
void check_open(fsck_state* fsck) {
    warm_rc_t rc;
    WARM* const warm = st_warm_slice_open_rdonly(fsck->image->path.c_str(), &rc);
    if (warm != nullptr) {
        st_warm_slice_close(warm);
    } else if (rc.warm_rc != WARM_RC_OPEN) {
        fsck_fail_unless_damage(*fsck, rc);
        fsck_add(fsck, IN_HEADER, 0, "the engine refuses the file",
                 fmt::format("{}, status {}", rc.message, rc.warm_rc));
    }
}

}  // namespace

void fsck_fail_unless_damage(const fsck_state& fsck, const warm_rc_t& rc) {
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw std::bad_alloc();
    if (warm_rc_has_cause(&rc)) throw failure_t{OUTCOME_IO, slice_error(fsck.image->path, rc)};
}

void fsck_add(fsck_state* fsck, slice_section_t section, uint64_t offset, const char* what, std::string detail) {
    if (!count_finding(fsck, section, what)) return;
    fsck->report->findings.push_back({section, offset, what, std::move(detail), false, 0, {}});
}

void fsck_add_text(fsck_state* fsck, slice_section_t section, uint64_t offset, uint32_t term, std::string_view text,
                   const char* what, std::string detail) {
    if (!count_finding(fsck, section, what)) return;
    fsck->report->findings.push_back({section, offset, what, std::move(detail), true, term, std::string(text)});
}

void fsck_add_term(fsck_state* fsck, slice_section_t section, uint64_t offset, uint32_t term, const char* what,
                   std::string detail) {
    if (!count_finding(fsck, section, what)) return;
    std::string text = fsck->has_lexicon ? lexicon_image_term(fsck->lexicon, term) : std::string();
    fsck->report->findings.push_back({section, offset, what, std::move(detail), true, term, std::move(text)});
}

void fsck_slice(const slice_image& image, fsck_report* report) {
    fsck_state fsck;
    fsck.image = &image;
    fsck.report = report;
    fsck.metric = st_warm_slice_is_msidx(&image.header);
    fsck_check_header(&fsck);
    if (!image.has_header) return;
    fsck_check_layout(&fsck);
    fsck_check_values(&fsck);
    if (!image.mini) {
        fsck.has_lexicon = lexicon_image_read(image.bytes, image.sections[IN_LEXICON].offset, &fsck.lexicon);
        if (fsck.has_lexicon) fsck_check_lexicon(&fsck, fsck.lexicon, IN_LEXICON);
        lexicon_image reverse;
        const section_place& at = image.sections[IN_REVERSE_LEXICON];
        const bool placed = at.state == SECTION_WHOLE || at.state == SECTION_CUT;
        if (placed && lexicon_image_read(image.bytes, at.offset, &reverse)) {
            fsck_check_lexicon(&fsck, reverse, IN_REVERSE_LEXICON);
        }
        fsck_check_lists(&fsck);
        fsck_check_metadata(&fsck);
        fsck_check_metrics(&fsck);
    }
    fsck_check_name(&fsck);
    if (report->total == 0) check_open(&fsck);
}

std::string fsck_term_text(std::string_view term) {
    std::string out;
    for (const char c : term.substr(0, SHOWN_TERM_BYTES)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte > '~' || c == '"' || c == '\\') {
            out += fmt::format("\\x{:02X}", byte);
        } else {
            out += c;
        }
    }
    return term.size() > SHOWN_TERM_BYTES ? out + "..." : out;
}

std::string fsck_finding_text(const fsck_finding& finding) {
    std::string out = fmt::format("{} at byte {}: ", slice_section_name(finding.section), finding.offset);
    if (finding.has_term) out += fmt::format("term {}", finding.term);
    if (!finding.term_text.empty()) out += fmt::format(" \"{}\"", fsck_term_text(finding.term_text));
    if (finding.has_term) out += ": ";
    out += finding.what;
    return finding.detail.empty() ? out : out + ": " + finding.detail;
}

std::vector<std::string> fsck_more_lines(const fsck_report& report) {
    std::vector<std::string> lines;
    for (const auto& [kind, count] : report.kinds) {
        if (count <= report.per_kind) continue;
        lines.push_back(
            fmt::format("{}: {}: {} more", slice_section_name(kind.first), kind.second, count - report.per_kind));
    }
    return lines;
}

}  // namespace veldar::tool
