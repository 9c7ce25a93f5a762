// Packets on the heartbeat subject: an accepted beat has texts of bounded length, a process and a
// role, and a table counts every packet once.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tools/beats/BeatTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto beat = kvx::beats::readBeat({data, size});
    if (beat) {
        for (const auto* text : {&beat->service, &beat->domain, &beat->host}) {
            if (text->size() > 255) std::abort();
        }
        if (beat->pid <= 0) std::abort();
    }
    kvx::beats::BeatTable table;
    if (table.hear({data, size}, 0) != beat.has_value()) std::abort();
    if (table.size() + table.counters().ignored != 1) std::abort();
    return 0;
}
