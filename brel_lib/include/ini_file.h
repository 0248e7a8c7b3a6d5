// The flat key and value file that every class reads its settings from.
//
// Lines are "key = value"; blanks around both are cut, ';' and '#' start a
// whole-line comment, lines without '=' (section headers among them) are
// skipped. Not thread-safe: each thread uses its own object.
#pragma once

#include <map>
#include <string>

namespace brel_lib {

class CIniFile {
public:
    // 0; -1 for an empty path; -2 if the file can't be opened (object unchanged).
    int Load(const std::string& strFileName);
    int Reload() { return Load(m_strFileName); }
    // Writes every pair as "key = value" in key order; comments are lost.
    int Save(const std::string& strFileName);

    // The stored value, even an empty one; the default only for a missing key.
    std::string GetIni(const std::string& strKey, const std::string& strDefault) const;
    std::string operator[](const std::string& strKey) const { return GetIni(strKey, ""); }
    int SetIni(const std::string& strKey, const std::string& strValue);
    std::string GetFileName() const { return m_strFileName; }

private:
    std::map<std::string, std::string> m_mapIni;
    std::string m_strFileName;
};

// Parses one line by the rules of Load: 0 with key and value, -1 without '=',
// -2 for a blank or comment line.
int ParseIniSingleConfig(std::string& strKey, std::string& strValue, const std::string& strLine);

} // namespace brel_lib
