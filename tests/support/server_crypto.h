// The server's side of the session key exchange, for tests: a key pair made
// at run time, RSA decryption with the private key, AES encryption with a
// session key, and bare BER records.
#pragma once

#include <string>

#include "asn_parse.h"

namespace agent_test {

// Writes a private key and its public key in PKCS#1 PEM form; false on failure.
bool MakeRsaKeyPair(const std::string& strPrivatePath, const std::string& strPublicPath);
// PKCS#1 v1.5 decryption, chunk by chunk of the key size; empty on failure.
std::string RsaPrivateDecrypt(const std::string& strPrivatePath, const std::string& strCipher);
// AES in ECB mode with PKCS#7 padding, 128, 192 or 256 bits by the key's length.
std::string AesEncrypt(const std::string& strKey, const std::string& strPlain);

template <class T>
std::string EncodeRecord(T& record)
{
    brel_lib::CPacketBuffer block("Test", 0);
    unsigned int nSize = 0;
    char* p = block.PacketObjToBuffer(nSize, record);
    return p == nullptr ? std::string() : std::string(p, nSize);
}

template <class T>
bool DecodeRecord(const std::string& strBytes, T& record)
{
    std::string strCopy = strBytes;
    unsigned int nUsed = 0;
    return brel_lib::ParseFromBuffer(record, nUsed, &strCopy[0], static_cast<unsigned int>(strCopy.size())) == 0;
}

} // namespace agent_test
