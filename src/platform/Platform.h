#pragma once
// Everything the logic may ask of the machine, in one bundle handed to the services at construction.
#include "platform/Clock.h"
#include "platform/Folders.h"
#include "platform/FrontmostApp.h"
#include "platform/InputDeviceLevels.h"
#include "platform/MainLoop.h"
#include "platform/Screens.h"
#include "platform/Sounds.h"
#include "platform/StatusImage.h"
#include "platform/SystemLog.h"

namespace sprelio::platform {

struct Platform {
    MainLoop& loop;
    WorkerPool& workers;
    Clock& clock;
    Workspace& workspace;
    SoundPlayer& sounds;
    InputDeviceLevels& inputLevels;
    StatusImage& statusImage;
    SystemLog& systemLog;
    Folders& folders;
    Screens& screens;
};

} // namespace sprelio::platform
