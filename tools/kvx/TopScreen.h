#pragma once

#include <optional>

#include "tools/kvx/TopView.h"

namespace kvx::tool {

/// The terminal in the hands of `kvx top`, from construction to destruction. One at a time.
class TopScreen {
  public:
    TopScreen();
    ~TopScreen();
    /// False when nothing is known of this kind of terminal; nothing may be shown then.
    [[nodiscard]] bool isOpen() const { return isOpen_; }
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    static void show(TopView& view, const TopView::Answers& answers);

    /// The next key that was pressed, as the view knows it; nothing when there is none.
    static std::optional<int> key();

  private:
    bool isOpen_ = false;
};

}  // namespace kvx::tool
