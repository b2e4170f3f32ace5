#include "lens_api/spi_link.h"

namespace {
uint32_t g_busNumber = 4;
}

void spi_set_bus_number(uint32_t bus) {
    g_busNumber = bus;
}
uint32_t spi_get_bus_number() {
    return g_busNumber;
}
