// SPI links to the two lens-driver chips.
#pragma once

#include <cstdint>

// Bus number of the MS41908 link (pin file, then command line).
void spi_set_bus_number(uint32_t bus);
uint32_t spi_get_bus_number();
