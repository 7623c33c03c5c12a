// The live, top-like view in the terminal (ncurses).
//
// From the top: the summary (time, threads, tasks, interval, sort, filter,
// then one line per thread with its busy share), any socket failures, the
// table with a cursor, the pane of recent scheduler events, and a line of
// keys. A new snapshot comes every interval; keys act at once.
#pragma once

#include "Sampler.h"
#include "TaskTable.h"

#include <string>
#include <vector>

namespace VelikTop {

class Screen {
  public:
    Screen(Sampler& sampler, double interval);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Shows snapshots until the user quits.
    void run();

  private:
    void draw();
    int drawSummary(int y, int width);
    void drawTable(int top, int height, int width);
    void drawHistory(int top, int height, int width);
    void drawKeys(int y, int width);

    // Acts on one key; false to quit.
    bool handleKey(int key);
    void handleFilterKey(int key);
    void sortBy(SortKey key);
    void toTop();
    void moveCursor(long delta);
    void changeInterval(bool longer);
    void rebuild();

    Sampler& sampler_;
    double interval_;
    ViewOptions view_;
    std::vector<TableLine> lines_;
    std::size_t cursor_ = 0;
    std::size_t scroll_ = 0;
    bool showHistory_ = true;
    bool editingFilter_ = false;
    std::string filterBefore_;  // restored by Esc
};

}  // namespace VelikTop
