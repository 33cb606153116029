package velmar.system.tarnis.common;
@VintfStability
interface ITarnisSsiIntl {
  void transferMessage(@utf8InCpp String action, @utf8InCpp String json);
}
