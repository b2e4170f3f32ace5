#include "tools/afctl/calib_report.h"

#include <cstdint>
#include <cstdio>

#include "store/lens_data.h"
#include "store/offsets.h"

namespace {

constexpr int kIrisEntries = 13;

const char* curve_form_name(uint16_t mark) {
    if (mark == kCurveFullForm)
        return "full";
    if (mark == kCurveRefPointForm)
        return "reference point";
    return "none";
}

}  // namespace

void print_calibration_files(bool json) {
    uint16_t curve[kCurveEntries] = {};
    curve_file_read(curve, kCurveEntries);
    const uint16_t mark = curve[kCurveEntries - 1];
    const bool curve_ok = mark == kCurveFullForm || mark == kCurveRefPointForm;
    const bool offsets_ok = offset_load() == 0;
    const OffsetValues& v = offset_values();
    uint16_t iris[kIrisEntries] = {};
    char probe[8];
    const bool iris_ok = text_file_read(kIrisFilePath, probe, sizeof probe - 1) == 0;
    iris_file_read(iris, kIrisEntries);

    if (json) {
        std::printf("{\"curve\":{\"form\":\"%s\",\"wide_end_focus\":", curve_form_name(mark));
        if (curve_ok)
            std::printf("%u", curve[0]);
        else
            std::printf("null");
        std::printf(
            "},\"offsets\":{\"file\":%s,\"focus_backlash\":%u,\"zoom_backlash\":%u,"
            "\"curve_form_full\":%s,\"iris_offset\":%u,\"bias_offset\":%u,"
            "\"hall_version\":%u},\"iris_table\":",
            offsets_ok ? "true" : "false", v.focus_backlash, v.zoom_backlash,
            v.curve_form ? "true" : "false", v.iris_offset, v.bias_offset, v.hall_version);
        if (iris_ok) {
            std::printf("[");
            for (int i = 0; i < kIrisEntries; ++i)
                std::printf("%s%u", i ? "," : "", iris[i]);
            std::printf("]");
        } else {
            std::printf("null");
        }
        std::printf("}");
        return;
    }
    std::printf("calibration data:\n");
    if (curve_ok)
        std::printf("  curve: %s form, wide-end focus %u\n", curve_form_name(mark), curve[0]);
    else
        std::printf("  curve: none saved (the nominal curve is in use)\n");
    std::printf(
        "  offsets%s: focus backlash %u, zoom backlash %u, curve form %s, iris offset %u, "
        "bias offset %u, hall version %u\n",
        offsets_ok ? "" : " (no file: defaults)", v.focus_backlash, v.zoom_backlash,
        v.curve_form ? "full" : "reference point", v.iris_offset, v.bias_offset, v.hall_version);
    if (iris_ok) {
        std::printf("  iris table:");
        for (int i = 0; i < kIrisEntries; ++i)
            std::printf(" %u", iris[i]);
        std::printf("\n");
    } else {
        std::printf("  iris table: none saved (the nominal table is in use)\n");
    }
}
