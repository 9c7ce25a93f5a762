// A recording as its reader gets it: the input as a file; or a sound recording, of which the input
// says what is recorded, damaged, and given sound checks again.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "rv/recording/RecordFormat.h"
#include "rv/recording/RecordingReader.h"

namespace {

using namespace kvx;
using namespace kvx::recording;

constexpr std::size_t kCapacity = 8'192;
constexpr std::uint64_t kSeed = 1;

void require(bool holds) {
    if (!holds) std::abort();
}

class Input {
  public:
    Input(const std::uint8_t* bytes, std::size_t length) : rest_(bytes, length) {}
    std::uint16_t next() {
        if (rest_.size() < 2) {
            rest_ = {};
            return 0;
        }
        const std::uint16_t number = loadBig16(rest_.data());
        rest_ = rest_.subspan(2);
        return number;
    }
    std::span<const std::uint8_t> take(std::size_t most) {
        const auto taken = rest_.first(std::min(most, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    [[nodiscard]] bool empty() const { return rest_.empty(); }

  private:
    std::span<const std::uint8_t> rest_;
};

// Gives what is at that place the checks of a run that begins there.
void makeRun(std::span<std::uint8_t> ring, std::size_t at, std::uint64_t position) {
    std::uint8_t* const head = ring.data() + at;
    storeBig64(head + kAtPosition, position);
    const auto size =
        static_cast<std::size_t>(runHeadBytes(head[kAtServiceSize], head[kAtNetworkSize]));
    if (size > ring.size() - at) return;
    Check check(kSeed, position);
    check.take(head + kAtTime, size - kAtTime);
    storeBig64(head + kAtRunCheck, check.value());
}

// Gives what is at that place the checks of a message of such a run.
void makeMessage(std::span<std::uint8_t> ring, std::size_t at, std::uint64_t position) {
    std::uint8_t* const head = ring.data() + at;
    const std::uint64_t numbers = loadBig64(head + kAtLength);
    storeBig32(head + kAtHeadCheck, headCheck(kSeed, position, numbers));
    const std::uint64_t size = padded(numbers >> 32U & ~std::uint64_t{kIsPart});
    if (size > ring.size() - at - kMessageHeadBytes) return;
    Check check(kSeed, position);
    check.take(head + kMessageHeadBytes, static_cast<std::size_t>(size));
    storeBig32(head + kAtContentCheck, check.shortValue());
}

void makeSound(std::span<std::uint8_t> ring, std::size_t at, std::uint64_t round) {
    const std::size_t place = at & ~std::size_t{kUnit - 1};
    if (place + kAtNames > ring.size()) return;
    const auto make = at % 2 == 0 ? makeRun : makeMessage;
    make(ring, place, place + round * ring.size());
}

std::vector<std::uint8_t> built(Input input) {
    std::vector<std::uint8_t> memory(kFileHeadBytes + kCapacity);
    RecordingWriter writer(memory, kSeed, 0);
    const auto ring = std::span(memory).subspan(kFileHeadBytes);
    const auto subject = *Subject::fromText("A.B");
    std::uint64_t time = 0;
    while (!input.empty()) {
        const std::uint16_t what = input.next();
        const std::size_t at = input.next() % kCapacity;
        if (what % 4 == 0) {
            if (at % 2 == 0) writer.begin({++time, 1, "7500", ""});
            const auto bytes = input.take(at);
            const bool isWithin = bytes.size() == at && SubjectView::parse(bytes.data(), at);
            writer.add(isWithin ? SubjectView::trusted(bytes.data()) : subject.view(), bytes,
                       static_cast<std::uint32_t>(at));
        } else if (what % 4 == 1) {
            ring[at] = static_cast<std::uint8_t>(what >> 8U);
        } else if (what % 4 == 2) {
            const auto some = input.take(std::min<std::size_t>(16, kCapacity - at));
            std::copy(some.begin(), some.end(), ring.begin() + static_cast<std::ptrdiff_t>(at));
        } else {
            makeSound(ring, at, what >> 8U);
        }
    }
    return memory;
}

std::string pathOfFile() {
    return (std::filesystem::temp_directory_path() /
            ("recording." + std::to_string(std::random_device()())))
        .string();
}

void read(const std::vector<std::uint8_t>& file) {
    static const std::string path = pathOfFile();
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    RecordingReader reader(path);
    std::uint64_t bytes = 0;
    while (const auto entry = reader.next()) {
        require(reader.problem().empty() && entry->message.size() <= entry->messageSize);
        require(entry->service.size() + entry->network.size() <= 2 * kMostNameBytes);
        (void)isWholeMessage(*entry);
        require(!entry->subject.text().empty());
        bytes += kMessageHeadBytes + entry->message.size();
        require(bytes <= reader.capacity());
    }
    std::filesystem::remove(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
    if (length == 0) return 0;
    const bool isFile = bytes[0] == static_cast<std::uint8_t>(kMagic[0]);
    read(isFile ? std::vector(bytes, bytes + length) : built({bytes + 1, length - 1}));
    return 0;
}
