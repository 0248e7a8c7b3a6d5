#include "ini_file.h"

#include <fstream>

namespace brel_lib {

namespace {

// Only the blank counts as white space here; a tab is ordinary text.
void CutTrailingBlanks(std::string& str)
{
    size_t nEnd = str.find_last_not_of(' ');
    str.erase(nEnd == std::string::npos ? 0 : nEnd + 1);
}

void CutLeadingBlanks(std::string& str)
{
    size_t nBegin = str.find_first_not_of(' ');
    str.erase(0, nBegin == std::string::npos ? str.size() : nBegin);
}

} // namespace

int ParseIniSingleConfig(std::string& strKey, std::string& strValue, const std::string& strLine)
{
    std::string strText = strLine;
    while (!strText.empty() && strText.back() == '\r') strText.pop_back();
    CutTrailingBlanks(strText);
    CutLeadingBlanks(strText);
    if (strText.empty() || strText[0] == ';' || strText[0] == '#') return -2;

    size_t nEqual = strText.find('=');
    if (nEqual == std::string::npos) return -1;
    strKey = strText.substr(0, nEqual);
    CutTrailingBlanks(strKey);
    strValue = strText.substr(nEqual + 1);
    CutLeadingBlanks(strValue);
    return 0;
}

int CIniFile::Load(const std::string& strFileName)
{
    if (strFileName.empty()) return -1;
    std::ifstream file(strFileName);
    if (!file.is_open()) return -2;

    m_mapIni.clear();
    m_strFileName = strFileName;
    std::string strLine, strKey, strValue;
    while (std::getline(file, strLine)) {
        if (ParseIniSingleConfig(strKey, strValue, strLine) == 0) m_mapIni[strKey] = strValue;
    }
    return 0;
}

int CIniFile::Save(const std::string& strFileName)
{
    const std::string& strPath = strFileName.empty() ? m_strFileName : strFileName;
    if (strPath.empty()) return -1;
    std::ofstream file(strPath, std::ios::out | std::ios::trunc);
    if (!file.is_open()) return -2;
    for (const auto& pair : m_mapIni) file << pair.first << " = " << pair.second << '\n';
    return 0;
}

std::string CIniFile::GetIni(const std::string& strKey, const std::string& strDefault) const
{
    auto it = m_mapIni.find(strKey);
    return it == m_mapIni.end() ? strDefault : it->second;
}

int CIniFile::SetIni(const std::string& strKey, const std::string& strValue)
{
    if (strKey.empty()) return -1;
    m_mapIni[strKey] = strValue;
    return 0;
}

} // namespace brel_lib
