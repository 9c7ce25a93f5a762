#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "platform/Export.h"

/// The room for C, and for languages that call C. What a call does, its bounds and its failures are
/// those of the C++ call that it stands for:
///
///     kvx_client_open         Client::open           kvx_service_open        Service::open,
///     kvx_client_end          Client::end                                    onQuery, onRole
///     kvx_client_close        Client::~Client        kvx_service_close       Service::~Service
///     kvx_is_connected        Client::isConnected    kvx_service_on_message  Service::onMessage
///     kvx_in_domain           Client::inDomain       kvx_service_run         Service::run
///     kvx_query               Client::query          kvx_service_stop        Service::stop
///     kvx_rows_next, _free    the rows of that       kvx_notify              Service::notify
///     kvx_request             Client::request        kvx_reply_row           Reply::row
///     kvx_publish             Client::publish        kvx_reply_refuse        Reply::refuse
///     kvx_listen, kvx_snoop   Client::listen, snoop  kvx_error               Error::message
///     kvx_unlisten            Subscription's end
///     kvx_next_event          what those two heard
///
/// A call that may fail returns a `kvx_code`; its text is then that of `kvx_error`. Nothing throws.
/// A null handle or a null text that must be given is `KVX_INVALID_ARGUMENT`; to free or close null
/// does nothing. A handle that was freed or closed must not be used.
///
/// Texts are UTF-8 and end with a zero byte. Those that are passed in are copied; those that are
/// passed out are valid until the call named with them, and are what others sent, unchecked.

#ifdef __cplusplus
extern "C" {
#endif

// --- Failures ------------------------------------------------------------------------------------

/// The numbers of `kvx::Errc`, and two results that are no failures: `KVX_OK`, `KVX_END`.
typedef enum kvx_code {
    KVX_OK = 0,
    KVX_INVALID_ARGUMENT,
    KVX_NO_DAEMON,
    KVX_LOST,
    KVX_TIMED_OUT,
    KVX_PARTIAL,
    KVX_MIXED_ANSWERS,
    KVX_REFUSED,
    KVX_QUEUE_FULL,
    KVX_NO_MEMORY,
    KVX_ENDED,
    KVX_BUSY,
    KVX_END = 100  ///< there is no further row
} kvx_code;

/// The text of the last failure on the calling thread, whatever handle it was on: "query Status:
/// timed out: nothing came for 8000 ms"; empty before any. Valid until the next call on this
/// thread.
KVX_API const char* kvx_error(void);

// --- Fields: rows and messages -------------------------------------------------------------------

typedef enum kvx_kind {
    KVX_NULL = 0,
    KVX_BOOLEAN,  ///< as.integer is 0 or 1
    KVX_INTEGER,  ///< as.integer
    KVX_REAL,     ///< as.real
    KVX_TEXT,     ///< as.text
    KVX_BYTES,    ///< as.bytes
    KVX_MESSAGE   ///< as.fields; nested in messages only, at most 32 deep
} kvx_kind;

struct kvx_field;

typedef struct kvx_value {
    int kind;     ///< a `kvx_kind`
    size_t size;  ///< of bytes, or the number of fields; of a text without its zero, not read in
    union {
        int64_t integer;
        double real;
        const char* text;
        const void* bytes;
        const struct kvx_field* fields;
    } as;
} kvx_value;

/// A row or a message is an array of them, in order.
typedef struct kvx_field {
    const char* name;
    kvx_value value;
} kvx_field;

/// A field for an array: `{kvx_text("name", "core-1"), kvx_integer("mtu", 1500)}`.
static inline kvx_field kvx_text(const char* name, const char* text) {
    kvx_field field;
    field.name = name;
    field.value.kind = KVX_TEXT;
    field.value.size = 0;
    field.value.as.text = text;
    return field;
}

static inline kvx_field kvx_integer(const char* name, int64_t integer) {
    kvx_field field;
    field.name = name;
    field.value.kind = KVX_INTEGER;
    field.value.size = 0;
    field.value.as.integer = integer;
    return field;
}

/// The first field of that name, or null.
static inline const kvx_field* kvx_find(const kvx_field* fields, size_t count, const char* name) {
    size_t i;
    for (i = 0; fields && name && i < count; ++i) {
        if (fields[i].name && strcmp(fields[i].name, name) == 0) return &fields[i];
    }
    return NULL;  // NOLINT(modernize-use-nullptr): this is C, too
}

/// Rows to walk, one thread at a time. They outlive what they came from.
typedef struct kvx_rows kvx_rows;

/// The next row. `KVX_END` after the last one of a whole answer; after the rows of an answer that
/// failed the code of `kvx_query`, and its text. The fields are valid until the next call with
/// `rows`.
KVX_API kvx_code kvx_rows_next(kvx_rows* rows, const kvx_field** fields, size_t* count);
KVX_API void kvx_rows_free(kvx_rows* rows);

// --- The client ----------------------------------------------------------------------------------
//
// Calls from any thread, except as stated.

typedef struct kvx_client kvx_client;

/// All zero is the default.
typedef struct kvx_client_options {
    const char* domain;   ///< null: "DEFAULT"
    const char* service;  ///< this and the next two null: as configured
    const char* network;
    const char* daemon;
    int timeout_ms;      ///< 0: 8000
    size_t most_events;  ///< that wait to be taken; 0: 1000
} kvx_client_options;

/// `options` may be null.
KVX_API kvx_code kvx_client_open(const kvx_client_options* options, kvx_client** client);

/// What waits gets `KVX_ENDED`, and so does every later call.
KVX_API void kvx_client_end(kvx_client* client);

/// Ends and frees the client. No other thread may be in a call with it, or make one later.
KVX_API void kvx_client_close(kvx_client* client);

KVX_API int kvx_is_connected(kvx_client* client);

/// Writes `subject` in the client's domain. `KVX_INVALID_ARGUMENT` when it does not fit `size`
/// bytes.
KVX_API kvx_code kvx_in_domain(kvx_client* client, const char* subject, char* out, size_t size);

/// Asks and waits for the whole answer. `timeout_ms` 0 is the client's own. `*rows` is null or has
/// what came, also on failure, and is the caller's to free.
KVX_API kvx_code kvx_query(kvx_client* client, const char* service, const char* text,
                           int timeout_ms, kvx_rows** rows);

/// Sends on exactly `subject` and waits for the first reply, which comes as one row.
KVX_API kvx_code kvx_request(kvx_client* client, const char* subject, const kvx_field* fields,
                             size_t count, int timeout_ms, kvx_rows** reply);

/// Sends on exactly `subject`.
KVX_API kvx_code kvx_publish(kvx_client* client, const char* subject, const kvx_field* fields,
                             size_t count);

/// Hears messages on exactly `subject`, which may have wildcards, or the changes that a service
/// tells, until `kvx_unlisten` of `*id`. They wait for `kvx_next_event`: at most `most_events`, and
/// 64 MiB; beyond that the oldest is dropped and counted.
KVX_API kvx_code kvx_listen(kvx_client* client, const char* subject, int* id);
KVX_API kvx_code kvx_snoop(kvx_client* client, const char* service, int* id);

/// No event of `id` comes any more.
KVX_API kvx_code kvx_unlisten(kvx_client* client, int id);

typedef struct kvx_event {
    int id;                     ///< of `kvx_listen` or `kvx_snoop`
    const char* subject;        ///< empty for a change
    const char* reply_subject;  ///< empty when no answer is asked for
    const kvx_field* fields;
    size_t count;
    uint64_t dropped;  ///< events that were dropped so far, also those of more than 65,535 fields
} kvx_event;

/// Takes the oldest event, for which it waits: `KVX_TIMED_OUT` after `timeout_ms`, below 0 never.
/// What `event` refers to is valid until the next such call with the client. One thread at a time.
KVX_API kvx_code kvx_next_event(kvx_client* client, int timeout_ms, kvx_event* event);

// --- The service ---------------------------------------------------------------------------------
//
// The thread that opens it runs and closes it. Its functions are called there; only with `threads`
// above 0 questions are answered on threads of its own. They must not unwind past their caller.

typedef struct kvx_service kvx_service;

/// The answer to one question, valid until the function returns that was given it.
typedef struct kvx_reply kvx_reply;

/// All zero is the default.
typedef struct kvx_service_options {
    const char* domain;   ///< null: "DEFAULT"
    const char* service;  ///< this and the next two null: as configured
    const char* network;
    const char* daemon;
    const char* group;  ///< null: none
    int tier;           ///< 0: 1
    int no_beats;
    int threads;
    unsigned long send_rate;  ///< 0: 100,000 a second
    int most_waiting;         ///< 0: 20,000
    /// Answers a question; null: none are heard.
    void (*answer)(void* closure, const char* question, kvx_reply* reply);
    /// At the start and at every change; may be null.
    void (*role)(void* closure, int is_active);
    void* closure;  ///< of both
} kvx_service_options;

/// `options` may be null.
KVX_API kvx_code kvx_service_open(const char* name, const kvx_service_options* options,
                                  kvx_service** service);
/// Not in a function that it calls.
KVX_API void kvx_service_close(kvx_service* service);

/// Has `received` called for every message on `subject` in the service's domain. Before the run.
/// The fields are valid during the call; a message of more than 65,535 is left out.
KVX_API kvx_code kvx_service_on_message(kvx_service* service, const char* subject,
                                        void (*received)(void* closure, const kvx_field* fields,
                                                         size_t count),
                                        void* closure);

/// Works until a signal or `kvx_service_stop`, once. `KVX_LOST` when not all that was queued could
/// be sent, or the query subject could not be heard.
KVX_API kvx_code kvx_service_run(kvx_service* service);

/// Any thread.
KVX_API void kvx_service_stop(kvx_service* service);

/// Tells of one changed row. Any thread.
KVX_API kvx_code kvx_notify(kvx_service* service, const kvx_field* fields, size_t count);

/// Adds a row. `KVX_ENDED` when the answer takes none any more: refused, or wanted by nobody. One
/// with a field that a row cannot hold refuses the question, since the answer would lack it.
KVX_API kvx_code kvx_reply_row(kvx_reply* reply, const kvx_field* fields, size_t count);

/// Makes the answer a refusal. `position`, when above 0, is the place in the question, from 1.
KVX_API kvx_code kvx_reply_refuse(kvx_reply* reply, const char* why, int position);

#ifdef __cplusplus
}
#endif
