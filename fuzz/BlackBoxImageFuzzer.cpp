// Black-box partition images as tarnis-blackbox reads them. The input is laid
// out as: 8 bytes of image size, the log table header (60 bytes), the
// firmware-database header (216 bytes), then a pool that stands for every
// other byte of the image (crash history, containers, boot and OTA areas),
// repeated as far as the image reaches. The real images are 190 MiB; this
// lets every offset the headers name be reached without allocating them.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "tools/tarnis-blackbox/BlackBoxImage.h"

namespace bb = velmar::kolto::blackbox;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;
    uint64_t imageSize;
    memcpy(&imageSize, data, sizeof(imageSize));
    imageSize %= uint64_t{256} << 20;
    data += 8;
    size -= 8;
    const size_t tableLen = std::min(size, sizeof(bb::LogTableHeader));
    const uint8_t* table = data;
    const size_t fwLen = std::min(size - tableLen, sizeof(bb::FwMinidumpHeader));
    const uint8_t* fw = data + tableLen;
    const uint8_t* pool = fw + fwLen;
    const size_t poolLen = size - tableLen - fwLen;

    auto byteAt = [&](uint64_t offset) -> uint8_t {
        if (offset >= bb::kLogTableHeaderOffset && offset < bb::kLogTableHeaderOffset + tableLen) {
            return table[offset - bb::kLogTableHeaderOffset];
        }
        if (offset >= bb::kFwMinidumpHeaderOffset && offset < bb::kFwMinidumpHeaderOffset + fwLen) {
            return fw[offset - bb::kFwMinidumpHeaderOffset];
        }
        return poolLen == 0 ? 0 : pool[offset % poolLen];
    };
    tarnis_blackbox::ReadFn read = [&](uint64_t offset, void* buf, size_t len) {
        if (offset > imageSize || imageSize - offset < len) return false;
        auto* out = static_cast<uint8_t*>(buf);
        for (size_t i = 0; i < len; ++i) out[i] = byteAt(offset + i);
        return true;
    };
    tarnis_blackbox::Image image;
    std::string error;
    tarnis_blackbox::ParseImage(read, imageSize, &image, &error);
    if (size >= 2 * bb::kContainerSizeField) {
        uint64_t plain = 0;
        tarnis_blackbox::ParseContainerSizes(data, 112, &plain, &error);
    }
    return 0;
}
