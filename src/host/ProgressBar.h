// The progress display of a run on standard error: a bar redrawn in place on
// a terminal, a line every ten percent otherwise, nothing with --quiet.
#pragma once

#include <cstdint>
#include <string>

#include "ModuleHost.h"

namespace Curvana::Host {

class ProgressBar final : public ProgressListener {
public:
    explicit ProgressBar(bool quiet);

    // A new image; label names it ("in.tif (2/3)").
    void start(const std::string& label);
    void text(const std::string& title, const std::string& message) override;
    void progress(int64_t done, int64_t total) override;
    // Ends the bar's line, if one was drawn.
    void end();

private:
    bool quiet_, tty_;
    std::string label_, message_ = "Applying Curvana.";
    int lastPercent_ = -1;
    bool drawn_ = false;
};

}  // namespace Curvana::Host
