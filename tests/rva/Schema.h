#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

namespace kvx::test {

/// Validates values against the schemas of an OpenAPI document, as far as that uses them: type,
/// enum, required, properties, additionalProperties, items, oneOf and references.
class Schemas {
  public:
    using Json = nlohmann::ordered_json;

    explicit Schemas(const std::string& document) : document_(Json::parse(document)) {}

    /// Where `value` is not of the schema of that name; empty when it is.
    std::string problem(const std::string& name, const Json& value) const {
        return find(at(name), value, name);
    }
    const Json& document() const { return document_; }

  private:
    const Json& at(const std::string& name) const {
        return document_.at("components").at("schemas").at(name);
    }

    static bool isOfType(const std::string& type, const Json& value) {
        return type == "object"    ? value.is_object()
               : type == "array"   ? value.is_array()
               : type == "string"  ? value.is_string()
               : type == "boolean" ? value.is_boolean()
               : type == "integer" ? value.is_number_integer()
               : type == "number"  ? value.is_number()
                                   : type == "null" && value.is_null();
    }

    static bool hasType(const Json& schema, const Json& value) {
        if (!schema.contains("type")) return true;
        const Json& type = schema["type"];
        if (type.is_string()) return isOfType(type, value);
        return std::ranges::any_of(type, [&](const Json& one) { return isOfType(one, value); });
    }

    std::string find(const Json& schema, const Json& value, const std::string& path) const {
        if (schema.contains("$ref")) {
            const std::string name = schema["$ref"];
            return find(at(name.substr(name.rfind('/') + 1)), value, path);
        }
        if (schema.contains("oneOf")) {
            const auto fitting = std::ranges::count_if(
                schema["oneOf"], [&](const Json& one) { return find(one, value, path).empty(); });
            if (fitting != 1) return fmt::format("{}: fits {} of oneOf", path, fitting);
        }
        if (!hasType(schema, value)) return path + ": another type";
        if (schema.contains("enum") &&
            std::ranges::find(schema["enum"], value) == schema["enum"].end()) {
            return path + ": none of the enum";
        }
        return value.is_object()  ? findInObject(schema, value, path)
               : value.is_array() ? findInArray(schema, value, path)
                                  : std::string();
    }

    std::string findInObject(const Json& schema, const Json& value, const std::string& path) const {
        for (const Json& key : schema.value("required", Json::array())) {
            if (!value.contains(key.get<std::string>())) return path + ": no " + key.dump();
        }
        const Json properties = schema.value("properties", Json::object());
        const Json others = schema.value("additionalProperties", Json(true));
        for (const auto& [key, member] : value.items()) {
            const bool isKnown = properties.contains(key);
            if (!isKnown && others == false) return path + ": an unknown " + key;
            if (!isKnown && !others.is_object()) continue;
            auto problem = find(isKnown ? properties[key] : others, member, path + "." + key);
            if (!problem.empty()) return problem;
        }
        return {};
    }

    std::string findInArray(const Json& schema, const Json& value, const std::string& path) const {
        if (!schema.contains("items")) return {};
        for (const Json& item : value) {
            auto problem = find(schema["items"], item, path + "[]");
            if (!problem.empty()) return problem;
        }
        return {};
    }

    const Json document_;
};

}  // namespace kvx::test
