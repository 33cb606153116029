package velmar.system.tarnis.common;
@VintfStability
interface ITarnisSsi {
  void reportSimpleEvent(int type, @utf8InCpp String event);
  void reportEventV2(@utf8InCpp String a, @utf8InCpp String b, @utf8InCpp String c, boolean flag);
  void reportNativeFeatureEvent(@utf8InCpp String a, @utf8InCpp String b, @utf8InCpp String c);
  void appCaptureLog(@utf8InCpp String a, @utf8InCpp String b, @utf8InCpp String c, @utf8InCpp String d);
  void reportEventsV2(@utf8InCpp String a, in @utf8InCpp List<String> events, @utf8InCpp String c, boolean flag);
  void reportTrelvoEvent(@utf8InCpp String appId, @utf8InCpp String packageName, @utf8InCpp String payload, int flags);
  void reportTrelvoEvents(@utf8InCpp String appId, @utf8InCpp String packageName, in @utf8InCpp List<String> payloads, int flags);
}
