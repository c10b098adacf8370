#include "tools/libveldar/load/file_load.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/libveldar/load/put_line.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

constexpr uint64_t SHOW_EVERY = 1024;  // events
constexpr uint64_t RECORDS_TELL = 10;
constexpr int64_t ODD_RECORDS = 8, ODD_REST = 1000;

}  // namespace

store_bucket& load_bucket(loader* load) {
    return load->st.buckets.back();
}

namespace {

// Says that everything below the address is indexed, once the raw bytes that only the spool holds are safe too.
void mark(loader* load, uint64_t address) {
    source_map* const map = &load_bucket(load).map;
    if (address == map->frontier) return;
    if (load->spool.valid() && load->st.durable && ::fdatasync(load->spool.get()) != 0) {
        fail_io("cannot sync the copy of the input", {}, errno);
    }
    source_map_put_mark(map, address);
}

}  // namespace

void load_sync_bucket(loader* load) {
    if (!load->events.is_open) return;
    event_queue_sync(&load->events, static_cast<uint32_t>(load->address));
    load->slices_seen = load->events.slices;
    mark(load, load->address);
}

void load_close_bucket(loader* load) {
    if (!load->events.is_open) return;
    event_queue_close(&load->events);
    load->merges += merge_aside_wait(&load->merging);
    mark(load, load->address);
    totals_add_slices(&load->totals, load_bucket(load).directory, load->slices_before);
}

namespace {

bool bucket_takes_more(const loader& load) {
    if (load.st.buckets.empty()) return false;
    const store_bucket& last = load.st.buckets.back();
    return std::find(load.closed_buckets.begin(), load.closed_buckets.end(), last.number) ==
               load.closed_buckets.end() &&
           load.address < load.options->bucket_bytes;
}

}  // namespace

void load_open_bucket(loader* load) {
    if (load->events.is_open && load->address < load->options->bucket_bytes) return;
    load_close_bucket(load);
    if (!load->st.buckets.empty()) load->address = load_bucket(load).map.frontier;
    if (!bucket_takes_more(*load)) {
        store_add_bucket(&load->st);
        load->address = 0;
    }
    const std::string& directory = load_bucket(load).directory;
    load->slices_before = slice_names(directory);
    event_queue_open(&load->events, directory, load->options->limits, load->st.durable);
    load->slices_seen = 0;
}

namespace {

// Before a record at this offset: the stretch that it belongs to stands in the source map.
void open_stretch(loader* load, file_load* one, uint64_t offset) {
    if (one->in_stretch && load->address < load->options->bucket_bytes) return;
    load_open_bucket(load);
    source_map* const map = &load_bucket(load).map;
    source_map_put_file(map, one->file);
    source_map_put_stretch(map, {load->address, one->file.number, offset, one->reader.limit, one->cut});
    one->in_stretch = true;
}

st_txn event_txn(loader* load, const file_load& one) {
    const log_event_maker& event = load->event;
    st_txn txn;
    txn.time = event.time.time_s;
    txn.subsecond = encode_subsecond(static_cast<uint32_t>(event.time.time_ns));
    txn.address = static_cast<uint32_t>(load->address);
    txn.source = one.file.source;
    txn.source_type = one.file.sourcetype;
    txn.host =
        event.line_host == event.host ? one.file.host : store_number(&load->st.hosts, std::string(event.line_host));
    return txn;
}

void note_dating(loader* load, file_load* one, std::string_view text, bool put) {
    const log_event_maker& event = load->event;
    const dating_t kind = !put                   ? LINE_REFUSED
                          : event.first.has_time ? DATED_ITSELF
                          : event.from_file      ? DATED_BY_FILE
                                                 : DATED_BY_LINE;
    const std::string_view path = one->shown;
    dating_add(&load->dating, kind, {path, one->line, text});
    one->events += put;
    one->dated_by_file += kind == DATED_BY_FILE;
    one->dated_by_line += kind == DATED_BY_LINE;
    // Most records have one line, and looking for a second is faster than counting.
    const size_t more = std::min(text.find('\n'), text.size());
    const auto joined =
        static_cast<uint64_t>(std::count(text.begin() + static_cast<ptrdiff_t>(more), text.end(), '\n'));
    if (joined > 0) {
        const uint64_t second = one->line == 0 ? 0 : one->line + 1;
        dating_add(&load->dating, LINE_JOINED, {path, second, text.substr(text.find('\n') + 1)}, joined);
    }
    if (one->line != 0) one->line += joined + 1;
}

void put_record(loader* load, file_load* one, uint64_t offset, std::string_view text) {
    open_stretch(load, one, offset);
    log_event_make(&load->event, text);
    if (load->event.first.no_event) {
        if (one->line != 0) one->line++;
        return;
    }
    const st_txn txn = event_txn(load, *one);
    const bool put = event_queue_put(&load->events, txn, &load->event.terms);
    put ? load->totals.add_event(txn.time) : static_cast<void>(load->totals.refused++);
    note_dating(load, one, text, put);
    const uint64_t slices = load->events.slices;
    if (slices == load->slices_seen) return;
    mark(load, load->events.next_address);
    load->slices_seen = slices;
    if (!load->options->no_optimize) merge_aside_begin(&load->merging, load_bucket(load).directory);
}

}  // namespace

void file_load_tell(loader* load, const file_load& one) {
    const uint64_t own = one.events - one.dated_by_file - one.dated_by_line;
    // A few lines behind those of another load say little of their file.
    const bool told = one.from == 0 || one.events >= RECORDS_TELL || one.dated_by_file > 0;
    load->hardly_dated += told && own * 2 < one.events;
    load->zone_taken |= load->event.context.zone_taken;
    const log_form_counts counts = {one.events, one.dated_by_file, one.dated_by_line, one.input.pipe, told};
    for (const std::string& note : log_form_notes(*load->options, load->event.context, counts)) {
        loader_tell(load, (one.input.pipe ? "standard input" : one.shown) + ": " + note);
    }
}

namespace {

// A log whose lines take another form is, from there on, another file of the source map, so that each record is read
// back in the form that it has. Notes that the bytes from `offset` on, which get this address, are of the new one.
void note_form(loader* load, file_load* one, uint64_t address, uint64_t offset, const log_form& form) {
    source_map* const map = &load_bucket(load).map;
    store* const st = &load->st;
    file_load_tell(load, *one);
    one->dated_by_file = one->dated_by_line = one->events = 0;
    one->form = form;
    one->next_file = one->file;
    one->next_file.number = load->known.next_number++;
    one->next_file.format = format_record(*form.format, form.context);
    one->next_file.records.clear();
    one->next_cut = record_cut_add(&one->next_file.records, form.cut);
    const std::string& given = load->options->sourcetype;
    one->next_file.sourcetype = store_number(&st->sourcetypes, given.empty() ? form.format->name : given);
    source_map_put_file(map, one->next_file);
    source_map_put_stretch(map, {address, one->next_file.number, offset, one->reader.limit, one->next_cut});
}

void take_form(loader* load, file_load* one) {
    log_event_maker* const event = &load->event;
    known_file* const known = known_files_put(&load->known, one->file);
    known->progress = one->reader.offset;
    known->record_indexed = false;
    known->next = one->next_file.number;
    one->file = one->next_file;
    one->cut = one->next_cut;
    one->reader.cut = one->form.cut;
    event->format = one->form.format;
    event->context = one->form.context;
    event->sourcetype = load->st.sourcetypes.names[one->file.sourcetype];
    one->odd = 0;
}

// Whether the log goes on in another form behind `end`, where the last record began: after some lines that were none of
// the format's.
bool turns_here(loader* load, file_load* one, uint64_t end) {
    record_reader* const reader = &one->reader;
    if (one->input.pipe || !one->in_stretch || one->odd < ODD_RECORDS) return false;
    one->odd = -ODD_REST;
    record_reader_finish_record(reader);
    log_form form;
    if (!log_form_changed(*load->options, load->event, record_reader_peek(reader), &form)) return false;
    note_form(load, one, load->address + (reader->offset - end), reader->offset, form);
    return true;
}

// Whether it does inside this record, whose lines without a time are many: then the record ends before them.
bool turns_inside(loader* load, file_load* one, uint64_t offset, std::string_view* text) {
    record_reader* const reader = &one->reader;
    if (one->input.pipe || reader->skipping || reader->cut.rule != record_rule::times) return false;
    size_t at = text->find('\n');
    while (at != std::string_view::npos && !begins_record(text->substr(at + 1, 2))) at = text->find('\n', at + 1);
    log_form form;
    if (at == std::string_view::npos) return false;
    const std::string_view rest = text->substr(at + 1);
    if (!log_form_changed(*load->options, load->event, rest, &form)) return false;
    const char* const begin = reader->bytes.data() + reader->begin - (reader->offset - offset);
    const uint64_t border = offset + static_cast<uint64_t>(rest.data() - begin);
    open_stretch(load, one, offset);
    note_form(load, one, load->address + (border - offset), border, form);
    record_reader_back(reader, border);
    *text = record_text(text->substr(0, at + 1));
    return true;
}

}  // namespace

void file_load_records(loader* load, file_load* one) {
    record_reader* const reader = &one->reader;
    uint64_t offset, end = reader->offset;
    std::string_view text;
    for (uint64_t records = 0; !work_stops(); records++) {
        if (turns_here(load, one, end)) take_form(load, one);
        if (!record_reader_next(reader, &offset, &text)) break;
        if (one->in_stretch) load->address += offset - end;
        end = offset;
        if (text.empty() && reader->cut.rule == record_rule::objects) continue;
        const bool turns = turns_inside(load, one, offset, &text);
        put_record(load, one, offset, text);
        const bool odd = !load->event.formed || !load->event.first.has_time;
        one->odd = odd || one->odd < 0 ? one->odd + 1 : 0;
        if (turns) take_form(load, one);
        if (records % SHOW_EVERY == 0) load_show(load, one->input);
    }
    record_reader_finish_record(reader);
    if (one->in_stretch) load->address += reader->offset - end;
}

}  // namespace veldar::tool
