// The cryptography of session keys: RSA encryption under the server's public
// key, AES decryption of what the server encrypts with a session key, and
// random secrets. Outputs of new[] belong to the caller (delete[]).
#pragma once

#include <string>

struct rsa_st;

// RSA_PKCS1_PADDING, the only padding the agent uses.
const int RSA_PADDING_PKCS1 = 1;

// Encrypts in chunks of the key size; 0, -1 for an unknown padding, or the
// library's error code.
int RSAPublicEncrypt(char*& pOut, unsigned int& nOutLen, const char* pIn, unsigned int nInLen, rsa_st* pRsa,
                     int nPadding);

// AES in ECB mode with the key's length choosing 128, 192 or 256 bits, and a
// padding count in the last byte. 0, the library's result for a bad key, or
// -1 for data that can't be the output of such an encryption (empty, not a
// whole number of blocks, or a count beyond the data).
int AESDecrypt(char*& pOut, unsigned int& nOutLen, const char* pIn, unsigned int nInLen, const std::string& strKey);

// Reads the public key in PKCS#1 PEM form; null on failure, with bOpenFailed
// telling a missing file from an unreadable key. Free with FreePublicKey.
rsa_st* ReadPublicKey(const std::string& strPath, bool& bOpenFailed);
void FreePublicKey(rsa_st* pRsa);

// Random bytes, the generator seeded with the low bytes of the clock; empty
// when the generator fails.
std::string RandomSecret(unsigned int nBytes, unsigned int nSeed);
