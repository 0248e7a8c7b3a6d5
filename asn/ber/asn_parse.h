// Bytes to message and back, and the growing encode block of a sending class.
#pragma once

#include <stdlib.h>

#include <string>

#include "asn_type.h"
#include "log.h"

namespace brel_lib {

// Decodes one message from the bytes; 0 or -1. nOutSize gets the bytes used
// in both cases; bytes after the message are not looked at.
template <class T>
int ParseFromBuffer(T& elem, unsigned int& nOutSize, char* pBuffer, unsigned int nSize)
{
    AsnBuf buf;
    buf.InstallData(pBuffer, nSize);
    AsnLen len = 0;
    bool bOk = elem.BDecPdu(buf, len);
    nOutSize = static_cast<unsigned int>(len);
    return bOk ? 0 : -1;
}

// Encodes into the end of the block; 0 with pOutBuffer inside the block, or
// -1 when it was too small. nOutSize is the size needed in both cases.
template <class T>
int SerializeToBuffer(char*& pOutBuffer, unsigned int& nOutSize, char* pBuffer, unsigned int nSize, T& elem)
{
    AsnBuf buf;
    buf.Init(pBuffer, nSize);
    buf.ResetInWriteRvsMode();
    AsnLen len = 0;
    bool bOk = elem.BEncPdu(buf, len);
    nOutSize = static_cast<unsigned int>(len);
    if (!bOk) return -1;
    pOutBuffer = buf.DataPtr();
    return 0;
}

// The encode block of a class that sends packets: kept between messages so
// the steady state allocates nothing, grown to the exact need when too small.
// Belongs to one thread at a time (the owner locks it if several send).
class CPacketBuffer {
public:
    // szOwner names the owning class in log lines; nMinSize is the least size
    // the block takes when it grows (0: just the size needed).
    CPacketBuffer(const char* szOwner, unsigned int nMinSize) : m_szOwner(szOwner), m_nMinSize(nMinSize) {}
    ~CPacketBuffer() { free(m_pPacketBuf); }
    CPacketBuffer(const CPacketBuffer&) = delete;
    CPacketBuffer& operator=(const CPacketBuffer&) = delete;

    // The encoded bytes inside the block, or null on an unexplained failure.
    template <class T>
    char* PacketObjToBuffer(unsigned int& nOutSize, T& elem)
    {
        char* pOut = nullptr;
        if (SerializeToBuffer(pOut, nOutSize, m_pPacketBuf, m_nPacketBufSize, elem) == 0) return pOut;
        if (nOutSize <= m_nPacketBufSize) {
            Log(LOG_LEVEL_ERROR, "%s::PacketObjToBuffer(some error 1, we do not know why)", m_szOwner);
            return nullptr;
        }
        Grow(nOutSize);
        if (SerializeToBuffer(pOut, nOutSize, m_pPacketBuf, m_nPacketBufSize, elem) == 0) return pOut;
        Log(LOG_LEVEL_ERROR, "%s::PacketObjToBuffer(some error 2, we do not know why)", m_szOwner);
        return nullptr;
    }

    // Replaces the block by a fresh one of exactly nSize bytes; false when
    // the allocation failed (the caller logs and exits).
    bool Allocate(unsigned int nSize);
    unsigned int Size() const { return m_nPacketBufSize; }

private:
    void Grow(unsigned int nNeeded);

    const char* m_szOwner;
    const unsigned int m_nMinSize;
    char* m_pPacketBuf = nullptr;
    unsigned int m_nPacketBufSize = 0;
};

} // namespace brel_lib
