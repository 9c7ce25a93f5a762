// A long answer arrives as hundreds of independent compressed packets. Each thread inflates and
// decodes a run of them, and the runs are joined in the order of the packets.

#include "tools/kvx/AnswerDecoder.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>

namespace kvx::tool {

namespace {

constexpr unsigned kPacketsForAThread = 16;  // fewer are decoded before a thread starts
constexpr unsigned kMostDecoders = 4;        // threads

// Consecutive packets, and their records. One thread at a time.
struct Run {
    Run() = default;
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    CVekTransport packets{nullptr};
    Decoded decoded;
};

void decodeRecord(const CVekAtom& atom, Decoded& out) {
    unsigned char* bytes = nullptr;
    int length = 0;
    std::unique_ptr<CVekBaseRecord> record;
    if (atom.RAUChar(&bytes, &length) == 1) {
        record.reset(CVekBaseRecord::ROMDecode(bytes, length));
    }
    if (record) {
        out.records.push_back(std::move(record));
    } else {
        ++out.bad;
    }
}

void decodeRun(Run& run) {
    const std::unique_ptr<CVekBag> bag(run.packets.RTDecodes());
    run.decoded.records.reserve(bag->RBSize());
    for (unsigned i = 0; i < bag->RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(bag->RBGet(i)));
        decodeRecord(*atom, run.decoded);
    }
}

void decodeAll(std::vector<Run>& runs) {
    std::vector<std::thread> threads;
    std::size_t begun = 1;
    try {
        for (; begun < runs.size(); ++begun) {
            threads.emplace_back(decodeRun, std::ref(runs[begun]));
        }
    } catch (const std::system_error&) {
        // No further thread could be started: the rest is decoded here.
    }
    decodeRun(runs.front());
    for (; begun < runs.size(); ++begun) decodeRun(runs[begun]);
    for (std::thread& thread : threads) thread.join();
}

Decoded joined(std::vector<Run>& runs) {
    Decoded all = std::move(runs.front().decoded);
    for (auto run = runs.begin() + 1; run != runs.end(); ++run) {
        std::move(run->decoded.records.begin(), run->decoded.records.end(),
                  std::back_inserter(all.records));
        all.bad += run->decoded.bad;
    }
    return all;
}

}  // namespace

unsigned usualDecoders() {
    return std::clamp(std::thread::hardware_concurrency(), 1U, kMostDecoders);
}

Decoded decodeAnswer(CVekTransport& answer, unsigned threads) {
    const std::unique_ptr<CVekAtomVector> packets(answer.RTEncodes());
    const unsigned count = packets->RAVSize();
    std::vector<Run> runs(std::clamp(count / kPacketsForAThread, 1U, std::max(threads, 1U)));
    for (unsigned i = 0; i < count; ++i) {
        runs[i * runs.size() / count].packets.RTAddMessage(packets->RAVGetValue(i));
    }
    packets->RAVReset();
    decodeAll(runs);
    answer.RTSetError(runs.back().packets.RTError());
    return joined(runs);
}

}  // namespace kvx::tool
