#include "mom/net/CVekNet.h"

#include <algorithm>
#include <limits>

#include "mom/base/VekTrace.h"

namespace {

constexpr std::uint32_t kDefaultLatency = 8000;  // milliseconds

namespace netLine {
enum Line : int { CopyDomain = 122 };
}

std::uint32_t storedLatency(unsigned long latency) {
    if (latency == 0) return kDefaultLatency;
    return static_cast<std::uint32_t>(
        std::min<unsigned long>(latency, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

CVekNet::CVekNet() : m_latency(kDefaultLatency), m_lock(std::make_shared<CVekThread>()) {}

CVekNet::CVekNet(unsigned long latency, char* domain)
    : m_latency(storedLatency(latency)), m_domain(domain), m_lock(std::make_shared<CVekThread>()) {}

CVekNet::CVekNet(unsigned long latency, const char* domain)
    : m_latency(storedLatency(latency)),
      m_domain(kvx::copyText(domain)),
      m_lock(std::make_shared<CVekThread>()) {
    if (domain != nullptr && !m_domain) {
        kvx::report(kvx::kNoMemory, "CVekNet", netLine::CopyDomain);
    }
}

CVekNet::~CVekNet() {
    m_domain.reset();
    m_lock.reset();
}

void CVekNet::RNSafeExit() {
    kvx::trace(kvx::kTraceCalls, "\nCVekNet::RNSafeExit not overridden using default\n");
}

void CVekNet::RNSetLatency(unsigned long latency) {
    if (latency == 0) {
        kvx::warn("WARNING: The given net latency ", latency,
                  " is not valid. Using default latency value.\n");
    }
    const CVekThread::AutoMutex guard(*m_lock);
    m_latency = storedLatency(latency);
}

int CVekNet::RNSetDomain(char* domain) {
    const CVekThread::AutoMutex guard(*m_lock);
    if (domain == nullptr) return kvx::kInvalidArgument;
    if (domain != m_domain.get()) m_domain.reset(domain);
    return kvx::kOk;
}

unsigned long CVekNet::RNGetLatency() {
    return m_latency;
}

char* CVekNet::RNGetDomain() {
    return m_domain.get();
}
