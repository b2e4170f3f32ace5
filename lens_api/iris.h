// Iris control and its shared-memory publication.
#pragma once

#include <cstdint>

void iris_publish_init();
void iris_drive_publish(uint16_t value);
void auto_iris_step();
