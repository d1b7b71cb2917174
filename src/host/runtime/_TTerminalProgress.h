// Progress display on a terminal: a bar drawn on stderr, and only when stderr is a terminal, so
// that scripts and redirected output never see it.
//
// TTerminalProgress is one bar for one piece of work (the program's long verbs). THostProgress
// is the host's IProgress for plug-ins over it: Begin and End nest (the outermost title stays),
// Step may come from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "_PluginIntf.h"

namespace docadmin {

class TTerminalProgress {
  public:
    // AEnabled false (for instance for small inputs) keeps the bar hidden even on a terminal.
    explicit TTerminalProgress(std::string ALabel, bool AEnabled = true);
    ~TTerminalProgress();
    TTerminalProgress(const TTerminalProgress&) = delete;
    TTerminalProgress& operator=(const TTerminalProgress&) = delete;

    // Redraws at most a few times a second; APercent is clamped to 0..100. AText, when given,
    // stands after the bar (control characters escaped).
    void Update(double APercent, const std::string& AText = {});
    // Draws 100% and ends the line; called by the destructor if not before.
    void Finish();
    bool Visible() const { return FVisible; }

  private:
    void Draw(int APercent);

    std::string FLabel;
    std::string FText;
    bool FVisible = false;
    bool FFinished = false;
    int FLastPercent = -1;
    std::string FLastText;
    std::chrono::steady_clock::time_point FLastDraw{};
};

class THostProgress : public IProgress {
  public:
    void Begin(const std::string& ATitle, bool AShowCancel) override;
    // Never sets ACancel: the bar offers no way to stop.
    void Step(std::int64_t APosition, std::int64_t ACount, const std::string& AText,
              bool& ACancel) override;
    void End() override;

  private:
    std::mutex FLock;
    int FDepth = 0;                           // guarded by FLock
    std::unique_ptr<TTerminalProgress> FBar;  // guarded by FLock; set while FDepth > 0
};

}  // namespace docadmin
