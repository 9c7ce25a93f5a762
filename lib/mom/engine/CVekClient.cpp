#include "mom/engine/CVekClient.h"

CVekClient::CVekClient(unsigned long latency, char* domain) : CVekRvNet(latency, domain) {}

CVekClient::CVekClient(unsigned long latency, const char* domain) : CVekRvNet(latency, domain) {}

CVekClient::~CVekClient() = default;

void CVekClient::RRNPostInitFns() {}
