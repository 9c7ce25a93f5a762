// Messages between the bus and Python. One table has the names of the exact types; without one, a
// value gets the type that `kvx::Message::add` gives it.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

#include "python/module/Failure.h"
#include "python/module/Values.h"
#include "rv/message/WireFormat.h"

namespace kvx::python {

namespace {

constexpr int kMostNesting = static_cast<int>(kMaxNesting);
constexpr unsigned kMostSubject = 1000;  // bytes, encoded
constexpr std::int64_t kMicroseconds = 1'000'000;

using Bytes = std::string;

template <class Number>
Number loaded(const RvDatum& datum) {
    Number number{};
    std::memcpy(&number, datum.data(), sizeof number);
    return number;
}

template <class Number>
Bytes imageOf(Number number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

// --- To Python ---------------------------------------------------------------------------------

template <class One, class Two, class Four, class Eight>
py::object integerOf(const RvDatum& datum) {
    switch (datum.size()) {
        case 1:
            return py::int_(loaded<One>(datum));
        case 2:
            return py::int_(loaded<Two>(datum));
        case 4:
            return py::int_(loaded<Four>(datum));
        case 8:
            return py::int_(loaded<Eight>(datum));
        default:
            return py::none();
    }
}

py::object signedOf(const RvDatum& datum) {
    return integerOf<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(datum);
}

py::object unsignedOf(const RvDatum& datum) {
    return integerOf<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(datum);
}

py::bytes bytesOf(const RvDatum& datum) {
    return {static_cast<const char*>(datum.data()), datum.size()};
}

py::object addressOf(const RvDatum& datum) {
    const auto* bytes = static_cast<const unsigned char*>(datum.data());
    if (datum.size() == 2) return py::int_(bytes[0] * 256 + bytes[1]);
    if (datum.size() != 4) return bytesOf(datum);
    std::string text;
    for (int i = 0; i < 4; ++i) text += (i > 0 ? "." : "") + std::to_string(bytes[i]);
    return py::str(text);
}

py::object subjectOf(const RvDatum& datum) {
    std::array<char, kMostSubject + 1> text{};
    const bool isOne =
        datum.size() >= 3 && rvSubject_ToText(text.data(), text.size(), datum.data()) != nullptr;
    return isOne ? py::object(textOfBytes(text.data())) : py::object(bytesOf(datum));
}

py::object epoch() {
    const auto datetime = py::module_::import("datetime");
    return datetime.attr("datetime")(1970, 1, 1,
                                     py::arg("tzinfo") = datetime.attr("timezone").attr("utc"));
}

py::object microsecondsAsDelta(std::int64_t count) {
    return py::module_::import("datetime").attr("timedelta")(py::arg("microseconds") = count);
}

// The high byte of the seconds is a sign: 255 for a time before 1970. A time that Python does not
// have stays bytes.
py::object dateOf(const RvDatum& datum) {
    std::array<std::uint32_t, 3> words{};
    if (datum.size() < sizeof words) return bytesOf(datum);
    std::memcpy(words.data(), datum.data(), sizeof words);
    const std::int64_t high = words[0] == 255 ? -1 : static_cast<std::int64_t>(words[0]);
    const std::int64_t seconds = high * (std::int64_t{1} << 32) + words[1];
    try {
        return epoch() + microsecondsAsDelta(seconds * kMicroseconds + words[2]);
    } catch (py::error_already_set& error) {
        if (!error.matches(PyExc_OverflowError)) throw;
        return bytesOf(datum);
    }
}

Message nestedOf(const RvDatum& datum) {
    return Message(Value::Bytes(static_cast<const std::byte*>(datum.data()), datum.size()));
}

// --- From Python -------------------------------------------------------------------------------

// What a field is appended as.
struct Encoded {
    rvmsg_Type type = RVMSG_OPAQUE;
    Bytes bytes;
};

[[noreturn]] void wrongType(const std::string& what, const py::handle& value,
                            const std::string& expected) {
    throw py::type_error(what + ": " + expected + ", not " + Py_TYPE(value.ptr())->tp_name);
}

void requireKind(bool isKind, const std::string& what, const py::handle& value,
                 const char* expected) {
    if (!isKind) wrongType(what, value, expected);
}

template <class Number>
Bytes encodeInteger(const py::handle& value, const std::string& what) {
    requireKind(PyLong_Check(value.ptr()) != 0 && !PyBool_Check(value.ptr()), what, value,
                "an int is needed");
    using Limits = std::numeric_limits<Number>;
    if (value < py::int_(Limits::min()) || value > py::int_(Limits::max())) {
        throw py::value_error(what + ": the integer does not fit its type");
    }
    if constexpr (std::is_signed_v<Number>) {
        return imageOf(static_cast<Number>(PyLong_AsLongLong(value.ptr())));
    } else {
        return imageOf(static_cast<Number>(PyLong_AsUnsignedLongLong(value.ptr())));
    }
}

template <class Number>
Bytes encodeReal(const py::handle& value, const std::string& what) {
    requireKind(PyFloat_Check(value.ptr()) != 0 || PyLong_Check(value.ptr()) != 0, what, value,
                "a float is needed");
    const double number = PyFloat_AsDouble(value.ptr());
    if (number == -1 && PyErr_Occurred() != nullptr) {
        PyErr_Clear();
        throw py::value_error(what + ": the number does not fit its type");
    }
    if (std::isfinite(number) && std::abs(number) > std::numeric_limits<Number>::max()) {
        throw py::value_error(what + ": the number does not fit its type");
    }
    return imageOf(static_cast<Number>(number));
}

Bytes encodeText(const py::handle& value, const std::string& what) {
    requireKind(PyUnicode_Check(value.ptr()) != 0, what, value, "a str is needed");
    Bytes text = bytesOfText(value);
    if (text.find('\0') != Bytes::npos) throw py::value_error(what + ": a zero byte in the text");
    text.push_back('\0');
    return text;
}

Bytes encodeBoolean(const py::handle& value, const std::string& what) {
    requireKind(PyBool_Check(value.ptr()) != 0, what, value, "a bool is needed");
    return imageOf(std::int32_t{value.ptr() == Py_True ? 1 : 0});
}

Bytes encodeBytes(const py::handle& value, const std::string& what) {
    requireKind(PyObject_CheckBuffer(value.ptr()) != 0, what, value, "bytes are needed");
    return py::bytes(py::module_::import("builtins").attr("bytes")(value));
}

Bytes encodeAddress(const py::handle& value, const std::string& what) {
    try {
        return py::bytes(
            py::module_::import("ipaddress").attr("IPv4Address")(value).attr("packed"));
    } catch (py::error_already_set&) {
        throw py::value_error(what + ": no IPv4 address");
    }
}

Bytes encodePort(const py::handle& value, const std::string& what) {
    Bytes port = encodeInteger<std::uint16_t>(value, what);
    const auto number = loaded<std::uint16_t>(RvDatum(RVMSG_UINT, 2, port.data()));
    return {static_cast<char>(number >> 8U), static_cast<char>(number & 0xffU)};
}

Bytes encodeSubject(const py::handle& value, const std::string& what) {
    const Bytes text = encodeText(value, what);
    Bytes encoded(kMostSubject, '\0');
    const int length = rvSubject_FromText(encoded.data(), kMostSubject, text.c_str());
    if (length < 0) throw py::value_error(what + ": no subject");
    encoded.resize(static_cast<std::size_t>(length));
    return encoded;
}

Bytes encodeDate(const py::handle& value, const std::string& what) {
    const auto datetime = py::module_::import("datetime");
    requireKind(
        py::isinstance(value, datetime.attr("datetime")) && !value.attr("utcoffset")().is_none(),
        what, value, "a datetime with a time zone is needed");
    const auto since = py::reinterpret_borrow<py::object>(value) - epoch();
    const auto whole = since.attr("__floordiv__")(microsecondsAsDelta(1)).cast<std::int64_t>();
    std::int64_t seconds = whole / kMicroseconds;
    std::int64_t rest = whole % kMicroseconds;
    if (rest < 0) {
        rest += kMicroseconds;
        --seconds;
    }
    if (seconds < -(std::int64_t{1} << 32)) {
        throw py::value_error(what + ": the time is before 1833-11-24, the first that can be sent");
    }
    const std::array<std::uint32_t, 3> words = {static_cast<std::uint32_t>((seconds >> 32) & 0xff),
                                                static_cast<std::uint32_t>(seconds),
                                                static_cast<std::uint32_t>(rest)};
    return imageOf(words);
}

struct FieldType {
    std::string_view name;
    rvmsg_Type type;
    rvmsg_Size size;  // 0: any
    Bytes (*encode)(const py::handle& value, const std::string& what);
};

constexpr std::array<FieldType, 17> kFieldTypes = {{
    {"str", RVMSG_STRING, 0, encodeText},
    {"i8", RVMSG_INT, 1, encodeInteger<std::int8_t>},
    {"i16", RVMSG_INT, 2, encodeInteger<std::int16_t>},
    {"i32", RVMSG_INT, 4, encodeInteger<std::int32_t>},
    {"i64", RVMSG_INT, 8, encodeInteger<std::int64_t>},
    {"u8", RVMSG_UINT, 1, encodeInteger<std::uint8_t>},
    {"u16", RVMSG_UINT, 2, encodeInteger<std::uint16_t>},
    {"u32", RVMSG_UINT, 4, encodeInteger<std::uint32_t>},
    {"u64", RVMSG_UINT, 8, encodeInteger<std::uint64_t>},
    {"f32", RVMSG_REAL, 4, encodeReal<float>},
    {"f64", RVMSG_REAL, 8, encodeReal<double>},
    {"bool", RVMSG_BOOLEAN, 0, encodeBoolean},
    {"ip", RVMSG_IPDATA, 4, encodeAddress},
    {"port", RVMSG_IPDATA, 2, encodePort},
    {"subject", RVMSG_SUBJECT, 0, encodeSubject},
    {"datetime", RVMSG_DATETIME, 0, encodeDate},
    {"bytes", RVMSG_OPAQUE, 0, encodeBytes},
}};

Encoded encodeAs(const std::string& name, const py::handle& value, const std::string& what) {
    for (const FieldType& one : kFieldTypes) {
        if (one.name == name) return {one.type, one.encode(value, what)};
    }
    throw py::value_error(what + ": '" + name + "' is no type of a field");
}

RvMsg messageAt(const py::handle& fields, const std::string& what, int nesting);

// How many levels of messages are in one.
int levelsIn(const RvMsg& message) {
    int levels = 0;
    RvMsgIterator walk(message);
    while (const RvDatum* const datum = walk.next()) {
        if (datum->type() == RVMSG_MSG) {
            levels = std::max(levels, 1 + levelsIn(nestedOf(*datum).base()));
        }
    }
    return levels;
}

Encoded encodeMessage(const py::handle& value, const std::string& what, int nesting) {
    const RvMsg nested = messageAt(value, what, nesting + 1);
    return {RVMSG_MSG, {static_cast<const char*>(nested.data()), nested.size()}};
}

Encoded encodeInt(const py::handle& value, const std::string& what) {
    const py::int_ low(std::numeric_limits<std::int32_t>::min());
    const py::int_ high(std::numeric_limits<std::int32_t>::max());
    if (value >= low && value <= high) {
        return {RVMSG_INT, encodeInteger<std::int32_t>(value, what)};
    }
    if (value > py::int_(std::numeric_limits<std::int64_t>::max())) {
        return {RVMSG_UINT, encodeInteger<std::uint64_t>(value, what)};
    }
    return {RVMSG_INT, encodeInteger<std::int64_t>(value, what)};
}

Encoded encode(const py::handle& value, const std::string& what, int nesting) {
    PyObject* const object = value.ptr();
    if (PyBool_Check(object)) return {RVMSG_BOOLEAN, encodeBoolean(value, what)};
    if (PyLong_Check(object)) return encodeInt(value, what);
    if (PyFloat_Check(object)) return {RVMSG_REAL, encodeReal<double>(value, what)};
    if (PyUnicode_Check(object)) return {RVMSG_STRING, encodeText(value, what)};
    if (PyObject_CheckBuffer(object) != 0) return {RVMSG_OPAQUE, encodeBytes(value, what)};
    if (py::isinstance(value, py::module_::import("datetime").attr("datetime"))) {
        return {RVMSG_DATETIME, encodeDate(value, what)};
    }
    if (!py::isinstance<Message>(value) && !py::hasattr(value, "items")) {
        wrongType(what, value,
                  "a message holds str, int, float, bool, bytes, datetime and messages");
    }
    return encodeMessage(value, what, nesting);
}

void append(RvMsg& message, const py::handle& name, const py::handle& value, const py::handle& type,
            const std::string& argument, int nesting) {
    if (!PyUnicode_Check(name.ptr())) wrongType(argument, name, "names of fields are str");
    const std::string key = bytesOfText(name);
    const std::string what = argument + ": field '" + key + "'";
    if (key.find('\0') != std::string::npos) {
        throw py::value_error(argument + ": a zero byte in the name of a field");
    }
    const std::string as = type.is_none() ? "" : bytesOfText(py::str(type));
    const Encoded encoded = type.is_none()    ? encode(value, what, nesting)
                            : as == "message" ? encodeMessage(value, what, nesting)
                                              : encodeAs(as, value, what);
    const void* const data = encoded.bytes.empty() ? "" : encoded.bytes.data();
    const RvStatus status = message.append(key.c_str(), encoded.type,
                                           static_cast<rvmsg_Size>(encoded.bytes.size()), data);
    if (status != RvStatus(0)) throw py::value_error(what + ": " + status.text());
}

RvMsg messageAt(const py::handle& fields, const std::string& what, int nesting) {
    const bool isMade = py::isinstance<Message>(fields);
    const int levels = isMade && nesting > 0 ? levelsIn(fields.cast<const Message&>().base()) : 0;
    if (nesting + levels > kMostNesting) {
        throw py::value_error(what + ": messages nested too deep");
    }
    if (isMade) return fields.cast<const Message&>().base();
    RvMsg message;
    const bool isMapping = py::hasattr(fields, "items");
    if (!isMapping && (PyUnicode_Check(fields.ptr()) || !py::hasattr(fields, "__iter__"))) {
        wrongType(what, fields, "a Message, a mapping or fields are needed");
    }
    const py::object items =
        isMapping ? py::object(fields.attr("items")()) : py::reinterpret_borrow<py::object>(fields);
    for (const py::handle item : items) {
        if (!PyTuple_Check(item.ptr()) || PyTuple_GET_SIZE(item.ptr()) < 2) {
            wrongType(what, item, "a field is a Field or a tuple of name and value");
        }
        const auto field = py::reinterpret_borrow<py::tuple>(item);
        const py::object type = field.size() > 2 ? py::object(field[2]) : py::none();
        append(message, field[0], field[1], type, what, nesting);
    }
    return message;
}

// --- The class ---------------------------------------------------------------------------------

// Calls `visit` with each field; true ends the walk.
template <class Visit>
void eachField(const Message& message, Visit visit) {
    RvMsgIterator walk(message.base());
    while (const RvDatum* const datum = walk.next()) {
        if (visit(*datum)) return;
    }
}

py::str nameOf(const RvDatum& datum) {
    return textOfBytes(datum.name() != nullptr ? datum.name() : "");
}

template <class Make>
py::list listOf(const Message& message, Make make) {
    py::list list;
    eachField(message, [&](const RvDatum& datum) {
        list.append(make(datum));
        return false;
    });
    return list;
}

py::object find(const Message& message, const py::handle& name) {
    if (!PyUnicode_Check(name.ptr())) wrongType("name", name, "a str is needed");
    RvDatum datum;
    const std::string text = bytesOfText(name);
    if (text.find('\0') != std::string::npos) return {};
    if (message.base().get(text.c_str(), datum) != RvStatus(0)) return {};
    return valueOf(datum);
}

py::dict dictOf(const Message& message) {
    py::dict dict;
    eachField(message, [&](const RvDatum& datum) {
        const py::str name = nameOf(datum);
        if (dict.contains(name)) return false;
        dict[name] =
            datum.type() == RVMSG_MSG ? py::object(dictOf(nestedOf(datum))) : valueOf(datum);
        return false;
    });
    return dict;
}

Message made(const py::object& fields, const py::kwargs& more) {
    RvMsg message = messageAt(fields.is_none() ? py::object(py::dict()) : fields, "fields", 0);
    for (const auto& [name, value] : more) {
        append(message, name, value, py::none(), "fields", 0);
    }
    return Message(message);
}

}  // namespace

py::object valueOf(const RvDatum& datum) {
    if (datum.data() == nullptr) {
        return datum.type() == RVMSG_OPAQUE ? py::object(py::bytes()) : py::none();
    }
    switch (datum.type()) {
        case RVMSG_MSG:
            return py::cast(nestedOf(datum));
        case RVMSG_STRING: {
            const auto* text = static_cast<const char*>(datum.data());
            return textOfBytes({text, strnlen(text, datum.size())});
        }
        case RVMSG_BOOLEAN: {
            const py::object number = signedOf(datum);
            return number.is_none() ? number : py::bool_(number);
        }
        case RVMSG_INT:
            return signedOf(datum);
        case RVMSG_UINT:
            return unsignedOf(datum);
        case RVMSG_REAL:
            return datum.size() == sizeof(float) ? py::float_(loaded<float>(datum))
                                                 : py::float_(loaded<double>(datum));
        case RVMSG_IPDATA:
            return addressOf(datum);
        case RVMSG_SUBJECT:
            return subjectOf(datum);
        case RVMSG_DATETIME:
            return dateOf(datum);
        default:
            return bytesOf(datum);
    }
}

py::str typeNameOf(const RvDatum& datum) {
    if (datum.type() == RVMSG_MSG) return "message";
    const auto* const found = std::ranges::find_if(kFieldTypes, [&](const FieldType& one) {
        return one.type == datum.type() && (one.size == 0 || one.size == datum.size());
    });
    return found != kFieldTypes.end() ? std::string(found->name) : std::to_string(datum.type());
}

Message messageOf(const py::handle& fields, const std::string& argument) {
    return Message(messageAt(fields, argument, 0));
}

void defineMessage(py::module_& module) {
    py::class_<Message>(module, "Message")
        .def(py::init(&made), py::arg("fields") = py::none(), py::pos_only())
        .def("__getitem__",
             [](const Message& self, const py::object& name) {
                 py::object value = find(self, name);
                 if (!value) throw py::key_error(bytesOfText(name));
                 return value;
             })
        .def(
            "get",
            [](const Message& self, const py::object& name, const py::object& otherwise) {
                py::object value = find(self, name);
                return value ? value : otherwise;
            },
            py::arg("name"), py::arg("default") = py::none())
        .def("__contains__",
             [](const Message& self, const py::object& name) {
                 return static_cast<bool>(find(self, name));
             })
        .def("__iter__", [](const Message& self) { return py::iter(listOf(self, nameOf)); })
        .def("__len__",
             [](const Message& self) {
                 std::size_t count = 0;
                 eachField(self, [&](const RvDatum&) {
                     ++count;
                     return false;
                 });
                 return count;
             })
        .def("keys", [](const Message& self) { return listOf(self, nameOf); })
        .def("values", [](const Message& self) { return listOf(self, valueOf); })
        .def("items",
             [](const Message& self) {
                 return listOf(self, [](const RvDatum& datum) {
                     return py::make_tuple(nameOf(datum), valueOf(datum));
                 });
             })
        .def("fields",
             [](const Message& self) {
                 return listOf(self, [](const RvDatum& datum) {
                     return types().field(nameOf(datum), valueOf(datum), typeNameOf(datum));
                 });
             })
        .def("to_dict", &dictOf)
        .def("__eq__",
             [](const Message& self, const py::object& other) -> py::object {
                 if (!py::isinstance<Message>(other)) {
                     return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                 }
                 return py::bool_(self == other.cast<const Message&>());
             })
        .def("__str__", [](const Message& self) { return textOfBytes(self.toString()); })
        .def("__repr__",
             [](const Message& self) { return py::str("Message({!r})").format(dictOf(self)); });
}

}  // namespace kvx::python
