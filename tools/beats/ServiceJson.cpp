#include "tools/beats/ServiceJson.h"

#include <nlohmann/json.hpp>

namespace kvx::beats {

namespace {

double seconds(Milliseconds span) {
    return static_cast<double>(span) / 1000.0;
}

}  // namespace

const char* roleOf(const Beat& beat) {
    return beat.hasBeenPrimary ? "primary" : "backup";
}

std::string serviceAsJson(const Service& service, Milliseconds now) {
    nlohmann::ordered_json json;
    json["service"] = service.beat.service;
    json["domain"] = service.beat.domain;
    json["host"] = service.beat.host;
    json["pid"] = service.beat.pid;
    json["role"] = roleOf(service.beat);
    json["age_seconds"] = seconds(service.age(now));
    json["known_seconds"] = seconds(now - service.firstHeard);
    json["beats"] = service.beats;
    json["missed"] = service.missed(now);
    json["overdue"] = service.overdue(now);
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kvx::beats
