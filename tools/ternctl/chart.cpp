#include "chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <optional>

#include "text.h"

namespace ternctl {

namespace {

constexpr double WIDTH = 800;
constexpr double LEFT = 90;
constexpr double RIGHT = WIDTH - 20;
constexpr double PANEL = 150;
// People who see fewer colours can distinguish these too, and all are dark enough for white paper.
constexpr std::array COLOURS{"#0072b2", "#e08214", "#009e73", "#b5548c", "#5c5c5c"};
constexpr std::array DASHES{"", "7 3", "2 3", "9 3 2 3", "4 2"};
constexpr const char* STYLE =
    "text{font:12px sans-serif;fill:#222}.small{font-size:10px}.title{font-size:14px}rect.page{fill:#fff}";

struct Series {
    std::string name;
    std::function<std::optional<double>(const Sample& sample)> get;
};

struct Panel {
    std::string title;
    std::vector<Series> series;
    std::function<std::string(double value)> label;
    bool isLogarithmic;
};

/// Text of an SVG: what XML does not hold or takes for its own is replaced.
std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char c : Printable(text, true)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
                break;
        }
    }
    return escaped;
}

std::string Text(double x, double y, const std::string& text, const char* anchor, const char* css) {
    return Format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" class=\"%s\">", x, y, anchor, css) +
           Escape(text) + "</text>\n";
}

std::string Stroke(double x1, double y1, double x2, double y2, const char* colour, const char* dashes,
                   double width) {
    return Format(
        "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%.1f\" "
        "stroke-dasharray=\"%s\"/>\n",
        x1, y1, x2, y2, colour, width, dashes);
}

/// 1, 2 or 5 times a power of ten, so that about `count` of them make `range`.
double StepOf(double range, double count) {
    const double rough = range / count;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (rough <= factor * power * 1.001) {
            return factor * power;
        }
    }
    return 10 * power;
}

/// From values to places on one axis.
struct Axis {
    double low = 0;
    double high = 1;
    bool isLogarithmic = false;
    std::vector<double> ticks{};

    double Place(double value, double from, double to) const {
        const double part = isLogarithmic ? std::log10(std::max(value, low) / low) / std::log10(high / low)
                                          : (value - low) / (high - low);
        return from + part * (to - from);
    }
};

Axis MakeAxis(const Panel& panel, const std::vector<Sample>& samples) {
    Axis axis;
    axis.isLogarithmic = panel.isLogarithmic;
    std::optional<double> lowest;
    double highest = 0;
    for (const Sample& sample : samples) {
        for (const Series& series : panel.series) {
            if (const std::optional<double> value = series.get(sample)) {
                lowest = std::min(lowest.value_or(*value), *value);
                highest = std::max(highest, *value);
            }
        }
    }
    if (axis.isLogarithmic) {
        axis.low = std::pow(10.0, std::floor(std::log10(std::max(lowest.value_or(1), 1.0))));
        axis.high = std::pow(10.0, std::ceil(std::log10(std::max(highest, axis.low * 10))));
        const auto decades = static_cast<int>(std::lround(std::log10(axis.high / axis.low)));
        for (int i = 0; i <= decades; ++i) {
            axis.ticks.push_back(axis.low * std::pow(10.0, i));
        }
        return axis;
    }
    // From zero, so that what looks large is.
    const double step = StepOf(std::max(highest, 1.0), 4);
    axis.high = std::ceil(std::max(highest, 1.0) / step) * step;
    for (int i = 0; i * step <= axis.high * 1.001; ++i) {
        axis.ticks.push_back(i * step);
    }
    return axis;
}

class Drawing {
public:
    Drawing(const std::vector<Sample>& samples, double gap) : mSamples(samples), mGap(gap) {
        mEnd = std::max(samples.back().seconds, 1e-3);
    }

    std::string Draw(const Panel& panel, double top) {
        const Axis axis = MakeAxis(panel, mSamples);
        const double upper = top + 42;
        const double lower = top + PANEL - 6;
        std::string drawn = Text(LEFT, top + 14, panel.title, "start", "");
        double x = LEFT;
        for (std::size_t i = 0; i < panel.series.size(); ++i) {
            drawn += Stroke(x, top + 28, x + 28, top + 28, COLOURS.at(i), DASHES.at(i), 2);
            drawn += Text(x + 34, top + 32, panel.series[i].name, "start", "small");
            x += 50 + 5.8 * static_cast<double>(panel.series[i].name.size());
        }
        for (const double tick : axis.ticks) {
            const double y = axis.Place(tick, lower, upper);
            drawn += Stroke(LEFT, y, RIGHT, y, "#ddd", "", 1);
            drawn += Text(LEFT - 6, y + 4, panel.label(tick), "end", "small");
        }
        for (const double second : TimeTicks()) {
            drawn += Stroke(PlaceOf(second), upper, PlaceOf(second), lower, "#ddd", "", 1);
        }
        for (const Sample& sample : mSamples) {
            if (sample.isNewLife) {
                drawn += Stroke(PlaceOf(sample.seconds), upper, PlaceOf(sample.seconds), lower, "#c23b00",
                                "4 3", 1);
            }
        }
        for (std::size_t i = 0; i < panel.series.size(); ++i) {
            drawn += "<g class=\"series\" data-name=\"" + Escape(panel.series[i].name) + "\">\n";
            drawn += DrawSeries(panel.series[i], axis, i, upper, lower) + "</g>\n";
        }
        return drawn;
    }

    std::string DrawTime(double y) const {
        std::string drawn;
        for (const double second : TimeTicks()) {
            drawn += Text(PlaceOf(second), y + 12, Format("%g s", second), "middle", "small");
        }
        drawn +=
            Text((LEFT + RIGHT) / 2, y + 28, "since " + DateTime(mSamples.front().takenAtUs), "middle", "");
        return drawn;
    }

private:
    double PlaceOf(double seconds) const { return LEFT + seconds / mEnd * (RIGHT - LEFT); }

    std::vector<double> TimeTicks() const {
        std::vector<double> ticks;
        const double step = StepOf(mEnd, 10);
        for (int i = 0; i * step <= mEnd * 1.001; ++i) {
            ticks.push_back(i * step);
        }
        return ticks;
    }

    std::string DrawSeries(const Series& series, const Axis& axis, std::size_t index, double upper,
                           double lower) const {
        std::string drawn;
        std::string points;
        std::string alone;
        const auto finish = [&] {
            // A point without neighbours would not be seen.
            drawn +=
                alone.empty() && !points.empty()
                    ? Format(
                          "<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"2\" stroke-dasharray=\"%s\" "
                          "points=\"",
                          COLOURS.at(index), DASHES.at(index)) +
                          points + "\"/>\n"
                    : alone;
            points.clear();
            alone.clear();
        };
        const Sample* before = nullptr;
        for (const Sample& sample : mSamples) {
            const std::optional<double> value = series.get(sample);
            if (!value || sample.isNewLife ||
                (before != nullptr && sample.seconds - before->seconds > mGap)) {
                finish();
            }
            before = &sample;
            if (value) {
                const double x = PlaceOf(sample.seconds);
                const double y = axis.Place(*value, lower, upper);
                alone = points.empty() ? Format("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\" fill=\"%s\"/>\n",
                                                x, y, COLOURS.at(index))
                                       : std::string();
                points += Format("%.1f,%.1f ", x, y);
            }
        }
        finish();
        return drawn;
    }

    const std::vector<Sample>& mSamples;
    double mGap;
    double mEnd = 1;
};

std::string CountLabel(double value) {
    return Format("%g", value);
}

std::vector<Panel> MakePanels() {
    const auto whole = [](std::uint64_t Sample::*member) {
        return [member](const Sample& sample) -> std::optional<double> {
            return static_cast<double>(sample.*member);
        };
    };
    return {
        {"Memory (resident, MiB)",
         {{"memory",
           [](const Sample& sample) -> std::optional<double> {
               return static_cast<double>(sample.memoryBytes) / (1024 * 1024);
           }}},
         CountLabel,
         false},
        {"Calls a second", {{"calls", [](const Sample& sample) { return sample.calls; }}}, CountLabel, false},
        {"Latency of the handlers (logarithmic)",
         {{"half of the calls below (50 %)", [](const Sample& sample) { return sample.medianUs; }},
          {"99 % of the calls below", [](const Sample& sample) { return sample.highUs; }}},
         [](double us) {
             return us < 1e3   ? Format("%g us", us)
                    : us < 1e6 ? Format("%g ms", us / 1e3)
                               : Format("%g s", us / 1e6);
         },
         true},
        {"Queues (messages and jobs that wait)",
         {{"received", whole(&Sample::queuedIn)},
          {"to be sent", whole(&Sample::queuedOut)},
          {"jobs of the D-Bus thread", whole(&Sample::waitingJobs)},
          {"jobs of pools", whole(&Sample::poolJobs)},
          {"in pipes", whole(&Sample::pipeMessages)}},
         CountLabel,
         false},
    };
}

}  // namespace

std::string DrawChart(const std::string& service, const std::vector<Sample>& samples, double gap) {
    const std::vector<Panel> panels = MakePanels();
    const double top = 34;
    const double height = top + PANEL * static_cast<double>(panels.size()) + 40;
    std::string drawn = Format(
                            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                            "viewBox=\"0 0 %.0f %.0f\">\n",
                            WIDTH, height, WIDTH, height) +
                        "<style>" + STYLE + "</style>\n" +
                        Format("<rect class=\"page\" width=\"%.0f\" height=\"%.0f\"/>\n", WIDTH, height) +
                        Text(10, 20, service, "start", "title");
    Drawing drawing(samples, gap);
    double y = top;
    for (const Panel& panel : panels) {
        drawn += drawing.Draw(panel, y);
        y += PANEL;
    }
    return drawn + drawing.DrawTime(y) + "</svg>\n";
}

}  // namespace ternctl
