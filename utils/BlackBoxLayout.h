#pragma once

#include <cstddef>
#include <cstdint>

// The raw black-box partition as the daemon writes it and the service tools
// read it. Every record is little-endian and packed, byte for byte as it lies
// in the partition: the crash monitor, the boot-failure report, the OTA monitor
// and tarnis-blackbox all read and write through these definitions (and
// blackbox::Partition), so that writer and reader can never disagree on an
// offset.
namespace velmar {
namespace kolto {
namespace blackbox {

// ---- log table header ----
inline constexpr uint64_t kLogTableHeaderOffset = 0x400;
inline constexpr uint64_t kLogTableMagic = 0x56775AF41BCDE0F3ULL;
// Layout version codes of partition versions 1, 2 and 3.
inline constexpr uint32_t kLayoutVersionCode[4] = {0, 0x1000, 0x2000, 0x3000};

struct __attribute__((packed)) LogTableHeader {
    uint64_t magic;
    uint32_t versionCode;
    uint32_t headerOffset;        // 0x400
    uint32_t historyItemValue;    // copied into every crash-history item
    uint32_t field14;             // 0x800
    uint32_t field18;             // 0x1901000
    uint32_t field1c;             // 0
    uint32_t field20;             // 0xA01000
    uint32_t crashHistoryBase4k;  // crash-history base minus 4096
    uint32_t fwMinidumpOffset;    // 0x5C00400
    uint32_t field2c;             // left as read
    uint32_t zones[3];            // 0xA400000, 0xA420000, 0xA440000 (versions 2 and 3)
};
static_assert(sizeof(LogTableHeader) == 60, "log table header is 60 bytes");

// ---- firmware-database (fw minidump) header and area ----
inline constexpr uint64_t kFwMinidumpHeaderOffset = 0x5C00400;
inline constexpr uint64_t kFwMinidumpMagic = 0x67886BE52CDEF109ULL;
inline constexpr uint32_t kFwAreaStart = 0x5C00C00;
inline constexpr uint32_t kFwAreaEnd = 0x97FFC00;
inline constexpr int kFwSlots = 3;
inline constexpr size_t kFwNameBytes = 48;
// Bytes of an encrypted container beyond the padded database: the two size
// fields in front and the wrapped key behind.
inline constexpr uint32_t kContainerOverhead = 288;
inline constexpr size_t kContainerSizeField = 16;
inline constexpr size_t kWrappedKeyBytes = 256;

struct __attribute__((packed)) FwMinidumpHeader {
    uint64_t magic;
    uint32_t index;         // current slot, 0 to 2
    uint32_t nextPosition;  // where the next container goes
    uint32_t filled;        // filled slots, 0 to 3
    uint32_t field14;       // 0x400
    uint64_t size[kFwSlots];      // padded database size, without the 288 container bytes
    uint64_t position[kFwSlots];  // 0: the slot holds nothing
    char name[kFwSlots][kFwNameBytes];
};
static_assert(sizeof(FwMinidumpHeader) == 216, "fw minidump header is 216 bytes");

// ---- crash history ----
inline constexpr uint64_t kCrashHistoryDefaultBase = 0x9801000;
inline constexpr char kCrashHistoryMagic[8] = {'T', 'H', '_', 'H', 'S', 'A', 'R', 'C'};
inline constexpr uint32_t kCrashHistoryVersion = 0x1001;
inline constexpr uint32_t kCrashHistorySlots = 509;
inline constexpr uint32_t kCrashCounterMarker = 0x97B86ADD;
inline constexpr uint32_t kCrashCounterTag = 26;
inline constexpr uint64_t kCrashItemsOffset = 1024;  // from the crash-history base
inline constexpr uint64_t kCrashItemStride = 1024;
inline constexpr size_t kCrashItemTextBytes = 512;

struct __attribute__((packed)) CrashHistoryHeader {
    char magic[8];
    uint32_t version;
    uint32_t slotCount;
    uint32_t currentNum;    // items ever written
    uint32_t nextPosition;  // next slot, 0 to 508
    uint32_t counterMarker;
    uint32_t mainTypeTag;   // 26
    uint16_t mainTypeCount[32];
    uint32_t typeTag;       // 26
    uint16_t typeCount[64];
};
static_assert(sizeof(CrashHistoryHeader) == 228, "crash history header is 228 bytes");

struct __attribute__((packed)) CrashHistoryItem {
    uint32_t mainType;
    uint32_t type;
    uint64_t textLength;
    uint8_t unused10[16];
    char text[kCrashItemTextBytes];
    uint32_t tableValue;  // the log table header's historyItemValue
    uint8_t unused224[100];
};
static_assert(sizeof(CrashHistoryItem) == 648, "crash history item is 648 bytes");

// ---- boot-monitor area ----
inline constexpr uint64_t kBootMonitorHeaderOffset = 0x9A00000;
inline constexpr uint64_t kBootFailIdentifier = 0x627759541BCDE0F0ULL;
inline constexpr uint64_t kUefiLogOffset = 0x9B00000;
inline constexpr size_t kUefiLogBytes = 0xFFFFF;
inline constexpr size_t kUefiLogBuffer = 0x100000;
inline constexpr uint64_t kKmsgOffset = 0x9C01000;
inline constexpr size_t kKmsgBytes = 0xFEFFF;
inline constexpr size_t kKmsgBuffer = 0xFF000;
inline constexpr uint64_t kPmsgOffset = 0x9D00000;
inline constexpr size_t kPmsgBytes = 0x1FFFFF;

struct __attribute__((packed)) BootMonitorHeader {
    uint64_t identifier;
    uint8_t unused8[8];
    int32_t bootIndex;
    uint8_t unused20[16];
    int64_t currentError;
    uint8_t unused44[128];
    char text[16];
    uint8_t reported;
};
static_assert(sizeof(BootMonitorHeader) == 189, "boot monitor header is 189 bytes");
static_assert(offsetof(BootMonitorHeader, currentError) == 36, "current error at 36");
static_assert(offsetof(BootMonitorHeader, reported) == 188, "reported marker at 188");

// ---- OTA record zone (partition versions 2 and 3) ----
inline constexpr uint64_t kOtaZoneOffset = 0xA420000;
inline constexpr uint64_t kOtaMagic = 0x8EA3C4F15D2B970BULL;
inline constexpr int kOtaRecords = 10;

struct __attribute__((packed)) OtaRecordZone {
    uint64_t magic;
    uint32_t versionCode;  // 8192 or 12288
    uint32_t nextIndex;
    uint32_t updateCount;
    uint8_t isDebuggable[kOtaRecords];
    char packageName[kOtaRecords][128];
    char srcBuild[kOtaRecords][48];
    char tgtBuild[kOtaRecords][48];
    char srcSlot[kOtaRecords][3];
    char tgtSlot[kOtaRecords][3];
    char startTime[kOtaRecords][32];
    char endTime[kOtaRecords][32];
    char mergedTime[kOtaRecords][32];
};
static_assert(sizeof(OtaRecordZone) == 3290, "OTA record zone is 3290 bytes");
static_assert(offsetof(OtaRecordZone, srcBuild) == 1310, "src_build at 1310");
static_assert(offsetof(OtaRecordZone, mergedTime) == 2970, "merged_time at 2970");

// ---- partition version ----
// 1, 2 or 3 by the partition's size in bytes; 0 for a size that fits none
// (callers then take version 1 and say so).
constexpr int VersionForSize(uint64_t size) {
    if (size >= 0x9A00000 && size <= 0xA400000) return 1;
    if (size >= 0xB400000 && size < 0xC800000) return 2;
    if (size >= 0xC800000) return 3;
    return 0;
}

// The crash-history base the log table header names.
inline uint64_t CrashHistoryBase(const LogTableHeader& table) {
    return static_cast<uint64_t>(table.crashHistoryBase4k) + 4096;
}
// Where crash-history item `slot` lies, from the crash-history base.
inline uint64_t CrashItemOffset(uint64_t base, uint32_t slot) {
    return base + kCrashItemsOffset + static_cast<uint64_t>(slot) * kCrashItemStride;
}
// One past the last byte that the crash history (header and every item) may use.
inline uint64_t CrashHistoryEnd(uint64_t base) {
    return CrashItemOffset(base, kCrashHistorySlots - 1) + sizeof(CrashHistoryItem);
}

}  // namespace blackbox
}  // namespace kolto
}  // namespace velmar
