#define LOG_TAG "Tarnis-KernelStatsTrack"

#include "modules/KernelTrack/KernelStatsTrack.h"

#include <log/log.h>

#include "modules/KernelTrack/KernelTrackUtils.h"
#include "utils/Paths.h"

namespace velmar {
namespace kolto {
namespace KernelTrack {

namespace {

const std::vector<std::string> kClasses = {"vip", "rt", "oth"};
const std::vector<std::string> kLatencySuffixes = {"min_cnt", "l_cnt", "m_cnt", "h_cnt",
                                                   "f_cnt",   "avg_ms", "avg_us", "max_ms"};
const std::vector<std::string> kWaitSuffixes = {"min_cnt", "l_cnt", "h_cnt", "f_cnt", "avg_ms", "avg_us", "max_ms"};

std::vector<std::string> BinderFields() {
    std::vector<std::string> fields;
    for (const auto& cls : kClasses) {
        for (const auto& suffix : kLatencySuffixes) fields.push_back(cls + "_binder_" + suffix);
    }
    for (const char* extra : {"reserved1", "reserved2", "reserved3", "reserved4"}) fields.push_back(extra);
    return fields;
}

std::vector<std::string> MemFields() {
    std::vector<std::string> fields;
    for (const auto& cls : kClasses) {
        for (const char* kind : {"cma_alloc_lat", "direct_reclaim_lat", "slowpath_alloc_lat"}) {
            for (const auto& suffix : kLatencySuffixes) fields.push_back(cls + "_" + kind + "_" + suffix);
        }
    }
    for (const char* extra : {"kswapd_cnt", "kcompactd_cnt", "direct_reclaim_cnt", "slowpath_cnt", "page_alloc_cnt"}) {
        fields.push_back(extra);
    }
    return fields;
}

std::vector<std::string> LockingFields() {
    std::vector<std::string> fields;
    for (const auto& cls : kClasses) {
        for (const char* kind : {"mutex_wait", "rwsem_read_wait", "rwsem_write_wait", "futex_art_wait"}) {
            for (const auto& suffix : kWaitSuffixes) fields.push_back(cls + "_" + kind + "_" + suffix);
        }
    }
    return fields;
}

std::vector<std::string> SchedFields() {
    std::vector<std::string> fields;
    for (const char* prefix : {"vip", "rt", "ss", "oth"}) {
        for (const auto& suffix : kLatencySuffixes) fields.push_back(std::string(prefix) + "_lat_" + suffix);
    }
    for (const char* extra : {"irqoff_latency_cnt", "max_runtime_ms", "runable_preempt_cnt", "vip_preempt_cnt",
                              "normal_preempt_cnt", "rt_preempt_cnt"}) {
        fields.push_back(extra);
    }
    return fields;
}

// The iowait and dstate tables share their shape under their own prefix.
std::vector<std::string> WaitStatFields(const std::string& prefix) {
    std::vector<std::string> fields;
    for (const char* name : {"delta_ms", "max_ms", "min_thresh_ms", "low_thresh_ms", "high_thresh_ms", "total_cnt",
                             "total_ms", "min_cnt", "low_cnt", "high_cnt"}) {
        fields.push_back(prefix + "_" + name);
    }
    for (const char* group : {"fg", "rt", "ux", "top_app", "bg", "sys_bg"}) {
        for (const char* stat : {"max_ms", "high_cnt", "low_cnt", "min_cnt", "total_ms", "total_cnt"}) {
            fields.push_back(prefix + "_" + group + "_" + stat);
        }
    }
    return fields;
}

}  // namespace

const std::vector<KernelStatsTable>& KernelStatsTrack::tables() {
    static const std::vector<KernelStatsTable> kTables = {
            {"binder_lat_info", paths::kBinderLatInfo, paths::kBinderLatReset, BinderFields()},
            {"mem_lat_info", paths::kMemLatInfo, paths::kMemLatReset, MemFields()},
            {"locking_lat_info", paths::kLockingLatInfo, paths::kLockingLatReset, LockingFields()},
            {"sched_lat_info", paths::kSchedLatInfo, paths::kSchedLatReset, SchedFields()},
            {"iowait_stat_info", paths::kIowaitStatInfo, paths::kIowaitStatReset, WaitStatFields("iowait")},
            {"dstate_stat_info", paths::kDstateStatInfo, paths::kDstateStatReset, WaitStatFields("dstate")},
    };
    return kTables;
}

void KernelStatsTrack::kernelStatsReport(bool resetCounters) {
    for (const KernelStatsTable& table : tables()) {
        if (!KernelTrackUtils::reportKernelStatsEvent(paths::Get(table.statsFile), table.eventName, table.fields) ||
            !resetCounters) {
            continue;
        }
        if (!KernelTrackUtils::clearKernelNode(paths::Get(table.resetNode))) {
            ALOGE("[%s] clear %s node failed", __func__, table.eventName.c_str());
        }
    }
}

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
