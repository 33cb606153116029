#define LOG_TAG "BootFailReport"

#include "modules/BootMonitor/BootFailReport.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <host/Host.h>
#include <log/log.h>
#include <lumetra/Lumetra.h>

#include "modules/BootMonitor/BootMonitorThread.h"
#include "utils/BlackBoxLayout.h"
#include "utils/BlackBoxPartition.h"
#include "utils/Clock.h"
#include "utils/Paths.h"
#include "utils/TempName.h"

namespace velmar {
namespace tarnis {

namespace paths = kolto::paths;
namespace blackbox = kolto::blackbox;
using android::base::unique_fd;

namespace {

// The kernel's boot-watchdog protocol.
constexpr int kNetlinkBootMonitor = 23;
constexpr uint16_t kConnectFlags = 0x5A5A;
constexpr char kConnectText[] = "tarn bootmonitor nl connect";
// A stop without a descriptor to wake the wait is seen this often.
constexpr int kStopLookMs = 5000;
// The time-out events that the boot stage reports and this daemon acts on.
constexpr long kFirstBootStageEvent = 901005300;
constexpr long kLastBootStageEvent = 901005349;

enum FailureClass { kNotFailure = 0, kFirstStageLoader = 1, kSecondStageLoader = 2, kBootStage = 3 };

FailureClass Classify(int64_t code) {
    if (code >= 901005207 && code <= 901005229) return kFirstStageLoader;
    if ((code >= 901005230 && code <= 901005299) || (code >= 901005101 && code <= 901005199)) {
        return kSecondStageLoader;
    }
    if (code >= 901005300 && code <= 901005349) return kBootStage;
    return kNotFailure;
}

std::string Sha1Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha1(), nullptr) != 1) return "";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) hex += android::base::StringPrintf("%02x", digest[i]);
    return hex;
}

// Evidence appears under its name only once it is complete: it is written to
// a fresh file beside it and renamed into place (a link planted under the
// final name is replaced, never followed).
bool WriteEvidence(const std::string& devicePath, const char* data, size_t size) {
    const std::string path = paths::Get(devicePath);
    if (!kolto::TempName::WriteWhole(path, std::string(data, size), 0664, 0, 1000)) {
        ALOGE("write %s failed: %s", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

BootFailReport::BootFailReport() {
    abl_xbl_event_map = {
        {901005207, "XBL_BOOTFAIL_EFI_SEAVAILBLE"},   {901005208, "XBL_BOOTFAIL_ADD_DRIVERLIST"},
        {901005209, "XBL_BOOTFAIL_INIT_DISPATCHER"},  {901005210, "XBL_BOOTFAIL_GET_FVB"},
        {901005211, "XBL_BOOTFAIL_FVI_PROCESSED"},    {901005212, "XBL_BOOTFAIL_FV_IMAGE"},
        {901005213, "XBL_BOOTFAIL_UP_FWVENDOR"},      {901005214, "XBL_BOOTFAIL_FWVENDOR"},
        {901005215, "XBL_BOOTFAIL_BDS_PFINIT"},       {901005216, "XBL_BOOTFAIL_LOAD_IMAGEINPIL"},
        {901005217, "XBL_BOOTFAIL_REGISTER_RESET"},   {901005230, "ABL_BOOTFAIL_ALLOC_MEM_STACK"},
        {901005231, "ABL_BOOTFAIL_DEVICE_INFO_INIT"}, {901005232, "ABL_BOOTFAIL_REBOOT_REASON"},
        {901005233, "ABL_BOOTFAIL_GET_KEYPRESS"},     {901005234, "ABL_BOOTFAIL_GET_PMIC"},
        {901005235, "ABL_BOOTFAIL_WRITE_DEVINFO"},    {901005236, "ABL_BOOTFAIL_RESET_DEVSTATE"},
        {901005237, "ABL_BOOTFAIL_MDTP_DISABLE"},     {901005238, "ABL_BOOTFAIL_ENUM_PARTITION"},
        {901005239, "ABL_BOOTFAIL_DM_VERITY"},        {901005101, "ABL_BOOTFAIL_LOAD_IMAGE"},
        {901005102, "ABL_BOOTFAIL_SECURE_ID"},        {901005103, "ABL_BOOTFAIL_DDR_CHECK_FAIL"},
        {901005104, "ABL_BOOTFAIL_DISPERRORINFO"},    {901005105, "ABL_BOOTFAIL_BOOTLINUX_ERROR"},
        {901005302, "LASTFS_FAIL"},                   {901005303, "ZYGOTE_FAIL"},
        {901005304, "ZYGOTE_PRELOAD_FAIL"},           {901005305, "STRAT_ANDROID_FAIL"},
        {901005306, "PMS_START_FAIL"},                {901005307, "PMS_READY_FAIL"},
        {901005308, "AMS_READY_FAIL"},                {901005309, "BOOT_COMPLETED_FAIL"},
    };
    if (abl_xbl_event_map.empty()) ALOGD("debug abl_xbl_event_map is empty");
}

void BootFailReport::Load() {
    const bool ab = android::base::GetBoolProperty("ro.build.ab_update", false);
    kmsgPath = paths::kUnhealthyBootKmsg.For(ab);
    pmsgPath = paths::kUnhealthyBootPmsg.For(ab);
    uefiPath = paths::kUnhealthyBootUefi.For(ab);
    recordPath = paths::kBootmonitorTimeout.For(ab);
}

bool BootFailReport::ExtractLog(uint64_t offset, size_t bufferBytes, size_t readBytes, const std::string& path,
                                const char* mallocError, const char* readError, const char* openError) {
    const blackbox::Partition partition = blackbox::Partition::Open(O_RDONLY | O_NONBLOCK);
    if (!partition.ok()) {
        LOG(ERROR) << "open black_box_log partition fail, error: " << strerror(errno);
        return false;
    }
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[bufferBytes]());
    if (buffer == nullptr) {
        LOG(ERROR) << mallocError << strerror(errno);
        return false;
    }
    if (partition.ReadHeld(offset, buffer.get(), readBytes) < 0) {
        LOG(ERROR) << readError << strerror(errno);
        return false;
    }
    // The whole area goes out even when the partition ended early: its tail
    // stays zero, as the boot loader leaves an unused area.
    if (!WriteEvidence(path, buffer.get(), readBytes)) {
        ALOGE("%s", openError);
        return false;
    }
    return true;
}

void BootFailReport::check_ablxbl_fail_report() {
    ALOGD("check  blackbox--bootfail partition boot fail report lumetra\n");
    blackbox::BootMonitorHeader header{};
    {
        const blackbox::Partition partition = blackbox::Partition::Open(O_RDWR | O_NONBLOCK);
        if (!partition.ok()) {
            LOG(ERROR) << "open black_box_log partition fail, error: " << strerror(errno);
            return;
        }
        const ssize_t got = partition.ReadHeld(blackbox::kBootMonitorHeaderOffset, &header, sizeof(header));
        if (got < 0) {
            LOG(ERROR) << "read log_boot_monitor_header fail, error: " << strerror(errno);
            return;
        }
        if (got == 0) {
            ALOGE("read blackbox error type fail");
            return;
        }
    }
    const FailureClass failureClass = Classify(header.currentError);
    if (header.identifier != blackbox::kBootFailIdentifier) {
        ALOGD("No boot failed\n");
        return;
    }
    if (failureClass == kNotFailure) {
        ALOGE("Not an abnormal error type");
        return;
    }
    if (failureClass == kBootStage) {
        if (!ExtractLog(blackbox::kKmsgOffset, blackbox::kKmsgBuffer, blackbox::kKmsgBytes, kmsgPath,
                        "kmsg buffer malloc fail, error: ", "read boot fail kmsg log fail, error: ",
                        "cannot open kmsg file !")) {
            ALOGE("read blackbox Boot Log fail");
            return;
        }
        // The kernel log alone is worth the report: a missing pmsg is logged only.
        ExtractLog(blackbox::kPmsgOffset, blackbox::kPmsgBytes, blackbox::kPmsgBytes, pmsgPath,
                   "pmsg buffer malloc fail, error: ", "read boot fail pmsg log fail, error: ",
                   "cannot open pmsg file !");
    } else {
        if (!ExtractLog(blackbox::kUefiLogOffset, blackbox::kUefiLogBuffer, blackbox::kUefiLogBytes, uefiPath,
                        "Uefi log buffer malloc fail, error: ", "read boot fail Uefi log fail, error: ",
                        "cannot open kmsg file !")) {
            ALOGE("read blackbox Uefi Log fail");
            return;
        }
    }
    if (header.reported == 1) {
        ALOGD("The record of this boot failure has been reported\n");
        return;
    }
    ALOGD("The record of this boot failure needs to be reported\n");
    ALOGD("report ablxbl to lumetra");
    std::string summary = "CRASH_REASON_NONE";
    const auto found = abl_xbl_event_map.find(static_cast<uint32_t>(header.currentError));
    if (found != abl_xbl_event_map.end()) summary = found->second;
    ALOGD("summary %s header->current_error %ld", summary.c_str(), static_cast<long>(header.currentError));
    if (summary == "CRASH_REASON_NONE") {
        ALOGD("No abnormal records need to be reported");
    } else {
        Report(header.currentError, summary, header.bootIndex);
    }

    header.reported = 1;
    const blackbox::Partition partition = blackbox::Partition::Open(O_RDWR | O_NONBLOCK);
    if (!partition.ok()) {
        LOG(ERROR) << "open black_box_log partition fail, error: " << strerror(errno);
        ALOGD("Read identifier write back failed");
        return;
    }
    if (!partition.Write(blackbox::kBootMonitorHeaderOffset, header)) {
        LOG(ERROR) << "write log_error_type_header fail, error: " << strerror(errno);
        ALOGD("Read identifier write back failed");
    }
}

void BootFailReport::Report(int64_t code, const std::string& summary, int32_t bootIndex) {
    const std::string device = android::base::GetProperty("ro.product.device", "unknown");
    const std::string incremental = android::base::GetProperty("ro.build.version.incremental", "unknown");
    const long now = static_cast<long>(kolto::GetClock().WallNowMs() / 1000);

    android::LumetraEvent event(static_cast<unsigned int>(code));
    event.putString("Digest", Sha1Hex(android::base::StringPrintf("%s%s%ld", device.c_str(), incremental.c_str(),
                                                                  static_cast<long>(code))));
    event.putInt("BootIndex", bootIndex);
    event.putLong("CurrentTime", now);
    android::Lumetra::sendEvent(event);
    ALOGD("report boot timeout");

    const std::string recordFile = paths::Get(recordPath);
    unique_fd record(TEMP_FAILURE_RETRY(
        open(recordFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0664)));
    if (!record.ok()) {
        ALOGE("cannot open bootmonitor rescue record file !");
        return;
    }
    const std::string line = android::base::StringPrintf("%s,%s,%d,%s,%d,%ld\n", "BootmonitorTimeout",
                                                         incremental.c_str(), static_cast<int>(code),
                                                         summary.c_str(), bootIndex, now);
    if (!android::base::WriteFully(record.get(), line.data(), line.size())) {
        ALOGE("write %s failed: %s", recordFile.c_str(), strerror(errno));
    }
    if (fchown(record.get(), 0, 1000) != 0) ALOGD("chown %s failed: %s", recordFile.c_str(), strerror(errno));
    fchmod(record.get(), 0664);
}

namespace {
std::atomic<int> gTestSocket{-1};
}  // namespace

void BootFailReport::SetListenerSocketForTesting(int fd) { gTestSocket.store(fd); }

int BootFailReport::NetlinkInit(kolto::StopSignal& stop) {
    if (const int given = gTestSocket.exchange(-1); given >= 0) return ReceiveLoop(unique_fd(given), stop);
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, kNetlinkBootMonitor));
    if (!fd.ok()) {
        ALOGE("create netlink socket error: %s", strerror(errno));
        return -1;
    }
    const pid_t pid = getpid();
    ALOGI("pid=[0x%x]", static_cast<unsigned>(pid));
    struct sockaddr_nl local {};
    local.nl_family = AF_NETLINK;
    local.nl_pid = static_cast<uint32_t>(pid);
    local.nl_groups = 0;
    if (bind(fd.get(), reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) != 0) {
        ALOGE("bind src error: %s", strerror(errno));
        return -1;
    }
    ALOGI("bind socket success");

    std::vector<char> message(kMessageBytes, 0);
    auto* header = reinterpret_cast<struct nlmsghdr*>(message.data());
    header->nlmsg_len = kMessageBytes;
    header->nlmsg_type = 0;
    header->nlmsg_flags = kConnectFlags;
    header->nlmsg_seq = 0;
    header->nlmsg_pid = static_cast<uint32_t>(pid);
    memcpy(message.data() + NLMSG_HDRLEN, kConnectText, sizeof(kConnectText) - 1);
    struct sockaddr_nl kernel {};
    kernel.nl_family = AF_NETLINK;
    kernel.nl_pid = 0;
    kernel.nl_groups = 0;
    if (sendto(fd.get(), message.data(), message.size(), 0, reinterpret_cast<struct sockaddr*>(&kernel),
               sizeof(kernel)) < 0) {
        ALOGE("sendto error: %s", strerror(errno));
    }
    ALOGI("sendto success");
    return ReceiveLoop(std::move(fd), stop);
}

int BootFailReport::ReceiveLoop(unique_fd fd, kolto::StopSignal& stop) {
    if (stop.Requested()) return 0;
    static_assert(NLMSG_HDRLEN == 16, "the protocol's header is 16 bytes");
    std::vector<char> message(kMessageBytes, 0);
    char text[kPayloadBytes + 1];
    const uint32_t pid = static_cast<uint32_t>(getpid());
    for (;;) {
        struct pollfd waits[2] = {{fd.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
        const bool stopWakes = stop.fd() >= 0;
        const int ready = TEMP_FAILURE_RETRY(poll(waits, stopWakes ? 2 : 1, stopWakes ? -1 : kStopLookMs));
        if (stop.Requested()) return 0;
        if (ready < 0) {
            ALOGE("poll error: %s", strerror(errno));
            return 0;
        }
        if (waits[0].revents == 0) continue;
        std::fill(message.begin(), message.end(), 0);
        auto* header = reinterpret_cast<struct nlmsghdr*>(message.data());
        header->nlmsg_len = kMessageBytes;
        header->nlmsg_pid = pid;
        // Never blocks: the poll said what is there.
        const ssize_t got = recvfrom(fd.get(), message.data(), message.size(), MSG_DONTWAIT, nullptr, nullptr);
        if (got < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                ALOGE("recvfrom error: %s", strerror(errno));
                return 0;
            }
        } else if (got == 0) {
            ALOGI("Connection closed");
            return 0;
        } else {
            uint32_t payload = 0;
            if (!ReadPayload(message.data(), text, &payload)) {
                ALOGE("msg_len is invalid: %u", payload);
            } else {
                ALOGI("%s--%d: recv_msg: %s", "NetlinkInit", 550, text);
                HandleMessage(text);
            }
        }
        memset(text, 0, sizeof(text));
        if (stop.Requested()) return 0;
    }
}

bool BootFailReport::ReadPayload(const char* message, char* text, uint32_t* payloadLength) {
    static_assert(NLMSG_HDRLEN == 16, "the protocol's header is 16 bytes");
    // The header's own length is the kernel's word on the payload; whatever
    // it claims, the copy stays inside the buffer.
    uint32_t length = 0;
    memcpy(&length, message + offsetof(struct nlmsghdr, nlmsg_len), sizeof(length));
    *payloadLength = length - static_cast<uint32_t>(NLMSG_HDRLEN);
    if (length < NLMSG_HDRLEN + 1 || length > kMessageBytes) return false;
    memcpy(text, message + NLMSG_HDRLEN, *payloadLength);
    text[*payloadLength] = '\0';
    return true;
}

BootFailReport::BootMessage BootFailReport::ParseBootMessage(const char* text, long* event, int* bootIndex) {
    if (strncmp(text, "boot", 4) != 0) return BootMessage::kNotBoot;
    if (sscanf(text, "boot-timeout[%ld], time[%d]", event, bootIndex) < 2) return BootMessage::kMalformed;
    return BootMessage::kTimeout;
}

void BootFailReport::HandleMessage(const char* text) {
    long event = 0;
    int bootIndex = 0;
    const BootMessage kind = ParseBootMessage(text, &event, &bootIndex);
    if (kind == BootMessage::kNotBoot) {
        ALOGI("recv message is not boot message");
        return;
    }
    ALOGI("recv boot message");
    if (kind == BootMessage::kMalformed) {
        ALOGE("Failed to parse boot message: %s", text);
        return;
    }
    ALOGI("recv boot message timeout_event = %ld, boot_index = %d", event, bootIndex);
    if (event < kFirstBootStageEvent || event > kLastBootStageEvent) return;
    std::string dir =
        paths::Get(paths::kUnhealthyBootLogDir, android::base::GetBoolProperty("ro.build.ab_update", false));
    android::BootMonitorThread().captureBugreport(dir, 100, event);
    ALOGD("checkBlackBoxBootFail");
    check_ablxbl_fail_report();
}

}  // namespace tarnis
}  // namespace velmar
