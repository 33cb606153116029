// tarnis-blackbox: shows what a black-box partition image holds and decrypts
// its crash databases with the operator's private key.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <json/json.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "tarnis_generated/TarnisVersion.h"
#include "tools/tarnis-blackbox/BlackBoxImage.h"
#include "utils/BlackBoxPartition.h"

namespace {

using android::base::unique_fd;
using namespace tarnis_blackbox;

constexpr unsigned char kIv[16] = {'k', '3', 'v', 'T', 'q', '9', 'Z', 'p', 'L', 'w', '2', 'x', 'R', '8', 'n', 'B'};
constexpr size_t kChunk = 1 << 20;

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: tarnis-blackbox [--json] IMAGE\n"
            "       tarnis-blackbox [--json] IMAGE extract --key PRIVATE.pem --out DIR\n\n"
            "Shows the black-box partition image IMAGE: its log table header, the firmware\n"
            "crash databases in their three slots, the crash history (newest first), the\n"
            "boot-monitor header and the OTA records. \"extract\" decrypts every listed\n"
            "database with the RSA private key into DIR, named after its slot.\n\n"
            "  --json    one JSON document on standard output instead of text\n"
            "  --help    this text\n"
            "  --version the version and the revision it was built from\n\n"
            "Exit status: 0 done, 1 damaged image or failed extraction, 2 usage error.\n");
}

int UsageError(const std::string& message) {
    fprintf(stderr, "tarnis-blackbox: %s\n", message.c_str());
    PrintUsage(stderr);
    return 2;
}

std::string Hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

// The log table, the firmware-database slots and the crash history: the
// areas the crash monitor lays down with its log table.
void AddCrashMonitorAreas(const Image& image, Json::Value* out) {
    Json::Value& root = *out;
    Json::Value table;
    table["version_code"] = image.table.versionCode;
    table["history_item_value"] = image.table.historyItemValue;
    table["crash_history_base"] = Json::UInt64(image.historyBase);
    Json::Value zones(Json::arrayValue);
    for (uint32_t zone : image.table.zones) zones.append(zone);
    table["zones"] = zones;
    root["log_table"] = table;

    Json::Value fw;
    fw["initialised"] = image.fwInitialised;
    if (image.fwInitialised) {
        fw["index"] = image.fwIndex;
        fw["filled"] = image.fwFilled;
        fw["next_position"] = image.fwNextPosition;
        Json::Value slots(Json::arrayValue);
        for (const FwSlot& slot : image.slots) {
            Json::Value s;
            s["slot"] = slot.index;
            s["listed"] = slot.listed;
            if (slot.listed) {
                s["name"] = slot.name;
                s["position"] = Json::UInt64(slot.position);
                s["padded_size"] = Json::UInt64(slot.padded);
                s["plain_size"] = Json::UInt64(slot.plain);
            }
            slots.append(s);
        }
        fw["slots"] = slots;
    }
    root["firmware_databases"] = fw;

    Json::Value history;
    history["initialised"] = image.historyInitialised;
    if (image.historyInitialised) {
        history["version"] = image.historyVersion;
        history["current_num"] = image.historyCurrent;
        history["next_position"] = image.historyNext;
        Json::Value mainCounts(Json::objectValue), typeCounts(Json::objectValue);
        for (const auto& [type, count] : image.mainTypeCounts) mainCounts[std::to_string(type)] = count;
        for (const auto& [type, count] : image.typeCounts) typeCounts[std::to_string(type)] = count;
        history["main_type_counts"] = mainCounts;
        history["type_counts"] = typeCounts;
        Json::Value items(Json::arrayValue);
        for (const HistoryItem& item : image.items) {
            Json::Value i;
            i["slot"] = item.slot;
            i["main_type"] = item.mainType;
            i["type"] = item.type;
            i["text"] = item.text;
            items.append(i);
        }
        history["items"] = items;
    }
    root["crash_history"] = history;
}

Json::Value ToJson(const Image& image) {
    Json::Value root;
    root["size"] = Json::UInt64(image.size);
    root["version"] = image.version;
    root["initialised"] = image.initialised;
    if (image.initialised) AddCrashMonitorAreas(image, &root);

    if (image.bootPresent) {
        Json::Value boot;
        boot["failure_recorded"] = image.bootFailure;
        boot["boot_index"] = image.bootIndex;
        boot["current_error"] = Json::Int64(image.bootError);
        boot["reported"] = image.bootReported;
        boot["text"] = image.bootText;
        root["boot_monitor"] = boot;
    }
    if (image.otaApplies) {
        Json::Value ota;
        ota["initialised"] = image.otaInitialised;
        if (image.otaInitialised) {
            ota["version_code"] = image.otaVersionCode;
            ota["next_index"] = image.otaNextIndex;
            ota["update_count"] = image.otaCount;
            Json::Value records(Json::arrayValue);
            for (const OtaRecord& record : image.ota) {
                Json::Value r;
                r["index"] = record.index;
                r["is_debuggable"] = record.debuggable;
                r["package_name"] = record.packageName;
                r["src_build"] = record.srcBuild;
                r["tgt_build"] = record.tgtBuild;
                r["src_slot"] = record.srcSlot;
                r["tgt_slot"] = record.tgtSlot;
                r["start_time"] = record.startTime;
                r["end_time"] = record.endTime;
                r["merged_time"] = record.mergedTime;
                records.append(r);
            }
            ota["records"] = records;
        }
        root["ota"] = ota;
    }
    return root;
}

void PrintCrashMonitorAreas(const Image& image);
void PrintBootAndOta(const Image& image);

void PrintText(const std::string& path, const Image& image) {
    printf("image: %s (%" PRIu64 " bytes, partition version %d)\n", path.c_str(), image.size, image.version);
    if (!image.initialised) {
        printf("not initialised: no log table header yet\n");
    } else {
        PrintCrashMonitorAreas(image);
    }
    PrintBootAndOta(image);
}

void PrintCrashMonitorAreas(const Image& image) {
    const bb::LogTableHeader& t = image.table;
    printf("log table header: version code %s, history item value %u, crash history at %s, zones %s %s %s\n",
           Hex(t.versionCode).c_str(), static_cast<unsigned>(t.historyItemValue), Hex(image.historyBase).c_str(),
           Hex(t.zones[0]).c_str(), Hex(t.zones[1]).c_str(), Hex(t.zones[2]).c_str());
    if (!image.fwInitialised) {
        printf("firmware databases: not initialised\n");
    } else {
        printf("firmware databases: index %u, filled %u, next position %s\n", image.fwIndex, image.fwFilled,
               Hex(image.fwNextPosition).c_str());
        for (const FwSlot& slot : image.slots) {
            if (!slot.listed) {
                printf("  slot %d: empty\n", slot.index);
                continue;
            }
            printf("  slot %d: %s at %s, %" PRIu64 " bytes (%" PRIu64 " encrypted)\n", slot.index, slot.name.c_str(),
                   Hex(slot.position).c_str(), slot.plain, slot.padded);
        }
    }
    if (!image.historyInitialised) {
        printf("crash history: not initialised\n");
    } else {
        printf("crash history: version %s, %u written, next position %u\n", Hex(image.historyVersion).c_str(),
               image.historyCurrent, image.historyNext);
        std::string counts;
        for (const auto& [type, count] : image.mainTypeCounts) {
            counts += " " + std::to_string(type) + ":" + std::to_string(count);
        }
        printf("  main type counts:%s\n", counts.empty() ? " none" : counts.c_str());
        counts.clear();
        for (const auto& [type, count] : image.typeCounts) {
            counts += " " + std::to_string(type) + ":" + std::to_string(count);
        }
        printf("  type counts:%s\n", counts.empty() ? " none" : counts.c_str());
        for (const HistoryItem& item : image.items) {
            std::string text = item.text;
            while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
            printf("  [slot %u] main type %u, type %u: %s\n", item.slot, item.mainType, item.type, text.c_str());
        }
    }
}

void PrintBootAndOta(const Image& image) {
    if (image.bootPresent) {
        if (image.bootFailure) {
            printf("boot monitor: failure %" PRId64 " in boot %d, %s\n", image.bootError, image.bootIndex,
                   image.bootReported ? "reported" : "not reported");
        } else {
            printf("boot monitor: no failure recorded\n");
        }
    }
    if (image.otaApplies) {
        if (!image.otaInitialised) {
            printf("OTA records: not initialised\n");
        } else {
            printf("OTA records: %u of 10, next index %u\n", image.otaCount, image.otaNextIndex);
            for (const OtaRecord& r : image.ota) {
                printf("  record %d: %s, %s (%s) -> %s (%s), debuggable %d, start %s, end %s, merged %s\n", r.index,
                       r.packageName.c_str(), r.srcBuild.c_str(), r.srcSlot.c_str(), r.tgtBuild.c_str(),
                       r.tgtSlot.c_str(), r.debuggable, r.startTime.c_str(), r.endTime.c_str(),
                       r.mergedTime.c_str());
            }
        }
    }
}

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

std::unique_ptr<EVP_PKEY, PkeyFree> LoadPrivateKey(const std::string& path, std::string* error) {
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        *error = "cannot open the key " + path + ": " + strerror(errno);
        return nullptr;
    }
    std::unique_ptr<EVP_PKEY, PkeyFree> key(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr));
    fclose(file);
    if (!key) *error = path + " holds no PEM private key";
    return key;
}

// Decrypts one slot's container from the image into `outFd`.
bool DecryptSlot(const bb::Partition& image, const FwSlot& slot, EVP_PKEY* key, int outFd, std::string* error) {
    unsigned char wrapped[bb::kWrappedKeyBytes];
    if (!image.ReadAt(slot.position + 2 * bb::kContainerSizeField + slot.padded, wrapped, sizeof(wrapped))) {
        *error = "cannot read the wrapped key";
        return false;
    }
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> pctx(EVP_PKEY_CTX_new(key, nullptr));
    unsigned char aesKey[512];
    size_t keyLen = sizeof(aesKey);
    if (!pctx || EVP_PKEY_decrypt_init(pctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(pctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_decrypt(pctx.get(), aesKey, &keyLen, wrapped, sizeof(wrapped)) != 1 || keyLen != 32) {
        ERR_clear_error();
        *error = "the key does not unwrap with this private key";
        return false;
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
    const bool init = ctx && EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, aesKey, kIv) == 1 &&
                      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) == 1;
    OPENSSL_cleanse(aesKey, sizeof(aesKey));
    if (!init) {
        *error = "cannot set up AES-256-CBC";
        return false;
    }
    std::vector<unsigned char> in(kChunk), out(kChunk + 16);
    uint64_t done = 0;
    uint64_t plainLeft = slot.plain;
    const uint64_t dataStart = slot.position + 2 * bb::kContainerSizeField;
    while (done < slot.padded) {
        const size_t len = static_cast<size_t>(std::min<uint64_t>(kChunk, slot.padded - done));
        int outLen = 0;
        if (!image.ReadAt(dataStart + done, in.data(), len) ||
            EVP_DecryptUpdate(ctx.get(), out.data(), &outLen, in.data(), static_cast<int>(len)) != 1) {
            *error = "cannot read or decrypt the container";
            return false;
        }
        done += len;
        const size_t keep = static_cast<size_t>(std::min<uint64_t>(plainLeft, static_cast<uint64_t>(outLen)));
        if (!android::base::WriteFully(outFd, out.data(), keep)) {
            *error = std::string("cannot write the database: ") + strerror(errno);
            return false;
        }
        plainLeft -= keep;
    }
    return true;
}

int Extract(const std::string& imagePath, const bb::Partition& partition, const Image& image, const std::string& keyPath,
            const std::string& outDir, bool json) {
    std::string error;
    auto key = LoadPrivateKey(keyPath, &error);
    if (!key) {
        fprintf(stderr, "tarnis-blackbox: %s\n", error.c_str());
        return 1;
    }
    unique_fd dir(open(outDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        fprintf(stderr, "tarnis-blackbox: cannot open the output directory %s: %s\n", outDir.c_str(),
                strerror(errno));
        return 1;
    }
    Json::Value results(Json::arrayValue);
    int status = 0;
    int listed = 0;
    for (const FwSlot& slot : image.slots) {
        if (!slot.listed) continue;
        ++listed;
        Json::Value result;
        result["slot"] = slot.index;
        result["name"] = slot.name;
        std::string why;
        bool ok = false;
        if (!IsSafeFileName(slot.name)) {
            why = "the slot's name is not a plain file name";
        } else {
            // Written under a fresh name of its own and renamed into place
            // once complete: nothing at either name is followed or half-written.
            const std::string temp = "." + slot.name + ".tmp" + std::to_string(getpid());
            unique_fd out(openat(dir.get(), temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!out.ok()) {
                why = std::string("cannot create ") + temp + ": " + strerror(errno);
            } else if (!DecryptSlot(partition, slot, key.get(), out.get(), &why) || fsync(out.get()) != 0 ||
                       renameat(dir.get(), temp.c_str(), dir.get(), slot.name.c_str()) != 0) {
                if (why.empty()) why = std::string("cannot put the database in place: ") + strerror(errno);
                unlinkat(dir.get(), temp.c_str(), 0);
            } else {
                ok = true;
            }
        }
        result["ok"] = ok;
        if (ok) {
            result["path"] = outDir + "/" + slot.name;
            result["bytes"] = Json::UInt64(slot.plain);
            if (!json) {
                printf("slot %d: %s -> %s/%s (%" PRIu64 " bytes)\n", slot.index, slot.name.c_str(), outDir.c_str(),
                       slot.name.c_str(), slot.plain);
            }
        } else {
            status = 1;
            result["error"] = why;
            fprintf(stderr, "tarnis-blackbox: %s: slot %d (%s): %s\n", imagePath.c_str(), slot.index,
                    slot.name.c_str(), why.c_str());
        }
        results.append(result);
    }
    if (json) {
        Json::Value root;
        root["extracted"] = results;
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        printf("%s\n", Json::writeString(builder, root).c_str());
    } else if (listed == 0) {
        printf("no crash database in %s\n", imagePath.c_str());
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    bool extract = false;
    std::string image, key, out;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            return 0;
        } else if (arg == "--version") {
            printf("tarnis-blackbox %s (%s)\n", TARNIS_VERSION, TARNIS_REVISION);
            return 0;
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--key" || arg == "--out") {
            if (i + 1 >= argc) return UsageError(arg + " needs a value");
            (arg == "--key" ? key : out) = argv[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return UsageError("unknown option " + arg);
        } else if (image.empty()) {
            image = arg;
        } else if (arg == "extract" && !extract) {
            extract = true;
        } else {
            return UsageError("unexpected argument " + arg);
        }
    }
    if (image.empty()) return UsageError("no image given");
    if (!extract && (!key.empty() || !out.empty())) return UsageError("--key and --out belong to extract");
    if (extract && (key.empty() || out.empty())) return UsageError("extract needs --key and --out");

    const bb::Partition partition = bb::Partition::OpenImage(image, O_RDONLY | O_NONBLOCK);  // a FIFO must not block
    if (!partition.ok()) {
        fprintf(stderr, "tarnis-blackbox: cannot open %s: %s\n", image.c_str(), strerror(errno));
        return 1;
    }
    uint64_t size = 0;
    if (!partition.Size(&size)) {
        fprintf(stderr, "tarnis-blackbox: %s is neither a file nor a block device\n", image.c_str());
        return 1;
    }
    Image parsed;
    std::string error;
    ReadFn read = [&partition](uint64_t offset, void* buf, size_t len) { return partition.ReadAt(offset, buf, len); };
    if (!ParseImage(read, size, &parsed, &error)) {
        fprintf(stderr, "tarnis-blackbox: %s: damaged image: %s\n", image.c_str(), error.c_str());
        return 1;
    }
    if (extract) return Extract(image, partition, parsed, key, out, json);
    if (json) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        printf("%s\n", Json::writeString(builder, ToJson(parsed)).c_str());
    } else {
        PrintText(image, parsed);
    }
    return 0;
}
