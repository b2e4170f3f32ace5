#include "tuning/tuning_server.h"

int win_socket_start() {
    return 0;
}
