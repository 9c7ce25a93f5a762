// The service's part of the C interface.

#include <memory>
#include <thread>
#include <utility>

#include "kvx/CCall.h"
#include "kvx/CFields.h"
#include "kvx/Service.h"

using kvx::detail::badArgument;
using kvx::detail::failed;
using kvx::detail::FieldList;
using kvx::detail::guarded;
using kvx::detail::orEmpty;
using kvx::detail::outcome;
using kvx::detail::recordOf;

struct kvx_reply {
    kvx::Reply& reply;
};

struct kvx_service {
    kvx::Service service;
    const std::thread::id owner = std::this_thread::get_id();
    bool isRunning = false;
    bool hasRun = false;
};

namespace {

kvx::Service::Options optionsOf(const kvx_service_options& given) {
    kvx::Service::Options wanted;
    if (given.domain != nullptr) wanted.domain = given.domain;
    wanted.daemon = {orEmpty(given.service), orEmpty(given.network), orEmpty(given.daemon)};
    wanted.group = orEmpty(given.group);
    if (given.tier != 0) wanted.tier = given.tier;
    wanted.beats = given.no_beats == 0;
    wanted.threads = given.threads;
    if (given.send_rate != 0) wanted.sendRate = given.send_rate;
    if (given.most_waiting != 0) wanted.mostWaiting = given.most_waiting;
    return wanted;
}

// Of the thread that opened it.
kvx_code checkThread(const kvx_service* service, const char* call) {
    if (service == nullptr) return badArgument("a null pointer", call);
    if (service->owner == std::this_thread::get_id()) return KVX_OK;
    return badArgument("not the thread that opened the service", call);
}

}  // namespace

kvx_code kvx_service_open(const char* name, const kvx_service_options* options,
                          kvx_service** service) {
    if (service != nullptr) *service = nullptr;
    if (name == nullptr || service == nullptr) {
        return badArgument("a null pointer", "kvx_service_open");
    }
    return guarded([&] {
        const kvx_service_options given = options != nullptr ? *options : kvx_service_options{};
        if (given.threads < 0) return badArgument("threads below 0", "kvx_service_open");
        auto opened = kvx::Service::open(name, optionsOf(given));
        if (!opened) return failed(opened.error());
        if (given.answer != nullptr) {
            opened->onQuery([given](const kvx::Question& question, kvx::Reply& reply) {
                kvx_reply handle{reply};
                given.answer(given.closure, question.text.c_str(), &handle);
            });
        }
        if (given.role != nullptr) {
            opened->onRole([given](bool active) { given.role(given.closure, active ? 1 : 0); });
        }
        *service = new kvx_service{std::move(*opened)};
        return KVX_OK;
    });
}

void kvx_service_close(kvx_service* service) {
    if (service == nullptr) return;
    if (service->isRunning) return kvx_service_stop(service);
    delete service;
}

kvx_code kvx_service_on_message(kvx_service* service, const char* subject,
                                void (*received)(void* closure, const kvx_field* fields,
                                                 size_t count),
                                void* closure) {
    if (subject == nullptr || received == nullptr) {
        return badArgument("a null pointer", "kvx_service_on_message");
    }
    const kvx_code thread = checkThread(service, "kvx_service_on_message");
    if (thread != KVX_OK) return thread;
    return guarded([&] {
        return outcome(
            service->service.onMessage(subject, [received, closure](const kvx::Message& message) {
                guarded([&] {
                    FieldList list;
                    if (!list.set(message)) return KVX_OK;
                    received(closure, list.fields().data(), list.fields().size());
                    return KVX_OK;
                });
            }));
    });
}

kvx_code kvx_service_run(kvx_service* service) {
    const kvx_code thread = checkThread(service, "kvx_service_run");
    if (thread != KVX_OK) return thread;
    return guarded([&] {
        if (std::exchange(service->hasRun, true)) {
            return badArgument("it has run before", "kvx_service_run");
        }
        service->isRunning = true;
        const std::unique_ptr<bool, void (*)(bool*)> running(&service->isRunning,
                                                             [](bool* flag) { *flag = false; });
        if (service->service.run() == 0) return KVX_OK;
        return failed({kvx::Errc::Lost, "not all could be heard or sent", "kvx_service_run"});
    });
}

void kvx_service_stop(kvx_service* service) {
    if (service == nullptr) return;
    guarded([&] {
        service->service.stop();
        return KVX_OK;
    });
}

kvx_code kvx_notify(kvx_service* service, const kvx_field* fields, size_t count) {
    if (service == nullptr) return badArgument("a null pointer", "kvx_notify");
    return guarded([&] {
        const auto record = recordOf(fields, count);
        return record ? outcome(service->service.notify(*record)) : failed(record.error());
    });
}

kvx_code kvx_reply_row(kvx_reply* reply, const kvx_field* fields, size_t count) {
    if (reply == nullptr) return badArgument("a null pointer", "kvx_reply_row");
    return guarded([&] {
        const auto record = recordOf(fields, count);
        if (!record) {
            reply->reply.refuse("a row of the answer cannot be encoded");
            return failed(record.error());
        }
        if (reply->reply.row(*record)) return KVX_OK;
        return failed({kvx::Errc::Ended, "refused, or wanted by nobody", "kvx_reply_row"});
    });
}

kvx_code kvx_reply_refuse(kvx_reply* reply, const char* why, int position) {
    if (reply == nullptr || why == nullptr) {
        return badArgument("a null pointer", "kvx_reply_refuse");
    }
    return guarded([&] {
        reply->reply.refuse(why, position);
        return KVX_OK;
    });
}
