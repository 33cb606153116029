package nuvi.dorva;
interface IDorvaNative {
  void captureLog(String type, String headline, in List<String> actions, in List<String> params, boolean offline, int id, boolean useId, String where, in List<String> files, boolean isRecordInLocal);
  @nullable ParcelFileDescriptor attachSockFilter(String srcMac, String dstMac, int srcAddr, int dstAddr, int protocol, int srcPort, int dstPort, in byte[] payload, int extraLen, String ifname);
  void setCoreFilter(int pid, boolean enable);
  int runCommand(String action, String params, int timeoutSeconds);
  void startDefrag();
  int createFileInPersist(String path);
  void writeToPersistFile(String path, String content);
  String readFile(String path);
  String getFilesFromPersist();
  void stopDefrag();
  void resumeDefrag();
  void flashDebugPolicy(int mode);
  nuvi.dorva.StationInfo getStationInfo(String ifname, String peer);
  void captureLogByRunCommand(in List<String> actions, in List<String> params, String path, int timeoutSeconds);
  void FactoryResetWipeRescuePartition();
}
