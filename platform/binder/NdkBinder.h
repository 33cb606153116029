#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/binder/BinderStatus.h"
#include "platform/binder/IBinder.h"

// The NDK binder entry points the daemon and its clients use, in their
// platform shapes. Look-ups return the binder as ndk::SpAIBinder directly
// (the platform returns a referenced raw pointer that callers wrap in one).
//
// Serving (the daemon):
//   class TarnisSsiImpl : public aidl::velmar::system::tarnis::common::BnTarnisSsi { ... };
//   auto impl = ndk::SharedRefBase::make<TarnisSsiImpl>();
//   std::string name = std::string(ITarnisSsi::descriptor) + "/default";
//   CHECK_EQ(AServiceManager_addService(impl->asBinder().get(), name.c_str()), STATUS_OK);
//   ABinderProcess_startThreadPool();
//   ABinderProcess_joinThreadPool();
// Calling (any process; in the daemon itself this yields `impl`, not a proxy):
//   if (!AServiceManager_isDeclared(name.c_str())) return nullptr;
//   auto ssi = ITarnisSsi::fromBinder(AServiceManager_waitForService(name.c_str()));
//   ndk::ScopedAStatus st = ssi->reportTrelvoEvent(appId, package, json, 0);
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
