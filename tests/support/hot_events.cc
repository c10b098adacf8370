#include "tests/support/hot_events.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/warmslice.h"
#include "tests/support/temp_dir.h"

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
    if (const int rc = st_tsidx_txn_start(tsidx, &txn)) return rc;
    for (const std::string& term : event.terms) {
        if (const int rc = st_tsidx_txn_put(tsidx, term.data(), term.size(), &txn)) return rc;
    }
    return st_tsidx_txn_close(tsidx, &txn);
}

namespace {

int collect_term(int32_t, const char* term, size_t length, void* context) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(term, length);
    return 1;
}

void read_created_slice(const std::string& path, std::vector<forge_event>* events) {
    warm_rc_t rc;
    WARM* warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    if (warm == nullptr) throw std::runtime_error(path + " does not open: " + rc.message);
    std::vector<std::string> terms;
    st_fclex_apply(warm->lexicon, nullptr, collect_term, &terms, nullptr);
    const std::string file = read_file(path);
    const auto* bytes = reinterpret_cast<const uint8_t*>(file.data());
    const st_warm_slice_body* body = warm->body;
    const size_t first = events->size();
    for (uint32_t i = 0; i < body->num_values.get(); i++) {
        const uint8_t* value = bytes + _offset_values(body) + 8 * i;
        const auto companion = [&](uint64_t offset, const be32& nbits) {
            return decode_from_byte_str(bytes + offset, i, nbits.get());
        };
        events->push_back({.time = static_cast<int32_t>(load_be32(value)),
                           .address = load_be32(value + 4),
                           .measure = companion(_offset_m_array(body), body->m_nbits),
                           .s = companion(_offset_s_array(body), body->s_nbits),
                           .st = companion(_offset_st_array(body), body->st_nbits),
                           .h = companion(_offset_h_array(body), body->h_nbits),
                           .terms = {},
                           .deleted = companion(_offset_d_array(body), body->d_nbits) != 0});
    }
    uint64_t position = 0;
    for (size_t term = 0; term < terms.size(); term++) {
        const uint64_t end = load_be64(bytes + _offset_pl_offs(body) + 8 * term);
        for (uint32_t number = 0, gap; position < end;
             number += gap, events->at(first + number).terms.push_back(terms[term])) {
            position += st_decode_from_vbe(&gap, bytes + warm->postings_base + position);
        }
    }
    st_warm_slice_close(warm);
}

}  // namespace

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
    for (const std::string& path : files_in(directory, ".tsidx")) read_created_slice(path, &events);
    return as_stored(events);
}

std::vector<forge_event> as_stored(std::vector<forge_event> events) {
    for (forge_event& event : events) {
        if (event.deleted) event.s = 0;  // readers restore it from the d bit
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
