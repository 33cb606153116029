#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/String16.h>

#include "platform/binder/BinderStatus.h"
#include "platform/binder/ParcelFileDescriptor.h"
#include "platform/binder/ScopedAStatus.h"

// The container of one transaction's arguments or reply. Values are packed
// little-endian in write order; strings and vectors carry a 32-bit length
// first (-1 for null), UTF-16 strings count code units. File descriptors
// travel beside the bytes (SCM_RIGHTS on the socket): the byte stream holds
// their index, the parcel owns the descriptors themselves.
//
// Readers never trust the bytes: a length beyond the remaining data, a bad
// fd index or a short buffer gives BAD_VALUE / NOT_ENOUGH_DATA instead of a
// huge allocation or an out-of-bounds read.
namespace android {

class Parcel {
public:
    Parcel() = default;
    Parcel(Parcel&&) = default;
    Parcel& operator=(Parcel&&) = default;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    status_t writeInt32(int32_t value);
    status_t writeUint32(uint32_t value);
    status_t writeInt64(int64_t value);
    status_t writeBool(bool value);
    // UTF-8 text (the NDK's std::string arguments).
    status_t writeString(const std::string& value);
    status_t writeString16(const String16& value);
    // UTF-8 in, UTF-16 on the wire (libbinder's writeUtf8AsUtf16).
    status_t writeUtf8AsUtf16(const std::string& value);
    status_t writeInt32Vector(const std::vector<int32_t>& value);
    status_t writeInt64Vector(const std::vector<int64_t>& value);
    status_t writeBoolVector(const std::vector<bool>& value);
    status_t writeStringVector(const std::vector<std::string>& value);
    status_t writeString16Vector(const std::vector<String16>& value);
    status_t writeByteVector(const std::vector<uint8_t>& value);
    // Duplicates `fd` (close-on-exec); the caller keeps its own. -1 writes "no descriptor".
    status_t writeFileDescriptor(int fd);
    // Passes ownership of `fd` to the parcel.
    status_t writeUniqueFileDescriptor(base::unique_fd fd);
    status_t writeInterfaceToken(const std::string& descriptor);
    // The status header that starts every reply.
    status_t writeStatus(const ndk::ScopedAStatus& status);

    status_t readInt32(int32_t* out) const;
    status_t readUint32(uint32_t* out) const;
    status_t readInt64(int64_t* out) const;
    status_t readBool(bool* out) const;
    status_t readString(std::string* out) const;
    status_t readString16(String16* out) const;
    status_t readUtf8FromUtf16(std::string* out) const;
    status_t readInt32Vector(std::vector<int32_t>* out) const;
    status_t readInt64Vector(std::vector<int64_t>* out) const;
    status_t readBoolVector(std::vector<bool>* out) const;
    status_t readStringVector(std::vector<std::string>* out) const;
    status_t readString16Vector(std::vector<String16>* out) const;
    status_t readByteVector(std::vector<uint8_t>* out) const;
    // Moves the next descriptor out of the parcel (an empty one when the
    // writer wrote -1). A descriptor can be taken once.
    status_t readUniqueFileDescriptor(base::unique_fd* out) const;
    // True when the token matches `descriptor`.
    bool enforceInterface(const std::string& descriptor) const;
    status_t readStatus(ndk::ScopedAStatus* out) const;

    // Overloads used by the generic proxy and stub helpers.
    status_t write(int32_t v) { return writeInt32(v); }
    status_t write(int64_t v) { return writeInt64(v); }
    status_t write(bool v) { return writeBool(v); }
    status_t write(const std::string& v) { return writeString(v); }
    status_t write(const String16& v) { return writeString16(v); }
    status_t write(const std::vector<int32_t>& v) { return writeInt32Vector(v); }
    status_t write(const std::vector<int64_t>& v) { return writeInt64Vector(v); }
    status_t write(const std::vector<bool>& v) { return writeBoolVector(v); }
    status_t write(const std::vector<std::string>& v) { return writeStringVector(v); }
    status_t write(const std::vector<String16>& v) { return writeString16Vector(v); }
    status_t write(const std::vector<uint8_t>& v) { return writeByteVector(v); }
    status_t read(int32_t* v) const { return readInt32(v); }
    status_t read(int64_t* v) const { return readInt64(v); }
    status_t read(bool* v) const { return readBool(v); }
    status_t read(std::string* v) const { return readString(v); }
    status_t read(String16* v) const { return readString16(v); }
    status_t read(std::vector<int32_t>* v) const { return readInt32Vector(v); }
    status_t read(std::vector<int64_t>* v) const { return readInt64Vector(v); }
    status_t read(std::vector<bool>* v) const { return readBoolVector(v); }
    status_t read(std::vector<std::string>* v) const { return readStringVector(v); }
    status_t read(std::vector<String16>* v) const { return readString16Vector(v); }
    status_t read(std::vector<uint8_t>* v) const { return readByteVector(v); }
    status_t read(base::unique_fd* v) const { return readUniqueFileDescriptor(v); }
    status_t write(const os::ParcelFileDescriptor& v) { return writeFileDescriptor(v.get()); }
    status_t read(os::ParcelFileDescriptor* v) const {
        base::unique_fd fd;
        status_t st = readUniqueFileDescriptor(&fd);
        if (st == OK) v->reset(std::move(fd));
        return st;
    }

    // Transport access.
    const std::string& data() const { return data_; }
    size_t dataSize() const { return data_.size(); }
    size_t dataPosition() const { return pos_; }
    size_t dataAvail() const { return data_.size() - pos_; }
    void setDataPosition(size_t pos) const { pos_ = pos < data_.size() ? pos : data_.size(); }
    size_t fdCount() const { return fds_.size(); }
    // Raw descriptors in index order (-1 for ones already taken), for sending.
    std::vector<int> rawFds() const;
    // Replaces the contents with received bytes and descriptors.
    void setData(std::string bytes, std::vector<base::unique_fd> fds);
    void clear();

private:
    status_t readRaw(void* out, size_t n) const;
    template <typename T, typename ReadOne>
    status_t readVector(std::vector<T>* out, size_t minElementSize, ReadOne readOne) const;

    std::string data_;
    mutable size_t pos_ = 0;
    // Mutable so that a const reader can hand out ownership, as the stub
    // helpers take incoming parcels by const reference.
    mutable std::vector<base::unique_fd> fds_;
};

}  // namespace android

using AParcel = android::Parcel;
