#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace docadmin::app {

TerminalProgress::TerminalProgress(std::string label, bool enabled)
    : label_(std::move(label)), visible_(enabled && ::isatty(STDERR_FILENO) == 1) {}

TerminalProgress::~TerminalProgress() {
    if (!finished_) Finish();
}

void TerminalProgress::Update(double percent) {
    if (!visible_ || finished_) return;
    const int p = static_cast<int>(std::clamp(percent, 0.0, 100.0));
    const auto now = std::chrono::steady_clock::now();
    if (p == lastPercent_ || now - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = now;
    Draw(p);
}

void TerminalProgress::Finish() {
    if (finished_) return;
    finished_ = true;
    if (!visible_) return;
    Draw(100);
    std::fputc('\n', stderr);
}

void TerminalProgress::Draw(double percent) {
    constexpr int kWidth = 40;
    const int p = static_cast<int>(percent);
    lastPercent_ = p;
    const int filled = p * kWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kWidth - filled), '.');
    std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar.c_str(), p);
    std::fflush(stderr);
}

}  // namespace docadmin::app
