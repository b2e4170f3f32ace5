// Steps of the per-frame scene decision, open to tests and to the focused watch.
#pragma once

#include <cstdint>

#include "scene/scene_analyzer.h"
#include "scene/scene_state.h"

// Blocks whose sharpness or (neighbour-confirmed) brightness changed against the reference.
void changed_blocks(const SceneAnalyzer& a, const SceneInput& in, CellList& out);
// Whether a timed refresh is due after `elapsed` seconds since the capture.
uint8_t refresh_due(SceneAnalyzer& a, int64_t elapsed);
// Sets the drop mode, the required history length and the result's sharpness means.
void sharpness_drop(SceneAnalyzer& a, const SceneInput& in, SceneResult& result);
// 1 when the change of the last frames was only transient.
uint8_t static_scene_check(SceneAnalyzer& a);
// Scene type 0, 1 (change tests), 4 or 6 (the distance and the focus disagree).
void scene_type_test(SceneAnalyzer& a, const SceneInput& in, uint8_t& decided, uint32_t& type);
