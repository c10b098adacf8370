#include "searchthing/slice/kept_lists.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/bitset.h"
#include "searchthing/postings/plist.h"

namespace veldar {

namespace {

constexpr size_t MAX_LISTS = 64;
constexpr uint64_t MAX_SLICE_BYTES = uint64_t{8} << 20, MAX_PROCESS_BYTES = uint64_t{64} << 20;
// Below so many numbers lists are decoded faster than they are looked up here.
constexpr uint32_t MIN_NUMBERS = 64;
// A list of fewer bytes than this part of the numbers is decoded quickly.
constexpr uint32_t SHORT_PART = 256;

std::atomic<uint64_t> process_bytes = 0;

bool is_long(const plist_reader& reader) {
    if (reader.num_values < MIN_NUMBERS) return false;
    if (reader.plo_type == PLO_BMAP) return true;
    return reader.plo_type == PLO_RLE && reader.list_end - reader.position >= reader.num_values / SHORT_PART;
}

}  // namespace

kept_lists::~kept_lists() {
    while (!entries_.empty()) drop(0);
}

void kept_lists::drop(size_t number) {
    const uint64_t bytes = entries_[number].bits.size();
    ST_ASSERT(bytes_ >= bytes);
    bytes_ -= bytes;
    process_bytes -= bytes;
    kept_[entries_[number].term % REMAINDERS]--;
    if (number + 1 != entries_.size()) std::swap(entries_[number], entries_.back());
    entries_.pop_back();
}

// Room for one more list of this slice. Those of other slices are never taken away: other threads may read them.
bool kept_lists::make_room(uint64_t bytes) {
    if (bytes > MAX_SLICE_BYTES) return false;
    const auto is_full = [&] {
        return entries_.size() >= MAX_LISTS || bytes_ + bytes > MAX_SLICE_BYTES ||
               process_bytes + bytes > MAX_PROCESS_BYTES;
    };
    while (is_full() && !entries_.empty()) {
        const auto oldest = std::min_element(entries_.begin(), entries_.end(),
                                             [](const entry& a, const entry& b) { return a.used < b.used; });
        drop(static_cast<size_t>(oldest - entries_.begin()));
    }
    return !is_full();
}

std::span<const uint8_t> kept_lists::find(uint32_t term) {
    if (kept_[term % REMAINDERS] == 0) return {};
    for (entry& kept : entries_) {
        if (kept.term != term) continue;
        kept.used = ++clock_;
        return {kept.bits.data(), kept.bits.size()};
    }
    return {};
}

int kept_lists::decode(uint32_t term, plist_reader* reader, std::span<const uint8_t>* bits, warm_rc_t* rc) {
    *bits = {};
    uint32_t& asked = asked_[term % REMAINDERS];
    if (!is_long(*reader) || std::exchange(asked, term) != term) return 0;
    const uint64_t size = _calc_bitmap_size(0, reader->num_values);
    entry made = {term, ++clock_, {}};
    if (!make_room(size) || !made.bits.alloc(size)) return 0;
    warm_rc_t ignored;
    if (plist_or_into_bitmap(reader, made.bits.data(), 0, reader->num_values, &ignored) != 0) {
        asked = ~uint32_t{0};
        return _seek_reader(reader, term, rc);
    }
    try {
        entries_.push_back(std::move(made));
    } catch (const std::bad_alloc&) {
        return _seek_reader(reader, term, rc);
    }
    bytes_ += size;
    process_bytes += size;
    kept_[term % REMAINDERS]++;
    *bits = {entries_.back().bits.data(), entries_.back().bits.size()};
    return 0;
}

}  // namespace veldar
