#include "scene/scene_analyzer.h"

SceneResult g_sceneResult;
SceneContext g_sceneContext;

void scene_clear_result() {
    g_sceneResult = SceneResult();
}

void scene_clear_events() {
    g_sceneResult.event = kObjectNon;
}

// The grid model, labelling, object tracking and per-frame decision fill these in.
void capture_reference(const FocusReference&) {}

uint32_t scene_step(SceneResult&, const SceneInput&) {
    return kSceneNothing;
}

uint32_t reference_sharpness_check(const FocusReference&) {
    return kSceneRefocus;
}

void scene_reset() {
    g_sceneResult = SceneResult();
    g_sceneContext = SceneContext();
}
