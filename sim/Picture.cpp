#include "sim/Picture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr i64 columns = 480;
constexpr double columnWidth = 2;
constexpr double left = 150;
constexpr double top = 60;
constexpr double laneHeight = 36;
constexpr double laneGap = 10;

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

double seconds(i64 us) { return static_cast<double>(us) / 1e6; }
double megabytes(u64 bytes) { return static_cast<double>(bytes) / 1e6; }

}  // namespace

std::string formatted(const char* format, ...) {
    char text[512];
    va_list list;
    va_start(list, format);
    std::vsnprintf(text, sizeof text, format, list);
    va_end(list);
    return text;
}

void Picture::name(u32 address, const std::string& name) {
    if (lanes_.emplace(address, names_.size()).second) names_.emplace_back(address, name);
}

void Picture::carried(i64 us, u32 from, u32 to, std::size_t bytes) {
    if (!lanes_.contains(from) || !lanes_.contains(to)) return;
    while (us / spanUs_ >= columns) coarsen();
    lastSpan_ = std::max(lastSpan_, us / spanUs_);
    bytes_[{to, us / spanUs_, from}] += bytes;
}

void Picture::mark(i64 us, u32 address, const std::string& what) { marks_.push_back({us, address, what}); }

void Picture::coarsen() {
    std::map<Cell, u64> halved;
    for (const auto& [cell, bytes] : bytes_) halved[{cell.to, cell.span / 2, cell.from}] += bytes;
    bytes_ = std::move(halved);
    spanUs_ *= 2;
    lastSpan_ /= 2;
}

u64 Picture::given(u32 address) const {
    u64 sum = 0;
    for (const auto& [cell, bytes] : bytes_) sum += cell.from == address ? bytes : 0;
    return sum;
}

u64 Picture::taken(u32 address) const {
    u64 sum = 0;
    for (const auto& [cell, bytes] : bytes_) sum += cell.to == address ? bytes : 0;
    return sum;
}

// Neighbouring lanes get colours that are far apart.
std::string Picture::colour(u32 from) const {
    const std::size_t lane = lanes_.at(from);
    return formatted("hsl(%d,%d%%,%d%%)", static_cast<int>(lane * 137 % 360), 65,
                     45 + static_cast<int>(lane % 3) * 10);
}

double Picture::x(i64 us) const { return left + seconds(us) / seconds(spanUs_) * columnWidth; }

std::string Picture::lane(u32 to, double laneTop, u64 most) const {
    std::string out;
    const double bottom = laneTop + laneHeight;
    i64 span = -1;
    double pile = 0;
    for (auto at = bytes_.lower_bound({to, 0, 0}); at != bytes_.end() && at->first.to == to; ++at) {
        const auto& [cell, bytes] = *at;
        if (cell.span != span) pile = 0;
        span = cell.span;
        const double height = laneHeight * static_cast<double>(bytes) / static_cast<double>(most);
        pile += height;
        out += formatted("<rect x=\"%.1f\" y=\"%.2f\" width=\"%.1f\" height=\"%.2f\" fill=\"%s\">",
                         x(span * spanUs_), bottom - pile, columnWidth, height, colour(cell.from).c_str());
        out += formatted("<title>%.2f MB from %s, %.2f to %.2f s</title></rect>\n", megabytes(bytes),
                         escaped(names_[lanes_.at(cell.from)].second).c_str(), seconds(span * spanUs_),
                         seconds((span + 1) * spanUs_));
    }
    return out;
}

std::string Picture::svg(const std::string& title) const {
    std::map<std::pair<u32, i64>, u64> piles;
    u64 most = 1;
    for (const auto& [cell, bytes] : bytes_) most = std::max(most, piles[{cell.to, cell.span}] += bytes);
    const double width = left + static_cast<double>(lastSpan_ + 1) * columnWidth + 60;
    const double height = top + static_cast<double>(names_.size()) * (laneHeight + laneGap) + 40;
    std::string out = formatted("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" ",
                                std::max(width, 520.0), height);
    out +=
        "font-family=\"sans-serif\" font-size=\"11\">\n<rect width=\"100%\" height=\"100%\" "
        "fill=\"white\"/>\n";
    out += "<text x=\"10\" y=\"20\" font-size=\"15\">" + escaped(title) + "</text>\n";
    out += formatted(
        "<text x=\"10\" y=\"38\">each lane: what one received, coloured by who gave it; a full lane is "
        "%.2f MB/s</text>\n",
        megabytes(most) / seconds(spanUs_));
    for (std::size_t n = 0; n < names_.size(); ++n) {
        const auto& [address, name] = names_[n];
        const double laneTop = top + static_cast<double>(n) * (laneHeight + laneGap);
        out += formatted("<rect x=\"10\" y=\"%.1f\" width=\"10\" height=\"10\" fill=\"%s\"/>", laneTop + 4,
                         colour(address).c_str());
        out += formatted("<text x=\"26\" y=\"%.1f\">", laneTop + 13) + escaped(name) + "</text>";
        out += formatted("<text x=\"26\" y=\"%.1f\" fill=\"#777\">+%.1f &#8722;%.1f MB</text>\n",
                         laneTop + 28, megabytes(taken(address)), megabytes(given(address)));
        out += formatted("<line x1=\"%.0f\" x2=\"%.0f\" y1=\"%.1f\" y2=\"%.1f\" stroke=\"#ccc\"/>\n", left,
                         x((lastSpan_ + 1) * spanUs_), laneTop + laneHeight, laneTop + laneHeight);
        out += lane(address, laneTop, most);
    }
    for (const Mark& mark : marks_) {
        const auto found = lanes_.find(mark.address);
        if (found == lanes_.end()) continue;
        const double laneTop = top + static_cast<double>(found->second) * (laneHeight + laneGap);
        out += formatted(
            "<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\" stroke=\"black\"><title>%.2f s: ",
            x(mark.us), x(mark.us), laneTop - 3, laneTop + laneHeight + 3, seconds(mark.us));
        out += escaped(mark.what) + "</title></line>\n";
    }
    for (int tick = 0; tick <= 8; ++tick) {
        const i64 us = (lastSpan_ + 1) * spanUs_ * tick / 8;
        out += formatted("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.1f s</text>\n", x(us),
                         height - 20, seconds(us));
    }
    return out + "</svg>\n";
}
