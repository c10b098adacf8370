// The small files beside slices: seals, merge manifests, source maps and notes of metric files. The first byte chooses
// which, and whether the hash of what follows is made right, so that what lies behind it is read too.
#include <stdlib.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/seal/slice_seal.h"
#include "tools/libveldar/load/metric_notes.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/source_map.h"

using namespace veldar;
using namespace veldar::tool;

namespace {

constexpr size_t SLOTS = 48;  // behind the hash of a seal

std::string directory() {
    static const std::string made = [] {
        char path[] = "/tmp/veldar-fuzz-XXXXXX";
        if (::mkdtemp(path) == nullptr) std::abort();
        return std::string(path);
    }();
    return made;
}

void write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void seal_of(std::string bytes, bool repaired) {
    const std::string slice = directory() + "/9-1-5.tsidx";
    if (repaired && bytes.size() > SLOTS + 8) {
        const size_t base = bytes.size() - SLOTS - 8;
        store_be64(reinterpret_cast<uint8_t*>(bytes.data()) + base, XXH64(bytes.data(), base, 0));
    }
    write(slice, std::string(300, 'x'));
    write(seal_path(slice), bytes);
    warm_rc_t rc;
    std::vector<seal_fault_t> faults;
    slice_seal_t seal;
    if (seal_read(slice, &seal, &rc) == 0) static_cast<void>(seal_check(slice, &faults, &rc));
    const uint8_t marks[3] = {1, 2, 3};
    static_cast<void>(seal_begin_marks(slice, marks, marks, false, &rc));
    static_cast<void>(seal_end_marks(slice, marks, false, &rc));
}

void manifest_of(const std::string& bytes, bool repaired) {
    merge_owner_t owner;
    merge_manifest_t manifest;
    std::string text = bytes;
    const size_t check = text.rfind("check ");
    if (repaired && check != text.npos) {
        char line[32];
        std::snprintf(line, sizeof line, "check %016llx\n",
                      static_cast<unsigned long long>(XXH64(text.data(), check, 0)));
        text = text.substr(0, check) + line;
    }
    static_cast<void>(merge_manifest_parse_owner(text, &owner));
    if (merge_manifest_parse(text, &manifest) && !merge_manifest_parse(merge_manifest_text(manifest), &manifest)) {
        std::abort();
    }
}

void source_map_of(std::string bytes, bool repaired) {
    for (size_t at = 0; repaired && at + 16 <= bytes.size();) {
        auto* const record = reinterpret_cast<uint8_t*>(bytes.data()) + at;
        const uint64_t size = load_le32(record);
        if (size > bytes.size() - at - 16) break;
        store_le64(record + 8 + size, XXH64(record, 8 + size, at));
        at += 16 + size;
    }
    source_map map;
    std::string error;
    write(directory() + "/source.map", bytes);
    if (!source_map_open(&map, directory() + "/source.map", false, &error)) return;
    for (size_t i = 0; i < map.stretches.size(); i++) static_cast<void>(source_map_stretch_end(map, i));
    for (const uint64_t address : {uint64_t{0}, uint64_t{100}, ~uint64_t{0}}) {
        static_cast<void>(source_map_find(map, address));
    }
}

void notes_of(const std::string& bytes) {
    metric_notes notes;
    write(directory() + "/metrics.loaded", bytes);
    metric_notes_open(&notes, directory(), false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const bool repaired = (data[0] & 4) != 0;
    try {
        switch (data[0] & 3) {
            case 0:
                seal_of(bytes, repaired);
                break;
            case 1:
                manifest_of(bytes, repaired);
                break;
            case 2:
                source_map_of(bytes, repaired);
                break;
            default:
                notes_of(bytes);
        }
    } catch (const failure_t&) {
    }
    return 0;
}
