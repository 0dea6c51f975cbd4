#include "tsdsim/ReportWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

namespace tsdsim {

namespace {

// Geometry of the drawing, in SVG pixels.
constexpr double kWidth = 1160;
constexpr double kLabelWidth = 120;  // the lane names on the left
constexpr double kRightMargin = 28;
constexpr double kEventRow = 15;     // one row of event labels
constexpr int kMaxEventRows = 4;
constexpr double kElectionRow = 30;
constexpr double kAxisRow = 24;
constexpr double kLaneHeight = 22;
constexpr double kLaneGap = 3;
constexpr double kStripHeight = 16;  // errors and ticks under a module's lanes
constexpr double kModuleGap = 10;
constexpr double kCharWidth = 6.6;   // of the 11 px labels, for fitting text

std::string escape(const std::string& raw)
{
    std::string text = raw;
    bool cut = false;
    if (text.size() > ReportWriter::kMaxText) {
        text.resize(ReportWriter::kMaxText);
        cut = true;
    }
    std::string out;
    for (unsigned char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char hex[8];
                    std::snprintf(hex, sizeof hex, "\\x%02x", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return cut ? out + "&#8230;" : out;
}

std::string fixed(double value, int decimals = 1)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string seconds(double t)
{
    return fixed(t) + " s";
}

const char* modeName(RunTimeline::Mode mode)
{
    switch (mode) {
        case RunTimeline::Mode::Master:
            return "master";
        case RunTimeline::Mode::Slave:
            return "slave";
        case RunTimeline::Mode::Alone:
            return "alone";
        case RunTimeline::Mode::Unknown:
            return "unknown";
        case RunTimeline::Mode::None:
            break;
    }
    return "none";
}

std::string serviceName(const std::string& service)
{
    return service == "ptp" ? "PTP" : service == "ntp" ? "NTP" : "no time service";
}

// A tick spacing that gives at most about a dozen ticks.
double tickStep(double duration)
{
    for (double step : {0.5, 1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0}) {
        if (duration / step <= 12) {
            return step;
        }
    }
    return 7200.0;
}

class Drawing
{
public:
    explicit Drawing(const RunTimeline& run) : m_run(run)
    {
        m_duration = run.duration > 0 ? run.duration : 1;
        placeEventLabels();
        m_top = 8 + m_eventRows * kEventRow;
        m_electionTop = m_top;
        m_axisTop = m_electionTop + kElectionRow;
        m_lanesTop = m_axisTop + kAxisRow;
        double y = m_lanesTop;
        for (const auto& module : run.modules) {
            Group g;
            g.module = module.name;
            g.top = y;
            for (const auto& lane : run.lanes) {
                if (lane.module == module.name) {
                    g.lanes.push_back(&lane);
                }
            }
            y += static_cast<double>(g.lanes.size()) * (kLaneHeight + kLaneGap);
            g.strip = y;
            y += kStripHeight + kModuleGap;
            m_groups.push_back(g);
        }
        m_lanesBottom = y - kModuleGap;
        m_legendTop = y + 8;
        m_height = m_legendTop + 64;
    }

    std::string svg() const
    {
        std::ostringstream o;
        o << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << kWidth << " " << fixed(m_height, 0)
          << "\" width=\"" << kWidth << "\" height=\"" << fixed(m_height, 0)
          << "\" role=\"img\" aria-labelledby=\"run-title run-desc\" class=\"timeline\">\n";
        o << "<title id=\"run-title\">Timeline of the simulated run</title>\n";
        o << "<desc id=\"run-desc\">" << description() << "</desc>\n";
        defs(o);
        axis(o);
        lanes(o);
        strips(o);
        events(o);
        elections(o);
        legend(o);
        o << "</svg>\n";
        return o.str();
    }

private:
    struct Group
    {
        std::string module;
        double top = 0;
        std::vector<const RunTimeline::Lane*> lanes;
        double strip = 0;
    };

    double x(double t) const
    {
        const double plot = kWidth - kLabelWidth - kRightMargin;
        return kLabelWidth + std::min(std::max(t, 0.0), m_duration) / m_duration * plot;
    }

    std::string who(const std::string& label) const
    {
        const std::string name = m_run.nameOf(label);
        return name == label ? label : name + " (" + label + ")";
    }

    std::string description() const
    {
        std::ostringstream d;
        d << m_run.modules.size() << " modules over " << seconds(m_run.duration) << "; "
          << m_run.elections.size() << " elections; " << m_run.events.size() << " timeline events; "
          << m_run.errors.size() << " error periods; " << m_run.scriptCalls.size() << " script calls.";
        return escape(d.str());
    }

    // Event labels go into the first row where they do not run into the
    // label before them.
    void placeEventLabels()
    {
        std::vector<double> rowEnd;
        for (const auto& e : m_run.events) {
            const double from = x(e.time) + 3;
            const double width = static_cast<double>(std::min(e.text.size(), std::size_t{28})) * kCharWidth;
            int row = 0;
            while (row < static_cast<int>(rowEnd.size()) && rowEnd[static_cast<std::size_t>(row)] > from) {
                ++row;
            }
            if (row >= kMaxEventRows) {
                row = kMaxEventRows - 1;
            }
            if (row >= static_cast<int>(rowEnd.size())) {
                rowEnd.resize(static_cast<std::size_t>(row) + 1, 0);
            }
            rowEnd[static_cast<std::size_t>(row)] = from + width + 6;
            m_eventRow.push_back(row);
        }
        m_eventRows = std::max(1, static_cast<int>(rowEnd.size()));
    }

    static void defs(std::ostringstream& o)
    {
        o << "<defs>\n"
             "<pattern id=\"p-alone\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
             "patternTransform=\"rotate(45)\"><rect width=\"6\" height=\"6\" fill=\"#fee391\"/>"
             "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#b15928\" stroke-width=\"1.5\"/></pattern>\n"
             "<pattern id=\"p-unknown\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\">"
             "<rect width=\"5\" height=\"5\" fill=\"#ffffff\"/><circle cx=\"2.5\" cy=\"2.5\" r=\"0.9\" "
             "fill=\"#737373\"/></pattern>\n"
             "<pattern id=\"p-error\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\" "
             "patternTransform=\"rotate(-45)\"><rect width=\"5\" height=\"5\" fill=\"#fcbba1\"/>"
             "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"5\" stroke=\"#cb181d\" stroke-width=\"2\"/></pattern>\n"
             "</defs>\n";
    }

    void axis(std::ostringstream& o) const
    {
        const double step = tickStep(m_duration);
        const double base = m_axisTop + kAxisRow - 6;
        o << "<g class=\"axis\" aria-hidden=\"true\">\n";
        o << "<line x1=\"" << fixed(x(0)) << "\" y1=\"" << fixed(base) << "\" x2=\"" << fixed(x(m_duration))
          << "\" y2=\"" << fixed(base) << "\" class=\"axis-line\"/>\n";
        for (double t = 0; t <= m_duration + 1e-9; t += step) {
            o << "<line x1=\"" << fixed(x(t)) << "\" y1=\"" << fixed(base - 4) << "\" x2=\"" << fixed(x(t))
              << "\" y2=\"" << fixed(m_lanesBottom) << "\" class=\"grid\"/>\n";
            o << "<text x=\"" << fixed(x(t)) << "\" y=\"" << fixed(base - 7) << "\" class=\"tick-label\">"
              << fixed(t, step < 1 ? 1 : 0) << " s</text>\n";
        }
        o << "</g>\n";
    }

    void lanes(std::ostringstream& o) const
    {
        for (const Group& g : m_groups) {
            double y = g.top;
            for (const RunTimeline::Lane* lane : g.lanes) {
                o << "<g class=\"lane\" data-module=\"" << escape(lane->module) << "\" data-side=\""
                  << escape(lane->side) << "\">\n";
                o << "<title>" << escape(lane->module + ", " + lane->side + " side") << "</title>\n";
                o << "<text x=\"8\" y=\"" << fixed(y + kLaneHeight / 2 + 4) << "\" class=\"lane-label\">"
                  << escape(lane->module) << " <tspan class=\"side\">" << escape(lane->side) << "</tspan></text>\n";
                o << "<rect x=\"" << fixed(x(0)) << "\" y=\"" << fixed(y) << "\" width=\""
                  << fixed(x(m_duration) - x(0)) << "\" height=\"" << kLaneHeight << "\" class=\"lane-bg\"/>\n";
                for (const auto& s : lane->spans) {
                    span(o, *lane, s, y);
                }
                o << "</g>\n";
                y += kLaneHeight + kLaneGap;
            }
        }
    }

    void span(std::ostringstream& o, const RunTimeline::Lane& lane, const RunTimeline::Span& s, double y) const
    {
        const double left = x(s.from);
        const double width = std::max(x(s.to) - left, 1.0);
        const std::string mode = modeName(s.mode);
        std::string what = mode;
        std::string inside = mode;
        if (s.mode == RunTimeline::Mode::Slave && !s.master.empty()) {
            what = "slave of " + who(s.master);
            inside = "slave \xe2\x86\x92 " + m_run.nameOf(s.master);
        } else if (s.mode == RunTimeline::Mode::Unknown) {
            what = "published, not yet elected";
        }
        const std::string title =
            lane.module + " " + lane.side + ": " + what + " from " + seconds(s.from) + " to " + seconds(s.to);
        o << "<g class=\"span mode-" << mode << "\" data-module=\"" << escape(lane.module) << "\" data-side=\""
          << escape(lane.side) << "\" data-mode=\"" << mode << "\" data-master=\""
          << escape(s.master.empty() ? "" : m_run.nameOf(s.master)) << "\" data-from=\"" << fixed(s.from, 3)
          << "\" data-to=\"" << fixed(s.to, 3) << "\">";
        o << "<title>" << escape(title) << "</title>";
        o << "<rect x=\"" << fixed(left) << "\" y=\"" << fixed(y) << "\" width=\"" << fixed(width) << "\" height=\""
          << kLaneHeight << "\"/>";
        const std::size_t fits = static_cast<std::size_t>((width - 8) / kCharWidth);
        if (fits >= 4) {
            std::string text = inside;
            if (text.size() > fits) {
                text = mode.size() <= fits ? mode : mode.substr(0, fits);
            }
            o << "<text x=\"" << fixed(left + 4) << "\" y=\"" << fixed(y + kLaneHeight / 2 + 4) << "\">"
              << escape(text) << "</text>";
        }
        o << "</g>\n";
    }

    void strips(std::ostringstream& o) const
    {
        for (const Group& g : m_groups) {
            const double y = g.strip;
            o << "<g class=\"strip\" data-module=\"" << escape(g.module) << "\">\n";
            o << "<text x=\"8\" y=\"" << fixed(y + 11) << "\" class=\"strip-label\">errors, scripts</text>\n";
            for (const auto& e : m_run.errors) {
                if (e.module != g.module) {
                    continue;
                }
                const double left = x(e.from);
                const double width = std::max(x(e.to) - left, 2.0);
                const std::string title = e.module + ": error " + e.code + (e.text.empty() ? "" : " (" + e.text + ")") +
                                          " active from " + seconds(e.from) +
                                          (e.stillActive ? ", still active at the end" : " to " + seconds(e.to));
                o << "<g class=\"error-band\" data-module=\"" << escape(e.module) << "\" data-code=\""
                  << escape(e.code) << "\"><title>" << escape(title) << "</title><rect x=\"" << fixed(left)
                  << "\" y=\"" << fixed(y + 1) << "\" width=\"" << fixed(width) << "\" height=\"7\"/>";
                if (width > 30) {
                    o << "<text x=\"" << fixed(left + 3) << "\" y=\"" << fixed(y + 7.5) << "\">" << escape(e.code)
                      << "</text>";
                }
                o << "</g>\n";
            }
            for (const auto& c : m_run.scriptCalls) {
                if (c.module != g.module) {
                    continue;
                }
                const std::string title = c.module + " ran " + c.script + (c.args.empty() ? "" : " " + c.args) +
                                          " at " + seconds(c.time);
                o << "<g class=\"script-call\" data-module=\"" << escape(c.module) << "\" data-script=\""
                  << escape(c.script) << "\"><title>" << escape(title) << "</title><line x1=\"" << fixed(x(c.time))
                  << "\" y1=\"" << fixed(y + 8) << "\" x2=\"" << fixed(x(c.time)) << "\" y2=\"" << fixed(y + 16)
                  << "\"/></g>\n";
            }
            for (const auto& s : m_run.services) {
                if (s.module != g.module) {
                    continue;
                }
                const double cx = x(s.time);
                const double cy = y + 12;
                const std::string title = s.module + ": " + serviceName(s.service) + " from " + seconds(s.time);
                o << "<g class=\"service-change\" data-module=\"" << escape(s.module) << "\" data-service=\""
                  << escape(s.service) << "\"><title>" << escape(title) << "</title><path d=\"M" << fixed(cx) << ","
                  << fixed(cy - 4) << " l4,4 l-4,4 l-4,-4 z\"/><text x=\"" << fixed(cx + 6) << "\" y=\""
                  << fixed(cy + 4) << "\">" << (s.service == "-" ? "off" : s.service == "ptp" ? "PTP" : "NTP")
                  << "</text></g>\n";
            }
            o << "</g>\n";
        }
    }

    void events(std::ostringstream& o) const
    {
        for (std::size_t i = 0; i < m_run.events.size(); ++i) {
            const auto& e = m_run.events[i];
            const double ex = x(e.time);
            const double labelY = 8 + (m_eventRow[i] + 1) * kEventRow - 4;
            o << "<g class=\"event\" data-time=\"" << fixed(e.time, 3) << "\" data-text=\"" << escape(e.text)
              << "\"><title>" << escape("at " + seconds(e.time) + ": " + e.text) << "</title><line x1=\"" << fixed(ex)
              << "\" y1=\"" << fixed(labelY + 3) << "\" x2=\"" << fixed(ex) << "\" y2=\"" << fixed(m_lanesBottom)
              << "\"/><text x=\"" << fixed(ex + 3) << "\" y=\"" << fixed(labelY) << "\">"
              << escape(e.text.size() > 28 ? e.text.substr(0, 27) + "\xe2\x80\xa6" : e.text) << "</text></g>\n";
        }
    }

    void elections(std::ostringstream& o) const
    {
        const double y = m_electionTop + 12;
        for (const auto& e : m_run.elections) {
            const double from = x(e.opened);
            std::string title = "election after \"" + e.trigger + "\" at " + seconds(e.opened) + ": ";
            if (e.settled >= 0) {
                title += "settled in " + seconds(e.settled - e.opened) +
                         (e.master.empty() ? ", no single master" : " on " + who(e.master)) + ", " +
                         std::to_string(e.results) + " module(s) changed";
            } else {
                title += "no module changed";
            }
            o << "<g class=\"election\" data-trigger=\"" << escape(e.trigger) << "\" data-opened=\""
              << fixed(e.opened, 3) << "\" data-settle=\""
              << (e.settled >= 0 ? fixed(e.settled - e.opened, 3) : std::string("none")) << "\" data-master=\""
              << escape(e.master.empty() ? "" : m_run.nameOf(e.master)) << "\"><title>" << escape(title)
              << "</title>";
            o << "<path d=\"M" << fixed(from - 5) << "," << fixed(y - 8) << " h10 l-5,7 z\" class=\"opened\"/>";
            if (e.settled >= 0) {
                const double to = std::max(x(e.settled), from + 2);
                o << "<line x1=\"" << fixed(from) << "\" y1=\"" << fixed(y) << "\" x2=\"" << fixed(to) << "\" y2=\""
                  << fixed(y) << "\"/><circle cx=\"" << fixed(to) << "\" cy=\"" << fixed(y) << "\" r=\"3.5\"/>";
                const std::string label = seconds(e.settled - e.opened) +
                                          (e.master.empty() ? std::string() : " \xe2\x86\x92 " + m_run.nameOf(e.master));
                // Near the right edge the label goes left of the settle mark,
                // above the line.
                const double width = static_cast<double>(label.size()) * kCharWidth;
                if (to + 6 + width <= kWidth) {
                    o << "<text x=\"" << fixed(to + 6) << "\" y=\"" << fixed(y + 4) << "\">";
                } else {
                    o << "<text x=\"" << fixed(to - 6) << "\" y=\"" << fixed(y - 5) << "\" text-anchor=\"end\">";
                }
                o << escape(label) << "</text>";
            }
            o << "</g>\n";
        }
    }

    void legend(std::ostringstream& o) const
    {
        struct Item
        {
            const char* cls;
            const char* text;
        };
        const Item items[] = {
            {"mode-master", "master"},
            {"mode-slave", "slave \xe2\x86\x92 its master"},
            {"mode-alone", "alone"},
            {"mode-unknown", "published, not yet elected"},
            {"error-band", "active error"},
            {"script-call", "script call"},
            {"service-change", "time service on/off"},
            {"election", "election: trigger \xe2\x86\x92 settled"},
            {"event", "timeline event"},
        };
        o << "<g class=\"legend\" aria-label=\"Legend\">\n";
        double lx = kLabelWidth;
        double ly = m_legendTop;
        for (const Item& item : items) {
            const double width = 28 + static_cast<double>(std::strlen(item.text)) * kCharWidth;
            if (lx + width > kWidth - kRightMargin) {
                lx = kLabelWidth;
                ly += 22;
            }
            o << "<g class=\"legend-item " << item.cls << "\">";
            const std::string cls = item.cls;
            if (cls.rfind("mode-", 0) == 0) {
                o << "<rect x=\"" << fixed(lx) << "\" y=\"" << fixed(ly) << "\" width=\"20\" height=\"12\"/>";
            } else if (cls == "error-band") {
                o << "<rect x=\"" << fixed(lx) << "\" y=\"" << fixed(ly + 2) << "\" width=\"20\" height=\"8\"/>";
            } else if (cls == "script-call") {
                o << "<line x1=\"" << fixed(lx + 10) << "\" y1=\"" << fixed(ly) << "\" x2=\"" << fixed(lx + 10)
                  << "\" y2=\"" << fixed(ly + 12) << "\"/>";
            } else if (cls == "service-change") {
                o << "<path d=\"M" << fixed(lx + 10) << "," << fixed(ly + 1) << " l5,5 l-5,5 l-5,-5 z\"/>";
            } else if (cls == "election") {
                o << "<line x1=\"" << fixed(lx) << "\" y1=\"" << fixed(ly + 6) << "\" x2=\"" << fixed(lx + 18)
                  << "\" y2=\"" << fixed(ly + 6) << "\"/><circle cx=\"" << fixed(lx + 18) << "\" cy=\""
                  << fixed(ly + 6) << "\" r=\"3.5\"/>";
            } else {
                o << "<line x1=\"" << fixed(lx + 10) << "\" y1=\"" << fixed(ly - 2) << "\" x2=\"" << fixed(lx + 10)
                  << "\" y2=\"" << fixed(ly + 14) << "\"/>";
            }
            o << "<text x=\"" << fixed(lx + 26) << "\" y=\"" << fixed(ly + 10) << "\">" << item.text << "</text></g>\n";
            lx += width + 16;
        }
        o << "</g>\n";
    }

    const RunTimeline& m_run;
    double m_duration = 1;
    std::vector<int> m_eventRow;
    int m_eventRows = 1;
    double m_top = 0;
    double m_electionTop = 0;
    double m_axisTop = 0;
    double m_lanesTop = 0;
    double m_lanesBottom = 0;
    double m_legendTop = 0;
    double m_height = 0;
    std::vector<Group> m_groups;
};

const char* kStyle = R"(
body { font-family: "DejaVu Sans", "Liberation Sans", Arial, sans-serif; color: #1a1a1a; background: #ffffff;
       margin: 24px; }
h1 { font-size: 20px; margin: 0 0 4px; }
h2 { font-size: 16px; margin: 24px 0 8px; }
p.sub { margin: 0 0 16px; color: #404040; }
figure { margin: 0; }
figcaption { font-size: 13px; color: #404040; max-width: 1160px; }
svg.timeline { font-size: 11px; display: block; }
svg.timeline text { fill: #1a1a1a; }
.tick-label { text-anchor: middle; fill: #404040; }
.axis-line { stroke: #404040; }
.grid { stroke: #e0e0e0; }
.lane-label { font-size: 12px; font-weight: bold; }
.lane-label .side, .strip-label { font-weight: normal; fill: #595959; }
.strip-label { font-size: 9px; }
.lane-bg { fill: #f5f5f5; stroke: #d9d9d9; }
.mode-master rect { fill: #08519c; }
.mode-master text { fill: #ffffff; }
.mode-slave rect { fill: #9ecae1; }
.mode-alone rect { fill: url(#p-alone); }
.mode-unknown rect { fill: url(#p-unknown); stroke: #969696; }
.span rect { stroke: #ffffff; stroke-width: 0.5; }
.error-band rect { fill: url(#p-error); stroke: #a50f15; stroke-width: 0.6; }
.error-band text { font-size: 8px; font-weight: bold; fill: #67000d; }
.script-call line { stroke: #252525; stroke-width: 1.4; }
.service-change path { fill: #31a354; stroke: #00441b; }
.service-change text { font-size: 9px; fill: #00441b; }
.event line { stroke: #525252; stroke-dasharray: 4 3; }
.event text { fill: #252525; }
.election path.opened, .election circle { fill: #6a51a3; }
.election line { stroke: #6a51a3; stroke-width: 2; }
.election text { fill: #3f007d; }
.legend-item text { font-size: 11px; font-weight: normal; fill: #1a1a1a; }
.legend-item.event line { stroke: #525252; stroke-dasharray: 4 3; }
.legend-item.election line { stroke: #6a51a3; stroke-width: 2; }
.legend-item.election circle { fill: #6a51a3; }
table { border-collapse: collapse; font-size: 13px; }
th, td { border: 1px solid #bdbdbd; padding: 3px 8px; text-align: left; vertical-align: top; }
th { background: #f0f0f0; }
td.num { text-align: right; font-variant-numeric: tabular-nums; }
)";

}  // namespace

std::string ReportWriter::html() const
{
    const RunTimeline& run = m_run;
    std::ostringstream o;
    o << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      // Nothing may be loaded from anywhere: the report stands alone.
      << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">\n"
      << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      << "<title>tsdsim run: " << run.modules.size() << " modules, " << seconds(run.duration) << "</title>\n"
      << "<style>" << kStyle << "</style>\n</head>\n<body>\n";
    o << "<h1>Simulated chain: " << run.modules.size() << " modules, " << seconds(run.duration)
      << (run.interrupted ? ", stopped early" : "") << "</h1>\n";
    o << "<p class=\"sub\">Each lane shows what one module's daemon published for one FireWire side: master, "
         "slave (with the master it follows) or alone. Under each module: its active errors and time-service "
         "script calls. Hover over any mark for details.</p>\n";
    o << "<figure>\n" << Drawing(run).svg();
    o << "<figcaption>Times are seconds after the daemons were started. Elections are marked above the axis from "
         "the event that opened them to the last result a module published.</figcaption>\n</figure>\n";

    o << "<h2>Elections</h2>\n<table class=\"elections\">\n"
         "<thead><tr><th scope=\"col\">opened at</th><th scope=\"col\">by</th><th scope=\"col\">settled after</th>"
         "<th scope=\"col\">master</th><th scope=\"col\">modules that changed</th></tr></thead>\n<tbody>\n";
    for (const auto& e : run.elections) {
        o << "<tr><td class=\"num\">" << seconds(e.opened) << "</td><td>" << escape(e.trigger) << "</td><td class=\"num\">"
          << (e.settled >= 0 ? seconds(e.settled - e.opened) : std::string("-")) << "</td><td>"
          << escape(e.master.empty() ? (e.results == 0 ? "-" : "no single master") : run.nameOf(e.master) + " (" + e.master + ")")
          << "</td><td class=\"num\">" << e.results << "</td></tr>\n";
    }
    o << "</tbody>\n</table>\n";
    o << "<h2>Timeline</h2>\n<table class=\"events\">\n<thead><tr><th scope=\"col\">at</th>"
         "<th scope=\"col\">event</th></tr></thead>\n<tbody>\n";
    for (const auto& e : run.events) {
        o << "<tr><td class=\"num\">" << seconds(e.time) << "</td><td>" << escape(e.text) << "</td></tr>\n";
    }
    o << "</tbody>\n</table>\n</body>\n</html>\n";
    return o.str();
}

bool ReportWriter::writeFile(const std::string& path, std::string& error) const
{
    const std::string text = html();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = "cannot write " + path + ": " + std::strerror(errno);
            ::close(fd);
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace tsdsim
