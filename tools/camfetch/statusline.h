// The live status line on a terminal and the summary table at the end of a fetch.
#pragma once

#include "options.h"
#include "outputsink.h"

namespace camfetch_tool {

// Counts the timestamp repairs the library reports, for the status line.
void CountTimestampRepair();
long long TimestampRepairs();

class StatusLine {
public:
    StatusLine();
    // Redraws at most once a second, and only when stderr is a terminal.
    void Update(double elapsed, const StreamStats& video, const StreamStats& audio);
    void Finish();

private:
    bool m_tty;
    double m_lastDraw = -1;
    bool m_drawn = false;
};

void PrintSummary(const Options& options, const StreamStats& video, const StreamStats& audio,
                  int reconnects, bool json);

}  // namespace camfetch_tool
