// libFuzzer target: what a hostile server can put into encData — any bytes,
// under a key of any length — goes through the decryption and the decoder of
// the encrypted records without reading past its data.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "asn_parse.h"
#include "process_common/session_crypto.h"
#include "zik_pkt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize < 1) return 0;
    // The first byte picks the key's length: the valid ones and some others.
    static const size_t keyLengths[] = {16, 24, 32, 0, 1, 15, 17, 31};
    size_t nKeyLen = keyLengths[pData[0] % 8];
    if (nSize < 1 + nKeyLen) return 0;
    std::string strKey(reinterpret_cast<const char*>(pData) + 1, nKeyLen);
    std::vector<char> data(pData + 1 + nKeyLen, pData + nSize);  // exact size: any over-read is caught
    char* pPlain = nullptr;
    unsigned int nPlainLen = 0;
    if (AESDecrypt(pPlain, nPlainLen, data.data(), static_cast<unsigned int>(data.size()), strKey) != 0) return 0;
    if (nPlainLen > data.size()) __builtin_trap();
    ReqWorkCmdCreateEncData record;
    unsigned int nUsed = 0;
    brel_lib::ParseFromBuffer(record, nUsed, pPlain, nPlainLen);
    delete[] pPlain;
    return 0;
}
