// The live, top-like view in the terminal (ncurses).
//
// From the top: the summary (time, threads, tasks, interval, sort, filter,
// then one line per thread with its busy share, "stale Ns" after a thread
// whose figures are old), any socket failures, a banner for each stalled
// root, the table with a cursor (a stale thread's rows dimmed), the pane of
// recent scheduler events, and a line of keys. In a replay the recording's
// clock follows the summary, and the first hint, if any, comes next. `s`
// puts the stalls pane in place of the table, `w` the hints, `?` the list of
// keys, Enter one task in detail. Rows
// needing attention are coloured (Attention.h). The cursor stays on its
// task as the order changes. A round of requests starts every interval and
// its answers are shown as they arrive; keys act at once, whatever a socket
// does.
#pragma once

#include "Columns.h"
#include "Fetcher.h"
#include "Hints.h"
#include "Sampler.h"
#include "TaskTable.h"

#include <string>
#include <vector>

namespace VelikTop {

class Player;
class Recorder;

class Screen {
  public:
    Screen(Fetcher& fetcher, Sampler& sampler, double interval);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // The view to start with; `noColour` as --no-color says.
    void viewIs(const ViewOptions& view, std::vector<Column> columns, bool noColour);

    // Shows snapshots until the user quits.
    void run();

    // Writes every answer to `recorder` before showing it.
    void record(Recorder* recorder) { recorder_ = recorder; }
    // Shows the frames of `player` in place of answers, its clock under the
    // summary, and takes its keys.
    void replay(Player* player);

  private:
    enum class Pane { table, stalls, help, detail, hints };
    enum class Editing { none, filter, columns };

    void draw();
    int drawSummary(int y, int width);
    void drawTable(int top, int height, int width);
    void drawHistory(int top, int height, int width);
    void drawKeys(int y, int width);
    void drawStalls(int top, int height, int width);
    void drawHelp(int top, int height, int width);
    void drawDetail(int top, int height, int width);
    // Takes the answers that arrived; whether there were any.
    bool takeAnswers();

    // A replay's keys, taken before the table's; whether `key` was one.
    bool replayKey(int key);
    // The line of keys at the bottom, for the pane shown.
    std::string keyBar() const;
    // The time figures are aged against: the shown frame's in a replay.
    Sampler::Clock::time_point now() const;
    void drawHints(int top, int height, int width);

    // Acts on one key; false to quit.
    bool handleKey(int key);
    bool handlePaneKey(int key);
    void handleEditKey(int key);
    void openPane(Pane pane);
    void toTop();
    void moveCursor(long delta);
    void changeInterval(bool longer);
    void rebuild();
    unsigned attributesOf(const TableLine& line) const;

    Fetcher& fetcher_;
    Sampler& sampler_;
    double interval_;
    ViewOptions view_;
    std::vector<TableLine> lines_;
    std::size_t cursor_ = 0;
    std::size_t scroll_ = 0;
    std::string cursorKey_;  // the line the cursor is on, followed across refreshes
    std::vector<Column> columns_;
    std::size_t skipColumns_ = 0;  // figure columns scrolled out to the left
    bool colour_ = false;
    bool showHistory_ = true;
    Pane pane_ = Pane::table;
    std::size_t stallCursor_ = 0;
    std::string detailKey_;  // the line the detail shows
    std::size_t detailScroll_ = 0;
    Editing editing_ = Editing::none;
    std::string editText_;      // the column list being typed
    std::string filterBefore_;  // restored by Esc
    std::string message_;       // under the table until the next key

    Recorder* recorder_ = nullptr;
    Player* player_ = nullptr;
    HintBoard hints_;
};

}  // namespace VelikTop
