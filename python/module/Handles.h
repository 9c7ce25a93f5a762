#pragma once

#include <memory>
#include <set>
#include <utility>

#include "python/module/Failure.h"
#include "python/module/Gil.h"

namespace kvx::python {

/// Ends what `thing` stands for, without the GIL, where it was made.
template <class T>
void letGo(std::shared_ptr<T>& thing, const Origin& origin) {
    if (!thing) return;
    if (!origin.isHere()) {
        static_cast<void>(new std::shared_ptr<T>(std::move(thing)));
        return;
    }
    const WithoutGil withoutGil;
    thing.reset();
}

/// The clients and services that are open, which end before the interpreter. GIL held.
class OpenThing {
  public:
    OpenThing() {
        all().insert(this);
        countOpen(1);
    }
    virtual ~OpenThing() { forget(); }
    OpenThing(const OpenThing&) = delete;
    OpenThing& operator=(const OpenThing&) = delete;

    /// Begins its end; does not wait.
    virtual void beginEnd() = 0;

    static std::set<OpenThing*>& all() {
        static auto* const things = new std::set<OpenThing*>;
        return *things;
    }

  protected:
    [[nodiscard]] const Origin& origin() const { return origin_; }
    void forget() {
        if (all().erase(this) != 0) countOpen(-1);
    }

  private:
    const Origin origin_;
};

}  // namespace kvx::python
