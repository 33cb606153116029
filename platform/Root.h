#pragma once

#include <string>

// Every absolute device path the daemon touches is resolved through here, so
// that a host run (tarnisd --root DIR) keeps all its effects below DIR. On a
// device the root is "/" and paths come back unchanged.
namespace platform {

// Sets the root for the whole process. An empty string or "/" means the real
// paths. Trailing slashes are dropped.
void SetRoot(const std::string& root);

// The root in use: the last SetRoot, else $TARNIS_ROOT, else "/".
std::string GetRoot();

// Maps an absolute device path ("/data/dorva/") below the root. Relative paths
// and paths already below the root are returned unchanged, so mapping twice is
// harmless.
std::string DevicePath(const std::string& absolutePath);

}  // namespace platform
