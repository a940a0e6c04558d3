// Charts drawn as inline SVG: the depth profile of a contig with the shown window, and the
// quality scores and flowgram of one read. Letters take their colours from the style sheet.
#include <algorithm>

#include "browse_assets.h"
#include "site.h"

namespace browse {

namespace {

std::string num(double v) {
    return fixed(v, 1);
}

std::string letter_class(char letter) {
    const std::string_view c = base_class(letter);
    return c.empty() ? "bN" : std::string(c);
}

html& svg_open(html& out, std::string_view cls, double w, double h, std::string_view label) {
    return out.fill(assets::chart_svg, cls, num(w), num(h), num(w), num(h), label);
}

void label(html& out, double x, double y, std::string_view anchor, std::string_view text) {
    out.fill("<text x=\"{}\" y=\"{}\" text-anchor=\"{}\" font-size=\"11\" fill=\"#666\">{}</text>",
             num(x), num(y), anchor, text);
}

// Horizontal grid lines with their values on the left, `step` apart up to `top`.
void grid(html& out, double top, double step, double x0, double x1, double y0, double height) {
    for (double v = 0; v <= top + 1e-9; v += step) {
        const double y = y0 + height - v / top * height;
        out.fill("<line x1=\"{}\" x2=\"{}\" y1=\"{}\" y2=\"{}\" stroke=\"#e3e3e3\"/>", num(x0),
                 num(x1), num(y), num(y));
        label(out, x0 - 4, y + 4, "end", fixed(v, 0));
    }
}

}  // namespace

html depth_chart(const drawn_contig& b, std::int64_t from, std::int64_t last, int width,
                 const std::string& href) {
    const double W = 1000, H = 110, left = 40, top = 8, plot_h = H - 30;
    const auto L = static_cast<double>(b.c().consensus.size());
    const std::vector<std::int32_t>& bins = b.depth.bins;
    const double peak = std::max(1, b.depth.max);
    html out;
    out.fill(assets::depth_svg, num(W + left + 10), num(H), num(W + left + 10), num(H),
             b.c().consensus.size(), width, num(left), num(W), href);
    grid(out, peak, std::max(1.0, static_cast<double>(static_cast<int>(peak / 4))), left, left + W,
         top, plot_h);
    if (!bins.empty()) {
        std::string path = "M" + num(left) + "," + num(top + plot_h);
        const auto n = static_cast<double>(bins.size());
        for (std::size_t i = 0; i < bins.size(); ++i) {
            const double y = top + plot_h - bins[i] / peak * plot_h;
            path += "L" + num(left + W * static_cast<double>(i) / n) + "," + num(y) + "L" +
                    num(left + W * static_cast<double>(i + 1) / n) + "," + num(y);
        }
        path += "L" + num(left + W) + "," + num(top + plot_h) + "Z";
        out.fill("<path d=\"{}\" fill=\"#9fb8d6\" stroke=\"#4a78b5\" stroke-width=\"0.6\"/>", path);
    }
    if (L > 0) {
        const double x = left + W * static_cast<double>(from - 1) / L;
        const double w = std::max(2.0, W * static_cast<double>(last - from + 1) / L);
        out.fill(assets::depth_window, num(x), num(top), num(w), num(plot_h));
    }
    label(out, left, H - 6, "start", "1");
    label(out, left + W, H - 6, "end", grouped(static_cast<std::int64_t>(L)));
    label(out, left + W / 2, H - 6, "middle",
          "reads over each column (peak " + grouped(b.depth.max) + "); click to move the window");
    out.markup("</svg>");
    return out;
}

html quality_chart(const record_view& r) {
    const int first = std::max(r.kept_first, 1),
              last = std::min<int>(r.kept_last, static_cast<int>(r.quality.size()));
    const int n = std::max(0, last - first + 1);
    const double W = 1000, H = 170, left = 36, top = 8, plot_h = H - 34;
    int peak = 40;
    for (int i = first; i <= last; ++i)
        peak = std::max<int>(peak, r.quality[static_cast<std::size_t>(i - 1)]);
    html out;
    svg_open(out, "quality", W + left + 10, H, "quality of each kept base");
    grid(out, peak, 10, left, left + W, top, plot_h);
    const double w = n > 0 ? W / n : 0;
    for (int k = 0; k < n; ++k) {
        const std::size_t i = static_cast<std::size_t>(first - 1 + k);
        const double h = r.quality[i] / static_cast<double>(peak) * plot_h;
        out.fill(assets::bar, num(left + k * w), num(top + plot_h - h), num(std::max(w - 0.3, 0.3)),
                 num(h), letter_class(r.bases[i]),
                 "base " + std::to_string(i + 1) + " " + r.bases[i] + ": quality " +
                     std::to_string(r.quality[i]));
    }
    label(out, left, H - 8, "start", "base " + std::to_string(first));
    label(out, left + W, H - 8, "end", "base " + std::to_string(last));
    out.markup("</svg>");
    return out;
}

html flowgram_chart(const record_view& r) {
    const std::size_t n = r.flowgram.size();
    const double W = 1000, H = 200, left = 36, top = 14, plot_h = H - 44;
    double peak = 4;
    for (std::uint16_t v : r.flowgram) peak = std::max(peak, v / 100.0);
    peak = static_cast<double>(static_cast<int>(peak + 0.999));
    html out;
    svg_open(out, "flowgram", W + left + 10, H, "flowgram");
    const double w = n > 0 ? W / static_cast<double>(n) : 0;
    auto flow_x = [&](std::int64_t f) { return left + static_cast<double>(f) * w; };
    // The key's flows and the flows of the kept bases, as bands behind the bars.
    const auto bases = static_cast<int>(r.flow_of_base.size());
    if (r.key_length > 0 && bases >= r.key_length)
        out.fill(assets::key_flows, num(left), num(top),
                 num(flow_x(r.flow_of_base[static_cast<std::size_t>(r.key_length - 1)] + 1) - left),
                 num(plot_h));
    if (r.kept_first >= 1 && r.kept_first <= r.kept_last && r.kept_last <= bases) {
        const double x0 = flow_x(r.flow_of_base[static_cast<std::size_t>(r.kept_first - 1)]);
        const double x1 = flow_x(r.flow_of_base[static_cast<std::size_t>(r.kept_last - 1)] + 1);
        out.fill(assets::kept_flows, num(x0), num(top + plot_h + 2), num(x1 - x0));
    }
    grid(out, peak, 1, left, left + W, top, plot_h);
    for (std::size_t f = 0; f < n; ++f) {
        const double v = r.flowgram[f] / 100.0;
        const double h = std::min(v, peak) / peak * plot_h;
        const char letter = f < r.flow_chars.size() ? r.flow_chars[f] : '?';
        out.fill(assets::bar, num(flow_x(static_cast<std::int64_t>(f))), num(top + plot_h - h),
                 num(std::max(w - 0.2, 0.2)), num(h), letter_class(letter),
                 "flow " + std::to_string(f) + " " + letter + ": " + fixed(v, 2));
    }
    label(out, left, H - 10, "start", "flow 0");
    label(out, left + W, H - 10, "end", "flow " + std::to_string(n == 0 ? 0 : n - 1));
    out.markup("</svg>");
    return out;
}

}  // namespace browse
