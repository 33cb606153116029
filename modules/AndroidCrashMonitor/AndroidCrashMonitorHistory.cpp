#define LOG_TAG "AndroidCrashMonitor"

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"
#include "modules/AndroidCrashMonitor/AndroidCrashMonitorShared.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>
#include <openssl/crypto.h>

#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/Cryptography.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace velmar {
namespace tarnis {

namespace bb = kolto::blackbox;
namespace crypto = kolto::cryptography;
namespace paths = kolto::paths;
using android::base::GetProperty;
using android::base::SetProperty;
using android::base::unique_fd;
using kolto::ConfinedPath;

using crash_monitor::Shown;

namespace {

constexpr char kOwnerLabel[] = "BSP-Android-Stability";
constexpr size_t kHistoryLine = 512;
constexpr size_t kSummaryBytes = 512;

void CutTrailingNewlines(std::string* text) {
    while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) text->pop_back();
}

}  // namespace

int AndroidCrashMonitorThread::write_blackbox_crash_history() {
    ALOGI("%s: begin enter into write blackbox crash history.", __func__);
    char name[256];
    if (get_db_name(name, sizeof(name)) != 0) {
        ALOGE("[parse_crash_from_db_history]Get dbfilename fail");
        return -1;
    }
    CrashRecord record;
    // The collector's directory is open to others: a FIFO or a link in the
    // history's place is refused, never waited on or followed.
    std::string why = "cannot be read";
    unique_fd historyFd = ConfinedPath::OpenRegular(paths::kAeeDbHistory, paths::kAeeExpDir, O_RDONLY, 0, &why);
    FILE* history = kolto::AdoptFile(historyFd, "re");
    if (history == nullptr) {
        ALOGE("open fw db_distory failed");
        ALOGW("%s: %s, the crash goes into the history without its line", __func__, why.c_str());
    } else {
        char line[kHistoryLine];
        while (fgets(line, sizeof(line), history) != nullptr) ParseDbHistoryLine(line, name, &record);
        fclose(history);
    }
    return WriteCrashHistoryRecord(record);
}

bool AndroidCrashMonitorThread::ParseDbHistoryLine(const char* line, const char* dbName, CrashRecord* record) {
    const char* cst = strcasestr(line, "CST");
    if (cst == nullptr) return false;
    const char* from = cst - line >= 20 ? cst - 20 : line;
    record->time = from;
    CutTrailingNewlines(&record->time);
    ALOGE("crash_time %s", Shown(record->time).c_str());
    if (strstr(line, dbName) == nullptr) return false;
    if (strstr(line, ".NE") != nullptr) {
        record->mainType = record->type = 22;
        record->kind = "NE";
    } else if (strstr(line, ".JE") != nullptr) {
        record->mainType = record->type = 21;
        record->kind = "JE";
    } else if (strstr(line, ".SWT") != nullptr) {
        record->mainType = record->type = 23;
        record->kind = "SWT";
    } else {
        record->mainType = record->type = 0;
        record->kind.clear();
    }
    record->line = line;
    CutTrailingNewlines(&record->line);
    return true;
}

int AndroidCrashMonitorThread::WriteCrashHistoryRecord(const CrashRecord& record) {
    static constexpr char kFunc[] = "write_blackbox_crash_history";
    const std::string version = GetProperty("ro.build.version.incremental", "unkown_version");
    char summary[kSummaryBytes];
    snprintf(summary, sizeof(summary), "%s | %s | %s | %s | %s", version.c_str(), record.kind.c_str(), kOwnerLabel,
             record.time.c_str(), record.line.c_str());
    summary_ = summary;

    const bb::Partition partition = bb::Partition::Open(O_RDWR);
    if (!partition.ok()) {
        ALOGE("%s: open blackbox partition failed", kFunc);
        return -1;
    }
    uint64_t size = 0;
    if (!partition.Size(&size) || historyBase_ < bb::kFwAreaEnd ||
        bb::CrashHistoryEnd(historyBase_) > size) {
        ALOGE("%s: crash history at 0x%lx lies outside the partition", kFunc, static_cast<unsigned long>(historyBase_));
        return -1;
    }
    bb::CrashHistoryHeader header{};
    if (!partition.Read(historyBase_, &header)) header = {};
    if (memcmp(header.magic, bb::kCrashHistoryMagic, sizeof(header.magic)) != 0) {
        memcpy(header.magic, bb::kCrashHistoryMagic, sizeof(header.magic));
        header.version = bb::kCrashHistoryVersion;
        header.slotCount = bb::kCrashHistorySlots;
        header.currentNum = 0;
        header.nextPosition = 0;
    }
    if (header.counterMarker != bb::kCrashCounterMarker) {
        const size_t from = offsetof(bb::CrashHistoryHeader, mainTypeTag);
        memset(reinterpret_cast<char*>(&header) + from, 0, sizeof(header) - from);
        header.counterMarker = bb::kCrashCounterMarker;
    }
    LOG(INFO) << "crash history header: version 0x" << std::hex << header.version << std::dec
              << ", current_num " << header.currentNum << ", next_position " << header.nextPosition;
    ALOGI("%s: crash main type: %u", kFunc, record.mainType);
    ALOGI("%s: crash_type: %u", kFunc, record.type);

    header.currentNum += 1;
    char description[kHistoryLine * 2];
    snprintf(description, sizeof(description), "%s | %s | %s | %s", record.time.c_str(), record.kind.c_str(),
             record.line.c_str(), kOwnerLabel);
    bb::CrashHistoryItem item{};
    item.mainType = record.mainType;
    item.type = record.type;
    const std::string text = android::base::StringPrintf("%d)[%u] %s | %s \n", static_cast<int>(header.currentNum),
                                                         table_.historyItemValue, version.c_str(), description);
    // Cut to the field, always terminated.
    item.textLength = std::min(text.size(), sizeof(item.text) - 1);
    memcpy(item.text, text.data(), item.textLength);
    item.tableValue = table_.historyItemValue;
    ALOGI("%s: crash_item.string: %s", kFunc, Shown(item.text).c_str());
    if (header.nextPosition >= bb::kCrashHistorySlots) header.nextPosition = 0;
    if (!partition.Write(bb::CrashItemOffset(historyBase_, header.nextPosition), item) || !partition.Sync()) {
        ALOGE("%s: write crash item to blackbox failed", kFunc);
        return -1;
    }
    header.mainTypeTag = bb::kCrashCounterTag;
    header.typeTag = bb::kCrashCounterTag;
    if (record.mainType <= 31) {
        header.mainTypeCount[record.mainType]++;
    } else {
        ALOGE("crash_history: crash_main type overflowed");
    }
    if (record.type <= 63) {
        header.typeCount[record.type]++;
    } else {
        ALOGE("crash_history: crash type overflowed");
    }
    header.nextPosition += 1;
    if (!partition.Write(historyBase_, header) || !partition.Sync()) {
        ALOGE("%s: write crash history header to blackbox failed", kFunc);
        return -1;
    }
    return 1;
}

}  // namespace tarnis
}  // namespace velmar
