#include "tools/bus/DaemonQuestion.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "tools/bus/MessageJson.h"

namespace kvx::bus {

namespace {

constexpr std::array<std::string_view, 6> kRows = {"session", "subject", "match",
                                                   "shape",   "bucket",  "address"};

constexpr std::size_t kMostBytes = 64UL << 20U;  // of an answer, as it comes

Json shapeOf(const RvMsg& example) {
    Json fields = Json::array();
    const std::unique_ptr<RvMsgIterator> iterator(example.newIterator());
    while (const RvDatum* field = iterator ? iterator->next() : nullptr) {
        const std::string name = field->name() != nullptr ? field->name() : "";
        fields.push_back(name.empty() ? typeName(*field) : name + ":" + typeName(*field));
    }
    return fields;
}

void addFields(Json& object, const RvMsg& message, bool isTop);

Json plainValue(const std::string& name, const RvDatum& datum) {
    if (datum.type() != RVMSG_MSG) {
        Json value = valueJson(datum);
        // Figures are numbers, however large.
        const bool isFigure = datum.type() == RVMSG_INT || datum.type() == RVMSG_UINT;
        return isFigure && value.is_string() ? Json::parse(value.get<std::string>()) : value;
    }
    const auto& message = static_cast<const RvMsg&>(datum);
    if (name == "fields") return shapeOf(message);
    Json object = Json::object();
    addFields(object, message, false);
    return object;
}

// A row of subjects has a "subject" of its own, which is a value.
bool isRow(const std::string& name, const RvDatum& datum, bool isTop) {
    const bool isKnown = std::ranges::find(kRows, name) != kRows.end();
    return isKnown && (datum.type() == RVMSG_MSG || (isTop && name == "address"));
}

void addFields(Json& object, const RvMsg& message, bool isTop) {
    const std::unique_ptr<RvMsgIterator> iterator(message.newIterator());
    while (const RvDatum* field = iterator ? iterator->next() : nullptr) {
        const std::string name = field->name() != nullptr ? field->name() : "";
        Json value = plainValue(name, *field);
        Json& place = object[name];
        if (!isRow(name, *field, isTop)) {
            place = std::move(value);
            continue;
        }
        if (!place.is_array()) place = Json::array();
        place.push_back(std::move(value));
    }
}

}  // namespace

DaemonQuestion::DaemonQuestion(CVekRvNet& net, const char* subject, Done done)
    : net_(net), subject_(subject), done_(std::move(done)) {}

void DaemonQuestion::ask(const RvMsg& options, double timeoutSeconds) {
    answer_ = Json::object();
    parts_ = 0;
    bytes_ = 0;
    isWaiting_ = true;
    inbox_.reset();
    if (!sender_) sender_.reset(net_.m_session->newSender(subject_.c_str()));
    if (sender_) inbox_.reset(sender_->sendRequest(options, this, nullptr));
    if (!inbox_) return finish("the daemon cannot be asked");
    deadline_.emplace(net_, static_cast<unsigned long>(timeoutSeconds * 1000), Ticker::Repeat::Once,
                      [this, timeoutSeconds] {
                          finish(
                              fmt::format("the daemon has not answered on {} within {:g} s "
                                          "(older versions never do)",
                                          subject_, timeoutSeconds));
                      });
}

void DaemonQuestion::onData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    if (!isWaiting_) return;
    if (data.type() != RVMSG_MSG) return finish("the daemon's answer cannot be read");
    bytes_ += data.size();
    if (bytes_ > kMostBytes) return finish("the daemon's answer does not end");
    addFields(answer_, static_cast<const RvMsg&>(data), true);
    const Json number = answer_.value("part", Json());
    if (number != Json(++parts_)) return finish("a part of the daemon's answer is missing");
    if (answer_.contains("error") && answer_["error"].is_string()) {
        return finish(answer_["error"].get<std::string>());
    }
    if (answer_.value("last", Json(false)) == Json(true)) finish({});
}

void DaemonQuestion::finish(const std::string& error) {
    if (!std::exchange(isWaiting_, false)) return;
    answer_.erase("part");
    answer_.erase("last");
    done_(answer_, error);
}

}  // namespace kvx::bus
