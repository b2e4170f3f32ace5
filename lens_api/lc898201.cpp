#include "lens_api/lc898201.h"

void lc_alt_setup() {}
int lc_hall_calibrate() {
    return 1;
}
int32_t lc_get_iris_offset() {
    return 0;
}
int32_t lc_get_bias_offset() {
    return 0;
}
