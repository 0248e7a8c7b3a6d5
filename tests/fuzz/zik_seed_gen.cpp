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

// The bytes behind the selector byte (none when negative); false on no bytes or a failed write.
bool WriteBytes(const std::string& strPath, int nSelector, const std::vector<unsigned char>& bytes)
{
    FILE* fp = bytes.empty() ? nullptr : fopen(strPath.c_str(), "wb");
    if (fp == nullptr) {
        perror(strPath.c_str());
        return false;
    }
    bool bOk = nSelector < 0 || fputc(nSelector, fp) != EOF;
    bOk = bOk && fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    return fclose(fp) == 0 && bOk;
}

template <class T>
bool WriteRecord(const std::string& strDir, const char* szName, int nSelector)
{
    T value;
    unsigned int nSeed = 5;
    return agent_test::FillSample(value, nSeed, false) &&
           WriteBytes(strDir + "/" + szName, nSelector, agent_test::Encoded(value));
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
            if (!WriteBytes(strDir + "/" + strName, nPacket, agent_test::Encoded(packet))) return 1;
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
