#include "tools/libveldar/store/known_files.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "libzero/endian.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/record_reader.h"

namespace veldar::tool {

namespace {

// The offset behind the record at a place; false when the file cannot be read there.
bool record_end(const store_bucket& bucket, const source_place& place, uint64_t* end) {
    std::string error;
    log_input input;
    record_reader reader;
    reader.cut = record_cut_of(place.file->records, place.cut);
    std::string path = source_file_locate(*place.file, bucket.directory, &error);
    if (path.empty() || !log_input_open(&input, path, &error)) return false;
    if (input.packed != nullptr) {
        packed_load_points(input.packed.get(), bucket.directory + "/" + source_points_name(place.file->number));
    }
    if (!log_input_seek(&input, place.offset, &error)) return false;
    record_reader_open(&reader, &input, place.end);
    uint64_t offset;
    std::string_view text;
    if (!record_reader_next(&reader, &offset, &text)) return false;
    record_reader_finish_record(&reader);
    *end = reader.offset;
    return input.packed != nullptr || reader.error.empty();
}

// Slices become visible in the order of their addresses and each as a whole, so the greatest address that has been in
// one is the last event that is indexed. False when its record cannot be read.
bool settle_bucket(store_bucket* bucket, known_file* last) {
    if (!bucket->has_events || bucket->address_max < bucket->map.frontier) return true;
    const std::optional<source_place> place = source_map_find(bucket->map, bucket->address_max);
    if (!place) {
        throw failure_t{OUTCOME_IO, bucket->map.path + ": has no file for address " +
                                        std::to_string(bucket->address_max) + ", which a slice holds"};
    }
    uint64_t end;
    if (record_end(*bucket, *place, &end)) {
        source_map_put_mark(&bucket->map, bucket->address_max + (end - place->offset));
        return true;
    }
    source_map_put_mark(&bucket->map, bucket->address_max);
    last->file = *place->file;
    last->progress = place->offset;
    last->record_indexed = true;
    last->record_limit = place->end;
    last->record_cut = place->cut;
    return false;
}

void raise_progress(known_file* known, uint64_t progress) {
    if (progress < known->progress || (progress == known->progress && known->record_indexed)) return;
    known->progress = progress;
    known->record_indexed = false;
}

// A load that was cut off may have noted a stretch of which no event is in a slice.
bool is_reached(const source_map& map, size_t stretch) {
    return map.stretches[stretch].base < map.frontier;
}

void gather_bucket(known_files* known, const store_bucket& bucket) {
    for (const auto& [number, file] : bucket.map.files) {
        known->by_number[number].file = file;
        known->next_number = std::max(known->next_number, number + 1);
    }
    for (size_t i = 0; i < bucket.map.stretches.size() && is_reached(bucket.map, i); i++) {
        const auto file = known->by_number.find(bucket.map.stretches[i].number);
        if (file != known->by_number.end()) {
            raise_progress(&file->second, source_map_stretch_end(bucket.map, i));
        }
    }
}

// Whether both are one log. It is moved in all its forms, but the head that is known grows with the last of them alone.
bool is_same_log(const source_file& a, const source_file& b) {
    const bool stands_there = a.path == b.path && a.inode == b.inode && a.device == b.device;
    return a.source == b.source && (stands_there || (a.head_size == b.head_size && a.head_hash == b.head_hash));
}

// A log whose lines take another form goes on as another file of the source map: at the address and the offset where the
// stretch before it ends. Where a bucket ends there, the next one alone has its events.
void gather_forms(known_files* known, const source_map& map) {
    for (size_t i = 1; i < map.stretches.size(); i++) {
        const source_stretch &before = map.stretches[i - 1], &one = map.stretches[i];
        const auto file = known->by_number.find(before.number), next = known->by_number.find(one.number);
        const bool goes_on = one.number > before.number && one.offset > 0 && one.offset >= before.offset &&
                             one.offset - before.offset == one.base - before.base;
        if (!goes_on || file == known->by_number.end() || next == known->by_number.end()) continue;
        if (is_same_log(file->second.file, next->second.file)) file->second.next = one.number;
    }
}

void gather_tails(known_files* known, const store_bucket& bucket) {
    for (const source_tail& tail : bucket.map.tails) {
        const auto file = known->by_number.find(tail.number);
        if (file == known->by_number.end() || tail.end > file->second.progress) continue;
        if (tail.end >= file->second.tail.end) file->second.tail = tail;
    }
}

// The numbers of the files whose head this head begins with.
std::vector<uint32_t> same_heads(const known_files& known, const std::string& head) {
    std::vector<uint32_t> numbers;
    const std::unique_ptr<XXH64_state_t, XXH_errorcode (*)(XXH64_state_t*)> state(XXH64_createState(), XXH64_freeState);
    XXH64_reset(state.get(), 0);
    size_t hashed = 0;
    for (const auto& [size, hashes] : known.heads) {
        if (size > head.size()) break;
        XXH64_update(state.get(), head.data() + hashed, size - hashed);
        hashed = size;
        const auto [first, last] = hashes.equal_range(XXH64_digest(state.get()));
        for (auto i = first; i != last; ++i) numbers.push_back(i->second);
    }
    return numbers;
}

// The length that a gzip file of one member says it has (modulo 2^32).
bool gzip_length_is(const log_input& input, uint64_t length) {
    char ending[4];
    return input.packed->format == PACKED_GZIP && input.size > 18 &&
           disk_read_at(input.fd.get(), ending, sizeof ending, input.size - 4) == 4 &&
           load_le32(ending) == static_cast<uint32_t>(length);
}

// Whether the bytes before the progress are those that were loaded, as far as a hash of the last of them is known. An
// input that cannot be read that far (a cut compressed file) is taken for the same: its trouble is reported when it is
// loaded.
bool same_tail(const known_file& known, log_input* input) {
    if (log_input_is_plain(*input) && input->size < known.progress) return false;
    if (input->packed != nullptr && input->wide == nullptr && gzip_length_is(*input, known.progress)) return true;
    const source_tail& tail = known.tail;
    std::string error, bytes(tail.size, '\0');
    const bool reached = log_input_seek(input, known.progress, &error);
    const bool is_shorter = !reached && (input->packed == nullptr || input->packed->ended);
    if (is_shorter) return false;
    if (!reached || tail.size == 0) return true;
    if (!log_input_seek(input, tail.end - tail.size, &error)) return true;
    for (size_t have = 0; have < bytes.size();) {
        const int64_t got = log_input_read(input, bytes.data() + have, bytes.size() - have, &error);
        if (got <= 0) return got < 0;
        have += static_cast<size_t>(got);
    }
    return XXH64(bytes.data(), bytes.size(), 0) == tail.hash;
}

// What stands in the input from this offset on, up to as many bytes as the buffer has; negative when it cannot be read.
int64_t read_from(log_input* input, uint64_t offset, std::span<char> out) {
    std::string error;
    if (!log_input_seek(input, offset, &error)) return log_input_is_plain(*input) ? -1 : 0;
    size_t have = 0;
    while (have < out.size()) {
        const int64_t got = log_input_read(input, out.data() + have, out.size() - have, &error);
        if (got <= 0) return got < 0 ? -1 : static_cast<int64_t>(have);
        have += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(have);
}

// Whether the original goes on behind the progress with all the bytes that the input has there, as far as 4 KiB tell. One
// that cannot be read is taken to.
bool goes_on_alike(const known_file& known, log_input* input, log_input* original) {
    char bytes[4096], others[sizeof bytes];
    const int64_t size = read_from(input, known.progress, bytes);
    const auto wanted = static_cast<size_t>(std::max<int64_t>(size, 0));
    const int64_t got = read_from(original, known.progress, {others, wanted});
    return size < 0 || got < 0 || (got == size && std::memcmp(bytes, others, wanted) == 0);
}

// Whether the log was truncated since it was opened.
bool is_truncated(const known_file& known, const log_input& original) {
    struct stat now;
    return log_input_is_plain(original) && ::fstat(original.fd.get(), &now) == 0 &&
           static_cast<uint64_t>(now.st_size) < known.progress;
}

void remove_head(known_files* known, const source_file& file) {
    auto& hashes = known->heads[file.head_size];
    const auto [first, last] = hashes.equal_range(file.head_hash);
    const auto found = std::find_if(first, last, [&](const auto& head) { return head.second == file.number; });
    if (found != last) hashes.erase(found);
}

}  // namespace

known_files known_files_gather(store* st, std::vector<uint32_t>* open_end) {
    known_files known;
    std::vector<known_file> unsettled;
    for (store_bucket& bucket : st->buckets) {
        known_file last;
        if (!settle_bucket(&bucket, &last)) {
            unsettled.push_back(last);
            open_end->push_back(bucket.number);
        }
        gather_bucket(&known, bucket);
    }
    for (const known_file& last : unsettled) {
        known_file& file = known.by_number[last.file.number];
        if (last.progress < file.progress) continue;
        file.progress = last.progress;
        file.record_indexed = true;
        file.record_limit = last.record_limit;
        file.record_cut = last.record_cut;
    }
    for (const store_bucket& bucket : st->buckets) {
        gather_tails(&known, bucket);
        gather_forms(&known, bucket.map);
    }
    for (const store_bucket& bucket : st->buckets) {
        for (const auto& [number, deleted] : bucket.map.forgotten) known.by_number.erase(number);
    }
    // Of a file of which nothing is indexed nothing need be known; its lines may have another form than it begins with.
    std::erase_if(known.by_number, [](const auto& entry) {
        const known_file& file = entry.second;
        return file.progress == 0 && !file.record_indexed && file.file.kind != SOURCE_SPOOL;
    });
    for (const auto& [number, file] : known.by_number) {
        if (file.file.kind != SOURCE_SPOOL) known.heads[file.file.head_size].emplace(file.file.head_hash, number);
    }
    return known;
}

std::vector<uint32_t> known_files_of_log(const known_files& known, uint32_t number) {
    for (auto file = known.by_number.find(number); file != known.by_number.end();
         file = known.by_number.find(file->second.next)) {
        number = file->first;
    }
    std::vector<uint32_t> numbers = {number};
    // The forms before it have smaller numbers.
    for (auto file = known.by_number.rbegin(); file != known.by_number.rend(); ++file) {
        if (file->second.next == numbers.back()) numbers.push_back(file->first);
    }
    return numbers;
}

known_file* known_files_identify(known_files* known, log_input* input, bool* copy) {
    *copy = false;
    std::vector<uint32_t> numbers = same_heads(*known, input->head);
    // A log of several forms goes on where the last of them ends.
    std::erase_if(numbers, [&](uint32_t number) { return known->by_number.contains(known->by_number[number].next); });
    // A compressed copy may have got the inode of a log that was removed.
    const auto same_inode = [&](uint32_t number) {
        const source_file& file = known->by_number[number].file;
        return file.inode == input->inode && file.device == input->device &&
               (file.kind == SOURCE_PACKED) == (input->packed != nullptr);
    };
    std::sort(numbers.begin(), numbers.end(), [&](uint32_t a, uint32_t b) {
        const bool a_same = same_inode(a), b_same = same_inode(b);
        if (a_same != b_same) return a_same;
        const known_file &one = known->by_number[a], &other = known->by_number[b];
        return std::pair(one.file.head_size, one.progress) > std::pair(other.file.head_size, other.progress);
    });
    for (const uint32_t number : numbers) {
        known_file* const file = &known->by_number[number];
        if (known_file_unchanged(*file, *input)) return file;
        if (!same_tail(*file, input)) continue;
        log_input original;
        *copy = !same_inode(number) && source_file_open_original(file->file, &original);
        if (!*copy || goes_on_alike(*file, input, &original)) return file;
        *copy = false;
        if (is_truncated(*file, original)) return file;
    }
    return nullptr;
}

known_file* known_files_put(known_files* known, const source_file& file) {
    known_file* const entry = &known->by_number[file.number];
    if (entry->file.head_size != 0) remove_head(known, entry->file);
    entry->file = file;
    known->next_number = std::max(known->next_number, file.number + 1);
    if (file.kind != SOURCE_SPOOL) known->heads[file.head_size].emplace(file.head_hash, file.number);
    return entry;
}

std::vector<uint32_t> known_files_to_delete(const store& st) {
    std::vector<uint32_t> numbers;
    for (const store_bucket& bucket : st.buckets) {
        for (const auto& [number, deleted] : bucket.map.forgotten) {
            if (!deleted) numbers.push_back(number);
        }
    }
    return numbers;
}

void known_files_forget(known_files* known, store* st, uint32_t number) {
    const auto holds = [&](const store_bucket& bucket) { return bucket.map.files.contains(number); };
    const auto bucket = std::find_if(st->buckets.begin(), st->buckets.end(), holds);
    if (bucket != st->buckets.end()) source_map_put_forgotten(&bucket->map, number, false);
    remove_head(known, known->by_number[number].file);
    known->by_number.erase(number);
}

bool known_file_unchanged(const known_file& known, const log_input& input) {
    return known.file.inode == input.inode && known.file.device == input.device && known.file.size == input.size &&
           known.file.modified_ns == input.modified_ns && known.tail.end == known.progress && known.progress > 0 &&
           !known.record_indexed &&
           (log_input_is_plain(input) ? known.progress == input.size : known.tail.whole == log_input_state(input));
}

uint64_t log_input_state(const log_input& input) {
    const uint64_t state[] = {input.device, input.inode, input.size, input.modified_ns};
    return XXH64(state, sizeof state, 0) | 1;
}

}  // namespace veldar::tool
