#include "rvd/Reports.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "rvd/Version.h"

namespace kvx::rvd {
namespace {

constexpr std::array<const char*, static_cast<std::size_t>(Drop::Count)> kDropNames = {
    "dropped_queue", "dropped_memory", "dropped_ended", "dropped_shutdown"};
constexpr std::array<const char*, static_cast<std::size_t>(Holding::Count)> kHoldingNames = {
    "connections", "incoming", "control", "listens"};

Row memoryRow(const StatusFacts& facts) {
    Row row;
    std::uint64_t others = 0;
    for (std::size_t i = 0; i < kHoldingNames.size(); ++i) {
        row.put(kHoldingNames[i], facts.memory[i]);
        others += facts.memory[i];
    }
    row.put("messages", facts.memoryUsed - std::min(others, facts.memoryUsed));
    row.put("used", facts.memoryUsed);
    row.put("limit", facts.memoryLimit);
    return row;
}

Row countersRow(const Counters& counters) {
    Row row(2'048);
    const auto table = counterTable();
    for (std::size_t i = 0; i < table.size(); ++i) {
        std::string name = table[i].name;
        std::ranges::replace(name, '.', '_');  // a dot in the name of a field is part of a path
        row.put(name.c_str(), counters[static_cast<Counter>(i)]);
    }
    return row;
}

Row ratesRow(const Counters& rates) {
    Row row;
    row.put("received", rates[Counter::MessagesReceived]);
    row.put("received_bytes", rates[Counter::BytesReceived]);
    row.put("delivered", rates[Counter::MessagesDelivered]);
    row.put("delivered_bytes", rates[Counter::BytesDelivered]);
    row.put("dropped", rates.dropped());
    return row;
}

void putDelays(Row& row, const Delays::Summary& delays) {
    row.put("copies", delays.copies);
    if (delays.copies == 0) return;
    row.put("min_ns", delays.least);
    row.put("p50_ns", delays.p50);
    row.put("p90_ns", delays.p90);
    row.put("p99_ns", delays.p99);
    row.put("p999_ns", delays.p999);
    row.put("max_ns", delays.most);
}

class StatusReport final : public Report {
  public:
    explicit StatusReport(const Observed& observed) : observed_(observed) {}

    bool write(Row& part) override {
        const StatusFacts facts = observed_.status();
        part.put("version", version());
        part.put("pid", facts.pid);
        for (const auto& address : facts.addresses) part.put("address", address);
        part.put("started_ms", static_cast<std::uint64_t>(facts.started));
        part.put("age_ms", static_cast<std::uint64_t>(facts.age));
        part.put("state_version", stateVersion());
        part.put("replaced", facts.replacements);
        part.put("not_replaced", facts.replaceFailures);
        if (facts.replaceFailures != 0) part.put("not_replaced_why", facts.replaceError);
        part.put("queue_limit", facts.queueLimit);
        part.put("connection_limit", facts.descriptors);
        part.put("listen_limit", std::uint64_t{Router::kMaxListens});
        part.put("memory", memoryRow(facts));
        part.put("rates", ratesRow(*facts.rates));
        part.put("counters", countersRow(facts.counters));
        Row latency;
        putDelays(latency, facts.delays->ofSamples());
        part.put("latency", latency);
        if (facts.recorder != nullptr) {
            part.put("recorder_file", facts.recorder->path());
            part.put("recorded", facts.recorder->messages());
        }
        return false;
    }

  private:
    const Observed& observed_;
};

Row rowOf(const SessionFacts& facts) {
    Row row;
    row.put("number", facts.number);
    row.put("name", facts.name);
    row.put("address", facts.address);
    if (facts.pid != 0) {
        row.put("pid", facts.pid);
        row.put("user", facts.user);
        row.put("program", facts.program);
    }
    row.put("service", facts.service);
    row.put("network", facts.network);
    row.put("age_ms", static_cast<std::uint64_t>(facts.age));
    if (facts.follows) row.put("follows", true);
    row.put("listens", facts.listens);
    row.put("patterns", facts.patterns);
    row.put("memory", facts.memory);
    row.put("waiting", facts.waiting);
    row.put("waiting_bytes", facts.waitingBytes);
    row.put("matched", facts.totals.matched);
    row.put("delivered", facts.totals.delivered);
    row.put("delivered_rate", facts.deliveredRate);
    row.put("dropped", facts.totals.dropped);
    for (std::size_t i = 0; i < kDropNames.size(); ++i) {
        if (facts.totals.droppedBy[i] != 0) row.put(kDropNames[i], facts.totals.droppedBy[i]);
    }
    row.put("published", facts.published.messages);
    row.put("published_bytes", facts.published.bytes);
    row.put("published_rate", facts.publishedRate);
    const auto putAge = [&row](const char* name, std::optional<platform::Milliseconds> age) {
        if (age) row.put(name, static_cast<std::uint64_t>(*age));
    };
    putAge("waiting_ms", facts.waitingFor);
    putAge("behind_ms", facts.behindFor);
    putAge("loss_age_ms", facts.lossAge);
    return row;
}

class SessionsReport final : public Report {
  public:
    explicit SessionsReport(const Observed& observed) : observed_(observed) {}

    bool write(Row& part) override {
        while (part.size() < kPartBytes) {
            const auto facts = observed_.sessionAfter(last_);
            if (!facts) return false;
            last_ = facts->number;
            part.put("session", rowOf(*facts));
        }
        return true;
    }

  private:
    const Observed& observed_;
    std::uint64_t last_ = 0;  // the number of the last one written
};

class SubjectsReport final : public Report {
  public:
    SubjectsReport(const BusySubjects& busy, const Inquiry& inquiry, platform::Milliseconds now)
        : busy_(busy),
          inquiry_(inquiry),
          now_(now),
          left_(inquiry.limit != 0 ? inquiry.limit : BusySubjects::kSubjects),
          places_(busy.byRate()) {}

    bool write(Row& part) override {
        if (next_ == 0) {
            part.put("every", std::uint64_t{busy_.every()});
            part.put("known", std::uint64_t{places_.size()});
        }
        while (left_ > 0 && next_ < places_.size()) {
            if (part.size() >= kPartBytes) return true;
            writeNext(part);
        }
        return false;
    }

  private:
    void writeNext(Row& part) {
        const auto& entry = busy_[places_[next_++]];
        const auto subject = SubjectView::trusted(entry.subject.data());
        if (inquiry_.subject && !covers(*inquiry_.subject, subject)) return;
        --left_;
        part.put("subject", rowOf(entry, subject));
    }

    Row rowOf(const BusySubjects::Entry& entry, SubjectView subject) const {
        Row row;
        row.put("subject", subject);
        row.put("service", entry.service);
        row.put("network", entry.network);
        row.put("age_ms", static_cast<std::uint64_t>(now_ - entry.since));
        row.put("messages", rounded(entry.messages));
        row.put("bytes", rounded(entry.bytes));
        row.put("missed", rounded(entry.missed));
        row.put("rate", entry.rate);
        row.put("byte_rate", entry.byteRate);
        row.put("listeners", std::uint64_t{entry.listeners});
        row.put("senders", static_cast<std::uint64_t>(std::ranges::count_if(
                               entry.senders, [](std::uint64_t sender) { return sender != 0; })));
        if (entry.hasMoreSenders) row.put("more_senders", true);
        if (inquiry_.wantsFields) putShapes(row, entry);
        return row;
    }

    void putShapes(Row& row, const BusySubjects::Entry& entry) const {
        for (const auto& seen : entry.shapes) {
            if (seen.shape == 0) break;
            Row shape;
            shape.put("messages", rounded(seen.messages));
            shape.put("fields", busy_.shapes().example(seen.shape));
            row.put("shape", shape);
        }
        if (entry.otherShapes > 0) row.put("other_shapes", rounded(entry.otherShapes));
    }

    static std::uint64_t rounded(double number) {
        return static_cast<std::uint64_t>(std::llround(number));
    }

    const BusySubjects& busy_;
    const Inquiry inquiry_;
    const platform::Milliseconds now_;
    std::size_t left_;  // rows
    const std::vector<BusySubjects::Place> places_;
    std::size_t next_ = 0;
};

// At most so many rows, without a limit of the inquiry's.
constexpr std::uint32_t kTracedListens = 10'000;

class TraceReport final : public Report {
  public:
    TraceReport(const Router::Session& asker, const Inquiry& inquiry)
        : subject_(*inquiry.subject),
          trace_(asker, subject_),
          left_(inquiry.limit != 0 ? inquiry.limit : kTracedListens) {}

    bool write(Row& part) override {
        std::size_t steps = kLookedAtOnce;
        while (part.size() < kPartBytes && steps > 0) {
            const auto hit = trace_.next(subject_, steps);
            if (!hit) {
                if (trace_.isDone()) return false;
                continue;
            }
            if (left_-- == 0) {
                part.put("more", true);
                return false;
            }
            Row row;
            row.put("session", hit->session);
            row.put("listen", hit->subject);
            row.put("count", std::uint64_t{hit->count});
            part.put("match", row);
        }
        return true;
    }

  private:
    const Subject subject_;
    Router::Trace trace_;
    std::uint32_t left_;  // rows
};

class LatencyReport final : public Report {
  public:
    explicit LatencyReport(Delays::Summary found) : found_(std::move(found)) {}

    bool write(Row& part) override {
        part.put("measured_ns", static_cast<std::uint64_t>(found_.measured));
        putDelays(part, found_);
        for (const auto& bucket : found_.buckets) {
            Row row;
            row.put("from_ns", bucket.from);
            row.put("below_ns", bucket.below);
            row.put("copies", bucket.copies);
            part.put("bucket", row);
        }
        return false;
    }

  private:
    const Delays::Summary found_;
};

class Refusal final : public Report {
  public:
    explicit Refusal(const char* why) : why_(why) {}

    bool write(Row& part) override {
        part.put("error", why_);
        return false;
    }

  private:
    const char* const why_;
};

}  // namespace

std::unique_ptr<Report> Reports::answer(const Inquiry& inquiry,
                                        const Router::Session& asker) const {
    switch (inquiry.about) {
        case DaemonSubject::Status:
            return std::make_unique<StatusReport>(observed_);
        case DaemonSubject::Sessions:
            return std::make_unique<SessionsReport>(observed_);
        case DaemonSubject::Trace:
            return std::make_unique<TraceReport>(asker, inquiry);
        case DaemonSubject::Subjects:
            return std::make_unique<SubjectsReport>(busy_, inquiry, observed_.now());
        case DaemonSubject::Latency:
            if (auto found = delays_.ask(asker, *inquiry.subject, observed_.now())) {
                return std::make_unique<LatencyReport>(*std::move(found));
            }
            return std::make_unique<Refusal>(
                "the daemon measures for others, as many as it can at a time");
        case DaemonSubject::None:
        case DaemonSubject::Interest:
        case DaemonSubject::Lost:
        case DaemonSubject::Any:
            break;
    }
    return nullptr;
}

std::unique_ptr<Report> Reports::refusal() {
    return std::make_unique<Refusal>("the daemon answers sessions of its own host only");
}

}  // namespace kvx::rvd
