#include "asn_parse.h"

#include "process.h"

namespace brel_lib {

void CPacketBuffer::Grow(unsigned int nNeeded)
{
    unsigned int nSize = nNeeded < m_nMinSize ? m_nMinSize : nNeeded;
    free(m_pPacketBuf);
    m_pPacketBuf = static_cast<char*>(malloc(nSize));
    if (m_pPacketBuf == nullptr) {
        Log(LOG_LEVEL_ERROR, "%s::PacketObjToBuffer(malloc failed, we exit, size: %u)", m_szOwner, nSize);
        ExitProcess(1);
    }
    m_nPacketBufSize = nSize;
}

bool CPacketBuffer::Allocate(unsigned int nSize)
{
    free(m_pPacketBuf);
    m_pPacketBuf = static_cast<char*>(malloc(nSize));
    m_nPacketBufSize = m_pPacketBuf == nullptr ? 0 : nSize;
    return m_pPacketBuf != nullptr;
}

} // namespace brel_lib
