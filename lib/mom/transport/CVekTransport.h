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

/// How records are put into packets: one a packet, or batched and compressed.
enum EVekTransHdr : std::int32_t {
    VEK_TRANS_V0 = 0,  ///< one record a packet, never compressed
    VEK_TRANS_V1 = 1,  ///< up to 10 records in one plain packet; more compressed, 100 a packet
};

/// Records that share one compressed packet.
inline constexpr unsigned VEK_TRANS_V1_RECORDS = 100;

/// What became of a transaction. The sender puts it into the header of every packet.
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

/// The unit in which records travel between services: cuts encoded records into numbered packets,
/// sends them, and puts received packets back together.
///
/// Sending a batch: `RTAddRecord` (and, for version 1, `RTPreparePayloads`) for each record,
/// `RTSetError` unless all is well, a destination, `RTSetDataCallbackPtr` for replies,
/// `RTCreatePackets`, `RTSendAll`. Receiving one: `RTAddMessage` for each message until `RTDone`,
/// then `RTDecodes`, `RTError`, `RTPurge`. One object serves one batch at a time, in either
/// direction, and one thread at a time. With an engine, packets go through its send queue, so any
/// thread may send; without one they go out on the sender at once, which only the main thread may
/// do.
///
/// Operations that return `int` return 1, or a negative code. Errors on the way are reported as
/// `CVekError` and the operation goes on.
///
/// Whatever bytes a peer sends, decoding neither reads past a packet nor believes a length that the
/// packet cannot hold: each packet with such a defect is reported once (-220494) and yields the
/// records before it. A receiver takes compressed packets of at most 256 MiB uncompressed, and of
/// each at most 65,536 records.
///
/// What a transport may occupy: the packets that were added to it, as long as they are, and 4,096
/// reserved places of 8 bytes; while a compressed packet is decoded, also its uncompressed bytes
/// (at most 1,032 for one and 4 KiB more). What `RTDecodes` returns is the caller's: for each
/// record its bytes and about 64 bytes more. So a packet of some 500 bytes may become 65,536
/// records and 4 MiB, and a plain packet one record for every 5 of its bytes: who takes packets
/// from strangers limits how many packets it adds.
///
/// No lock is held and no callback is called, but for error handlers, which must leave the
/// transport that reports as it is, and what `RTSendAll` names.
///
/// A copy shares the packets, the prepared payloads and the subject with its source: it must not be
/// used beside its source, and neither may be destroyed while the other lives on.
class KVX_API CVekTransport {
  public:
    /// `engine` may be null; it must outlive the transport.
    explicit CVekTransport(CVekEngine* engine);
    CVekTransport(const CVekTransport&) = default;
    CVekTransport& operator=(const CVekTransport&) = default;
    virtual ~CVekTransport();

    /// Encodes `record`, which stays the caller's. A record that encodes to nothing adds nothing.
    /// -220402 for null.
    int RTAddRecord(const CVekBaseRecord* record);

    /// Takes an encoded record over and sets `*romp` to null. -220402 for null, -220532 for an atom
    /// that is no byte string; then it stays the caller's.
    int RTTakeROMP(CVekAtom** romp);

    /// Version 1 only: compresses the waiting records when they are exactly 100. Called after each
    /// record, it keeps at most 100 encoded records in memory.
    void RTPreparePayloads(EVekTransHdr version);

    /// Appends the payloads of `other` to those of this transport, its waiting records made
    /// payloads first, and leaves `other` without records and payloads. So the blocks of a batch
    /// may be prepared on as many threads as there are transports, and one transport numbers and
    /// sends them. Does nothing when both are the same.
    void RTTakePayloads(CVekTransport& other, EVekTransHdr version);

    /// Makes packets of the prepared payloads and the waiting records. With `consume` the records
    /// are gone afterwards, else they stay for a further batch.
    int RTCreatePackets(EVekTransHdr version, bool consume);

    /// Adds the one packet of a batch without records, with the current store status.
    int RTNilResults();

    /// With an engine, copies the sender's subject (null clears it); without one, keeps `sender`,
    /// which must outlive the sending.
    int RTSetDestination(RvSender* sender);

    /// Sends to `subject` qualified by the engine's domain; null clears it. -220552 without an
    /// engine.
    int RTSetDestination(const char* subject);

    /// Sends to `subject` as it stands; null clears it. -220552 without an engine.
    int RTSetDestinationOnSubject(const char* subject);

    /// Who hears replies to what is queued with the engine; not owned.
    void RTSetDataCallbackPtr(RvDataCallback* callback);
    RvDataCallback* RTGetDataCallbackPtr() const;

    /// Sends all packets, in order; with `front` each goes ahead of what the engine's queue holds.
    /// -220552 without a destination, and then the packets stay. What a send runs (an advisory's
    /// callback, for instance) may do everything with the transport, and destroy it.
    int RTSendAll(bool front);

    /// `RTSendAll(true)`, for heartbeats.
    int RTSendHB();

    /// Hands the packets to the caller, who deletes them, and purges the rest.
    CVekAtomVector* RTEncodes();

    /// The packet that `message` carries, in a new atom that the caller owns, or null. Writes
    /// -220494 to `status`, which the caller has set to 1, for a message that holds anything but
    /// opaque fields; of several the last one counts.
    static CVekAtom* RTDecodeMessage(RvMsg* message, int& status);

    /// Adds the packet of a received message, which stays the caller's. 1 for a null or empty one,
    /// -220494 for one that holds anything but opaque bytes.
    int RTAddMessage(RvMsg* message);

    /// Adds a packet and takes the atom over. -220402 for null and for an atom without bytes, which
    /// stays the caller's. The first whole packet says how many the batch has.
    int RTAddMessage(CVekAtom* packet);

    /// Whether as many packets are here as the first one announced.
    __boolean RTDone();

    /// The records of all packets in the order in which the packets came, as byte-string atoms; the
    /// caller owns the bag and the atoms. Sets the store status to that of the last packet.
    CVekBag* RTDecodes();

    /// Forgets packets, payloads and the store status, and keeps the waiting records.
    int RTPurge();

    void RTSetError(EVekStoreErrorStatus status);
    EVekStoreErrorStatus RTError();

    /// "( ", `text` and what `status` means; the caller frees the result with `free`. A status out
    /// of range is reported as -220439.
    static char* RTPrintError(EVekStoreErrorStatus status, const char* text);

    /// Writes the same for the current status to standard output.
    void RTPrintError(const char* text);

  private:
    void RTCreatePayloads(EVekTransHdr version, bool consume);
    CVekDoubleList* RTCreateVersion0Payloads(bool consume);
    CVekDoubleList* RTCreateBufferedPayloads(bool consume);
    CVekDoubleList* RTCreateCompressedPayloads(bool consume);
    unsigned char* RTGenerateHeader(unsigned char* buffer, long long sequence, long long count,
                                    EVekTransHdr version, unsigned short kind);
    // Both return whether the payload was whole.
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
    CVekDoubleList m_payloads;     // CVekPointers to payload descriptors, which the transport owns
    RvSender* m_sender = nullptr;  // not owned
    char* m_subject = nullptr;     // owned
    EVekStoreErrorStatus m_storeStatus = STORE_COMPLETE;
    RvDataCallback* m_dataCallback = nullptr;  // not owned
};
