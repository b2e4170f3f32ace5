// Autofocus state machine: entries called by the frame loop and the flags it shares.
#pragma once

#include <cstdint>

// AF state: 0 start (a search is being prepared), 1 searching, 2 focused (watching).
extern volatile uint8_t g_afState;
extern volatile uint8_t g_refocusRequest;
extern volatile uint8_t g_returnToLast;
extern volatile uint8_t g_oneShotStage;

// Set by every tracked zoom step; autofocus clears it on its next frame.
extern volatile uint8_t g_zoomMotionMarker;
// Set while the focus is being moved by hand (motion commands); zoom-then-focus clears it.
extern volatile uint8_t g_manualFocusMove;
// Focus position at the end of the last search or zoom step.
extern volatile uint16_t g_lastAfPos;

// 1 while the slow AF frame divider is in force.
uint8_t af_slow_divider();

void AfFrame();
void ReturnToLastPosition();
void SnapshotReference();

// Distance assist: 1 lets an object distance from the camera steer the search (0/1).
uint8_t get_distance_assist_mode();
void set_distance_assist_mode(uint8_t on);

// Sets the 25 AF windows; use_isp = 1 reads the window mask from the ISP.
void refresh_window_mask(uint8_t use_isp);

// Every autofocus module back to its power-on state (tests).
void af_reset_for_testing();
// Replaces the position publishing a zoom restart does (nullptr restores it).
void af_set_position_publisher_for_testing(void (*publish)());
