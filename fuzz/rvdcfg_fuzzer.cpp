// The configuration file as text, also after a parse that stopped early: every text parses, and a
// valid block on a line of its own is read after any input.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "foundation/foundation.h"
#include "mom/config/CVekRvdCfgParser.h"

namespace {

void parse(CVekRvdCfgParser& parser, std::string text) {
    if (parser.RRCPSetParseBuffer(text.data()) != 1) std::abort();
    if (parser.RRCPParseRvdCfg() != 1) std::abort();
}

void silence() {
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silence();
    CVekRvdCfgParser parser;
    parse(parser, std::string(reinterpret_cast<const char*>(data), size));
    // Ends what an early stop may have left open.
    for (int i = 0; i < 3; ++i) parse(parser, "'\"\n");
    while (parser.RRCPGetService() == nullptr ||
           std::strcmp(parser.RRCPGetService()->RAString(), "after") != 0) {
        parse(parser, "\n;rendezvous session = { 'service' = 'after' };");
    }
    return 0;
}
