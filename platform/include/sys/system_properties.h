#pragma once

// Bionic's property limits, which libcutils's <cutils/properties.h> sizes its
// buffers by. glibc has no property area: the host's store is platform/'s.
#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
