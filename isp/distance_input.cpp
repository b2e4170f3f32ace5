#include "isp/distance_input.h"

#include "base/dbgout.h"
#include "isp/shm_record.h"

namespace {

ShmRecord g_record(kDistanceDevice, kDistanceRecordSize);
uint8_t g_reading = 0;  // the last poll had a valid reading

}  // namespace

uint16_t distance_poll() {
    uint32_t w[2] = {0, 0};
    if (g_record.map())
        g_record.read_words(w, 2);
    const bool valid = w[0] != 0;
    if (valid != (g_reading != 0)) {
        traceout("%s: rangefinder %s\n", dbg_timestamp(), valid ? "reading" : "no reading");
        g_reading = valid ? 1 : 0;
    }
    if (!valid)
        return kDistanceInputNone;
    if (w[1] > 65535)
        return 65535;
    if (w[1] == kDistanceInputNone)
        return kDistanceInputNone + 1;
    return static_cast<uint16_t>(w[1]);
}

void distance_input_reset() {
    g_record.unmap();
    g_reading = 0;
}
