#include "tests/support/forge_metric.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "tests/support/forge_internal.h"
#include "tests/support/temp_dir.h"

namespace veldar {

using namespace forging;

namespace {

const std::string METRIC_NAME = " metric_name::";
constexpr uint32_t NONE = 0xFFFFFFFF;
constexpr uint64_t PREAMBLES = 0x4, MS_REQUESTED = 0x20, MS_PRESENT = 0x40;

void put_le(std::string* out, uint64_t v, int bytes) {
    for (int i = 0; i < bytes; i++) out->push_back(static_cast<char>(v >> (8 * i)));
}

uint32_t xxh32(const std::string& bytes, uint32_t seed = 0) {
    return XXH32(bytes.data(), bytes.size(), seed);
}

bool begins(const std::string& term, const char* prefix) {
    return term.rfind(prefix, 0) == 0;
}

// A set in the order of the section: its columns decide before its dimensions.
struct set_key {
    std::vector<uint32_t> columns, dimensions;
    auto operator<=>(const set_key&) const = default;
};

set_key set_of(const metric_event& event, const std::map<std::string, uint32_t>& ids) {
    set_key key;
    key.dimensions = {NONE, NONE, NONE};
    for (const std::string& term : event.dimensions) {
        const uint32_t id = ids.at(term);
        check(!begins(term, " metric_name::"), "not a dimension: " + term);
        if (begins(term, " host::")) {
            key.dimensions[0] = id;
        } else if (begins(term, " source::")) {
            key.dimensions[1] = id;
        } else if (begins(term, " sourcetype::")) {
            key.dimensions[2] = id;
        } else {
            key.dimensions.push_back(id);
        }
    }
    for (const auto& [name, bits] : event.measures) key.columns.push_back(ids.at(METRIC_NAME + name));
    check(!key.columns.empty(), "an event without a measure");
    std::sort(key.dimensions.begin() + 3, key.dimensions.end());
    return key;
}

bool newer(const metric_event& a, const metric_event& b) {
    return a.time != b.time ? a.time > b.time : a.milliseconds > b.milliseconds;
}

// Numbers terms, sets and values.
forge_metric_picture number_metrics(const std::vector<metric_event>& events) {
    forge_metric_picture picture;
    std::map<std::string, uint32_t> ids;
    for (const metric_event& event : events) {
        for (const std::string& term : event.dimensions) ids[term];
        for (const auto& [name, bits] : event.measures) ids[METRIC_NAME + name];
    }
    for (auto& [term, id] : ids) {
        id = static_cast<uint32_t>(picture.terms.size());
        picture.terms.push_back(term);
    }
    std::map<set_key, std::vector<metric_event>> sets;
    for (const metric_event& event : events) sets[set_of(event, ids)].push_back(event);
    picture.postings.resize(ids.size());
    picture.num_values = static_cast<uint32_t>(sets.size() + events.size());
    picture.earliest = std::numeric_limits<int32_t>::max();
    picture.latest = std::numeric_limits<int32_t>::min();
    for (auto& [key, run] : sets) {
        picture.sets.push_back(key.dimensions);
        picture.sets.back().insert(picture.sets.back().end(), key.columns.begin(), key.columns.end());
        picture.columns.push_back(static_cast<uint32_t>(key.columns.size()));
    }
    for (auto it = sets.rbegin(); it != sets.rend(); ++it) {
        auto& run = it->second;
        std::stable_sort(run.begin(), run.end(), newer);
        picture.latest = std::max(picture.latest, run.front().time);
        picture.earliest = std::min(picture.earliest, run.back().time);
        const auto number = static_cast<uint32_t>(picture.runs.size());
        for (const uint32_t id : picture.sets[sets.size() - 1 - number]) {
            if (id != NONE) picture.postings[id].push_back(number);
        }
        picture.runs.push_back(std::move(run));
    }
    for (const auto& list : picture.postings) picture.num_postings += static_cast<uint32_t>(list.size());
    return picture;
}

uint32_t time_nbits(const forge_metric_picture& picture) {
    return bit_length(static_cast<uint32_t>(picture.latest) - static_cast<uint32_t>(picture.earliest));
}

std::string values_section(const forge_metric_picture& picture, const forge_metric_options& options) {
    std::string out;
    bit_string packed;
    auto first = static_cast<uint32_t>(picture.runs.size());
    for (const auto& run : picture.runs) {
        put_le(&out, first, 4);
        put_le(&out, run.size(), 4);
        first += static_cast<uint32_t>(run.size());
        for (const metric_event& event : run) {
            packed.put(static_cast<uint32_t>(event.time) - static_cast<uint32_t>(picture.earliest),
                       time_nbits(picture));
            packed.put(event.milliseconds, options.milliseconds ? 10 : 0);
        }
    }
    return out + packed.whole_words();
}

std::string companion(const forge_metric_picture& picture, uint32_t metric_event::*field, uint32_t nbits) {
    bit_string out;
    for (size_t p = 0; p < picture.runs.size(); p++) out.put(0, nbits);
    for (const auto& run : picture.runs) {
        for (const metric_event& event : run) out.put(event.*field, nbits);
    }
    return out.bytes;
}

uint32_t companion_nbits(const forge_metric_picture& picture, uint32_t metric_event::*field) {
    uint32_t largest = 0;
    for (const auto& run : picture.runs) {
        for (const metric_event& event : run) largest = std::max(largest, event.*field);
    }
    return std::max(1u, bit_length(largest));
}

std::string metadata_section(const forge_metric_picture& picture) {
    bit_string packed;
    for (const std::vector<uint32_t>& list : picture.postings) {
        uint64_t count = 0;
        int32_t earliest = picture.latest, latest = picture.earliest;
        for (const uint32_t run : list) {
            count += picture.runs[run].size();
            latest = std::max(latest, picture.runs[run].front().time);
            earliest = std::min(earliest, picture.runs[run].back().time);
        }
        packed.put(count, bit_length(picture.num_values));
        for (const int32_t time : {earliest, latest}) {
            packed.put(static_cast<uint32_t>(time) - static_cast<uint32_t>(picture.earliest), time_nbits(picture));
        }
    }
    return packed.whole_words();
}

std::string dimsets_section(const forge_metric_picture& picture) {
    std::string ends, body;
    for (size_t i = 0; i < picture.sets.size(); i++) {
        put_le(&body, picture.sets[i].size() + 2, 4);
        put_le(&body, picture.columns[i], 4);
        for (const uint32_t word : picture.sets[i]) put_le(&body, word, 4);
        put_le(&ends, body.size() / 4, 4);
    }
    std::string out = "DSMAGIC0";
    put_le(&out, picture.sets.size(), 4);
    put_le(&out, body.size() / 4, 4);
    return out + ends + body;
}

// One measure's elements, in value order.
struct column {
    std::vector<std::pair<uint32_t, uint32_t>> ranges;  // first value number, first ordinal
    std::vector<double> elements;
    uint32_t next = NONE;  // the value number that continues the last range
};

std::map<uint32_t, column> columns_of(const forge_metric_picture& picture) {
    std::map<uint32_t, column> columns;
    auto number = static_cast<uint32_t>(picture.runs.size());
    for (const auto& run : picture.runs) {
        for (const metric_event& event : run) {
            for (const auto& [name, bits] : event.measures) {
                const std::string term = METRIC_NAME + name;
                const auto id =
                    std::lower_bound(picture.terms.begin(), picture.terms.end(), term) - picture.terms.begin();
                column& c = columns[static_cast<uint32_t>(id)];
                if (c.next != number) c.ranges.emplace_back(number, static_cast<uint32_t>(c.elements.size()));
                c.elements.push_back(std::bit_cast<double>(bits));
                c.next = number + 1;
            }
            number++;
        }
    }
    return columns;
}

void put_varint(std::string* out, uint64_t v) {
    for (; v >= 128; v /= 128) put_le(out, v % 128 + 128, 1);
    put_le(out, v, 1);
}

// Blocks of at most 512 elements, CONST where all bits agree, else RAW.
void put_block(const double* values, uint32_t first, uint32_t count, uint32_t version, std::string* headers,
               std::string* data) {
    const auto bits = [&](uint32_t i) { return std::bit_cast<uint64_t>(values[i]); };
    bool same = true;
    double low = std::numeric_limits<double>::infinity(), high = -low, sum = 0;
    for (uint32_t i = 0; i < count; i++) {
        same = same && bits(i) == bits(0);
        sum += values[i];
        if (std::isnan(values[i])) continue;
        low = std::min(low, values[i]);
        high = std::max(high, values[i]);
    }
    const uint64_t at = data->size() / 8;
    std::string block;
    for (uint32_t i = 0; i < (same ? 1 : count); i++) put_le(&block, bits(i), 8);
    if (version == 1) {
        *data += block;
        put_le(data, xxh32(block), 8);
        put_le(headers, first, 4);
        put_le(headers, count, 2);
        put_le(headers, same ? 0 : 1, 1);  // codec
        put_le(headers, 0, 3);             // decimal exponent, width, residual bits
        put_le(headers, 0, 2);             // exceptions
        put_le(headers, at, 4);
    } else {
        put_le(headers, same ? 0 : 1, 1);   // codec, no exponent
        put_le(headers, same ? 0 : 56, 1);  // minimum, maximum and sum are doubles
        put_varint(headers, count);
        put_varint(headers, same ? 0 : block.size() + 4);
        if (same) *headers += block;
        if (same) return;
        *data += block;
        put_le(data, xxh32(block), 4);
    }
    for (const double v : {low, high, sum}) put_le(headers, std::bit_cast<uint64_t>(v), 8);
}

std::string column_set(const column& c, uint32_t version) {
    const auto n = static_cast<uint32_t>(c.elements.size());
    std::string headers, data;
    for (uint32_t first = 0; first < n; first += 512) {
        put_block(c.elements.data() + first, first, std::min(512u, n - first), version, &headers, &data);
    }
    const uint32_t b1 = bit_length(c.ranges.back().first), b2 = bit_length(c.ranges.back().second);
    bit_string firsts, ordinals;
    for (const auto& [first, ordinal] : c.ranges) {
        firsts.put(first, b1);
        ordinals.put(ordinal, b2);
    }
    if (version > 1) headers.resize(headers.size() + (8 - (headers.size() + data.size()) % 8) % 8);
    const uint64_t widths = b1 | b2 << 8;
    std::string out = version == 1 ? "CST1" : "CST2";
    put_le(&out, 1 | (version == 1 ? 0 : widths << 8), 4);  // f64
    for (const uint64_t v : {uint64_t{n}, uint64_t{(n + 511) / 512}, uint64_t{c.ranges.size()}}) put_le(&out, v, 4);
    put_le(&out, version == 1 ? widths : headers.size(), 4);
    put_le(&out, version == 1 ? data.size() / 8 : 0, 4);
    const std::string tables = firsts.whole_words() + ordinals.whole_words() + headers;
    put_le(&out, xxh32(tables, xxh32(out)), 4);
    return out + tables + data;
}

// The section and, in *footer, what the file's header says about it.
std::string cstore_section(const forge_metric_picture& picture, uint32_t version, uint64_t* footer) {
    std::string entries, body;
    const std::map<uint32_t, column> columns = columns_of(picture);
    for (const auto& [term, c] : columns) {
        put_le(&entries, term, 4);
        put_le(&entries, (32 + body.size()) / 8, 4);
        body += column_set(c, version);
    }
    *footer = 32 + body.size();
    std::string out = "CSTORE01";
    for (const uint64_t v :
         {uint64_t{version}, uint64_t{columns.size()}, uint64_t{picture.num_values}, uint64_t{picture.runs.size()}}) {
        put_le(&out, v, 4);
    }
    put_le(&out, *footer, 8);
    out += body;
    put_le(&out, columns.size(), 4);
    put_le(&out, xxh32(entries, xxh32(out.substr(0, 32))), 4);
    put_le(&out, *footer + 16 + entries.size(), 8);
    return out + entries;
}

}  // namespace

std::string forge_metric_options::name() const {
    return terms.name() + (milliseconds ? " milliseconds" : "");
}

std::string forge_metric_slice(const std::vector<metric_event>& events, const forge_metric_options& options,
                               forge_metric_picture* result) {
    check(!events.empty(), "a metric slice without events");
    check((options.terms.wflags & ~(FORGE_TAG1 | FORGE_TAG2 | FORGE_PLO32)) == 0, "flags not forged");
    forge_metric_picture picture = number_metrics(events);
    const uint32_t widths[] = {companion_nbits(picture, &metric_event::source),
                               companion_nbits(picture, &metric_event::source_type),
                               companion_nbits(picture, &metric_event::host)};
    const std::string s = companion(picture, &metric_event::source, widths[0]);
    const std::string st = companion(picture, &metric_event::source_type, widths[1]);
    const std::string h = companion(picture, &metric_event::host, widths[2]);
    const std::string d((picture.num_values + 7) / 8, '\0');
    uint64_t footer = 0;
    const std::string cstore = cstore_section(picture, options.store, &footer);

    std::string out = std::string("_MSIDX4") + '\0';
    for (const uint64_t v : std::initializer_list<uint64_t>{
             picture.num_values, picture.num_postings, picture.terms.size(), 0, s.size(), st.size(), h.size(), d.size(),
             0, widths[0], widths[1], widths[2], 1, static_cast<uint32_t>(picture.earliest),
             static_cast<uint32_t>(picture.latest), 0}) {
        put_be(&out, v, 4);
    }
    const uint64_t requested = options.milliseconds ? MS_REQUESTED : 0;
    put_be(&out, options.terms.wflags | PREAMBLES | MS_PRESENT | requested, 8);
    put_be(&out, 0, 8);  // no addresses
    put_be(&out, footer, 8);
    put_be(&out, picture.sets.size(), 4);
    out += std::string(20, '\0');

    const auto section = [&out](const std::string& bytes) {
        const uint64_t start = next_section(out.size());
        pad_to(&out, start);
        out += bytes;
        return start;
    };
    forge_offsets& at = picture.at;
    at.values = section(values_section(picture, options));
    at.m = section("");
    at.s = section(s);
    at.st = section(st);
    at.h = section(h);
    at.d = section(d);
    std::vector<uint32_t> dedup_target;
    choose_encodings(&picture, options.terms, &dedup_target);
    forge_lists_of(&picture, options.terms);
    at.posting_offsets = section(posting_offsets(picture, options.terms, dedup_target));
    at.metadata = section(metadata_section(picture));
    at.lexicon = out.size();
    out += lexicon(picture.terms, options.terms.tperb, options.terms.uncompressed_size);
    at.postings = out.size();
    for (const std::string& list : picture.lists) out += list;
    at.dimsets = section(dimsets_section(picture));
    pad_to(&out, (out.size() + 7) / 8 * 8);
    picture.cstore = out.size();
    out += cstore;
    at.end = out.size();
    if (result != nullptr) *result = std::move(picture);
    return out;
}

std::string forge_metric_file(const std::string& directory, const std::vector<metric_event>& events,
                              const forge_metric_options& options, uint64_t id, forge_metric_picture* picture) {
    forge_metric_picture own;
    if (picture == nullptr) picture = &own;
    const std::string bytes = forge_metric_slice(events, options, picture);
    const std::string path = directory + "/" + std::to_string(picture->latest) + "-" +
                             std::to_string(picture->earliest) + "-" + std::to_string(id) + ".tsidx";
    write_file(path, bytes);
    return path;
}

reference_index metric_reference(const std::vector<metric_event>& events, bool milliseconds) {
    std::vector<forge_event> plain(events.size());
    for (uint32_t i = 0; i < events.size(); i++) {
        plain[i].time = events[i].time;
        plain[i].address = milliseconds ? events[i].milliseconds : 0;
        plain[i].s = i;
        plain[i].terms.assign(events[i].dimensions.begin(), events[i].dimensions.end());
        for (const auto& [name, bits] : events[i].measures) plain[i].terms.push_back(METRIC_NAME + name);
    }
    return reference_index(plain);
}

}  // namespace veldar
