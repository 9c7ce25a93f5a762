// The service as Python calls it. It lives on a thread of its own, which opens, runs and destroys
// it, so that the thread of Python can wait with its signals. Before it runs, that thread does what
// it is given one by one.

#include "python/module/Service.h"

#include <deque>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "python/module/Events.h"
#include "python/module/Handles.h"
#include "python/module/Waiting.h"

namespace kvx::python {

namespace {

constexpr std::size_t kRowsAtOnce = 100;  // as many as leave in one packet

// --- Questions ---------------------------------------------------------------------------------

// A question while it is answered.
class Asked {
  public:
    Asked(const Question& question, Reply& reply, kvx::Service& service)
        : text_(question.text),
          replySubject_(question.replySubject),
          service_(service),
          reply_(&reply) {}

    [[nodiscard]] py::str text() const { return textOfBytes(text_); }
    [[nodiscard]] py::str replySubject() const { return textOfBytes(replySubject_); }
    [[nodiscard]] bool isWanted() const {
        const WithoutGil withoutGil;
        const std::lock_guard guard(mutex_);
        return reply_ != nullptr && reply_->isWanted();
    }

    void asOf(const std::pair<std::uint64_t, std::uint64_t>& stamp, const std::string& table) {
        const WithoutGil withoutGil;
        const std::lock_guard guard(mutex_);
        if (reply_ == nullptr) throw Failure(Error{Errc::Ended, "it has been answered", "as_of"});
        reply_->asOf({stamp.first, stamp.second}, service_.changes().source(table));
    }
    // Whoever keeps it learns that it has been answered.
    void end() {
        const WithoutGil withoutGil;
        const std::lock_guard guard(mutex_);
        reply_ = nullptr;
    }

  private:
    const std::string text_;
    const std::string replySubject_;
    kvx::Service& service_;
    mutable std::mutex mutex_;
    Reply* reply_;  // guarded by mutex_; null when it has been answered
};

// The next of an iterator, or none.
py::object nextOf(const py::iterator& rows) {
    PyObject* const row = stayingAtTheEnd([&] { return PyIter_Next(rows.ptr()); });
    if (row == nullptr && PyErr_Occurred() != nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(row);
}

// Sends the rows that the iterator gives, a packet at a time, while somebody wants them.
void sendRows(Reply& reply, const py::iterator& rows) {
    while (true) {
        std::vector<Record> records;
        while (records.size() < kRowsAtOnce) {
            const py::object row = nextOf(rows);
            if (!row) break;
            records.push_back(recordOf(row, "row"));
        }
        if (records.empty()) return;
        const WithoutGil withoutGil;
        for (const Record& record : records) {
            if (!reply.row(record)) return;
        }
    }
}

// What a function raised may raise itself when it is asked for its text.
std::string wordsOf(const py::handle& object) {
    try {
        return bytesOfText(py::str(object));
    } catch (const py::error_already_set&) {
        return {};
    }
}

int positionOf(const py::handle& refused) {
    try {
        return refused.attr("position").cast<int>();
    } catch (const std::exception&) {
        return 0;
    }
}

void refuseWith(py::error_already_set& error, const Function& function, Reply& reply) {
    const auto refused = py::module_::import("kvxmom.errors").attr("Refused");
    std::string why;
    int position = 0;
    if (error.matches(refused)) {
        why = wordsOf(error.value().attr("text"));
        position = positionOf(error.value());
    } else {
        why = std::string(Py_TYPE(error.value().ptr())->tp_name) + ": " + wordsOf(error.value());
        function.report(error);
    }
    const WithoutGil withoutGil;
    reply.refuse(why, position);
}

void answerHere(const Function& function, const std::shared_ptr<Asked>& asked, Reply& reply) {
    try {
        const py::object rows = callPython(function.get(), py::make_tuple(asked));
        if (!rows.is_none()) sendRows(reply, py::iter(rows));
    } catch (py::error_already_set& error) {
        refuseWith(error, function, reply);
    } catch (const py::builtin_exception& error) {
        error.set_error();
        py::error_already_set raised;
        refuseWith(raised, function, reply);
    }
}

// On a thread of the service.
void answer(const Function& function, const Question& question, Reply& reply,
            kvx::Service& service) {
    if (!mayTakeGil()) return reply.refuse("the service is ending");
    const auto asked = std::make_shared<Asked>(question, reply, service);
    const auto end = [](Asked* ended) { ended->end(); };
    const std::unique_ptr<Asked, decltype(end)> ending(asked.get(), end);
    stayingAtTheEnd([&] {
        const WithGil gil;
        const InsideCall inside;
        answerHere(function, asked, reply);
    });
}

// --- The service -------------------------------------------------------------------------------

// What the thread of a service and its handle share.
class Host {
  public:
    // Does `job` on the service's thread, before the service runs.
    Call perform(const std::string& tried, std::function<Result<>(kvx::Service&)> job) {
        auto doer = std::make_shared<Call::Doer>(tried);
        Call call(*doer);
        const WithoutGil withoutGil;
        std::unique_lock lock(mutex_);
        if (!hasBegun_ && !isEnding_) {
            jobs_.emplace_back([doer, job = std::move(job)](kvx::Service& service) {
                doer->finish(job(service));
            });
            changed_.notify_all();
            return call;
        }
        const bool isLate = hasBegun_ && !isEnding_;
        lock.unlock();
        if (isLate) doer->finish(tl::unexpected(Error{Errc::InvalidArgument, kLate, tried}));
        return call;
    }

    // Has it run, if it has not; the call ends when the service is gone.
    Call run() { return awaitEnd("run", true); }
    // Has it end, whether it runs or not.
    Call end() {
        Call call = awaitEnd("close", false);
        use([](kvx::Service& service) { service.stop(); });
        return call;
    }

    // Calls `work` with the service while there is one; false when there is none. Any thread,
    // without the GIL.
    template <class Work>
    bool use(Work work) {
        const WithoutGil withoutGil;
        const std::shared_lock alive(alive_);
        if (service_ == nullptr) return false;
        work(*service_);
        return true;
    }

    // The thread of the service.
    void live(const std::string& name, kvx::Service::Options options,
              const std::shared_ptr<Call::Doer>& opening, Call::Result opened) {
        {
            auto service = kvx::Service::open(name, std::move(options));
            if (!service) {
                opening->finish(
                    [error = service.error()]() -> py::object { throw Failure(error); });
                return;
            }
            setService(&*service);
            opening->finish(std::exchange(opened, {}));
            if (doJobs(*service) && service->run() != 0) status_ = notAll();
            setService(nullptr);
        }
        tellEnd();
    }

  private:
    static constexpr const char* kLate = "the service runs; what it does is given before";

    static Result<> notAll() {
        return tl::unexpected(Error{Errc::Lost, "not all could be heard or sent", "run"});
    }

    Call awaitEnd(const std::string& tried, bool runs) {
        auto doer = std::make_shared<Call::Doer>(tried);
        Call call(*doer);
        const WithoutGil withoutGil;
        std::unique_lock lock(mutex_);
        (runs ? mayRun_ : isEnding_) = true;
        changed_.notify_all();
        if (!hasEnded_) {
            ends_.push_back(std::move(doer));
            return call;
        }
        lock.unlock();
        doer->finish(status_);
        return call;
    }

    // Whether it is to run.
    bool doJobs(kvx::Service& service) {
        std::unique_lock lock(mutex_);
        while (true) {
            changed_.wait(lock, [this] { return !jobs_.empty() || mayRun_ || isEnding_; });
            if (jobs_.empty()) break;
            const auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job(service);
            lock.lock();
        }
        hasBegun_ = true;
        return mayRun_ && !isEnding_;
    }

    void setService(kvx::Service* service) {
        const std::unique_lock alive(alive_);
        service_ = service;
    }

    void tellEnd() {
        std::vector<std::shared_ptr<Call::Doer>> ends;
        {
            const std::lock_guard guard(mutex_);
            hasEnded_ = true;
            ends.swap(ends_);
        }
        for (const auto& doer : ends) doer->finish(status_);
    }

    std::shared_mutex alive_;
    kvx::Service* service_ = nullptr;  // guarded by alive_

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<std::function<void(kvx::Service&)>> jobs_;
    std::vector<std::shared_ptr<Call::Doer>> ends_;
    bool mayRun_ = false;
    bool isEnding_ = false;
    bool hasBegun_ = false;  // no job is done any more
    bool hasEnded_ = false;
    Result<> status_;  // constant once it has ended
};

class ServiceHandle final : public OpenThing {
  public:
    // When the last one lets go of `host`, the service ends.
    explicit ServiceHandle(std::shared_ptr<Host> host) : host_(std::move(host)) {}
    ~ServiceHandle() override { letGo(host_, origin()); }

    void beginEnd() override { static_cast<void>(host_->end()); }

    Call onQuery(const py::object& given) {
        const Function function(given);
        return perform("on_query", [function](kvx::Service& service) -> Result<> {
            service.onQuery([function, &service](const Question& question, Reply& reply) {
                answer(function, question, reply, service);
            });
            return {};
        });
    }
    Call onRole(const py::object& given) {
        const Function function(given);
        return perform("on_role", [function](kvx::Service& service) -> Result<> {
            service.onRole(
                [function](bool active) { function.call([&] { return py::make_tuple(active); }); });
            return {};
        });
    }
    Call onMessage(const std::string& subject, const py::object& given) {
        const Function function(given);
        return perform("listen on " + subject, [function, subject](kvx::Service& service) {
            return service.onMessage(subject, [function](const Message& message) {
                function.call([&] { return py::make_tuple(message); });
            });
        });
    }
    Call every(double seconds, const std::string& name, const py::object& given) {
        const Function function(given);
        constexpr double kMost = 1e6;
        const auto interval = std::chrono::ceil<std::chrono::milliseconds>(
            std::chrono::duration<double>(std::min(seconds, kMost)));
        return perform("every", [function, name, interval](kvx::Service& service) {
            return service.every(interval, name, [function] { function.call(); });
        });
    }
    Call numbers() {
        return perform("changes", [](kvx::Service& service) -> Result<> {
            static_cast<void>(service.changes());
            return {};
        });
    }

    Call run() {
        checkProcess();
        return host_->run();
    }
    Call close() {
        forget();
        if (!origin().isHere()) return Call::done("close");
        Call call = host_->end();
        return InsideCall::isInside() ? Call::done("close") : call;
    }
    void stop() {
        checkProcess();
        host_->use([](kvx::Service& service) { service.stop(); });
    }

    void notify(const py::iterable& rows) {
        std::vector<Record> records;
        for (const py::handle row : rows) records.push_back(recordOf(row, "rows"));
        Result<> told;
        use("notify", [&](kvx::Service& service) { told = service.notify(records); });
        require(told);
    }

    void post(const py::object& given) {
        const Function function(given);
        Result<> posted;
        use("post",
            [&](kvx::Service& service) { posted = service.post([function] { function.call(); }); });
        require(posted);
    }

    void setKey(const std::string& table, const py::iterable& names) {
        std::vector<std::string> fields;
        for (const py::handle name : names) fields.push_back(bytesOfText(py::str(name)));
        use("set_key",
            [&](kvx::Service& service) { service.changes().setKey(table, std::move(fields)); });
    }

    void commit(const py::iterable& changes, const py::object& apply) {
        std::vector<Record> records;
        for (const py::handle change : changes) records.push_back(recordOfChange(change));
        requireOutsideChanges("commit");
        const auto alone = lockWithSignals<std::unique_lock<std::shared_timed_mutex>>(changing_);
        std::optional<py::error_already_set> raised;
        Result<> committed;
        use("commit", [&](kvx::Service& service) {
            committed = service.changes().commit(records, [&]() -> Result<> {
                if (apply.is_none() || callHere(apply, raised)) return {};
                return tl::unexpected(Error{Errc::Refused, "apply raised", "commit"});
            });
        });
        if (raised) throw py::error_already_set(*raised);
        require(committed);
    }

    py::tuple read(const py::object& take) {
        requireOutsideChanges("read");
        const auto still = lockWithSignals<std::shared_lock<std::shared_timed_mutex>>(changing_);
        std::optional<py::error_already_set> raised;
        py::object taken = py::none();
        Stamp stamp;
        use("read", [&](kvx::Service& service) {
            stamp = service.changes().read([&] { callHere(take, raised, &taken); });
        });
        if (raised) throw py::error_already_set(*raised);
        return py::make_tuple(stamp.epoch, stamp.number, taken);
    }

    bool isActive() {
        bool active = false;
        checkProcess();
        host_->use([&](kvx::Service& service) { active = service.isActive(); });
        return active;
    }
    std::string querySubject() {
        std::string subject;
        use("query_subject", [&](kvx::Service& service) { subject = service.querySubject(); });
        return subject;
    }
    py::dict statistics() {
        kvx::Service::Statistics now;
        use("statistics", [&](kvx::Service& service) { now = service.statistics(); });
        py::dict dict;
        dict["answered"] = now.answered;
        dict["held"] = now.held;
        dict["refused"] = now.refused;
        dict["dropped"] = now.dropped;
        dict["abandoned"] = now.abandoned;
        dict["waiting"] = now.waiting;
        return dict;
    }

  private:
    Call perform(const std::string& tried, std::function<Result<>(kvx::Service&)> job) {
        checkProcess();
        return host_->perform(tried, std::move(job));
    }

    template <class Work>
    void use(const char* tried, Work work) {
        checkProcess();
        if (!host_->use(work)) throw Failure(Error{Errc::Ended, "the service is closed", tried});
    }

    static void requireOutsideChanges(const char* tried) {
        if (!isChanging) return;
        throw Failure(
            Error{Errc::InvalidArgument, "called by a function of commit or read", tried});
    }

    // Calls a function of the caller, whose thread this is, without the GIL until then.
    static bool callHere(const py::object& function, std::optional<py::error_already_set>& raised,
                         py::object* result = nullptr) {
        if (!mayTakeGil()) return false;
        const WithGil gil;
        const InsideCall inside;
        isChanging = true;
        try {
            py::object given = callPython(function, py::tuple());
            if (result != nullptr) *result = std::move(given);
        } catch (const py::error_already_set& error) {
            raised.emplace(error);
        }
        isChanging = false;
        return !raised;
    }

    inline static thread_local bool isChanging = false;

    std::shared_timed_mutex changing_;  // before the lock of the changes, which ignores signals
    std::shared_ptr<Host> host_;
};

Call openService(const std::string& name, const std::string& domain, const std::string& service,
                 const std::string& network, const std::string& daemon, const std::string& group,
                 int tier, bool beats, int threads, double oldestQuestion, double patience,
                 unsigned long sendRate, int mostWaiting) {
    checkProcess();
    requireMayWait();
    const auto inMilliseconds = [](double seconds) {
        return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
    };
    const kvx::Service::Options options{.domain = domain,
                                        .daemon = {service, network, daemon},
                                        .group = group,
                                        .tier = tier,
                                        .beats = beats,
                                        .threads = threads,
                                        .oldestQuestion = inMilliseconds(oldestQuestion),
                                        .patience = inMilliseconds(patience),
                                        .sendRate = sendRate,
                                        .endsBySignals = false,
                                        .mostWaiting = mostWaiting};
    auto doer = std::make_shared<Call::Doer>("open");
    Call call(*doer);
    static_cast<void>(callOnThread("open", [name, options, doer]() -> Call::Result {
        const auto host = std::make_shared<Host>();
        // Dropped by who asked for it: the service ends.
        std::shared_ptr<Host> owned(host.get(), [host](Host*) { static_cast<void>(host->end()); });
        host->live(name, options, doer, [owned = std::move(owned)] {
            return py::cast(std::make_unique<ServiceHandle>(owned));
        });
        return [] { return py::none(); };
    }));
    return call;
}

}  // namespace

void defineService(py::module_& module) {
    py::class_<Asked, std::shared_ptr<Asked>>(module, "Question")
        .def_property_readonly("text", &Asked::text)
        .def_property_readonly("reply_subject", &Asked::replySubject)
        .def_property_readonly("is_wanted", &Asked::isWanted)
        .def("as_of", &Asked::asOf, py::arg("stamp"), py::arg("table") = "");
    py::class_<ServiceHandle>(module, "ServiceHandle")
        .def("on_query", &ServiceHandle::onQuery)
        .def("on_role", &ServiceHandle::onRole)
        .def("on_message", &ServiceHandle::onMessage)
        .def("every", &ServiceHandle::every)
        .def("numbers", &ServiceHandle::numbers)
        .def("run", &ServiceHandle::run)
        .def("close", &ServiceHandle::close)
        .def("stop", &ServiceHandle::stop)
        .def("notify", &ServiceHandle::notify)
        .def("post", &ServiceHandle::post)
        .def("set_key", &ServiceHandle::setKey)
        .def("commit", &ServiceHandle::commit)
        .def("read", &ServiceHandle::read)
        .def("is_active", &ServiceHandle::isActive)
        .def("query_subject", &ServiceHandle::querySubject)
        .def("statistics", &ServiceHandle::statistics);
    module.def("open_service", &openService);
}

}  // namespace kvx::python
