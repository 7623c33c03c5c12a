#include "Screen.h"

#include "HistoryText.h"
#include "Recording.h"
#include "Replay.h"
#include "StallText.h"
#include "TableText.h"

#include <curses.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <clocale>

namespace VelikTop {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int keyEscape = 27;
constexpr int maxHistoryLines = 8;
constexpr int maxSummaryThreads = 4;
// The longest the screen waits for a key before looking for answers.
constexpr long long answerCheckMs = 50;
constexpr double intervalSteps[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60};

void putLine(int y, int width, const std::string& text, attr_t attributes = A_NORMAL) {
    attron(attributes);
    mvaddnstr(y, 0, text.c_str(), width);
    if (attributes & A_REVERSE) {
        // A highlighted line runs to the edge of the screen.
        for (int x = std::min<int>(static_cast<int>(text.size()), width); x < width; ++x) {
            addch(' ');
        }
    }
    attroff(attributes);
}

bool isBackspace(int key) {
    return key == KEY_BACKSPACE || key == 127 || key == 8;
}
bool isEnter(int key) {
    return key == '\n' || key == '\r' || key == KEY_ENTER;
}

}  // namespace

Screen::Screen(Fetcher& fetcher, Sampler& sampler, double interval)
    : fetcher_(fetcher), sampler_(sampler), interval_(interval) {
    std::setlocale(LC_ALL, "");
    initscr();
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    set_escdelay(25);
}

Screen::~Screen() {
    endwin();
}

void Screen::run() {
    rebuild();
    auto next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(interval_));
    for (;;) {
        draw();
        const auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
        timeout(static_cast<int>(std::clamp<long long>(wait, 0, answerCheckMs)));
        const int key = getch();
        if (key != ERR && !hookKey(key) && !handleKey(key)) {
            return;
        }
        if (takeAnswers() || (player_ && player_->tick())) {
            rebuild();
        }
        // Checked after keys too: a held key must not stop the refreshes.
        // A socket still busy with the last round is not asked again.
        if (Clock::now() >= next) {
            fetcher_.startRound();
            next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(interval_));
        }
    }
}

bool Screen::takeAnswers() {
    std::vector<FetchResult> answers = fetcher_.take();
    for (FetchResult& a : answers) {
        if (recorder_) {
            recorder_->write(a);
        }
        sampler_.apply(std::move(a));
    }
    return !answers.empty();
}

void Screen::rebuild() {
    // The cursor keeps its place on the screen, as in top: following one
    // task through the reordering of every refresh would scroll the table
    // about under the reader's eyes.
    lines_ = buildTable(sampler_.views(now()), view_);
    hints_.update(sampler_);
    cursor_ = lines_.empty() ? 0 : std::min(cursor_, lines_.size() - 1);
}

void Screen::draw() {
    erase();
    int height = 0, width = 0;
    getmaxyx(stdscr, height, width);
    int y = drawSummary(0, width);
    const int keysLine = height - 1;
    if (showHints_) {
        drawHints(y, keysLine - y, width);
        drawKeys(keysLine, width);
        refresh();
        return;
    }
    if (showStalls_) {
        drawStalls(y, keysLine - y, width);
        drawKeys(keysLine, width);
        refresh();
        return;
    }
    int historyHeight = 0;
    if (showHistory_) {
        historyHeight = std::min(maxHistoryLines + 1, std::max(0, (keysLine - y) / 3));
    }
    drawTable(y, keysLine - y - historyHeight, width);
    drawHistory(keysLine - historyHeight, historyHeight, width);
    drawKeys(keysLine, width);
    refresh();
}

int Screen::drawSummary(int y, int width) {
    const auto views = sampler_.views(now());
    std::vector<std::string> summary = formatSummary(views, view_, lines_.size(), interval_);
    const std::size_t shown = std::min<std::size_t>(summary.size(), 1 + maxSummaryThreads);
    for (std::size_t i = 0; i < shown; ++i) {
        putLine(y++, width, printable(summary[i]));
    }
    if (summary.size() > shown) {
        putLine(y++, width, fmt::format("... and {} more threads", summary.size() - shown));
    }
    if (player_) {
        putLine(y++, width, player_->clockLine(), A_BOLD);
    }
    if (const std::string hint = hintLine(hints_.hints()); !hint.empty()) {
        putLine(y++, width, printable(hint));
    }
    for (const Sampler::Thread& t : sampler_.threads()) {
        if (const std::string problem = t.problem(); !problem.empty()) {
            putLine(y++, width, printable(problem), A_BOLD);
        }
    }
    for (const std::string& line : stallBanner(sampler_.stalledRoots(), sampler_.stallRoots())) {
        const bool head = line.rfind("STALLED", 0) == 0;
        putLine(y++, width, printable(line), head ? A_BOLD | A_REVERSE : A_BOLD);
    }
    return y;
}

void Screen::drawTable(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    const TableLayout layout(lines_, sampler_.threads().size() > 1);
    putLine(top, width, layout.heading(), A_REVERSE);
    const std::size_t rows = static_cast<std::size_t>(height - 1);
    // Scroll just enough to keep the cursor in sight.
    if (cursor_ < scroll_) {
        scroll_ = cursor_;
    } else if (cursor_ >= scroll_ + rows) {
        scroll_ = cursor_ + 1 - rows;
    }
    scroll_ = std::min(scroll_, lines_.size() > rows ? lines_.size() - rows : 0);
    for (std::size_t i = 0; i < rows && scroll_ + i < lines_.size(); ++i) {
        const std::size_t n = scroll_ + i;
        const attr_t age = lines_[n].stale ? A_DIM : A_NORMAL;
        putLine(top + 1 + static_cast<int>(i), width, layout.line(lines_[n]),
                n == cursor_ ? A_BOLD | A_UNDERLINE | age : age);
    }
    if (lines_.empty()) {
        putLine(top + 1, width,
                view_.filter.empty() ? "(no tasks yet)" : "(no task name matches the filter)");
    }
}

void Screen::drawHistory(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    putLine(top, width, "RECENT EVENTS (newest first)", A_REVERSE);
    const auto lines = formatHistory(sampler_.snapshots(), static_cast<std::size_t>(height - 1));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        putLine(top + 1 + static_cast<int>(i), width, printable(lines[i]));
    }
}

void Screen::drawStalls(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    const std::vector<StallRoot> roots = sampler_.stallRoots();
    const std::vector<StallEntry> entries = stallEntries(roots);
    putLine(top, width, stallHeading(), A_REVERSE);
    if (entries.empty()) {
        putLine(top + 1, width, "(no stall recorded)");
        return;
    }
    stallCursor_ = std::min(stallCursor_, entries.size() - 1);
    // The list takes up to half the pane; the chosen stall's frames the rest.
    const std::size_t rows = std::max<std::size_t>(1, static_cast<std::size_t>(height - 1) / 2);
    const std::size_t first = stallCursor_ >= rows ? stallCursor_ + 1 - rows : 0;
    int y = top + 1;
    for (std::size_t i = first; i < entries.size() && i < first + rows; ++i) {
        putLine(y++, width, printable(stallLine(entries[i])),
                i == stallCursor_ ? A_BOLD | A_UNDERLINE : A_NORMAL);
    }
    for (const std::string& line : stallFrames(entries[stallCursor_])) {
        if (y >= top + height) {
            break;
        }
        putLine(y++, width, printable(line), line.rfind("stall ", 0) == 0 ? A_REVERSE : A_NORMAL);
    }
}

void Screen::drawKeys(int y, int width) {
    if (editingFilter_) {
        putLine(y, width, "filter: " + printable(view_.filter) + "_   (enter: keep, esc: cancel)",
                A_BOLD);
        return;
    }
    putLine(y, width,
            "t/l/v/n sort  / filter  f fold all  space fold  c completed  e events  h hints  "
            "s stalls  +/- interval  q quit",
            A_REVERSE);
}

bool Screen::handleKey(int key) {
    if (editingFilter_) {
        handleFilterKey(key);
        return true;
    }
    int height = 0, width = 0;
    getmaxyx(stdscr, height, width);
    const long page = std::max(1, height / 2);
    if (showStalls_ && (key == KEY_UP || key == 'k' || key == KEY_DOWN || key == 'j')) {
        const bool up = key == KEY_UP || key == 'k';
        stallCursor_ = up ? (stallCursor_ ? stallCursor_ - 1 : 0) : stallCursor_ + 1;
        return true;  // drawStalls keeps it within the list
    }
    switch (key) {
        case 'q':
        case 'Q':
            return false;
        case 't':
            sortBy(SortKey::share);
            break;
        case 'l':
            sortBy(SortKey::latency);
            break;
        case 'v':
            sortBy(SortKey::violations);
            break;
        case 'n':
            sortBy(SortKey::name);
            break;
        case '/':
            editingFilter_ = true;
            filterBefore_ = view_.filter;
            break;
        case 'f':
            view_.toggleFoldAll();
            break;
        case ' ':
        case '\n':
        case '\r':
        case KEY_ENTER:
            if (cursor_ < lines_.size() && lines_[cursor_].row->isGroup) {
                view_.toggleFold(lines_[cursor_].groupKey);
            }
            break;
        case 'c':
            view_.showCompleted = !view_.showCompleted;
            break;
        case 'e':
            showHistory_ = !showHistory_;
            break;
        case 's':
            showStalls_ = !showStalls_;
            fetcher_.stallsWanted(showStalls_);
            if (showStalls_) {
                fetcher_.startRound();  // the list at once, not an interval later
            }
            break;
        case '+':
        case '-':
            changeInterval(key == '+');
            break;
        case KEY_UP:
        case 'k':
            moveCursor(-1);
            break;
        case KEY_DOWN:
        case 'j':
            moveCursor(1);
            break;
        case KEY_PPAGE:
            moveCursor(-page);
            break;
        case KEY_NPAGE:
            moveCursor(page);
            break;
        case KEY_HOME:
            moveCursor(-static_cast<long>(lines_.size()));
            break;
        case KEY_END:
            moveCursor(static_cast<long>(lines_.size()));
            break;
        default:
            return true;
    }
    rebuild();
    return true;
}

void Screen::handleFilterKey(int key) {
    if (isEnter(key)) {
        editingFilter_ = false;
    } else if (key == keyEscape) {
        editingFilter_ = false;
        view_.filter = filterBefore_;
    } else if (isBackspace(key)) {
        if (!view_.filter.empty()) {
            view_.filter.pop_back();
        }
    } else if (key >= 0x20 && key < 0x7f && view_.filter.size() < 64) {
        view_.filter += static_cast<char>(key);
    }
    // The table follows the filter as it is typed.
    toTop();
    rebuild();
}

void Screen::sortBy(SortKey key) {
    // A new order starts at its top, as a new filter does.
    view_.sort = key;
    toTop();
}

void Screen::toTop() {
    cursor_ = 0;
    scroll_ = 0;
}

void Screen::moveCursor(long delta) {
    if (lines_.empty()) {
        return;
    }
    const long last = static_cast<long>(lines_.size()) - 1;
    cursor_ = static_cast<std::size_t>(std::clamp(static_cast<long>(cursor_) + delta, 0L, last));
}

void Screen::replay(Player* player) {
    player_ = player;
    if (player_) {
        player_->follow(&hints_);
    }
}

bool Screen::hookKey(int key) {
    if (editingFilter_) {
        return false;
    }
    if (key == 'h') {
        showHints_ = !showHints_;
        return true;
    }
    if (player_ && player_->key(key)) {
        rebuild();
        return true;
    }
    return false;
}

Sampler::Clock::time_point Screen::now() const {
    return player_ ? player_->now() : Sampler::Clock::now();
}

void Screen::drawHints(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    putLine(top, width, "HINTS (h: back to the table)", A_REVERSE);
    const auto lines = hintList(hints_.hints(), static_cast<std::size_t>(std::max(width, 1)));
    for (std::size_t i = 0; i < lines.size() && static_cast<int>(i) + 1 < height; ++i) {
        const bool title = !lines[i].empty() && lines[i][0] != ' ';
        putLine(top + 1 + static_cast<int>(i), width, printable(lines[i]),
                title ? A_BOLD : A_NORMAL);
    }
}

void Screen::changeInterval(bool longer) {
    if (longer) {
        for (const double step : intervalSteps) {
            if (step > interval_ + 1e-9) {
                interval_ = step;
                return;
            }
        }
        return;
    }
    for (auto it = std::rbegin(intervalSteps); it != std::rend(intervalSteps); ++it) {
        if (*it < interval_ - 1e-9) {
            interval_ = *it;
            return;
        }
    }
}

}  // namespace VelikTop
