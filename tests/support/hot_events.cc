#include "tests/support/hot_events.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>

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

}  // namespace veldar
