#include "_TTerminalProgress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "_Tools.h"

namespace docadmin {

TTerminalProgress::TTerminalProgress(std::string ALabel, bool AEnabled)
    : FLabel(PrintableText(ALabel)), FVisible(AEnabled && ::isatty(STDERR_FILENO) == 1) {}

TTerminalProgress::~TTerminalProgress() {
    if (!FFinished) Finish();
}

void TTerminalProgress::Update(double APercent, const std::string& AText) {
    if (!FVisible || FFinished) return;
    const int p = static_cast<int>(std::clamp(APercent, 0.0, 100.0));
    FText = PrintableText(AText);
    const auto now = std::chrono::steady_clock::now();
    if ((p == FLastPercent && FText == FLastText) ||
        now - FLastDraw < std::chrono::milliseconds(100))
        return;
    FLastDraw = now;
    Draw(p);
}

void TTerminalProgress::Finish() {
    if (FFinished) return;
    FFinished = true;
    if (!FVisible) return;
    Draw(100);
    std::fputc('\n', stderr);
}

void TTerminalProgress::Draw(int APercent) {
    constexpr int kWidth = 40;
    FLastPercent = APercent;
    FLastText = FText;
    const int filled = APercent * kWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kWidth - filled), '.');
    // "\x1b[K" clears what a longer text drawn before left on the line.
    std::fprintf(stderr, "\r%s [%s] %3d%%%s%s\x1b[K", FLabel.c_str(), bar.c_str(), APercent,
                 FText.empty() ? "" : " ", FText.c_str());
    std::fflush(stderr);
}

void THostProgress::Begin(const std::string& ATitle, bool AShowCancel) {
    std::lock_guard lock(FLock);
    if (FDepth++ == 0) FBar = std::make_unique<TTerminalProgress>(ATitle);
}

void THostProgress::Step(std::int64_t APosition, std::int64_t ACount, const std::string& AText,
                         bool& ACancel) {
    std::lock_guard lock(FLock);
    if (!FBar) return;
    const double percent =
        ACount > 0 ? 100.0 * static_cast<double>(APosition) / static_cast<double>(ACount) : 0.0;
    FBar->Update(percent, AText);
}

void THostProgress::End() {
    std::lock_guard lock(FLock);
    if (FDepth == 0) return;
    if (--FDepth == 0) FBar.reset();
}

}  // namespace docadmin
