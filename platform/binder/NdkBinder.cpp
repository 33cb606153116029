#include "platform/binder/NdkBinder.h"

#include <string>
#include <vector>

#include <host/Utf8.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/ServiceManager.h"

binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance) {
    if (binder == nullptr || instance == nullptr) return STATUS_UNEXPECTED_NULL;
    return android::ServiceManager::instance().addService(instance, android::sp<android::IBinder>(binder));
}

ndk::SpAIBinder AServiceManager_checkService(const char* instance) {
    return instance == nullptr ? nullptr : android::ServiceManager::instance().checkService(instance);
}

ndk::SpAIBinder AServiceManager_getService(const char* instance) {
    return AServiceManager_waitForService(instance);
}

ndk::SpAIBinder AServiceManager_waitForService(const char* instance) {
    return instance == nullptr ? nullptr : android::ServiceManager::instance().waitForService(instance);
}

bool AServiceManager_isDeclared(const char* instance) {
    return instance != nullptr && android::ServiceManager::instance().isDeclared(instance);
}

void ABinderProcess_startThreadPool() { android::BinderProcess::self().startThreadPool(); }

void ABinderProcess_joinThreadPool() { android::BinderProcess::self().joinThreadPool(); }

bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads) {
    return android::BinderProcess::self().setMaxThreads(numThreads);
}

uid_t AIBinder_getCallingUid() { return android::IPCThreadState::self()->getCallingUid(); }

pid_t AIBinder_getCallingPid() { return android::IPCThreadState::self()->getCallingPid(); }

bool AIBinder_isRemote(const AIBinder* binder) {
    return binder != nullptr && const_cast<AIBinder*>(binder)->remoteBinder() != nullptr;
}

binder_status_t AIBinder_dump(AIBinder* binder, int fd, const char** args, uint32_t numArgs) {
    if (binder == nullptr) return STATUS_UNEXPECTED_NULL;
    android::Parcel in, reply;
    binder_status_t st = in.writeFileDescriptor(fd);
    if (st != STATUS_OK) return st;
    std::vector<android::String16> args16;
    for (uint32_t i = 0; i < numArgs; ++i) args16.push_back(platform::ToUtf16(args[i]));
    in.writeString16Vector(args16);
    return binder->transact(DUMP_TRANSACTION, in, &reply);
}
