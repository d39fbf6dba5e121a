// The scenes that tarnwick-sim and the tests play.
#pragma once

#include <cstddef>

class Scene;

struct SceneRow {
    const char* name;
    const char* about;
    void (*play)(Scene& scene);
    enum class Length { brief, extended } length = Length::brief;  // brief: a second or two of processor time
};
extern const SceneRow scenes[];
extern const std::size_t sceneCount;
const SceneRow* findScene(const char* name);  // null where there is none
