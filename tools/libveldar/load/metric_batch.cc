#include "tools/libveldar/load/metric_batch.h"

#include <algorithm>
#include <tuple>

#include "searchthing/lexicon/term_choice.h"
#include "tools/libveldar/load/put_line.h"

namespace veldar::tool {

namespace {

constexpr char TOO_LONG[] = "a name or label is longer than an index can hold";
constexpr size_t MEASURES_MAX = 1024;  // of one event

// Writes the dimension terms behind each other; false when one is too long for a term.
bool put_terms(std::string* out, const std::vector<metric_label>& labels) {
    for (const metric_label& label : labels) {
        const size_t at = out->size();
        out->append(2, '\0');
        metric_term_put(out, label.name, label.value);
        const size_t size = out->size() - at - 2;
        if (size > ST_MAX_TERM_LENGTH) return false;
        (*out)[at] = static_cast<char>(size & 0xFF);
        (*out)[at + 1] = static_cast<char>(size >> 8);
    }
    return true;
}

void split_terms(std::string_view text, std::vector<std::string_view>* terms) {
    terms->clear();
    while (!text.empty()) {
        const size_t size = static_cast<unsigned char>(text[0]) | size_t{static_cast<unsigned char>(text[1])} << 8;
        terms->push_back(text.substr(2, size));
        text.remove_prefix(2 + size);
    }
}

auto event_key(const metric_sample& sample) {
    return std::tie(sample.set, sample.time, sample.milliseconds);
}

// The first samples of the span that go into one event.
std::span<const metric_sample> take_event(std::span<const metric_sample> samples) {
    size_t count = 1;
    while (count < samples.size() && count < MEASURES_MAX && event_key(samples[count]) == event_key(samples[0]) &&
           samples[count].name != samples[count - 1].name) {
        count++;
    }
    return samples.first(count);
}

}  // namespace

const char* metric_batch_add(metric_batch* batch, const metric_record& record) {
    batch->scratch.clear();
    if (!put_terms(&batch->scratch, record.labels)) return TOO_LONG;
    for (const metric_measure& measure : record.measures) {
        if (METRIC_NAME_TERM.size() + measure.name.size() > ST_MAX_TERM_LENGTH) return TOO_LONG;
    }
    metric_sample sample = {text_number(&batch->sets, batch->scratch), 0, record.time.time_s,
                            static_cast<uint32_t>(record.time.time_ns / 1000000), 0};
    batch->milliseconds |= sample.milliseconds != 0;
    for (const metric_measure& measure : record.measures) {
        batch->scratch.assign(METRIC_NAME_TERM).append(measure.name);
        sample.name = text_number(&batch->names, batch->scratch);
        sample.value = measure.value;
        batch->samples.push_back(sample);
    }
    return nullptr;
}

void metric_batch_write(metric_batch* batch, index_writer* writer, load_totals* totals) {
    std::stable_sort(batch->samples.begin(), batch->samples.end(), [](const metric_sample& a, const metric_sample& b) {
        return std::tie(a.set, a.time, a.milliseconds, a.name) < std::tie(b.set, b.time, b.milliseconds, b.name);
    });
    std::vector<std::string_view> dimensions;
    std::vector<metric_measure> measures;
    uint32_t set = UINT32_MAX;
    for (std::span<const metric_sample> left = batch->samples; !left.empty();) {
        const std::span<const metric_sample> event = take_event(left);
        left = left.subspan(event.size());
        if (event[0].set != set) split_terms(*batch->sets.texts[event[0].set], &dimensions);
        set = event[0].set;
        measures.clear();
        for (const metric_sample& sample : event) measures.push_back({*batch->names.texts[sample.name], sample.value});
        st_txn txn = {};
        txn.time = event[0].time;
        txn.subsecond = encode_subsecond(event[0].milliseconds * 1000000);
        if (!index_writer_put_metrics(writer, txn, dimensions, measures)) {
            totals->refused += event.size();
            continue;
        }
        totals->add_event(txn.time);
        totals->samples += event.size();
    }
    *batch = {};
}

}  // namespace veldar::tool
