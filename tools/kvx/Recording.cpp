#include "tools/kvx/Recording.h"

#include <fmt/format.h>

#include <memory>
#include <string_view>

#include "platform/Text.h"
#include "tools/bus/Complain.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

int checked(const std::string& path, const RecordingOptions& options, const std::string& problem) {
    if (!options.subject.empty() && !isSubject(options.subject)) {
        bus::complain(fmt::format("'{}' is no subject", printable(options.subject)));
        return kUsage;
    }
    if (problem.empty()) return kSuccess;
    bus::complain(fmt::format("cannot read {}: {}", path, problem));
    return kFailure;
}

}  // namespace

Recording::Recording(const std::string& path, const RecordingOptions& options)
    : path_(path),
      options_(options),
      reader_(path),
      subject_(Subject::fromText(options.subject.c_str())),
      status_(checked(path, options, reader_.problem())) {}

std::optional<recording::Entry> Recording::next() {
    while (const auto entry = reader_.next()) {
        if (isSelected(*entry)) return entry;
    }
    if (const auto damaged = reader_.damaged()) {
        bus::complain(fmt::format("{} records of {} are damaged and left out", damaged, path_));
    }
    return std::nullopt;
}

int Recording::complainEmpty() const {
    bus::complain(fmt::format("{} has no such message", path_));
    return kFailure;
}

bool Recording::isSelected(const recording::Entry& entry) const {
    if (!options_.space.empty() && spaceOf(entry) != options_.space) return false;
    return !subject_ || recording::isOn(entry, *subject_);
}

std::string spaceOf(const recording::Entry& entry) {
    return std::string(entry.service) +
           (entry.network.empty() ? "" : ";" + std::string(entry.network));
}

bool withContent(const recording::Entry& entry,
                 const std::function<void(const char*, const RvDatum&)>& use) {
    if (!recording::isWholeMessage(entry)) return false;
    const RvMsg message(const_cast<std::uint8_t*>(entry.message.data()));
    const std::unique_ptr<RvMsgIterator> fields(message.newIterator());
    std::string reply;
    while (const RvDatum* field = fields ? fields->next() : nullptr) {
        const std::string_view name = field->name() != nullptr ? field->name() : "";
        if (name == "return" && field->type() == RVMSG_STRING && reply.empty()) {
            reply = static_cast<const char*>(field->data());
        }
        if (name != "data") continue;
        use(reply.empty() ? nullptr : reply.c_str(), *field);
        return true;
    }
    use(reply.empty() ? nullptr : reply.c_str(), RvDatum());
    return true;
}

}  // namespace kvx::tool
