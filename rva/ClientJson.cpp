// The text is refused at the first thing that would make it costly to keep, to search or to walk.

#include "rva/ClientJson.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "rv/message/WireFormat.h"
#include "tools/bus/MessageJson.h"

namespace kvx::rva {

namespace {

// A nested message is an array of fields, which are objects; around them is the body.
constexpr std::size_t kMostDepth = 2 * std::size_t{kMaxNesting} + 8;
constexpr std::size_t kMostKeys = 1000;  // of one object, whose keys are found one by one

class Builder : public Json::json_sax_t {
  public:
    explicit Builder(std::string& problem) : problem_(problem) {}

    bool null() override { return add(nullptr) != nullptr; }
    bool boolean(bool value) override { return add(value) != nullptr; }
    bool number_integer(number_integer_t value) override { return add(value) != nullptr; }
    bool number_unsigned(number_unsigned_t value) override { return add(value) != nullptr; }
    // Also called for an integer that has no place in 64 bits.
    bool number_float(number_float_t value, const string_t& text) override {
        const bool isInteger = text.find_first_of(".eE") == std::string::npos;
        return add(isInteger ? bus::wideInteger(text) : Json(value)) != nullptr;
    }
    bool string(string_t& value) override { return add(std::move(value)) != nullptr; }
    bool binary(binary_t& /*value*/) override { return false; }
    bool start_object(std::size_t /*size*/) override { return open(Json::object()); }
    bool start_array(std::size_t /*size*/) override { return open(Json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        auto& [json, keys] = open_.back();
        if (keys.size() == kMostKeys) return fail("an object of more than 1000 keys");
        if (!keys.insert(name).second) return fail("a key that is there twice");
        json->emplace(name, nullptr);
        return true;
    }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const Json::exception& error) override {
        constexpr int kTooLarge = 406;
        return fail(error.id == kTooLarge ? "a number that is too large"
                                          : "the body is no JSON object");
    }

    Json take() { return std::move(whole_); }

  private:
    struct Open {
        Json* json;
        std::set<std::string> keys;  // of an object; the last one's value is next
    };

    // Where the value is now.
    Json* add(Json value) {
        if (open_.empty()) return &(whole_ = std::move(value));
        Json& around = *open_.back().json;
        if (around.is_array()) return &around.emplace_back(std::move(value));
        Json& place = around.get_ref<Json::object_t&>().back().second;
        return &(place = std::move(value));
    }
    bool open(Json value) {
        open_.push_back({add(std::move(value)), {}});
        return open_.size() <= kMostDepth || fail("JSON that is nested too deeply");
    }
    bool close() {
        open_.pop_back();
        return true;
    }
    bool fail(const char* problem) {
        problem_ = problem;
        return false;
    }

    std::string& problem_;
    Json whole_;
    std::vector<Open> open_;  // each within the one before
};

}  // namespace

Json readClientJson(std::string_view text, std::string& problem) {
    Builder builder(problem);
    if (!Json::sax_parse(text, &builder)) return nullptr;
    Json json = builder.take();
    if (json.is_object()) return json;
    problem = "the body is no JSON object";
    return nullptr;
}

}  // namespace kvx::rva
