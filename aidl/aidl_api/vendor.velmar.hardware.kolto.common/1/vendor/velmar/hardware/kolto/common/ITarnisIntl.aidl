package vendor.velmar.hardware.kolto.common;
@VintfStability
interface ITarnisIntl {
  void transferMessage(@utf8InCpp String action, @utf8InCpp String json);
}
