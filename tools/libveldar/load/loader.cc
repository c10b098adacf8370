#include "tools/libveldar/load/loader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "tools/libveldar/load/clock_days.h"
#include "tools/libveldar/load/file_load.h"
#include "tools/libveldar/load/forget_events.h"
#include "tools/libveldar/load/log_form.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/foreign_content.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

constexpr uint64_t REPLAY = 64 << 10;  // bytes before the progress that are parsed again for the time they end with
constexpr size_t TOLD_MAX = 1000;
constexpr uint64_t REWRITE_MAP_AT = 1 << 20;

std::string machine_name() {
    char name[65] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "localhost";
}

// The path by which a file is known, from whatever directory it was named.
std::string absolute_path(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char resolved[PATH_MAX];
    if (::realpath(directory.c_str(), resolved) == nullptr) {
        std::error_code error;
        const std::filesystem::path whole = std::filesystem::absolute(path, error);
        return error ? path : whole.lexically_normal().string();
    }
    const std::string parent = resolved;
    return parent + (parent == "/" ? "" : "/") + path.substr(slash + 1);
}

// Where a file really is: behind symbolic links, and behind "/dev/stdin".
std::string real_path(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) == nullptr ? absolute_path(path) : resolved;
}

void save_points(loader* load, const file_load& one) {
    if (one.input.packed == nullptr || one.input.packed->points.empty() || one.input.pipe) return;
    for (const store_bucket& bucket : load->st.buckets) {
        if (!bucket.map.files.contains(one.file.number)) continue;
        const std::string path = bucket.directory + "/" + source_points_name(one.file.number);
        if (!packed_save_points(*one.input.packed, path)) fail_io("cannot write", path, errno);
    }
}

void load_points(const loader& load, file_load* one) {
    if (one->input.packed == nullptr) return;
    for (const store_bucket& bucket : load.st.buckets) {
        if (!bucket.map.files.contains(one->file.number) || !one->input.packed->points.empty()) continue;
        packed_load_points(one->input.packed.get(), bucket.directory + "/" + source_points_name(one->file.number));
    }
}

// The format context, names and numbers of a file that is new or goes on.
void choose_names(loader* load, file_load* one, const std::string& source) {
    const load_options& options = *load->options;
    log_event_maker* const event = &load->event;
    const bool is_new = one->file.number == 0;
    event->context = format_context();
    event->context.zone = load->zone;
    event->context.year = options.year;
    event->context.modified_s =
        one->input.pipe ? std::time(nullptr) : static_cast<int64_t>(one->input.modified_ns / 1000000000u);
    event->has_time = false;
    const auto choose = one->input.pipe ? log_form_choose : log_form_of_file;
    event->format = choose(options, one->input.head, one->file.format, &event->context);
    store* const st = &load->st;
    const bool has_name = !is_new && one->file.source < st->sources.names.size();
    event->source = has_name ? st->sources.names[one->file.source] : source;
    event->sourcetype = !options.sourcetype.empty() ? options.sourcetype : event->format->name;
    event->host = !options.host.empty() ? options.host : load->machine;
    event->host_fixed = !options.host.empty();
    event->with_parts = options.parts;
    event->terms.may_repeat = 256;
    one->file.source = store_number(&st->sources, event->source);
    one->file.sourcetype = store_number(&st->sourcetypes, event->sourcetype);
    one->file.host = store_number(&st->hosts, event->host);
    one->file.format = format_record(*event->format, event->context);
    one->cut = record_cut_add(&one->file.records, log_form_cut(*event->format, one->input.head, event->context));
}

record_cut cut_of(const file_load& one) {
    return record_cut_of(one.file.records, one.cut);
}

// Where the file stands now and how it begins.
void describe(source_file* file, const log_input& input, const std::string& path) {
    const size_t newline = input.head.find('\n');
    file->kind = input.packed != nullptr ? SOURCE_PACKED : SOURCE_PLAIN;
    file->crlf = newline != std::string::npos && newline > 0 && input.head[newline - 1] == '\r';
    file->device = input.device;
    file->inode = input.inode;
    file->size = input.size;
    file->modified_ns = input.modified_ns;
    file->head_size = static_cast<uint32_t>(input.head.size());
    file->head_hash = XXH64(input.head.data(), input.head.size(), 0);
    file->path = path;
}

// A known file under another name: its raw lines are found there from now on, whatever form they had.
void note_whereabouts(loader* load, const file_load& one, const source_file& before) {
    const source_file& now = one.file;
    if (now.path == before.path && now.inode == before.inode && now.device == before.device) return;
    for (const uint32_t number : known_files_of_log(load->known, now.number)) {
        source_file file = load->known.by_number.at(number).file;
        describe(&file, one.input, now.path);
        for (store_bucket& bucket : load->st.buckets) {
            if (bucket.map.files.contains(number)) source_map_put_file(&bucket.map, file);
        }
        known_files_put(&load->known, file);
    }
}

// Parses the last lines before the progress again: a line without a time that follows them takes theirs. When the year
// of the first line is given, the years of all the lines behind it hang on it.
bool replay(loader* load, file_load* one, std::string* error) {
    const uint64_t start = one->from > REPLAY && load->options->year == 0 ? one->from - REPLAY : 0;
    if (!one->input.pipe && !clock_days_find(&load->event, &one->input, start, error)) return false;
    if (one->from == 0) return true;
    record_reader reader;
    reader.cut = cut_of(*one);
    if (!log_input_seek(&one->input, start, error)) return false;
    record_reader_open(&reader, &one->input, one->from);
    uint64_t offset;
    std::string_view text;
    while (record_reader_next(&reader, &offset, &text)) {
        if (offset > 0 && offset == start) continue;
        log_event_note(&load->event, text);
    }
    return log_input_seek(&one->input, one->from, error);
}

// Nothing new was in a file that was read to its end: that need not be done again while it stays as it is.
void note_whole(loader* load, const file_load& one, uint64_t state) {
    const auto found = load->known.by_number.find(one.file.number);
    if (state == 0 || found == load->known.by_number.end() || load->st.buckets.empty()) return;
    known_file* const known = &found->second;
    if (known->tail.end != known->progress || known->tail.size == 0 || known->tail.whole == state) return;
    known->tail.whole = state;
    source_map_put_tail(&load_bucket(load).map, known->tail);
}

// Remembers how far the file is loaded, and the bytes before that, so that it is known again by more than its
// beginning. Of a compressed file the latter says that it was read to its end; one that was not is read again the next
// time.
void note_progress(loader* load, const file_load& one) {
    const bool whole = one.reader.error.empty() && !work_stops();
    const bool knows_end = whole && !one.reader.held && !one.input.pipe && !log_input_is_plain(one.input);
    const uint64_t state = knows_end ? log_input_state(one.input) : 0;
    if (!one.in_stretch) return note_whole(load, one, state);
    known_file* const known = known_files_put(&load->known, one.file);
    known->progress = one.reader.offset;
    known->record_indexed = false;
    if (one.input.packed != nullptr && !whole) return;
    const std::string_view tail = record_reader_tail(&one.reader);
    known->tail = {one.file.number, one.reader.offset, static_cast<uint32_t>(tail.size()),
                   XXH64(tail.data(), tail.size(), 0), state};
    source_map_put_tail(&load_bucket(load).map, known->tail);
}

// A head inside the log that names other columns than the one before: the next load goes on with them.
void note_new_head(loader* load, file_load* one) {
    if (!one->in_stretch || !load->event.context.columns.known()) return;
    const std::string format = format_record(*load->event.format, load->event.context);
    if (format == one->file.format) return;
    one->file.format = format;
    source_map_put_file(&load_bucket(load).map, one->file);
    known_files_put(&load->known, one->file);
}

// Reads the input from one->from on.
bool load_rest(loader* load, file_load* one, std::string* error) {
    one->reader.cut = cut_of(*one);
    const bool waits =
        one->last_line == LINE_WAITS || (one->last_line == LINE_WAITS_WHILE_YOUNG && log_input_is_young(one->input));
    one->reader.waits = waits && !load->options->flush && one->file.kind != SOURCE_SPOOL && !one->input.pipe &&
                        one->input.packed == nullptr;
    if (!one->input.pipe) one->input.stored_end = one->input.size;
    const bool held = one->reader.waits && log_input_leave_last_line(&one->input, error);
    if (!error->empty()) return false;
    const bool plain = log_input_is_plain(one->input);
    const uint64_t limit = plain ? std::max(one->input.stored_end, one->from) : SOURCE_NO_LIMIT;
    if (plain) one->input.stored_end = limit;
    record_reader_open(&one->reader, &one->input, limit);
    one->reader.spool = load->spool.get();
    one->line = one->from == 0;
    log_event_look_ahead(&load->event, one->reader.cut,
                         one->input.pipe ? one->input.head : record_reader_peek(&one->reader),
                         load->event.context.modified_s);
    file_load_records(load, one);
    load->totals.waiting += held || one->reader.held ? 1 : 0;
    note_new_head(load, one);
    load->totals.bytes_in += one->reader.offset - one->from;
    if (one->reader.spool_errno != 0) fail_io("cannot write the copy of the input", {}, one->reader.spool_errno);
    note_progress(load, *one);
    file_load_tell(load, *one);
    save_points(load, *one);
    *error = one->reader.error;
    const bool is_short = limit != SOURCE_NO_LIMIT && one->reader.offset < limit && !one->reader.held;
    if (error->empty() && is_short && !work_stops() && !load->options->follows) {
        *error = "ends at byte " + std::to_string(one->reader.offset) + " of " + std::to_string(limit) +
                 ": it was cut short while it was loaded";
    }
    return error->empty();
}

// What the user can do when only so much of a pipe was taken; empty for nothing.
std::string pipe_advice(int spool) {
    struct stat st;
    if (::fstat(spool, &st) != 0 || st.st_size == 0) return {};
    return "the first " + std::to_string(st.st_size) +
           " bytes of the pipe are kept and indexed by the next load; send what follows them again";
}

// When a pipe is not read to its end: keeps what records were taken from, so that none is cut in two, and the beginning
// by which the copy is known.
void cut_spool(loader* load, const file_load& one) {
    const uint64_t kept = std::max<uint64_t>(one.reader.offset, one.file.head_size);
    struct stat st;
    const bool is_more = ::fstat(load->spool.get(), &st) == 0 && static_cast<uint64_t>(st.st_size) > kept;
    if (is_more) static_cast<void>(!::ftruncate(load->spool.get(), static_cast<off_t>(kept)));
}

// A pipe cannot be read again, so the store keeps its bytes.
bool load_pipe(loader* load, file_load* one, std::string* error) {
    if (one->input.head.empty()) return true;
    load_open_bucket(load);
    store_bucket* const bucket = &load_bucket(load);
    choose_names(load, one, one->input.path == "-" ? "stdin" : one->input.path);
    describe(&one->file, one->input, "");
    one->file.number = load->known.next_number++;
    one->file.kind = SOURCE_SPOOL;
    const std::string name = "spool-" + std::to_string(one->file.number);
    one->file.path = "../" + bucket->directory.substr(bucket->directory.rfind('/') + 1) + "/" + name;
    const std::string path = bucket->directory + "/" + name;
    load->spool = disk_open(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (!load->spool.valid()) fail_io("cannot make", path, errno);
    source_map_put_file(&bucket->map, one->file);
    bool read;
    try {
        read = load_rest(load, one, error);
    } catch (...) {
        cut_spool(load, *one);
        throw;
    }
    if (work_stops()) cut_spool(load, *one);
    if (load->st.durable && ::fdatasync(load->spool.get()) != 0) fail_io("cannot sync", path, errno);
    const std::string advice = work_stops() ? pipe_advice(load->spool.get()) : std::string();
    if (!advice.empty()) loader_tell(load, advice);
    load->spool.reset();
    load->has_kept_pipe = true;
    return read;
}

// A load that was killed had read more of a pipe than it indexed.
void finish_spool(loader* load, const known_file& known) {
    file_load one;
    std::string error;
    const std::string path = load_bucket(load).directory + "/" + known.file.path;
    if (!log_input_open(&one.input, path, &error) || one.input.size <= known.progress) return;
    one.shown = path;
    one.file = known.file;
    one.from = known.progress;
    choose_names(load, &one, path);
    if (!replay(load, &one, &error) || !load_rest(load, &one, &error)) {
        throw failure_t{OUTCOME_IO, path + ": " + error};
    }
}

void finish_spools(loader* load) {
    std::vector<known_file> spools;
    for (const auto& [number, known] : load->known.by_number) {
        if (known.file.kind == SOURCE_SPOOL) spools.push_back(known);
    }
    for (const known_file& known : spools) finish_spool(load, known);
}

// A file with nothing new may be another than the one that was loaded.
void note_nothing_new(loader* load, const file_load& one, const source_file& before) {
    load->unchanged++;
    if (one.reader.held || before.path == one.place || load->options->follows) return;
    loader_tell(load, one.shown + ": nothing new, its content was loaded from " + before.path);
}

// Passes over a record that is indexed, now that the file is there to tell where it ends.
bool pass_over(file_load* one, const known_file& known, std::string* error) {
    record_reader reader;
    reader.cut = record_cut_of(known.file.records, known.record_cut);
    if (!log_input_seek(&one->input, one->from, error)) return false;
    record_reader_open(&reader, &one->input, known.record_limit);
    uint64_t offset;
    std::string_view text;
    record_reader_next(&reader, &offset, &text);
    record_reader_finish_record(&reader);
    one->from = reader.offset;
    return true;
}

bool load_file(loader* load, file_load* one, std::string* error) {
    bool copy;
    known_file* const known = known_files_identify(&load->known, &one->input, &copy);
    const source_file before = known != nullptr ? known->file : source_file();
    if (known != nullptr) {
        const bool unchanged = known_file_unchanged(*known, one->input);
        one->file = before;
        one->from = known->progress;
        // A copy may go away again, and the file that was loaded holds what it holds.
        if (!copy) describe(&one->file, one->input, one->place);
        note_whereabouts(load, *one, before);
        if (known->record_indexed && !pass_over(one, *known, error)) return false;
        if (unchanged || (log_input_is_plain(one->input) && one->from == one->input.size)) {
            note_nothing_new(load, *one, before);
            return true;
        }
    }
    choose_names(load, one, one->name);
    load_points(*load, one);
    if (known == nullptr) {
        describe(&one->file, one->input, one->place);
        one->file.number = load->known.next_number++;
    }
    if (!replay(load, one, error) || !log_input_seek(&one->input, one->from, error)) return false;
    const bool read = load_rest(load, one, error);
    if (read && one->events == 0 && known != nullptr) note_nothing_new(load, *one, before);
    return read;
}

// The numbers of the files that a path means: of the one with its content, or else of those last seen there.
std::vector<uint32_t> files_meant(loader* load, const std::string& path, bool again, std::string* error) {
    log_input input;
    bool copy;
    const bool opened = path != "-" && log_input_open(&input, path, error) && !input.pipe;
    if (opened && again) *error = foreign_content(input.head);
    if (again && (!opened || !error->empty() || !log_form_check(*load->options, load->zone, input.head, error))) {
        return {};
    }
    const known_file* const same = opened ? known_files_identify(&load->known, &input, &copy) : nullptr;
    if (same != nullptr) return known_files_of_log(load->known, same->file.number);
    std::vector<uint32_t> numbers;
    for (const auto& [number, known] : load->known.by_number) {
        const bool there = known.file.path == real_path(path) || known.file.path == absolute_path(path);
        if (there && known.file.kind != SOURCE_SPOOL) numbers.push_back(number);
    }
    return numbers;
}

// Deletes what is left of the events of forgotten files.
uint64_t finish_forgetting(loader* load) {
    uint64_t deleted = 0;
    for (const uint32_t number : known_files_to_delete(load->st)) {
        for (const store_bucket& bucket : load->st.buckets) deleted += forget_events(bucket, number);
        for (store_bucket& bucket : load->st.buckets) {
            if (bucket.map.forgotten.contains(number)) source_map_put_forgotten(&bucket.map, number, true);
        }
    }
    return deleted;
}

// What has been opened, with its names.
bool load_opened(loader* load, file_load* one, std::string* error) {
    *error = foreign_content(one->input.head);
    if (!error->empty()) return false;
    if (!log_form_check(*load->options, load->zone, one->input.head, error)) return false;
    if (load->options->strict && !log_form_is_dated(*load->options, load->zone, one->input.head, error)) return false;
    const bool read = one->input.pipe ? load_pipe(load, one, error) : load_file(load, one, error);
    load->bytes_done += one->input.size;
    return read;
}

}  // namespace

void loader_open(loader* load, const std::string& store_path, const load_options& options) {
    load->options = &options;
    load->merging.follows = options.follows;
    load->machine = machine_name();
    const std::string zone = options.zone.empty() ? "local" : options.zone;
    if (!log_zone_from_name(zone, &load->zone) && !options.zone.empty()) {
        throw failure_t{OUTCOME_USAGE, "unknown time zone " + options.zone};
    }
    store_open_for_load(&load->st, store_path, !options.no_fsync);
    load->known = known_files_gather(&load->st, &load->closed_buckets);
    try {
        finish_forgetting(load);
    } catch (const failure_t& failure) {
        say_trouble("events of forgotten files were not deleted: " + failure.message);
    }
    load_begin(load, options.files);
    finish_spools(load);
}

bool loader_means(loader* load, const std::string& path, uint32_t number, std::string* error) {
    const std::vector<uint32_t> numbers = files_meant(load, path, true, error);
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

std::optional<uint64_t> loader_forget(loader* load, const std::string& path, bool again, std::string* error) {
    const std::vector<uint32_t> numbers = files_meant(load, path, again, error);
    if (numbers.empty()) return std::nullopt;
    for (const uint32_t number : numbers) known_files_forget(&load->known, &load->st, number);
    return finish_forgetting(load);
}

bool loader_load(loader* load, const std::string& path, std::string* error, const std::string& source) {
    file_load one;
    one.shown = path;
    if (!log_input_open(&one.input, path, error)) return false;
    one.name = source.empty() ? absolute_path(path) : source;
    one.place = real_path(path);
    return load_opened(load, &one, error);
}

bool loader_follow(loader* load, const followed_log& log, uint32_t* number, std::string* error) {
    file_load one;
    one.shown = log.name;
    one.last_line = log.is_over ? LINE_IS_TAKEN : LINE_WAITS;
    if (!log_input_open(&one.input, log.path, error)) return false;
    if (one.input.size == 0) return true;
    one.name = absolute_path(log.name);
    char resolved[PATH_MAX];  // of a file without a name nobody knows where it is
    one.place = ::realpath(log.path.c_str(), resolved) == nullptr ? real_path(log.name) : resolved;
    const bool read = load_opened(load, &one, error);
    *number = one.file.number;
    return read;
}

std::string loader_source_name(const std::string& name) {
    return absolute_path(name);
}

void loader_sync(loader* load) {
    load_sync_bucket(load);
    if (!load->events.is_open) return;
    store_bucket* const bucket = &load_bucket(load);
    if (bucket->map.size >= std::max(load->rewrite_map_at, REWRITE_MAP_AT)) {
        source_map_rewrite(&bucket->map, {});
        load->rewrite_map_at = 2 * bucket->map.size;
    }
    if (!load->options->no_optimize) merge_aside_begin(&load->merging, bucket->directory);
}

void loader_tell(loader* load, const std::string& message) {
    if (load->options->follows && load->told.size() >= TOLD_MAX) load->told.clear();
    if (load->options->follows && !load->told.insert(message).second) return;
    say_trouble(message);
}

void loader_close(loader* load) {
    load_close_bucket(load);
}

std::string loader_give_up(loader* load) {
    try {
        load_close_bucket(load);
    } catch (const failure_t&) {
    }
    const std::string advice = load->spool.valid() ? pipe_advice(load->spool.get()) : std::string();
    if (!advice.empty()) return advice;
    if (load->has_kept_pipe) {
        return "not all is loaded; the pipe is kept and indexed by the next load, so do not send it again; load files "
               "again once this is mended, and nothing is lost";
    }
    return "not all is loaded; load again once this is mended, and nothing is lost";
}

}  // namespace veldar::tool
