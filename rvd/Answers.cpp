#include "rvd/Answers.h"

#include <new>
#include <utility>

#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {

bool Answers::add(const Inquiry& inquiry, std::unique_ptr<Report> report) {
    if (waiting_.size() == kMost) return false;
    waiting_.push_back({inquiry.reply, std::move(report)});
    return true;
}

std::vector<std::uint8_t> Answers::next() {
    try {
        bool hasMore = false;
        auto message = nextOf(waiting_.front(), hasMore);
        if (!hasMore) waiting_.pop_front();
        return message;
    } catch (...) {
        waiting_.pop_front();
        throw;
    }
}

std::vector<std::uint8_t> Answers::nextOf(Answer& answer, bool& hasMore) {
    Row part(2 * Report::kPartBytes);
    part.put("part", answer.parts + 1);
    const std::size_t empty = part.size();
    hasMore = answer.report->write(part);
    if (hasMore && part.size() == empty) return {};
    ++answer.parts;
    if (!hasMore) part.put("last", true);
    const SubjectView reply = answer.reply;
    const auto* const bytes = static_cast<const std::uint8_t*>(reply.data());
    const auto built =
        wire::buildData({bytes, reply.length()}, nullptr, 0, {RVMSG_MSG, 0, part.data()});
    if (built.code != 0) throw std::bad_alloc();
    const wire::Bytes message = built.message.view();
    return {message.begin(), message.end()};
}

}  // namespace kvx::rvd
