#include "mom/engine/CVekClient.h"

CVekClient::CVekClient(unsigned long latency, char* domain) : CVekRvNet(latency, domain) {}

CVekClient::CVekClient(unsigned long latency, const char* domain) : CVekRvNet(latency, domain) {}

CVekClient::CVekClient(unsigned long latency, const char* domain, const kvx::DaemonAddress& address)
    : CVekRvNet(latency, domain, address) {}

CVekClient::~CVekClient() = default;

void CVekClient::RRNPostInitFns() {
    runPostInitFns();
}
