package vendor.velmar.hardware.kolto.common;

// A shared memory region handed to the HAL: the receiver gets its own
// descriptor of the region, and its size in bytes beside it.
@VintfStability
parcelable Ashmem {
    ParcelFileDescriptor fd;
    long size;
}
