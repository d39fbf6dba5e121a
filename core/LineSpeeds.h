// LineSpeeds, what the line carries and what it may.
#pragma once

#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"

// All in KB/s. Thread: any.
struct LineSpeeds {
    Relaxed<f32> maxUpSpeed;    // the estimate of what the line can carry
    Relaxed<f32> maxDownSpeed;  //
    Relaxed<f32> curUpSpeed;    // written by UploadPool
    Relaxed<f32> curDownSpeed;  // written by DLPool
    Relaxed<f32> userMaxUpF;    // the user's limit, 0 for none
    Relaxed<f32> userMaxDownF;  //
};
