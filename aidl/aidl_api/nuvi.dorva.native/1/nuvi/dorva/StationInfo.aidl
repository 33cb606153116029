package nuvi.dorva;
parcelable StationInfo {
  int signal = 0;
  int chainSignalAvg0 = 0;
  int chainSignalAvg1 = 0;
  int chainSignalAvg2 = 0;
  int chainSignalAvg3 = 0;
  int txMcs = -1;
  int txVhtMcs = -1;
  int txHeMcs = -1;
  int txEhtMcs = -1;
  int rxMcs = -1;
  int rxVhtMcs = -1;
  int rxHeMcs = -1;
  int rxEhtMcs = -1;
}
