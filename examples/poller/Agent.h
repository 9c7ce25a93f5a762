#pragma once

// The library's own order: the configuration before everything else.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// Of the same names are constants of the middleware.
#undef FALSE
#undef TRUE

#include <kvx/kvx.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

/// An SNMP agent (version 2c) and the session to it.
///
/// Objects are asked for by number: no configuration files or modules are read. Only the library's
/// calls for single sessions are made; the main thread opens and closes them.
class Agent {
  public:
    /// Of `NAME=COMMUNITY@ADDRESS`; the address as net-snmp has it, such as "udp:10.0.0.1:161".
    /// Throws `std::invalid_argument` for another text and for an address that is not found.
    explicit Agent(const std::string& text) {
        const auto equals = text.find('=');
        const auto at = text.find('@', equals);
        if (at >= text.size()) throw std::invalid_argument(text + " has no '=' or no '@'");
        name = text.substr(0, equals);
        std::string community = text.substr(equals + 1, at - equals - 1);
        std::string address = text.substr(at + 1);
        netsnmp_session settings;
        snmp_sess_init(&settings);
        settings.version = SNMP_VERSION_2c;
        settings.peername = address.data();
        settings.community = reinterpret_cast<unsigned char*>(community.data());
        settings.community_len = community.size();
        settings.timeout = 500'000;  // microseconds, for each of two tries
        settings.retries = 1;
        session_.reset(snmp_sess_open(&settings));
        if (!session_) throw std::invalid_argument(text + ": the address is not found");
    }

    /// Adds what it says to `report`, as "sysName" and "ifOperStatus/2". False, with a part of it,
    /// when it does not answer, refuses, or says too much or too slowly. Any thread, one at a time.
    bool read(kvx::Message& report) const {
        static const std::vector<Object> objects = {
            {"sysUpTime", {1, 3, 6, 1, 2, 1, 1, 3}},
            {"sysName", {1, 3, 6, 1, 2, 1, 1, 5}},
            {"sysLocation", {1, 3, 6, 1, 2, 1, 1, 6}},
            {"ifDescr", {1, 3, 6, 1, 2, 1, 2, 2, 1, 2}},
            {"ifOperStatus", {1, 3, 6, 1, 2, 1, 2, 2, 1, 8}},
            {"ifInOctets", {1, 3, 6, 1, 2, 1, 2, 2, 1, 10}},
        };
        const auto end = Clock::now() + std::chrono::seconds(5);
        return std::ranges::all_of(objects, [&](auto& one) { return read(one, report, end); });
    }

    std::string name;

  private:
    using Number = std::vector<oid>;
    struct Object {
        std::string name;
        Number root;  // of a scalar or a column
    };
    using Clock = std::chrono::steady_clock;
    using Pdu = std::unique_ptr<netsnmp_pdu, void (*)(netsnmp_pdu*)>;
    static constexpr std::size_t kMostBytes = 256 * 1024;  // of a report

    // Until a row is not below the root, or not behind the last one.
    bool read(const Object& object, kvx::Message& report, Clock::time_point end) const {
        Number last = object.root;
        while (Clock::now() < end && report.base().size() < kMostBytes) {
            const auto answer = rowsAfter(last);
            if (!answer || answer->variables == nullptr) return answer != nullptr;
            for (const auto* row = answer->variables; row != nullptr; row = row->next_variable) {
                const Number number(row->name, row->name + row->name_length);
                const auto rest = std::ranges::mismatch(object.root, number);
                if (rest.in1 != object.root.end() || number <= last) return true;
                const Number index(rest.in2, number.end());
                std::string as = object.name;
                for (const oid part : index) {  // that of a scalar is 0
                    as += index.size() == 1 && part == 0 ? "" : '/' + std::to_string(part);
                }
                static_cast<void>(report.add(as, valueOf(*row)));
                last = number;
            }
        }
        return false;
    }

    Pdu rowsAfter(const Number& place) const {
        netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GETBULK);
        request->non_repeaters = 0;
        request->max_repetitions = 20;
        snmp_add_null_var(request, place.data(), place.size());
        netsnmp_pdu* answer = nullptr;
        const int status = snmp_sess_synch_response(session_.get(), request, &answer);
        Pdu owned(answer, &snmp_free_pdu);
        if (status != STAT_SUCCESS || answer->errstat != SNMP_ERR_NOERROR) owned.reset();
        return owned;
    }

    // None of a type that these objects do not have.
    static kvx::Value valueOf(const netsnmp_variable_list& row) {
        const bool isNumber = row.type == ASN_INTEGER || row.type == ASN_COUNTER ||
                              row.type == ASN_GAUGE || row.type == ASN_TIMETICKS;
        if (isNumber) return *row.val.integer;
        if (row.type != ASN_OCTET_STR) return {};
        const std::string_view text(reinterpret_cast<const char*>(row.val.string), row.val_len);
        if (text.find('\0') == std::string_view::npos) return text;
        return std::as_bytes(std::span(text));
    }

    std::unique_ptr<void, int (*)(void*)> session_{nullptr, &snmp_sess_close};
};
