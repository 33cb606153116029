#include "platform/binder/BpBinder.h"

#include <cstring>
#include <utility>

#include "platform/Log.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireIo.h"

namespace android {
namespace {
constexpr size_t kMaxIdleConnections = 16;
}

sp<BpBinder> BpBinder::Connect(const std::string& name, const std::string& socketPath) {
    base::unique_fd conn = WireIo::Connect(socketPath);
    if (!conn.ok()) return nullptr;
    return std::make_shared<BpBinder>(name, socketPath, std::move(conn));
}

BpBinder::BpBinder(std::string name, std::string socketPath, base::unique_fd first)
    : name_(std::move(name)), path_(std::move(socketPath)) {
    idle_.push_back(std::move(first));
}

base::unique_fd BpBinder::takeConnection(bool* reused) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!idle_.empty()) {
            base::unique_fd conn = std::move(idle_.back());
            idle_.pop_back();
            *reused = true;
            return conn;
        }
    }
    *reused = false;
    return WireIo::Connect(path_);
}

void BpBinder::giveBack(base::unique_fd conn) {
    std::lock_guard<std::mutex> lock(lock_);
    if (idle_.size() < kMaxIdleConnections) idle_.push_back(std::move(conn));
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reused = false;
        base::unique_fd conn = takeConnection(&reused);
        if (!conn.ok()) {
            LOG(ERROR) << "binder: cannot reach service " << name_ << ": " << strerror(errno);
            return DEAD_OBJECT;
        }
        status_t st = WireIo::Send(conn.get(), WireIo::kRequestMagic, code, data, -1);
        if (st == DEAD_OBJECT && reused) {
            // A pooled connection whose server went away (a restarted
            // service): nothing was delivered, so a fresh connection may retry.
            continue;
        }
        if (st != OK) return st;
        uint32_t transportStatus = 0;
        Parcel received;
        st = WireIo::Receive(conn.get(), WireIo::kReplyMagic, &transportStatus, &received);
        if (st != OK) {
            LOG(ERROR) << "binder: no reply from service " << name_ << " (transaction " << code << ")";
            return DEAD_OBJECT;
        }
        if (reply != nullptr) *reply = std::move(received);
        giveBack(std::move(conn));
        return static_cast<status_t>(transportStatus);
    }
    return DEAD_OBJECT;
}

std::string BpBinder::getInterfaceDescriptor() {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!descriptor_.empty()) return descriptor_;
    }
    Parcel in, reply;
    std::string descriptor;
    if (transact(INTERFACE_TRANSACTION, in, &reply) != OK || reply.readString(&descriptor) != OK) {
        return "";
    }
    std::lock_guard<std::mutex> lock(lock_);
    descriptor_ = descriptor;
    return descriptor_;
}

}  // namespace android
