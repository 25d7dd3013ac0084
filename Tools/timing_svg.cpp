#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "timing_output.h"
#include "timing_text.h"

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

std::string shown_label(const lane &lane)
{
    std::uint32_t most = 0;
    for (const mark &mark : lane.marks) {
        most = std::max(most, lane.is_count ? mark.detail : 0);
    }
    return lane.label + (lane.is_count ? ", max " + std::to_string(most) : "");
}

// The geometry of the picture. Each lane is a row; of several traces each has a row for its name, too.
class layout
{
public:
    explicit layout(const timeline &all)
        : first_us_(static_cast<double>(all.first_us)),
          span_us_(std::max(1.0, static_cast<double>(all.last_us - all.first_us)))
    {
        std::size_t longest = 4;
        rows_ = all.is_joined() ? all.traces.size() : 0;
        all.for_each_lane([&](const timing_trace &, const lane &lane) {
            longest = std::max(longest, shown_label(lane).size());
            texts_ += std::ranges::count_if(
                lane.marks, [&lane](const mark &each) { return lane.text_of(each) != nullptr; });
            ++rows_;
        });
        left_ = margin + static_cast<double>(longest) * character_width + 14;
    }

    [[nodiscard]] double left() const { return left_; }
    [[nodiscard]] double right() const { return left_ + plot_width; }
    [[nodiscard]] double width() const { return right() + margin + 20; }
    [[nodiscard]] double bottom() const { return top + static_cast<double>(rows_) * lane_height; }
    [[nodiscard]] double height() const { return bottom() + 40; }
    [[nodiscard]] double span_us() const { return span_us_; }
    [[nodiscard]] double first_us() const { return first_us_; }
    [[nodiscard]] double x(std::int64_t time_us) const
    {
        return left_ + (static_cast<double>(time_us) - first_us_) / span_us_ * plot_width;
    }
    [[nodiscard]] static double row_top(std::size_t row)
    {
        return top + static_cast<double>(row) * lane_height;
    }
    [[nodiscard]] static double low(std::size_t row)
    {
        return row_top(row) + (lane_height + trace_height) / 2;
    }

    /// Marks that are closer are drawn together: a pixel, and more in a picture of very many lanes.
    [[nodiscard]] double closest() const { return std::max(1.0, static_cast<double>(rows_) / 16); }

    /// The texts of marks show up under the pointer, unless they would make up most of the picture.
    [[nodiscard]] bool shows_texts() const { return texts_ <= 1000; }

private:
    double first_us_;
    double span_us_;
    std::size_t rows_;
    std::ptrdiff_t texts_ = 0;
    double left_;
};

std::string text(double x, double y, const std::string &style, const std::string &content)
{
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" " + style + ">" + escape_xml(content) +
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
        const double x = at.left() + (tick * unit.us - at.first_us()) / at.span_us() * plot_width;
        svg += draw_tick_line(at, x);
        svg += text(x, at.bottom() + 18, "text-anchor=\"middle\" class=\"tick\"", number(tick, decimals));
    }
    return svg + text((at.left() + at.right()) / 2, at.bottom() + 34, "text-anchor=\"middle\" class=\"tick\"",
                      std::string("time in ") + unit.name);
}

// A lane: a line that steps from level to level, dots for pulses, which take no time, and blocks for marks that are too
// close to each other.
class lane_painter
{
public:
    lane_painter(const layout &at, const lane &lane, std::size_t row, const char *colour)
        : at_(at), lane_(lane), low_(layout::low(row)), colour_(colour)
    {
        for (const mark &mark : lane.marks) {
            most_ = std::max(most_, lane.is_count ? mark.detail : 1);
        }
    }

    std::string draw(std::int64_t first_us, std::int64_t last_us, output_file &file)
    {
        if (lane_.initial) {
            start_line(at_.x(first_us), *lane_.initial ? most_ : 0);
        }
        for (std::size_t i = 0; i < lane_.marks.size();) {
            const std::size_t end = end_of_run(i);
            end - i > most_apart ? draw_block(i, end) : draw_marks(i, end);
            for (; i < end; ++i) {
                file.count_mark();
            }
        }
        if (!line_.empty()) {
            line_ += "H" + number(at_.x(last_us), 2);
        }
        return path(line_, "fill=\"none\" stroke=\"" + colour_ + "\" stroke-width=\"1.4\"") +
               path(blocks_, "fill=\"" + colour_ + "\"") +
               path(dots_, "stroke=\"" + colour_ + "\" stroke-width=\"4.4\" stroke-linecap=\"round\"") +
               circles_;
    }

private:
    static constexpr std::size_t most_apart = 3; // the marks of a run that are drawn one by one

    static std::string path(const std::string &data, const std::string &style)
    {
        return data.empty() ? "" : "<path d=\"" + data + "\" " + style + "/>\n";
    }

    [[nodiscard]] double y(std::uint32_t value) const
    {
        return low_ - trace_height * value / std::max(most_, 1U);
    }

    [[nodiscard]] double x_of(std::size_t index) const { return at_.x(lane_.marks[index].time_us); }

    [[nodiscard]] std::size_t end_of_run(std::size_t begin) const
    {
        std::size_t end = begin + 1;
        while (end < lane_.marks.size() && x_of(end) - x_of(end - 1) < at_.closest()) {
            ++end;
        }
        return end;
    }

    void start_line(double x, std::uint32_t value)
    {
        line_ += "M" + number(x, 2) + " " + number(y(value));
        value_ = value;
    }

    void draw_block(std::size_t begin, std::size_t end)
    {
        const double x = x_of(begin);
        const double right = std::max(x_of(end - 1), x + at_.closest());
        if (!line_.empty()) {
            line_ += "H" + number(x, 2);
        }
        blocks_ += "M" + number(x, 2) + " " + number(low_) + "V" + number(low_ - trace_height) + "H" +
                   number(right, 2) + "V" + number(low_) + "z";
        for (; begin < end; ++begin) {
            value_ = value_after(lane_.marks[begin]);
        }
        start_line(right, value_);
    }

    void draw_marks(std::size_t begin, std::size_t end)
    {
        for (; begin < end; ++begin) {
            const mark &mark = lane_.marks[begin];
            const std::uint32_t value = value_after(mark);
            if (line_.empty()) {
                start_line(x_of(begin), value);
            } else if (mark.kind == mark_kind::pulse || value != value_) {
                line_ += "H" + number(x_of(begin), 2);
            }
            if (mark.kind == mark_kind::pulse) {
                draw_pulse(x_of(begin), lane_.text_of(mark));
            } else if (value != value_) {
                line_ += "V" + number(y(value));
            }
            value_ = value;
        }
    }

    void draw_pulse(double x, const std::string *text)
    {
        const std::string y = number(this->y(most_));
        line_ += value_ == 0 ? "V" + y + "V" + number(low_) : "";
        if (text == nullptr || !at_.shows_texts()) {
            dots_ += "M" + number(x, 2) + " " + y + "h0";
            return;
        }
        circles_ += "<circle cx=\"" + number(x, 2) + "\" cy=\"" + y + "\" r=\"2.2\" fill=\"" + colour_ +
                    "\"><title>" + escape_xml(text->substr(0, 200)) + "</title></circle>\n";
    }

    [[nodiscard]] std::uint32_t value_after(const mark &mark) const
    {
        switch (mark.kind) {
        case mark_kind::low:
            return 0;
        case mark_kind::high:
            return 1;
        case mark_kind::count:
            return mark.detail;
        case mark_kind::pulse:
            break;
        }
        return value_;
    }

    const layout &at_;
    const lane &lane_;
    double low_;
    std::string colour_;
    std::uint32_t most_ = 1; // the value at the top of the row
    std::uint32_t value_ = 0;
    std::string line_;
    std::string dots_;
    std::string blocks_;
    std::string circles_; // dots with a text
};

std::string draw_background(const layout &at, std::size_t row)
{
    return "<rect x=\"" + number(margin) + "\" y=\"" + number(layout::row_top(row)) + "\" width=\"" +
           number(at.right() - margin) + "\" height=\"" + number(lane_height) + "\" fill=\"#f4f6f8\"/>\n";
}

void draw_lanes(const timeline &all, const layout &at, output_file &file)
{
    std::size_t row = 0;
    std::size_t colour = 0;
    for (const timing_trace &trace : all.traces) {
        if (all.is_joined()) {
            file << text(margin, layout::low(row++) - 4, "class=\"group\"", trace.name);
        }
        for (const lane &lane : trace.lanes) {
            lane_painter painter(at, lane, row, colours[colour++ % colours.size()]);
            file << text(at.left() - 8, layout::low(row++) - 4, "text-anchor=\"end\" class=\"label\"",
                         shown_label(lane));
            file << painter.draw(trace.first_us, trace.last_us, file);
        }
    }
}

// Every second row, so that the eye finds the label of a lane.
void draw_backgrounds(const timeline &all, const layout &at, output_file &file)
{
    std::size_t row = 0;
    for (const timing_trace &trace : all.traces) {
        row += all.is_joined() ? 1 : 0;
        for (std::size_t i = 0; i < trace.lanes.size(); ++i, ++row) {
            file << (i % 2 == 0 ? draw_background(at, row) : "");
        }
    }
}

} // namespace

void write_svg(const timeline &all, const std::string &title, output_file &file)
{
    const layout at(all);
    const std::string width = number(at.width(), 0);
    const std::string height = number(at.height(), 0);
    file << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
         << "\" viewBox=\"0 0 " << width << " " << height << "\">\n"
         << "<style>text{font-family:'DejaVu Sans Mono',Menlo,Consolas,monospace;fill:#22303c}"
            ".label{font-size:12px}.tick{font-size:11px}.group{font-size:12px;font-weight:bold}"
            ".title{font-size:14px;font-weight:bold}</style>\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
         << text(margin, 26, "class=\"title\"", title);
    draw_backgrounds(all, at, file);
    file << draw_axis(at);
    draw_lanes(all, at, file);
    file << "</svg>\n";
}

} // namespace zol_tools
