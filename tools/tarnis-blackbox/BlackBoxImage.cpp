#include "tools/tarnis-blackbox/BlackBoxImage.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace tarnis_blackbox {
namespace {

std::string Hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

template <class T>
bool AllZero(const T& record) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    for (size_t i = 0; i < sizeof(T); ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

// A NUL-terminated text within its field; false when the field has no NUL.
bool FieldText(const char* field, size_t size, std::string* out) {
    const void* end = memchr(field, '\0', size);
    if (end == nullptr) return false;
    out->assign(field, static_cast<const char*>(end) - field);
    return true;
}

bool Fail(std::string* error, const std::string& message) {
    *error = message;
    return false;
}

// Reads a record that the image must hold in full.
template <class Record>
bool ReadRecord(const ReadFn& read, uint64_t size, uint64_t offset, Record* out, const char* what,
                std::string* error) {
    if (offset > size || size - offset < sizeof(Record)) {
        return Fail(error, std::string("image is truncated: the ") + what + " at " + Hex(offset) +
                                   " does not fit in its " + std::to_string(size) + " bytes");
    }
    if (!read(offset, out, sizeof(Record))) {
        return Fail(error, std::string("cannot read the ") + what + " at " + Hex(offset));
    }
    return true;
}

bool ParseFw(const ReadFn& read, Image* image, std::string* error) {
    bb::FwMinidumpHeader fw;
    if (!ReadRecord(read, image->size, bb::kFwMinidumpHeaderOffset, &fw, "firmware-database header", error)) {
        return false;
    }
    if (AllZero(fw)) return true;
    if (fw.magic != bb::kFwMinidumpMagic) {
        return Fail(error, "firmware-database header: wrong magic " + Hex(fw.magic));
    }
    image->fwInitialised = true;
    image->fwIndex = fw.index;
    image->fwFilled = fw.filled;
    image->fwNextPosition = fw.nextPosition;
    if (fw.index >= bb::kFwSlots) return Fail(error, "firmware-database header: slot index " +
                                                             std::to_string(fw.index) + " is not 0 to 2");
    if (fw.filled > bb::kFwSlots) return Fail(error, "firmware-database header: filled-slot count " +
                                                              std::to_string(fw.filled) + " is not 0 to 3");
    if (fw.nextPosition < bb::kFwAreaStart || fw.nextPosition > bb::kFwAreaEnd) {
        return Fail(error, "firmware-database header: next position " + Hex(fw.nextPosition) +
                                   " lies outside the area " + Hex(bb::kFwAreaStart) + ".." + Hex(bb::kFwAreaEnd));
    }
    for (int i = 0; i < bb::kFwSlots; ++i) {
        FwSlot slot;
        slot.index = i;
        const std::string what = "firmware-database slot " + std::to_string(i);
        if (!FieldText(fw.name[i], bb::kFwNameBytes, &slot.name)) {
            return Fail(error, what + ": the database name is not terminated");
        }
        slot.position = fw.position[i];
        slot.padded = fw.size[i];
        slot.listed = slot.position != 0;
        if (slot.listed) {
            if (slot.position < bb::kFwAreaStart || slot.position >= bb::kFwAreaEnd ||
                slot.padded > bb::kFwAreaEnd - slot.position ||
                slot.position + slot.padded + bb::kContainerOverhead > bb::kFwAreaEnd) {
                return Fail(error, what + ": container at " + Hex(slot.position) + " of " +
                                           std::to_string(slot.padded) + " bytes lies outside the area " +
                                           Hex(bb::kFwAreaStart) + ".." + Hex(bb::kFwAreaEnd));
            }
            if (slot.position + slot.padded + bb::kContainerOverhead > image->size) {
                return Fail(error, "image is truncated: " + what + " ends beyond its " +
                                           std::to_string(image->size) + " bytes");
            }
            if (slot.padded % 16 != 0) {
                return Fail(error, what + ": size " + std::to_string(slot.padded) + " is not a multiple of 16");
            }
            unsigned char fields[2 * bb::kContainerSizeField];
            if (!read(slot.position, fields, sizeof(fields))) {
                return Fail(error, what + ": cannot read the container");
            }
            std::string why;
            if (!ParseContainerSizes(fields, slot.padded, &slot.plain, &why)) {
                return Fail(error, what + ": container at " + Hex(slot.position) + ": " + why);
            }
        }
        image->slots.push_back(slot);
    }
    for (int i = 0; i < bb::kFwSlots; ++i) {
        for (int j = i + 1; j < bb::kFwSlots; ++j) {
            const FwSlot& a = image->slots[i];
            const FwSlot& b = image->slots[j];
            if (!a.listed || !b.listed) continue;
            if (a.position < b.position + b.padded + bb::kContainerOverhead &&
                b.position < a.position + a.padded + bb::kContainerOverhead) {
                return Fail(error, "firmware-database slots " + std::to_string(i) + " and " + std::to_string(j) +
                                           " overlap");
            }
        }
    }
    return true;
}

bool ParseHistory(const ReadFn& read, Image* image, std::string* error) {
    const uint64_t base = image->historyBase;
    if (base < bb::kFwAreaEnd) {
        return Fail(error, "log table header: crash history base " + Hex(base) +
                                   " lies inside the firmware-database area");
    }
    if (bb::CrashHistoryEnd(base) > image->size) {
        return Fail(error, "image is truncated: the crash history at " + Hex(base) + " ends beyond its " +
                                   std::to_string(image->size) + " bytes");
    }
    bb::CrashHistoryHeader header;
    if (!ReadRecord(read, image->size, base, &header, "crash-history header", error)) return false;
    if (AllZero(header)) return true;
    if (memcmp(header.magic, bb::kCrashHistoryMagic, sizeof(header.magic)) != 0) {
        return Fail(error, "crash-history header: wrong magic");
    }
    if (header.slotCount != bb::kCrashHistorySlots) {
        return Fail(error, "crash-history header: slot count " + std::to_string(header.slotCount) + " is not 509");
    }
    if (header.nextPosition > bb::kCrashHistorySlots) {
        return Fail(error, "crash-history header: next position " + std::to_string(header.nextPosition) +
                                   " is beyond slot 508");
    }
    image->historyInitialised = true;
    image->historyVersion = header.version;
    image->historyCurrent = header.currentNum;
    image->historyNext = header.nextPosition;
    if (header.counterMarker == bb::kCrashCounterMarker) {
        for (int i = 0; i < 32; ++i) {
            const uint16_t count = header.mainTypeCount[i];
            if (count != 0) image->mainTypeCounts.emplace_back(i, count);
        }
        for (int i = 0; i < 64; ++i) {
            const uint16_t count = header.typeCount[i];
            if (count != 0) image->typeCounts.emplace_back(i, count);
        }
    }
    const uint32_t count = std::min<uint32_t>(header.currentNum, bb::kCrashHistorySlots);
    uint32_t slot = header.nextPosition;
    for (uint32_t n = 0; n < count; ++n) {
        slot = slot == 0 ? bb::kCrashHistorySlots - 1 : slot - 1;
        bb::CrashHistoryItem item;
        if (!ReadRecord(read, image->size, bb::CrashItemOffset(base, slot), &item, "crash-history item", error)) {
            return false;
        }
        HistoryItem out;
        out.slot = slot;
        out.mainType = item.mainType;
        out.type = item.type;
        out.tableValue = item.tableValue;
        if (!FieldText(item.text, sizeof(item.text), &out.text)) {
            return Fail(error, "crash-history item in slot " + std::to_string(slot) + ": the text is not terminated");
        }
        image->items.push_back(out);
    }
    return true;
}

bool ParseBoot(const ReadFn& read, Image* image, std::string* error) {
    if (image->size < bb::kBootMonitorHeaderOffset + sizeof(bb::BootMonitorHeader)) return true;
    bb::BootMonitorHeader boot;
    if (!ReadRecord(read, image->size, bb::kBootMonitorHeaderOffset, &boot, "boot-monitor header", error)) {
        return false;
    }
    image->bootPresent = true;
    image->bootFailure = boot.identifier == bb::kBootFailIdentifier;
    image->bootIndex = boot.bootIndex;
    image->bootError = boot.currentError;
    image->bootReported = boot.reported == 1;
    // NUL-padded, not necessarily terminated.
    image->bootText.assign(boot.text, strnlen(boot.text, sizeof(boot.text)));
    return true;
}

bool ParseOta(const ReadFn& read, Image* image, std::string* error) {
    image->otaApplies = image->version == 2 || image->version == 3;
    if (!image->otaApplies) return true;
    bb::OtaRecordZone zone;
    if (!ReadRecord(read, image->size, bb::kOtaZoneOffset, &zone, "OTA record zone", error)) return false;
    if (AllZero(zone)) return true;
    if (zone.magic != bb::kOtaMagic) return Fail(error, "OTA record zone: wrong magic " + Hex(zone.magic));
    if (zone.nextIndex >= static_cast<uint32_t>(bb::kOtaRecords) ||
        zone.updateCount > static_cast<uint32_t>(bb::kOtaRecords)) {
        return Fail(error, "OTA record zone: next index " + std::to_string(zone.nextIndex) + " or count " +
                                   std::to_string(zone.updateCount) + " is out of range");
    }
    image->otaInitialised = true;
    image->otaVersionCode = zone.versionCode;
    image->otaNextIndex = zone.nextIndex;
    image->otaCount = zone.updateCount;
    for (uint32_t i = 0; i < zone.updateCount; ++i) {
        OtaRecord record;
        record.index = static_cast<int>(i);
        record.debuggable = zone.isDebuggable[i];
        const struct {
            const char* field;
            size_t size;
            std::string* out;
        } texts[] = {
                {zone.packageName[i], sizeof(zone.packageName[i]), &record.packageName},
                {zone.srcBuild[i], sizeof(zone.srcBuild[i]), &record.srcBuild},
                {zone.tgtBuild[i], sizeof(zone.tgtBuild[i]), &record.tgtBuild},
                {zone.srcSlot[i], sizeof(zone.srcSlot[i]), &record.srcSlot},
                {zone.tgtSlot[i], sizeof(zone.tgtSlot[i]), &record.tgtSlot},
                {zone.startTime[i], sizeof(zone.startTime[i]), &record.startTime},
                {zone.endTime[i], sizeof(zone.endTime[i]), &record.endTime},
                {zone.mergedTime[i], sizeof(zone.mergedTime[i]), &record.mergedTime},
        };
        for (const auto& text : texts) {
            if (!FieldText(text.field, text.size, text.out)) {
                return Fail(error, "OTA record " + std::to_string(i) + ": a text field is not terminated");
            }
        }
        image->ota.push_back(record);
    }
    return true;
}

}  // namespace

bool ParseContainerSizes(const unsigned char* fields, uint64_t expectedPadded, uint64_t* plain, std::string* error) {
    uint64_t values[2];
    for (int f = 0; f < 2; ++f) {
        const unsigned char* field = fields + f * bb::kContainerSizeField;
        size_t digits = 0;
        while (digits < bb::kContainerSizeField && field[digits] >= '0' && field[digits] <= '9') ++digits;
        // Decimal digits, then NUL padding to the end of the field: at most 15 digits.
        bool ok = digits > 0 && digits < bb::kContainerSizeField;
        for (size_t i = digits; ok && i < bb::kContainerSizeField; ++i) ok = field[i] == 0;
        if (!ok) return Fail(error, "size field " + std::to_string(f) + " is not a decimal number");
        uint64_t value = 0;
        for (size_t i = 0; i < digits; ++i) value = value * 10 + static_cast<uint64_t>(field[i] - '0');
        values[f] = value;
    }
    if (values[1] != expectedPadded) {
        return Fail(error, "padded size " + std::to_string(values[1]) + " differs from the header's " +
                                   std::to_string(expectedPadded));
    }
    if (values[0] > values[1] || values[1] - values[0] >= 16) {
        return Fail(error, "plain size " + std::to_string(values[0]) + " does not round up to " +
                                   std::to_string(values[1]));
    }
    *plain = values[0];
    return true;
}

bool IsSafeFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool ParseImage(const ReadFn& read, uint64_t size, Image* out, std::string* error) {
    *out = Image{};
    out->size = size;
    out->version = bb::VersionForSize(size);
    bb::LogTableHeader table;
    if (!ReadRecord(read, size, bb::kLogTableHeaderOffset, &table, "log table header", error)) return false;
    // The boot-monitor area and the OTA zone have writers of their own (the
    // boot loaders, the OTA monitor), so they are read even while the crash
    // monitor has not laid down its log table yet.
    if (AllZero(table)) return ParseBoot(read, out, error) && ParseOta(read, out, error);
    if (table.magic != bb::kLogTableMagic) return Fail(error, "log table header: wrong magic " + Hex(table.magic));
    if (table.headerOffset != bb::kLogTableHeaderOffset) {
        return Fail(error, "log table header: its own offset reads " + Hex(table.headerOffset) + ", not 0x400");
    }
    if (table.fwMinidumpOffset != bb::kFwMinidumpHeaderOffset) {
        return Fail(error, "log table header: firmware-database header offset " + Hex(table.fwMinidumpOffset) +
                                   " is not 0x5c00400");
    }
    out->initialised = true;
    out->table = table;
    out->historyBase = bb::CrashHistoryBase(table);
    return ParseFw(read, out, error) && ParseHistory(read, out, error) && ParseBoot(read, out, error) &&
           ParseOta(read, out, error);
}

}  // namespace tarnis_blackbox
