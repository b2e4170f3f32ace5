#include "scene/scene_analyzer.h"

SceneResult g_sceneResult;

void scene_clear_result() {
    g_sceneResult = SceneResult();
}

void scene_clear_events() {
    g_sceneResult.event = kObjectNon;
}

void scene_capture_reference(const uint32_t*, const uint32_t*) {}
