// Whole loads, as a caller asks for them: file after file, what came of them, and merging in the end.
#pragma once

#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/metric_loader.h"

namespace veldar::tool {

// Reads the user's own formats, and refuses options that do not go together. Throws failure_t with OUTCOME_USAGE.
void load_options_check(const load_options& options);
// Loads the options' files into a store, which is made when it does not exist; with `again` what was loaded from them
// before is forgotten first. The observer hears what was done. OUTCOME_DONE, OUTCOME_INCOMPLETE or OUTCOME_INTERRUPTED;
// throws failure_t when the store fails.
outcome_t load_logs(const std::string& store_path, const load_options& options, bool again, load_totals* totals);
// The same with metrics; `directory` is a metric directory, or empty, and then they go into the store. Sets what of the
// options follows from others.
outcome_t load_metrics(const std::string& store_path, const std::string& directory, metric_load_options* options,
                       load_totals* totals);

}  // namespace veldar::tool
