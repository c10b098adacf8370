#include "tools/libveldar/load/metric_loader.h"

#include <fcntl.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "searchthing/format/warmslice_header.h"
#include "tools/libveldar/formats/metric_text.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/foreign_content.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

constexpr uint64_t SHOW_EVERY = 4096;      // lines
constexpr size_t CSV_RECORD_LINES = 1000;  // that a quoted field may run over

// What is loaded from one file in one run.
struct metric_file {
    std::string path;  // for messages
    log_input input;
    line_reader reader;
    file_hash hash;
    bool is_csv = false;
    metric_csv csv;
    metric_time_unit unit = metric_time_unit::guess;
    uint64_t options_hash = 0;
    st_timeval_t time;   // of samples without one
    uint64_t from = 0;   // where reading begins
    uint64_t line = 0;   // number of the last line, counted from `from`
    uint64_t taken = 0;  // offset behind the last record that was taken or refused
    uint64_t noted = 0;  // what `taken` was at the last note; before one `from`
    uint64_t samples = 0, refused = 0;
    size_t batch_from = 0;  // the samples of the batch from here on are of this file
    bool waits = false;     // the file is being written: what has no end in it waits for the next load
    bool held = false;      // there is such
    bool timeless = false;  // a sample had no time of its own: loaded again it is another one
    std::string joined;     // a CSV record of several lines
    metric_record record;
};

// "/a/cpu.csv.gz" is "cpu".
std::string name_of_file(const std::string& path) {
    if (path == "-") return "stdin";
    std::string name = path.substr(path.rfind('/') + 1);
    name.resize(packed_name_stem(name).size());
    const size_t point = name.rfind('.');
    return point == std::string::npos || point == 0 ? name : name.substr(0, point);
}

// A first line that is no sample and has a separator names columns.
bool looks_like_csv(const std::string& head, char separator) {
    std::string line = head.substr(0, head.find('\n'));
    if (line.starts_with('#') || line.starts_with('{') || line.find(separator) == std::string::npos) return false;
    metric_record record;
    return metric_text_parse(line, metric_time_unit::guess, &record) != nullptr;
}

// What else than the file's bytes decides which samples they are.
uint64_t hash_options(const metric_load_options& options, const metric_file& file) {
    std::string text = options.format + '\0' + options.zone_name + '\0' + (file.is_csv ? options.time : "") + '\0';
    for (const std::string& label : options.labels) text += label + '\0';
    if (file.is_csv) {
        const metric_csv_options& csv = options.csv;
        text += csv.separator + csv.name + '\0';
        if (csv.name.empty() && csv.values.size() <= 1) text += name_of_file(file.path);
        text += '\0';
        for (const std::string& value : csv.values) text += value + '\0';
        text += '\0';
        for (const std::string& dim : csv.dims) text += dim + '\0';
    }
    return XXH64(text.data(), text.size(), 0);
}

void choose_format(const metric_loader& load, metric_file* file) {
    const metric_load_options& options = *load.options;
    const bool csv_options = !options.csv.values.empty() || !options.csv.dims.empty() || !options.csv.name.empty();
    file->is_csv = options.format == "csv" ||
                   (options.format.empty() && (csv_options || looks_like_csv(file->input.head, options.csv.separator)));
    if (options.format == "openmetrics") file->unit = metric_time_unit::seconds;
    if (options.format == "prometheus") file->unit = metric_time_unit::milliseconds;
    file->options_hash = hash_options(options, *file);
    file->time = load.now;
    if (file->is_csv || options.time.empty()) return;
    log_zone zone = options.csv.zone;
    if (!time_input_parse(options.time, &zone, load.now.time_s, &file->time)) {
        throw failure_t{OUTCOME_USAGE, input_name("time") + " " + options.time + ": expected " + TIME_INPUT_FORMS};
    }
    file->time.time_ns -= file->time.time_ns % 1000000;
}

// Where a message about the last line points.
std::string place_of(const metric_file& file) {
    const std::string name = file.path == "-" ? "standard input" : file.path;
    if (file.from == 0) return name + ": line " + std::to_string(file.line);
    return name + ": line " + std::to_string(file.line) + " behind byte " + std::to_string(file.from);
}

// Most metrics have whole seconds, and slices without milliseconds are smaller.
void open_writer(metric_loader* load) {
    const bool milliseconds = load->batch.milliseconds;
    if (load->writer.thing != nullptr && milliseconds == load->milliseconds) return;
    index_writer_close(&load->writer);
    metric_staging_make(load->staging);
    index_writer_open_metrics(&load->writer, load->staging.path, milliseconds, !load->options->no_fsync);
    load->milliseconds = milliseconds;
}

// Notes how far the file is taken. When that cannot be told, as it was cut or cannot be read any more, its samples since
// the last note leave the batch: they would come again with the next load. False then, with a message.
bool note_file(metric_loader* load, metric_file* file, std::string* error) {
    if (file->timeless || file->input.pipe || file->taken <= file->noted) return true;
    metric_note note;
    const bool is_made = metric_note_make(&file->hash, file->input, file->options_hash, file->taken, &note, error);
    if (is_made && log_input_is_uncut(file->input, error)) {
        load->done.push_back(note);
        file->noted = file->taken;
        return true;
    }
    if (is_made && error->empty()) *error = "was cut while it was read; load it again";
    load->batch.samples.resize(file->batch_from);
    file->taken = file->noted;
    return false;
}

// Puts the batch into slices and notes what they hold: the files before, and this one up to where it was taken, or not
// at all.
void write_batch(metric_loader* load, metric_file* file) {
    std::string error;
    if (file != nullptr && !note_file(load, file, &error) && file->reader.error.empty()) {
        file->reader.error = error;
        file->reader.at_end = true;
    }
    if (!load->batch.samples.empty()) {
        open_writer(load);
        metric_batch_write(&load->batch, &load->writer, &load->totals);
        index_writer_sync(&load->writer);
        if (file != nullptr && file->input.pipe) load->pipe_in_batch = file->taken;
        metric_staging_commit(load->staging, load->done, &load->notes);
        load->pipe_loaded = load->pipe_in_batch;
        static_cast<void>(st_tsidx_set_need_optimize(index_handle_open(load->directory, MERGE_WRITE_LEVEL).get()));
    }
    for (const metric_note& note : load->done) metric_notes_add_line(&load->notes, metric_note_line(note));
    load->done.clear();
    if (file != nullptr) file->batch_from = load->batch.samples.size();
}

void refuse(metric_loader* load, metric_file* file, const char* why) {
    load->totals.refused++;
    file->refused++;
    const std::string message = place_of(*file) + ": " + why;
    if (load->options->strict) {
        write_batch(load, file);
        throw failure_t{OUTCOME_USAGE, message};
    }
    troubles_add(&load->trouble, message);
}

void add_labels(const metric_loader& load, metric_record* record) {
    if (load.labels.empty()) return;
    const size_t own = record->labels.size();
    for (const metric_label& label : load.labels) {
        const auto same = [&](const metric_label& other) { return other.name == label.name; };
        const auto own_end = record->labels.begin() + static_cast<ptrdiff_t>(own);
        if (std::none_of(record->labels.begin(), own_end, same)) record->labels.push_back(label);
    }
    std::sort(record->labels.begin(), record->labels.end(),
              [](const metric_label& a, const metric_label& b) { return a.name < b.name; });
}

// The next record's bytes, which may be changed; false at the end.
bool next_record(metric_file* file, std::span<char>* bytes, bool* too_long) {
    file->taken = file->reader.offset;
    if (!line_reader_next(&file->reader, bytes, too_long)) return false;
    file->line++;
    if (!file->is_csv || *too_long || !metric_csv_goes_on({bytes->data(), bytes->size()})) return true;
    file->joined.assign(bytes->data(), bytes->size());
    for (size_t lines = 1; lines < CSV_RECORD_LINES && file->joined.size() < LINE_MAX_BYTES; lines++) {
        if (!line_reader_next(&file->reader, bytes, too_long)) {
            file->held = file->held || file->waits;
            if (file->waits && file->reader.error.empty()) return false;
            break;
        }
        if (*too_long) break;
        file->line++;
        file->joined.append("\n").append(bytes->data(), bytes->size());
        if (!metric_csv_goes_on(file->joined)) break;
    }
    *bytes = file->joined;
    return true;
}

void take_record(metric_loader* load, metric_file* file, std::span<char> bytes) {
    metric_record* const record = &file->record;
    const char* wrong =
        file->is_csv ? metric_csv_parse(&file->csv, bytes, record) : metric_text_parse(bytes, file->unit, record);
    // Of a record in which one value is wrong the others are loaded, unless it ends the load.
    if (!record->measures.empty() && (wrong == nullptr || !load->options->strict)) {
        if (!record->has_time) {
            record->time = file->time;
            file->timeless = true;
        }
        add_labels(*load, record);
        const char* const too_long = metric_batch_add(&load->batch, *record);
        if (too_long == nullptr) file->samples += record->measures.size();
        if (wrong == nullptr) wrong = too_long;
    }
    if (wrong != nullptr) refuse(load, file, wrong);
}

void take_records(metric_loader* load, metric_file* file) {
    std::span<char> bytes;
    bool too_long = false;
    while (!work_stops() && file->reader.error.empty() && next_record(file, &bytes, &too_long)) {
        if (too_long) {
            refuse(load, file, "more than 1 MiB");
        } else {
            take_record(load, file, bytes);
        }
        file->taken = file->reader.offset;
        if (load->batch.samples.size() >= load->options->batch_samples) write_batch(load, file);
        if (file->line % SHOW_EVERY == 0) load_show(load, file->input);
    }
}

// Only what was in a file when it was opened is loaded, and of one that is being written whole lines.
bool leave_unfinished(const metric_loader& load, metric_file* file, std::string* error) {
    if (!log_input_is_plain(file->input)) return true;
    file->input.stored_end = file->input.size;
    file->waits = !load.options->flush && log_input_is_young(file->input);
    file->held = file->waits && log_input_leave_last_line(&file->input, error);
    return error->empty();
}

bool open_csv(const metric_loader& load, metric_file* file, std::string* error) {
    std::span<char> header;
    bool too_long = false;
    file->csv.options = load.options->csv;
    file->csv.options.time = load.options->time;
    file->csv.options.time_input = input_name("time");
    if (!line_reader_next(&file->reader, &header, &too_long)) return true;  // empty
    file->line++;
    return metric_csv_open(&file->csv, header, name_of_file(file->path), error);
}

// Goes to where reading begins; of CSV behind the header at least.
bool open_reader(metric_loader* load, metric_file* file, std::string* error) {
    if (!file->input.pipe && !load->options->again &&
        !metric_notes_find(load->notes, file->input, file->options_hash, &file->from, error)) {
        return false;
    }
    line_reader_open(&file->reader, &file->input);
    if (file->is_csv && !open_csv(*load, file, error)) return false;
    if (file->from <= file->reader.offset) return true;
    if (!log_input_seek(&file->input, file->from, error)) return false;
    file->line = 0;
    file->reader = {};
    line_reader_open(&file->reader, &file->input);
    return true;
}

// A directory holds either events or metrics: the first slice with a sound header tells.
void refuse_events(const std::string& directory, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const std::string path = directory + "/" + name;
        const unique_fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        st_warm_slice_body header;
        warm_rc_t rc;
        if (!fd.valid() && errno != ENOENT) fail_io("cannot open", path, errno);
        if (!fd.valid() || warm_header_read(fd.get(), &header, &rc) != 0) continue;
        if (st_warm_slice_is_msidx(&header)) return;
        throw failure_t{OUTCOME_USAGE, directory + " holds events and not metrics"};
    }
}

st_timeval_t present() {
    timespec now;
    st_timeval_t time;
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (!log_time_store(now.tv_sec, static_cast<uint32_t>(now.tv_nsec / 1000000 * 1000000), &time)) {
        throw failure_t{OUTCOME_USAGE, "the clock is beyond what an index can hold"};
    }
    return time;
}

}  // namespace

void metric_loader_open(metric_loader* load, const std::string& directory, const metric_load_options& options) {
    load->options = &options;
    load->directory = directory;
    load->now = present();
    for (const std::string& label : options.labels) {
        const size_t equals = label.find('=');
        const std::string_view view = label;
        load->labels.push_back({view.substr(0, equals), view.substr(equals + 1)});
    }
    if (const char* const wrong = metric_labels_settle(&load->labels); wrong != nullptr) {
        throw failure_t{OUTCOME_USAGE, input_name("label") + ": " + wrong};
    }
    disk_make_directory(directory);
    const std::vector<std::string> names = slice_names(directory);
    if (names.empty() && !options.no_fsync) disk_sync_name(directory);
    refuse_events(directory, names);
    load->lock = disk_lock(directory + "/metrics.lock", directory);
    if (options.in_store) store_remove_leftovers(directory);
    metric_notes_open(&load->notes, directory, !options.no_fsync);
    load->staging = metric_staging_settle(directory, &load->notes, !options.no_fsync);
    load->slices_before = slice_names(directory);
    load_begin(load, options.files);
}

bool metric_loader_load(metric_loader* load, const std::string& path, std::string* error) {
    metric_file file;
    file.path = path;
    file.batch_from = load->batch.samples.size();
    if (!log_input_open(&file.input, path, error)) return false;
    *error = foreign_content(file.input.head);
    if (!error->empty()) return false;
    choose_format(*load, &file);
    if (!leave_unfinished(*load, &file, error) || !open_reader(load, &file, error)) return false;
    file.taken = file.noted = file.from;
    take_records(load, &file);
    load->totals.waiting += file.held && file.taken < file.input.size ? 1 : 0;
    load->totals.bytes_in += file.taken - file.from;
    if (file.input.pipe) load->pipe_in_batch = file.taken;
    load->bytes_done += file.input.size;
    if (file.from > 0 && file.taken == file.from) load->unchanged++;
    *error = file.reader.error;
    if (error->empty() && file.from == 0 && file.refused != 0 && file.samples == 0) {
        *error = "every line was refused: is this a file of metrics?";
    } else if (work_stops() || !error->empty()) {
        write_batch(load, &file);
        *error = file.reader.error;
    } else if (!note_file(load, &file, error)) {
        return false;
    }
    return error->empty();
}

void metric_loader_close(metric_loader* load) {
    write_batch(load, nullptr);
    index_writer_close(&load->writer);
    metric_staging_remove(load->staging);
    totals_add_slices(&load->totals, load->directory, load->slices_before);
}

std::string metric_loader_give_up(const metric_loader& load) {
    // What is committed is loaded, by the next load if not by this one.
    const uint64_t size = metric_staging_is_committed(load.staging) ? load.pipe_in_batch : load.pipe_loaded;
    if (size == 0) return "not all is loaded; load again once this is mended";
    return "the first " + std::to_string(size) +
           " bytes of the pipe are loaded, or will be by the next load; send what follows them again";
}

}  // namespace veldar::tool
