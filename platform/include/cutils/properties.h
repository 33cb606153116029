#pragma once

// System properties, in libcutils' shape. On the host they live as one file
// per property in <root>/dev/__properties__/, shared by every process that
// uses the same root.

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

extern "C" {
// Copies the value (or the default when the property is unset or empty) into
// `value`, which must hold PROPERTY_VALUE_MAX bytes; returns its length.
int property_get(const char* key, char* value, const char* default_value);
// 0 on success, -1 when the store refused the value.
int property_set(const char* key, const char* value);
}

extern "C" {
// Calls `fn` for every property, in name order.
int property_list(void (*fn)(const char* key, const char* value, void* cookie), void* cookie);
}
