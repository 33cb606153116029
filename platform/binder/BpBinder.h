#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "platform/binder/IBinder.h"

// A proxy for a service in another process, reached through its socket.
// Each transaction takes a connection of its own from a small idle pool (or
// opens one), so calls from many client threads run side by side instead of
// queueing behind one another; a connection carries one call at a time.
//
// Servers close connections that stay idle (BinderProcess::kIdleTimeoutMs);
// the pool gives up its own idle connections well before that, and one the
// server closed anyway is noticed before use, so callers never see it.
namespace android {

class BpBinder : public IBinder {
public:
    // A proxy for the service listening at `socketPath`, checked by
    // connecting once; null when nobody accepts there.
    static sp<BpBinder> Connect(const std::string& name, const std::string& socketPath);

    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override;
    const String16& getInterfaceDescriptor() const override;
    BpBinder* remoteBinder() override { return this; }
    const std::string& name() const { return name_; }

    // A limit for every call of every proxy of this process: connecting,
    // sending and waiting for the reply together (< 0: none, binder's default).
    static void SetCallTimeoutMs(int timeoutMs);
    static int CallTimeoutMs();
    // Why the last call of this thread failed in the transport, as a sentence
    // for a person; empty when it did not (the service's own errors travel in
    // the status, as with binder).
    static const std::string& LastError();

    // Pooled connections idle longer than this are closed rather than reused.
    static constexpr int kMaxIdleReuseMs = 20000;

    BpBinder(std::string name, std::string socketPath, base::unique_fd first);

private:
    struct Idle {
        base::unique_fd fd;
        std::chrono::steady_clock::time_point since;
    };
    base::unique_fd takeConnection(bool* reused);
    void giveBack(base::unique_fd conn);
    status_t fail(status_t status, const std::string& sentence);

    const std::string name_;
    const std::string path_;
    mutable std::mutex lock_;
    std::vector<Idle> idle_;
    mutable String16 descriptor_;  // asked once, under lock_
};

}  // namespace android
