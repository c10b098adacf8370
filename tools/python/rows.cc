#include "tools/python/rows.h"

#include <structmember.h>

#include "tools/python/tables.h"

namespace veldar::python {

namespace {

constexpr size_t RAW_COLUMN = 1;

// What a class of pybind11 takes 200 ns to make. No cycle goes through it, so the collector does not know it.
struct row_object {
    PyObject_HEAD;
    PyObject* batch;   // what the class Event has besides
    PyObject* table;   // owns the line
    PyObject* fields;  // null until they are asked for
    Py_ssize_t row;
    const char* line;  // null: none
    size_t line_size;
};

row_object* row_of(PyObject* self) {
    return reinterpret_cast<row_object*>(self);
}

void row_free(PyObject* self) {
    PyTypeObject* const type = Py_TYPE(self);
    Py_XDECREF(row_of(self)->batch);
    Py_XDECREF(row_of(self)->table);
    Py_XDECREF(row_of(self)->fields);
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject* row_raw(PyObject* self, void*) {
    const row_object* const row = row_of(self);
    if (row->line == nullptr) Py_RETURN_NONE;
    return PyUnicode_DecodeUTF8(row->line, static_cast<Py_ssize_t>(row->line_size), "surrogateescape");
}

PyObject* row_raw_bytes(PyObject* self, void*) {
    const row_object* const row = row_of(self);
    if (row->line == nullptr) Py_RETURN_NONE;
    return PyBytes_FromStringAndSize(row->line, static_cast<Py_ssize_t>(row->line_size));
}

py::object row_type() {
    static PyMemberDef members[] = {
        {"_batch", T_OBJECT, offsetof(row_object, batch), READONLY, nullptr},
        {"_row", T_PYSSIZET, offsetof(row_object, row), READONLY, nullptr},
        {"_fields", T_OBJECT_EX, offsetof(row_object, fields), 0, nullptr},
        {nullptr, 0, 0, 0, nullptr},
    };
    static PyGetSetDef getters[] = {
        {"raw", row_raw, nullptr,
         "The record as it stands in the log, without its line end. None when no log is known, or it cannot be "
         "read.\n\n"
         "Bytes that are no UTF-8 are surrogates (PEP 383).",
         nullptr},
        {"raw_bytes", row_raw_bytes, nullptr, "The same, byte for byte.", nullptr},
        {nullptr, nullptr, nullptr, nullptr, nullptr},
    };
    static PyType_Slot slots[] = {
        {Py_tp_dealloc, reinterpret_cast<void*>(row_free)},
        {Py_tp_members, members},
        {Py_tp_getset, getters},
        {0, nullptr},
    };
    static PyType_Spec spec = {"veldar._veldar.Row", sizeof(row_object), 0,
                               Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
    auto type = py::reinterpret_steal<py::object>(PyType_FromSpec(&spec));
    if (!type) throw py::error_already_set();
    return type;
}

// Instances of `type`, a class over Row (`base`), for all rows of a table of events.
py::list rows(const py::handle& base, const py::type& type, const py::object& batch, const py::object& table) {
    const int fits = PyObject_IsSubclass(type.ptr(), base.ptr());
    if (fits < 0) throw py::error_already_set();
    if (fits == 0) throw py::type_error("rows are made of classes over Row");
    auto* const made_type = reinterpret_cast<PyTypeObject*>(type.ptr());
    const auto& held = table.cast<const table_t&>();
    const veldar_column lines = column_of(held, RAW_COLUMN);
    if (lines.type != VELDAR_TEXT) throw py::type_error("no table of events");
    py::list made(held.rows);
    for (size_t i = 0; i < held.rows; i++) {
        PyObject* const self = made_type->tp_alloc(made_type, 0);
        if (self == nullptr) throw py::error_already_set();
        row_object* const row = row_of(self);
        row->batch = Py_NewRef(batch.ptr());
        row->table = Py_NewRef(table.ptr());
        row->row = static_cast<Py_ssize_t>(i);
        if (has_value(lines, i)) {
            row->line = lines.bytes + lines.offsets[i];
            row->line_size = lines.offsets[i + 1] - lines.offsets[i];
        }
        PyList_SET_ITEM(made.ptr(), static_cast<Py_ssize_t>(i), self);
    }
    return made;
}

}  // namespace

void add_rows(py::module_* module) {
    const py::object base = row_type();
    module->attr("Row") = base;
    module->def("rows", [base](const py::type& type, const py::object& batch, const py::object& table) {
        return rows(base, type, batch, table);
    });
}

}  // namespace veldar::python
