#include "tools/libveldar/check/fsck_seal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "searchthing/seal/slice_seal.h"
#include "tools/libveldar/check/slice_place.h"
#include "tools/libveldar/store/slices.h"

namespace veldar::tool {

namespace {

seal_report fail(const std::string& slice, const warm_rc_t& rc) {
    seal_report out;
    if (rc.warm_rc == WARM_RC_NO_MEMORY) throw std::bad_alloc();
    if (::access(slice.c_str(), F_OK) != 0 && errno == ENOENT) {
        out.state = SEAL_VANISHED;
    } else if (rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT) {
        out.state = SEAL_NONE;
    } else {
        out.state = rc.warm_rc == WARM_RC_CORRUPT ? SEAL_DAMAGED : SEAL_UNREADABLE;
        out.error = slice_error(slice, rc);
    }
    return out;
}

}  // namespace

std::string seal_finding_text(const seal_finding& finding) {
    const std::string text =
        fmt::format("{} at byte {}: {} bytes are not what was sealed", finding.section, finding.offset, finding.size);
    return finding.place.empty() ? text : text + ": " + finding.place;
}

seal_report fsck_seal(const std::string& slice) {
    warm_rc_t rc;
    std::vector<seal_fault_t> faults;
    if (seal_check(slice, &faults, &rc) != 0) return fail(slice, rc);
    seal_report out;
    out.state = faults.empty() ? SEAL_HOLDS : SEAL_DIFFERS;
    if (faults.empty()) return out;
    slice_image image;
    std::string error;
    const bool has_image = slice_image_open(slice, &image, &error) == IMAGE_OPEN;
    for (const seal_fault_t& fault : faults) {
        out.findings.push_back({seal_section_name(fault.section), fault.offset, fault.size,
                                has_image ? slice_place_text(image, fault) : std::string()});
    }
    return out;
}

}  // namespace veldar::tool
