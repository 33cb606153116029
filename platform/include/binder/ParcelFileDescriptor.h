#pragma once

// Descriptors carried in parcels. The host binder stand-in implements them.
#include "platform/binder/ParcelFileDescriptor.h"
