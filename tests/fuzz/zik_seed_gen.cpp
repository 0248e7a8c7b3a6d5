// Writes the seed corpus of the decoder fuzz targets from the catalogue: one
// valid packet of every alternative of Zik (filled, and with empty strings
// and lists), one record of each record that travels encrypted, and packets
// whose command is a constructed string of many segments.
//
//   zik_seed_gen DIR           seeds behind the selector byte of zik_packet_fuzz
//   zik_seed_gen --raw DIR     bare packets, for the stream framing target
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "asn_parse.h"
#include "zik_pkt.h"
#include "zik_sample.h"

namespace {

bool WriteSeed(const std::string& strPath, int nSelector, const char* pData, size_t nLen)
{
    FILE* fp = fopen(strPath.c_str(), "wb");
    if (fp == nullptr) {
        perror(strPath.c_str());
        return false;
    }
    bool bOk = true;
    if (nSelector >= 0) bOk = fputc(nSelector, fp) != EOF;
    bOk = bOk && fwrite(pData, 1, nLen, fp) == nLen;
    return fclose(fp) == 0 && bOk;
}

template <class T>
bool WriteValue(const std::string& strPath, int nSelector, T& value)
{
    brel_lib::CPacketBuffer block("SeedGen", 0);
    unsigned int nSize = 0;
    char* pOut = block.PacketObjToBuffer(nSize, value);
    return pOut != nullptr && WriteSeed(strPath, nSelector, pOut, nSize);
}

bool WriteBytes(const std::string& strPath, int nSelector, const std::vector<unsigned char>& bytes)
{
    return WriteSeed(strPath, nSelector, reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

template <class T>
bool WriteRecord(const std::string& strDir, const char* szName, int nSelector)
{
    T value;
    unsigned int nSeed = 5;
    return agent_test::FillSample(value, nSeed, false) && WriteValue(strDir + "/" + szName, nSelector, value);
}

} // namespace

int main(int argc, char** argv)
{
    bool bRaw = argc == 3 && strcmp(argv[1], "--raw") == 0;
    if (argc != 2 && !bRaw) {
        fprintf(stderr, "usage: %s [--raw] DIR\n", argv[0]);
        return 2;
    }
    std::string strDir = argv[argc - 1];
    // zik_packet_fuzz picks its decoder by the first byte: 0 the packet,
    // 1 to 3 the records that travel encrypted.
    int nPacket = bRaw ? -1 : 0;
    int nWritten = 0;
    for (int cid = 0; cid < ZIK_CHOICE_COUNT; ++cid) {
        for (bool bEmpty : {false, true}) {
            ZikPacket packet;
            packet.version = ZIK_PACKET_VERSION;
            packet.append = cid;
            packet.body = new Zik;
            unsigned int nSeed = static_cast<unsigned int>(cid);
            if (!agent_test::FillSample(*packet.body->Select(cid), nSeed, bEmpty)) return 1;
            std::string strName = std::string(bEmpty ? "empty_" : "") + packet.body->AltName(cid);
            if (!WriteValue(strDir + "/" + strName, nPacket, packet)) return 1;
            ++nWritten;
        }
    }
    // Many segments: the shape that once made decoding quadratic.
    using agent_test::CmdCreateWithConstructedCmd;
    using agent_test::ConstructedString;
    if (!WriteBytes(strDir + "/cons_empty_segments", nPacket, CmdCreateWithConstructedCmd(ConstructedString(300000))) ||
        !WriteBytes(strDir + "/cons_segments", nPacket, CmdCreateWithConstructedCmd(ConstructedString(20000, "ab")))) {
        return 1;
    }
    nWritten += 2;
    if (!bRaw) {
        if (!WriteRecord<ReqWorkCmdCreateEncData>(strDir, "enc_cmd_create", 1) ||
            !WriteRecord<ReqWorkFileDstCreate2EncData>(strDir, "enc_file_dst_create2", 2) ||
            !WriteRecord<RspSessionKeyEncData>(strDir, "enc_session_key", 3)) {
            return 1;
        }
        nWritten += 3;
    }
    printf("%d seeds written to %s\n", nWritten, strDir.c_str());
    return 0;
}
