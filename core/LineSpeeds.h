// LineSpeeds: the line's speeds and limits.
#pragma once

#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"

// The estimated capacity of the line, the current speeds and the user's limits, all in KB/s.
// Thread: any; each value is atomic.
struct LineSpeeds {
    Relaxed<f32> maxUpSpeed;    // estimated capacity of the line
    Relaxed<f32> maxDownSpeed;  //
    Relaxed<f32> curUpSpeed;    // written by UploadPool
    Relaxed<f32> curDownSpeed;  // written by DLPool
    Relaxed<f32> userMaxUpF;    // the user's limit; 0 for none
    Relaxed<f32> userMaxDownF;  //
};
