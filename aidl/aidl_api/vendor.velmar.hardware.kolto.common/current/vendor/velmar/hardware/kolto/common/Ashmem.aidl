package vendor.velmar.hardware.kolto.common;
@VintfStability
parcelable Ashmem {
  ParcelFileDescriptor fd;
  long size;
}
