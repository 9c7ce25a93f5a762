#pragma once

#include <string>

#include "examples/modeld/service/Answer.h"
#include "mom/mom.h"

namespace modeld {

/// The subject on which the members of a group tell one another which long answers have begun,
/// made from the subject on which they hear their questions.
std::string begunSubject(const std::string& querySubject);

/// Whether an answer of `rows` rows takes more than one packet.
bool isLongAnswer(EVekTransHdr version, std::uint64_t rows);

/// Queues the notice that the answer to `question` begins, so that it leaves ahead of the packets
/// that are queued after it. Does nothing for a question whose `begunSubject` is empty. Any thread.
void tellBegun(CVekEngine& engine, const Question& question);

/// The reply subject that a notice names; empty for what is no notice.
std::string readBegun(const RvDatum& data);

}  // namespace modeld
