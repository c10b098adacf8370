// Samples on their way into a metric directory. The samples of one time and one set of labels become one event with
// several measures, wherever in the batch they stand; that is what makes an index of wide sets small. A sample of a
// metric that its event has already becomes an event of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/formats/text_table.h"
#include "tools/libveldar/load/index_writer.h"
#include "tools/libveldar/load/progress.h"

namespace veldar::tool {

struct metric_sample {
    uint32_t set = 0, name = 0;  // numbers of their texts
    st_time_t time = 0;
    uint32_t milliseconds = 0;
    double value = 0;
};

struct metric_batch {
    text_table names;  // metric-name terms
    text_table sets;   // dimension terms, each with its size in two bytes before it
    std::vector<metric_sample> samples;
    bool milliseconds = false;  // a time has some
    std::string scratch;
};

// Takes the samples of a record that has a time. Returns null, or why none of them can be indexed.
const char* metric_batch_add(metric_batch* batch, const metric_record& record);
// Puts the batch into the index as events and empties it. Throws failure_t.
void metric_batch_write(metric_batch* batch, index_writer* writer, load_totals* totals);

}  // namespace veldar::tool
