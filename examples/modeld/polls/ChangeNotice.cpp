#include "examples/modeld/polls/ChangeNotice.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "examples/modeld/service/RowRecord.h"

namespace modeld {

namespace {

constexpr const char* kChangeWords[] = {"inserted", "changed", "deleted"};
constexpr unsigned kNoticesInPacket = 100;

}  // namespace

std::string changeNotice(const std::string& table, Change change, const Row& row) {
    CVekBaseRecord record;
    const char* word = kChangeWords[static_cast<int>(change)];
    addField(record, "@change", std::make_unique<CVekAtom>(word));
    addField(record, "@table", std::make_unique<CVekAtom>(table.c_str()));
    addColumns(record, row);
    unsigned char* bytes = nullptr;
    int length = 0;
    record.ROMEncode(&bytes, &length);
    const std::unique_ptr<unsigned char, kvx::FreeDeleter> owned(bytes);
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes),
                                          static_cast<std::size_t>(length));
}

ChangePublisher::ChangePublisher(CVekEngine& engine, std::string subject)
    : engine_(engine), subject_(std::move(subject)), transport_(&engine_) {}

void ChangePublisher::add(std::string_view notice) {
    if (subject_.empty() || notice.empty()) return;
    auto* copy = static_cast<unsigned char*>(std::malloc(notice.size()));
    if (copy == nullptr) return;
    std::memcpy(copy, notice.data(), notice.size());
    auto atom = std::make_unique<CVekAtom>(copy, static_cast<int>(notice.size()));
    CVekAtom* record = atom.get();
    if (transport_.RTTakeROMP(&record) != 1) return;
    static_cast<void>(atom.release());
    ++published_;
    if (++waiting_ == kNoticesInPacket) flush();
}

void ChangePublisher::flush() {
    if (waiting_ == 0) return;
    waiting_ = 0;
    transport_.RTSetDestinationOnSubject(subject_.c_str());
    transport_.RTCreatePackets(VEK_TRANS_V1, true);
    transport_.RTSendAll(false);
}

}  // namespace modeld
