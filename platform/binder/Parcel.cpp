#include "platform/binder/Parcel.h"

#include <utils/String8.h>

#include <fcntl.h>

#include <cstring>
#include <utility>

#include <utils/Unicode.h>

namespace android {

status_t Parcel::writeInt32(int32_t value) {
    data_.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return OK;
}

status_t Parcel::writeUint32(uint32_t value) {
    data_.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return OK;
}

status_t Parcel::writeInt64(int64_t value) {
    data_.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return OK;
}

status_t Parcel::writeBool(bool value) { return writeInt32(value ? 1 : 0); }

status_t Parcel::writeString(const std::string& value) {
    if (value.size() > INT32_MAX) return BAD_VALUE;
    writeInt32(static_cast<int32_t>(value.size()));
    data_.append(value);
    return OK;
}

status_t Parcel::writeString16(const String16& value) {
    if (value.size() > INT32_MAX / 2) return BAD_VALUE;
    writeInt32(static_cast<int32_t>(value.size()));
    data_.append(reinterpret_cast<const char*>(value.string()), value.size() * sizeof(char16_t));
    return OK;
}

status_t Parcel::writeUtf8AsUtf16(const std::string& value) {
    return writeString16(String16(value.data(), value.size()));
}

status_t Parcel::writeInt32Vector(const std::vector<int32_t>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    for (int32_t v : value) writeInt32(v);
    return OK;
}

status_t Parcel::writeInt64Vector(const std::vector<int64_t>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    for (int64_t v : value) writeInt64(v);
    return OK;
}

status_t Parcel::writeBoolVector(const std::vector<bool>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    for (bool v : value) writeBool(v);
    return OK;
}

status_t Parcel::writeStringVector(const std::vector<std::string>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    for (const auto& v : value) {
        status_t st = writeString(v);
        if (st != OK) return st;
    }
    return OK;
}

status_t Parcel::writeString16Vector(const std::vector<String16>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    for (const auto& v : value) {
        status_t st = writeString16(v);
        if (st != OK) return st;
    }
    return OK;
}

status_t Parcel::writeByteVector(const std::vector<uint8_t>& value) {
    writeInt32(static_cast<int32_t>(value.size()));
    data_.append(reinterpret_cast<const char*>(value.data()), value.size());
    return OK;
}

status_t Parcel::writeFileDescriptor(int fd) {
    if (fd < 0) return writeInt32(-1);
    int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return -errno;
    return writeUniqueFileDescriptor(base::unique_fd(copy));
}

status_t Parcel::writeUniqueFileDescriptor(base::unique_fd fd) {
    if (!fd.ok()) return writeInt32(-1);
    writeInt32(static_cast<int32_t>(fds_.size()));
    fds_.push_back(std::move(fd));
    return OK;
}

status_t Parcel::writeInterfaceToken(const std::string& descriptor) { return writeString(descriptor); }

status_t Parcel::writeStatus(const ndk::ScopedAStatus& status) {
    writeInt32(status.getExceptionCode());
    if (status.isOk()) return OK;
    writeInt32(status.rawCode());
    return writeString(status.getMessage());
}

status_t Parcel::readRaw(void* out, size_t n) const {
    if (data_.size() - pos_ < n) return NOT_ENOUGH_DATA;
    memcpy(out, data_.data() + pos_, n);
    pos_ += n;
    return OK;
}

status_t Parcel::readInt32(int32_t* out) const { return readRaw(out, sizeof(*out)); }
status_t Parcel::readUint32(uint32_t* out) const { return readRaw(out, sizeof(*out)); }
status_t Parcel::readInt64(int64_t* out) const { return readRaw(out, sizeof(*out)); }

status_t Parcel::readBool(bool* out) const {
    int32_t v;
    status_t st = readInt32(&v);
    if (st == OK) *out = v != 0;
    return st;
}

status_t Parcel::readString(std::string* out) const {
    int32_t len;
    status_t st = readInt32(&len);
    if (st != OK) return st;
    if (len < 0 || static_cast<size_t>(len) > dataAvail()) return BAD_VALUE;
    out->assign(data_.data() + pos_, len);
    pos_ += len;
    return OK;
}

status_t Parcel::readString16(String16* out) const {
    int32_t len;
    status_t st = readInt32(&len);
    if (st != OK) return st;
    if (len < 0 || static_cast<size_t>(len) > dataAvail() / sizeof(char16_t)) return BAD_VALUE;
    std::vector<char16_t> units(static_cast<size_t>(len));
    if (len > 0) memcpy(units.data(), data_.data() + pos_, len * sizeof(char16_t));
    *out = String16(units.data(), units.size());
    pos_ += len * sizeof(char16_t);
    return OK;
}

status_t Parcel::readUtf8FromUtf16(std::string* out) const {
    String16 text;
    status_t st = readString16(&text);
    if (st == OK) {
        const String8 utf8(text);
        out->assign(utf8.string(), utf8.size());
    }
    return st;
}

template <typename T, typename ReadOne>
status_t Parcel::readVector(std::vector<T>* out, size_t minElementSize, ReadOne readOne) const {
    int32_t count;
    status_t st = readInt32(&count);
    if (st != OK) return st;
    // Every element takes at least minElementSize bytes: a count the data
    // cannot hold is rejected before anything is allocated.
    if (count < 0 || static_cast<size_t>(count) > dataAvail() / minElementSize) return BAD_VALUE;
    std::vector<T> result;
    result.reserve(count);
    for (int32_t i = 0; i < count; ++i) {
        T item{};
        st = readOne(&item);
        if (st != OK) return st;
        result.push_back(std::move(item));
    }
    *out = std::move(result);
    return OK;
}

status_t Parcel::readInt32Vector(std::vector<int32_t>* out) const {
    return readVector(out, 4, [this](int32_t* v) { return readInt32(v); });
}

status_t Parcel::readInt64Vector(std::vector<int64_t>* out) const {
    return readVector(out, 8, [this](int64_t* v) { return readInt64(v); });
}

status_t Parcel::readBoolVector(std::vector<bool>* out) const {
    std::vector<int32_t> raw;
    status_t st = readInt32Vector(&raw);
    if (st != OK) return st;
    out->assign(raw.size(), false);
    for (size_t i = 0; i < raw.size(); ++i) (*out)[i] = raw[i] != 0;
    return OK;
}

status_t Parcel::readStringVector(std::vector<std::string>* out) const {
    return readVector(out, 4, [this](std::string* v) { return readString(v); });
}

status_t Parcel::readString16Vector(std::vector<String16>* out) const {
    return readVector(out, 4, [this](String16* v) { return readString16(v); });
}

status_t Parcel::readByteVector(std::vector<uint8_t>* out) const {
    int32_t len;
    status_t st = readInt32(&len);
    if (st != OK) return st;
    if (len < 0 || static_cast<size_t>(len) > dataAvail()) return BAD_VALUE;
    out->assign(data_.begin() + pos_, data_.begin() + pos_ + len);
    pos_ += len;
    return OK;
}

status_t Parcel::readUniqueFileDescriptor(base::unique_fd* out) const {
    int32_t index;
    status_t st = readInt32(&index);
    if (st != OK) return st;
    if (index == -1) {
        out->reset();
        return OK;
    }
    if (index < 0 || static_cast<size_t>(index) >= fds_.size() || !fds_[index].ok()) return BAD_VALUE;
    *out = std::move(fds_[index]);
    return OK;
}

bool Parcel::enforceInterface(const std::string& descriptor) const {
    std::string token;
    return readString(&token) == OK && token == descriptor;
}

status_t Parcel::readStatus(ndk::ScopedAStatus* out) const {
    int32_t exception;
    status_t st = readInt32(&exception);
    if (st != OK) return st;
    if (exception == EX_NONE) {
        *out = ndk::ScopedAStatus::ok();
        return OK;
    }
    int32_t code;
    std::string message;
    if ((st = readInt32(&code)) != OK || (st = readString(&message)) != OK) return st;
    *out = ndk::ScopedAStatus::fromParts(exception, code, std::move(message));
    return OK;
}

std::vector<int> Parcel::rawFds() const {
    std::vector<int> out;
    out.reserve(fds_.size());
    for (const auto& fd : fds_) out.push_back(fd.get());
    return out;
}

void Parcel::setData(std::string bytes, std::vector<base::unique_fd> fds) {
    data_ = std::move(bytes);
    fds_ = std::move(fds);
    pos_ = 0;
}

void Parcel::clear() {
    data_.clear();
    fds_.clear();
    pos_ = 0;
}

}  // namespace android
