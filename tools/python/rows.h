// Events of a table as Python objects, made many at a time.
#pragma once

#include "tools/python/handle.h"

namespace veldar::python {

// Row, the base of the package's class Event, and rows(type, batch, table): a list of such events.
void add_rows(py::module_* module);

}  // namespace veldar::python
