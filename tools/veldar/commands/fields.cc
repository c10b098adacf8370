// veldar fields: the fields of the index, and what they cost.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "tools/libveldar/check/fsck_bytes.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/term_output.h"

namespace veldar::tool {

namespace {

int names_run(const tool_context& context, const spread_options& spread) {
    if (spread_is_wanted(spread)) return spread_run(context.store, spread, {.kind = "fields", .values = {}}, {});
    troubles trouble;
    const std::vector<field_totals> fields =
        fields_list(terms_at(store_choose(context.store), terms_of_fields(), &trouble));
    text_output out;
    output_open(&out, "never");
    fields_print(fields, &out);
    output_flush(&out);
    return answer_status(!fields.empty(), trouble);
}

// A part of what lies on the disk.
struct cost_row {
    std::string name;
    part_bytes bytes;
};

// The files of a store or an index directory that are no slices, by what they are for.
void add_files(const std::string& directory, std::vector<cost_row>* rows) {
    constexpr std::array<std::array<const char*, 2>, 4> KINDS = {{{"source.map", "(source map)"},
                                                                  {"points-", "(access points into compressed files)"},
                                                                  {"spool-", "(bytes of pipes)"},
                                                                  {"", "(other files)"}}};
    for (const std::string& name : disk_list_directory(directory)) {
        struct stat status;
        const bool is_file = ::lstat((directory + "/" + name).c_str(), &status) == 0 && S_ISREG(status.st_mode);
        if (!is_file || name.ends_with(".tsidx")) continue;
        const auto* const kind =
            std::find_if(KINDS.begin(), KINDS.end(), [&](const auto& one) { return name.starts_with(one[0]); });
        auto row =
            std::find_if(rows->begin(), rows->end(), [&](const cost_row& one) { return one.name == (*kind)[1]; });
        if (row == rows->end()) row = rows->insert(row, {(*kind)[1], {}});
        row->bytes.records += static_cast<uint64_t>(status.st_size);
    }
}

std::vector<cost_row> cost_rows(const byte_account& account, const slice_set& slices) {
    std::vector<cost_row> rows;
    for (const auto& [name, bytes] : account.fields) rows.push_back({name, bytes});
    rows.push_back({"(words)", account.words});
    rows.push_back({"(words that are a value of a field too)", account.value_words});
    rows.push_back({"(words of one event)", account.single_words});
    rows.push_back({"(times and addresses of the events)", {0, 0, 0, account.values}});
    rows.push_back({"(headers and tables of slices)", {0, 0, 0, account.rest}});
    if (!slices.store.empty()) add_files(slices.store, &rows);
    for (const slice_directory& directory : slices.directories) {
        if (directory.tsidx != nullptr) add_files(directory.path, &rows);
    }
    std::erase_if(rows, [](const cost_row& row) { return row.bytes.all() == 0; });
    std::sort(rows.begin(), rows.end(), [](const cost_row& a, const cost_row& b) {
        return a.bytes.all() != b.bytes.all() ? a.bytes.all() > b.bytes.all() : a.name < b.name;
    });
    return rows;
}

int field_bytes_run(const tool_context& context) {
    const slice_set slices = slices_list(store_choose(context.store));
    troubles trouble;
    slices_tell_errors(slices, &trouble);
    byte_account account;
    for (size_t i = 0; i < slices.slices->size(); i++) {
        slice_image image;
        std::string error;
        const image_state_t state = slice_image_open(slices.slices->path(i), &image, &error);
        if (state == IMAGE_UNREADABLE) troubles_add(&trouble, error);
        if (state == IMAGE_OPEN) account_slice(image, &account);
    }
    const std::vector<cost_row> rows = cost_rows(account, slices);
    uint64_t all = 0;
    for (const cost_row& row : rows) all += row.bytes.all();
    text_output out;
    output_open(&out, "never");
    table_output table;
    table.out = &out;
    table.format = out.terminal ? table_format::table : table_format::tsv;
    table.columns = {{"bytes", true}, {"percent", true}, {"terms", true},
                     {"text", true},  {"lists", true},   {"field", false}};
    table_begin(&table);
    for (const cost_row& row : rows) {
        const double percent =
            std::round(1000.0 * static_cast<double>(row.bytes.all()) / static_cast<double>(all)) / 10;
        table_put_row(&table, {count_cell(row.bytes.all()), number_cell(percent), count_cell(row.bytes.terms),
                               count_cell(row.bytes.lexicon), count_cell(row.bytes.lists), text_cell(row.name)});
    }
    table_put_row(&table, {count_cell(all), number_cell(all == 0 ? 0 : 100), {}, {}, {}, text_cell("(all)")});
    table_end(&table);
    output_flush(&out);
    return answer_status(all > 0, trouble);
}

}  // namespace

void add_fields_command(const command& veldar) {
    const command fields = veldar.subcommand("fields", "List the fields with their numbers of events and of values");
    fields.footer("An event that holds several values of a field counts once for each.");
    static bool bytes = false;
    static spread_options spread;
    add_spread_options(fields, &spread);
    fields.flag("--bytes", &bytes, "What each of them costs in the index, and what is no field, the largest first");
    fields.run([](const tool_context& context) {
        if (bytes && spread_is_wanted(spread)) {
            throw failure_t{OUTCOME_USAGE, "--bytes tells of one store: expected neither --partial nor --on with it"};
        }
        return bytes ? field_bytes_run(context) : names_run(context, spread);
    });
}

}  // namespace veldar::tool
