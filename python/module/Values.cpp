// Rows and changes between the bus and Python. Messages are in Messages.cpp.

#include "python/module/Values.h"

#include <cstdint>

#include "python/module/Failure.h"
#include "python/module/Gil.h"

namespace kvx::python {

namespace {

[[noreturn]] void wrongType(const std::string& what, const py::handle& value,
                            const char* expected) {
    throw py::type_error(what + ": " + expected + ", not " + Py_TYPE(value.ptr())->tp_name);
}

py::object valueOf(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::Boolean:
            return py::bool_(*value.as<bool>());
        case Value::Kind::Integer:
            return py::int_(*value.as<std::int64_t>());
        case Value::Kind::Real:
            return py::float_(*value.as<double>());
        case Value::Kind::String:
            return textOfBytes(*value.as<std::string_view>());
        case Value::Kind::Bytes: {
            const auto bytes = *value.as<Value::Bytes>();
            return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        }
        case Value::Kind::Null:
        case Value::Kind::Message:
            break;
    }
    return py::none();
}

// `text` keeps what the value refers to.
Value valueOfObject(const py::handle& object, std::string& text, const std::string& what) {
    if (PyBool_Check(object.ptr())) return Value(object.ptr() == Py_True);
    if (PyLong_Check(object.ptr())) {
        int overflow = 0;
        const long long number = PyLong_AsLongLongAndOverflow(object.ptr(), &overflow);
        if (overflow != 0) throw py::value_error(what + ": the integer has more than 64 bits");
        return Value(number);
    }
    if (PyFloat_Check(object.ptr())) return Value(PyFloat_AS_DOUBLE(object.ptr()));
    if (PyUnicode_Check(object.ptr())) {
        text = bytesOfText(object);
        return Value(text);
    }
    if (PyObject_CheckBuffer(object.ptr()) != 0) {
        text = py::bytes(py::module_::import("builtins").attr("bytes")(object));
        return Value(Value::Bytes(reinterpret_cast<const std::byte*>(text.data()), text.size()));
    }
    wrongType(what, object, "a row holds str, int, float, bool and bytes");
}

void setField(Record& record, const py::handle& name, const py::handle& value,
              const std::string& argument) {
    if (!PyUnicode_Check(name.ptr())) wrongType(argument, name, "names of fields are str");
    const std::string key = bytesOfText(name);
    const std::string what = argument + ": field '" + key + "'";
    std::string text;
    const auto set = record.set(key, valueOfObject(value, text, what));
    if (!set) throw py::value_error(what + ": " + set.error().text);
}

const char* wordOf(Change change) {
    switch (change) {
        case Change::Inserted:
            return "inserted";
        case Change::Changed:
            return "changed";
        case Change::Deleted:
            break;
    }
    return "deleted";
}

}  // namespace

const Types& types() {
    static const Types* const made = [] {
        const auto errors = py::module_::import("kvxmom.errors");
        const auto values = py::module_::import("kvxmom.values");
        return new Types{errors.attr("_made"), values.attr("Delivery"), values.attr("Change"),
                         values.attr("Field")};
    }();
    return *made;
}

py::str textOfBytes(std::string_view bytes) {
    PyObject* const text = PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                                "surrogateescape");
    if (text == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

std::string bytesOfText(const py::handle& text) {
    Py_ssize_t size = 0;
    if (const char* const bytes = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
        return {bytes, static_cast<std::size_t>(size)};
    }
    PyErr_Clear();
    PyObject* const encoded = PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape");
    if (encoded == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::bytes>(encoded);
}

py::dict RowMaker::rowOf(const Record& record) {
    py::dict row;
    for (std::size_t place = 0; place < record.size(); ++place) {
        const Field field = record.at(place);
        if (names_.size() <= place) names_.emplace_back();
        auto& [name, text] = names_[place];
        if (name != field.name || !text) {
            name = field.name;
            text = textOfBytes(field.name);
        }
        row[text] = valueOf(field.value);
    }
    return row;
}

Record recordOf(const py::handle& row, const std::string& argument) {
    Record record;
    if (PyDict_Check(row.ptr())) {
        for (const auto& [name, value] : py::reinterpret_borrow<py::dict>(row)) {
            setField(record, name, value, argument);
        }
        return record;
    }
    if (!py::hasattr(row, "items")) wrongType(argument, row, "a row is a mapping");
    for (const py::handle item : row.attr("items")()) {
        if (!PyTuple_Check(item.ptr()) || PyTuple_GET_SIZE(item.ptr()) != 2) {
            wrongType(argument, item, "an item is a tuple of name and value");
        }
        const auto pair = py::reinterpret_borrow<py::tuple>(item);
        setField(record, pair[0], pair[1], argument);
    }
    return record;
}

py::object changeOfRecord(const Record& record, RowMaker& rows, bool isResynchronised) {
    const auto change = changeOf(record);
    const char* const kind = change ? wordOf(*change) : "changed";
    return callPython(types().change,
                      py::make_tuple(kind, rows.rowOf(change ? rowOf(record) : record),
                                     textOfBytes(change ? tableOf(record) : ""), isResynchronised));
}

Record recordOfChange(const py::handle& change) {
    if (!py::isinstance(change, types().change)) wrongType("changes", change, "a kvxmom.Change");
    const std::string kind = py::str(change.attr("kind"));
    const Record row = recordOf(change.attr("row"), "row");
    const std::string table = bytesOfText(py::str(change.attr("table")));
    for (const Change known : {Change::Inserted, Change::Changed, Change::Deleted}) {
        if (kind == wordOf(known)) return changeRecord(known, row, table);
    }
    throw py::value_error("kind: '" + kind + "' is not inserted, changed or deleted");
}

}  // namespace kvx::python
