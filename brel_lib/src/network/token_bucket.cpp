#include "network/token_bucket.h"

#include "log.h"
#include "util.h"

namespace brel_lib {

CNetflowTokenBucket::CNetflowTokenBucket() : m_pClock(GetNowMilliSecond) {}

unsigned int CNetflowTokenBucket::Quantum() const
{
    return static_cast<unsigned int>(static_cast<uint64_t>(m_nSpeed) * m_nGenMilliSecond / 1000);
}

void CNetflowTokenBucket::GenNewToken()
{
    unsigned int nQuantum = Quantum();
    if (m_nToken >= nQuantum) return;
    uint64_t lNow = m_pClock();
    if (lNow >= m_nLastMilliSecond + m_nGenMilliSecond) {
        m_nToken = nQuantum;
        m_nLastMilliSecond = lNow;
        Log(LOG_LEVEL_LOWEST, "CNetflowTokenBucket::GenNewToken(gen new token is ok, token size: %u)", m_nToken);
        return;
    }
    // The clock went back: restart the period from now, which costs at most one period.
    if (lNow < m_nLastMilliSecond) m_nLastMilliSecond = lNow;
}

void CNetflowTokenBucket::ReturnSomeToken(unsigned int nReturnToken)
{
    unsigned int nQuantum = Quantum();
    if (nReturnToken > nQuantum) nReturnToken = nQuantum;
    m_nToken += nReturnToken;
    if (m_nToken > m_nSpeed) m_nToken = m_nSpeed;
    if (m_nAllConsumToken >= nReturnToken) m_nAllConsumToken -= nReturnToken;
}

unsigned int CNetflowTokenBucket::GetToken(unsigned int nNeedToken)
{
    unsigned int nGrant = nNeedToken > m_nToken ? m_nToken : nNeedToken;
    m_nToken -= nGrant;
    m_nAllConsumToken += nGrant;
    return nGrant;
}

unsigned int CNetflowTokenBucket::TakeToken(unsigned int nNeedToken)
{
    unsigned int nGrant = GetToken(nNeedToken);
    if (nGrant != 0) return nGrant;
    GenNewToken();
    return GetToken(nNeedToken);
}

unsigned int CNetflowTokenBucket::DisMilliSecondNextCanGenNewToken() const
{
    uint64_t lNext = m_nLastMilliSecond + m_nGenMilliSecond;
    uint64_t lNow = m_pClock();
    return lNext > lNow ? static_cast<unsigned int>(lNext - lNow) : 0;
}

} // namespace brel_lib
