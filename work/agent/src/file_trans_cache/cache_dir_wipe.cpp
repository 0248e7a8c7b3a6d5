// The wipe of the cache directory at start: everything below it goes, then
// the directory is made anew. No shell sees the path, and the root is never
// wiped, however the path spells it.
#include <errno.h>
#include <ftw.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "file_trans_cache/file_trans_cache.h"
#include "util.h"

using namespace brel_lib;

namespace {

// The path with ".", ".." and repeated slashes resolved by text alone,
// relative paths taken from the working directory.
std::string LexicalAbsolute(const std::string& strPath)
{
    std::string strFull = strPath;
    if (strFull.empty() || strFull[0] != '/') {
        char szCwd[PATH_MAX];
        if (getcwd(szCwd, sizeof(szCwd)) == nullptr) return "/";  // unknown: treated as the root
        strFull = std::string(szCwd) + "/" + strFull;
    }
    std::vector<std::string> vecParts;
    size_t nPos = 0;
    while (nPos <= strFull.size()) {
        size_t nEnd = strFull.find('/', nPos);
        if (nEnd == std::string::npos) nEnd = strFull.size();
        std::string strPart = strFull.substr(nPos, nEnd - nPos);
        if (strPart == "..") {
            if (!vecParts.empty()) vecParts.pop_back();
        } else if (!strPart.empty() && strPart != ".") {
            vecParts.push_back(strPart);
        }
        nPos = nEnd + 1;
    }
    std::string strOut;
    for (const std::string& strPart : vecParts) strOut += "/" + strPart;
    return strOut.empty() ? "/" : strOut;
}

int RemoveOne(const char* szPath, const struct stat*, int nType, struct FTW*)
{
    // Depth first, links not followed: a link is removed, never its target.
    if (nType == FTW_DP) {
        rmdir(szPath);
    } else {
        unlink(szPath);
    }
    return 0;
}

} // namespace

bool CacheDirIsRoot(const std::string& strDir)
{
    if (strDir.empty() || LexicalAbsolute(strDir) == "/") return true;
    // Links too: a directory that resolves to the root is the root.
    char szReal[PATH_MAX];
    return realpath(strDir.c_str(), szReal) != nullptr && std::string(szReal) == "/";
}

int WipeCacheDir(const std::string& strDir)
{
    if (CacheDirIsRoot(strDir)) {
        Log(LOG_LEVEL_WARNING, "CFileTransCache::LoadCfg(the cache dir is the root, we do not delete it, dir: %s)",
            strDir.c_str());
        return -1;
    }
    struct stat st;
    if (lstat(strDir.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            // Within one file system, as a mount below the cache is not the cache's.
            nftw(strDir.c_str(), RemoveOne, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
        } else {
            unlink(strDir.c_str());
        }
    }
    int ret = CreateDirs(strDir);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING, "CFileTransCache::LoadCfg(make the cache dir is error, errno: %d, dir: %s)", ret,
            strDir.c_str());
    }
    return ret;
}
