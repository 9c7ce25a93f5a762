#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <string_view>
#include <vector>

#include "kvx/kvx.h"

namespace kvx::python {

namespace py = pybind11;

/// The classes that are written in Python and made here. GIL held.
struct Types {
    py::object error;     ///< errors._made(code, text, tried, rows)
    py::object delivery;  ///< values.Delivery(subject, reply_subject, message)
    py::object change;    ///< values.Change(kind, row, table, resynchronised)
    py::object field;     ///< values.Field(name, value, type)
};
const Types& types();

/// Text of the bus, which nobody has checked: bytes that are no UTF-8 become surrogates, and
/// `bytesOfText` turns them back.
py::str textOfBytes(std::string_view bytes);
std::string bytesOfText(const py::handle& text);

/// Rows as dicts. Those of one answer mostly have the same names, which are made once.
class RowMaker {
  public:
    py::dict rowOf(const Record& record);

  private:
    std::vector<std::pair<std::string, py::str>> names_;  // by place
};

/// A mapping as a record or a message; also an iterable of fields or of pairs as a message. A
/// `TypeError` or `ValueError` names `argument` and the field.
Record recordOf(const py::handle& row, const std::string& argument);
Message messageOf(const py::handle& fields, const std::string& argument);

/// A value of a message, by its exact type.
py::object valueOf(const RvDatum& datum);
py::str typeNameOf(const RvDatum& datum);

/// A change as it is told, and back.
py::object changeOfRecord(const Record& record, RowMaker& rows, bool isResynchronised);
Record recordOfChange(const py::handle& change);

/// The class `Message` of the module.
void defineMessage(py::module_& module);

}  // namespace kvx::python
