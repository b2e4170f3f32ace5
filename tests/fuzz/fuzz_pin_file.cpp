// The GPIO pin file /data/af_gpio_pin.ini with arbitrary content: the "key = number" lookup must
// stay inside the text it was given (the file fills the whole read buffer, keys may sit at its
// very end, numbers may be endless digit runs), and whatever pins and bus number come out, the
// lens board set-up that follows must take them without touching memory it does not own.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/dbgout.h"
#include "lens_api/gpio_pins.h"
#include "lens_api/spi_link.h"
#include "platform/paths.h"
#include "platform/sim/virtual_clock.h"
#include "store/ini_value.h"
#include "store/lens_data.h"
#include "tests/fuzz/fuzz_root.h"

namespace {

platform::VirtualClock g_clock;

bool set_up() {
    return fuzzsupport::quiet_file_root("pins", &g_clock);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const bool ready = set_up();
    if (!ready || size > 1024)
        return 0;
    platform::Path p(kPinFilePath);
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)))
        std::abort();
    close(fd);

    // The lookup on exactly the bytes given, unterminated past them: a heap copy of the exact
    // size plus the terminator the callers guarantee, so AddressSanitizer sees any overread.
    char* text = static_cast<char*>(std::malloc(size + 1));
    std::memcpy(text, data, size);
    text[size] = '\0';
    for (const char* key : {"zoom1_pi =", "focus_pi =", "vd =", "pls =", "reset =", "spi_bus_id =",
                            "FOCUS_OFFSET =", "IRIS_OFFSET ="})
        (void)ini_get_value(text, key, 7);
    std::free(text);

    spi_reset_for_testing();
    gpio_reset_for_testing();
    gpio_load_pins();
    gpio_init_ms();
    (void)gpio_read_home(1);
    (void)gpio_read_home(2);
    if (spi_ms_open() >= 0)
        spi_ms_close();
    gpio_reset_for_testing();
    return 0;
}
