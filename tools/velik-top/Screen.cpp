#include "Screen.h"

#include "Attention.h"
#include "DetailText.h"
#include "HistoryText.h"
#include "KeyHelp.h"
#include "Recording.h"
#include "Replay.h"
#include "StallText.h"
#include "TableText.h"

#include <curses.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <set>

namespace VelikTop {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int keyEscape = 27;
constexpr int keyCtrlU = 21;
constexpr int maxHistoryLines = 8;
constexpr int maxSummaryThreads = 4;
// The longest the screen waits for a key before looking for answers.
constexpr long long answerCheckMs = 50;
constexpr double intervalSteps[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60};

// Colour pairs, one per kind of attention.
enum Pair : short { pairStalled = 1, pairViolations, pairLatency, pairStale };

void putLine(int y, int width, const std::string& text, attr_t attributes = A_NORMAL) {
    attron(attributes);
    mvaddnstr(y, 0, text.c_str(), width);
    if (attributes & A_REVERSE) {
        // A highlighted line runs to the edge of the screen.
        for (int x = std::min<int>(static_cast<int>(displayWidth(text)), width); x < width; ++x) {
            addch(' ');
        }
    }
    attroff(attributes);
}

// `text` broken at its double blanks into lines of at most `width`.
std::vector<std::string> wrapAtGaps(const std::string& text, std::size_t width) {
    std::vector<std::string> out{""};
    std::size_t from = 0;
    while (from < text.size()) {
        const auto gap = text.find("  ", from + 1);
        const std::string part = text.substr(from, gap == std::string::npos ? gap : gap - from);
        if (!out.back().empty() && displayWidth(out.back() + part) > width) {
            out.push_back(part.substr(part.find_first_not_of(' ')));
        } else {
            out.back() += part;
        }
        from = gap == std::string::npos ? text.size() : gap;
    }
    return out;
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
    columns_ = defaultColumns(sampler_.threads().size() > 1);
}

Screen::~Screen() {
    endwin();
}

void Screen::viewIs(const ViewOptions& view, std::vector<Column> columns, bool noColour) {
    view_ = view;
    columns_ = std::move(columns);
    colour_ = colourWanted(noColour, std::getenv("NO_COLOR"), has_colors());
    if (!colour_) {
        return;
    }
    start_color();
    use_default_colors();
    init_pair(pairStalled, COLOR_WHITE, COLOR_RED);
    init_pair(pairViolations, COLOR_RED, -1);
    init_pair(pairLatency, COLOR_YELLOW, -1);
    init_pair(pairStale, COLOR_BLUE, -1);
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
        if (key != ERR && !handleKey(key)) {
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
    // The cursor follows its task through the reordering of every refresh,
    // so what one is looking at stays under the cursor; when the task goes,
    // the cursor keeps its place on the screen.
    lines_ = buildTable(sampler_.views(now()), view_);
    const auto it = std::find_if(lines_.begin(), lines_.end(),
                                 [this](const TableLine& l) { return l.key() == cursorKey_; });
    if (it != lines_.end()) {
        cursor_ = static_cast<std::size_t>(it - lines_.begin());
    }
    hints_.update(sampler_);
    cursor_ = lines_.empty() ? 0 : std::min(cursor_, lines_.size() - 1);
    cursorKey_ = lines_.empty() ? std::string() : lines_[cursor_].key();
}

void Screen::draw() {
    erase();
    int height = 0, width = 0;
    getmaxyx(stdscr, height, width);
    // The help takes the whole screen: every key fits in 80 x 24.
    int y = pane_ == Pane::help ? 0 : drawSummary(0, width);
    const int keysLine = height - 1;
    switch (pane_) {
        case Pane::stalls:
            drawStalls(y, keysLine - y, width);
            break;
        case Pane::help:
            drawHelp(y, keysLine - y, width);
            break;
        case Pane::detail:
            drawDetail(y, keysLine - y, width);
            break;
        case Pane::hints:
            drawHints(y, keysLine - y, width);
            break;
        case Pane::table: {
            int historyHeight = 0;
            if (showHistory_) {
                historyHeight = std::min(maxHistoryLines + 1, std::max(0, (keysLine - y) / 3));
            }
            drawTable(y, keysLine - y - historyHeight, width);
            drawHistory(keysLine - historyHeight, historyHeight, width);
            break;
        }
    }
    drawKeys(keysLine, width);
    refresh();
}

int Screen::drawSummary(int y, int width) {
    const auto views = sampler_.views(now());
    std::vector<std::string> summary = formatSummary(views, view_, lines_.size(), interval_);
    for (const std::string& line : wrapAtGaps(printable(summary[0]), width)) {
        putLine(y++, width, line);
    }
    const std::size_t shown = std::min<std::size_t>(summary.size(), 1 + maxSummaryThreads);
    for (std::size_t i = 1; i < shown; ++i) {
        putLine(y++, width, printable(summary[i]));
    }
    if (summary.size() > shown) {
        putLine(y++, width, fmt::format("... and {} more threads", summary.size() - shown));
    }
    if (player_) {
        putLine(y++, width, player_->clockLine(), A_BOLD);
    }
    if (const std::string hint =
            hintLine(shownHints(hints_.hints(), view_.showOwn), static_cast<std::size_t>(width));
        !hint.empty()) {
        putLine(y++, width, hint);
    }
    for (const Sampler::Thread& t : sampler_.threads()) {
        if (const std::string problem = t.problem(); !problem.empty()) {
            putLine(y++, width, printable(problem), A_BOLD);
        }
    }
    for (const std::string& line : stallBanner(sampler_.stalledRoots(), sampler_.stallRoots())) {
        const bool head = line.rfind("STALLED", 0) == 0;
        attr_t banner = head ? A_BOLD | A_REVERSE : A_BOLD;
        if (head && colour_) {
            banner = A_BOLD | COLOR_PAIR(pairStalled);
        }
        putLine(y++, width, printable(line), banner);
    }
    return y;
}

unsigned Screen::attributesOf(const TableLine& line) const {
    std::set<std::string> stalled;
    for (const RootStatus& r : sampler_.stalledRoots()) {
        stalled.insert(r.task);
    }
    for (const Sampler::Thread& t : sampler_.threads()) {
        if (t.busy) {
            stalled.insert(t.busy->task);
        }
    }
    switch (attentionOf(line, stalled)) {
        case Attention::stalled:
            return colour_ ? A_BOLD | COLOR_PAIR(pairStalled) : A_REVERSE;
        case Attention::stale:
            return colour_ ? A_DIM | COLOR_PAIR(pairStale) : A_DIM;
        case Attention::violations:
            return colour_ ? A_BOLD | COLOR_PAIR(pairViolations) : A_BOLD;
        case Attention::latency:
            return colour_ ? COLOR_PAIR(pairLatency) : A_BOLD;
        case Attention::none:
            break;
    }
    return A_NORMAL;
}

void Screen::drawTable(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    const std::size_t figures = columns_.empty() ? 0 : columns_.size() - 1;
    skipColumns_ = std::min(skipColumns_, figures ? figures - 1 : 0);
    const TableLayout layout(lines_, columns_, static_cast<std::size_t>(width), skipColumns_);
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
        const attr_t attributes = attributesOf(lines_[n]);
        putLine(top + 1 + static_cast<int>(i), width, layout.line(lines_[n]),
                n == cursor_ ? A_BOLD | A_UNDERLINE | attributes : attributes);
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
    const auto lines =
        formatHistory(sampler_.snapshots(), static_cast<std::size_t>(height - 1), view_.showOwn);
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

void Screen::drawHelp(int top, int height, int width) {
    putLine(top, width, "KEYS (any key goes back)", A_REVERSE);
    int y = top + 1;
    for (const auto& [keys, what] : keyHelp(player_ != nullptr)) {
        if (y >= top + height) {
            break;
        }
        putLine(y++, width, fmt::format("  {:<12} {}", keys, what));
    }
}

void Screen::drawDetail(int top, int height, int width) {
    const auto it = std::find_if(lines_.begin(), lines_.end(),
                                 [this](const TableLine& l) { return l.key() == detailKey_; });
    if (it == lines_.end()) {
        putLine(top, width, "(the task is no longer in the table; Esc goes back)", A_REVERSE);
        return;
    }
    const Sampler::Thread* thread = nullptr;
    for (const Sampler::Thread& t : sampler_.threads()) {
        if (t.current && &*t.current == it->thread) {
            thread = &t;
        }
    }
    const std::vector<StallRoot> stalls = sampler_.stallRoots();
    DetailSources sources;
    sources.line = &*it;
    sources.history = thread && thread->history ? &*thread->history : nullptr;
    sources.stalls = &stalls;
    sources.waits = thread && thread->waits ? &*thread->waits : nullptr;
    const std::vector<std::string> lines = detailLines(sources);
    detailScroll_ = std::min(detailScroll_, lines.empty() ? 0 : lines.size() - 1);
    int y = top;
    for (std::size_t i = detailScroll_; i < lines.size() && y < top + height; ++i) {
        const bool heading = !lines[i].empty() && lines[i][0] != ' ';
        putLine(y++, width, printable(lines[i]), heading ? A_REVERSE : A_NORMAL);
    }
}

void Screen::drawKeys(int y, int width) {
    if (editing_ == Editing::filter) {
        putLine(y, width,
                "filter: " + printable(view_.filter) + "_   (enter: keep, esc: cancel, ^U: clear)",
                A_BOLD);
        return;
    }
    if (editing_ == Editing::columns) {
        putLine(y, width, "columns: " + editText_ + "_   (enter: apply, esc: cancel)", A_BOLD);
        return;
    }
    if (!message_.empty()) {
        putLine(y, width, printable(message_), A_BOLD);
        return;
    }
    putLine(y, width, keyBar(), A_REVERSE);
}

void Screen::openPane(Pane pane) {
    pane_ = pane;
    fetcher_.stallsWanted(pane == Pane::stalls || pane == Pane::detail);
    fetcher_.detailWanted(pane == Pane::detail);
    if (pane == Pane::stalls || pane == Pane::detail) {
        fetcher_.startRound();  // what the pane needs at once, not an interval later
    }
}

bool Screen::handlePaneKey(int key) {
    if (pane_ == Pane::help) {
        openPane(Pane::table);
        return key != 'q' && key != 'Q';
    }
    if (pane_ == Pane::detail) {
        if (key == KEY_UP || key == 'k') {
            detailScroll_ = detailScroll_ ? detailScroll_ - 1 : 0;
        } else if (key == KEY_DOWN || key == 'j') {
            ++detailScroll_;  // drawDetail keeps it within the lines
        } else if (key == keyEscape || isEnter(key) || isBackspace(key)) {
            openPane(Pane::table);
        }
        return key != 'q' && key != 'Q';
    }
    // The stalls pane: its own cursor, the rest as on the table.
    const bool up = key == KEY_UP || key == 'k';
    stallCursor_ = up ? (stallCursor_ ? stallCursor_ - 1 : 0) : stallCursor_ + 1;
    return true;  // drawStalls keeps it within the list
}

bool Screen::handleKey(int key) {
    if (editing_ != Editing::none) {
        handleEditKey(key);
        return true;
    }
    message_.clear();
    const bool stallMove =
        pane_ == Pane::stalls && (key == KEY_UP || key == 'k' || key == KEY_DOWN || key == 'j');
    if (pane_ == Pane::help) {
        return handlePaneKey(key);
    }
    // In a replay, Space pauses and plays rather than folding a group.
    if (replayKey(key)) {
        return true;
    }
    if (pane_ == Pane::detail || stallMove) {
        return handlePaneKey(key);
    }
    int height = 0, width = 0;
    getmaxyx(stdscr, height, width);
    const long page = std::max(1, height / 2);
    switch (key) {
        case 'q':
        case 'Q':
            return false;
        case 't':
            view_.sort = SortKey::share;
            break;
        case 'l':
            view_.sort = SortKey::latency;
            break;
        case 'v':
            view_.sort = SortKey::violations;
            break;
        case 'n':
            view_.sort = SortKey::name;
            break;
        case 'r':
            view_.inverted = !view_.inverted;
            break;
        case 'T':
            view_.flat = !view_.flat;
            break;
        case 'm':
            view_.merge = view_.merge == MergeMode::crowds ? MergeMode::all
                          : view_.merge == MergeMode::all  ? MergeMode::off
                                                           : MergeMode::crowds;
            message_ = std::string("merge: ") + mergeModeName(view_.merge);
            break;
        case 'i':
            view_.hideIdle = !view_.hideIdle;
            break;
        case 'e':
            view_.showOwn = !view_.showOwn;
            break;
        case '/':
            // A new filter: typing after an old one would only narrow it.
            editing_ = Editing::filter;
            filterBefore_ = view_.filter;
            view_.filter.clear();
            toTop();
            break;
        case keyCtrlU:
            view_.filter.clear();
            break;
        case 'o':
            editing_ = Editing::columns;
            editText_ = columnKeys(columns_);
            break;
        case '?':
            openPane(Pane::help);
            break;
        case 'w':
            openPane(pane_ == Pane::hints ? Pane::table : Pane::hints);
            break;
        case 'f':
            view_.toggleFoldAll();
            break;
        case ' ':
            if (cursor_ < lines_.size() && !lines_[cursor_].groupKey.empty()) {
                view_.toggleFold(lines_[cursor_].groupKey);
            }
            break;
        case '\n':
        case '\r':
        case KEY_ENTER:
            if (cursor_ < lines_.size()) {
                detailKey_ = lines_[cursor_].key();
                detailScroll_ = 0;
                openPane(Pane::detail);
            }
            break;
        case 'c':
            view_.showCompleted = !view_.showCompleted;
            break;
        case 'h':
            showHistory_ = !showHistory_;
            break;
        case 's':
            openPane(pane_ == Pane::stalls ? Pane::table : Pane::stalls);
            break;
        case '+':
        case '-':
            changeInterval(key == '+');
            break;
        case KEY_LEFT:
            skipColumns_ = skipColumns_ ? skipColumns_ - 1 : 0;
            break;
        case KEY_RIGHT:
            ++skipColumns_;  // drawTable keeps one figure in sight
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

void Screen::handleEditKey(int key) {
    std::string& text = editing_ == Editing::filter ? view_.filter : editText_;
    if (isEnter(key)) {
        if (editing_ == Editing::columns) {
            try {
                columns_ = parseColumns(editText_);
                skipColumns_ = 0;
            } catch (const TopError& e) {
                message_ = e.what();
            }
        }
        editing_ = Editing::none;
    } else if (key == keyEscape) {
        if (editing_ == Editing::filter) {
            view_.filter = filterBefore_;
        }
        editing_ = Editing::none;
    } else if (key == keyCtrlU) {
        text.clear();
    } else if (isBackspace(key)) {
        if (!text.empty()) {
            text.pop_back();
        }
    } else if (key >= 0x20 && key < 0x7f && text.size() < 200) {
        text += static_cast<char>(key);
    }
    if (editing_ == Editing::filter || key == keyEscape) {
        // The table follows the filter as it is typed.
        toTop();
    }
    rebuild();
}

void Screen::toTop() {
    cursor_ = 0;
    scroll_ = 0;
    cursorKey_.clear();
}

void Screen::moveCursor(long delta) {
    if (lines_.empty()) {
        return;
    }
    const long last = static_cast<long>(lines_.size()) - 1;
    cursor_ = static_cast<std::size_t>(std::clamp(static_cast<long>(cursor_) + delta, 0L, last));
    cursorKey_ = lines_[cursor_].key();
}

void Screen::replay(Player* player) {
    player_ = player;
    if (player_) {
        player_->follow(&hints_);
    }
}

bool Screen::replayKey(int key) {
    if (!player_ || !player_->key(key)) {
        return false;
    }
    rebuild();
    return true;
}

std::string Screen::keyBar() const {
    if (pane_ == Pane::detail) {
        return "esc/enter back  up/down scroll  q quit";
    }
    // A replay's own keys come first: they are what one reaches for there.
    std::string bar =
        player_ ? std::string(player_->paused() ? "space play" : "space pause") + "  , . < > step  "
                : std::string();
    return bar +
           "? help  enter detail  w hints  / filter  t/l/v/n sort  r invert  T flat  m merge  "
           "i idle  e own  o columns  s stalls  q quit";
}

Sampler::Clock::time_point Screen::now() const {
    return player_ ? player_->now() : Sampler::Clock::now();
}

void Screen::drawHints(int top, int height, int width) {
    if (height < 2) {
        return;
    }
    putLine(top, width, "HINTS (w: back to the table)", A_REVERSE);
    const auto lines = hintList(shownHints(hints_.hints(), view_.showOwn),
                                static_cast<std::size_t>(std::max(width, 1)));
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
