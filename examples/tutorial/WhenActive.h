#pragma once

#include "AnswerQueries.h"
#include "TakeReports.h"

/// Queries are for the primary alone: of several copies just one answers.
class AnswerWhenActive : public AnswerQueries {
  public:
    AnswerWhenActive(CVekEngine& engine, const Devices& devices)
        : AnswerQueries(engine, devices), engine_(engine) {}

    void onData(const char* subject, RvSender* replyTo, const RvDatum& question,
                RvListener* listener) override {
        if (engine_.REIsActive()) AnswerQueries::onData(subject, replyTo, question, listener);
    }

  private:
    CVekEngine& engine_;
};

/// Reports are for every copy, so that a backup knows what the primary knows; just one notifies.
class NotifyWhenActive : public TakeReports {
  public:
    using TakeReports::TakeReports;

  protected:
    void onChange(const std::string& name, const std::string& state) override {
        if (engine_.REIsActive()) TakeReports::onChange(name, state);
    }
};
