#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "utils/BlackBoxLayout.h"

// Reads a black-box partition image for the service tool: the log table
// header, the firmware-database ring, the crash history, the boot-monitor
// header and the OTA record zone. The image is outside input (a dump from a
// returned device, possibly damaged): every offset and size in it is checked
// against the image and its area before it is used, and a damaged image is
// refused with one sentence saying what is wrong, never read past.
namespace tarnis_blackbox {

namespace bb = velmar::kolto::blackbox;

// Reads `len` bytes at `offset` of the image; false when the image ends first.
using ReadFn = std::function<bool(uint64_t offset, void* buf, size_t len)>;

struct FwSlot {
    int index = 0;
    bool listed = false;
    uint64_t position = 0;
    uint64_t padded = 0;  // encrypted size without the 288 container bytes
    uint64_t plain = 0;   // from the container's own size field
    std::string name;
};

struct HistoryItem {
    uint32_t slot = 0;
    uint32_t mainType = 0;
    uint32_t type = 0;
    uint32_t tableValue = 0;
    std::string text;
};

struct OtaRecord {
    int index = 0;
    int debuggable = 0;
    std::string packageName, srcBuild, tgtBuild, srcSlot, tgtSlot, startTime, endTime, mergedTime;
};

struct Image {
    uint64_t size = 0;
    int version = 0;  // by the size rule; 0 when the size fits none
    bool initialised = false;  // the log table header is there

    bb::LogTableHeader table{};
    uint64_t historyBase = 0;

    bool fwInitialised = false;
    uint32_t fwIndex = 0, fwFilled = 0, fwNextPosition = 0;
    std::vector<FwSlot> slots;

    bool historyInitialised = false;
    uint32_t historyVersion = 0, historyCurrent = 0, historyNext = 0;
    std::vector<std::pair<int, int>> mainTypeCounts;  // (type, count) of non-zero counters
    std::vector<std::pair<int, int>> typeCounts;
    std::vector<HistoryItem> items;  // newest first

    bool bootPresent = false;
    bool bootFailure = false;
    int32_t bootIndex = 0;
    int64_t bootError = 0;
    bool bootReported = false;
    std::string bootText;

    bool otaApplies = false;  // partition versions 2 and 3
    bool otaInitialised = false;
    uint32_t otaVersionCode = 0, otaNextIndex = 0, otaCount = 0;
    std::vector<OtaRecord> ota;
};

// Parses the image of `size` bytes. False with `error` set when it is damaged.
bool ParseImage(const ReadFn& read, uint64_t size, Image* out, std::string* error);

// The two 16-byte decimal size fields at the start of a container; the padded
// one must be `expectedPadded`.
bool ParseContainerSizes(const unsigned char* fields, uint64_t expectedPadded, uint64_t* plain,
                         std::string* error);

// A slot's database name is used as a file name: one plain component.
bool IsSafeFileName(const std::string& name);

}  // namespace tarnis_blackbox
