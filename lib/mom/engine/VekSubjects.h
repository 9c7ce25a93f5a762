#pragma once

/// Subjects, field names and times shared by services.
inline constexpr const char VEK_MODEL2MYSQL_QUERY[] = "ZEMBRALIX.3.0.MODEL2MYSQL.QUERY";
inline constexpr const char VEK_DISCO_PINGFINDER_QUERY[] = "ZEMBRALIX.3.0.DISCO.PINGFINDER.QUERY";
inline constexpr const char VEK_SNMPHELPER_QUERY[] = "KVX.SNMPHELPER.QUERY";
inline constexpr const char VEK_VIRTUALDOMAIN_QUERY[] = "KVX.VIRTUALDOMAIN.QUERY";
inline constexpr const char VEK_ADDRESS_SPACE_FIELD[] = "m_AddressSpace";

namespace kvx {

/// The default subject of heartbeats; the engine does not trace sends to it.
inline constexpr const char kHeartbeatSubject[] = "ZEMBRALIX.3.0.CTRL.NOTIFY";

/// Milliseconds between two heartbeats of a service.
inline constexpr int kHeartbeatInterval = 10'000;

}  // namespace kvx
