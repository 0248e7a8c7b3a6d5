#include "server_crypto.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

namespace agent_test {

bool MakeRsaKeyPair(const std::string& strPrivatePath, const std::string& strPublicPath)
{
    std::string strCommand = "openssl genrsa -traditional -out '" + strPrivatePath + "' 2048 2>/dev/null && " +
                             "openssl rsa -in '" + strPrivatePath + "' -RSAPublicKey_out -out '" + strPublicPath +
                             "' 2>/dev/null";
    return system(strCommand.c_str()) == 0;
}

std::string RsaPrivateDecrypt(const std::string& strPrivatePath, const std::string& strCipher)
{
    FILE* pFile = fopen(strPrivatePath.c_str(), "rb");
    if (pFile == nullptr) return std::string();
    EVP_PKEY* pKey = PEM_read_PrivateKey(pFile, nullptr, nullptr, nullptr);
    fclose(pFile);
    if (pKey == nullptr) return std::string();
    std::string strPlain;
    size_t nKeySize = static_cast<size_t>(EVP_PKEY_get_size(pKey));
    EVP_PKEY_CTX* pCtx = EVP_PKEY_CTX_new(pKey, nullptr);
    bool bOk = pCtx != nullptr && EVP_PKEY_decrypt_init(pCtx) == 1 &&
               EVP_PKEY_CTX_set_rsa_padding(pCtx, RSA_PKCS1_PADDING) == 1 && strCipher.size() % nKeySize == 0;
    for (size_t nPos = 0; bOk && nPos < strCipher.size(); nPos += nKeySize) {
        std::vector<unsigned char> out(nKeySize);
        size_t nOut = out.size();
        bOk = EVP_PKEY_decrypt(pCtx, out.data(), &nOut,
                               reinterpret_cast<const unsigned char*>(strCipher.data()) + nPos, nKeySize) == 1;
        if (bOk) strPlain.append(reinterpret_cast<const char*>(out.data()), nOut);
    }
    EVP_PKEY_CTX_free(pCtx);
    EVP_PKEY_free(pKey);
    return bOk ? strPlain : std::string();
}

std::string AesEncrypt(const std::string& strKey, const std::string& strPlain)
{
    const EVP_CIPHER* pCipher = strKey.size() == 16   ? EVP_aes_128_ecb()
                                : strKey.size() == 24 ? EVP_aes_192_ecb()
                                : strKey.size() == 32 ? EVP_aes_256_ecb()
                                                      : nullptr;
    if (pCipher == nullptr) return std::string();
    EVP_CIPHER_CTX* pCtx = EVP_CIPHER_CTX_new();
    std::vector<unsigned char> out(strPlain.size() + 32);
    int nLen = 0, nFinal = 0;
    bool bOk = EVP_EncryptInit_ex(pCtx, pCipher, nullptr, reinterpret_cast<const unsigned char*>(strKey.data()),
                                  nullptr) == 1 &&
               EVP_EncryptUpdate(pCtx, out.data(), &nLen, reinterpret_cast<const unsigned char*>(strPlain.data()),
                                 static_cast<int>(strPlain.size())) == 1 &&
               EVP_EncryptFinal_ex(pCtx, out.data() + nLen, &nFinal) == 1;
    EVP_CIPHER_CTX_free(pCtx);
    return bOk ? std::string(reinterpret_cast<const char*>(out.data()), static_cast<size_t>(nLen + nFinal)) : std::string();
}

} // namespace agent_test
