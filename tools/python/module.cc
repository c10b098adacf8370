// The module veldar._veldar: what veldar.h declares, as plain as it is there. The package veldar/ gives it the
// arguments that people write.
#include <pybind11/stl.h>

#include <optional>

#include "tools/python/handle.h"
#include "tools/python/rows.h"
#include "tools/python/tables.h"

namespace veldar::python {

namespace {

using text_t = std::optional<std::string>;

const char* chars(const text_t& text) {
    return text ? text->c_str() : nullptr;
}

std::vector<const char*> all_chars(const std::vector<std::string>& texts) {
    std::vector<const char*> all;
    for (const std::string& text : texts) all.push_back(text.c_str());
    return all;
}

struct question_t {
    text_t text, since, until, zone;
    bool is_native = false;

    veldar_query query() const {
        return {sizeof(veldar_query), chars(text), chars(since), chars(until), chars(zone), is_native ? 1 : 0};
    }
};

struct metric_question_t {
    text_t names;
    std::vector<std::string> where;
    text_t since, until, zone;

    veldar_metric_query query(const std::vector<const char*>& conditions) const {
        return {sizeof(veldar_metric_query),
                chars(names),
                conditions.data(),
                conditions.size(),
                chars(since),
                chars(until),
                chars(zone)};
    }
};

struct events_t {
    std::shared_ptr<handle> on;
    veldar_events* events = nullptr;

    ~events_t() {
        if (events != nullptr) close_events(on.get(), events);
    }
};

struct store_t {
    std::shared_ptr<handle> on;  // null: closed
    static constexpr const char* CLOSED = "the store has been closed";
};

struct writer_t {
    std::shared_ptr<handle> on;
    static constexpr const char* CLOSED = "the writer has been closed";
};

// Held for the time of a call, whoever closes the store meanwhile.
template <typename T>
std::shared_ptr<handle> opened(const T& owner) {
    if (owner.on == nullptr) raise_usage(T::CLOSED);
    return owner.on;
}

store_t open_store(const text_t& path, bool create) {
    store_t made = {std::make_shared<handle>()};
    const veldar_observer observer = observer_of(made.on.get());
    require(call(made.on.get(),
                 [&] { return veldar_open(chars(path), create ? VELDAR_CREATE : 0, &observer, &made.on->store); }));
    return made;
}

// The table that `ask(store, &table)` gives, which may be one of no rows or incomplete.
template <typename F>
table_t ask_table(const store_t& store, F ask) {
    const std::shared_ptr<handle> on = opened(store);
    table_ptr table;
    const veldar_status status = call(on.get(), [&] {
        veldar_table* given = nullptr;
        const veldar_status asked = ask(on->store, &given);
        table.reset(given);
        return asked;
    });
    if (table == nullptr || status != VELDAR_DAMAGED) require(status);
    return table_of(std::move(table));
}

uint64_t count(const store_t& store, const question_t& question) {
    const std::shared_ptr<handle> on = opened(store);
    const veldar_query query = question.query();
    uint64_t found = 0;
    require(call(on.get(), [&] { return veldar_count(on->store, &query, &found); }));
    return found;
}

std::unique_ptr<events_t> search(const store_t& store, const question_t& question, uint64_t limit) {
    auto made = std::make_unique<events_t>();
    made->on = opened(store);
    const veldar_query query = question.query();
    require(call(made->on.get(), [&] { return veldar_search(made->on->store, &query, limit, &made->events); }));
    return made;
}

// The next rows; None behind the last one.
py::object next_table(const events_t& events, size_t rows) {
    table_ptr table;
    const veldar_status status = call(events.on.get(), [&] {
        veldar_table* given = nullptr;
        const veldar_status asked = veldar_events_table(events.events, rows, VELDAR_RAWS, &given);
        table.reset(given);
        return asked;
    });
    require(status);
    return table == nullptr ? py::object(py::none()) : py::cast(table_of(std::move(table)));
}

// The times, or the names, of a table's events.
void fill(const events_t& events, const table_t& table, bool times, bool names) {
    const unsigned with = (times ? VELDAR_TIMES : 0) | (names ? VELDAR_NAMES : 0);
    require(call(events.on.get(), [&] { return veldar_events_fill(events.events, table.held.get(), with); }));
}

// Names and values, in the order of the record.
py::list fields_of(const events_t& events, const table_t& table, size_t row) {
    std::vector<std::pair<std::string, std::string>> fields;
    const veldar_status status = call(events.on.get(), [&] {
        veldar_status asked = veldar_events_row(events.events, table.held.get(), row);
        veldar_text name, value;
        for (size_t i = 0; asked == VELDAR_OK; i++) {
            asked = veldar_event_field(events.events, i, &name, &value);
            if (asked == VELDAR_OK) fields.push_back({{name.data, name.size}, {value.data, value.size}});
        }
        return asked;
    });
    require(status);
    py::list made;
    for (const auto& [name, value] : fields) made.append(py::make_tuple(text_from(name), text_from(value)));
    return made;
}

struct bytes_free {
    void operator()(veldar_bytes* bytes) const { veldar_bytes_free(bytes); }
};

// The bytes that `ask(&bytes)` gives, which say themselves what they lack.
template <typename F>
py::bytes ask_bytes(F ask) {
    veldar_bytes* made = nullptr;
    const veldar_status status = ask(&made);
    const std::unique_ptr<veldar_bytes, bytes_free> held(made);
    if (made == nullptr) require(status);
    return py::bytes(veldar_bytes_data(made), veldar_bytes_size(made));
}

py::bytes question_text(const std::string& kind, const question_t& asked, const metric_question_t& metrics,
                        const text_t& pattern, const text_t& by, const text_t& aggregates, const text_t& every,
                        uint64_t top, bool missing, bool rate, uint64_t limit, bool by_term, bool with_fields) {
    const veldar_query query = asked.query();
    const std::vector<const char*> where = all_chars(metrics.where);
    const veldar_metric_query samples = metrics.query(where);
    const veldar_stats_options stats = {sizeof stats, chars(by), chars(aggregates), chars(every), top, missing ? 1 : 0};
    const veldar_metric_stats_options metric_stats = {
        sizeof metric_stats, chars(by), chars(aggregates), chars(every), top, missing ? 1 : 0, rate ? 1 : 0};
    const veldar_question question = {sizeof question, kind.c_str(),   &query, &stats,          &samples,
                                      &metric_stats,   chars(pattern), limit,  by_term ? 1 : 0, with_fields ? 1 : 0};
    return ask_bytes([&](veldar_bytes** made) { return veldar_question_text(&question, made); });
}

py::bytes answer_partially(const store_t& store, const std::string& question) {
    const std::shared_ptr<handle> on = opened(store);
    return ask_bytes([&](veldar_bytes** made) {
        return call(on.get(), [&] { return veldar_answer_partially(on->store, question.c_str(), made); });
    });
}

py::bytes answers_merge(const std::string& question, const std::vector<py::bytes>& answers,
                        const std::vector<std::string>& lacks) {
    std::vector<veldar_text> texts;
    for (const py::bytes& one : answers) {
        texts.push_back({PyBytes_AS_STRING(one.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(one.ptr()))});
    }
    const std::vector<const char*> gaps = all_chars(lacks);
    return ask_bytes([&](veldar_bytes** made) {
        const py::gil_scoped_release released;
        return veldar_answers_merge(question.c_str(), texts.data(), texts.size(), gaps.data(), gaps.size(), made);
    });
}

// The table, and what the answer lacks.
py::tuple answer_table(const py::bytes& answer) {
    const veldar_text text = {PyBytes_AS_STRING(answer.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(answer.ptr()))};
    veldar_table *table = nullptr, *lacks = nullptr;
    int64_t complete_back_to = INT64_MIN;
    {
        const py::gil_scoped_release released;
        if (veldar_answer_table(&text, &table) <= VELDAR_INCOMPLETE)
            veldar_answer_lacks(&text, &complete_back_to, &lacks);
    }
    table_ptr held(table), held_lacks(lacks);
    if (held == nullptr || held_lacks == nullptr) raise_last_error();
    return py::make_tuple(table_of(std::move(held)), table_of(std::move(held_lacks)));
}

table_t stats(const store_t& store, const question_t& question, const text_t& by, const text_t& aggregates,
              const text_t& every, uint64_t top, bool missing) {
    const veldar_query query = question.query();
    const veldar_stats_options options = {sizeof options, chars(by), chars(aggregates),
                                          chars(every),   top,       missing ? 1 : 0};
    return ask_table(store,
                     [&](veldar_store* on, veldar_table** table) { return veldar_stats(on, &query, &options, table); });
}

// Runs `ask(&query)` for a question about metrics.
template <typename F>
table_t ask_metrics(const store_t& store, const metric_question_t& question, F ask) {
    const std::vector<const char*> where = all_chars(question.where);
    const veldar_metric_query query = question.query(where);
    return ask_table(store, [&](veldar_store* on, veldar_table** table) { return ask(on, &query, table); });
}

table_t metric_samples(const store_t& store, const metric_question_t& question, uint64_t limit) {
    return ask_metrics(store, question, [&](veldar_store* on, const veldar_metric_query* query, veldar_table** table) {
        return veldar_metric_samples(on, query, limit, table);
    });
}

table_t metric_stats(const store_t& store, const metric_question_t& question, const text_t& by,
                     const text_t& aggregates, const text_t& every, uint64_t top, bool missing, bool rate) {
    const veldar_metric_stats_options options = {sizeof options,  chars(by),   chars(aggregates), chars(every), top,
                                                 missing ? 1 : 0, rate ? 1 : 0};
    return ask_metrics(store, question, [&](veldar_store* on, const veldar_metric_query* query, veldar_table** table) {
        return veldar_metric_stats(on, query, &options, table);
    });
}

py::tuple loaded(const veldar_load_result& result) {
    return py::make_tuple(result.events, result.refused, result.bytes, result.slices, result.seconds);
}

py::tuple load(const store_t& store, const std::vector<std::string>& files, const py::object& progress,
               const text_t& format, const text_t& zone, const text_t& host, const text_t& sourcetype,
               const text_t& time_field, const text_t& time_format, const text_t& date_order, int year, bool again,
               bool recursive, bool flush, bool fsync, bool optimize) {
    const std::shared_ptr<handle> on = opened(store);
    const std::vector<const char*> names = all_chars(files);
    veldar_load_options options = {};
    options.size = sizeof options;
    options.format = chars(format);
    options.zone = chars(zone);
    options.host = chars(host);
    options.sourcetype = chars(sourcetype);
    options.time_field = chars(time_field);
    options.time_format = chars(time_format);
    options.date_order = chars(date_order);
    options.year = year;
    options.again = again ? 1 : 0;
    options.recursive = recursive ? 1 : 0;
    options.flush = flush ? 1 : 0;
    options.no_fsync = fsync ? 0 : 1;
    options.no_optimize = optimize ? 0 : 1;
    veldar_load_result result = {};
    result.size = sizeof result;
    require(call(on.get(), progress,
                 [&] { return veldar_load(on->store, names.data(), names.size(), &options, &result); }));
    return loaded(result);
}

py::tuple load_metrics(const store_t& store, const std::vector<std::string>& files, const py::object& progress,
                       const text_t& format, const text_t& time, const text_t& values, const text_t& dims,
                       const text_t& name, const text_t& zone, bool again, bool flush, bool fsync, bool optimize) {
    const std::shared_ptr<handle> on = opened(store);
    const std::vector<const char*> names = all_chars(files);
    veldar_metric_load_options options = {};
    options.size = sizeof options;
    options.format = chars(format);
    options.time = chars(time);
    options.values = chars(values);
    options.dims = chars(dims);
    options.name = chars(name);
    options.zone = chars(zone);
    options.again = again ? 1 : 0;
    options.flush = flush ? 1 : 0;
    options.no_fsync = fsync ? 0 : 1;
    options.no_optimize = optimize ? 0 : 1;
    veldar_load_result result = {};
    result.size = sizeof result;
    require(call(on.get(), progress,
                 [&] { return veldar_load_metrics(on->store, names.data(), names.size(), &options, &result); }));
    return loaded(result);
}

py::tuple optimize(const store_t& store, bool everything, const py::object& progress) {
    const std::shared_ptr<handle> on = opened(store);
    veldar_optimize_result result = {};
    result.size = sizeof result;
    require(call(on.get(), progress, [&] { return veldar_optimize(on->store, everything ? 1 : 0, &result); }));
    return py::make_tuple(result.merges, result.slices_before, result.slices_after, result.bytes_before,
                          result.bytes_after);
}

writer_t open_writer(const std::string& directory) {
    writer_t made = {std::make_shared<handle>()};
    require(call(made.on.get(), [&] { return veldar_writer_open(directory.c_str(), &made.on->writer); }));
    return made;
}

void put(const writer_t& writer, int64_t time_s, uint32_t address, const std::vector<std::string>& terms) {
    const std::shared_ptr<handle> on = opened(writer);
    std::vector<veldar_text> texts;
    for (const std::string& term : terms) texts.push_back({term.data(), term.size()});
    require(call(on.get(), [&] { return veldar_writer_put(on->writer, time_s, address, texts.data(), texts.size()); }));
}

void sync_writer(const writer_t& writer) {
    const std::shared_ptr<handle> on = opened(writer);
    require(call(on.get(), [&] { return veldar_writer_sync(on->writer); }));
}

void close_writer(writer_t* writer) {
    const std::shared_ptr<handle> on = std::move(writer->on);
    if (on == nullptr) return;
    require(call(on.get(), [&] { return veldar_writer_close(std::exchange(on->writer, nullptr)); }));
}

void add_questions(py::module_* module) {
    py::class_<question_t>(*module, "Question").def(py::init<text_t, text_t, text_t, text_t, bool>());
    py::class_<metric_question_t>(*module, "MetricQuestion")
        .def(py::init<text_t, std::vector<std::string>, text_t, text_t, text_t>());
    py::class_<events_t>(*module, "Events").def("next", next_table).def("fill", fill).def("fields", fields_of);
}

void add_store(py::module_* module) {
    py::class_<store_t>(*module, "Store")
        .def(py::init(&open_store))
        .def("close", [](store_t& store) { store.on.reset(); })
        .def("path", [](const store_t& store) { return py::bytes(veldar_path(opened(store)->store)); })
        .def("count", count)
        .def("search", search)
        .def("terms",
             [](const store_t& store, const text_t& pattern, uint64_t limit, bool by_term) {
                 return ask_table(store, [&](veldar_store* on, veldar_table** table) {
                     return veldar_terms(on, chars(pattern), limit, by_term ? 1 : 0, table);
                 });
             })
        .def("fields", [](const store_t& store) { return ask_table(store, veldar_fields); })
        .def("seen",
             [](const store_t& store, const std::string& term) {
                 return ask_table(store, [&](veldar_store* on, veldar_table** table) {
                     return veldar_seen(on, term.c_str(), table);
                 });
             })
        .def("slices", [](const store_t& store) { return ask_table(store, veldar_slices); })
        .def("stats", stats)
        .def("metrics", [](const store_t& store) { return ask_table(store, veldar_metrics); })
        .def("metric_samples", metric_samples)
        .def("metric_stats", metric_stats)
        .def("answer_partially", answer_partially)
        .def("load", load)
        .def("load_metrics", load_metrics)
        .def("optimize", optimize)
        .def("fsck", [](const store_t& store, bool quick) {
            return ask_table(
                store, [&](veldar_store* on, veldar_table** table) { return veldar_fsck(on, quick ? 1 : 0, table); });
        });
}

}  // namespace

PYBIND11_MODULE(_veldar, module) {
    add_tables(&module);
    add_rows(&module);
    add_questions(&module);
    add_store(&module);
    py::class_<writer_t>(module, "Writer")
        .def(py::init(&open_writer))
        .def("put", put)
        .def("sync", sync_writer)
        .def("close", close_writer);
    module.def("question_text", question_text);
    module.def("answers_merge", answers_merge);
    module.def("answer_table", answer_table);
    module.def("keep_lacks", keep_lacks);
    module.def("kept_lacks", kept_lacks);
    module.def("version", veldar_version);
    py::module_::import("atexit").attr("register")(py::cpp_function(end_calls));
}

}  // namespace veldar::python
