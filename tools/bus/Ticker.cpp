#include "tools/bus/Ticker.h"

#include <cstdio>
#include <utility>

#include "platform/File.h"
#include "tools/bus/Complain.h"

namespace kvx::bus {

namespace {

constexpr unsigned long kIntervalMs = 1000;

}  // namespace

Progress::Progress(CVekRvNet& net, std::function<std::string()> text) {
    if (!platform::isTerminal(stderr)) return;
    ticker_.emplace(net, kIntervalMs, Ticker::Repeat::Forever,
                    [text = std::move(text)] { showProgress(text()); });
}

Progress::~Progress() {
    if (ticker_) showProgress("");
}

}  // namespace kvx::bus
