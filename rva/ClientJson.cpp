// The text is read twice: first without keeping anything but the keys of the objects that are open,
// so that what is kept then is harmless.

#include "rva/ClientJson.h"

#include <cstddef>
#include <set>
#include <utility>
#include <vector>

#include "rv/message/WireFormat.h"

namespace kvx::rva {

namespace {

// A nested message is an array of fields, which are objects; around them is the body.
constexpr std::size_t kMostDepth = 2 * std::size_t{kMaxNesting} + 8;
constexpr std::size_t kMostKeys = 1000;  // of one object, whose keys are found one by one

class Check : public Json::json_sax_t {
  public:
    explicit Check(std::string& problem) : problem_(problem) {}

    bool null() override { return true; }
    bool boolean(bool /*value*/) override { return true; }
    bool number_integer(number_integer_t /*value*/) override { return true; }
    bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
    bool string(string_t& /*value*/) override { return true; }
    bool binary(binary_t& /*value*/) override { return true; }
    bool start_object(std::size_t /*size*/) override { return open(); }
    bool start_array(std::size_t /*size*/) override { return open(); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        auto& keys = keys_.back();
        if (keys.size() == kMostKeys) return fail("an object of more than 1000 keys");
        return keys.insert(std::move(name)).second || fail("a key that is there twice");
    }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const Json::exception& /*error*/) override {
        return fail("the body is no JSON object");
    }

  private:
    bool open() {
        keys_.emplace_back();
        return keys_.size() <= kMostDepth || fail("JSON that is nested too deeply");
    }
    bool close() {
        keys_.pop_back();
        return true;
    }
    bool fail(const char* problem) {
        problem_ = problem;
        return false;
    }

    std::string& problem_;
    std::vector<std::set<std::string>> keys_;  // of all that is open
};

}  // namespace

Json readClientJson(std::string_view text, std::string& problem) {
    Check check(problem);
    if (!Json::sax_parse(text, &check)) return nullptr;
    Json json = Json::parse(text, nullptr, false);
    if (json.is_object()) return json;
    problem = "the body is no JSON object";
    return nullptr;
}

}  // namespace kvx::rva
