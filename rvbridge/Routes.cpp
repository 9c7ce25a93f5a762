#include "rvbridge/Routes.h"

#include <algorithm>

namespace kvx::bridge {

void Routes::Route::count(std::size_t bytes) {
    for (Traffic* const traffic : traffic_) {
        ++traffic->messages;
        traffic->bytes += bytes;
    }
}

Routes::Route& Routes::find(SubjectView subject, Microseconds now) {
    Route* route = routes_.find(subject.encoded());
    if (route == nullptr) {
        if (routes_.isFull()) {
            sharedUntil_ = std::max(sharedUntil_, routes_.oldest().second.sharedUntil_);
        }
        route = &routes_.add(subject.encoded(), {});
        route->sharedUntil_ = sharedUntil_;
    }
    if (route->interest_ != interest_) refresh(*route, subject);
    if (route->traffic_.size() > 1 || (route->isWanted() && now < route->sharedUntil_)) {
        route->sharedUntil_ = now + kShared;
        route->isDirect_ = false;
    } else {
        route->isDirect_ = route->isWanted() && !subject.hasWildcards();
    }
    return *route;
}

void Routes::refresh(Route& route, SubjectView subject) {
    if (sent_.size() > kMaxCounted) {
        sent_.clear();
        ++interest_;
    }
    route.interest_ = interest_;
    route.traffic_.clear();
    exchange_.eachWanting(subject, [&](const std::string& host) {
        Traffic* const traffic = &sent_[host];
        if (std::ranges::find(route.traffic_, traffic) != route.traffic_.end()) return;
        route.traffic_.push_back(traffic);
        route.host_ = host;
    });
}

Traffic Routes::sentTo(std::string_view host) const {
    const auto known = sent_.find(host);
    return known == sent_.end() ? Traffic{} : known->second;
}

}  // namespace kvx::bridge
