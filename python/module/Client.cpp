// The client as Python calls it. What needs the client's loop is posted to it, where it is done
// without waiting, and what comes of it is a `Call`: waited for with signals, or told to an event
// loop. Only to open and to end block, on a thread of their own.

#include "python/module/Client.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "python/module/Events.h"
#include "python/module/Handles.h"
#include "python/module/Waiting.h"

namespace kvx::python {

namespace {

using Timeout = std::optional<double>;  // seconds

std::optional<std::chrono::milliseconds> inMilliseconds(const Timeout& seconds) {
    if (!seconds) return std::nullopt;
    constexpr double kMost = 1e9;
    return std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(std::min(*seconds, kMost)));
}

// --- Rows --------------------------------------------------------------------------------------

// The rows of an answer as they come. One thread at a time takes.
class Stream {
  public:
    explicit Stream(RowStream stream) : stream_(std::make_shared<RowStream>(std::move(stream))) {}
    ~Stream() { letGo(stream_, origin_); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Waits for rows, and gives those that are there, at most so many; none at the end.
    py::object take(std::size_t most) {
        std::optional<Taken> taken;
        while (!(taken = takeReady(most))) {
            waitUntil(wake_->mutex, wake_->changed, {},
                      [this] { return std::exchange(wake_->isSet, false); });
        }
        if (taken->error) throw Failure(std::move(*taken->error));
        if (taken->rows.empty()) return py::none();
        py::list rows(taken->rows.size());
        for (std::size_t i = 0; i < taken->rows.size(); ++i) {
            rows[i] = maker_.rowOf(taken->rows[i]);
        }
        return rows;
    }

    bool isReady(const py::object& whenReady) {
        checkProcess();
        std::function<void()> call;
        if (const Function function(whenReady); function) call = [function] { function.call(); };
        const WithoutGil withoutGil;
        const std::lock_guard guard(reading_);
        return stream_->isReady(std::move(call));
    }

    void cancel() {
        if (!origin_.isHere()) return;
        const WithoutGil withoutGil;
        stream_->cancel();
    }

    py::dict totals() {
        checkProcess();
        const AnswerTotals now = stream_->totals();
        py::dict dict;
        dict["packets"] = now.packets;
        dict["plain_bytes"] = now.plainBytes;
        dict["sent_bytes"] = now.sentBytes;
        dict["ignored"] = now.ignored;
        dict["is_complete"] = now.isComplete;
        dict["unreadable"] = now.unreadable;
        dict["remark"] = textOfBytes(now.remark);
        return dict;
    }

  private:
    struct Taken {
        std::vector<Record> rows;
        std::optional<QueryError> error;
    };
    struct Wake {
        std::mutex mutex;
        std::condition_variable changed;
        bool isSet = false;  // guarded by mutex
    };

    // Nothing when it would have to wait.
    std::optional<Taken> takeReady(std::size_t most) {
        requireMayWait();
        const WithoutGil withoutGil;
        const std::lock_guard guard(reading_);
        if (!stream_->isReady([wake = wake_] {
                const std::lock_guard waking(wake->mutex);
                wake->isSet = true;
                wake->changed.notify_all();
            })) {
            return std::nullopt;
        }
        Taken taken;
        do {
            auto row = stream_->next();
            // An end stays for the next time.
            if (row && *row) {
                taken.rows.push_back(std::move(**row));
            } else {
                if (!row && taken.rows.empty()) taken.error = std::move(row.error());
                break;
            }
        } while (taken.rows.size() < most && stream_->isReady());
        return taken;
    }

    const Origin origin_;
    std::shared_ptr<RowStream> stream_;
    const std::shared_ptr<Wake> wake_ = std::make_shared<Wake>();
    std::mutex reading_;
    RowMaker maker_;
};

// --- Subscriptions -----------------------------------------------------------------------------

// What is heard, and by whom: a function, or else what waits to be taken.
class Ear {
  public:
    Ear(const py::object& function, std::size_t most, bool mayDrop)
        : function_(function), events_(most, mayDrop) {}

    // The client's thread.
    void hear(Event event) {
        if (!function_) return events_.add(std::move(event));
        function_.call([&] { return py::make_tuple(objectOf(event, rows_)); });
    }
    Events& events() { return events_; }

  private:
    const Function function_;
    Events events_;
    RowMaker rows_;  // guarded by the GIL
};

// A subscription of either kind. Ends on the client's thread; whoever drops it does not wait.
template <class Handle>
std::shared_ptr<void> held(const std::weak_ptr<kvx::Client>& client, Handle handle) {
    return {new Handle(std::move(handle)), [client, origin = Origin()](void* owned) {
                if (!origin.isHere()) return;
                auto ending = std::shared_ptr<Handle>(static_cast<Handle*>(owned));
                const WithoutGil withoutGil;
                const auto open = client.lock();
                if (open && !InsideCall::isInside()) {
                    static_cast<void>(open->post([ending] {}));
                }
                ending.reset();
            }};
}

class ClientHandle;

class Listening {
  public:
    Listening(std::shared_ptr<Ear> ear, std::shared_ptr<void> held)
        : ear_(std::move(ear)), held_(std::move(held)) {}

    py::object take(const py::object& seconds) {
        return ear_->events().take(deadlineAfter(seconds));
    }
    bool isReady(const py::object& whenReady) { return ear_->events().isReady(whenReady); }
    [[nodiscard]] std::uint64_t dropped() const { return ear_->events().dropped(); }
    void end() {
        if (!origin_.isHere()) return;
        ear_->events().end({});
        const auto ending = std::exchange(held_, nullptr);
    }

  private:
    const Origin origin_;
    const std::shared_ptr<Ear> ear_;
    std::shared_ptr<void> held_;
};

// --- The client --------------------------------------------------------------------------------

class ClientHandle final : public OpenThing {
  public:
    explicit ClientHandle(std::shared_ptr<kvx::Client> client) : client_(std::move(client)) {}
    ~ClientHandle() override {
        endEars();
        letGo(client_, origin());
    }

    void beginEnd() override { static_cast<void>(close()); }

    std::unique_ptr<Stream> stream(const std::string& service, const std::string& text,
                                   const Timeout& timeout) {
        const auto client = open();
        const WithoutGil withoutGil;
        return std::make_unique<Stream>(client->stream(service, text, inMilliseconds(timeout)));
    }

    Call request(const std::string& subject, const py::object& fields, const Timeout& timeout) {
        const auto client = open();
        const Message message = messageOf(fields, "message");
        auto doer = std::make_shared<Call::Doer>("request on " + subject);
        Call call(*doer);
        const WithoutGil withoutGil;
        client->requestAsync(
            subject, message,
            [doer](Result<Message> reply) {
                doer->finish([reply = std::move(reply)] { return py::cast(require(reply)); });
            },
            inMilliseconds(timeout));
        return call;
    }

    Call publish(const std::string& subject, const py::object& fields) {
        const Message message = messageOf(fields, "message");
        return perform("publish on " + subject, [subject, message](kvx::Client& client) {
            return client.publish(subject, message);
        });
    }

    Call listen(const std::string& subject, const py::object& function, std::size_t most) {
        const auto ear = newEar(function, most, true);
        return subscribe("listen on " + subject, ear, [subject, ear](kvx::Client& client) {
            return client.listen(subject, [ear](const Delivery& heard) {
                ear->hear(HeardMessage{std::string(heard.subject), std::string(heard.replySubject),
                                       heard.message});
            });
        });
    }

    Call snoop(const std::string& service, const py::object& function, std::size_t most) {
        const auto name = require(ServiceName::of(service));
        const auto ear = newEar(function, most, true);
        return subscribe("snoop " + service, ear, [name, ear](kvx::Client& client) {
            return client.snoop(name,
                                [ear](const Record& record) { ear->hear(HeardRecord{record}); });
        });
    }

    Call follow(const std::string& service, const std::string& text, const py::object& function,
                std::size_t most, const Timeout& timeout) {
        const auto name = require(ServiceName::of(service));
        const auto ear = newEar(function, most, false);
        const auto wait = inMilliseconds(timeout);
        return subscribe("follow " + service, ear, [name, text, ear, wait](kvx::Client& client) {
            return client.follow(name, text, followerOf(ear), wait);
        });
    }

    Call close() {
        endEars();
        auto client = std::exchange(client_, nullptr);
        forget();
        if (!origin().isHere() || !client) {
            letGo(client, origin());
            return Call::done("close");
        }
        if (InsideCall::isInside()) {
            const WithoutGil withoutGil;
            client->end();
            return Call::done("close");
        }
        return callOnThread("close", [client]() mutable -> Call::Result {
            client->end();
            client.reset();
            return [] { return py::none(); };
        });
    }

    std::string inDomain(const std::string& subject) { return open()->inDomain(subject); }

    py::tuple connection() {
        const auto client = open();
        Connection now;
        {
            const WithoutGil withoutGil;
            now = client->connection();
        }
        return py::make_tuple(now.isThere, textOfBytes(now.address), textOfBytes(now.why));
    }

  private:
    [[nodiscard]] std::shared_ptr<kvx::Client> open() const {
        checkProcess();
        if (!client_) throw Failure(Error{Errc::Ended, "the client is closed", {}});
        return client_;
    }

    std::shared_ptr<Ear> newEar(const py::object& function, std::size_t most, bool mayDrop) {
        auto ear = std::make_shared<Ear>(function, most, mayDrop);
        std::erase_if(ears_, [](const auto& one) { return one.expired(); });
        ears_.push_back(ear);
        return ear;
    }

    void endEars() {
        if (!origin().isHere()) return;
        for (const auto& one : ears_) {
            if (const auto ear = one.lock()) ear->events().end({});
        }
    }

    static Follower followerOf(const std::shared_ptr<Ear>& ear) {
        return {.onRow = [ear](const Record& row) { ear->hear(FollowedRow{row}); },
                .onChange = [ear](const Record& change) { ear->hear(FollowedChange{change}); },
                .onResynchronised =
                    [ear](std::span<const Record> differences) {
                        for (const Record& one : differences) ear->hear(FollowedChange{one, true});
                    },
                .onEnd = [ear](const Error& error) { ear->events().end(error); }};
    }

    // `work` is done on the client's thread.
    template <class Work>
    Call perform(const std::string& tried, Work work) {
        const auto client = open();
        auto doer = std::make_shared<Call::Doer>(tried);
        Call call(*doer);
        auto run = [doer, work = std::move(work), weak = std::weak_ptr(client)] {
            if (const auto alive = weak.lock()) doer->finish(work(*alive));
        };
        doer.reset();
        const WithoutGil withoutGil;
        if (InsideCall::isInside()) {
            run();
        } else {
            static_cast<void>(client->post(std::move(run)));
        }
        return call;
    }

    template <class Subscribe>
    Call subscribe(const std::string& tried, std::shared_ptr<Ear> ear, Subscribe subscribe) {
        return perform(tried,
                       [ear = std::move(ear), subscribe = std::move(subscribe),
                        weak = std::weak_ptr(client_)](kvx::Client& client) -> Call::Result {
                           auto handle = subscribe(client);
                           if (!handle) {
                               return [error = handle.error()]() -> py::object {
                                   throw Failure(error);
                               };
                           }
                           return [ear, thing = held(weak, std::move(*handle))] {
                               return py::cast(std::make_unique<Listening>(ear, thing));
                           };
                       });
    }

    std::shared_ptr<kvx::Client> client_;  // null when closed
    std::vector<std::weak_ptr<Ear>> ears_;
};

kvx::Client::Options optionsOf(const std::string& domain, const DaemonAddress& daemon,
                               double timeout, const py::object& onConnection,
                               const py::object& onWarning) {
    kvx::Client::Options options{.domain = domain, .daemon = daemon};
    options.timeout = *inMilliseconds(timeout);
    if (const Function function(onConnection); function) {
        options.onConnection = [function](const Connection& now) {
            function.call([&] {
                return py::make_tuple(now.isThere, textOfBytes(now.address), textOfBytes(now.why));
            });
        };
    }
    if (const Function function(onWarning); function) {
        options.onWarning = [function](const std::string& text) {
            function.call([&] { return py::make_tuple(textOfBytes(text)); });
        };
    }
    return options;
}

Call openClient(const std::string& domain, const std::string& service, const std::string& network,
                const std::string& daemon, double timeout, const py::object& onConnection,
                const py::object& onWarning) {
    checkProcess();
    requireMayWait();
    auto options = optionsOf(domain, {service, network, daemon}, timeout, onConnection, onWarning);
    return callOnThread("open", [options = std::move(options)]() -> Call::Result {
        auto opened = kvx::Client::open(options);
        if (!opened) return [error = opened.error()]() -> py::object { throw Failure(error); };
        auto client = std::make_shared<kvx::Client>(std::move(*opened));
        return [client] { return py::cast(std::make_unique<ClientHandle>(client)); };
    });
}

}  // namespace

void defineClient(py::module_& module) {
    py::class_<Stream>(module, "Stream")
        .def("take", &Stream::take, py::arg("most"))
        .def("is_ready", &Stream::isReady, py::arg("when_ready") = py::none())
        .def("cancel", &Stream::cancel)
        .def("totals", &Stream::totals);
    py::class_<Listening>(module, "Listening")
        .def("take", &Listening::take, py::arg("timeout") = py::none())
        .def("is_ready", &Listening::isReady, py::arg("when_ready") = py::none())
        .def("dropped", &Listening::dropped)
        .def("end", &Listening::end);
    py::class_<ClientHandle>(module, "ClientHandle")
        .def("stream", &ClientHandle::stream)
        .def("request", &ClientHandle::request)
        .def("publish", &ClientHandle::publish)
        .def("listen", &ClientHandle::listen)
        .def("snoop", &ClientHandle::snoop)
        .def("follow", &ClientHandle::follow)
        .def("in_domain", &ClientHandle::inDomain)
        .def("connection", &ClientHandle::connection)
        .def("close", &ClientHandle::close);
    module.def("open_client", &openClient, py::arg("domain"), py::arg("service"),
               py::arg("network"), py::arg("daemon"), py::arg("timeout"), py::arg("on_connection"),
               py::arg("on_warning"));
}

}  // namespace kvx::python
