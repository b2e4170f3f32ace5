#include "isp/isp_link.h"

#include "platform/clock.h"

// The ISP link is not connected yet: like a closed link, a frame request waits 100 ms and fails,
// so the loop idles without spinning.
void isp_link_lock_init() {}
int socket_to_soc_init() {
    return -1;
}
int isp_af_attr_setup() {
    return -1;
}
int Get_ISP_VD() {
    platform::sleep_us(100000);
    return 1;
}
int isp_read_exposure() {
    return 0;
}
