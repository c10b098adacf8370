#include "tools/python/tables.h"

#include <datetime.h>

#include <chrono>

namespace veldar::python {

namespace {

const char* name_of(veldar_type type) {
    switch (type) {
        case VELDAR_INT64:
            return "int64";
        case VELDAR_UINT64:
            return "uint64";
        case VELDAR_DOUBLE:
            return "double";
        case VELDAR_TIME:
            return "time";
        case VELDAR_TEXT:
            return "text";
    }
    return "unknown";
}

// In UTC, to the microsecond that a datetime can say.
py::object datetime_from(int64_t time_ns) {
    using namespace std::chrono;
    const sys_time<microseconds> time = floor<microseconds>(sys_time<nanoseconds>(nanoseconds(time_ns)));
    const sys_days day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    auto made = py::reinterpret_steal<py::object>(PyDateTimeAPI->DateTime_FromDateAndTime(
        static_cast<int>(date.year()), static_cast<int>(static_cast<unsigned>(date.month())),
        static_cast<int>(static_cast<unsigned>(date.day())), static_cast<int>(clock.hours().count()),
        static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
        static_cast<int>(clock.subseconds().count()), PyDateTime_TimeZone_UTC, PyDateTimeAPI->DateTimeType));
    if (!made) throw py::error_already_set();
    return made;
}

py::object value_of(const veldar_column& column, size_t row) {
    if (!has_value(column, row)) return py::none();
    switch (column.type) {
        case VELDAR_INT64:
            return py::int_(static_cast<const int64_t*>(column.values)[row]);
        case VELDAR_UINT64:
            return py::int_(static_cast<const uint64_t*>(column.values)[row]);
        case VELDAR_DOUBLE:
            return py::float_(static_cast<const double*>(column.values)[row]);
        case VELDAR_TIME:
            return datetime_from(static_cast<const int64_t*>(column.values)[row]);
        case VELDAR_TEXT:
            break;
    }
    return text_from(column.bytes + column.offsets[row], column.offsets[row + 1] - column.offsets[row]);
}

py::list values_of(const veldar_column& column, size_t rows) {
    py::list values(rows);
    for (size_t i = 0; i < rows; i++) {
        PyList_SET_ITEM(values.ptr(), static_cast<Py_ssize_t>(i), value_of(column, i).release().ptr());
    }
    return values;
}

// A column of numbers. Whoever has its buffer has it, and so the table.
struct column_t {
    table_t table;
    veldar_column view;
};

struct mask_t {
    table_t table;
    const uint8_t* valid;
};

py::buffer_info buffer_of(const void* data, size_t size, const std::string& format, size_t rows) {
    static const uint64_t nothing = 0;  // a buffer of no rows has an address, too
    const auto item = static_cast<py::ssize_t>(size);
    return {const_cast<void*>(data == nullptr ? &nothing : data),
            item,
            format,
            1,
            {static_cast<py::ssize_t>(rows)},
            {item},
            true};
}

py::buffer_info column_buffer(const column_t& column) {
    const char* const format = column.view.type == VELDAR_UINT64 ? "Q" : column.view.type == VELDAR_DOUBLE ? "d" : "q";
    return buffer_of(column.view.values, sizeof(uint64_t), format, column.table.rows);
}

py::object valid_of(const column_t& column) {
    if (column.view.valid == nullptr) return py::none();
    return py::memoryview(py::cast(mask_t{column.table, column.view.valid}));
}

py::object item_of(const column_t& column, int64_t row) {
    const auto rows = static_cast<int64_t>(column.table.rows);
    if (row < -rows || row >= rows) throw py::index_error("the column has " + std::to_string(rows) + " rows");
    return value_of(column.view, static_cast<size_t>(row < 0 ? row + rows : row));
}

py::object to_numpy(const py::object& self) {
    const auto& column = self.cast<const column_t&>();
    const py::module_ numpy = py::module_::import("numpy");
    py::object array = numpy.attr("asarray")(self);
    const bool is_time = column.view.type == VELDAR_TIME;
    if (is_time) array = array.attr("view")("datetime64[ns]");
    if (column.view.valid == nullptr) return array;
    const py::object missing = numpy.attr("equal")(valid_of(column), 0);
    if (!is_time && column.view.type != VELDAR_DOUBLE) {
        return numpy.attr("ma").attr("array")(array, py::arg("mask") = missing);
    }
    const py::object nothing = is_time ? numpy.attr("datetime64")("NaT") : py::object(numpy.attr("nan"));
    return numpy.attr("where")(missing, nothing, array);
}

column_t numbers_of(const table_t& table, size_t number) {
    const veldar_column column = column_of(table, number);
    if (column.type == VELDAR_TEXT) throw py::index_error("a column of texts");
    return {table, column};
}

py::list describe(const table_t& table) {
    py::list columns;
    for (size_t i = 0; i < veldar_table_columns(table.held.get()); i++) {
        const veldar_column column = column_of(table, i);
        columns.append(py::make_tuple(text_from(std::string(column.name)), name_of(column.type)));
    }
    return columns;
}

}  // namespace

veldar_column column_of(const table_t& table, size_t number) {
    veldar_column column = {};
    column.size = sizeof column;
    if (veldar_table_column(table.held.get(), number, &column) != VELDAR_OK) throw py::index_error("no such column");
    return column;
}

bool has_value(const veldar_column& column, size_t row) {
    return column.valid == nullptr || column.valid[row] != 0;
}

table_t table_of(table_ptr table) {
    const size_t rows = veldar_table_rows(table.get());
    return {std::shared_ptr<veldar_table>(std::move(table)), rows};
}

void add_tables(py::module_* module) {
    PyDateTime_IMPORT;
    if (PyDateTimeAPI == nullptr) throw py::error_already_set();
    py::class_<mask_t>(*module, "_Mask", py::buffer_protocol()).def_buffer([](mask_t& mask) {
        return buffer_of(mask.valid, 1, "B", mask.table.rows);
    });
    py::class_<column_t>(*module, "Column", py::buffer_protocol(),
                         "A column of numbers or times, which shares its memory through the buffer protocol.\n\n"
                         "memoryview(column) and numpy.asarray(column) copy nothing and keep the table alive; times "
                         "are nanoseconds since 1970 in UTC there. As a sequence it has int, float, and datetime in "
                         "UTC, and None where there is no value.")
        .def_buffer([](column_t& column) { return column_buffer(column); })
        .def_property_readonly(
            "type", [](const column_t& column) { return name_of(column.view.type); },
            "\"int64\", \"uint64\", \"double\" or \"time\".")
        .def_property_readonly("valid", valid_of,
                               "A buffer with a byte a row, 0 where there is no value; None when all have one.")
        .def("__len__", [](const column_t& column) { return column.table.rows; })
        .def("__getitem__", item_of)
        .def(
            "to_list", [](const column_t& column) { return values_of(column.view, column.table.rows); },
            "All values, as int, float, datetime in UTC, or None.")
        .def("to_numpy", to_numpy,
             "A NumPy array that shares the memory; times as datetime64[ns]. Where values are missing it is a copy "
             "with NaN or NaT, and of integers a masked array.");
    py::class_<table_t>(*module, "Table")
        .def("__len__", [](const table_t& table) { return table.rows; })
        .def("describe", describe)
        .def("numbers", numbers_of)
        .def("values",
             [](const table_t& table, size_t number) { return values_of(column_of(table, number), table.rows); });
}

}  // namespace veldar::python
