#include "tools/veldar/output/stats_plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "tools/libveldar/store/observer.h"
#include "tools/veldar/output/stats_output.h"
#include "tools/veldar/output/zone_time.h"

namespace veldar::tool {

namespace {

constexpr size_t HEIGHT = 8;   // lines of a drawing
constexpr size_t MARGIN = 11;  // for the labels of the axis
constexpr size_t WIDEST_BAR = 9;
constexpr size_t LAYERS = 5;    // groups in colours of their own
constexpr size_t DRAWINGS = 6;  // of one answer
constexpr size_t MOST_BINS = 20000;
constexpr int DEFAULT_COLOUR = 39;
constexpr std::array<int, LAYERS + 1> COLOURS = {34, 32, 33, 35, 36, 90};  // the last one: other
constexpr std::array<const char*, 9> EIGHTHS = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

struct layer {
    std::string name;
    int colour = DEFAULT_COLOUR;
    std::vector<double> values;  // by bin
};

struct drawing {
    std::string title;
    const stats_column* column = nullptr;
    std::vector<layer> layers;   // from the ground up
    std::vector<bool> is_there;  // bins with a value
    bool names_layers = false;
};

// The bins from the first to the last, those without rows too.
std::vector<int64_t> all_bins(const stats_answer& answer) {
    std::vector<int64_t> bins;
    if (answer.entries.empty()) return bins;
    const int64_t last = answer.entries.back().bin;
    for (int64_t bin = answer.entries.front().bin; bins.size() < MOST_BINS; bin = stats_next_bin(answer, bin)) {
        bins.push_back(bin);
        if (bin == last) break;
    }
    return bins;
}

// Adds up the column's values of the groups that `chosen` takes into the layer.
template <typename Chosen>
void add_values(const stats_answer& answer, const std::vector<int64_t>& bins, Chosen chosen, drawing* to, layer* into) {
    into->values.resize(bins.size());
    to->is_there.resize(bins.size());
    size_t at = 0;
    for (const stats_answer::entry& entry : answer.entries) {
        while (at < bins.size() && bins[at] != entry.bin) at++;
        if (at == bins.size()) return;
        if (!chosen(entry.group)) continue;
        const stats_value value = stats_entry_value(answer, entry, *to->column);
        if (value.kind == stats_value::NOTHING || !std::isfinite(value.number)) continue;
        into->values[at] += value.number;
        to->is_there[at] = true;
    }
}

drawing stacked(const stats_answer& answer, const stats_column& column, const std::vector<int64_t>& bins, bool colour) {
    drawing result;
    result.title = column.name;
    result.column = &column;
    const bool layered = colour && !answer.request->group_names.empty();
    result.names_layers = layered;
    const size_t named = layered ? std::min(answer.ranks.size(), LAYERS) : 0;
    std::vector<size_t> place(answer.table->group_texts.size(), named);
    for (size_t i = 0; i < named; i++) place[answer.ranks[i]] = i;
    for (size_t i = 0; i <= named; i++) {
        layer one;
        const bool is_other = i == named;
        if (layered && is_other && answer.ranks.size() <= named) break;
        if (layered) one.colour = is_other ? COLOURS.back() : COLOURS[i];
        one.name = is_other ? "other" : stats_group_name(answer, answer.ranks[i]);
        add_values(
            answer, bins, [&](uint32_t group) { return place[group] == i; }, &result, &one);
        result.layers.push_back(std::move(one));
    }
    return result;
}

drawing single(const stats_answer& answer, const stats_column& column, uint32_t group,
               const std::vector<int64_t>& bins) {
    drawing result;
    result.title = column.name;
    if (!answer.request->group_names.empty()) result.title += "  " + stats_group_name(answer, group);
    result.column = &column;
    layer one;
    add_values(
        answer, bins, [&](uint32_t other) { return other == group; }, &result, &one);
    result.layers.push_back(std::move(one));
    return result;
}

// The values that the top and the bottom of a drawing stand for.
struct scale {
    double low = 0, high = 0;
    double eighths(double value) const {
        return high > low ? (value - low) / (high - low) * static_cast<double>(HEIGHT * 8) : 0;
    }
};

double total_at(const drawing& d, size_t bin) {
    double sum = 0;
    for (const layer& one : d.layers) sum += one.values[bin];
    return sum;
}

scale scale_of(const drawing& d) {
    scale result;
    for (size_t i = 0; i < d.is_there.size(); i++) {
        if (!d.is_there[i]) continue;
        result.low = std::min(result.low, total_at(d, i));
        result.high = std::max(result.high, total_at(d, i));
    }
    return result;
}

std::string colour_text(int foreground, int background) {
    std::string text = fmt::format("\x1b[0;{}", foreground);
    if (background != 0) text += fmt::format(";{}", background + 10);
    return text + "m";
}

struct block {
    size_t eighths = 0;
    int colour = DEFAULT_COLOUR, above = 0;  // of the layer that lies lowest, and of the next one; 0: none
};

// One line of a bar, counted from the ground.
block block_of(const drawing& d, const scale& of, size_t bin, size_t line) {
    const double floor = static_cast<double>(line * 8);
    double sum = 0;
    block result;
    for (const layer& one : d.layers) {
        const double begin = of.eighths(sum);
        sum += one.values[bin];
        const double filled = std::clamp(std::floor(of.eighths(sum) - floor + 0.5), 0.0, 8.0);
        if (filled == 0 || begin >= floor + 8 || one.values[bin] == 0) continue;
        if (result.eighths == 0) {
            result.eighths = static_cast<size_t>(filled);
            result.colour = one.colour;
        } else if (result.above == 0 && filled > static_cast<double>(result.eighths)) {
            result.above = one.colour;
        }
    }
    // What is little is seen all the same.
    if (line == 0 && result.eighths == 0 && d.is_there[bin] && sum > of.low) result.eighths = 1;
    return result;
}

// A line of bars, each as wide as told with a blank behind it when there is room.
std::string line_of(const drawing& d, const scale& of, size_t first, size_t end, size_t line, size_t width) {
    std::string text;
    int colour = DEFAULT_COLOUR, above = 0;
    for (size_t bin = first; bin < end; bin++) {
        const block b = block_of(d, of, bin, line);
        if (b.eighths > 0 && (b.colour != colour || b.above != above)) {
            text += colour_text(b.colour, b.above);
            colour = b.colour;
            above = b.above;
        }
        for (size_t i = 0; i < (width > 2 ? width - 1 : width); i++) text += b.eighths > 0 ? EIGHTHS[b.eighths] : " ";
        if (above != 0) {
            text += colour_text(colour, 0);
            above = 0;
        }
        if (width > 2) text += ' ';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return colour == DEFAULT_COLOUR ? text : text + "\x1b[0m";
}

// A number that fits beside the axis.
std::string label_text(double number) {
    const std::string text = number_text(number);
    if (text.size() < MARGIN - 2) return text;
    static constexpr std::array<const char*, 5> UNITS = {"k", "M", "G", "T", "P"};
    size_t unit = 0;
    for (number /= 1000; std::abs(number) >= 1000 && unit + 1 < UNITS.size(); unit++) number /= 1000;
    return fmt::format("{:.4g}{}", number, UNITS[unit]);
}

std::string padded(const std::string& text, size_t width) {
    const size_t used = text_width(text);
    return std::string(used < width ? width - used : 0, ' ') + text;
}

// Below the bars: the time at the left and as many as fit with room between them.
std::string axis_of(const stats_answer& answer, const std::vector<int64_t>& bins, size_t first, size_t end,
                    size_t width) {
    constexpr int64_t DAY_NS = int64_t{86400} * 1000000000, MINUTE_NS = int64_t{60} * 1000000000;
    const int64_t bin_ns = stats_next_bin(answer, bins.front()) - bins.front();
    const char* const format = bin_ns >= DAY_NS - DAY_NS / 4 ? "%Y-%m-%d"
                               : bin_ns >= MINUTE_NS         ? "%m-%d %H:%M"
                                                             : "%H:%M:%S";
    const size_t step = (20 + width - 1) / width;
    std::string line;
    for (size_t i = first; i < end; i += step) {
        if (i != first && (end - i) * width < 12) break;
        line.resize(std::max(line.size(), (i - first) * width), ' ');
        line += "|" + zone_time_format(bins[i], answer.grid->zone, format);
    }
    return line;
}

size_t bar_width(const std::vector<int64_t>& bins) {
    return std::clamp<size_t>(stats_draw_width() / bins.size(), 1, WIDEST_BAR);
}

void put_panel(const stats_answer& answer, const drawing& d, const scale& of, const std::vector<int64_t>& bins,
               size_t first, text_output* out) {
    const size_t width = bar_width(bins), end = std::min(first + stats_draw_width() / width, bins.size());
    for (size_t line = HEIGHT; line-- > 0;) {
        std::string label;
        if (line == HEIGHT - 1) label = label_text(of.high);
        if (line == HEIGHT / 2 - 1) label = label_text((of.low + of.high) / 2);
        if (line == 0 && of.low < 0) label = label_text(of.low);
        output_put_commands(out, padded(label, MARGIN - 2) + " │" + line_of(d, of, first, end, line, width) + "\n");
    }
    output_put(out, std::string(MARGIN - 1, ' ') + axis_of(answer, bins, first, end, width) + "\n");
    output_end_record(out);
}

void put_title(const stats_answer& answer, const drawing& d, text_output* out) {
    output_put(out, d.title + "  every " + answer.grid->every + "\n");
    if (!d.names_layers) return;
    for (const layer& one : d.layers) {
        double sum = 0;
        for (const double value : one.values) sum += value;
        output_put_commands(out, colour_text(one.colour, 0) + "██\x1b[0m ");
        output_put(out, one.name + " " + number_text(sum) + "  ");
    }
    output_put(out, "\n");
}

// "peak 120 at 2015-05-17T10:00:00Z, total 10000".
void put_summary(const stats_answer& answer, const drawing& d, const std::vector<int64_t>& bins, text_output* out) {
    size_t peak = bins.size(), least = bins.size();
    double sum = 0;
    for (size_t i = 0; i < bins.size(); i++) {
        if (!d.is_there[i]) continue;
        sum += total_at(d, i);
        if (peak == bins.size() || total_at(d, i) > total_at(d, peak)) peak = i;
        if (least == bins.size() || total_at(d, i) < total_at(d, least)) least = i;
    }
    if (peak == bins.size()) return output_put(out, "no values\n");
    const auto at = [&](const char* name, size_t bin) {
        return name + number_text(total_at(d, bin)) + " at " + zone_time_text(bins[bin], answer.grid->zone);
    };
    const std::string rest = d.column->adds_up ? "total " + number_text(sum) : at("least ", least);
    output_put(out, at("peak ", peak) + ", " + rest + "\n");
    output_end_record(out);
}

void put_drawing(const stats_answer& answer, const drawing& d, const std::vector<int64_t>& bins, text_output* out) {
    put_title(answer, d, out);
    const scale of = scale_of(d);
    const size_t step = stats_draw_width() / bar_width(bins);
    for (size_t first = 0; first < bins.size() && !out->closed; first += step) {
        put_panel(answer, d, of, bins, first, out);
    }
    put_summary(answer, d, bins, out);
}

}  // namespace

size_t stats_draw_width() {
    return terminal_width() - MARGIN;
}

void stats_draw(const stats_answer& answer, text_output* out) {
    const std::vector<int64_t> bins = all_bins(answer);
    size_t drawn = 0, left_out = 0;
    const auto draw = [&](const drawing& d) {
        if (drawn > 0) output_put(out, "\n");
        put_drawing(answer, d, bins, out);
        drawn++;
    };
    for (const stats_column& column : answer.request->columns) {
        if (bins.empty()) break;
        if (column.kind == stats_kind::values || drawn == DRAWINGS) {
            left_out++;
        } else if (column.adds_up) {
            draw(stacked(answer, column, bins, out->colour));
        } else {
            for (const uint32_t group : answer.ranks) {
                drawn < DRAWINGS ? draw(single(answer, column, group, bins)) : static_cast<void>(left_out++);
            }
        }
    }
    if (!bins.empty() && bins.back() != answer.entries.back().bin) {
        say_trouble("only the first " + std::to_string(MOST_BINS) + " bins are drawn");
    }
    if (left_out > 0) say_trouble(std::to_string(left_out) + " more are not drawn; --format table shows them");
}

}  // namespace veldar::tool
