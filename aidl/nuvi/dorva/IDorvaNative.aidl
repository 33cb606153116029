package nuvi.dorva;

import nuvi.dorva.StationInfo;

// The native daemon service: captures, whitelisted diagnostic tools, small
// files under the persist partition and privileged helpers. Registered under
// its descriptor with the classic service manager. Methods are only ever
// added at the end: each one's transaction code is its place in this list,
// which is why the defragmentation methods, which do nothing any more, keep
// theirs. A result travels after the status, as an out-parameter would.
interface IDorvaNative {
    void captureLog(String type, String headline, in List<String> actions, in List<String> params,
            boolean offline, int id, boolean useId, String where, in List<String> files,
            boolean isRecordInLocal);
    // Null when the filter could not be attached.
    @nullable ParcelFileDescriptor attachSockFilter(String srcMac, String dstMac, int srcAddr,
            int dstAddr, int protocol, int srcPort, int dstPort, in byte[] payload, int extraLen,
            String ifname);
    void setCoreFilter(int pid, boolean enable);
    // 0 when the tool ran, -1 when it could not be run.
    int runCommand(String action, String params, int timeoutSeconds);
    void startDefrag();
    // 0 when the file exists afterwards, -1 otherwise.
    int createFileInPersist(String path);
    void writeToPersistFile(String path, String content);
    String readFile(String path);
    // The persist directory's entries as full paths, separated by commas.
    String getFilesFromPersist();
    void stopDefrag();
    void resumeDefrag();
    void flashDebugPolicy(int mode);
    StationInfo getStationInfo(String ifname, String peer);
    void captureLogByRunCommand(in List<String> actions, in List<String> params, String path,
            int timeoutSeconds);
    void FactoryResetWipeRescuePartition();
}
