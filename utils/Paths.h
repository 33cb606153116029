#pragma once

#include <string>
#include <string_view>

// Every absolute device path the daemon reads, writes, cleans or names, in one
// table. Code never spells a device path inline: it names a constant here and
// turns it into a file-system path with paths::Get, which puts it below the
// root (`tarnisd --root DIR`; "/" on a device). A test re-roots them all with
// the one call that sets the root.
//
// Directories end in "/" where the daemon builds names by appending to them,
// and not where it only matches or opens them: the constants keep the exact
// spelling the behaviour depends on (a substring match, a name in a log line).
namespace velmar {
namespace kolto {
namespace paths {

// A path kept on the rescue partition on A/B devices ("ro.build.ab_update"
// true) and on the cache partition on the others.
struct RescueOrCache {
    const char* rescue;
    const char* cache;
    constexpr const char* For(bool abUpdate) const { return abUpdate ? rescue : cache; }
};

// ---- captures: dumps and packaging ----
inline constexpr char kDorvaDir[] = "/data/dorva/";  // default base of captures
inline constexpr char kLocalRecordDir[] = "/data/nuvilog/stability/reboot/";
// One file per running capture, named after the pid of the client that ordered it.
inline constexpr char kCaptureProgressDir[] = "/data/misc/tarnis";
inline constexpr char kOfflineDbDir[] = "/data/nuvilog/";
// Marks the native-crash files whose core dumps a capture waits for.
inline constexpr char kNativeCrashDir[] = "/data/nuvilog/stability/nativecrash";
// The tombstone monitor's copies; also its default output directory.
inline constexpr char kNativeCrashTombstoneDir[] = "/data/nuvilog/stability/nativecrash/tombstones/";
inline constexpr char kNativeCrashCoredumpDir[] = "/data/nuvilog/stability/nativecrash/coredump/";
inline constexpr char kAnrDir[] = "/data/anr/";
inline constexpr char kUidErrors[] = "/data/system/uiderrors.txt";
// Logs of a chip family this device does not have; asking for them is answered in the capture.
inline constexpr char kKoltoLastKmsg[] = "/data/vendor/diag/last_kmsg";
inline constexpr char kKoltoLastTzlog[] = "/data/vendor/diag/last_tzlog";
// Where the light boot-monitor dump records its file's path.
inline constexpr RescueOrCache kBootmonitorLog{"/mnt/rescue/dorva/bootmonitor_log.txt",
                                               "/cache/dorva/bootmonitor_log.txt"};

// ---- sockets ----
inline constexpr char kSocketDir[] = "/dev/socket/";  // reserved sockets, reached by name
inline constexpr char kUncryptSocket[] = "/dev/socket/uncrypt";

// ---- native daemon service ----
inline constexpr char kPersistDir[] = "/mnt/vendor/persist/stability";
inline constexpr char kCoredumpFilterFormat[] = "/proc/%d/coredump_filter";  // with a pid
inline constexpr char kDebugPolicyDir[] = "/data/dorva/download";
inline constexpr char kDebugPolicyApImage[] = "/data/dorva/download/apdp.mbn";
inline constexpr char kDebugPolicyMsaImage[] = "/data/dorva/download/msadp.mbn";
inline constexpr char kDebugPolicyApSigned[] = "/data/dorva/download/dp_AP_signed.mbn";
inline constexpr char kDebugPolicyMsaSigned[] = "/data/dorva/download/dp_MSA_signed.mbn";
inline constexpr char kApdpPartition[] = "/dev/block/bootdevice/by-name/apdp";
inline constexpr char kMsadpPartition[] = "/dev/block/bootdevice/by-name/msadp";

// ---- capture server ----
inline constexpr RescueOrCache kCaptureServerDir{"/mnt/rescue/dorva/", "/cache/dorva/"};
inline constexpr char kZelteeLogDir[] = "/data/vendor/zeltee/";
inline constexpr char kTrustyLog[] = "/dev/trusty-log0";
// Secure-world logs: the log daemon's copies while it runs, else the kernel's.
inline constexpr char kQseeLogCopy[] = "/data/cache/qseelog/qsee_log_00";
inline constexpr char kTzLogCopy[] = "/data/cache/qseelog/tzlog_00";
inline constexpr char kQseeLogProc[] = "/proc/tzdbg/qsee_log";
inline constexpr char kTzLogProc[] = "/proc/tzdbg/log";

// ---- log configuration and log manager ----
inline constexpr char kLogConfig[] = "/system_ext/etc/tarnsys/log_config.json";
inline constexpr char kVendorLogRoot[] = "/data/vendor/bsplog";
inline constexpr char kBspLogRoot[] = "/data/nuvilog/bsp";
inline constexpr char kReuseLogRoot[] = "/mnt/reuse/bsplog";
inline constexpr char kSdcardDir[] = "/sdcard/";
inline constexpr char kTracesDir[] = "/data/local/traces";

// ---- rescue space monitor ----
inline constexpr RescueOrCache kRescueBase{"/mnt/rescue/", "/cache/"};

// ---- boot monitor and boot failure report ----
inline constexpr RescueOrCache kUnhealthyBootLogDir{"/mnt/rescue/dorva/UnhealthyBootLog/",
                                                    "/cache/dorva/UnhealthyBootLog/"};
inline constexpr RescueOrCache kUnhealthyBootKmsg{"/mnt/rescue/dorva/UnhealthyBootLog/kmsg.txt",
                                                  "/cache/dorva/UnhealthyBootLog/kmsg.txt"};
inline constexpr RescueOrCache kUnhealthyBootPmsg{"/mnt/rescue/dorva/UnhealthyBootLog/pmsg.txt",
                                                  "/cache/dorva/UnhealthyBootLog/pmsg.txt"};
inline constexpr RescueOrCache kUnhealthyBootUefi{"/mnt/rescue/dorva/UnhealthyBootLog/uefi.txt",
                                                  "/cache/dorva/UnhealthyBootLog/uefi.txt"};
inline constexpr RescueOrCache kBootCountFile{"/mnt/rescue/boot_flag", "/cache/boot_flag"};
inline constexpr RescueOrCache kSafeModeMarker{"/mnt/rescue/recovery/last_safemode",
                                               "/cache/recovery/last_safemode"};
inline constexpr RescueOrCache kMaintenanceModeMarker{"/mnt/rescue/recovery/last_maintenance",
                                                      "/cache/recovery/last_maintenance"};
inline constexpr RescueOrCache kTrapModeMarker{"/mnt/rescue/recovery/last_trap", "/cache/recovery/last_trap"};
inline constexpr RescueOrCache kBootTimeoutRecord{"/mnt/rescue/dorva/BootmonitorRecord.txt",
                                                  "/cache/dorva/BootmonitorRecord.txt"};
inline constexpr RescueOrCache kBootmonitorTimeout{"/mnt/rescue/dorva/bootmonitorTimeout.txt",
                                                   "/cache/dorva/bootmonitorTimeout.txt"};
inline constexpr char kBlackbox[] = "/dev/block/by-name/blackbox";

// ---- crash, tombstone and OTA monitors ----
inline constexpr char kAeeExpDir[] = "/data/aee_exp";
inline constexpr char kAeeDbHistory[] = "/data/aee_exp/db_history";
inline constexpr char kProcCrashModule[] = "/proc/crash_module";
inline constexpr char kTombstoneDir[] = "/data/tombstones/";
inline constexpr char kUpdateEngineLogDir[] = "/data/misc/update_engine_log";

// ---- boot log dumper ----
inline constexpr char kBootLogDir[] = "/data/aee_exp/bootlog";
inline constexpr char kBootLogKernelLog[] = "/data/aee_exp/bootlog/kernel_log";
inline constexpr char kBootLogMainLog[] = "/data/aee_exp/bootlog/main_log";
inline constexpr char kBootLogPlLk[] = "/data/aee_exp/bootlog/pl_lk";
inline constexpr char kBootLogBootprof[] = "/data/aee_exp/bootlog/bootproof";
inline constexpr char kProcPlLk[] = "/proc/pl_lk";
inline constexpr char kProcBootprof[] = "/proc/bootprof";
// The system's own tools, run by path rather than from PATH.
inline constexpr char kSystemDmesg[] = "/system/bin/dmesg";
inline constexpr char kSystemLogcat[] = "/system/bin/logcat";
inline constexpr char kSystemTar[] = "/system/bin/tar";
inline constexpr char kSystemRm[] = "/system/bin/rm";

// ---- health tracking ----
inline constexpr char kDataMountPoint[] = "/data";
inline constexpr char kProcMounts[] = "/proc/mounts";
inline constexpr char kF2fsSysDir[] = "/sys/fs/f2fs/";
inline constexpr char kErofsSysDir[] = "/sys/fs/erofs/";
inline constexpr char kPlatformDevicesDir[] = "/sys/devices/platform/";
inline constexpr char kF2fsStatus[] = "/proc/fs/f2fs/status";
inline constexpr char kAgingMaintRecord[] = "/data/dorva/aging/maint_record";
inline constexpr char kAgingImproveRecord[] = "/data/dorva/aging/improve_record";
// Device-mapper devices name the block devices they sit on under slaves/.
inline constexpr char kSysBlockDir[] = "/sys/block/";
inline constexpr char kZelKernelDir[] = "/proc/zel_kernel/";
inline constexpr char kBinderLatInfo[] = "/proc/zel_kernel/trace_binder/lat_info";
inline constexpr char kBinderLatReset[] = "/proc/zel_kernel/trace_binder/reset";
inline constexpr char kMemLatInfo[] = "/proc/zel_kernel/trace_mem/lat_info";
inline constexpr char kMemLatReset[] = "/proc/zel_kernel/trace_mem/reset";
inline constexpr char kLockingLatInfo[] = "/proc/zel_kernel/trace_locking/wait/lat_info";
inline constexpr char kLockingLatReset[] = "/proc/zel_kernel/trace_locking/wait/reset";
inline constexpr char kSchedLatInfo[] = "/proc/zel_kernel/trace_sched/lat_info";
inline constexpr char kSchedLatReset[] = "/proc/zel_kernel/trace_sched/reset";
inline constexpr char kIowaitStatInfo[] = "/proc/zel_kernel/trace_sched/iowait";
inline constexpr char kIowaitStatReset[] = "/proc/zel_kernel/trace_sched/reset_iowait";
inline constexpr char kDstateStatInfo[] = "/proc/zel_kernel/trace_sched/dstate";
inline constexpr char kDstateStatReset[] = "/proc/zel_kernel/trace_sched/reset_dstate";

// The file-system path of a device path: below the root when one is set.
// Device paths that arrive from outside (a capture's attachments, a path in
// a property or a configuration file) go through here as well; relative
// paths and paths already below the root come back unchanged.
std::string Get(std::string_view devicePath);
// The device path of a file-system path below the root: Get's inverse, for
// a path a peer process answered with as it sees the file system, taken
// where the answer enters the daemon. Paths not below the root come back
// unchanged.
std::string DeviceOf(std::string_view path);
// Get(choice.For(abUpdate)).
std::string Get(const RescueOrCache& choice, bool abUpdate);

}  // namespace paths
}  // namespace kolto
}  // namespace velmar
