#include "tools/libveldar/check/fsck_store.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

// The first event with a fault of one kind, and how many have it.
struct store_fault {
    const char* what;
    uint64_t count = 0;
    uint32_t value = 0;
    uint64_t number = 0;
};

void note(store_fault* fault, bool wrong, uint32_t value, uint64_t number) {
    if (!wrong) return;
    if (fault->count++ != 0) return;
    fault->value = value;
    fault->number = number;
}

}  // namespace

bool store_names_read(const std::string& store, store_names* names, std::string* error) {
    if (store_read_names(store, "hosts", &names->hosts) && store_read_names(store, "sources", &names->sources) &&
        store_read_names(store, "sourcetypes", &names->sourcetypes)) {
        return true;
    }
    *error = store + ": its dictionaries cannot be read: " + std::strerror(errno);
    return false;
}

std::vector<std::string> fsck_store_slice(WARM* warm, const source_map& map, const store_names& names) {
    store_fault faults[] = {{"address that the source map does not know"},
                            {"host that has no name"},
                            {"source that has no name"},
                            {"source type that has no name"}};
    for (uint32_t id = 0; id < st_warm_slice_values(warm); id++) {
        st_tsval value;
        warm_rc_t rc;
        if (tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, &rc) != 0) break;
        if (value.s == ST_DELETED_SOURCE) continue;
        note(&faults[0], !source_map_find(map, value.address), id, value.address);
        note(&faults[1], value.h >= names.hosts.size(), id, value.h);
        note(&faults[2], value.s >= names.sources.size(), id, value.s);
        note(&faults[3], value.st >= names.sourcetypes.size(), id, value.st);
    }
    std::vector<std::string> lines;
    for (const store_fault& fault : faults) {
        if (fault.count == 0) continue;
        lines.push_back(
            fmt::format("{}: {} of value {}, {} events", fault.what, fault.number, fault.value, fault.count));
    }
    return lines;
}

}  // namespace veldar::tool
