#include "tools/libveldar/partial/partial_stream.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <new>
#include <tuple>

#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/percent_text.h"

namespace veldar::tool {

void partial_hash_free::operator()(XXH64_state_s* hash) const {
    XXH64_freeState(hash);
}

namespace {

constexpr char PROTOCOL[] = "veldar partial 1\n";
constexpr size_t PIECE = size_t{1} << 16;
enum record_kind_t : uint8_t { NO_MORE = 0, EVENT = 1, TERM = 2, SAMPLE = 3, COUNT = 4, TABLE = 5 };
enum event_flags_t : uint64_t { HAS_RAW = 1, HAS_LINES = 2, IS_METRIC = 4 };

// ---- Writing ----

void give(partial_writer* writer) {
    XXH64_update(writer->hash.get(), writer->pending.data(), writer->pending.size());
    writer->sink(writer->pending);
    writer->pending.clear();
}

void put_number(std::string* out, uint64_t number) {
    for (; number >= 0x80; number >>= 7) out->push_back(static_cast<char>(number | 0x80));
    out->push_back(static_cast<char>(number));
}

void put_signed(std::string* out, int64_t number) {
    put_number(out, (static_cast<uint64_t>(number) << 1) ^ (number < 0 ? ~uint64_t{0} : 0));
}

void put_text(std::string* out, std::string_view text) {
    put_number(out, text.size());
    out->append(text);
}

void put_name(partial_writer* writer, std::string_view name) {
    const auto [known, is_new] = writer->names.try_emplace(std::string(name), writer->names.size());
    put_number(&writer->pending, is_new ? 1 : known->second << 1);
    if (!is_new) return;
    put_text(&writer->pending, name);
}

void put_lines(std::string* out, const std::vector<std::string>& lines) {
    put_number(out, lines.size());
    for (const std::string& line : lines) put_text(out, line);
}

void begin_record(partial_writer* writer, record_kind_t kind) {
    if (writer->pending.size() >= PIECE) give(writer);
    writer->pending.push_back(static_cast<char>(kind));
    writer->records++;
}

// ---- Reading ----

bool take_number(std::string_view* rest, uint64_t* number) {
    *number = 0;
    for (unsigned shift = 0; shift < 64 && !rest->empty(); shift += 7) {
        const auto byte = static_cast<uint8_t>(rest->front());
        rest->remove_prefix(1);
        if (shift == 63 && byte > 1) return false;
        *number |= uint64_t{byte & 0x7Fu} << shift;
        if (byte < 0x80) return true;
    }
    return false;
}

bool take_signed(std::string_view* rest, int64_t* number) {
    uint64_t zigzag = 0;
    if (!take_number(rest, &zigzag)) return false;
    *number = static_cast<int64_t>((zigzag >> 1) ^ (~(zigzag & 1) + 1));
    return true;
}

bool take_time(std::string_view* rest, st_time_t* time) {
    int64_t wide = 0;
    if (!take_signed(rest, &wide) || wide < INT_MIN || wide > INT_MAX) return false;
    *time = static_cast<st_time_t>(wide);
    return true;
}

bool take_text(std::string_view* rest, std::string_view* text) {
    uint64_t size = 0;
    if (!take_number(rest, &size) || size > rest->size()) return false;
    *text = rest->substr(0, size);
    rest->remove_prefix(size);
    return true;
}

bool take_name(partial_reader* reader, std::string_view* name) {
    uint64_t number = 0;
    if (!take_number(&reader->rest, &number)) return false;
    if (number % 2 == 0) {
        if (number / 2 >= reader->names.size()) return false;
        *name = reader->names[number / 2];
        return true;
    }
    if (number != 1 || !take_text(&reader->rest, name)) return false;
    // A record that is read again has names that are known.
    const bool known = !reader->names.empty() && name->data() <= reader->names.back().data();
    if (!known) reader->names.push_back(*name);
    return true;
}

bool take_texts(std::string_view* rest, std::vector<std::string>* texts) {
    uint64_t count = 0;
    texts->clear();
    if (!take_number(rest, &count) || count > rest->size()) return false;
    for (std::string_view text; count > 0; count--) {
        if (!take_text(rest, &text)) return false;
        texts->emplace_back(text);
    }
    return true;
}

bool take_fields(partial_reader* reader) {
    uint64_t count = 0;
    event_fields* const fields = &reader->event.fields;
    fields->clear();
    if (!take_number(&reader->rest, &count) || count > reader->rest.size()) return false;
    for (std::string_view name; count > 0; count--) {
        if (!take_name(reader, &name)) return false;
        fields->push_back({std::string(name), {}});
        if (!take_texts(&reader->rest, &fields->back().second)) return false;
    }
    return true;
}

bool take_event(partial_reader* reader) {
    std::string_view* const rest = &reader->rest;
    event_record* const event = &reader->event;
    uint64_t address = 0, flags = 0;
    const bool is_head = take_time(rest, &event->time) && take_number(rest, &event->nanoseconds) &&
                         take_number(rest, &reader->part) && take_number(rest, &address) && take_number(rest, &flags);
    if (!is_head || event->nanoseconds > 999999999 || address > UINT32_MAX ||
        flags > (HAS_RAW | HAS_LINES | IS_METRIC)) {
        return false;
    }
    event->address = static_cast<uint32_t>(address);
    event->has_raw = (flags & HAS_RAW) != 0;
    event->is_metric = (flags & IS_METRIC) != 0;
    const bool has_texts = take_name(reader, &event->directory) && take_name(reader, &event->host) &&
                           take_name(reader, &event->source) && take_name(reader, &event->sourcetype) &&
                           take_text(rest, &event->raw) && take_fields(reader);
    event->before.clear();
    event->after.clear();
    event->path.clear();
    event->offset = event->size = 0;
    if (!has_texts || (flags & HAS_LINES) == 0) return has_texts;
    std::string_view path;
    const bool has_lines = take_name(reader, &path) && take_number(rest, &event->offset) &&
                           take_number(rest, &event->size) && take_texts(rest, &event->before) &&
                           take_texts(rest, &event->after);
    // Places behind each other do not wrap.
    constexpr uint64_t FARTHEST = uint64_t{1} << 62;
    if (!has_lines || !event->has_raw || event->size == 0 || event->size > FARTHEST || event->offset > FARTHEST) {
        return false;
    }
    event->path = path;
    return true;
}

bool take_term(partial_reader* reader) {
    std::string_view* const rest = &reader->rest;
    return take_text(rest, &reader->term) && take_number(rest, &reader->totals.count) &&
           take_time(rest, &reader->totals.earliest) && take_time(rest, &reader->totals.latest);
}

bool take_sample(partial_reader* reader) {
    if (!take_name(reader, &reader->series) || !take_signed(&reader->rest, &reader->time_ms)) return false;
    // An index keeps no other times.
    constexpr int64_t FIRST_MS = int64_t{INT_MIN} * 1000, LAST_MS = int64_t{INT_MAX} * 1000 + 999;
    if (reader->time_ms < FIRST_MS || reader->time_ms > LAST_MS) return false;
    // A NUL stands behind the name and behind each label.
    if (!reader->series.ends_with('\0') || reader->rest.size() < sizeof(uint64_t)) return false;
    uint64_t bits = 0;
    for (unsigned i = 0; i < sizeof bits; i++) bits |= uint64_t{static_cast<uint8_t>(reader->rest[i])} << (8 * i);
    reader->value = std::bit_cast<double>(bits);
    reader->rest.remove_prefix(sizeof bits);
    return true;
}

bool take_table(partial_reader* reader) {
    return take_number(&reader->rest, &reader->count) && take_text(&reader->rest, &reader->no_number) &&
           take_text(&reader->rest, &reader->table);
}

// False for damage; `kind` is NO_MORE at the end.
bool take_record(partial_reader* reader, uint8_t* kind) {
    if (reader->rest.empty()) return false;
    *kind = static_cast<uint8_t>(reader->rest.front());
    reader->rest.remove_prefix(1);
    switch (*kind) {
        case NO_MORE:
            return true;
        case EVENT:
            return take_event(reader);
        case TERM:
            return take_term(reader);
        case SAMPLE:
            return take_sample(reader);
        case COUNT:
            return take_number(&reader->rest, &reader->count);
        case TABLE:
            return take_table(reader);
        default:
            return false;
    }
}

record_kind_t record_kind_of(const std::string& kind) {
    if (kind == "search") return EVENT;
    if (kind == "count") return COUNT;
    if (kind == "samples") return SAMPLE;
    return kind == "stats" || kind == "metric-stats" ? TABLE : TERM;
}

// What records are ordered by, each greater than the one before it.
struct record_key {
    int64_t first = INT64_MIN;
    uint64_t second = 0, third = 0, fourth = 0;
    std::string text;
};

bool comes_next(uint8_t kind, const partial_reader& reader, record_key* last, bool is_first) {
    switch (kind) {
        case EVENT: {
            const auto& event = reader.event;
            // Fractions that the records tell do not order the events of a second. Of metrics several have one address.
            const record_key here = {-int64_t{event.time},
                                     event.is_metric ? ~event.nanoseconds : 0,
                                     ~reader.part,
                                     ~uint64_t{event.address},
                                     {}};
            const bool is_next = is_first || std::tie(last->first, last->second, last->third, last->fourth) <=
                                                 std::tie(here.first, here.second, here.third, here.fourth);
            *last = here;
            return is_next;
        }
        case TERM: {
            const bool is_next = is_first || last->text < reader.term;
            last->text = reader.term;
            return is_next;
        }
        case SAMPLE: {
            const bool is_next = is_first || -reader.time_ms > last->first ||
                                 (-reader.time_ms == last->first && last->text <= reader.series);
            last->first = -reader.time_ms;
            last->text = reader.series;
            return is_next;
        }
        default:
            return is_first;
    }
}

// All records; false when one is not what a writer writes.
bool look_over(partial* out, std::string_view* rest) {
    partial_reader reader;
    reader.body = reader.rest = *rest;
    const record_kind_t wanted = record_kind_of(out->asked.kind);
    record_key last;
    for (uint8_t kind = wanted; kind != NO_MORE;) {
        if (!take_record(&reader, &kind)) return false;
        if (kind == NO_MORE) break;
        if (kind != wanted || !comes_next(kind, reader, &last, out->records == 0)) return false;
        if (kind == EVENT) {
            if (reader.part >= out->parts.size()) return false;
            out->knows_raw &= out->parts[reader.part].knows_raw;
            out->longest_host = std::max(out->longest_host, reader.event.host.size());
            out->longest_source = std::max(out->longest_source, reader.event.source.size());
        }
        out->records++;
    }
    out->body = rest->substr(0, partial_place(reader) - 1);
    *rest = reader.rest;
    return true;
}

bool take_line(std::string_view* rest, std::string_view* line) {
    const size_t end = rest->find('\n');
    if (end == std::string_view::npos) return false;
    *line = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return true;
}

bool take_parts(std::string_view* rest, std::vector<partial_part>* parts) {
    std::string_view line;
    while (take_line(rest, &line)) {
        if (line.empty()) return true;
        const std::string text(line);
        int at = 0;
        unsigned long long slices = 0;
        char raw = 0;
        if (std::sscanf(text.c_str(), "part %20llu %c %n", &slices, &raw, &at) != 2 || at == 0) return false;
        if (raw != '0' && raw != '1') return false;
        parts->push_back({percent_decode(text.substr(static_cast<size_t>(at))), slices, raw == '1'});
        const size_t count = parts->size();
        if (count > 1 && (*parts)[count - 2].identity >= (*parts)[count - 1].identity) return false;
    }
    return false;
}

bool take_coverage(std::string_view* rest, partial* out) {
    std::string_view line;
    while (take_line(rest, &line)) {
        if (line.starts_with("lacks ")) {
            out->coverage.lacks.push_back(percent_decode(line.substr(6)));
        } else if (line.starts_with("complete-back-to ")) {
            log_zone utc;
            st_timeval_t time;
            if (!time_input_parse(line.substr(17), &utc, 0, &time)) return false;
            out->coverage.complete_back_to = time;
        } else {
            return line == fmt::format("records {}", out->records);
        }
    }
    return false;
}

bool fail(const char* what, std::string* fault) {
    *fault = what;
    return false;
}

}  // namespace

void partial_begin(partial_writer* writer, const question& asked, const std::vector<partial_part>& parts,
                   partial_sink sink) {
    writer->sink = std::move(sink);
    writer->hash.reset(XXH64_createState());
    if (writer->hash == nullptr) throw std::bad_alloc();
    XXH64_reset(writer->hash.get(), 0);
    writer->pending = PROTOCOL + question_text(asked) + "\n";
    for (const partial_part& part : parts) {
        writer->pending +=
            fmt::format("part {} {} {}\n", part.slices, part.knows_raw ? 1 : 0, percent_encode(part.identity));
    }
    writer->pending += "\n";
}

void partial_put_event(partial_writer* writer, uint64_t part, const event_record& event) {
    begin_record(writer, EVENT);
    std::string* const out = &writer->pending;
    const bool has_lines = event.has_raw && event.size > 0;
    put_signed(out, event.time);
    put_number(out, event.nanoseconds);
    put_number(out, part);
    put_number(out, event.address);
    uint64_t flags = 0;
    if (event.has_raw) flags |= HAS_RAW;
    if (has_lines) flags |= HAS_LINES;
    if (event.is_metric) flags |= IS_METRIC;
    put_number(out, flags);
    for (const std::string_view name : {event.directory, event.host, event.source, event.sourcetype}) {
        put_name(writer, name);
    }
    put_text(out, event.raw);
    put_number(out, event.fields.size());
    for (const auto& [name, values] : event.fields) {
        put_name(writer, name);
        put_lines(out, values);
    }
    if (!has_lines) return;
    put_name(writer, event.path);
    put_number(out, event.offset);
    put_number(out, event.size);
    put_lines(out, event.before);
    put_lines(out, event.after);
}

void partial_put_term(partial_writer* writer, std::string_view term, const term_totals_t& totals) {
    begin_record(writer, TERM);
    put_text(&writer->pending, term);
    put_number(&writer->pending, totals.count);
    put_signed(&writer->pending, totals.earliest);
    put_signed(&writer->pending, totals.latest);
}

void partial_put_sample(partial_writer* writer, std::string_view series, int64_t time_ms, double value) {
    begin_record(writer, SAMPLE);
    put_name(writer, series);
    put_signed(&writer->pending, time_ms);
    const uint64_t bits = std::bit_cast<uint64_t>(value);
    for (unsigned i = 0; i < sizeof bits; i++) writer->pending.push_back(static_cast<char>(bits >> (8 * i)));
}

void partial_put_count(partial_writer* writer, uint64_t count) {
    begin_record(writer, COUNT);
    put_number(&writer->pending, count);
}

void partial_put_table(partial_writer* writer, const select_table_t& table, uint64_t refused,
                       std::string_view no_number) {
    begin_record(writer, TABLE);
    put_number(&writer->pending, refused);
    put_text(&writer->pending, no_number);
    std::string bytes;
    select_table_encode(table, &bytes);
    put_text(&writer->pending, bytes);
}

void partial_end(partial_writer* writer, const partial_coverage& coverage) {
    std::string* const out = &writer->pending;
    out->push_back(static_cast<char>(NO_MORE));
    for (const std::string& one : coverage.lacks) *out += "lacks " + percent_encode(one) + "\n";
    if (coverage.complete_back_to) *out += "complete-back-to " + time_input_text(*coverage.complete_back_to) + "\n";
    *out += fmt::format("records {}\n", writer->records);
    give(writer);
    writer->sink(fmt::format("end {:016x}\n", XXH64_digest(writer->hash.get())));
}

bool partial_take(std::string_view* bytes, partial* out, std::string* fault) {
    std::string_view rest = *bytes;
    *out = {};
    if (!rest.starts_with(PROTOCOL)) return fail("no partial answer", fault);
    rest.remove_prefix(sizeof PROTOCOL - 1);
    const size_t question_end = rest.find("\n\n");
    if (question_end == std::string_view::npos) return fail("a partial answer that is cut off", fault);
    if (!question_parse(rest.substr(0, question_end + 1), &out->asked))
        return fail("a question that nobody asks", fault);
    rest.remove_prefix(question_end + 2);
    const bool is_read = take_parts(&rest, &out->parts) && look_over(out, &rest) && take_coverage(&rest, out);
    if (!is_read) return fail("a partial answer that is cut off or damaged", fault);
    const uint64_t hash = XXH64(bytes->data(), bytes->size() - rest.size(), 0);
    std::string_view line;
    if (!take_line(&rest, &line)) return fail("a partial answer without its end", fault);
    if (line != fmt::format("end {:016x}", hash)) return fail("a damaged partial answer: its hash is another", fault);
    *bytes = rest;
    return true;
}

partial_reader partial_read(const partial& from) {
    partial_reader reader;
    reader.body = reader.rest = from.body;
    return reader;
}

bool partial_next(partial_reader* reader) {
    uint8_t kind = NO_MORE;
    return !reader->rest.empty() && take_record(reader, &kind);
}

}  // namespace veldar::tool
