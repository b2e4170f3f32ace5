#include "lens_api/iris.h"

namespace {
volatile uint8_t g_irisMode = 1;
volatile uint16_t g_irisValue = 0;
}  // namespace

void iris_publish_init() {}
void iris_drive_publish(uint16_t value) {
    g_irisValue = value;
}
void auto_iris_step() {}
void iris_set_mode(uint8_t mode) {
    g_irisMode = mode;
}
uint8_t iris_get_mode() {
    return g_irisMode;
}
void iris_goto_step(uint8_t) {}
void iris_table_load() {}
void iris_set_day_night(uint32_t, uint32_t, uint32_t) {}
uint16_t iris_get_value() {
    return g_irisValue;
}
