package vendor.velmar.hardware.kolto.common;
@VintfStability
interface IKoltoImpl {
  long GetFileSize(@utf8InCpp String directory, @utf8InCpp String fileName);
  void ReadFromFile(@utf8InCpp String directory, @utf8InCpp String fileName, in vendor.velmar.hardware.kolto.common.Ashmem region, long size);
}
