#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/binder/BinderStatus.h"
#include "platform/binder/IBinder.h"

// The NDK binder entry points the daemon and its clients use, in their
// platform shapes. Look-ups return the binder as ndk::SpAIBinder directly
// (the platform returns a referenced raw pointer that callers wrap in one).
extern "C++" {

binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance);
ndk::SpAIBinder AServiceManager_checkService(const char* instance);
ndk::SpAIBinder AServiceManager_getService(const char* instance);
// Not declared: null at once. Declared: blocks until the service runs.
ndk::SpAIBinder AServiceManager_waitForService(const char* instance);
bool AServiceManager_isDeclared(const char* instance);

void ABinderProcess_startThreadPool();
void ABinderProcess_joinThreadPool();
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);

uid_t AIBinder_getCallingUid();
pid_t AIBinder_getCallingPid();
bool AIBinder_isRemote(const AIBinder* binder);
// Runs the object's dump with `fd` and the arguments (local or remote).
binder_status_t AIBinder_dump(AIBinder* binder, int fd, const char** args, uint32_t numArgs);
}
