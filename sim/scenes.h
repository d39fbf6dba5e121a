// The scenes that tarnwick-sim and the tests run.
#pragma once

#include <cstddef>

class Scene;

// A scene: its name, description, script and length.
// Constant.
struct SceneRow {
    const char* name;
    const char* about;
    void (*play)(Scene& scene);
    enum class Length { brief, extended } length = Length::brief;  // brief: a few seconds at most
};
extern const SceneRow scenes[];
extern const std::size_t sceneCount;
const SceneRow* findScene(const char* name);  // null if there is none
