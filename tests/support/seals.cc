#include "tests/support/seals.h"

#include <filesystem>
#include <functional>
#include <vector>

#include "searchthing/seal/slice_seal.h"

namespace veldar {

namespace {

namespace fs = std::filesystem;

void each_sealed(const std::string& directory, const std::function<void(const std::string&)>& visit) {
    for (const auto& entry : fs::directory_iterator(directory)) {
        const std::string path = entry.path();
        const bool is_slice = path.ends_with(".tsidx") || path.ends_with(".part-tsidx");
        if (is_slice && fs::exists(seal_path(path))) visit(path);
    }
}

}  // namespace

std::string seal_troubles(const std::string& directory) {
    std::string out;
    each_sealed(directory, [&](const std::string& path) {
        warm_rc_t rc;
        std::vector<seal_fault_t> faults;
        if (seal_check(path, &faults, &rc) != 0) out += path + ": " + rc.message + "\n";
        for (const seal_fault_t& fault : faults) {
            out += path + ": " + seal_section_name(fault.section) + " at " + std::to_string(fault.offset) + "\n";
        }
    });
    return out;
}

size_t sealed_slices(const std::string& directory) {
    size_t count = 0;
    each_sealed(directory, [&](const std::string&) { count++; });
    return count;
}

}  // namespace veldar
