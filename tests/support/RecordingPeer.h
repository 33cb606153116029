#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>

namespace tarnis_test {

// The vendor peer daemon's service, keeping every message it is sent.
struct RecordingPeer : aidl::vendor::velmar::hardware::kolto::common::BnTarnisIntl {
    std::mutex lock;
    std::vector<std::pair<std::string, std::string>> got;  // action, JSON
    ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) override {
        std::lock_guard<std::mutex> guard(lock);
        got.emplace_back(action, json);
        return ndk::ScopedAStatus::ok();
    }
};

}  // namespace tarnis_test
