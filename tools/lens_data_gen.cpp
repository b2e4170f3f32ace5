// Generates the lens data of the nominal zoom lens (data/lens_tables.cpp).
//
//   lens_data_gen OUTPUT.cpp
//
// The lens is described only by a handful of measured reference values: samples of the base
// focus curve, of the far-curve offsets and of the distance table. Everything in between comes
// from a smooth model chosen to behave like a real zoom lens:
//
// * Base focus curve: the focus position for an object at 1 m falls from the wide end to the tele
//   end. A monotone cubic (Fritsch-Carlson) through the reference samples keeps it smooth without
//   ever rising.
// * Focus sensitivity: how many focus steps one dioptre of object vergence moves the image grows
//   roughly with the square of the focal length, i.e. exponentially along the zoom. The offset of
//   the farthest distance (100 m) is therefore interpolated in the logarithm.
// * Any other distance row is a power law of that sensitivity between its reference columns
//   (log |offset| linear in log sensitivity), which is what a lens group that scales with focal
//   length gives, and is monotone by construction.
// * Between distances the offset is linear in dioptres (1/d), the thin-lens behaviour; between
//   far-curve rows it is linear in the row index.
//
// The output must pass through every reference value exactly and keep every stated monotonicity;
// the generator checks both and fails otherwise.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kSteps = 209;
constexpr int kRows = 51;
constexpr int kKeys = 36;
constexpr int kCols = 210;

const std::array<uint32_t, kKeys> kKeysList = {
    100000, 50000, 30000, 20000, 15000, 10000, 8000, 5000, 3000, 2800, 2600, 2400,
    2200,   2100,  2000,  1900,  1800,  1700,  1600, 1500, 1400, 1300, 1200, 1100,
    1000,   900,   800,   700,   600,   500,   400,  300,  200,  100,  50,   30};

struct Knot {
    double x;
    double y;
};

// Monotone piecewise-cubic Hermite interpolation (Fritsch-Carlson): never overshoots the data,
// so monotone samples give a monotone curve.
class Pchip {
  public:
    explicit Pchip(std::vector<Knot> k) : k_(std::move(k)), m_(k_.size(), 0.0) {
        const size_t n = k_.size();
        std::vector<double> d(n - 1);
        for (size_t i = 0; i + 1 < n; ++i)
            d[i] = (k_[i + 1].y - k_[i].y) / (k_[i + 1].x - k_[i].x);
        m_[0] = d[0];
        m_[n - 1] = d[n - 2];
        for (size_t i = 1; i + 1 < n; ++i) {
            if (d[i - 1] * d[i] <= 0.0) {
                m_[i] = 0.0;
            } else {
                double h0 = k_[i].x - k_[i - 1].x;
                double h1 = k_[i + 1].x - k_[i].x;
                double w1 = 2 * h1 + h0;
                double w2 = h1 + 2 * h0;
                m_[i] = (w1 + w2) / (w1 / d[i - 1] + w2 / d[i]);
            }
        }
        // End slopes limited so the first and last intervals cannot overshoot either.
        for (size_t e : {size_t{0}, n - 1}) {
            double de = e == 0 ? d[0] : d[n - 2];
            if (m_[e] * de <= 0.0)
                m_[e] = 0.0;
            else if (std::fabs(m_[e]) > 3 * std::fabs(de))
                m_[e] = 3 * de;
        }
    }

    double operator()(double x) const {
        if (x <= k_.front().x)
            return k_.front().y;
        if (x >= k_.back().x)
            return k_.back().y;
        size_t i = 0;
        while (x > k_[i + 1].x)
            ++i;
        double h = k_[i + 1].x - k_[i].x;
        double t = (x - k_[i].x) / h;
        double t2 = t * t;
        double t3 = t2 * t;
        return (2 * t3 - 3 * t2 + 1) * k_[i].y + (t3 - 2 * t2 + t) * h * m_[i] +
               (-2 * t3 + 3 * t2) * k_[i + 1].y + (t3 - t2) * h * m_[i + 1];
    }

  private:
    std::vector<Knot> k_;
    std::vector<double> m_;
};

struct Model {
    std::array<double, kSteps> shape{};     // base focus curve
    std::array<double, kSteps> far{};       // offset of 100 m (far-curve row 50)
    std::array<double, kSteps> log_sens{};  // log(1 + far): the zoom coordinate of all rows
};

// One row given at a few zoom steps, spread over all steps as a power law of the sensitivity.
std::array<double, kSteps> spread_row(const Model& m,
                                      const std::vector<std::pair<int, double>>& at) {
    std::vector<Knot> knots;
    double sign = 1.0;
    for (auto [s, v] : at) {
        if (v < 0)
            sign = -1.0;
        double x = m.log_sens[static_cast<size_t>(s)];
        if (!knots.empty() && x <= knots.back().x)
            continue;  // sensitivity flat here (tele end): the value cannot change either
        knots.push_back({x, std::log1p(std::fabs(v))});
    }
    Pchip p(knots);
    std::array<double, kSteps> row{};
    for (int s = 0; s < kSteps; ++s)
        row[s] = sign * std::expm1(p(m.log_sens[s]));
    return row;
}

Model build_model() {
    Model m;
    Pchip shape({{0, 6019},
                 {1, 6007},
                 {10, 5898},
                 {50, 5336},
                 {100, 4389},
                 {150, 2971},
                 {200, 738},
                 {206, 421},
                 {207, 369},
                 {208, 369}});
    Pchip far_log({{0, std::log(13.0)},
                   {50, std::log(27.0)},
                   {100, std::log(63.0)},
                   {150, std::log(199.0)},
                   {200, std::log(968.0)},
                   {207, std::log(1248.0)},
                   {208, std::log(1248.0)}});
    for (int s = 0; s < kSteps; ++s) {
        m.shape[s] = shape(s);
        m.far[s] = std::exp(far_log(s));
        m.log_sens[s] = std::log1p(m.far[s]);
    }
    return m;
}

long rnd(double v) {
    return std::lround(v);
}

int failures = 0;
void check(bool ok, const char* what, long a, long b, long c) {
    if (!ok) {
        std::fprintf(stderr, "lens_data_gen: %s (%ld, %ld, %ld)\n", what, a, b, c);
        ++failures;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT.cpp\n", argv[0]);
        return 2;
    }
    const Model m = build_model();

    // ---- default curve shape
    std::array<long, kSteps> shape{};
    for (int s = 0; s < kSteps; ++s)
        shape[s] = rnd(m.shape[s]);

    // ---- far-curve offsets: reference rows spread along the zoom, linear between rows.
    const std::vector<int> ref_rows = {0, 9, 24, 49, 50};
    const std::vector<int> ref_cols = {0, 50, 100, 150, 200, 207};
    const long ref_far[5][6] = {{0, 0, 1, 3, 19, 25},
                                {2, 5, 12, 39, 193, 252},
                                {6, 13, 31, 99, 485, 631},
                                {13, 26, 61, 195, 947, 1221},
                                {13, 27, 63, 199, 968, 1248}};
    std::vector<std::array<double, kSteps>> ref_far_rows;
    for (size_t i = 0; i < ref_rows.size(); ++i) {
        if (ref_rows[i] == 50) {
            ref_far_rows.push_back(m.far);
            continue;
        }
        std::vector<std::pair<int, double>> at;
        for (size_t j = 0; j < ref_cols.size(); ++j)
            at.push_back({ref_cols[j], static_cast<double>(ref_far[i][j])});
        ref_far_rows.push_back(spread_row(m, at));
    }
    std::array<std::array<long, kSteps>, kRows> far{};
    for (int r = 0; r < kRows; ++r) {
        size_t i = 0;
        while (i + 1 < ref_rows.size() && ref_rows[i + 1] < r)
            ++i;
        size_t j = std::min(i + 1, ref_rows.size() - 1);
        double t = ref_rows[j] == ref_rows[i]
                       ? 0.0
                       : double(r - ref_rows[i]) / double(ref_rows[j] - ref_rows[i]);
        for (int s = 0; s < kSteps; ++s) {
            double v = ref_far_rows[i][s] + t * (ref_far_rows[j][s] - ref_far_rows[i][s]);
            far[r][s] = std::max(0L, rnd(v));
        }
    }

    // ---- distance table: reference keys spread along the zoom, linear in dioptres between keys.
    struct RefKey {
        uint32_t key;
        long s0, s100, s208;
    };
    const std::vector<RefKey> ref_keys = {{100000, 13, 63, 1248},  {3000, 9, 41, 814},
                                          {1000, 0, 0, 0},         {500, -12, -56, -1095},
                                          {100, -96, -351, -2440}, {30, -220, -644, -2920}};
    std::vector<std::array<double, kSteps>> ref_key_rows;
    for (const RefKey& k : ref_keys) {
        if (k.key == 100000) {
            ref_key_rows.push_back(m.far);
        } else if (k.key == 1000) {
            ref_key_rows.push_back({});
        } else {
            ref_key_rows.push_back(
                spread_row(m, {{0, double(k.s0)}, {100, double(k.s100)}, {207, double(k.s208)}}));
        }
    }
    std::array<std::array<long, kCols>, kKeys> dist{};
    for (int r = 0; r < kKeys; ++r) {
        double u = 1.0 / kKeysList[r];
        size_t i = 0;
        while (i + 1 < ref_keys.size() && 1.0 / ref_keys[i + 1].key < u)
            ++i;
        size_t j = std::min(i + 1, ref_keys.size() - 1);
        double ui = 1.0 / ref_keys[i].key;
        double uj = 1.0 / ref_keys[j].key;
        double t = j == i ? 0.0 : (u - ui) / (uj - ui);
        t = std::clamp(t, 0.0, 1.0);
        for (int s = 0; s < kSteps; ++s)
            dist[r][s] = rnd(ref_key_rows[i][s] + t * (ref_key_rows[j][s] - ref_key_rows[i][s]));
        dist[r][kCols - 1] = 0;
    }

    // ---- checks: every reference value, every monotonicity.
    const int shape_at[][2] = {{0, 6019},   {1, 6007},  {10, 5898}, {50, 5336}, {100, 4389},
                               {150, 2971}, {200, 738}, {206, 421}, {207, 369}, {208, 369}};
    for (auto& [s, v] : shape_at)
        check(shape[s] == v, "shape reference", s, shape[s], v);
    for (int s = 1; s < kSteps; ++s)
        check(shape[s] <= shape[s - 1], "shape rises", s, shape[s - 1], shape[s]);
    for (size_t i = 0; i < ref_rows.size(); ++i)
        for (size_t j = 0; j < ref_cols.size(); ++j)
            check(far[ref_rows[i]][ref_cols[j]] == ref_far[i][j], "far reference", ref_rows[i],
                  ref_cols[j], far[ref_rows[i]][ref_cols[j]]);
    for (int r = 0; r < kRows; ++r)
        for (int s = 0; s < kSteps; ++s) {
            if (s > 0)
                check(far[r][s] >= far[r][s - 1], "far falls along zoom", r, s, far[r][s]);
            if (r > 0)
                check(far[r][s] >= far[r - 1][s], "far falls along rows", r, s, far[r][s]);
        }
    for (int s = 0; s < kSteps; ++s)
        check(far[50][s] == dist[0][s], "row 50 differs from 100 m", s, far[50][s], dist[0][s]);
    for (const RefKey& k : ref_keys) {
        int r = int(std::find(kKeysList.begin(), kKeysList.end(), k.key) - kKeysList.begin());
        check(dist[r][0] == k.s0 && dist[r][100] == k.s100 && dist[r][208] == k.s208,
              "distance reference", k.key, dist[r][100], dist[r][208]);
    }
    for (int r = 0; r < kKeys; ++r)
        for (int s = 0; s < kSteps; ++s) {
            long mag = std::labs(dist[r][s]);
            if (s > 0)
                check(mag >= std::labs(dist[r][s - 1]), "distance offset shrinks along zoom",
                      kKeysList[r], s, dist[r][s]);
            if (r > 0)
                check(dist[r][s] <= dist[r - 1][s], "distance offset not monotone in distance",
                      kKeysList[r], s, dist[r][s]);
            check((kKeysList[r] < 1000) ? dist[r][s] <= 0 : dist[r][s] >= 0, "distance sign",
                  kKeysList[r], s, dist[r][s]);
        }
    if (failures != 0)
        return 1;

    // ---- output
    FILE* f = std::fopen(argv[1], "w");
    if (f == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    std::fprintf(f,
                 "// Generated by tools/lens_data_gen: the lens data of the nominal zoom lens.\n"
                 "// Do not edit; change the generator and regenerate (see data/lens_tables.h).\n"
                 "#include \"data/lens_tables.h\"\n\n"
                 "// clang-format off\n"
                 "namespace afdata {\n\n");
    auto emit = [f](const long* v, int n, const char* indent) {
        for (int i = 0; i < n; ++i) {
            if (i % 16 == 0)
                std::fprintf(f, "%s", indent);
            std::fprintf(f, "%ld,", v[i]);
            std::fprintf(f, (i % 16 == 15 || i == n - 1) ? "\n" : " ");
        }
    };
    std::fprintf(f, "const uint16_t kDefaultCurveShape[kCurveSamples] = {\n");
    emit(shape.data(), kSteps, "    ");
    std::fprintf(f, "};\n\nconst uint16_t kFarCurveOffsets[kFarCurveRows][kCurveSamples] = {\n");
    for (int r = 0; r < kRows; ++r) {
        std::fprintf(f, "    {  // row %d\n", r);
        emit(far[r].data(), kSteps, "        ");
        std::fprintf(f, "    },\n");
    }
    std::fprintf(f, "};\n\nconst DistanceRow kDistanceTable[kDistanceRows] = {\n");
    for (int r = 0; r < kKeys; ++r) {
        std::fprintf(f, "    {%u, {\n", kKeysList[r]);
        emit(dist[r].data(), kCols, "        ");
        std::fprintf(f, "    }},\n");
    }
    std::fprintf(f, "};\n\n}  // namespace afdata\n// clang-format on\n");
    std::fclose(f);
    return 0;
}
