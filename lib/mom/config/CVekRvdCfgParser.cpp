// The parser object only stores the text and the values. The generated grammar and scanner do the
// work; their state is process-wide, and `parseLock` serialises the threads that use it. Under the
// lock a text is only read: blocks are applied and errors are written afterwards, since both run
// code of the program, which may throw or parse.

#include "mom/config/CVekRvdCfgParser.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"
#include "mom/base/VekTrace.h"
#include "mom/config/ReadConfiguration.h"
#include "mom/config/VekRvdCfgScan.h"
#include "platform/Memory.h"

namespace {

std::mutex& parseLock() {
    static std::mutex lock;
    return lock;
}

int replaceValue(CVekAtom*& member, const CVekAtom* value, const char* operation) {
    if (value == nullptr) return kvx::kInvalidArgument;
    auto* copy = new CVekAtom(*value);
    delete member;
    member = copy;
    if (__ZembraLix_Debug_Level >= kvx::kTraceCalls) {
        const std::unique_ptr<char, decltype(&std::free)> text(member->RAStrRep(), &std::free);
        kvx::trace(kvx::kTraceCalls, "CVekRvdCfgParser::", operation, "(", text.get(), ")\n");
    }
    return kvx::kOk;
}

bool same(const char* left, const char* right) {
    return left != nullptr && std::strcmp(left, right) == 0;
}

void applyItem(CVekRvdCfgParser& parser, const CVekVarBind& item) {
    const char* name = item.RVBName().RAString();
    const CVekAtom* value = item.RVBValue();
    if (same(name, "service")) {
        parser.RRCPSetService(value);
    } else if (same(name, "network")) {
        parser.RRCPSetNetwork(value);
    } else if (same(name, "daemon")) {
        parser.RRCPSetDaemon(value);
    } else if (same(name, "rva")) {
        parser.RRCPSetRVAPort(value);
    } else {
        kvx::warn(name != nullptr ? name : "", " not a valid service\n");
    }
}

// Returns 0, or another value when the parser gave up.
int parse(const char* text, kvx::config::Findings& findings) {
    const std::lock_guard<std::mutex> guard(parseLock());
    kvx::config::Scan scan(text);
    const int result = VekRvdCfgparse(&findings);
    scan.finish();
    return result;
}

}  // namespace

kvx::config::Finding kvx::config::block(const char* host, CVekVBList* items) {
    const bool isForAll = host == nullptr || same(host, "localhost");
    auto apply = [isForAll, host = std::string(isForAll ? "" : host),
                  owned = std::shared_ptr<CVekVBList>(items)](CVekRvdCfgParser& parser) {
        if (!isForAll && !same(CVekEnv().RELocalHost(), host.c_str())) return;
        for (const CVekVarBind* item = owned->RVBLHead(); item != nullptr;
             item = owned->RVBLGetNext(item)) {
            applyItem(parser, *item);
        }
    };
    return {.act = std::move(apply)};
}

kvx::config::Finding kvx::config::parserError(const char* message, int line) {
    auto report = [message, line](CVekRvdCfgParser&) {
        std::ostringstream text;
        text << "Calvorine.rvd.cfg Parser error: " << message << " line : " << line << "\n";
        try {
            std::cout << text.str();
        } catch (...) {
            // A failed output does not fail the parse.
        }
    };
    return {.act = report, .error = message, .line = line};
}

CVekRvdCfgParser::CVekRvdCfgParser() = default;

CVekRvdCfgParser::CVekRvdCfgParser(char* text) {
    const int result = RRCPSetParseBuffer(text);
    if (result != kvx::kOk) CVekError(result, "CVekRvdCfgParser", 0, nullptr);
}

CVekRvdCfgParser::~CVekRvdCfgParser() {
    std::free(m_parseBuffer);
    delete m_service;
    delete m_network;
    delete m_daemon;
    delete m_rvaPort;
}

int CVekRvdCfgParser::RRCPSetParseBuffer(char* text) {
    char* copy = text != nullptr ? strdup(text) : nullptr;
    std::free(m_parseBuffer);
    m_parseBuffer = copy;
    return text != nullptr && copy == nullptr ? kvx::kNoMemory : kvx::kOk;
}

char* CVekRvdCfgParser::RRCPGetParseBuffer() {
    return m_parseBuffer;
}

int CVekRvdCfgParser::RRCPParseRvdCfg() {
    if (m_parseBuffer == nullptr) return kvx::kInvalidArgument;
    kvx::config::Findings findings;
    const int result = parse(m_parseBuffer, findings);
    const auto first = std::ranges::find_if(
        findings, [](const auto& finding) { return finding.error != nullptr; });
    m_error = first == findings.end() ? "" : std::to_string(first->line) + ": " + first->error;
    for (const auto& finding : findings) finding.act(*this);
    return result == 0 ? kvx::kOk : kvx::kParserGaveUp;
}

int CVekRvdCfgParser::RRCPParseFromFilename(char* fileName) {
    if (fileName == nullptr) return kvx::kInvalidArgument;
    CVekReadOnlyFile file(fileName, false);
    if (file.ROFCheckAccess() == -1 || file.ROFOpen() != 0) return kvx::kFileUnusable;
    char* content = file.ROFReadAll();
    if (content == nullptr) return kvx::kFileUnusable;
    std::free(m_parseBuffer);
    m_parseBuffer = content;
    const int result = RRCPParseRvdCfg();
    if (!m_error.empty()) m_error.insert(0, std::string(fileName) + ":");
    return result;
}

const char* CVekRvdCfgParser::RRCPGetError() const {
    return m_error.c_str();
}

int CVekRvdCfgParser::RRCPSetService(const CVekAtom* value) {
    return replaceValue(m_service, value, "RRCPSetService");
}

int CVekRvdCfgParser::RRCPSetNetwork(const CVekAtom* value) {
    return replaceValue(m_network, value, "RRCPSetNetwork");
}

int CVekRvdCfgParser::RRCPSetDaemon(const CVekAtom* value) {
    return replaceValue(m_daemon, value, "RRCPSetDaemon");
}

int CVekRvdCfgParser::RRCPSetRVAPort(const CVekAtom* value) {
    return replaceValue(m_rvaPort, value, "RRCPSetRVAPort");
}

CVekAtom* CVekRvdCfgParser::RRCPGetService() {
    return m_service;
}

CVekAtom* CVekRvdCfgParser::RRCPGetNetwork() {
    return m_network;
}

CVekAtom* CVekRvdCfgParser::RRCPGetDaemon() {
    return m_daemon;
}

CVekAtom* CVekRvdCfgParser::RRCPGetRVAPort() {
    return m_rvaPort;
}

char* RvdCfgFileName() {
    const CVekEnv environment;
    CVekString path(environment.REHome());
    path.RSStrCat("/etc/Calvorine.rvd.cfg");
    return path.RSStringCopy();
}

kvx::SessionAddress kvx::readConfiguration(CVekRvdCfgParser& parser, const DaemonAddress& address) {
    const Text fileName(RvdCfgFileName());
    const bool isRead = fileName && parser.RRCPParseFromFilename(fileName.get()) == kOk;
    const auto choose = [&](const std::string& given, int (CVekRvdCfgParser::*set)(const CVekAtom*),
                            CVekAtom* (CVekRvdCfgParser::*get)()) -> const char* {
        if (!given.empty()) {
            const CVekAtom value(given.c_str());
            (parser.*set)(&value);
        }
        const CVekAtom* const value = isRead || !given.empty() ? (parser.*get)() : nullptr;
        return value != nullptr ? value->RAString() : nullptr;
    };
    using Parser = CVekRvdCfgParser;
    return {choose(address.service, &Parser::RRCPSetService, &Parser::RRCPGetService),
            choose(address.network, &Parser::RRCPSetNetwork, &Parser::RRCPGetNetwork),
            choose(address.daemon, &Parser::RRCPSetDaemon, &Parser::RRCPGetDaemon)};
}
