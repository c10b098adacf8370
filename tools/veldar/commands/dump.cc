// veldar dump: the events of slices as the index has them, with their terms.
//
//   jsonl   one object a line
//   csv     the same columns with a header line; the terms separated by blanks, percent-encoded
//   tsv     what `veldar put` reads: numbers instead of names, no header line
#include <fmt/format.h>

#include <array>
#include <cmath>

#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/query/slice_events.h"
#include "tools/libveldar/query/slice_metrics.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct dump_options {
    std::string path;
    std::string zone, format = "jsonl";
    bool deleted = false;
};

struct dump_run {
    const dump_options* options = nullptr;
    text_output out;
    event_source source;
    troubles trouble;
};

// A term among others separated by blanks.
void put_encoded(std::string* out, std::string_view term) {
    for (const char c : term) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || c == '%') {
            *out += fmt::format("%{:02X}", byte);
        } else {
            *out += c;
        }
    }
}

std::string encoded_terms(const slice_events& events, uint32_t id) {
    std::string out;
    for (const uint32_t term : slice_events_terms(events, id)) {
        if (!out.empty()) out += ' ';
        put_encoded(&out, slice_events_term(events, term));
    }
    return out;
}

void put_json(dump_run* run, const slice_events& events, uint32_t id, const st_tsval& value, bool deleted) {
    std::string* const out = &run->out.bytes;
    *out += "{\"time\":\"" + event_time_text(value.time, value.subsecond, run->out.zone) + "\",\"host\":";
    json_put_string(out, event_source_name(run->source.hosts, value.h));
    *out += ",\"source\":";
    json_put_string(out, event_source_name(run->source.sources, value.s));
    *out += ",\"sourcetype\":";
    json_put_string(out, event_source_name(run->source.sourcetypes, value.st));
    *out +=
        fmt::format(",\"address\":{},\"measure\":{},\"deleted\":{},\"terms\":[", value.address, value.measure, deleted);
    for (const uint32_t term : slice_events_terms(events, id)) {
        if (out->back() != '[') *out += ',';
        json_put_string(out, slice_events_term(events, term));
    }
    *out += "]}\n";
}

void put_csv(dump_run* run, const slice_events& events, uint32_t id, const st_tsval& value, bool deleted) {
    const std::string fields[] = {event_time_text(value.time, value.subsecond, run->out.zone),
                                  event_source_name(run->source.hosts, value.h),
                                  event_source_name(run->source.sources, value.s),
                                  event_source_name(run->source.sourcetypes, value.st),
                                  fmt::to_string(value.address),
                                  fmt::to_string(value.measure),
                                  deleted ? "true" : "false"};
    for (const std::string& field : fields) {
        csv_put_field(&run->out.bytes, field);
        run->out.bytes += ',';
    }
    csv_put_field(&run->out.bytes, encoded_terms(events, id));
    run->out.bytes += "\r\n";
}

void put_tsv(dump_run* run, const slice_events& events, uint32_t id, const st_tsval& value) {
    std::string time = fmt::to_string(value.time);
    if (value.subsecond != 0) time += fmt::format(".{:09}", value.subsecond);
    run->out.bytes += fmt::format("{}\t{}\t{}\t{}\t{}\t{}\t{}\n", time, value.address, value.s, value.st, value.h,
                                  value.measure, encoded_terms(events, id));
}

void put_event(dump_run* run, const slice_events& events, uint32_t id, const st_tsval& value) {
    const bool deleted = value.s == ST_DELETED_SOURCE && !events.warm->tsval_reader.s.bytes.empty();
    if (deleted && !run->options->deleted) return;
    if (run->options->format == "jsonl") {
        put_json(run, events, id, value, deleted);
    } else if (run->options->format == "csv") {
        put_csv(run, events, id, value, deleted);
    } else {
        put_tsv(run, events, id, value);
    }
    output_end_record(&run->out);
}

int dump_values(dump_run* run, slice_events* events, warm_rc_t* rc) {
    do {
        ST_TRY(slice_events_next(events, rc));
        for (uint32_t id = events->begin; id < events->end && !run->out.closed; id++) {
            st_tsval value;
            ST_TRY(tsval_reader_decode(&events->warm->tsval_reader, id, &value, false, 0, rc));
            put_event(run, *events, id, value);
        }
    } while (events->begin < events->end && !run->out.closed);
    return 0;
}

// The value of a dimension, empty when the set has none of the name.
std::string_view dimension_of(const slice_metric_set& set, std::string_view prefix) {
    for (const std::string_view dimension : set.dimensions) {
        if (dimension.starts_with(prefix)) return dimension.substr(prefix.size());
    }
    return {};
}

constexpr std::array<std::string_view, 3> NAMED = {"host::", "source::", "sourcetype::"};

void put_json_sample(std::string* out, const slice_metric_sample& sample, const std::string& time,
                     const std::string& name) {
    *out += "{\"time\":\"" + time + "\"";
    for (const std::string_view prefix : NAMED) {
        *out += ",\"" + std::string(prefix.substr(0, prefix.size() - 2)) + "\":";
        json_put_string(out, dimension_of(*sample.set, prefix));
    }
    const char* const quote = std::isfinite(sample.value) ? "" : "\"";
    *out += std::string(",\"address\":0,\"measure\":") + quote;
    metric_value_put(out, sample.value);
    *out += std::string(quote) + ",\"deleted\":false,\"terms\":[";
    json_put_string(out, name);
    for (const std::string_view dimension : sample.set->dimensions) {
        *out += ',';
        json_put_string(out, dimension);
    }
    *out += "]}\n";
}

// Metrics name their hosts, sources and source types themselves.
void put_sample(dump_run* run, const slice_metric_sample& sample) {
    std::string* const out = &run->out.bytes;
    const std::string time = event_time_text(sample.time, sample.nanoseconds, run->out.zone);
    const std::string name = std::string(METRIC_NAME_TERM.substr(1)).append(sample.set->names[sample.name]);
    if (run->options->format == "jsonl") return put_json_sample(out, sample, time, name);
    std::string measure, terms;
    metric_value_put(&measure, sample.value);
    put_encoded(&terms, name);
    for (const std::string_view dimension : sample.set->dimensions) put_encoded(&(terms += ' '), dimension);
    if (run->options->format == "tsv") {
        metric_time_put(out, sample.time, static_cast<uint32_t>(sample.nanoseconds));
        *out += "\t0\t0\t0\t0\t" + measure + "\t" + terms + "\n";
        return;
    }
    *out += time;
    for (const std::string_view prefix : NAMED) csv_put_field(&(*out += ','), dimension_of(*sample.set, prefix));
    csv_put_field(&(*out += ",0," + measure + ",false,"), terms);
    *out += "\r\n";
}

int dump_events(dump_run* run, WARM* warm, warm_rc_t* rc) {
    slice_events events;
    int status = slice_events_open(&events, warm, SLICE_EVENTS_BUDGET, rc);
    if (status == 0) status = dump_values(run, &events, rc);
    slice_events_close(&events);
    return status;
}

int dump_samples(dump_run* run, WARM* warm, warm_rc_t* rc) {
    const auto put = [&](const slice_metric_sample& sample) {
        put_sample(run, sample);
        output_end_record(&run->out);
        return !run->out.closed;
    };
    return slice_metric_samples(warm, put, rc);
}

// All slices are open before the first event is printed, so that what is printed is of one moment.
void dump_slices(dump_run* run, const slice_set& set) {
    tsidx_snapshot slices(slices_sources(set), slices_hear(&run->trouble));
    warm_rc_t rc;
    const auto open_all = [&]() -> int64_t { return slices.open_all(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, &rc); };
    if (slices.hold(open_all, &rc) != 0) return slice_tell(set.path, rc, &run->trouble);
    event_source_open(&run->source, &set, &run->trouble);
    event_source_read_names(&run->source);
    if (run->options->format == "csv") {
        output_put(&run->out, "time,host,source,sourcetype,address,measure,deleted,terms\r\n");
    }
    for (size_t i = 0; i < slices.size() && !run->out.closed; i++) {
        WARM* const warm = slices.warm(i);
        if (warm == nullptr) continue;
        const int status = (warm_slice_has_runs(warm) ? dump_samples : dump_events)(run, warm, &rc);
        if (status != 0) slice_tell(slices.path(i), rc, &run->trouble);
    }
}

int dump_run_all(const tool_context& context, const dump_options& options) {
    dump_run run;
    run.options = &options;
    output_open(&run.out, "never");
    run.out.zone = time_zone_of(options.zone);
    const slice_set set = slices_list(context.path_or_store(options.path));
    slices_tell_errors(set, &run.trouble);
    dump_slices(&run, set);
    output_flush(&run.out);
    return run.trouble.status;
}

}  // namespace

void add_dump_command(const command& veldar) {
    static dump_options options;
    const command dump = veldar.subcommand("dump", "Print the events of slices with their terms");
    dump.footer(
        "tsv is what 'veldar put' reads. Of metrics, each sample is a line: its value is the measure, and its name and "
        "labels\n"
        "are the terms; those of the oldest kinds come without terms.");
    dump.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    dump.text("--format", &options.format, "jsonl, csv or tsv").one_of({"jsonl", "csv", "tsv"}).with_default();
    dump.flag("--deleted", &options.deleted, "Deleted events too");
    add_zone_option(dump, &options.zone);
    dump.run([](const tool_context& context) { return dump_run_all(context, options); });
}

}  // namespace veldar::tool
