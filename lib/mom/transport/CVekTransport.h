#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/Boolean.h"
#include "foundation/CVekAtomVector.h"
#include "foundation/CVekDoubleList.h"
#include "platform/Export.h"

class CVekAtom;
class CVekBag;
class CVekBaseRecord;
class CVekEngine;
class RvDataCallback;
class RvMsg;
class RvSender;
struct SVekTransPayload;

/// The header versions, which decide how records are packed.
enum EVekTransHdr : std::int32_t {
    VEK_TRANS_V0 = 0,  ///< one record a packet, never compressed
    VEK_TRANS_V1 = 1,  ///< up to 10 records in one plain packet; more compressed, 100 a packet
};

/// Records that share one compressed packet.
inline constexpr unsigned VEK_TRANS_V1_RECORDS = 100;

/// The result of a transaction, in the header of every packet.
enum EVekStoreErrorStatus : std::int32_t {
    STORE_COMPLETE = 0,
    STORE_PERMISSION_DENIED,
    STORE_NO_DATABASE,
    STORE_NO_TABLE,
    STORE_NO_COLUMN,
    STORE_NO_INDEX,
    STORE_TYPE_MISMATCH,
    STORE_INCOMPLETE_ROW,
    STORE_ZERO_MATCHES,
    STORE_TABLE_CREATE_FAILED,
    STORE_DATABASE_CREATE_FAILED,
    STORE_INDEX_CREATE_FAILED,
    STORE_DUPLICATE_KEY,
    STORE_UPDATE_FAILED,
};

/// Transports records between services: packs encoded records into numbered packets, sends them,
/// and unpacks received ones.
///
/// Sending a batch: `RTAddRecord` (and, for version 1, `RTPreparePayloads`) for each record,
/// `RTSetError` unless all is well, a destination, `RTSetDataCallbackPtr` for replies,
/// `RTCreatePackets`, `RTSendAll`. Receiving one: `RTAddMessage` for each message until `RTDone`,
/// then `RTDecodes`, `RTError`, `RTPurge`. One object serves one batch at a time, in either
/// direction, and one thread at a time. With an engine, packets are queued on it, so any thread may
/// send; without one they are sent on the sender at once, on the main thread only.
///
/// Operations that return `int` return 1, or a negative code. Other errors are reported as
/// `CVekError` and the operation continues.
///
/// Decoding is safe on any bytes: it neither reads past a packet nor trusts a length that exceeds
/// it. Each defective packet is reported once (-220494) and yields the records before the defect. A
/// receiver accepts compressed packets of at most 256 MiB uncompressed, and at most 65,536 records
/// of each.
///
/// Memory of a transport: the packets added to it, and 4,096 reserved places of 8 bytes; while a
/// compressed packet is decoded, also its uncompressed bytes (at most 1,032 for one and 4 KiB
/// more). `RTDecodes` returns for each record its bytes and about 64 bytes more. So a packet of
/// some 500 bytes may become 65,536 records and 4 MiB, and a plain packet one record for every 5 of
/// its bytes: a receiver of untrusted packets must limit how many it adds.
///
/// Holds no lock. User code is called only by `RTSendAll`, and as an error handler, which must not
/// change the reporting transport.
///
/// A copy shares the packets, the prepared payloads and the subject with its source: use only one
/// of them, and destroy neither while the other exists.
class KVX_API CVekTransport {
  public:
    /// `engine` may be null; it must outlive the transport.
    explicit CVekTransport(CVekEngine* engine);
    CVekTransport(const CVekTransport&) = default;
    CVekTransport& operator=(const CVekTransport&) = default;
    virtual ~CVekTransport();

    /// Encodes `record`, which the caller keeps. A record that cannot be encoded adds nothing.
    /// -220402 for null.
    int RTAddRecord(const CVekBaseRecord* record);

    /// Takes ownership of an encoded record and sets `*romp` to null. -220402 for null, -220532 for
    /// an atom that is not a byte string; the caller then keeps it.
    int RTTakeROMP(CVekAtom** romp);

    /// Version 1 only: compresses the waiting records when they are exactly 100. Called after each
    /// record, it keeps at most 100 encoded records in memory.
    void RTPreparePayloads(EVekTransHdr version);

    /// Makes payloads of the records of `other` and moves all its payloads to the end of this
    /// transport's. So several threads may prepare the blocks of a batch, each with its own
    /// transport, and one transport numbers and sends them. Does nothing when both are the same.
    void RTTakePayloads(CVekTransport& other, EVekTransHdr version);

    /// Makes packets of the prepared payloads and the waiting records. With `consume` the records
    /// are deleted, else they stay for another batch.
    int RTCreatePackets(EVekTransHdr version, bool consume);

    /// Adds the one packet of a batch without records, with the current store status.
    int RTNilResults();

    /// With an engine, copies the sender's subject (null clears it); without one, keeps `sender`,
    /// which must outlive the sending.
    int RTSetDestination(RvSender* sender);

    /// Sends to `subject` qualified by the engine's domain; null clears it. -220552 without an
    /// engine.
    int RTSetDestination(const char* subject);

    /// Sends to exactly `subject`; null clears it. -220552 without an engine.
    int RTSetDestinationOnSubject(const char* subject);

    /// The callback for replies to packets queued on the engine; not owned.
    void RTSetDataCallbackPtr(RvDataCallback* callback);
    RvDataCallback* RTGetDataCallbackPtr() const;

    /// Sends all packets, in order; with `front` each is queued at the front. -220552 without a
    /// destination, and (reported) with a packet above 64 MiB less 2 KiB, which no message holds: a
    /// receiver would wait for it in vain. The packets then stay. What the bus refuses afterwards
    /// does not change the result: a queued packet is then reported by the engine, one sent on a
    /// sender is dropped silently (the session's status has the reason). User code run by a send
    /// (an advisory's callback, for instance) may use and destroy the transport.
    int RTSendAll(bool front);

    /// `RTSendAll(true)`, for heartbeats.
    int RTSendHB();

    /// Returns the packets, which the caller deletes, and purges the rest.
    CVekAtomVector* RTEncodes();

    /// The packet in `message`, as a new atom that the caller owns, or null. Sets `status`, which
    /// the caller has set to 1, to -220494 for a message with any other than opaque fields; of
    /// several fields the last one counts.
    static CVekAtom* RTDecodeMessage(RvMsg* message, int& status);

    /// Adds the packet of a received message, which the caller keeps. 1 for a null or empty one,
    /// -220494 for one with any other than opaque fields.
    int RTAddMessage(RvMsg* message);

    /// Adds a packet and takes ownership of the atom. -220402 for null and for an atom without
    /// bytes, which the caller keeps. The first packet with a complete header sets the number of
    /// packets of the batch.
    int RTAddMessage(CVekAtom* packet);

    /// Whether the number of packets is that announced by the first one.
    __boolean RTDone();

    /// The records of all packets in the order of arrival, as byte-string atoms; the caller owns
    /// the bag and the atoms. Sets the store status to that of the last packet.
    CVekBag* RTDecodes();

    /// Deletes packets and payloads, clears the store status, and keeps the waiting records.
    int RTPurge();

    void RTSetError(EVekStoreErrorStatus status);
    EVekStoreErrorStatus RTError();

    /// "( ", `text` and the meaning of `status`; the caller frees the result with `free`. Reports
    /// -220439 for a status out of range.
    static char* RTPrintError(EVekStoreErrorStatus status, const char* text);

    /// Writes that text for the current status to standard output.
    void RTPrintError(const char* text);

  private:
    void RTCreatePayloads(EVekTransHdr version, bool consume);
    CVekDoubleList* RTCreateVersion0Payloads(bool consume);
    CVekDoubleList* RTCreateBufferedPayloads(bool consume);
    CVekDoubleList* RTCreateCompressedPayloads(bool consume);
    unsigned char* RTGenerateHeader(unsigned char* buffer, long long sequence, long long count,
                                    EVekTransHdr version, unsigned short kind);
    // Both return whether the payload was complete.
    bool RTDecodePayload(unsigned char* data, int length, CVekBag& out);
    bool RTDecodeCompressedPayload(unsigned char* data, int length, CVekBag& out);

    bool decodePacket(const CVekAtom& packet, CVekBag& out);
    void takePayloads(CVekDoubleList* payloads);
    void movePayloads(CVekDoubleList& from);
    void dropPayloads();
    void resetPackets();
    void addPacket(const SVekTransPayload& payload, long long sequence, long long count,
                   EVekTransHdr version);
    void adoptPacket(unsigned char* buffer, std::size_t size);

    CVekEngine* m_engine;       // not owned
    CVekAtomVector* m_packets;  // owned
    std::uint32_t m_expected = 0;
    CVekAtomVector m_records;
    CVekDoubleList m_payloads;     // CVekPointers to payloads, which the transport owns
    RvSender* m_sender = nullptr;  // not owned
    char* m_subject = nullptr;     // owned
    EVekStoreErrorStatus m_storeStatus = STORE_COMPLETE;
    RvDataCallback* m_dataCallback = nullptr;  // not owned
};
