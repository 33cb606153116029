package vendor.velmar.hardware.kolto.common;

import vendor.velmar.hardware.kolto.common.Ashmem;

// Reads files that only the vendor side may open (the secure world's log
// below /data/vendor/) and hands their bytes over in shared memory.
@VintfStability
interface IKoltoImpl {
    // The size in bytes of directory + fileName.
    long GetFileSize(@utf8InCpp String directory, @utf8InCpp String fileName);
    // Copies the first `size` bytes of directory + fileName into `region`.
    void ReadFromFile(@utf8InCpp String directory, @utf8InCpp String fileName, in Ashmem region, long size);
}
