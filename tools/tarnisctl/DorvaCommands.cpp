#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <binder/IServiceManager.h>
#include <host/Host.h>
#include <nuvi/dorva/IDorvaNative.h>
#include <utils/String16.h>
#include <host/Utf8.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/JsonWriter.h"
#include "tools/tarnisctl/ProgressWatch.h"
#include "utils/Paths.h"
#include "utils/CaptureLayout.h"

// The commands of the native daemon service (IDorvaNative): captures,
// whitelisted tools, persist files, debug policy, core-dump filters, packet
// filters, Wi-Fi station statistics and the rescue wipe.
namespace tarnisctl {
namespace {

using android::String16;

using nuvi::dorva::IDorvaNative;
namespace paths = velmar::kolto::paths;

// A capture's compression alone may take 600 s on the daemon's side.
constexpr int kCaptureCallMs = 700 * 1000;
// What the daemon's runners allow a child after its time-out (SIGTERM, then SIGKILL).
constexpr int kKillGraceMs = 15 * 1000;

// With `why`, the reason goes there instead of to standard error.
android::sp<IDorvaNative> ConnectDorva(std::string* why = nullptr) {
    const std::string name = platform::ToUtf8(IDorvaNative::descriptor);
    const android::sp<android::IBinder> binder = android::defaultServiceManager()->checkService(IDorvaNative::descriptor);
    if (!binder) {
        const std::string message = "tarnisctl: service " + name + " is not running below root " +
                                    platform::GetRoot() + " (is tarnisd running?)";
        if (why != nullptr) {
            *why = message;
        } else {
            fprintf(stderr, "%s\n", message.c_str());
        }
        return nullptr;
    }
    return android::interface_cast<IDorvaNative>(binder);
}

bool ParseInt(const std::string& text, int32_t* out) { return android::base::ParseInt(text, out); }

std::vector<String16> ToUtf16(const std::vector<std::string>& list) {
    std::vector<String16> out;
    for (const std::string& s : list) out.push_back(platform::ToUtf16(s));
    return out;
}

// "--action A [--param P]" pairs; an action without a parameter has an empty one.
struct ActionList {
    std::vector<std::string> actions, params;
    // False, with the reason, when the option at args[*i] belongs here but is malformed.
    bool Take(const std::vector<std::string>& args, size_t* i, bool* taken, std::string* why) {
        const std::string& opt = args[*i];
        *taken = opt == "--action" || opt == "--param";
        if (!*taken) return true;
        if (*i + 1 >= args.size()) {
            *why = opt + " needs a value";
            return false;
        }
        const std::string& value = args[++*i];
        if (opt == "--action") {
            actions.push_back(value);
            params.emplace_back();
        } else if (actions.empty() || !params.back().empty()) {
            *why = "each --param follows its --action (one parameter string per action)";
            return false;
        } else {
            params.back() = value;
        }
        return true;
    }
};

// ---- capture ----

// The daemon names its archive after the type and headline and says nothing
// back: the tool finds it where the daemon's own placement rules put it.
int Capture(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    // -p first, as bugreportz takes it, or among the options.
    const bool first = !args.empty() && args[0] == "-p";
    if (first) args.erase(args.begin());
    if (args.size() < 2) return UsageError("capture needs TYPE and HEADLINE");
    const std::string type = args[0], headline = args[1];
    ActionList list;
    bool offline = false, useId = false, local = false, protocol = first;
    int32_t id = -1;
    std::string where;
    std::vector<std::string> files;
    for (size_t i = 2; i < args.size(); ++i) {
        bool taken = false;
        std::string why;
        if (!list.Take(args, &i, &taken, &why)) return UsageError("capture: " + why);
        if (taken) continue;
        const std::string& opt = args[i];
        const bool hasValue = i + 1 < args.size();
        if (opt == "--offline") {
            offline = true;
        } else if (opt == "-p") {
            protocol = true;
        } else if (opt == "--use-id") {
            useId = true;
        } else if (opt == "--local") {
            local = true;
        } else if (opt == "--id") {
            if (!hasValue || !ParseInt(args[i + 1], &id)) return UsageError("capture: --id needs a number");
            ++i;
        } else if (opt == "--where") {
            if (!hasValue) return UsageError("capture: --where needs a directory");
            where = args[++i];
        } else if (opt == "--file") {
            if (!hasValue) return UsageError("capture: --file needs a path");
            files.push_back(args[++i]);
        } else {
            return UsageError("capture: unknown option " + opt);
        }
    }
    if (list.actions.empty()) return UsageError("capture needs at least one --action (the daemon runs nothing otherwise)");
    if (json && protocol) return UsageError("capture: -p and --json are two ways of printing the result; choose one");
    ProgressWatch watch(ProgressWatch::Choose(protocol), json);
    std::string why;
    android::sp<IDorvaNative> service = ConnectDorva(&why);
    if (!service) return watch.Fail(why);
    RaiseDefaultTimeoutMs(kCaptureCallMs);

    struct timespec start;
    clock_gettime(CLOCK_REALTIME, &start);
    std::string refusal;
    watch.Follow([&] {
        refusal = Describe("captureLog", service->captureLog(platform::ToUtf16(type), platform::ToUtf16(headline),
                                                             ToUtf16(list.actions), ToUtf16(list.params), offline,
                                                             id, useId, platform::ToUtf16(where), ToUtf16(files),
                                                             local));
        return 0;
    });
    if (!refusal.empty()) return watch.Fail(refusal);

    namespace layout = velmar::kolto::capture_layout;
    const std::string base = layout::CaptureBase(type, where, id, local);
    const std::string dir = paths::Get(layout::CaptureDir(base, type, offline));
    const std::string best =
        layout::FindNewestArchive({dir}, layout::ArchiveMark(type, layout::SanitizeHeadline(headline)), false, start);
    if (best.empty()) {
        return watch.Fail(
            "tarnisctl: the daemon finished the capture but made no archive of it; its log says why "
            "(a refused type or directory, or no space)");
    }
    return watch.Ok(best);
}

// ---- tools ----

int RunCommand(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    int32_t timeout = 0;
    if (args.size() != 3 || !ParseInt(args[2], &timeout)) return UsageError("run-command needs ACTION PARAMS TIMEOUT_S");
    android::sp<IDorvaNative> service = ConnectDorva();
    if (!service) return 1;
    if (timeout > 0) RaiseDefaultTimeoutMs(timeout * 1000 + kKillGraceMs);
    int32_t result = 0;
    const int rc =
        Report("runCommand", service->runCommand(platform::ToUtf16(args[0]), platform::ToUtf16(args[1]), timeout, &result));
    if (rc != 0) return rc;
    if (json) return JsonWriter().BeginObject().Key("result").Int(result).EndObject().Print();
    printf("result: %d\n", result);
    return 0;
}

int RunBatch(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    int32_t timeout = 0;
    if (args.size() < 2 || !ParseInt(args[1], &timeout)) return UsageError("run-batch needs PATH TIMEOUT_S");
    ActionList list;
    for (size_t i = 2; i < args.size(); ++i) {
        bool taken = false;
        std::string why;
        if (!list.Take(args, &i, &taken, &why)) return UsageError("run-batch: " + why);
        if (!taken) return UsageError("run-batch: unknown option " + args[i]);
    }
    if (list.actions.empty()) return UsageError("run-batch needs at least one --action");
    android::sp<IDorvaNative> service = ConnectDorva();
    if (!service) return 1;
    const int perAction = (timeout > 0 ? timeout : 90) * 1000 + kKillGraceMs;
    RaiseDefaultTimeoutMs(perAction * static_cast<int>(std::min<size_t>(list.actions.size(), 100)));
    const int rc = Report("captureLogByRunCommand",
                          service->captureLogByRunCommand(ToUtf16(list.actions), ToUtf16(list.params),
                                                          platform::ToUtf16(args[0]), timeout));
    if (rc != 0) return rc;
    const std::string file = platform::DevicePath(args[0]);
    if (json) return JsonWriter().BeginObject().Key("path").String(file).EndObject().Print();
    printf("%s\n", file.c_str());
    return 0;
}

// ---- persist files ----

int Persist(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    if (args.empty()) return UsageError("persist needs create, write, read or list");
    const std::string& op = args[0];
    auto wrong = [&](const char* form) { return UsageError("usage: persist " + op + " " + form); };
    if (op == "create") {
        if (args.size() != 2) return wrong("PATH");
    } else if (op == "write") {
        if (args.size() != 3) return wrong("PATH CONTENT");
    } else if (op == "read") {
        if (args.size() != 2) return wrong("PATH");
    } else if (op == "list") {
        if (args.size() != 1) return wrong("(no arguments)");
    } else {
        return UsageError("unknown persist operation " + op);
    }
    android::sp<IDorvaNative> service = ConnectDorva();
    if (!service) return 1;
    if (op == "create") {
        int32_t result = 0;
        const int rc = Report("createFileInPersist", service->createFileInPersist(platform::ToUtf16(args[1]), &result));
        if (rc != 0) return rc;
        if (json) {
            return JsonWriter().BeginObject().Key("path").String(args[1]).Key("result").Int(result).EndObject().Print();
        }
        printf("result: %d\n", result);
        return 0;
    }
    if (op == "write") return Report("writeToPersistFile", service->writeToPersistFile(platform::ToUtf16(args[1]), platform::ToUtf16(args[2])));
    String16 text;
    const int rc = op == "read" ? Report("readFile", service->readFile(platform::ToUtf16(args[1]), &text))
                                : Report("getFilesFromPersist", service->getFilesFromPersist(&text));
    if (rc != 0) return rc;
    const std::string text8 = platform::ToUtf8(text);
    if (json) {
        JsonWriter out;
        out.BeginObject();
        if (op == "read") {
            out.Key("path").String(args[1]).Key("text").String(text8);
        } else {
            out.Key("files").BeginArray();
            if (!text8.empty()) {
                for (const std::string& path : android::base::Split(text8, ",")) out.String(path);
            }
            out.EndArray();
        }
        return out.EndObject().Print();
    }
    if (op == "read") {
        fwrite(text8.data(), 1, text8.size(), stdout);
    } else {
        // One path per line reads better than the wire's commas.
        std::string lines = text8;
        for (char& c : lines) c = c == ',' ? '\n' : c;
        if (!lines.empty()) printf("%s\n", lines.c_str());
    }
    return 0;
}

// ---- device helpers ----

int CoreFilter(const std::vector<std::string>& args) {
    int32_t pid = 0;
    if (args.size() != 2 || !ParseInt(args[0], &pid) || (args[1] != "on" && args[1] != "off")) {
        return UsageError("core-filter needs PID and on|off");
    }
    android::sp<IDorvaNative> service = ConnectDorva();
    return service ? Report("setCoreFilter", service->setCoreFilter(pid, args[1] == "on")) : 1;
}

int DebugPolicy(const std::vector<std::string>& args) {
    int32_t mode = 0;
    if (args.size() != 1 || !ParseInt(args[0], &mode)) return UsageError("debug-policy needs MODE (1: unsigned images)");
    android::sp<IDorvaNative> service = ConnectDorva();
    return service ? Report("flashDebugPolicy", service->flashDebugPolicy(mode)) : 1;
}

int StationInfo(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    if (args.size() != 2) return UsageError("station-info needs IFNAME and PEER_MAC");
    android::sp<IDorvaNative> service = ConnectDorva();
    if (!service) return 1;
    nuvi::dorva::StationInfo info;
    const int rc = Report("getStationInfo", service->getStationInfo(platform::ToUtf16(args[0]), platform::ToUtf16(args[1]), &info));
    if (rc != 0) return rc;
    if (json) {
        JsonWriter out;
        out.BeginObject().Key("interface").String(args[0]).Key("peer").String(args[1]);
        out.Key("signal").Int(info.signal).Key("chain_signal_avg").BeginArray();
        for (int32_t chain : {info.chainSignalAvg0, info.chainSignalAvg1, info.chainSignalAvg2, info.chainSignalAvg3}) {
            out.Int(chain);
        }
        out.EndArray();
        const std::pair<const char*, int32_t> rates[] = {
            {"tx_mcs", info.txMcs}, {"tx_vht_mcs", info.txVhtMcs}, {"tx_he_mcs", info.txHeMcs},
            {"tx_eht_mcs", info.txEhtMcs}, {"rx_mcs", info.rxMcs}, {"rx_vht_mcs", info.rxVhtMcs},
            {"rx_he_mcs", info.rxHeMcs}, {"rx_eht_mcs", info.rxEhtMcs}};
        for (const auto& [name, value] : rates) out.Key(name).Int(value);
        return out.EndObject().Print();
    }
    printf("signal: %d\nchain_signal_avg: %d %d %d %d\n", info.signal, info.chainSignalAvg0, info.chainSignalAvg1,
           info.chainSignalAvg2, info.chainSignalAvg3);
    printf("tx_mcs: %d\ntx_vht_mcs: %d\ntx_he_mcs: %d\ntx_eht_mcs: %d\n", info.txMcs, info.txVhtMcs, info.txHeMcs,
           info.txEhtMcs);
    printf("rx_mcs: %d\nrx_vht_mcs: %d\nrx_he_mcs: %d\nrx_eht_mcs: %d\n", info.rxMcs, info.rxVhtMcs, info.rxHeMcs,
           info.rxEhtMcs);
    return 0;
}

int WipeRescue(const std::vector<std::string>& args) {
    if (!args.empty()) return UsageError("wipe-rescue takes no arguments");
    android::sp<IDorvaNative> service = ConnectDorva();
    return service ? Report("FactoryResetWipeRescuePartition", service->FactoryResetWipeRescuePartition()) : 1;
}

// ---- packet filter ----

// An IPv4 address as the filter reads it from a packet: 10.0.0.1 is 0x0A000001.
bool ParseAddress(const std::string& text, int32_t* out) {
    struct in_addr addr;
    if (inet_pton(AF_INET, text.c_str(), &addr) != 1) return false;
    *out = static_cast<int32_t>(ntohl(addr.s_addr));
    return true;
}

// "hex:0a0b..." for bytes, anything else as its own text.
bool ParsePayload(const std::string& text, std::vector<uint8_t>* out) {
    if (text.compare(0, 4, "hex:") != 0) {
        out->assign(text.begin(), text.end());
        return true;
    }
    const std::string hex = text.substr(4);
    if (hex.size() % 2 != 0) return false;
    for (size_t i = 0; i < hex.size(); i += 2) {
        if (!isxdigit(static_cast<unsigned char>(hex[i])) || !isxdigit(static_cast<unsigned char>(hex[i + 1]))) {
            return false;
        }
        out->push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return true;
}

std::string Hex(const uint8_t* data, size_t size) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        hex.push_back(kHex[data[i] >> 4]);
        hex.push_back(kHex[data[i] & 0xF]);
    }
    return hex;
}

void PrintPacket(int index, const uint8_t* data, size_t size) {
    printf("packet %d: %zu bytes\n", index, size);
    for (size_t i = 0; i < size; i += 16) {
        printf("  %04zx ", i);
        for (size_t j = i; j < i + 16 && j < size; ++j) printf(" %02x", data[j]);
        printf("\n");
    }
    fflush(stdout);
}

int SockFilter(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    if (args.empty()) return UsageError("sock-filter needs IFNAME");
    const std::string ifname = args[0];
    std::string srcMac, dstMac;
    int32_t srcAddr = 0, dstAddr = 0, protocol = 0, srcPort = 0, dstPort = 0, extra = 0, count = 1, waitS = 30;
    std::vector<uint8_t> payload;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& opt = args[i];
        if (i + 1 >= args.size()) return UsageError("sock-filter: " + opt + " needs a value (or is unknown)");
        const std::string& v = args[++i];
        bool ok = true;
        if (opt == "--src-mac") {
            srcMac = v;
        } else if (opt == "--dst-mac") {
            dstMac = v;
        } else if (opt == "--src-ip") {
            ok = ParseAddress(v, &srcAddr);
        } else if (opt == "--dst-ip") {
            ok = ParseAddress(v, &dstAddr);
        } else if (opt == "--protocol") {
            ok = ParseInt(v, &protocol);
        } else if (opt == "--src-port") {
            ok = ParseInt(v, &srcPort);
        } else if (opt == "--dst-port") {
            ok = ParseInt(v, &dstPort);
        } else if (opt == "--payload") {
            ok = ParsePayload(v, &payload);
        } else if (opt == "--extra") {
            ok = ParseInt(v, &extra);
        } else if (opt == "--count") {
            ok = ParseInt(v, &count) && count > 0;
        } else if (opt == "--wait") {
            ok = ParseInt(v, &waitS) && waitS > 0;
        } else {
            return UsageError("sock-filter: unknown option " + opt);
        }
        if (!ok) return UsageError("sock-filter: bad value '" + v + "' for " + opt);
    }
    android::sp<IDorvaNative> service = ConnectDorva();
    if (!service) return 1;
    std::unique_ptr<android::os::ParcelFileDescriptor> socket;
    const int rc = Report("attachSockFilter",
                          service->attachSockFilter(platform::ToUtf16(srcMac), platform::ToUtf16(dstMac), srcAddr, dstAddr,
                                                    protocol, srcPort, dstPort, payload, extra, platform::ToUtf16(ifname),
                                                    &socket));
    if (rc != 0) return rc;
    if (!socket) {
        fprintf(stderr, "tarnisctl: the daemon could not attach the filter on %s (raw sockets need privileges; see its log)\n",
                ifname.c_str());
        return 1;
    }
    std::vector<uint8_t> buffer(65536);
    // Packets as they come in the text form; the JSON form is one document,
    // printed when the last one is in.
    JsonWriter out;
    out.BeginObject().Key("interface").String(ifname).Key("packets").BeginArray();
    for (int seen = 0; seen < count;) {
        struct pollfd pfd = {socket->get(), POLLIN, 0};
        const int n = poll(&pfd, 1, waitS * 1000);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fprintf(stderr, "tarnisctl: %d of %d packets within %d s; giving up\n", seen, count, waitS);
            return 1;
        }
        const ssize_t got = TEMP_FAILURE_RETRY(recv(socket->get(), buffer.data(), buffer.size(), 0));
        if (got < 0) {
            perror("tarnisctl: reading the filtered socket");
            return 1;
        }
        ++seen;
        if (json) {
            out.BeginObject().Key("size").Int(got).Key("hex").String(Hex(buffer.data(), static_cast<size_t>(got)));
            out.EndObject();
        } else {
            PrintPacket(seen, buffer.data(), static_cast<size_t>(got));
        }
    }
    return json ? out.EndArray().EndObject().Print() : 0;
}

CtlCommandRegister gCapture({"capture",
                             "[--json] TYPE HEADLINE [--action A --param P]... [--offline] [--id N [--use-id]] "
                             "[--where DIR] "
                             "[--file PATH]... [--local] [-p]",
                             "order a capture (IDorvaNative.captureLog); prints the archive it produced. -p: "
                             "BEGIN:<archive>, PROGRESS:<done>/<total> as sections finish, then OK:<archive> or "
                             "FAIL:<why>",
                             Capture});
CtlCommandRegister gRunCommand({"run-command", "[--json] ACTION PARAMS TIMEOUT_S",
                                "run one whitelisted tool (PARAMS comma-separated); prints \"result: N\"", RunCommand});
CtlCommandRegister gRunBatch({"run-batch", "[--json] PATH TIMEOUT_S --action A --param P ...",
                              "run whitelisted tools into the file PATH (captureLogByRunCommand)", RunBatch});
CtlCommandRegister gPersist({"persist", "[--json] create|write|read|list [PATH [CONTENT]]",
                             "create, write, read or list files of the persist partition", Persist});
CtlCommandRegister gCoreFilter({"core-filter", "PID on|off", "set a process's core-dump filter (0x39 on, 0x35 off)",
                                CoreFilter});
CtlCommandRegister gDebugPolicy({"debug-policy", "MODE",
                                 "flash the debug-policy images (1: apdp/msadp, else the signed ones)", DebugPolicy});
CtlCommandRegister gStationInfo({"station-info", "[--json] IFNAME PEER_MAC",
                                 "print a Wi-Fi station's statistics (nl80211)", StationInfo});
CtlCommandRegister gWipeRescue({"wipe-rescue", "", "wipe the rescue partition as a factory reset does", WipeRescue});
CtlCommandRegister gSockFilter({"sock-filter",
                                "[--json] IFNAME [--src-mac M] [--dst-mac M] [--src-ip A] [--dst-ip A] [--protocol N] "
                                "[--src-port N] [--dst-port N] [--payload TEXT|hex:HEX] [--extra N] [--count N] "
                                "[--wait S]",
                                "attach a packet filter and print the first N packets it passes (default 1, "
                                "waiting at most S seconds, default 30)",
                                SockFilter});

}  // namespace
}  // namespace tarnisctl
