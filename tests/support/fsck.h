// The checker of slices, as the tests of what writes slices ask it.
#pragma once

#include <sstream>
#include <string>

#include "tools/libveldar/check/fsck_slice.h"

namespace veldar {

namespace tool {}
using namespace tool;

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

// Whether findings are about lists, records or dimension sets: not about texts, which make a term another one, or bytes
// that hold nothing. That no set has a term any more is what keywords beside the sets look like.
inline bool fsck_blames_lists(const std::string& findings) {
    std::istringstream lines(findings);
    for (std::string line; std::getline(lines, line);) {
        const bool place = line.starts_with("lists") || line.starts_with("metadata") || line.starts_with("dimension");
        const bool other = line.find("with a NUL") != line.npos || line.find("does not belong") != line.npos ||
                           line.find("not zero") != line.npos || line.find("sets 0") != line.npos ||
                           line.find("its runs have 0") != line.npos;
        if (place && !other) return true;
    }
    return false;
}

}  // namespace veldar
