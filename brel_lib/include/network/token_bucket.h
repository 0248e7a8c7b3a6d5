// Rate limiter of a network loop: tokens are bytes, refilled once a period.
// Belongs to its loop's thread; no lock.
#pragma once

#include <stdint.h>

namespace brel_lib {

class CNetflowTokenBucket {
public:
    typedef uint64_t (*ClockFun)();

    CNetflowTokenBucket();

    void SetGenMilliSecond(unsigned int nMilliSecond) { m_nGenMilliSecond = nMilliSecond; }
    void SetSpeed(unsigned int nBytesPerSecond) { m_nSpeed = nBytesPerSecond; }
    // Refills to one period's quantum when a period has passed; idle time earns nothing.
    void GenNewToken();
    // Gives back unused tokens, at most a quantum, capped at one second's worth.
    void ReturnSomeToken(unsigned int nReturnToken);
    // Grants up to nNeedToken.
    unsigned int GetToken(unsigned int nNeedToken);
    // What a step asks: grants up to nNeedToken, refilling first when none are
    // at hand and a period has passed; 0 when the step must wait for tokens.
    unsigned int TakeToken(unsigned int nNeedToken);
    bool IsEmptyToken() const { return m_nToken == 0; }
    unsigned int DisMilliSecondNextCanGenNewToken() const;

    // The clock seam; tests drive time through it.
    void SetClock(ClockFun pClock) { m_pClock = pClock; }
    unsigned int GetTokenCount() const { return m_nToken; }

private:
    unsigned int Quantum() const;

    unsigned int m_nGenMilliSecond = 50;
    unsigned int m_nSpeed = 0;
    unsigned int m_nToken = 0;
    unsigned long long m_nLastMilliSecond = 0;
    unsigned long long m_nAllConsumToken = 0;  // handed out minus given back
    ClockFun m_pClock;
};

} // namespace brel_lib
