#include "scene/scene_analyzer.h"

#include <new>

#include "scene/scene_state.h"

SceneResult g_sceneResult;
SceneContext g_sceneContext;

// The records are large (the component snapshot alone is some 16 KiB): they are rebuilt in place
// rather than through a temporary.
void scene_clear_result() {
    new (&g_sceneResult) SceneResult();
}

void scene_clear_events() {
    g_sceneResult.event = kObjectNon;
}

void scene_reset() {
    new (&g_sceneResult) SceneResult();
    g_sceneContext = SceneContext();
    new (&g_sceneAnalyzer) SceneAnalyzer();
}

float scene_sharpness_drop_max() {
    return g_sceneAnalyzer.dropMax;
}
