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
using crash_monitor::WriteAll;

namespace {

constexpr size_t kCopyChunk = 4096;

// Wipes the AES key however the write is left.
struct KeyWipe {
    unsigned char* key;
    ~KeyWipe() { OPENSSL_cleanse(key, crypto::kAes256KeyBytes); }
};

uint64_t SlotEnd(const bb::FwMinidumpHeader& header, int slot) {
    // A garbled size must not wrap around and hide an overlap.
    const uint64_t size = std::min<uint64_t>(header.size[slot], bb::kFwAreaEnd);
    return header.position[slot] + size + bb::kContainerOverhead;
}

uint32_t CountListed(const bb::FwMinidumpHeader& header) {
    uint32_t filled = 0;
    for (int i = 0; i < bb::kFwSlots; ++i) filled += header.position[i] != 0;
    return filled;
}

}  // namespace

void AndroidCrashMonitorThread::InitLogTableHeader() {
    const int version = get_black_box_version();
    ALOGI("%s: blackbox v%d", "init_black_box_log_table_header", version);
    const uint32_t field2c = table_.field2c;
    table_ = {};
    table_.magic = bb::kLogTableMagic;
    table_.versionCode = bb::kLayoutVersionCode[version];
    table_.headerOffset = static_cast<uint32_t>(bb::kLogTableHeaderOffset);
    table_.historyItemValue = 1;
    table_.field14 = 0x800;
    table_.field18 = 0x1901000;
    table_.field1c = 0;
    table_.field20 = 0xA01000;
    table_.crashHistoryBase4k = static_cast<uint32_t>(bb::kCrashHistoryDefaultBase - 4096);
    table_.fwMinidumpOffset = static_cast<uint32_t>(bb::kFwMinidumpHeaderOffset);
    table_.field2c = field2c;
    if (version >= 2) {
        table_.zones[0] = 0xA400000;
        table_.zones[1] = 0xA420000;
        table_.zones[2] = 0xA440000;
    }
}

void AndroidCrashMonitorThread::InitFwMinidumpHeader() {
    fw_ = {};
    fw_.magic = bb::kFwMinidumpMagic;
    fw_.index = 0;
    fw_.nextPosition = bb::kFwAreaStart;
    fw_.filled = 0;
    fw_.field14 = 0x400;
}

bool AndroidCrashMonitorThread::LoadHeaders() {
    headersLoaded_ = false;
    const bb::Partition partition = bb::Partition::Open(O_RDWR);
    if (!partition.ok()) {
        ALOGE("%s: open blackbox partition failed", "write_fw_db_to_blackbox");
        return false;
    }
    if (!partition.Read(bb::kLogTableHeaderOffset, &table_)) {
        ALOGE("%s: read blackbox_log_table_header failed", "write_fw_db_to_blackbox");
        return false;
    }
    bool initialised = false;
    if (table_.magic != bb::kLogTableMagic) {
        ALOGE("%s: black_box_log_table_header.magic is bad,should init", "write_fw_db_to_blackbox");
        InitLogTableHeader();
        if (!partition.Write(bb::kLogTableHeaderOffset, table_)) {
            LOG(ERROR) << "[mtkblackbox aidl]write blackbox_log_table_header failed: " << strerror(errno);
            return false;
        }
        initialised = true;
    }
    if (!partition.Read(bb::kFwMinidumpHeaderOffset, &fw_)) {
        ALOGE("%s: read fw_minidump_header failed", "write_fw_db_to_blackbox");
        return false;
    }
    if (fw_.magic != bb::kFwMinidumpMagic) {
        ALOGE("%s: black_box_fw_minidump_header.magic is bad, should init", "write_fw_db_to_blackbox");
        InitFwMinidumpHeader();
        if (!partition.Write(bb::kFwMinidumpHeaderOffset, fw_)) {
            ALOGE("%s: write fw_minidump_header failed", "write_fw_db_to_blackbox");
            return false;
        }
        initialised = true;
    }
    if (initialised && !partition.Sync()) {
        ALOGE("%s: fsync blackbox headers failed: %s", "write_fw_db_to_blackbox", strerror(errno));
        return false;
    }
    // A header that some other writer left garbled still must not send a
    // container outside the area.
    // A failed write whose slot was empty leaves 0 as the next position:
    // the ring goes on where the newest listed container ends, or at the
    // area's start, never over the partition's own headers.
    if (fw_.index >= bb::kFwSlots) fw_.index = 0;
    if (fw_.nextPosition < bb::kFwAreaStart || fw_.nextPosition > bb::kFwAreaEnd) {
        const int newest = (fw_.index + bb::kFwSlots - 1) % bb::kFwSlots;
        const bool listed = fw_.position[newest] >= bb::kFwAreaStart && SlotEnd(fw_, newest) <= bb::kFwAreaEnd;
        fw_.nextPosition = static_cast<uint32_t>(listed ? SlotEnd(fw_, newest) : bb::kFwAreaStart);
    }
    historyBase_ = bb::CrashHistoryBase(table_);
    headersLoaded_ = true;
    return true;
}

int AndroidCrashMonitorThread::write_rsa_encrypt_data(int fd, unsigned char* key, int len) {
    unsigned char* wrapped = nullptr;
    const int n = crypto::rsa_pub_encrypt_byte(key, &wrapped, len);
    std::unique_ptr<unsigned char, void (*)(void*)> owner(wrapped, free);
    if (n < 0 || wrapped == nullptr) {
        ALOGE("%s: rsa pub encrypt failed", __func__);
        return -1;
    }
    if (!WriteAll(fd, wrapped, static_cast<size_t>(n))) {
        ALOGE("write encrypted data failed %d(%s)\n", errno, strerror(errno));
        return -1;
    }
    return 0;
}

bool AndroidCrashMonitorThread::StageContainer(int dbFd, int containerFd, uint64_t plainSize, uint64_t padded,
                                               unsigned char* key) {
    char sizes[2 * bb::kContainerSizeField] = {};
    snprintf(sizes, bb::kContainerSizeField, "%lu", static_cast<unsigned long>(plainSize));
    snprintf(sizes + bb::kContainerSizeField, bb::kContainerSizeField, "%lu", static_cast<unsigned long>(padded));
    if (!WriteAll(containerFd, sizes, sizeof(sizes))) {
        ALOGE("%s: write size fields failed %d(%s)", "write_fw_db_to_blackbox", errno, strerror(errno));
        return false;
    }
    bool ok = true;
    const int64_t encrypted = crypto::aes_encrypt_file(dbFd, containerFd, key);
    if (encrypted != static_cast<int64_t>(padded)) {
        ALOGE("%s: AES encrypt fw db failed!", "write_fw_db_to_blackbox");
        ok = false;
    } else if (write_rsa_encrypt_data(containerFd, key, crypto::kAes256KeyBytes) != 0) {
        ALOGE("%s: write encrypted aes key failed!", "write_fw_db_to_blackbox");
        ok = false;
    }
    if (!ok) return false;
    // The helpers report the bytes they handed over; the file itself must
    // hold the whole container before the partition is touched.
    struct stat st;
    if (fstat(containerFd, &st) != 0 || static_cast<uint64_t>(st.st_size) != padded + bb::kContainerOverhead) {
        ALOGE("%s: encrypted db file is incomplete", "write_fw_db_to_blackbox");
        return false;
    }
    return true;
}

int AndroidCrashMonitorThread::write_file_to_blackbox(int srcFd, const bb::Partition& partition,
                                                      unsigned long offset) {
    const std::string target = paths::Get(paths::kBlackbox);
    if (lseek(srcFd, 0, SEEK_SET) != 0) {
        ALOGE("[%s] Failed to seek to the beginning of the source file", __func__);
        return -1;
    }
    unsigned char buf[kCopyChunk];
    uint64_t at = offset;
    for (;;) {
        ssize_t got = TEMP_FAILURE_RETRY(read(srcFd, buf, sizeof(buf)));
        if (got < 0) {
            ALOGE("[%s] Failed to write encrypted data to the target device %s", __func__, Shown(target).c_str());
            return -1;
        }
        if (got == 0) return 1;
        const ssize_t put = partition.WriteOnce(at, buf, static_cast<size_t>(got));
        if (put < 0) {
            ALOGE("[%s] Failed to write encrypted data to the target device %s", __func__, Shown(target).c_str());
            return -1;
        }
        if (put != got) {
            ALOGE("[%s] Failed to write all encrypted data to the target device %s", __func__,
                  Shown(target).c_str());
            return -1;
        }
        at += static_cast<uint64_t>(got);
    }
}

bool AndroidCrashMonitorThread::ClearOverlappedSlots(const bb::Partition& partition, uint64_t start, uint64_t end) {
    bb::FwMinidumpHeader cleared = fw_;
    bool changed = false;
    for (int i = 0; i < bb::kFwSlots; ++i) {
        if (cleared.position[i] == 0) continue;
        if (cleared.position[i] >= end || SlotEnd(cleared, i) <= start) continue;
        ALOGI("%s: slot %d at 0x%lx is overwritten, drop it from the header first", "write_fw_db_to_blackbox", i,
              static_cast<unsigned long>(cleared.position[i]));
        cleared.position[i] = 0;
        cleared.size[i] = 0;
        memset(cleared.name[i], 0, bb::kFwNameBytes);
        changed = true;
    }
    if (!changed) return true;
    cleared.filled = CountListed(cleared);
    if (!partition.Write(bb::kFwMinidumpHeaderOffset, cleared) || !partition.Sync()) {
        ALOGE("%s: write fw_minidump_header failed", "write_fw_db_to_blackbox");
        return false;
    }
    fw_ = cleared;
    return true;
}

int AndroidCrashMonitorThread::write_fw_db_to_blackbox(bool encrypt) {
    pending_ = {};
    headersLoaded_ = false;
    struct stat st;
    if (stat(paths::Get(paths::kBlackbox).c_str(), &st) == 0) {
        if (!LoadHeaders()) return 0;
        pending_.before = fw_;
    } else {
        ALOGE("%s: Blackbox partition not exist", __func__);
    }

    char name[256];
    if (get_db_name(name, sizeof(name)) != 0) {
        ALOGE("%s: Get db file name fail", __func__);
        return 0;
    }
    std::string devicePath;
    if (!ReadDbPath(name, &devicePath)) {
        ALOGE("%s: Get db filepath fail", __func__);
        return 0;
    }
    const std::string dbPath = paths::Get(devicePath);
    const std::string dir = dbPath.substr(0, dbPath.rfind('/'));
    ALOGI("%s: Db path is %s", __func__, Shown(dbPath).c_str());
    ALOGI("%s: db name: %s", __func__, Shown(name).c_str());
    ALOGI("%s: Newest fw db file: %s", __func__, Shown(dbPath).c_str());

    // Everything in the database's directory is reached through one
    // descriptor of it, resolved below the collector's directory without a
    // link on the way: a link planted in place of a directory cannot send a
    // deletion or a file elsewhere.
    std::string why;
    unique_fd dirFd = ConfinedPath::Open(devicePath.substr(0, devicePath.rfind('/')), paths::kAeeExpDir,
                                         O_RDONLY | O_DIRECTORY, 0, &why);
    if (!dirFd.ok()) {
        ALOGE("%s: db directory refused: %s", __func__, why.c_str());
        return 0;
    }
    const std::string base = dbPath.substr(dbPath.rfind('/') + 1);
    // Non-blocking: a FIFO in the database's place must not hold the worker.
    unique_fd dbFd(TEMP_FAILURE_RETRY(
            openat(dirFd.get(), base.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    const int openError = errno;
    const bool regular = dbFd.ok() && fstat(dbFd.get(), &st) == 0 && S_ISREG(st.st_mode);
    ALOGI("%s: db_size = %ld", __func__, regular ? static_cast<long>(st.st_size) : 0L);
    if (dbFd.ok() && !regular) {
        ALOGE("%s: %s is not a regular file, skipped", __func__, Shown(dbPath).c_str());
        return 0;
    }
    DeleteEncFiles(dirFd.get(), dir);
    kolto::TempName::RemoveLeftovers(dirFd.get(), dir);
    if (!dbFd.ok()) {
        ALOGE("%s: Source_fd open fail %d(%s)", __func__, openError, strerror(openError));
        sync_directory(dir.c_str());
        return 0;
    }
    const bb::Partition partition = bb::Partition::Open(O_WRONLY);
    if (!partition.ok()) {
        ALOGE("[%s] Target_fd open fail %d(%s)\n", __func__, errno, strerror(errno));
        return 0;
    }
    if (!headersLoaded_) return 0;

    const uint64_t plainSize = static_cast<uint64_t>(st.st_size);
    const uint64_t padded = (plainSize + 15) & ~uint64_t{15};
    const uint64_t needed = padded + bb::kContainerOverhead;
    if (needed > bb::kFwAreaEnd - bb::kFwAreaStart) {
        ALOGE("%s: fw db of %lu bytes does not fit the blackbox area", __func__,
              static_cast<unsigned long>(plainSize));
        return 0;
    }
    uint32_t slot = fw_.index;
    uint64_t start = fw_.nextPosition;
    const bool restarted = start + needed > bb::kFwAreaEnd;
    if (restarted) {
        ALOGI("%s: current fw_db_size is too large and needs to be rewritten from the partition header", __func__);
        slot = 0;
        start = bb::kFwAreaStart;
    }
    pending_.recorded = true;
    pending_.slot = slot;
    pending_.position = static_cast<uint32_t>(start);
    pending_.padded = padded;
    pending_.name.assign(name, strnlen(name, bb::kFwNameBytes - 1));
    pending_.restarted = restarted;

    // A key that could be guessed would protect nothing: without one from
    // the random source no container is made at all.
    unsigned char key[crypto::kAes256KeyBytes];
    KeyWipe wipe{key};
    if (!crypto::generate_aes256_key(key)) {
        ALOGE("%s: no AES key from the random source, nothing written", __func__);
        return 0;
    }
    // Staged under the daemon's temporary name and given its final name
    // only when it is complete; what a killed run left is swept above.
    const std::string encName = base + ".enc";
    if (dbPath.size() + 4 >= PATH_MAX || encName.size() + 24 > NAME_MAX) {
        ALOGE("%s: encrypted db path too long", __func__);
        return -1;
    }
    std::string temp;
    unique_fd created = kolto::TempName::CreateAt(dirFd.get(), encName, 0660, &temp);
    // The staged container is read back for the partition: the new file,
    // opened again read-write through this process's own handle of it.
    unique_fd container(created.ok() ? TEMP_FAILURE_RETRY(open(
                                               ("/proc/self/fd/" + std::to_string(created.get())).c_str(),
                                               O_RDWR | O_CLOEXEC))
                                     : -1);
    if (!container.ok()) {
        ALOGE("%s: create file fail %d(%s)", __func__, errno, strerror(errno));
        if (created.ok()) unlinkat(dirFd.get(), temp.c_str(), 0);
        return 0;
    }
    created.reset();
    const int dir_fd = dirFd.get();
    auto discard = [dir_fd, &temp]() { unlinkat(dir_fd, temp.c_str(), 0); };
    if (!StageContainer(dbFd.get(), container.get(), plainSize, padded, key)) {
        discard();
        return 0;
    }
    if (lseek(container.get(), 0, SEEK_SET) != 0) {
        ALOGE("[%s] Failed to seek to the beginning of the encrypted target file", __func__);
        discard();
        return 0;
    }
    if (!ClearOverlappedSlots(partition, start, start + needed)) {
        discard();
        return 0;
    }
    if (write_file_to_blackbox(container.get(), partition, static_cast<unsigned long>(start)) != 1) {
        ALOGE("%s: write encrypted db file to blackbox failed!", __func__);
        discard();
        return 0;
    }
    pending_.advanced = true;
    if (fsync(container.get()) != 0) {
        ALOGE("%s: fsync encrypted db file to disk failed!", __func__);
        discard();
        return 0;
    }
    if (!partition.Sync()) {
        ALOGE("%s: fsync encrypted db file to blackbox failed!", __func__);
        discard();
        return 0;
    }
    pending_.valid = true;

    if (encrypt) {
        if (renameat(dir_fd, temp.c_str(), dir_fd, encName.c_str()) != 0) {
            ALOGE("%s: rename %s failed: %s", __func__, Shown(temp).c_str(), strerror(errno));
            discard();
        } else {
            ALOGI("%s: write encrypted db to blackbox success, delete non-encrypted db file!", __func__);
            unlinkat(dir_fd, base.c_str(), 0);
        }
    } else {
        ALOGI("%s: no need encrypt, delete encrypted db file!", __func__);
        discard();
    }
    sync_directory(dir.c_str());
    return 1;
}

int AndroidCrashMonitorThread::update_black_box_fw_minidump_header(int writeResult) {
    if (!headersLoaded_) {
        ALOGE("%s: open blackbox partition failed", __func__);
        return 0;
    }
    bb::FwMinidumpHeader next = pending_.before;
    uint32_t filled = next.filled;
    const uint32_t index = pending_.recorded ? pending_.slot : next.index;
    if (pending_.recorded) {
        if (pending_.restarted && filled > 0) --filled;
        next.index = index;
        next.position[index] = pending_.position;
        next.size[index] = pending_.padded;
        memset(next.name[index], 0, bb::kFwNameBytes);
        memcpy(next.name[index], pending_.name.data(), pending_.name.size());
        next.nextPosition = pending_.position;
        if (pending_.advanced) {
            next.nextPosition = static_cast<uint32_t>(pending_.position + pending_.padded + bb::kContainerOverhead);
        }
    }
    // The slots after the current one that start below the next position
    // leave the listing, their size and name left as they were.
    for (uint32_t i = index + 1; i < static_cast<uint32_t>(bb::kFwSlots); ++i) {
        if (next.position[i] == 0 || next.position[i] >= next.nextPosition) continue;
        next.position[i] = 0;
        if (filled > 0) --filled;
    }
    if (pending_.advanced) {
        // Only after a failed write rewound the ring can an earlier slot lie
        // under the new bytes: it is not listed over what replaced it.
        const uint64_t start = pending_.position;
        const uint64_t end = start + pending_.padded + bb::kContainerOverhead;
        for (uint32_t i = 0; i < index; ++i) {
            if (next.position[i] == 0 || next.position[i] >= end || SlotEnd(next, i) <= start) continue;
            next.position[i] = 0;
            if (filled > 0) --filled;
        }
    }
    // Only a container that is in the partition and fsynced may be listed.
    if (writeResult > 0 && pending_.valid) {
        ALOGI("%s: write blackbox success", __func__);
        filled = std::min<uint32_t>(filled + 1, bb::kFwSlots);
        next.index = (index + 1) % bb::kFwSlots;
    } else {
        // The ring goes back to where the failed slot began, and the slot
        // is emptied.
        ALOGI("%s: write blackbox failed", __func__);
        next.nextPosition = next.position[index];
        next.position[index] = 0;
        next.size[index] = 0;
    }
    next.filled = filled;
    const bb::Partition partition = bb::Partition::Open(O_WRONLY);
    if (!partition.ok()) {
        ALOGE("%s: open blackbox partition failed", __func__);
        return 0;
    }
    if (!partition.Write(bb::kLogTableHeaderOffset, table_)) {
        LOG(ERROR) << "[mtkblackbox aidl]write blackbox_log_table_header failed";
        return 0;
    }
    if (!partition.Write(bb::kFwMinidumpHeaderOffset, next) || !partition.Sync()) {
        ALOGE("%s: write fw_minidump_header failed", __func__);
        return 0;
    }
    fw_ = next;
    pending_ = {};
    return 1;
}

}  // namespace tarnis
}  // namespace velmar
