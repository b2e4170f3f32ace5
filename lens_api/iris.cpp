#include "lens_api/iris.h"

void iris_publish_init() {}
void iris_drive_publish(uint16_t) {}
void auto_iris_step() {}
