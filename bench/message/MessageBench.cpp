// A message of ten fields (text, numbers, 32 opaque bytes) against a hand-written loop over name,
// type, size byte and data with the same names, types and values and the same checks for the
// buffer's end. The row of the objects makes its message object and its iterator anew each time.

#include "bench/message/MessageBench.h"

#include <memory>
#include <vector>

#include "bench/message/PlainFields.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"

namespace {

using kvx::bench::Contestant;
using kvx::bench::keep;
using kvx::bench::PlainField;

constexpr std::size_t kCapacity = 1024;
constexpr std::size_t kTimes = 20000;
constexpr std::size_t kManyFields = 100'000;

const std::uint32_t kSequence = 4711;
const std::uint64_t kStamp = 1234567890123;
const std::uint16_t kPort = 7500;
const double kLoad = 0.75;
const float kRatio = 1.5F;

// The same names, types and values for both formats.
const std::vector<PlainField> kFields = {
    {"mtype", RVMSG_STRING, 2, "D"},
    {"sequence", RVMSG_UINT, 4, &kSequence},
    {"stamp", RVMSG_UINT, 8, &kStamp},
    {"port", RVMSG_UINT, 2, &kPort},
    {"load", RVMSG_REAL, 8, &kLoad},
    {"ratio", RVMSG_REAL, 4, &kRatio},
    {"host", RVMSG_STRING, 16, "server.example1"},
    {"service", RVMSG_STRING, 8, "MONITOR"},
    {"payload", RVMSG_OPAQUE, 32, "0123456789abcdef0123456789abcdef"},
    {"status", RVMSG_INT, 4, &kSequence},
};

// Both encoded forms. Every round puts them at another address: loads and stores whose addresses
// agree in their low bits delay each other, and one unlucky address would be measured instead of
// the code.
class Buffers {
  public:
    Buffers() : arena_(kPlaces * kStep + 2 * kCapacity) { move(); }

    void move() {
        plain = arena_.data() + place_ * kStep;
        message = plain + kCapacity;
        place_ = (place_ + 1) % kPlaces;
        encodePlain();
        encodeMessage();
    }
    void encodePlain() {
        std::uint8_t* at = plain;
        for (const PlainField& field : kFields) {
            at = kvx::bench::appendPlain(at, plain + kCapacity, field);
            if (at == nullptr) return;
        }
        plainLength = static_cast<std::size_t>(at - plain);
    }
    void encodeMessage() const {
        rvmsg_Init(message, kCapacity);
        for (const PlainField& field : kFields) {
            if (rvmsg_Append(message, kCapacity, field.name, field.type, field.size, field.data)) {
                return;
            }
        }
    }

    std::uint8_t* plain = nullptr;
    std::size_t plainLength = 0;
    std::uint8_t* message = nullptr;

  private:
    static constexpr std::size_t kPlaces = 61;
    static constexpr std::size_t kStep = 456;

    std::vector<std::uint8_t> arena_;
    std::size_t place_ = 0;
};

int sumSizes(const char*, rvmsg_Type, rvmsg_Size size, rvmsg_Data data, void* sum) {
    keep(data);
    *static_cast<std::size_t*>(sum) += size;
    return 0;
}

template <class Work>
Contestant repeated(Buffers& buffers, const char* name, Work work) {
    return {name, [&buffers, work](std::size_t times) {
                buffers.move();
                for (std::size_t i = 0; i < times; ++i) work();
            }};
}

std::vector<Contestant> encoders(Buffers& buffers) {
    return {repeated(buffers, "hand-written loop",
                     [&] {
                         buffers.encodePlain();
                         keep(buffers);
                     }),
            repeated(buffers, "rvmsg_Append", [&] {
                buffers.encodeMessage();
                keep(buffers);
            })};
}

std::vector<Contestant> walkers(Buffers& buffers) {
    const auto plain = [&buffers] {
        alignas(8) std::uint8_t scratch[16];
        std::size_t sum = 0;
        PlainField field{};
        const std::uint8_t* const end = buffers.plain + buffers.plainLength;
        for (const std::uint8_t* at = buffers.plain; at != nullptr && at != end;) {
            at = kvx::bench::readPlain(at, end, scratch, field);
            keep(field.data);
            sum += field.size;
        }
        keep(sum);
    };
    const auto callback = [&buffers] {
        std::size_t sum = 0;
        rvmsg_Iterate(buffers.message, nullptr, sumSizes, &sum);
        keep(sum);
    };
    const auto iterator = [&buffers] {
        const RvMsg message(static_cast<rvmsg_Msg>(buffers.message));
        const std::unique_ptr<RvMsgIterator> fields(message.newIterator());
        std::size_t sum = 0;
        while (const RvDatum* field = fields->next()) sum += field->size();
        keep(sum);
    };
    return {repeated(buffers, "hand-written loop", plain),
            repeated(buffers, "rvmsg_Iterate", callback),
            repeated(buffers, "RvMsg and RvMsgIterator", iterator)};
}

std::vector<Contestant> finders(Buffers& buffers) {
    const char* const last = kFields.back().name;
    const auto plain = [&buffers, last] {
        alignas(8) std::uint8_t scratch[16];
        PlainField field{};
        const std::uint8_t* const end = buffers.plain + buffers.plainLength;
        keep(kvx::bench::findPlain(buffers.plain, end, last, scratch, field));
        keep(field.data);
    };
    const auto message = [&buffers, last] {
        alignas(8) std::uint8_t scratch[16];
        rvmsg_Data data = nullptr;
        keep(rvmsg_Get(scratch, buffers.message, last, nullptr, nullptr, &data));
        keep(data);
    };
    return {repeated(buffers, "hand-written loop", plain), repeated(buffers, "rvmsg_Get", message)};
}

// One message receives all the fields of a round.
std::vector<Contestant> growers() {
    const auto filled = [](unsigned long reserved) {
        return [reserved](std::size_t fields) {
            RvMsg message(reserved);
            for (std::size_t i = 0; i < fields; ++i) message.append("sequence", kSequence);
            keep(message);
        };
    };
    constexpr unsigned long kFieldBytes = 24;
    return {{"RvMsg with room for all", filled(kManyFields * kFieldBytes)},
            {"RvMsg that grows each time", filled(0)}};
}

}  // namespace

namespace kvx::bench {

std::vector<MessageQuestion> messageQuestions() {
    static Buffers buffers;
    buffers.encodePlain();
    buffers.encodeMessage();
    rvmsg_Size length = 0;
    rvmsg_Length(buffers.message, &length);
    const auto validate = [length] { keep(rvmsg_Validate(buffers.message, length)); };
    return {{"encode 10 fields", encoders(buffers), kTimes},
            {"decode all 10 fields", walkers(buffers), kTimes},
            {"find the last by name", finders(buffers), kTimes},
            {"append to 100,000 fields", growers(), kManyFields},
            {"validate once", {repeated(buffers, "rvmsg_Validate", validate)}, kTimes}};
}

}  // namespace kvx::bench
