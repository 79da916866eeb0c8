#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/record_terminal.h"
#include "records/record_watch_model.h"

namespace Vel::Zepctl {

/// What a watch has to show at one moment.
struct WatchFrame {
    std::string name;    // of the stream
    double seconds = 0;  // since the watch began
    std::uint64_t records = 0;
    std::string faults;  // empty without
    std::vector<WatchedInput> inputs;
};

/// The lines of a full screen, none wider or more than it has room for; colours take no room. A rate bar is
/// full at the highest rate of them all; a drift bar reaches from its middle to the right for late, to the
/// left for early arrival.
std::vector<std::string> drawWatchScreen(const WatchFrame& frame, const TerminalSize& size,
                                         const Colours& colours);

/// One line each input, for where there is no screen.
std::string formatWatchLines(const WatchFrame& frame);

/// What the watch saw in all, for its end.
std::string formatWatchSummary(const WatchFrame& frame);

}  // namespace Vel::Zepctl
