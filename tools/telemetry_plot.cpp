// Plots a vcam telemetry file (JSON Lines) as a chart with two panels over the frames:
//   top:    the true lens focus position against the true in-focus position of the main subject
//           (and of every other object, thin), in focus motor steps;
//   bottom: the centre sharpness the statistics showed, against what it would be at best focus.
//
//   telemetry_plot TELEMETRY.jsonl OUTPUT.svg|OUTPUT.png [--title TEXT]
//
// A run on the virtual clock delivers tens of thousands of frames, far more than the chart has
// pixel columns. Each series is therefore reduced to the lowest and highest value of every column
// (in frame order), which keeps every spike and every hunt visible at a bounded size whatever the
// length of the run. An .svg is written directly; a .png is drawn by gnuplot (package
// gnuplot-nox), fed through a pipe.
#include <nlohmann/json.hpp>

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

namespace {

struct Series {
    std::string label;
    std::string colour;
    double width;
    std::vector<std::pair<double, double>> pts;  // NaN y = gap
};

struct Panel {
    double top;
    double height;
    std::string y_label;
    std::vector<Series> series;
};

constexpr double kW = 1000;
constexpr double kLeft = 80;
constexpr double kRight = 20;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

double num(const nlohmann::json& j) {
    return j.is_number() ? j.get<double>() : kNaN;
}

// Columns of the min/max reduction: about one per pixel of the plot area.
constexpr int kColumns = 920;

// Reduces pts (in frame order) to the lowest and highest point of every column of [x0, x1], in
// frame order; a column that holds a gap (NaN) keeps the gap after its points.
std::vector<std::pair<double, double>> reduce(const std::vector<std::pair<double, double>>& pts,
                                              double x0, double x1) {
    std::vector<std::pair<double, double>> out;
    if (pts.size() <= 2 * static_cast<size_t>(kColumns)) {
        out = pts;
        return out;
    }
    const double span = x1 > x0 ? x1 - x0 : 1;
    size_t i = 0;
    while (i < pts.size()) {
        const int col = static_cast<int>((pts[i].first - x0) / span * (kColumns - 1));
        size_t lo = pts.size();
        size_t hi = pts.size();
        bool gap = false;
        for (;
             i < pts.size() && static_cast<int>((pts[i].first - x0) / span * (kColumns - 1)) == col;
             ++i) {
            if (std::isnan(pts[i].second)) {
                gap = true;
                continue;
            }
            if (lo == pts.size() || pts[i].second < pts[lo].second)
                lo = i;
            if (hi == pts.size() || pts[i].second > pts[hi].second)
                hi = i;
        }
        if (lo != pts.size()) {
            out.push_back(pts[std::min(lo, hi)]);
            if (hi != lo)
                out.push_back(pts[std::max(lo, hi)]);
        }
        if (gap)
            out.push_back({pts[i - 1].first, kNaN});
    }
    return out;
}

// gnuplot single-quoted string: a quote is doubled.
std::string gp_quote(const std::string& s) {
    std::string o = "'";
    for (char c : s)
        o += c == '\'' ? std::string("''") : std::string(1, c);
    return o + "'";
}

// Draws the panels as a PNG with gnuplot. Returns 0, or 1 with a message.
int write_png(const std::vector<Panel>& panels, const std::string& title, const std::string& out) {
    FILE* gp = popen("gnuplot 2>&1", "w");
    if (gp == nullptr) {
        std::fprintf(stderr, "telemetry_plot: cannot run gnuplot\n");
        return 1;
    }
    int block = 0;
    for (const Panel& p : panels) {
        for (const Series& s : p.series) {
            std::fprintf(gp, "$s%d << EOD\n", block++);
            for (auto [x, y] : s.pts) {
                if (std::isnan(y))
                    std::fprintf(gp, "\n");  // a blank line breaks the line: a gap
                else
                    std::fprintf(gp, "%.0f %.3f\n", x, y);
            }
            std::fprintf(gp, "EOD\n");
        }
    }
    std::fprintf(gp,
                 "set terminal pngcairo noenhanced size 1400,900 font 'sans,10'\n"
                 "set output %s\n"
                 "set multiplot layout 2,1 title %s font 'sans,12'\n"
                 "set grid\nset key top left box opaque\n",
                 gp_quote(out).c_str(), gp_quote(title).c_str());
    block = 0;
    for (size_t k = 0; k < panels.size(); ++k) {
        const Panel& p = panels[k];
        std::fprintf(gp, "set ylabel %s\n%s", gp_quote(p.y_label).c_str(),
                     k + 1 == panels.size() ? "set xlabel 'frame'\n" : "unset xlabel\n");
        std::string cmd = "plot ";
        for (size_t i = 0; i < p.series.size(); ++i, ++block) {
            const Series& s = p.series[i];
            char tmp[160];
            std::snprintf(tmp, sizeof tmp, "%s$s%d with lines lw %.1f lc rgb '%s' ", i ? ", " : "",
                          block, s.width, s.colour.c_str());
            cmd += tmp;
            cmd += s.label.empty() ? std::string("notitle") : "title " + gp_quote(s.label);
        }
        std::fprintf(gp, "%s\n", cmd.c_str());
    }
    std::fprintf(gp, "unset multiplot\nset output\n");
    const int st = pclose(gp);
    if (st != 0) {
        std::fprintf(stderr,
                     "telemetry_plot: gnuplot failed (status %d); PNG output needs gnuplot "
                     "(Debian package gnuplot-nox)\n",
                     WIFEXITED(st) ? WEXITSTATUS(st) : -1);
        return 1;
    }
    return 0;
}

std::string esc(const std::string& s) {
    std::string o;
    for (char c : s) {
        if (c == '<')
            o += "&lt;";
        else if (c == '>')
            o += "&gt;";
        else if (c == '&')
            o += "&amp;";
        else
            o += c;
    }
    return o;
}

void draw_panel(FILE* f, const Panel& p, double x0, double x1) {
    double y0 = std::numeric_limits<double>::infinity();
    double y1 = -y0;
    for (const Series& s : p.series)
        for (auto [x, y] : s.pts)
            if (!std::isnan(y)) {
                y0 = std::min(y0, y);
                y1 = std::max(y1, y);
            }
    if (!(y1 >= y0)) {
        y0 = 0;
        y1 = 1;
    }
    const double pad = std::max((y1 - y0) * 0.05, 1.0);
    y0 -= pad;
    y1 += pad;
    const double pw = kW - kLeft - kRight;
    auto sx = [&](double x) { return kLeft + (x1 > x0 ? (x - x0) / (x1 - x0) : 0) * pw; };
    auto sy = [&](double y) { return p.top + p.height - (y - y0) / (y1 - y0) * p.height; };
    std::fprintf(f,
                 "<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='none' stroke='#888'/>\n",
                 kLeft, p.top, pw, p.height);
    for (int i = 0; i <= 4; ++i) {
        const double y = y0 + (y1 - y0) * i / 4;
        std::fprintf(f,
                     "<line x1='%.1f' x2='%.1f' y1='%.1f' y2='%.1f' stroke='#ddd'/>"
                     "<text x='%.1f' y='%.1f' font-size='11' text-anchor='end'>%.0f</text>\n",
                     kLeft, kLeft + pw, sy(y), sy(y), kLeft - 4, sy(y) + 4, y);
    }
    std::fprintf(f,
                 "<text x='14' y='%.1f' font-size='12' transform='rotate(-90 14 %.1f)' "
                 "text-anchor='middle'>%s</text>\n",
                 p.top + p.height / 2, p.top + p.height / 2, esc(p.y_label).c_str());
    double ly = p.top + 14;
    for (const Series& s : p.series) {
        std::string d;
        bool pen = false;
        char tmp[64];
        for (auto [x, y] : s.pts) {
            if (std::isnan(y)) {
                pen = false;
                continue;
            }
            std::snprintf(tmp, sizeof tmp, "%c%.1f,%.1f ", pen ? 'L' : 'M', sx(x), sy(y));
            d += tmp;
            pen = true;
        }
        if (!d.empty())
            std::fprintf(f, "<path d='%s' fill='none' stroke='%s' stroke-width='%.1f'/>\n",
                         d.c_str(), s.colour.c_str(), s.width);
        if (!s.label.empty()) {
            std::fprintf(f,
                         "<line x1='%.1f' x2='%.1f' y1='%.1f' y2='%.1f' stroke='%s' "
                         "stroke-width='2'/><text x='%.1f' y='%.1f' font-size='11'>%s</text>\n",
                         kLeft + pw - 190, kLeft + pw - 170, ly - 4, ly - 4, s.colour.c_str(),
                         kLeft + pw - 165, ly, esc(s.label).c_str());
            ly += 14;
        }
    }
    for (int i = 0; i <= 5; ++i) {
        const double x = x0 + (x1 - x0) * i / 5;
        std::fprintf(f, "<text x='%.1f' y='%.1f' font-size='11' text-anchor='middle'>%.0f</text>\n",
                     sx(x), p.top + p.height + 14, x);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && !(argc == 5 && std::string(argv[3]) == "--title")) {
        std::fprintf(stderr, "usage: %s TELEMETRY.jsonl OUTPUT.svg|OUTPUT.png [--title TEXT]\n",
                     argv[0]);
        return 2;
    }
    const std::string title = argc == 5 ? argv[4] : argv[1];
    std::ifstream in(argv[1]);
    if (!in) {
        std::fprintf(stderr, "telemetry_plot: cannot open %s\n", argv[1]);
        return 1;
    }
    Series lens{"lens focus (true)", "#1f77b4", 1.6, {}};
    Series subject{"subject in-focus position", "#d62728", 1.6, {}};
    std::vector<Series> others;
    Series centre{"centre V (statistics)", "#2ca02c", 1.4, {}};
    Series best{"centre V at best focus", "#7f7f7f", 1.0, {}};
    std::string line;
    int lineno = 0;
    double x0 = kNaN;
    double x1 = kNaN;
    while (std::getline(in, line)) {
        ++lineno;
        if (line.empty())
            continue;
        const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
        if (j.is_discarded() || !j.is_object()) {
            std::fprintf(stderr, "telemetry_plot: %s:%d: not a JSON object\n", argv[1], lineno);
            return 1;
        }
        const double x = num(j.value("frame", nlohmann::json()));
        if (std::isnan(x))
            continue;
        x0 = std::isnan(x0) ? x : std::min(x0, x);
        x1 = std::isnan(x1) ? x : std::max(x1, x);
        if (j.contains("lens"))
            lens.pts.push_back({x, num(j["lens"].value("focus", nlohmann::json()))});
        subject.pts.push_back({x, num(j.value("subject_focus", nlohmann::json()))});
        if (j.contains("object_focus") && j["object_focus"].is_array()) {
            const auto& a = j["object_focus"];
            if (others.size() < a.size())
                others.resize(a.size(), Series{"", "#ff9896", 0.8, {}});
            for (size_t i = 0; i < a.size(); ++i)
                others[i].pts.push_back({x, num(a[i])});
        }
        centre.pts.push_back({x, num(j.value("centre_v", nlohmann::json()))});
        best.pts.push_back({x, num(j.value("best_centre_v", nlohmann::json()))});
    }
    if (std::isnan(x0)) {
        std::fprintf(stderr, "telemetry_plot: %s has no frames\n", argv[1]);
        return 1;
    }
    if (!others.empty())
        others[0].label = "other objects";
    for (Series* s : {&lens, &subject, &centre, &best})
        s->pts = reduce(s->pts, x0, x1);
    for (Series& s : others)
        s.pts = reduce(s.pts, x0, x1);
    Panel top{40, 300, "focus position (steps)", {}};
    for (const Series& s : others)
        top.series.push_back(s);
    top.series.push_back(subject);
    top.series.push_back(lens);
    Panel bottom{380, 200, "centre sharpness V", {best, centre}};

    const std::string out = argv[2];
    if (out.size() > 4 && out.compare(out.size() - 4, 4, ".png") == 0)
        return write_png({top, bottom}, title, out);
    FILE* f = std::fopen(argv[2], "w");
    if (f == nullptr) {
        std::fprintf(stderr, "telemetry_plot: cannot create %s\n", argv[2]);
        return 1;
    }
    std::fprintf(f,
                 "<svg xmlns='http://www.w3.org/2000/svg' width='%.0f' height='620' "
                 "font-family='sans-serif'>\n<rect width='100%%' height='100%%' fill='white'/>\n"
                 "<text x='%.0f' y='22' font-size='15' text-anchor='middle'>%s</text>\n",
                 kW, kW / 2, esc(title).c_str());
    draw_panel(f, top, x0, x1);
    draw_panel(f, bottom, x0, x1);
    std::fprintf(f, "<text x='%.0f' y='612' font-size='12' text-anchor='middle'>frame</text>\n",
                 kW / 2);
    std::fprintf(f, "</svg>\n");
    std::fclose(f);
    return 0;
}
