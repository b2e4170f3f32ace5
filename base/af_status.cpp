#include "base/af_status.h"

volatile uint8_t g_afState = 0;
volatile uint8_t g_refocusRequest = 0;
volatile uint8_t g_returnToLast = 0;
volatile uint8_t g_oneShotStage = 0;
volatile uint8_t g_zoomMotionMarker = 0;
volatile uint8_t g_manualFocusMove = 0;
volatile uint16_t g_lastAfPos = 0;
volatile uint8_t g_zoomTrackedSinceZone = 0;
volatile uint8_t g_zoomChanged = 0;
volatile uint8_t g_ptChanged = 0;
