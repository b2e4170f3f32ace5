#include "tools/afctl/inputs_report.h"

#include <cstdint>
#include <cstdio>

#include "isp/distance_input.h"
#include "isp/shm_record.h"
#include "isp/track_input.h"

void print_camera_inputs(bool json) {
    ShmRecord track(kTrackDevice, kTrackRecordSize);
    ShmRecord range(kDistanceDevice, kDistanceRecordSize);
    uint32_t t[5] = {};
    uint32_t d[2] = {};
    const bool have_track = track.map();
    if (have_track)
        track.read_words(t, 5);
    const bool have_range = range.map();
    if (have_range)
        range.read_words(d, 2);
    const bool on = have_track && t[0] != 0 && t[0] != 3;
    if (json) {
        std::printf(
            "{\"tracker\":{\"device\":%s,\"tracking_on\":%s,\"state\":%u,\"box\":[%u,%u,%u,"
            "%u]},\"distance\":{\"device\":%s,\"valid\":%s,\"mm\":",
            have_track ? "true" : "false", on ? "true" : "false", t[0], t[1], t[2], t[3], t[4],
            have_range ? "true" : "false", d[0] ? "true" : "false");
        if (have_range && d[0] != 0)
            std::printf("%u}}", d[1]);
        else
            std::printf("null}}");
        return;
    }
    if (!have_track)
        std::printf("tracker: no device (tracking off)\n");
    else
        std::printf("tracker: tracking %s, box %u,%u - %u,%u (640 x 360, state %u)\n",
                    on ? "on" : "off", t[1], t[2], t[3], t[4], t[0]);
    if (!have_range)
        std::printf("distance: no rangefinder (unknown)\n");
    else if (d[0] == 0)
        std::printf("distance: no reading (unknown)\n");
    else
        std::printf("distance: %u mm\n", d[1]);
}
