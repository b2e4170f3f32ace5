#include "store/lens_data.h"

void lens_param_load() {}
int marker_present() {
    return 0;
}
