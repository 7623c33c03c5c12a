// The live, top-like view in the terminal (ncurses).
//
// From the top: the summary (time, threads, tasks, interval, sort, filter,
// then one line per thread with its busy share, "stale Ns" after a thread
// whose figures are old), any socket failures, a banner for each stalled
// root, the table with a cursor (a stale thread's rows dimmed), the pane of
// recent scheduler events, and a line of keys. `s` puts the stalls pane in
// place of the table. A round of requests starts every interval and its
// answers are shown as they arrive; keys act at once, whatever a socket does.
#pragma once

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

    // Shows snapshots until the user quits.
    void run();

    // Writes every answer to `recorder` before showing it.
    void record(Recorder* recorder) { recorder_ = recorder; }
    // Shows the frames of `player` in place of answers, its clock under the
    // summary, and takes its keys.
    void replay(Player* player);

  private:
    void draw();
    int drawSummary(int y, int width);
    void drawTable(int top, int height, int width);
    void drawHistory(int top, int height, int width);
    void drawKeys(int y, int width);
    void drawStalls(int top, int height, int width);
    // Takes the answers that arrived; whether there were any.
    bool takeAnswers();

    // Recording, replay and hints: the keys they take first; whether `key`
    // was one.
    bool hookKey(int key);
    // The time figures are aged against: the shown frame's in a replay.
    Sampler::Clock::time_point now() const;
    void drawHints(int top, int height, int width);

    // Acts on one key; false to quit.
    bool handleKey(int key);
    void handleFilterKey(int key);
    void sortBy(SortKey key);
    void toTop();
    void moveCursor(long delta);
    void changeInterval(bool longer);
    void rebuild();

    Fetcher& fetcher_;
    Sampler& sampler_;
    double interval_;
    ViewOptions view_;
    std::vector<TableLine> lines_;
    std::size_t cursor_ = 0;
    std::size_t scroll_ = 0;
    bool showHistory_ = true;
    bool showStalls_ = false;
    std::size_t stallCursor_ = 0;
    bool editingFilter_ = false;
    std::string filterBefore_;  // restored by Esc

    Recorder* recorder_ = nullptr;
    Player* player_ = nullptr;
    HintBoard hints_;
    bool showHints_ = false;
};

}  // namespace VelikTop
