// Tables of the library in Python: columns of numbers as buffers that share the library's memory, texts as str.
#pragma once

#include <memory>

#include "tools/python/handle.h"

namespace veldar::python {

struct table_free {
    void operator()(veldar_table* table) const { veldar_table_free(table); }
};
using table_ptr = std::unique_ptr<veldar_table, table_free>;

// What _veldar.Table is.
struct table_t {
    std::shared_ptr<veldar_table> held;
    size_t rows = 0;
};
table_t table_of(table_ptr table);
// Raises IndexError when there is none.
veldar_column column_of(const table_t& table, size_t number);
bool has_value(const veldar_column& column, size_t row);

void add_tables(py::module_* module);

}  // namespace veldar::python
