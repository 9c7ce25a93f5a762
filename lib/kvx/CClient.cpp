// The client's part of the C interface. What is heard waits in a queue until it is taken, so that
// no function of the caller runs on the client's thread.

#include <atomic>
#include <cstring>
#include <map>
#include <utility>

#include "kvx/CCall.h"
#include "kvx/CEvents.h"
#include "kvx/CFields.h"
#include "kvx/Client.h"

using kvx::detail::badArgument;
using kvx::detail::EventQueue;
using kvx::detail::failed;
using kvx::detail::FieldList;
using kvx::detail::guarded;
using kvx::detail::HeardEvent;
using kvx::detail::messageOf;
using kvx::detail::orEmpty;
using kvx::detail::outcome;

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr std::size_t kMostEvents = 1000;
constexpr std::size_t kFieldBytes = 64;  // charged beside the name and the value

std::optional<Milliseconds> timeoutOf(int milliseconds) {
    return milliseconds == 0 ? std::nullopt : std::optional(Milliseconds(milliseconds));
}

std::size_t bytesOf(const kvx::Record& record) {
    std::size_t bytes = 0;
    for (const kvx::Field& field : record) {
        bytes += kFieldBytes + field.name.size();
        bytes += field.value.as<std::string_view>().value_or("").size();
        bytes += field.value.as<kvx::Value::Bytes>().value_or(kvx::Value::Bytes()).size();
    }
    return bytes;
}

}  // namespace

// --- Rows ----------------------------------------------------------------------------------------

struct kvx_rows {
    kvx_rows() = default;
    kvx_rows(const kvx_rows&) = delete;
    kvx_rows& operator=(const kvx_rows&) = delete;
    virtual ~kvx_rows() = default;

    /// Sets `current` to the next row.
    virtual kvx_code next() = 0;

    FieldList current;
};

namespace {

class AnswerRows : public kvx_rows {
  public:
    explicit AnswerRows(kvx::QueryResult result) {
        if (result) {
            rows_ = std::move(*result);
        } else {
            rows_ = std::move(result.error().rows);
            end_ = static_cast<kvx_code>(result.error().code);
            text_ = result.error().message();
        }
    }

    kvx_code next() override {
        if (place_ == rows_.size()) return end();
        current.set(rows_[place_++]);
        return KVX_OK;
    }

    /// How the answer has ended.
    [[nodiscard]] kvx_code end() const { return end_ == KVX_END ? end_ : failed(end_, text_); }

  private:
    kvx::Rows rows_;
    std::size_t place_ = 0;
    kvx_code end_ = KVX_END;
    std::string text_;
};

class ReplyRow : public kvx_rows {
  public:
    /// False for a reply of too many fields.
    [[nodiscard]] bool set(const kvx::Message& reply) { return current.set(reply); }

    kvx_code next() override { return std::exchange(isTaken_, true) ? KVX_END : KVX_OK; }

  private:
    bool isTaken_ = false;
};

}  // namespace

kvx_code kvx_rows_next(kvx_rows* rows, const kvx_field** fields, size_t* count) {
    if (rows == nullptr || fields == nullptr || count == nullptr) {
        return badArgument("a null pointer", "kvx_rows_next");
    }
    *fields = nullptr;
    *count = 0;
    return guarded([&] {
        const kvx_code code = rows->next();
        if (code != KVX_OK) return code;
        *fields = rows->current.fields().data();
        *count = rows->current.fields().size();
        return code;
    });
}

void kvx_rows_free(kvx_rows* rows) {
    delete rows;
}

// --- The client ----------------------------------------------------------------------------------

struct kvx_client {
    kvx_client(kvx::Client opened, std::size_t mostEvents)
        : client(std::move(opened)), events(mostEvents) {}
    ~kvx_client() {
        client.end();  // nothing is heard any more
    }
    kvx_client(const kvx_client&) = delete;
    kvx_client& operator=(const kvx_client&) = delete;

    /// Keeps what `subscribe(id)` gives.
    template <class Subscribe>
    kvx_code add(int* id, Subscribe subscribe) {
        const int number = ++lastId;
        auto heard = subscribe(number);
        if (!heard) return failed(heard.error());
        const std::lock_guard guard(mutex);
        subscriptions.emplace(number, std::move(*heard));
        *id = number;
        return KVX_OK;
    }

    kvx::Client client;
    EventQueue events;
    std::atomic<int> lastId{0};
    std::mutex mutex;
    std::map<int, kvx::Subscription> subscriptions;  // guarded by mutex

    // Of the thread that takes events.
    HeardEvent taken;
    FieldList fields;
};

kvx_code kvx_client_open(const kvx_client_options* options, kvx_client** client) {
    if (client == nullptr) return badArgument("a null pointer", "kvx_client_open");
    *client = nullptr;
    return guarded([&] {
        const kvx_client_options given = options != nullptr ? *options : kvx_client_options{};
        kvx::Client::Options wanted;
        if (given.domain != nullptr) wanted.domain = given.domain;
        wanted.daemon = {orEmpty(given.service), orEmpty(given.network), orEmpty(given.daemon)};
        wanted.timeout = timeoutOf(given.timeout_ms).value_or(wanted.timeout);
        auto opened = kvx::Client::open(std::move(wanted));
        if (!opened) return failed(opened.error());
        *client = new kvx_client(std::move(*opened),
                                 given.most_events > 0 ? given.most_events : kMostEvents);
        return KVX_OK;
    });
}

void kvx_client_end(kvx_client* client) {
    if (client == nullptr) return;
    guarded([&] {
        client->client.end();
        client->events.end();
        return KVX_OK;
    });
}

void kvx_client_close(kvx_client* client) {
    delete client;
}

int kvx_is_connected(kvx_client* client) {
    return client != nullptr && client->client.isConnected() ? 1 : 0;
}

kvx_code kvx_in_domain(kvx_client* client, const char* subject, char* out, size_t size) {
    if (client == nullptr || subject == nullptr || out == nullptr) {
        return badArgument("a null pointer", "kvx_in_domain");
    }
    return guarded([&] {
        const std::string text = client->client.inDomain(subject);
        if (text.size() >= size) return badArgument("too little room", "kvx_in_domain");
        std::memcpy(out, text.c_str(), text.size() + 1);
        return KVX_OK;
    });
}

kvx_code kvx_query(kvx_client* client, const char* service, const char* text, int timeout_ms,
                   kvx_rows** rows) {
    if (rows != nullptr) *rows = nullptr;
    if (client == nullptr || service == nullptr || text == nullptr || rows == nullptr) {
        return badArgument("a null pointer", "kvx_query");
    }
    return guarded([&] {
        auto answer = std::make_unique<AnswerRows>(
            client->client.query(service, text, timeoutOf(timeout_ms)));
        const kvx_code end = answer->end();
        *rows = answer.release();
        return end == KVX_END ? KVX_OK : end;
    });
}

kvx_code kvx_request(kvx_client* client, const char* subject, const kvx_field* fields, size_t count,
                     int timeout_ms, kvx_rows** reply) {
    if (reply != nullptr) *reply = nullptr;
    if (client == nullptr || subject == nullptr || reply == nullptr) {
        return badArgument("a null pointer", "kvx_request");
    }
    return guarded([&] {
        const auto message = messageOf(fields, count);
        if (!message) return failed(message.error());
        const auto answer = client->client.request(subject, *message, timeoutOf(timeout_ms));
        if (!answer) return failed(answer.error());
        auto row = std::make_unique<ReplyRow>();
        if (!row->set(*answer)) {
            return failed({kvx::Errc::Partial, "the reply has more than 65,535 fields",
                           std::string("request on ") + subject});
        }
        *reply = row.release();
        return KVX_OK;
    });
}

kvx_code kvx_publish(kvx_client* client, const char* subject, const kvx_field* fields,
                     size_t count) {
    if (client == nullptr || subject == nullptr) {
        return badArgument("a null pointer", "kvx_publish");
    }
    return guarded([&] {
        const auto message = messageOf(fields, count);
        return message ? outcome(client->client.publish(subject, *message))
                       : failed(message.error());
    });
}

// --- Events --------------------------------------------------------------------------------------

kvx_code kvx_listen(kvx_client* client, const char* subject, int* id) {
    if (client == nullptr || subject == nullptr || id == nullptr) {
        return badArgument("a null pointer", "kvx_listen");
    }
    return guarded([&] {
        return client->add(id, [&](int number) {
            return client->client.listen(
                subject, [events = &client->events, number](const kvx::Delivery& delivery) {
                    guarded([&] {
                        events->push({number, std::string(delivery.subject),
                                      std::string(delivery.replySubject), delivery.message,
                                      std::nullopt, delivery.message.base().size()});
                        return KVX_OK;
                    });
                });
        });
    });
}

kvx_code kvx_snoop(kvx_client* client, const char* service, int* id) {
    if (client == nullptr || service == nullptr || id == nullptr) {
        return badArgument("a null pointer", "kvx_snoop");
    }
    return guarded([&] {
        const auto name = kvx::ServiceName::of(service);
        if (!name) return failed(name.error());
        return client->add(id, [&](int number) {
            return client->client.snoop(
                *name, [events = &client->events, number](const kvx::Record& change) {
                    guarded([&] {
                        events->push({number, {}, {}, {}, change, bytesOf(change)});
                        return KVX_OK;
                    });
                });
        });
    });
}

kvx_code kvx_unlisten(kvx_client* client, int id) {
    if (client == nullptr) return badArgument("a null pointer", "kvx_unlisten");
    return guarded([&] {
        std::unique_lock lock(client->mutex);
        auto ended = client->subscriptions.extract(id);
        lock.unlock();
        if (ended.empty()) return badArgument("no such subscription", "kvx_unlisten");
        ended.mapped() = {};
        client->events.forget(id);
        return KVX_OK;
    });
}

kvx_code kvx_next_event(kvx_client* client, int timeout_ms, kvx_event* event) {
    if (client == nullptr || event == nullptr) {
        return badArgument("a null pointer", "kvx_next_event");
    }
    return guarded([&] {
        std::optional<std::chrono::steady_clock::time_point> until;
        if (timeout_ms >= 0) until = std::chrono::steady_clock::now() + Milliseconds(timeout_ms);
        while (auto heard = client->events.take(until)) {
            client->taken = std::move(*heard);
            if (client->taken.change) {
                client->fields.set(*client->taken.change);
            } else if (!client->fields.set(client->taken.message)) {
                client->events.countDropped();
                continue;
            }
            const auto fields = client->fields.fields();
            *event = {client->taken.id,
                      client->taken.subject.c_str(),
                      client->taken.replySubject.c_str(),
                      fields.data(),
                      fields.size(),
                      client->events.dropped()};
            return KVX_OK;
        }
        if (client->events.hasEnded()) {
            return failed({kvx::Errc::Ended, "the client has ended", "kvx_next_event"});
        }
        return failed({kvx::Errc::TimedOut, "nothing was heard", "kvx_next_event"});
    });
}
