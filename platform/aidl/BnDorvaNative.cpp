#include <nuvi/dorva/BnDorvaNative.h>

#include <utility>

namespace nuvi {
namespace dorva {

using android::String16;

android::status_t BnDorvaNative::onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) {
    if (!enforce(in)) return STATUS_BAD_TYPE;
    String16 a, b, c;
    std::vector<String16> list, list2, list3;
    int32_t n1 = 0, n2 = 0, n3 = 0, n4 = 0, n5 = 0, n6 = 0;
    bool f1 = false, f2 = false, f3 = false;
    std::vector<uint8_t> bytes;
    android::binder::Status status;
    android::status_t st = android::OK;
    switch (code) {
        case TRANSACTION_captureLog:
            if (!readArgs(in, &a, &b, &list, &list2, &f1, &n1, &f2, &c, &list3, &f3)) return STATUS_BAD_VALUE;
            return out->writeStatus(captureLog(a, b, list, list2, f1, n1, f2, c, list3, f3));
        case TRANSACTION_attachSockFilter: {
            if (!readArgs(in, &a, &b, &n1, &n2, &n3, &n4, &n5, &bytes, &n6, &c)) return STATUS_BAD_VALUE;
            android::os::ParcelFileDescriptor socket;
            status = attachSockFilter(a, b, n1, n2, n3, n4, n5, bytes, n6, c, &socket);
            st = out->writeStatus(status);
            if (st != android::OK || !status.isOk()) return st;
            // A filter that could not be attached leaves no descriptor to send.
            const bool present = socket.get() >= 0;
            st = out->writeInt32(present ? 1 : 0);
            if (st == android::OK && present) {
                st = out->writeUniqueFileDescriptor(android::base::unique_fd(socket.release()));
            }
            return st;
        }
        case TRANSACTION_setCoreFilter:
            if (!readArgs(in, &n1, &f1)) return STATUS_BAD_VALUE;
            return out->writeStatus(setCoreFilter(n1, f1));
        case TRANSACTION_runCommand:
            if (!readArgs(in, &a, &b, &n1)) return STATUS_BAD_VALUE;
            status = runCommand(a, b, n1, &n2);
            st = out->writeStatus(status);
            if (st == android::OK && status.isOk()) st = out->writeInt32(n2);
            return st;
        case TRANSACTION_startDefrag:
            return out->writeStatus(startDefrag());
        case TRANSACTION_createFileInPersist:
            if (!readArgs(in, &a)) return STATUS_BAD_VALUE;
            status = createFileInPersist(a, &n1);
            st = out->writeStatus(status);
            if (st == android::OK && status.isOk()) st = out->writeInt32(n1);
            return st;
        case TRANSACTION_writeToPersistFile:
            if (!readArgs(in, &a, &b)) return STATUS_BAD_VALUE;
            return out->writeStatus(writeToPersistFile(a, b));
        case TRANSACTION_readFile:
            if (!readArgs(in, &a)) return STATUS_BAD_VALUE;
            status = readFile(a, &b);
            st = out->writeStatus(status);
            if (st == android::OK && status.isOk()) st = out->writeString16(b);
            return st;
        case TRANSACTION_getFilesFromPersist:
            status = getFilesFromPersist(&a);
            st = out->writeStatus(status);
            if (st == android::OK && status.isOk()) st = out->writeString16(a);
            return st;
        case TRANSACTION_stopDefrag:
            return out->writeStatus(stopDefrag());
        case TRANSACTION_resumeDefrag:
            return out->writeStatus(resumeDefrag());
        case TRANSACTION_flashDebugPolicy:
            if (!readArgs(in, &n1)) return STATUS_BAD_VALUE;
            return out->writeStatus(flashDebugPolicy(n1));
        case TRANSACTION_getStationInfo: {
            if (!readArgs(in, &a, &b)) return STATUS_BAD_VALUE;
            StationInfo info;
            status = getStationInfo(a, b, &info);
            st = out->writeStatus(status);
            if (st == android::OK && status.isOk()) st = out->writeInt32(1);
            if (st == android::OK && status.isOk()) st = info.writeToParcel(out);
            return st;
        }
        case TRANSACTION_captureLogByRunCommand:
            if (!readArgs(in, &list, &list2, &a, &n1)) return STATUS_BAD_VALUE;
            return out->writeStatus(captureLogByRunCommand(list, list2, a, n1));
        case TRANSACTION_FactoryResetWipeRescuePartition:
            return out->writeStatus(FactoryResetWipeRescuePartition());
        default:
            return STATUS_UNKNOWN_TRANSACTION;
    }
}

}  // namespace dorva
}  // namespace nuvi
