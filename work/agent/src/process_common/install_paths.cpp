#include "process_common/install_paths.h"

#include <stdio.h>
#include <unistd.h>

namespace {

const char* const CONFIG_PATH_FORMAT = "/proc/%d/cwd/../etc/config";
const char* const PUBLIC_KEY_PATH_FORMAT = "/proc/%d/cwd/../etc/publickey.pem";

std::string ProcPath(const char* szFormat)
{
    char szPath[64];
    snprintf(szPath, sizeof(szPath), szFormat, static_cast<int>(getpid()));
    return szPath;
}

} // namespace

std::string ConfigPath() { return ProcPath(CONFIG_PATH_FORMAT); }

std::string PublicKeyPath() { return ProcPath(PUBLIC_KEY_PATH_FORMAT); }
