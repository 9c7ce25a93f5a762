#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/kvx/DaemonView.h"

namespace kvx::tool {

/// What `kvx top` shows: the daemon in six lines, then sessions or subjects. Knows no terminal.
class TopView {
  public:
    /// The daemon's answers to questions on status, sessions and subjects.
    struct Answers {
        Json status = Json::object();
        Json sessions = Json::object();
        Json subjects = Json::object();
    };
    struct Line {
        std::string text;
        enum class Look { Plain, Heading, Alarm } look = Look::Plain;
    };

    /// Takes one key: a character, or one of these. True when the program is to end.
    enum Key { Up = 1'000, Down, PageUp, PageDown, Enter, Backspace, Escape };
    bool press(int key);

    /// The lines of a screen of that size: none longer than `width`, at most `rows`.
    [[nodiscard]] std::vector<Line> draw(const Answers& answers, std::size_t width,
                                         std::size_t rows);

  private:
    struct Column;

    [[nodiscard]] static const std::vector<Column>& sessionColumns();
    [[nodiscard]] static const std::vector<Column>& subjectColumns();
    [[nodiscard]] const std::vector<Column>& columns() const {
        return showsSubjects_ ? subjectColumns() : sessionColumns();
    }
    void pressInFilter(int key);
    void sortBy(int key);
    [[nodiscard]] std::vector<Json> rowsOf(const Answers& answers) const;
    [[nodiscard]] std::string footer(std::size_t shown, std::size_t all) const;

    bool showsSubjects_ = false;
    std::size_t sessionSort_ = 5;  // its column: messages out
    std::size_t subjectSort_ = 2;  // messages a second
    bool isReversed_ = false;
    std::size_t scroll_ = 0;  // rows above the screen
    std::string filter_;
    bool isTyping_ = false;  // the filter
};

}  // namespace kvx::tool
