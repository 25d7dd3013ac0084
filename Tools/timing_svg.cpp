#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "timing_trace.h"

namespace zol_tools
{
namespace
{

constexpr double plot_width = 960;
constexpr double lane_height = 26;
constexpr double trace_height = 16;
constexpr double top = 44;
constexpr double margin = 16;
constexpr double character_width = 7.2; // of the labels' font

constexpr std::array<const char *, 6> colours = {"#1f6fb2", "#b2541f", "#2d8a4e",
                                                 "#7a3fa0", "#a8325a", "#4a6670"};

struct unit {
    double us;
    const char *name;
};

std::string number(double value, int decimals = 1)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// The smallest code point for each size of a sequence. A smaller one would be an overlong form, which is invalid.
constexpr std::array<std::uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};

bool is_xml_character(std::uint32_t code)
{
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return !is_surrogate && code != 0xFFFE && code != 0xFFFF && code <= 0x10FFFF;
}

// @return The size of the UTF-8 character at the head of a text; 0 when it is invalid, or not allowed in XML.
std::size_t character_size(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t size = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    std::uint32_t code = size == 1 ? first : first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            return 0;
        }
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    const bool is_lead = first < 0x80 || (first >= 0xC2 && first < 0xF8);
    return is_lead && code >= smallest[size] && is_xml_character(code) ? size : 0;
}

std::string escape_character(std::string_view character)
{
    switch (character[0]) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    default:
        return static_cast<unsigned char>(character[0]) < 0x20 ? " " : std::string(character);
    }
}

// Shows an invalid byte as U+FFFD, because parsers reject a picture that is not UTF-8.
std::string escape(std::string_view text)
{
    std::string escaped;
    while (!text.empty()) {
        const std::size_t size = character_size(text);
        escaped += size > 0 ? escape_character(text.substr(0, size)) : "\xEF\xBF\xBD";
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return escaped;
}

unit unit_for(double span_us)
{
    return span_us >= 2e6 ? unit{1e6, "s"} : span_us >= 2e3 ? unit{1e3, "ms"} : unit{1, "µs"};
}

// 1, 2 or 5 times a power of ten, so that about ten of them fit.
double tick_step(double span)
{
    const double power = std::pow(10, std::floor(std::log10(span / 10)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= span / 10) {
            return factor * power;
        }
    }
    return 10 * power;
}

// The geometry of the picture.
class layout
{
public:
    explicit layout(const timing_trace &trace)
        : first_us_(static_cast<double>(trace.first_us)),
          span_us_(std::max(1.0, static_cast<double>(trace.last_us - trace.first_us))),
          lanes_(trace.lanes.size())
    {
        std::size_t longest = 4;
        for (const lane &lane : trace.lanes) {
            longest = std::max(longest, lane.label.size());
        }
        left_ = margin + static_cast<double>(longest) * character_width + 14;
    }

    [[nodiscard]] double left() const { return left_; }
    [[nodiscard]] double right() const { return left_ + plot_width; }
    [[nodiscard]] double width() const { return right() + margin + 20; }
    [[nodiscard]] double bottom() const { return top + static_cast<double>(lanes_) * lane_height; }
    [[nodiscard]] double height() const { return bottom() + 40; }
    [[nodiscard]] double span_us() const { return span_us_; }
    [[nodiscard]] double first_us() const { return first_us_; }
    [[nodiscard]] double x(double time_us) const
    {
        return left_ + (time_us - first_us_) / span_us_ * plot_width;
    }
    [[nodiscard]] static double y(std::size_t index, bool high)
    {
        const double low = top + static_cast<double>(index) * lane_height + (lane_height + trace_height) / 2;
        return high ? low - trace_height : low;
    }

private:
    double first_us_;
    double span_us_;
    std::size_t lanes_;
    double left_;
};

std::string text(double x, double y, const std::string &style, const std::string &content)
{
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" " + style + ">" + escape(content) +
           "</text>\n";
}

std::string draw_tick_line(const layout &at, double where)
{
    const std::string x = number(where);
    return "<line x1=\"" + x + "\" y1=\"" + number(top) + "\" x2=\"" + x + "\" y2=\"" +
           number(at.bottom() + 5) + "\" stroke=\"#d8dde2\"/>\n";
}

std::string draw_axis(const layout &at)
{
    const unit unit = unit_for(at.span_us());
    const double step = tick_step(at.span_us() / unit.us);
    const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
    const double end_us = at.first_us() + at.span_us() + 0.5;
    const auto last = static_cast<std::int64_t>(std::floor(end_us / unit.us / step));
    std::string svg;
    for (auto i = static_cast<std::int64_t>(std::ceil(at.first_us() / unit.us / step)); i <= last; ++i) {
        const double tick = static_cast<double>(i) * step;
        svg += draw_tick_line(at, at.x(tick * unit.us));
        svg += text(at.x(tick * unit.us), at.bottom() + 18, "text-anchor=\"middle\" class=\"tick\"",
                    number(tick, decimals));
    }
    return svg + text((at.left() + at.right()) / 2, at.bottom() + 34, "text-anchor=\"middle\" class=\"tick\"",
                      std::string("time in ") + unit.name);
}

// A level holds until the next one. A pulse takes no time, so a dot on its spike makes it visible.
std::string draw_lane(const layout &at, const lane &lane, std::size_t index)
{
    const std::string colour = colours[index % colours.size()];
    std::string path;
    std::string dots;
    bool high = false;
    for (std::size_t i = 0; i < lane.levels.size(); ++i) {
        const level_at &level = lane.levels[i];
        const double x = at.x(static_cast<double>(level.time_us));
        path += path.empty() ? "M" : "L" + number(x, 2) + " " + number(layout::y(index, high)) + "L";
        path += number(x, 2) + " " + number(layout::y(index, level.high));
        high = level.high;
        const bool spike = level.high && i > 0 && i + 1 < lane.levels.size() && !lane.levels[i - 1].high &&
                           !lane.levels[i + 1].high && lane.levels[i + 1].time_us == level.time_us;
        if (spike) {
            dots += "<circle cx=\"" + number(x, 2) + "\" cy=\"" + number(layout::y(index, true)) +
                    "\" r=\"2.2\" fill=\"" + colour + "\"/>\n";
        }
    }
    return "<path d=\"" + path + "\" fill=\"none\" stroke=\"" + colour + "\" stroke-width=\"1.4\"/>\n" + dots;
}

std::string draw_lanes(const timing_trace &trace, const layout &at)
{
    std::string svg;
    for (std::size_t i = 0; i < trace.lanes.size(); ++i) {
        const double base = top + static_cast<double>(i) * lane_height;
        if (i % 2 == 0) {
            svg += "<rect x=\"" + number(margin) + "\" y=\"" + number(base) + "\" width=\"" +
                   number(at.right() - margin) + "\" height=\"" + number(lane_height) +
                   "\" fill=\"#f4f6f8\"/>\n";
        }
    }
    svg += draw_axis(at);
    for (std::size_t i = 0; i < trace.lanes.size(); ++i) {
        svg += text(at.left() - 8, layout::y(i, false) - 4, "text-anchor=\"end\" class=\"label\"",
                    trace.lanes[i].label);
        svg += draw_lane(at, trace.lanes[i], i);
    }
    return svg;
}

} // namespace

std::string to_svg(const timing_trace &trace, const std::string &title)
{
    const layout at(trace);
    const std::string size = number(at.width(), 0) + " " + number(at.height(), 0);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(at.width(), 0) + "\" height=\"" +
           number(at.height(), 0) + "\" viewBox=\"0 0 " + size +
           "\">\n"
           "<style>text{font-family:'DejaVu Sans Mono',Menlo,Consolas,monospace;fill:#22303c}"
           ".label{font-size:12px}.tick{font-size:11px}.title{font-size:14px;font-weight:bold}</style>\n"
           "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
           text(margin, 26, "class=\"title\"", title) + draw_lanes(trace, at) + "</svg>\n";
}

} // namespace zol_tools
