// Autofocus state machine: entries called by the frame loop and the flags it shares.
#pragma once

#include <cstdint>

// The flags other modules share with the autofocus (g_afState, g_refocusRequest, ...).
#include "base/af_status.h"

// 1 while the slow AF frame divider is in force.
uint8_t af_slow_divider();

void AfFrame();
void ReturnToLastPosition();
void SnapshotReference();

// Distance assist: 1 lets an object distance from the camera steer the search (0/1).
uint8_t get_distance_assist_mode();
void set_distance_assist_mode(uint8_t on);

// Sets the 25 AF windows; use_isp = 1 reads the window mask from the ISP. The distance assist
// needs all 25 (the full mask). Returns 1 when the ISP's mask changed.
uint8_t refresh_window_mask(uint8_t use_isp);

// Every autofocus module back to its power-on state (tests).
void af_reset_for_testing();
// The position publishing a restart after a zoom does at once, so that the control software sees
// where the zoom ended before the search moves the focus. The command channel owns the published
// record and sits above autofocus, so start-up installs it here; nullptr publishes nothing.
void af_set_position_publisher(void (*publish)());
