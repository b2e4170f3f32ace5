// Tuning TCP server for the desktop tuning tool.
#pragma once

// Starts the win_socket thread. Returns 0, or non-zero when it cannot be created.
int win_socket_start();
