#include "tests/support/hot_events.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/postings/plist.h"
#include "searchthing/slice/warmslice_lists.h"

namespace veldar {

st_txn txn_of(const forge_event& event) {
    st_txn txn;
    txn.time = event.time;
    txn.address = event.address;
    txn.seek_address = event.measure;
    txn.source = event.deleted ? ST_DELETED_SOURCE : event.s;
    txn.source_type = event.st;
    txn.host = event.h;
    return txn;
}

void sort_by_arrival(std::vector<forge_event>* events) {
    std::sort(events->begin(), events->end(), [](const forge_event& a, const forge_event& b) {
        return std::tie(a.time, a.address) < std::tie(b.time, b.address);
    });
}

hot_ptr hot_with(const std::vector<forge_event>& events, bool streaming) {
    warm_rc_t rc;
    hot_ptr hot(st_hot_slice_create(1 << 22, 1 << 16, 1 << 20, 1 << 16, 0, 0, 0, streaming, false, nullptr, &rc));
    if (hot == nullptr) throw std::runtime_error(rc.message);
    for (const forge_event& event : events) {
        const st_txn txn = txn_of(event);
        if (st_hot_slice_txn_start(hot.get(), &txn) != 0) throw std::runtime_error("hot slice is full");
        for (const std::string& term : event.terms) {
            if (st_hot_slice_put_txn(hot.get(), term.data(), term.size(), &txn) != 0) {
                throw std::runtime_error("put refused");
            }
        }
    }
    return hot;
}

int put_event(TSIDX* tsidx, const forge_event& event) {
    const st_txn txn = txn_of(event);
    if (event.address % 2 == 0) {
        return st_tsidx_put_event(tsidx, &txn, std::vector<std::string_view>(event.terms.begin(), event.terms.end()));
    }
    if (const int rc = st_tsidx_txn_start(tsidx, &txn)) return rc;
    for (const std::string& term : event.terms) {
        if (const int rc = st_tsidx_txn_put(tsidx, term.data(), term.size(), &txn)) return rc;
    }
    return st_tsidx_txn_close(tsidx, &txn);
}

std::vector<forge_event> read_slice(const std::string& path, uint32_t* kinds) {
    warm_rc_t rc;
    const auto require = [&](bool condition) {
        if (!condition) throw std::runtime_error(path + ": " + std::to_string(rc.warm_rc) + " " + rc.message);
    };
    WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    require(warm != nullptr);
    std::vector<forge_event> events;
    for (uint32_t number = 0; number < st_warm_slice_values(warm); number++) {
        st_tsval value;
        require(tsval_reader_decode(&warm->tsval_reader, number, &value, false, 0, &rc) == 0);
        const bool deleted = value.s == ST_DELETED_SOURCE;
        events.push_back({.time = value.time,
                          .address = value.address,
                          .measure = static_cast<uint32_t>(value.measure),
                          .s = deleted ? 0 : value.s,
                          .st = value.st,
                          .h = value.h,
                          .terms = {},
                          .deleted = deleted});
    }
    std::vector<std::string> terms;
    const auto collect = [](int32_t, const char* term, size_t length, void* context) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(term, length);
        return 1;
    };
    st_fclex_apply(warm->lexicon, nullptr, collect, &terms, nullptr);
    require(terms.size() == st_warm_slice_terms(warm));
    plist_reader lists;
    require(_init_reader(&lists, warm, 0, nullptr, &rc) == 0);
    for (uint32_t term = 0; term < terms.size(); term++) {
        uint32_t type = 0, count = 0;
        require(_pl_offset_reader(&lists, int64_t{term} - 1, &type, &rc) >= 0);
        if (kinds != nullptr) *kinds |= 1u << type;
        std::vector<uint32_t> ids(events.size() + 1);
        require(_seek_reader(&lists, term, &rc) == 0);
        require(plist_copy(&lists, ids.data(), static_cast<uint32_t>(ids.size()), PLIST_END, &count, &rc) == 0);
        for (uint32_t i = 0; i < count; i++) events[ids[i]].terms.push_back(terms[term]);
    }
    close_plist_reader(&lists);
    st_warm_slice_close(warm);
    return events;
}

std::vector<std::string> files_in(const std::string& directory, const std::string& suffix) {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().string().ends_with(suffix)) paths.push_back(entry.path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::vector<forge_event> read_created_slices(const std::string& directory) {
    std::vector<forge_event> events;
    for (const std::string& path : files_in(directory, ".tsidx")) {
        for (forge_event& event : read_slice(path)) events.push_back(std::move(event));
    }
    return as_stored(events);
}

std::vector<forge_event> as_stored(std::vector<forge_event> events) {
    for (forge_event& event : events) {
        if (event.deleted) event.s = 0;  // the d bit alone is stored
        std::sort(event.terms.begin(), event.terms.end());
        event.terms.erase(std::unique(event.terms.begin(), event.terms.end()), event.terms.end());
    }
    std::erase_if(events, [](const forge_event& event) { return event.terms.empty(); });
    sort_by_arrival(&events);
    return events;
}

bool operator==(const forge_event& a, const forge_event& b) {
    const auto fields = [](const forge_event& e) {
        return std::tie(e.time, e.address, e.measure, e.s, e.st, e.h, e.terms, e.deleted);
    };
    return fields(a) == fields(b);
}

}  // namespace veldar
