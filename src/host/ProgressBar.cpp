#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace Curvana::Host {

ProgressBar::ProgressBar(bool quiet) : quiet_(quiet), tty_(::isatty(STDERR_FILENO) != 0) {}

void ProgressBar::start(const std::string& label) {
    label_ = label;
    lastPercent_ = -1;
    drawn_ = false;
}

void ProgressBar::text(const std::string&, const std::string& message) {
    if (!message.empty())
        message_ = message;
}

void ProgressBar::progress(int64_t done, int64_t total) {
    if (quiet_ || total <= 0)
        return;
    const int percent = static_cast<int>(std::clamp<int64_t>(done * 100 / total, 0, 100));
    if (percent == lastPercent_)
        return;
    if (tty_) {
        const int width = 30, filled = percent * width / 100;
        std::string bar(static_cast<size_t>(filled), '#');
        bar.append(static_cast<size_t>(width - filled), '.');
        std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar.c_str(), percent);
        std::fflush(stderr);
        drawn_ = true;
    } else if (percent / 10 != lastPercent_ / 10 || lastPercent_ < 0) {
        std::fprintf(stderr, "%s: %s %d%%\n", label_.c_str(), message_.c_str(), percent / 10 * 10);
    }
    lastPercent_ = percent;
}

void ProgressBar::end() {
    if (drawn_)
        std::fputc('\n', stderr);
    drawn_ = false;
}

}  // namespace Curvana::Host
