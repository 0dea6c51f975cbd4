#pragma once

#include <cstddef>
#include <string>

#include "tsdsim/RunTimeline.h"

namespace tsdsim {

// Renders a RunTimeline as one self-contained HTML page: an inline SVG
// timeline with one lane per module and side (the mode over time, the master
// it follows), a strip per module with its active errors as bands and its
// script calls and time-service changes as ticks, the elections as markers
// with their settle times, the timeline events as lines across every lane,
// and a legend; below it, the elections and the events as tables. Every mark
// carries a title (the browser's tooltip, and what a screen reader reads);
// the colours differ in lightness and the modes also in pattern, so that a
// grey print still tells them apart.
//
// The page loads nothing: no script, no font, no image from anywhere, and its
// content security policy forbids any load, so that opening a report never
// reaches the network. Text from the run (module names, error texts, script
// arguments, event words) is escaped and cut to kMaxText characters.
class ReportWriter
{
public:
    static constexpr std::size_t kMaxText = 160;

    explicit ReportWriter(const RunTimeline& run) : m_run(run) {}

    std::string html() const;
    // Writes html() to path (created or truncated; a link there is not
    // followed). False with the reason in error.
    bool writeFile(const std::string& path, std::string& error) const;

private:
    const RunTimeline& m_run;
};

}  // namespace tsdsim
