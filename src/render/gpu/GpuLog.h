#pragma once

#include <functional>
#include <string_view>

namespace Project::Gpu {

enum class LogLevel { Info, Warning, Error };

// Where the GPU layer's log lines go. One call per line, without a trailing
// newline. Injectable so that tests and the session can capture the lines; an
// empty sink means the standard error stream (StderrLogSink).
using LogSink = std::function<void(LogLevel, std::string_view)>;

// Writes "Curvana [level]: line" to stderr.
LogSink StderrLogSink();

// The product name in the start-up log lines.
inline constexpr std::string_view kProductName = "Curvana";

}  // namespace Project::Gpu
