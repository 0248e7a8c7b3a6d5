// Sample values and hand-built wire bytes of the catalogue, shared by the
// codec tests, the interop test and the fuzz corpus generator. Header only,
// with nothing but the codec under it, so that the fuzz build can use it.
#pragma once

#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "zik_pkt.h"

namespace agent_test {

// A value's bytes as a sender encodes them, in its growing block; empty on failure.
template <class T>
std::vector<unsigned char> Encoded(T& value)
{
    brel_lib::CPacketBuffer block("Test", 0);
    unsigned int nSize = 0;
    char* p = block.PacketObjToBuffer(nSize, value);
    return p == nullptr ? std::vector<unsigned char>() : std::vector<unsigned char>(p, p + nSize);
}

inline std::string Printed(const AsnType& value)
{
    std::ostringstream os;
    value.Print(os);
    return os.str();
}

// Fills any value of the catalogue: numbers and strings from a seed, lists
// with two elements, CHOICEs with the alternative the seed picks. With
// bEmpty, strings and lists stay empty. False on a value of unknown type.
inline bool FillSample(AsnType& value, unsigned int& nSeed, bool bEmpty)
{
    ++nSeed;
    if (auto* pInt = dynamic_cast<AsnInt*>(&value)) {
        static const int samples[] = {0, 1, -1, 127, 128, -129, 65535, 0x7FFFFFFF, static_cast<int>(0x80000000u), 300};
        pInt->value = static_cast<int>(static_cast<unsigned int>(samples[nSeed % 10]) + nSeed);
    } else if (auto* pOcts = dynamic_cast<AsnOcts*>(&value)) {
        if (bEmpty) {
            pOcts->ReSet("", 0);
        } else {
            std::string str = "s" + std::to_string(nSeed) + std::string(nSeed % 7 == 0 ? 200 : 3, 'x') + '\0' + "\xff";
            pOcts->ReSet(str.data(), str.size());
        }
    } else if (auto* pSeq = dynamic_cast<AsnSeq*>(&value)) {
        AsnField fields[AsnSeq::MAX_FIELDS];
        int n = pSeq->GetFields(fields);
        for (int i = 0; i < n; ++i) {
            AsnType* pField = fields[i].pValue != nullptr ? fields[i].pValue : fields[i].pPtr->MakeNew();
            if (!FillSample(*pField, nSeed, bEmpty)) return false;
        }
    } else if (auto* pList = dynamic_cast<AsnListBase*>(&value)) {
        if (!bEmpty) {
            for (int i = 0; i < 2; ++i) {
                if (!FillSample(*pList->AppendElmt(), nSeed, bEmpty)) return false;
            }
        }
    } else if (auto* pChoice = dynamic_cast<AsnChoice*>(&value)) {
        return FillSample(*pChoice->Select(static_cast<int>(nSeed % pChoice->AltCount())), nSeed, bEmpty);
    } else {
        return false;
    }
    return true;
}

inline std::vector<unsigned char> Bytes(std::initializer_list<int> list)
{
    std::vector<unsigned char> v;
    for (int n : list) v.push_back(static_cast<unsigned char>(n));
    return v;
}

// Tag octets, a definite length and the content.
inline std::vector<unsigned char> Tlv(std::vector<unsigned char> tag, const std::vector<unsigned char>& content)
{
    size_t n = content.size();
    if (n < 128) {
        tag.push_back(static_cast<unsigned char>(n));
    } else {
        std::vector<unsigned char> len;
        for (; n != 0; n >>= 8) len.insert(len.begin(), static_cast<unsigned char>(n));
        tag.push_back(static_cast<unsigned char>(0x80 | len.size()));
        tag.insert(tag.end(), len.begin(), len.end());
    }
    tag.insert(tag.end(), content.begin(), content.end());
    return tag;
}

// A packet (version 4, append 0) around the SEQUENCE of an alternative.
inline std::vector<unsigned char> PacketOf(unsigned int nTagNumber, const std::vector<unsigned char>& altContent)
{
    std::vector<unsigned char> content = Bytes({0x02, 0x01, 0x04, 0x02, 0x01, 0x00});
    std::vector<unsigned char> body = Tlv(ContextTagOctets(nTagNumber), Tlv({0x30}, altContent));
    content.insert(content.end(), body.begin(), body.end());
    return Tlv({0x30}, content);
}

inline std::vector<unsigned char> Repeat(std::initializer_list<int> unit, size_t nTimes)
{
    std::vector<unsigned char> one = Bytes(unit), all;
    all.reserve(one.size() * nTimes);
    for (size_t i = 0; i < nTimes; ++i) all.insert(all.end(), one.begin(), one.end());
    return all;
}

// A constructed OCTET STRING of n segments of the given bytes, with an
// indefinite length.
inline std::vector<unsigned char> ConstructedString(size_t n, const std::string& strSegment = "")
{
    std::vector<unsigned char> v = Bytes({0x24, 0x80});
    std::vector<unsigned char> seg = Tlv({0x04}, std::vector<unsigned char>(strSegment.begin(), strSegment.end()));
    for (size_t i = 0; i < n; ++i) v.insert(v.end(), seg.begin(), seg.end());
    v.push_back(0);
    v.push_back(0);
    return v;
}

// reqWorkCmdCreate (100) whose command is the given constructed string.
inline std::vector<unsigned char> CmdCreateWithConstructedCmd(const std::vector<unsigned char>& cmd)
{
    std::vector<unsigned char> fields = Repeat({0x02, 0x01, 0x01}, 4);
    std::vector<unsigned char> user = Bytes({0x04, 0x04, 'r', 'o', 'o', 't'});
    std::vector<unsigned char> route = Repeat({0x02, 0x01, 0x02}, 3);
    fields.insert(fields.end(), user.begin(), user.end());
    fields.insert(fields.end(), cmd.begin(), cmd.end());
    fields.insert(fields.end(), route.begin(), route.end());
    return PacketOf(100, fields);
}

} // namespace agent_test
