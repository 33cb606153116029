#include "platform/binder/Parcel.h"

#include <fcntl.h>

#include <cstring>
#include <utility>

#include <utils/String8.h>

#include "platform/binder/IBinder.h"

namespace android {
namespace {

constexpr size_t Padded(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

// libbinder's header values: the caller's strict-mode policy (none here, with
// the "gather" bit every sender sets) and its work source (none).
constexpr int32_t kStrictModePenaltyGather = INT32_MIN;
constexpr int32_t kUnsetWorkSource = -1;

}  // namespace

status_t Parcel::writeRaw(const void* bytes, size_t n) {
    const size_t padded = Padded(n);
    if (padded > INT32_MAX - data_.size()) return NO_MEMORY;
    if (pos_ + padded > data_.size()) data_.resize(pos_ + padded);
    if (n > 0) memcpy(&data_[pos_], bytes, n);  // an empty vector's data() may be null
    memset(&data_[pos_ + n], 0, padded - n);
    pos_ += padded;
    return OK;
}

status_t Parcel::writeInt32(int32_t value) { return writeRaw(&value, sizeof(value)); }

status_t Parcel::writeInt64(int64_t value) { return writeRaw(&value, sizeof(value)); }

status_t Parcel::writeBool(bool value) { return writeInt32(value ? 1 : 0); }

status_t Parcel::writeString16(const String16& value) {
    const size_t units = value.size();
    if (units >= INT32_MAX / sizeof(char16_t)) return BAD_VALUE;
    status_t st = writeInt32(static_cast<int32_t>(units));
    if (st != OK) return st;
    std::u16string terminated(value.string(), units);
    return writeRaw(terminated.c_str(), (units + 1) * sizeof(char16_t));
}

status_t Parcel::writeUtf8AsUtf16(const std::string& value) {
    return writeString16(String16(value.data(), value.size()));
}

status_t Parcel::writeString16Vector(const std::vector<String16>& value) {
    status_t st = writeInt32(static_cast<int32_t>(value.size()));
    for (size_t i = 0; st == OK && i < value.size(); ++i) st = writeString16(value[i]);
    return st;
}

status_t Parcel::writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& value) {
    status_t st = writeInt32(static_cast<int32_t>(value.size()));
    for (size_t i = 0; st == OK && i < value.size(); ++i) st = writeUtf8AsUtf16(value[i]);
    return st;
}

status_t Parcel::writeByteVector(const std::vector<uint8_t>& value) {
    if (value.size() > INT32_MAX) return BAD_VALUE;
    status_t st = writeInt32(static_cast<int32_t>(value.size()));
    return st == OK ? writeRaw(value.data(), value.size()) : st;
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) return writeInt32(-1);
    base::unique_fd owned(takeOwnership ? fd : fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!owned.ok()) return -errno;
    status_t st = writeInt32(static_cast<int32_t>(fds_.size()));
    if (st == OK) fds_.push_back(std::move(owned));
    return st;
}

status_t Parcel::writeDupParcelFileDescriptor(int fd) {
    status_t st = writeInt32(0);
    return st == OK ? writeFileDescriptor(fd) : st;
}

status_t Parcel::writeInterfaceToken(const String16& descriptor) {
    status_t st = writeInt32(kStrictModePenaltyGather);
    if (st == OK) st = writeInt32(kUnsetWorkSource);
    return st == OK ? writeString16(descriptor) : st;
}

status_t Parcel::writeParcelable(const Parcelable& parcelable) {
    status_t st = writeInt32(1);
    return st == OK ? parcelable.writeToParcel(this) : st;
}

status_t Parcel::readRaw(void* out, size_t n) const {
    if (dataAvail() < n) return NOT_ENOUGH_DATA;
    memcpy(out, data_.data() + pos_, n);
    pos_ += n;
    return OK;
}

status_t Parcel::readPadded(size_t n, const char** out) const {
    if (Padded(n) > dataAvail()) return NOT_ENOUGH_DATA;
    *out = data_.data() + pos_;
    pos_ += Padded(n);
    return OK;
}

status_t Parcel::readInt32(int32_t* out) const { return readRaw(out, sizeof(*out)); }

int32_t Parcel::readInt32() const {
    int32_t value = 0;
    return readInt32(&value) == OK ? value : 0;
}

status_t Parcel::readInt64(int64_t* out) const { return readRaw(out, sizeof(*out)); }

status_t Parcel::readBool(bool* out) const {
    int32_t v;
    status_t st = readInt32(&v);
    if (st == OK) *out = v != 0;
    return st;
}

status_t Parcel::readString16(String16* out) const {
    int32_t len;
    status_t st = readInt32(&len);
    if (st != OK) return st;
    if (len == -1) return UNEXPECTED_NULL;
    // The units and their terminating 0 must be there before anything is copied.
    if (len < 0 || static_cast<size_t>(len) >= dataAvail() / sizeof(char16_t)) return BAD_VALUE;
    const char* units;
    if ((st = readPadded((len + 1) * sizeof(char16_t), &units)) != OK) return st;
    std::u16string text(static_cast<size_t>(len), u'\0');
    memcpy(&text[0], units, len * sizeof(char16_t));
    char16_t terminator;
    memcpy(&terminator, units + len * sizeof(char16_t), sizeof(terminator));
    if (terminator != 0) return BAD_VALUE;
    *out = String16(text.data(), text.size());
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
status_t Parcel::readVector(std::vector<T>* out, ReadOne readOne) const {
    int32_t count;
    status_t st = readInt32(&count);
    if (st != OK) return st;
    if (count == -1) return UNEXPECTED_NULL;
    // Every element takes at least 4 bytes: a count the data cannot hold is
    // rejected before anything is allocated.
    if (count < 0 || static_cast<size_t>(count) > dataAvail() / 4) return BAD_VALUE;
    std::vector<T> result;
    result.reserve(count);
    for (int32_t i = 0; i < count; ++i) {
        T item{};
        if ((st = readOne(&item)) != OK) return st;
        result.push_back(std::move(item));
    }
    *out = std::move(result);
    return OK;
}

status_t Parcel::readString16Vector(std::vector<String16>* out) const {
    return readVector(out, [this](String16* v) { return readString16(v); });
}

status_t Parcel::readUtf8VectorFromUtf16Vector(std::vector<std::string>* out) const {
    return readVector(out, [this](std::string* v) { return readUtf8FromUtf16(v); });
}

status_t Parcel::readByteVector(std::vector<uint8_t>* out) const {
    int32_t len;
    status_t st = readInt32(&len);
    if (st != OK) return st;
    if (len == -1) return UNEXPECTED_NULL;
    if (len < 0) return BAD_VALUE;
    const char* bytes;
    if ((st = readPadded(static_cast<size_t>(len), &bytes)) != OK) return st;
    out->assign(bytes, bytes + len);
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

status_t Parcel::readUniqueParcelFileDescriptor(base::unique_fd* out) const {
    int32_t hasCommChannel;
    status_t st = readInt32(&hasCommChannel);
    if (st != OK) return st;
    // Nothing here opens a comm channel: one is a writer this side does not understand.
    if (hasCommChannel != 0) return BAD_VALUE;
    return readUniqueFileDescriptor(out);
}

bool Parcel::enforceInterface(const String16& descriptor) const {
    int32_t strictMode, workSource;
    String16 token;
    return readInt32(&strictMode) == OK && readInt32(&workSource) == OK && readString16(&token) == OK &&
           token == descriptor;
}

bool Parcel::checkInterface(IBinder* binder) const { return enforceInterface(binder->getInterfaceDescriptor()); }

status_t Parcel::readParcelable(Parcelable* parcelable) const {
    int32_t present;
    status_t st = readInt32(&present);
    if (st != OK) return st;
    if (present == 0) return UNEXPECTED_NULL;
    return parcelable->readFromParcel(this);
}

status_t Parcel::readStatus(ndk::ScopedAStatus* out) const {
    binder::Status status;
    status_t st = status.readFromParcel(*this);
    if (st == OK) *out = ndk::ScopedAStatus(std::move(status));
    return st;
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
