#pragma once

#include <cstdint>

#include "foundation/foundation.h"
#include "platform/Export.h"

/// The kinds of service. Processes pass and store the values, so they and the gaps never change.
enum __serv_types : std::int32_t {
    SERV_MODEL = 0,
    SERV_EVENTS = 1,
    SERV_UBRA = 2,
    SERV_CLASS = 3,
    SERV_AUTH = 4,
    SERV_MONITOR = 5,
    SERV_MONITOR_AGENT = 6,
    SERV_STORE = 7,
    SERV_DISCO = 8,
    SERV_DIST = 9,
    SERV_COMMENTS = 10,
    SERV_EXEC = 11,
    SERV_PROC = 12,
    SERV_STATUS = 13,
    SERV_TRAPMUX = 14,
    SERV_HELPER = 15,
    SERV_DESKTOP = 16,
    SERV_CTRL = 17,
    SERV_DBSERVER = 18,
    SERV_UNKNOWN = 19,
    SERV_CONFIG = 20,
    SERV_MONITOR2PLESSOR = 22,
    SERV_SIDTRAP = 23,
    SERV_JUBGATE = 24,
    SERV_SNMPHELPER = 25,
    SERV_VIRTUALDOMAIN = 26,
    SERV_DISCOPINGFINDER = 27
};

/// A service's name, as in configuration and command lines, and its kind.
struct SVekServiceName {
    const char* name;
    __serv_types value;
};

/// Maps between the kind of a service, its name and its two subjects.
///
/// All returned texts are static; a missing one is the empty text, never null. Any thread.
class KVX_API CVekServiceToSubjectMapper {
  public:
    /// The kind of a service name, in any case and with any number of leading "Vek";
    /// `SERV_UNKNOWN` for null, an empty and an unknown name.
    static __serv_types ServiceStringToEnum(const char* name);

    /// The first name of a kind; empty when it has none.
    static const char* EnumToServiceString(__serv_types value);

    /// The subject on which a service of this kind listens for queries; empty when it has none.
    static const char* ServiceEnumToQuerySubject(__serv_types value);

    /// The subject on which a service of this kind publishes changes; empty when it has none.
    static const char* ServiceEnumToNotifySubject(__serv_types value);

    static const char* ServiceStringToQuerySubject(const char* name);
    static const char* ServiceStringToNotifySubject(const char* name);

    /// All query subjects, each once, as text atoms in the order of the table. The caller owns the
    /// vector, which owns its atoms.
    static CVekAtomVector* QuerySubjectsAsVector();

    /// All service names. The order is significant: the first entry of a kind is its name.
    static const SVekServiceName ms_ServiceEnumMap[27];
};
