#pragma once

class CVekEngine;
class RvDataCallback;
class RvDatum;

/// Operations of an engine for its transport, defined in `engine/CVekEngineQueue.cpp`: this room
/// does not include the engine.
namespace kvx::transport {

/// As `CVekRvNet::RRNDomainSubj`.
char* qualifiedSubject(CVekEngine& engine, const char* subject);

/// Queues a send on exactly `subject`, with the latency as time-out, at the front with `front`.
/// Takes ownership of `datum`.
void queueSend(CVekEngine& engine, const char* subject, RvDatum* datum,
               const RvDataCallback* callback, bool front);

}  // namespace kvx::transport
