// The fields are in a vector, in the order in which their names were first added. Most records have
// four to a dozen fields, so a name is found by a linear search; from kIndexedFrom fields on, a
// tree of positions is kept as well. The encoding is in RecordEncoder.cpp and RecordDecoder.cpp.

#include "foundation/CVekBaseRecord.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "foundation/ErrorCodes.h"
#include "foundation/RecordDecoder.h"
#include "foundation/RecordEncoder.h"

namespace {

constexpr std::size_t kIndexedFrom = 24;

}  // namespace

CVekBaseRecord::CVekBaseRecord(const CVekBaseRecord& other)
    : CVekListable(other), m_index(other.m_index) {
    m_fields.reserve(other.m_fields.size());
    for (const Field& field : other.m_fields) {
        m_fields.push_back({field.name, std::make_unique<const CVekAtom>(*field.value)});
    }
}

CVekBaseRecord& CVekBaseRecord::operator=(const CVekBaseRecord& other) {
    if (this == &other) return *this;
    CVekBaseRecord copy(other);
    m_fields.swap(copy.m_fields);
    m_index.swap(copy.m_index);
    return *this;
}

CVekBaseRecord::~CVekBaseRecord() = default;

int CVekBaseRecord::RRAddOrSetValue(const char* name, const CVekAtom* value) {
    if (name == nullptr || value == nullptr) return kvx::kMissingArgument;
    std::unique_ptr<const CVekAtom> owned(value);
    try {
        set(name, owned);
    } catch (const std::bad_alloc&) {
        static_cast<void>(owned.release());
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

const CVekAtom* CVekBaseRecord::RRGetValue(const char* name) const {
    if (name == nullptr) return nullptr;
    const std::size_t position = find(name);
    return position == m_fields.size() ? nullptr : m_fields[position].value.get();
}

const char* CVekBaseRecord::RRNameAt(int position) const {
    return position < 0 || position >= RRSize() ? nullptr : m_fields[position].name.c_str();
}

const CVekAtom* CVekBaseRecord::RRValueAt(int position) const {
    return position < 0 || position >= RRSize() ? nullptr : m_fields[position].value.get();
}

int CVekBaseRecord::ROMEncode(unsigned char** bytes, int* length) const {
    if (bytes != nullptr) *bytes = nullptr;
    if (length != nullptr) *length = 0;
    if (bytes == nullptr || length == nullptr) return kvx::kMissingArgument;
    if (m_fields.size() > kvx::kMostRecordFields) return kvx::kNotCompleted;
    try {
        std::size_t textBytes = 0;
        for (const Field& field : m_fields)
            textBytes += field.name.size() + field.value->RALength();
        kvx::RecordEncoder encoder(m_fields.size(), textBytes);
        for (const Field& field : m_fields) encoder.add(field.name, *field.value);
        return encoder.finish(bytes, length) ? kvx::kOk : kvx::kNotCompleted;
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
}

CVekBaseRecord* CVekBaseRecord::ROMDecode(const unsigned char* bytes, int length) {
    if (bytes == nullptr || length <= 0) return nullptr;
    try {
        kvx::RecordDecoder decoder({bytes, static_cast<std::size_t>(length)});
        auto record = std::make_unique<CVekBaseRecord>();
        record->m_fields.reserve(decoder.fieldsAhead());
        while (auto field = decoder.next()) record->set(field->name, field->value);
        return decoder.isComplete() ? record.release() : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

CVekListable* CVekBaseRecord::RLTargetDeepCopy(const CVekListable* source) {
    const auto* original = dynamic_cast<const CVekBaseRecord*>(source);
    return original == nullptr ? nullptr : new CVekBaseRecord(*original);
}

std::size_t CVekBaseRecord::find(std::string_view name) const {
    if (m_index.empty()) {
        const auto same = [name](const Field& field) { return field.name == name; };
        return std::find_if(m_fields.begin(), m_fields.end(), same) - m_fields.begin();
    }
    const auto found = m_index.find(name);
    return found == m_index.end() ? m_fields.size() : found->second;
}

void CVekBaseRecord::set(std::string_view name, std::unique_ptr<const CVekAtom>& value) {
    const std::size_t position = find(name);
    if (position == m_fields.size()) {
        m_fields.push_back({std::string(name), nullptr});
        try {
            indexLastField();
        } catch (...) {
            m_fields.pop_back();
            throw;
        }
    }
    std::unique_ptr<const CVekAtom>& held = m_fields[position].value;
    // Setting the pointer that is there already must not delete it.
    if (held == value) static_cast<void>(held.release());
    held = std::move(value);
}

void CVekBaseRecord::indexLastField() {
    if (m_fields.size() < kIndexedFrom) return;
    if (!m_index.empty()) {
        m_index.emplace(m_fields.back().name, m_fields.size() - 1);
        return;
    }
    decltype(m_index) index;  // whole or not at all
    for (std::size_t i = 0; i < m_fields.size(); ++i) index.emplace(m_fields[i].name, i);
    m_index.swap(index);
}
