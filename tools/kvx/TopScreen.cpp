#include "tools/kvx/TopScreen.h"

// Its macros TRUE and FALSE would spoil the declarations of the bus: it comes after them.
#include <curses.h>

#include <clocale>
#include <cstddef>
#include <cstdio>

namespace kvx::tool {

namespace {

constexpr short kAlarmColours = 1;  // the number of a pair
constexpr int kEscapeKey = 27;
constexpr int kDeleteKey = 127;
constexpr int kEscapeMs = 50;  // an escape that nothing follows is that key

int lookOf(TopView::Line::Look look) {
    if (look == TopView::Line::Look::Heading) return static_cast<int>(A_REVERSE);
    if (look != TopView::Line::Look::Alarm) return static_cast<int>(A_NORMAL);
    return static_cast<int>(has_colors() ? COLOR_PAIR(kAlarmColours) : A_BOLD);
}

}  // namespace

TopScreen::TopScreen() {
    std::setlocale(LC_CTYPE, "");
    isOpen_ = newterm(nullptr, stdout, stdin) != nullptr;
    if (!isOpen_) return;
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(kEscapeMs);
    curs_set(0);
    if (!has_colors()) return;
    start_color();
    use_default_colors();
    init_pair(kAlarmColours, COLOR_RED, -1);
}

TopScreen::~TopScreen() {
    if (isOpen_) endwin();
}

void TopScreen::show(TopView& view, const TopView::Answers& answers) {
    erase();
    const auto lines =
        view.draw(answers, static_cast<std::size_t>(COLS), static_cast<std::size_t>(LINES));
    int row = 0;
    for (const auto& line : lines) {
        const int look = lookOf(line.look);
        attron(look);
        mvaddstr(row++, 0, line.text.c_str());
        attroff(look);
    }
    refresh();
}

std::optional<int> TopScreen::key() {
    const int code = getch();
    switch (code) {
        case ERR:
            return std::nullopt;
        case KEY_UP:
            return TopView::Up;
        case KEY_DOWN:
            return TopView::Down;
        case KEY_PPAGE:
            return TopView::PageUp;
        case KEY_NPAGE:
            return TopView::PageDown;
        case KEY_ENTER:
        case '\r':
        case '\n':
            return TopView::Enter;
        case KEY_BACKSPACE:
        case kDeleteKey:
        case '\b':
            return TopView::Backspace;
        case kEscapeKey:
            return TopView::Escape;
        default:
            return code;  // also that of a terminal of another size, which sorts by nothing
    }
}

}  // namespace kvx::tool
