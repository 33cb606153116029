#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>
#include <utils/String16.h>

#include "platform/binder/BinderStatus.h"
#include "platform/binder/Parcelable.h"
#include "platform/binder/ScopedAStatus.h"

// The container of one transaction's arguments or reply, laid out as
// libbinder lays out its parcels, so that code generated for either backend
// reads what the other wrote: values little-endian in write order, each
// padded to 4 bytes; a UTF-16 string is its length in code units (-1 for
// null), the units and a terminating 0; a vector its count, then the
// elements; a parcelable passed by value a non-null marker (1) first, and a
// structured parcelable its total size in bytes before its fields. One data
// position serves reads and writes, as in libbinder (a generated parcelable
// goes back to fill in its size).
//
// File descriptors travel beside the bytes (SCM_RIGHTS on the socket): the
// byte stream holds their index where libbinder has a binder object, and the
// parcel owns the descriptors themselves.
//
// Readers never trust the bytes: a length beyond the remaining data, a bad
// fd index or a short buffer gives BAD_VALUE / NOT_ENOUGH_DATA instead of a
// huge allocation or an out-of-bounds read.
namespace android {

class IBinder;

class Parcel {
public:
    Parcel() = default;
    Parcel(Parcel&&) = default;
    Parcel& operator=(Parcel&&) = default;
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    status_t writeInt32(int32_t value);
    status_t writeInt64(int64_t value);
    status_t writeBool(bool value);
    status_t writeString16(const String16& value);
    // UTF-8 in, UTF-16 on the wire (the NDK's std::string, @utf8InCpp).
    status_t writeUtf8AsUtf16(const std::string& value);
    status_t writeString16Vector(const std::vector<String16>& value);
    status_t writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& value);
    status_t writeByteVector(const std::vector<uint8_t>& value);
    // Duplicates `fd` (close-on-exec) unless told to take it over.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    status_t writeUniqueFileDescriptor(const base::unique_fd& fd) { return writeFileDescriptor(fd.get()); }
    // A ParcelFileDescriptor's body: no comm channel (0), then the descriptor.
    status_t writeDupParcelFileDescriptor(int fd);
    // Strict-mode policy, work source (none) and the descriptor.
    status_t writeInterfaceToken(const String16& descriptor);
    status_t writeParcelable(const Parcelable& parcelable);
    template <typename T>
    status_t writeNullableParcelable(const std::unique_ptr<T>& parcelable) {
        return parcelable ? writeParcelable(*parcelable) : writeInt32(0);
    }
    // The NDK's status header (the same as binder::Status writes).
    status_t writeStatus(const ndk::ScopedAStatus& status) { return status.status().writeToParcel(this); }

    status_t readInt32(int32_t* out) const;
    int32_t readInt32() const;
    status_t readInt64(int64_t* out) const;
    status_t readBool(bool* out) const;
    // A null string is UNEXPECTED_NULL: no argument here is nullable.
    status_t readString16(String16* out) const;
    status_t readUtf8FromUtf16(std::string* out) const;
    status_t readString16Vector(std::vector<String16>* out) const;
    status_t readUtf8VectorFromUtf16Vector(std::vector<std::string>* out) const;
    status_t readByteVector(std::vector<uint8_t>* out) const;
    // Moves the next descriptor out of the parcel (an empty one when the
    // writer wrote -1). A descriptor can be taken once.
    status_t readUniqueFileDescriptor(base::unique_fd* out) const;
    status_t readUniqueParcelFileDescriptor(base::unique_fd* out) const;
    // True when the token names `descriptor`.
    bool enforceInterface(const String16& descriptor) const;
    bool checkInterface(IBinder* binder) const;
    // A null parcelable where one is required is UNEXPECTED_NULL.
    status_t readParcelable(Parcelable* parcelable) const;
    template <typename T>
    status_t readParcelable(std::unique_ptr<T>* parcelable) const {
        const size_t start = pos_;
        int32_t present;
        status_t st = readInt32(&present);
        if (st != OK) return st;
        parcelable->reset();
        if (present == 0) return OK;
        pos_ = start;
        auto value = std::make_unique<T>();
        st = readParcelable(value.get());
        if (st == OK) *parcelable = std::move(value);
        return st;
    }
    status_t readStatus(ndk::ScopedAStatus* out) const;

    // Overloads for the hand-written NDK stubs and proxies, which write and
    // read arguments generically; the types are the NDK's.
    status_t write(int32_t v) { return writeInt32(v); }
    status_t write(int64_t v) { return writeInt64(v); }
    status_t write(bool v) { return writeBool(v); }
    status_t write(const std::string& v) { return writeUtf8AsUtf16(v); }
    status_t write(const std::vector<std::string>& v) { return writeUtf8VectorAsUtf16Vector(v); }
    // A parcelable passed by value: the non-null marker, then its body.
    template <typename T>
    auto write(const T& v) -> decltype(v.writeToParcel(this)) {
        status_t st = writeInt32(1);
        return st == OK ? v.writeToParcel(this) : st;
    }
    status_t read(int32_t* v) const { return readInt32(v); }
    status_t read(int64_t* v) const { return readInt64(v); }
    status_t read(bool* v) const { return readBool(v); }
    status_t read(std::string* v) const { return readUtf8FromUtf16(v); }
    status_t read(std::vector<std::string>* v) const { return readUtf8VectorFromUtf16Vector(v); }
    template <typename T>
    auto read(T* v) const -> decltype(v->readFromParcel(this)) {
        int32_t present;
        status_t st = readInt32(&present);
        if (st != OK) return st;
        return present == 0 ? UNEXPECTED_NULL : v->readFromParcel(this);
    }

    // Transport access.
    const std::string& data() const { return data_; }
    size_t dataSize() const { return data_.size(); }
    size_t dataPosition() const { return pos_; }
    size_t dataAvail() const { return data_.size() - pos_; }
    void setDataPosition(size_t pos) const { pos_ = pos < data_.size() ? pos : data_.size(); }
    // Raw descriptors in index order (-1 for ones already taken), for sending.
    std::vector<int> rawFds() const;
    // Replaces the contents with received bytes and descriptors.
    void setData(std::string bytes, std::vector<base::unique_fd> fds);
    void clear();

private:
    status_t writeRaw(const void* bytes, size_t n);
    status_t readRaw(void* out, size_t n) const;
    // A string's units or a byte array's bytes, with the padding after them.
    status_t readPadded(size_t n, const char** out) const;
    template <typename T, typename ReadOne>
    status_t readVector(std::vector<T>* out, ReadOne readOne) const;

    std::string data_;
    mutable size_t pos_ = 0;
    // Mutable so that a const reader can hand out ownership, as the stub
    // helpers take incoming parcels by const reference.
    mutable std::vector<base::unique_fd> fds_;
};

}  // namespace android

using AParcel = android::Parcel;
