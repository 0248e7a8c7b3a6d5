// This unit alone uses libcrypto's low-level RSA and AES calls, which
// OpenSSL 3 marks deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "process_common/session_crypto.h"

#include <openssl/aes.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <stdio.h>

int RSAPublicEncrypt(char*& pOut, unsigned int& nOutLen, const char* pIn, unsigned int nInLen, rsa_st* pRsa,
                     int nPadding)
{
    pOut = nullptr;
    nOutLen = 0;
    int nKeySize = RSA_size(pRsa);
    int nChunk;
    switch (nPadding) {
    case RSA_NO_PADDING:
        nChunk = nKeySize;
        break;
    case RSA_PKCS1_OAEP_PADDING:
        nChunk = nKeySize - 41;
        break;
    case RSA_PKCS1_PADDING:
        nChunk = nKeySize - 11;
        break;
    default:
        return -1;
    }
    if (nChunk <= 0) return -1;
    unsigned int nChunks = nInLen / static_cast<unsigned int>(nChunk) + (nInLen % static_cast<unsigned int>(nChunk) != 0 ? 1 : 0);
    unsigned int nSize = nChunks * static_cast<unsigned int>(nKeySize);
    char* pBuf = new char[nSize == 0 ? 1 : nSize];
    for (unsigned int i = 0; i < nChunks; ++i) {
        unsigned int nFrom = i * static_cast<unsigned int>(nChunk);
        unsigned int nLen = nInLen - nFrom < static_cast<unsigned int>(nChunk) ? nInLen - nFrom : static_cast<unsigned int>(nChunk);
        int ret = RSA_public_encrypt(static_cast<int>(nLen), reinterpret_cast<const unsigned char*>(pIn + nFrom),
                                     reinterpret_cast<unsigned char*>(pBuf + i * static_cast<unsigned int>(nKeySize)),
                                     pRsa, nPadding);
        if (ret < 0) {
            delete[] pBuf;
            return static_cast<int>(ERR_get_error());
        }
    }
    pOut = pBuf;
    nOutLen = nSize;
    return 0;
}

int AESDecrypt(char*& pOut, unsigned int& nOutLen, const char* pIn, unsigned int nInLen, const std::string& strKey)
{
    pOut = nullptr;
    nOutLen = 0;
    AES_KEY key;
    int ret = AES_set_decrypt_key(reinterpret_cast<const unsigned char*>(strKey.data()),
                                  static_cast<int>(strKey.size() * 8), &key);
    if (ret != 0) return ret;
    // Whole blocks only: a hostile length must not make a block read run past the data.
    if (nInLen == 0 || nInLen % AES_BLOCK_SIZE != 0) return -1;
    unsigned char* pBuf = new unsigned char[nInLen];
    for (unsigned int n = 0; n < nInLen; n += AES_BLOCK_SIZE) {
        AES_decrypt(reinterpret_cast<const unsigned char*>(pIn) + n, pBuf + n, &key);
    }
    unsigned int nPad = pBuf[nInLen - 1];
    if (nPad > nInLen) {
        delete[] pBuf;
        return -1;
    }
    pOut = reinterpret_cast<char*>(pBuf);
    nOutLen = nInLen - nPad;
    return 0;
}

rsa_st* ReadPublicKey(const std::string& strPath, bool& bOpenFailed)
{
    bOpenFailed = false;
    FILE* pFile = fopen(strPath.c_str(), "rb");
    if (pFile == nullptr) {
        bOpenFailed = true;
        return nullptr;
    }
    RSA* pRsa = RSA_new();
    RSA* pRead = pRsa == nullptr ? nullptr : PEM_read_RSAPublicKey(pFile, &pRsa, nullptr, nullptr);
    fclose(pFile);
    if (pRead == nullptr) {
        RSA_free(pRsa);  // freed on the failure path too
        return nullptr;
    }
    return pRsa;
}

void FreePublicKey(rsa_st* pRsa) { RSA_free(pRsa); }

std::string RandomSecret(unsigned int nBytes, unsigned int nSeed)
{
    RAND_seed(&nSeed, sizeof(nSeed));
    std::string strSecret(nBytes, '\0');
    // No secret rather than a guessable one.
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&strSecret[0]), static_cast<int>(nBytes)) != 1) return std::string();
    return strSecret;
}
