// A progress bar for long-running verbs, drawn on stderr and only when stderr is a terminal, so
// that scripts and redirected output never see it.
#pragma once

#include <chrono>
#include <string>

namespace docadmin::app {

class TerminalProgress {
  public:
    // enabled false (for instance for small inputs) keeps the bar hidden even on a terminal.
    explicit TerminalProgress(std::string label, bool enabled = true);
    ~TerminalProgress();
    TerminalProgress(const TerminalProgress&) = delete;
    TerminalProgress& operator=(const TerminalProgress&) = delete;

    // Redraws at most a few times a second; percent is clamped to 0..100.
    void Update(double percent);
    // Draws 100% and ends the line; called by the destructor if not before.
    void Finish();
    bool Visible() const { return visible_; }

  private:
    void Draw(double percent);

    std::string label_;
    bool visible_ = false;
    bool finished_ = false;
    int lastPercent_ = -1;
    std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace docadmin::app
