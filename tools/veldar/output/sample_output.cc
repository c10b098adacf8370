#include "tools/veldar/output/sample_output.h"

#include <fmt/format.h>

#include "tools/libveldar/formats/metric_text.h"
#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

namespace {

void put_json_point(text_output* out, const metric_series& series, const std::string& time, double value) {
    output_put(out, "{\"time\":\"" + time + "\",\"name\":");
    json_put_string(&out->bytes, series.name);
    output_put(out, ",\"labels\":{");
    for (const metric_label& label : series.labels) {
        if (out->bytes.back() != '{') output_put(out, ",");
        json_put_string(&out->bytes, label.name);
        output_put(out, ":");
        json_put_string(&out->bytes, label.value);
    }
    output_put(out, "},\"value\":");
    const bool finite = value - value == 0;
    if (!finite) output_put(out, "\"");
    metric_value_put(&out->bytes, value);
    output_put(out, finite ? "}\n" : "\"}\n");
}

}  // namespace

void samples_begin(sample_output* output) {
    if (output->format == "csv") output_put(&output->out, "time,series,value\r\n");
}

void sample_put(sample_output* output, std::string_view series, int64_t time_ms, double value) {
    text_output* const out = &output->out;
    if (!output->has_last || series != output->last) {
        output->has_last = true;
        output->last = series;
        metric_series_split(output->last, &output->series);
        output->series_text.clear();
        metric_text_put_series(&output->series_text, output->series.name, output->series.labels);
    }
    const int64_t floor_ms = time_ms % 1000 < 0 ? time_ms % 1000 + 1000 : time_ms % 1000;
    const auto seconds = static_cast<st_time_t>((time_ms - floor_ms) / 1000);
    const auto nanoseconds = static_cast<uint32_t>(floor_ms) * 1000000;
    const std::string time = event_time_text(seconds, nanoseconds, out->zone);
    std::string text;
    metric_value_put(&text, value);
    if (output->format == "jsonl") {
        put_json_point(out, output->series, time, value);
    } else if (output->format == "csv") {
        output_put(out, time + ",");
        csv_put_field(&out->bytes, output->series_text);
        output_put(out, "," + text + "\r\n");
    } else if (output->format == "openmetrics") {
        output_put(out, output->series_text + " " + text + " ");
        metric_time_put(&out->bytes, seconds, nanoseconds);
        output_put(out, "\n");
    } else {
        output_put(out, out->terminal ? fmt::format("{:<24}  {:>20}  {}\n", time, text, output->series_text)
                                      : time + "\t" + text + "\t" + output->series_text + "\n");
    }
    output_end_record(out);
}

}  // namespace veldar::tool
