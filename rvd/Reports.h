#pragma once

#include <memory>

#include "rvd/BusySubjects.h"
#include "rvd/Delays.h"
#include "rvd/Facts.h"
#include "rvd/Inquiry.h"
#include "rvd/Report.h"
#include "rvd/Router.h"

namespace kvx::rvd {

/// Makes the report that answers an inquiry. docs/wire-protocol.md has the fields.
class Reports {
  public:
    /// All must outlive this object and the reports.
    Reports(const Observed& observed, const BusySubjects& busy, Delays& delays)
        : observed_(observed), busy_(busy), delays_(delays) {}

    /// `asker` must outlive the report. Null for a subject that is not asked about. Throws
    /// `std::bad_alloc`.
    [[nodiscard]] std::unique_ptr<Report> answer(const Inquiry& inquiry,
                                                 const Router::Session& asker) const;

    /// For who may not ask.
    [[nodiscard]] static std::unique_ptr<Report> refusal();

  private:
    const Observed& observed_;
    const BusySubjects& busy_;
    Delays& delays_;
};

}  // namespace kvx::rvd
