// What the log facility's level reads cost. Every logDebug and logError call reads the level from
// the registry afresh, at every level (the facility keeps no state between calls), and under Wine
// each read is a round trip to the wineserver: the table shows that share of the provider's time.
#pragma once

#include <functional>

namespace bench {

// Log calls that one run of `operation` makes: at level 3 every logDebug and logError call writes
// one line, so the lines that `runs` runs add to this process's log, divided by `runs`. The level
// is set to 3 for the count and back to what it was. -1 when an operation failed or the log could
// not be read.
double logCallsPerOperation(int runs, const std::function<bool()>& operation);

}  // namespace bench
