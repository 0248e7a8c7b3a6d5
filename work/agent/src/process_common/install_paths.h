// Files of the installation tree that the session reads or rewrites, found
// through the process's working directory (bin/ of the tree) at each use.
#pragma once

#include <string>

// "/proc/<pid>/cwd/../etc/config"
std::string ConfigPath();
// "/proc/<pid>/cwd/../etc/publickey.pem"
std::string PublicKeyPath();
