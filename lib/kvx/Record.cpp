#include "kvx/Record.h"

#include <algorithm>
#include <climits>
#include <ostream>
#include <utility>

#include "kvx/ZeroByte.h"

namespace kvx {

namespace {

constexpr std::size_t kMostFields = 65'535;

using detail::hasZero;

Value valueOf(const CVekAtom* atom) {
    if (atom == nullptr) return {};
    switch (atom->RAType()) {
        case VEK_TYPE_STRING:
            return Value(atom->RAString());
        case VEK_TYPE_INT:
        case VEK_TYPE_INT64:
            return Value(atom->RAInt64());
        case VEK_TYPE_BYTES: {
            unsigned char* bytes = nullptr;
            int length = 0;
            if (atom->RAUChar(&bytes, &length) != kOk) return {};
            return Value(Value::Bytes(reinterpret_cast<const std::byte*>(bytes),
                                      static_cast<std::size_t>(length)));
        }
    }
    return {};
}

// Null for what no atom holds.
std::unique_ptr<CVekAtom> atomOf(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::Boolean:
        case Value::Kind::Integer: {
            const auto wide = *value.as<std::int64_t>();
            if (std::in_range<int>(wide)) {
                return std::make_unique<CVekAtom>(static_cast<int>(wide));
            }
            return std::make_unique<CVekAtom>(static_cast<long long>(wide));
        }
        case Value::Kind::Real:
        case Value::Kind::String: {
            const std::string text = value.toString();
            return hasZero(text) ? nullptr : std::make_unique<CVekAtom>(std::string_view(text));
        }
        case Value::Kind::Bytes: {
            const auto bytes = *value.as<Value::Bytes>();
            if (bytes.size() > INT_MAX) return nullptr;
            return std::make_unique<CVekAtom>(reinterpret_cast<const unsigned char*>(bytes.data()),
                                              static_cast<int>(bytes.size()));
        }
        case Value::Kind::Null:
        case Value::Kind::Message:
            break;
    }
    return nullptr;
}

}  // namespace

Record::Record(std::initializer_list<Field> fields) {
    for (const Field& field : fields) static_cast<void>(set(field.name, field.value));
}

Record::Record(const Record& other)
    : base_(other.base_ ? std::make_unique<CVekBaseRecord>(*other.base_) : nullptr) {}

Record& Record::operator=(const Record& other) {
    return *this = Record(other);
}

const CVekBaseRecord& Record::base() const {
    static const CVekBaseRecord kEmpty;
    return base_ ? *base_ : kEmpty;
}

Result<> Record::set(std::string_view name, const Value& value) {
    const std::string text(name);
    std::unique_ptr<CVekAtom> atom = hasZero(name) ? nullptr : atomOf(value);
    if (!atom) {
        return tl::unexpected(
            Error{Errc::InvalidArgument, "a record cannot hold it", "field " + text});
    }
    if (size() >= kMostFields && !contains(name)) {
        return tl::unexpected(
            Error{Errc::InvalidArgument, "a record has at most 65,535 fields", "field " + text});
    }
    if (!base_) base_ = std::make_unique<CVekBaseRecord>();
    if (base_->RRAddOrSetValue(text.c_str(), atom.get()) != kOk) {
        return tl::unexpected(Error{Errc::NoMemory, {}, "field " + text});
    }
    static_cast<void>(atom.release());
    return {};
}

Value Record::operator[](std::string_view name) const {
    return hasZero(name) ? Value() : valueOf(base().RRGetValue(std::string(name).c_str()));
}

bool Record::contains(std::string_view name) const {
    return !hasZero(name) && base().RRGetValue(std::string(name).c_str()) != nullptr;
}

Field Record::at(std::size_t place) const {
    const int position = static_cast<int>(std::min<std::size_t>(place, INT_MAX));
    const char* const name = base().RRNameAt(position);
    return {name != nullptr ? name : "", valueOf(base().RRValueAt(position))};
}

std::string Record::toString() const {
    std::string text;
    for (const Field& field : *this) {
        if (!text.empty()) text += ' ';
        const bool isText = field.value.kind() == Value::Kind::String;
        text.append(field.name).append(isText ? "=\"" : "=");
        text.append(field.value.toString()).append(isText ? "\"" : "");
    }
    return text;
}

std::optional<Record> Record::decode(std::span<const std::byte> bytes) {
    if (bytes.size() > INT_MAX) return std::nullopt;
    std::unique_ptr<CVekBaseRecord> base(CVekBaseRecord::ROMDecode(
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size())));
    if (!base) return std::nullopt;
    return Record(std::move(base));
}

bool operator==(const Record& one, const Record& other) {
    return one.size() == other.size() && std::equal(one.begin(), one.end(), other.begin());
}

std::ostream& operator<<(std::ostream& out, const Record& record) {
    return out << record.toString();
}

}  // namespace kvx
