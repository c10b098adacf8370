// The checker of slices, as the tests of what writes slices ask it.
#pragma once

#include <string>

#include "tools/veldar/fsck_slice.h"

namespace veldar {

// What the checker finds, a line each.
inline std::string fsck_findings(const slice_image& image) {
    fsck_report report;
    fsck_slice(image, &report);
    std::string out;
    for (const fsck_finding& finding : report.findings) out += fsck_finding_text(finding) + "\n";
    return out.empty() && report.total != 0 ? "findings without a text\n" : out;
}
// The same of a file, or why it does not open.
inline std::string fsck_findings(const std::string& path) {
    slice_image image;
    std::string error;
    return slice_image_open(path, &image, &error) == IMAGE_OPEN ? fsck_findings(image) : "does not open: " + error;
}

}  // namespace veldar
