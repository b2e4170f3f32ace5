// Autofocus flags that other modules and threads read or raise: the state the frame loop
// dispatches on, and the requests that zoom tracking, motion commands and the command channel
// leave for the autofocus's next frame.
//
// Each is a single byte or halfword, written without a lock and read on the next frame, as the
// daemon's threads share all such flags. They belong to the autofocus; the writers named below
// are the only other ones. The record sits below zoom tracking and the lens modules so that they
// raise a request without reaching up into the autofocus, which calls down into them.
#pragma once

#include <cstdint>

// AF state: 0 start (a search is being prepared), 1 searching, 2 focused (watching). Autofocus
// writes it; the frame loop reads it.
extern volatile uint8_t g_afState;
// A new search is wanted: raised by every tracked zoom step and by the command channel (mode
// and zone changes, resets); autofocus clears it when it restarts.
extern volatile uint8_t g_refocusRequest;
// Return to the last focused position: raised by the command channel, run by the frame loop.
extern volatile uint8_t g_returnToLast;
// Stage of a one-shot search (autofocus mode 3), stepped by the frame loop.
extern volatile uint8_t g_oneShotStage;

// Set by every tracked zoom step; autofocus clears it on its next frame.
extern volatile uint8_t g_zoomMotionMarker;
// Set while the focus is being moved by hand (motion commands); zoom-then-focus clears it.
extern volatile uint8_t g_manualFocusMove;
// Focus position at the end of the last search or zoom step (autofocus and zoom tracking).
extern volatile uint16_t g_lastAfPos;

// Set by every tracked zoom step; the start-zone choice of the next search clears it, and after a
// zoom it starts from the cross of windows instead of the last zone.
extern volatile uint8_t g_zoomTrackedSinceZone;

// The zoom position changed, or the pan/tilt head moved, since the last search start: raised by
// the autofocus restarts, cleared by the search start, read by the tracking-box input.
extern volatile uint8_t g_zoomChanged;
extern volatile uint8_t g_ptChanged;
