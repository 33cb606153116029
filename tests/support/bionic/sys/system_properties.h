#pragma once

#include <stdint.h>

// bionic's property-area calls as its header declares them, so that the
// device's end of the seam compiles on a host for the seam check; never linked.
extern "C" {
typedef struct prop_info prop_info;
int __system_property_foreach(void (*callback)(const prop_info* info, void* cookie), void* cookie);
void __system_property_read_callback(const prop_info* info,
                                     void (*callback)(void* cookie, const char* name, const char* value,
                                                      uint32_t serial),
                                     void* cookie);
}
