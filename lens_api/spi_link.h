// SPI links to the two lens-driver chips.
//
// The two chips want different bus set-ups, so each has its own link that opens and configures
// its spidev node by itself on the first transfer:
//  - LC898201: always /dev/spidev4.0, SPI mode 3, chip select active low, MSB first; 16-bit
//    register addresses with bit 15 as the read flag, 8- or 32-bit data (32-bit data big-endian);
//  - MS41908: /dev/spidevN.0 (N = bus number 0..4, default 4), mode 3, chip select active high,
//    LSB first; 6-bit register numbers with bit 6 as the read flag, 16-bit data low byte first.
// A link whose set-up failed stays unopened and tries again on its next transfer. Reads that fail
// return 0 (callers take it as a register value), writes that fail return 1. Failure messages are
// rate-limited per link (a missing device fails every transfer): the first open or set-up failure
// and the first failed transfer are printed, repeats are counted and reported every few seconds.
#pragma once

#include <cstdint>

// Bus number of the MS41908 link (pin file, then command line). Takes effect at the link's next
// open.
void spi_set_bus_number(uint32_t bus);
uint32_t spi_get_bus_number();

// 0 on success; -1 if the device cannot be opened; the negative ioctl result if the mode cannot
// be set or read back; 1 if the word size or speed cannot be set or read back.
int spi_lc_open();
void spi_lc_close();
uint8_t spi_lc_read8(uint16_t addr);
int spi_lc_write8(uint16_t addr, uint8_t value);
uint32_t spi_lc_read32(uint16_t addr);
int spi_lc_write32(uint16_t addr, uint32_t value);

int spi_ms_open();
void spi_ms_close();
uint16_t spi_ms_read(uint8_t reg);
int spi_ms_write(uint8_t reg, uint16_t value);

// Failed transfers on each link since start. A driver compares the count before and after the
// writes of a move: a move whose set-up or start did not reach the chip did not happen.
uint32_t spi_lc_failures();
uint32_t spi_ms_failures();

// Link state, for diagnostics and tests.
struct SpiLinkInfo {
    int fd;
    int opened;
    uint8_t mode;
};
SpiLinkInfo spi_lc_info();
SpiLinkInfo spi_ms_info();

// Closes both links and restores the start values (tests).
void spi_reset_for_testing();
