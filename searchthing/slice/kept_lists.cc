#include "searchthing/slice/kept_lists.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/bitset.h"
#include "searchthing/postings/plist.h"

namespace veldar {

namespace {

constexpr size_t MAX_BITMAPS = 64, MAX_MARKED = 256;
constexpr uint64_t MAX_SLICE_BYTES = uint64_t{8} << 20, MAX_PROCESS_BYTES = uint64_t{64} << 20;
// Below so many numbers lists are decoded faster than they are looked up here.
constexpr uint32_t MIN_NUMBERS = 64;
// A list of fewer bytes than this part of the numbers is decoded quickly.
constexpr uint32_t SHORT_PART = 256;

std::atomic<uint64_t> process_bytes = 0;

uint64_t bytes_of_list(const plist_reader& reader) {
    return reader.plo_type == PLO_BMAP ? reader.bitmap.bsize : reader.list_end - reader.list_begin;
}

bool is_long(const plist_reader& reader) {
    return reader.plo_type == PLO_BMAP || bytes_of_list(reader) >= reader.num_values / SHORT_PART;
}

}  // namespace

kept_lists::kept_lists() = default;

kept_lists::~kept_lists() {
    while (!entries_.empty()) drop(0);
}

uint64_t kept_lists::entry::bytes() const {
    return bits.size() + marks->marks.size() * sizeof(plist_mark_t);
}

void kept_lists::drop(size_t number) {
    const uint64_t bytes = entries_[number].bytes();
    ST_ASSERT(bytes_ >= bytes);
    bytes_ -= bytes;
    process_bytes -= bytes;
    bitmaps_ -= entries_[number].bits.empty() ? 0 : 1;
    remembered_[entries_[number].term % REMAINDERS]--;
    if (number + 1 != entries_.size()) std::swap(entries_[number], entries_.back());
    entries_.pop_back();
}

bool kept_lists::drop_oldest(bool with_bits) {
    auto oldest = entries_.end();
    for (auto at = entries_.begin(); at != entries_.end(); ++at) {
        if (at->bits.empty() == with_bits) continue;
        if (oldest == entries_.end() || at->used < oldest->used) oldest = at;
    }
    if (oldest == entries_.end()) return false;
    drop(static_cast<size_t>(oldest - entries_.begin()));
    return true;
}

// What other slices remember is never taken away: other threads may read it.
bool kept_lists::has_room(uint64_t bytes) const {
    return bytes_ + bytes <= MAX_SLICE_BYTES && process_bytes + bytes <= MAX_PROCESS_BYTES;
}

kept_lists::entry* kept_lists::find_entry(uint32_t term) {
    if (remembered_[term % REMAINDERS] == 0) return nullptr;
    for (entry& one : entries_) {
        if (one.term != term) continue;
        one.used = ++clock_;
        return &one;
    }
    return nullptr;
}

// Null when there is no room or memory.
kept_lists::entry* kept_lists::add_entry(uint32_t term, uint64_t list_bytes) {
    const uint64_t marks = plist_marks_room(list_bytes), bytes = marks * sizeof(plist_mark_t);
    while (entries_.size() - bitmaps_ >= MAX_MARKED || !has_room(bytes)) {
        if (!drop_oldest(false)) return nullptr;
    }
    entry made = {term, ++clock_, std::unique_ptr<plist_marks_t>(new (std::nothrow) plist_marks_t), {}};
    if (made.marks == nullptr || (marks > 0 && !made.marks->marks.alloc(marks))) return nullptr;
    try {
        entries_.push_back(std::move(made));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    bytes_ += bytes;
    process_bytes += bytes;
    remembered_[term % REMAINDERS]++;
    return &entries_.back();
}

std::span<const uint8_t> kept_lists::find(uint32_t term) {
    const entry* const found = find_entry(term);
    if (found == nullptr) return {};
    return {found->bits.data(), found->bits.size()};
}

// Decodes the whole list from where the reader stands.
bool kept_lists::keep(entry* of, plist_reader* reader, bool may_drop) {
    const uint64_t size = _calc_bitmap_size(0, reader->num_values);
    const uint32_t term = of->term;
    while (bitmaps_ >= MAX_BITMAPS || !has_room(size)) {
        if (!may_drop || !drop_oldest(true)) return false;
        of = find_entry(term);
    }
    buffer<uint8_t> bits;
    warm_rc_t ignored;
    if (!bits.alloc(size)) return false;
    const bool is_whole = plist_or_into_bitmap(reader, bits.data(), 0, reader->num_values, &ignored) == 0;
    of->marks->passed = 0;
    if (!is_whole) return false;
    of->bits = std::move(bits);
    bitmaps_++;
    bytes_ += size;
    process_bytes += size;
    return true;
}

int kept_lists::open(uint32_t term, plist_reader* reader, uint32_t wanted, std::span<const uint8_t>* bits,
                     warm_rc_t* rc) {
    *bits = {};
    const uint64_t list_bytes = bytes_of_list(*reader);
    const bool may_keep = is_long(*reader);
    if (reader->num_values < MIN_NUMBERS || reader->plo_type == PLO_SPO) return 0;
    if (!may_keep && list_bytes < 2 * PLIST_MARK_BYTES) return 0;
    entry* found = find_entry(term);
    if (found == nullptr) found = add_entry(term, reader->plo_type == PLO_RLE ? list_bytes : 0);
    if (found == nullptr) return 0;
    const uint64_t before = found->marks->passed;
    const uint64_t now = list_bytes * wanted / reader->num_values;
    if (reader->plo_type == PLO_BMAP) found->marks->passed += now;
    if (found->bits.empty() && may_keep && before + now >= list_bytes) {
        if (keep(found, reader, before >= list_bytes)) {
            *bits = find(term);
            return 0;
        }
        ST_TRY(_seek_reader(reader, term, rc));
        found = find_entry(term);
    }
    if (reader->plo_type == PLO_RLE) plist_reader_attach_marks(reader, found->marks.get());
    return 0;
}

}  // namespace veldar
