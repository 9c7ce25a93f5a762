#pragma once

#include "foundation/foundation.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekTransport;

/// Whether a heartbeat's engine is the active member of its group.
enum EVekHbRunLevel { HB_PRIMARY = 0, HB_BACKUP = 1 };

/// The timer callback that announces a running engine.
///
/// It builds a record of service, domain, host, process id and type once, and sends it at every
/// tick ahead of all queued items. The type is 0 up to the first beat sent while primary, and 1 in
/// all later beats. Its timer's closure is the `CVekEngine`. Copies share everything: do not
/// destroy both copy and source. Loop thread only, except the level.
class KVX_API CVekHeartbeatClb : public RvTimerCallback {
  public:
    /// Copies the texts; a null service or domain is announced as an empty text. `env` gives the
    /// host name and is not kept.
    CVekHeartbeatClb(const char* service, const char* domain, CVekEnv* env);
    CVekHeartbeatClb(const CVekHeartbeatClb& other) = default;
    CVekHeartbeatClb& operator=(const CVekHeartbeatClb& other) = default;
    ~CVekHeartbeatClb() override;

    /// Sends one heartbeat.
    void onTimer(RvTimer* timer) override;

    /// Sets the level; the next tick replaces it by that of the engine. Returns 1.
    int RHCSetLevel(EVekHbRunLevel level);

    /// Copies `subject` as the new destination. Without memory reports -220553 and leaves no
    /// subject.
    void RHCSetSubject(const char* subject);

    // The record owns the five atoms; the members are references.
    CVekAtom* m_pid;
    CVekAtom* m_host;
    CVekAtom* m_domainAtom;
    CVekAtom* m_service;
    CVekBaseRecord* m_record = nullptr;  // owned
    int m_interval;                      // milliseconds
    CVekAtom* m_type;
    EVekHbRunLevel m_level = HB_BACKUP;    // any thread; every access is atomic
    CVekTransport* m_transport = nullptr;  // owned, null between ticks
    char* m_subject = nullptr;             // owned, malloc

  private:
    void RHCBuildRecord();
    void addField(const char* name, const CVekAtom* value, int line) const;
    void followEngine(bool active);
    void sendRecord() const;
    void announcePrimary();
};
