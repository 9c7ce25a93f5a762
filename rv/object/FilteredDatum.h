#pragma once

#include "rv/message/RvDatum.h"
#include "rv/object/CallbackReference.h"
#include "rv/object/RvDatumFilter.h"

namespace kvx::detail {

/// A datum after its filter; the datum itself without a live filter. The constructor may run user
/// code that destroys the sender or listener, the session and the filter.
class FilteredDatum {
  public:
    FilteredDatum(const CallbackReference& reference, RvDatum& datum, void* object)
        : original_(&datum), result_(&datum) {
        if (auto* filter = reference.as<RvDatumFilter>()) result_ = filter->filter(&datum, object);
    }
    FilteredDatum(const FilteredDatum&) = delete;
    FilteredDatum& operator=(const FilteredDatum&) = delete;
    ~FilteredDatum() {
        if (result_ != original_) delete result_;
    }

    /// Null when the filter refused.
    const RvDatum* get() const { return result_; }

  private:
    RvDatum* original_;
    RvDatum* result_;
};

}  // namespace kvx::detail
