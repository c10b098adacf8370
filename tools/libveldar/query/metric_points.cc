#include "tools/libveldar/query/metric_points.h"

#include <algorithm>
#include <bit>
#include <unordered_map>
#include <utility>

#include "searchthing/reading/tsidx_read.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

using series_of_set = std::vector<uint32_t>;

struct points_reader {
    metric_points* points = nullptr;
    uint32_t slice = 0;
    std::unordered_map<uint64_t, series_of_set> sets;  // of this slice
    std::string scratch;
    bool out_of_memory = false;
};

void put_piece(std::string* out, std::string_view piece) {
    out->append(piece).push_back('\0');
}

void learn_set(points_reader* reader, const st_metric_event_t& event, series_of_set* known) {
    metric_points* const points = reader->points;
    std::string dimensions;
    for (const std::string_view dimension : event.dimensions) put_piece(&dimensions, dimension);
    for (const st_metric_measure_t& measure : event.measures) {
        reader->scratch.clear();
        put_piece(&reader->scratch, measure.name);
        reader->scratch.append(dimensions);
        known->push_back(text_number(&points->series, reader->scratch));
    }
}

void keep_newest(metric_points* points) {
    const auto middle = points->points.begin() + static_cast<ptrdiff_t>(points->limit);
    // Which of equal times stay does not depend on the slices that hold them.
    const auto& texts = points->series.texts;
    std::nth_element(points->points.begin(), middle, points->points.end(),
                     [&](const metric_point& a, const metric_point& b) {
                         if (a.time_ms != b.time_ms) return a.time_ms > b.time_ms;
                         if (a.series != b.series) return *texts[a.series] < *texts[b.series];
                         return std::bit_cast<uint64_t>(a.value) < std::bit_cast<uint64_t>(b.value);
                     });
    points->points.erase(middle, points->points.end());
}

void take_event(points_reader* reader, const st_metric_event_t& event) {
    metric_points* const points = reader->points;
    if (std::exchange(reader->slice, event.slice) != event.slice) reader->sets.clear();
    series_of_set& known = reader->sets[event.set];
    if (known.empty()) learn_set(reader, event, &known);
    const int64_t time_ms = int64_t{event.time} * 1000 + event.nanoseconds / 1000000;
    for (size_t i = 0; i < event.measures.size(); i++) {
        points->points.push_back({time_ms, event.measures[i].value, known[i]});
    }
    if (points->limit != 0 && points->points.size() / 2 > points->limit) keep_newest(points);
}

int visit(const st_metric_event_t* event, void* context) {
    auto* const reader = static_cast<points_reader*>(context);
    try {
        take_event(reader, *event);
    } catch (const std::bad_alloc&) {
        reader->out_of_memory = true;
        return -1;
    }
    return 0;
}

}  // namespace

int metric_points_read(TSIDX* tsidx, const st_query_spec& query, metric_points* points) {
    points_reader reader;
    reader.points = points;
    st_metric_options_t options;
    if (points->wanted != nullptr) {
        options.wants = [](std::string_view name, void* of) { return static_cast<metric_points*>(of)->wanted(name); };
        options.wants_context = points;
    }
    const int64_t status = st_tsidx_apply_metric_events_of(tsidx, &query, options, visit, &reader);
    if (reader.out_of_memory) throw std::bad_alloc();
    if (points->limit != 0 && points->points.size() > points->limit) keep_newest(points);
    return status < 0 ? static_cast<int>(status) : 0;
}

void metric_series_split(std::string_view text, metric_series* series) {
    series->labels.clear();
    series->name = text.substr(0, text.find('\0'));
    text.remove_prefix(series->name.size() + 1);
    series->label_names.resize(static_cast<size_t>(std::count(text.begin(), text.end(), '\0')));
    for (std::string& name : series->label_names) {
        const std::string_view term = text.substr(0, text.find('\0'));
        std::string_view value;
        metric_term_split(term, &name, &value);
        series->labels.push_back({name, value});
        text.remove_prefix(term.size() + 1);
    }
    // The terms ascend, but encoded names do not as the names.
    std::sort(series->labels.begin(), series->labels.end(),
              [](const metric_label& a, const metric_label& b) { return a.name < b.name; });
}

std::shared_ptr<TSIDX> metric_directory_open(const std::string& directory) {
    const slice_set slices = slices_list(directory);
    if (slices.directories.empty() || slices.directories[0].tsidx == nullptr) {
        throw failure_t{OUTCOME_USAGE, directory + " is not a directory of metrics"};
    }
    return slices.directories[0].tsidx;
}

bool metric_name_matches(std::string_view text, std::string_view pattern) {
    const size_t star = pattern.find('*');
    if (star == std::string_view::npos) return text == pattern;
    if (!text.starts_with(pattern.substr(0, star))) return false;
    text.remove_prefix(star);
    pattern.remove_prefix(star + 1);
    for (size_t next; (next = pattern.find('*')) != std::string_view::npos; pattern.remove_prefix(next + 1)) {
        const size_t at = text.find(pattern.substr(0, next));
        if (at == std::string_view::npos) return false;
        text.remove_prefix(at + next);
    }
    return text.ends_with(pattern);
}

bool metric_name_matches(std::string_view text, const std::vector<std::string>& patterns) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& pattern) { return metric_name_matches(text, pattern); });
}

}  // namespace veldar::tool
