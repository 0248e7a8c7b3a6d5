#include "process_common/work_id_history.h"

#include <algorithm>

#include "common/agent_clock.h"

namespace {

bool IdBelow(const std::pair<unsigned int, long>& entry, unsigned int nWorkId) { return entry.first < nWorkId; }

} // namespace

bool CWorkIdHistory::Contains(unsigned int nWorkId) const
{
    auto it = std::lower_bound(m_vecEntry.begin(), m_vecEntry.end(), nWorkId, IdBelow);
    return it != m_vecEntry.end() && it->first == nWorkId;
}

void CWorkIdHistory::Remember(unsigned int nWorkId, long lTime)
{
    if (m_vecEntry.empty() || m_vecEntry.back().first < nWorkId) {
        m_vecEntry.emplace_back(nWorkId, lTime);
        return;
    }
    auto it = std::lower_bound(m_vecEntry.begin(), m_vecEntry.end(), nWorkId, IdBelow);
    if (it != m_vecEntry.end() && it->first == nWorkId) {
        it->second = lTime;
    } else {
        m_vecEntry.emplace(it, nWorkId, lTime);
    }
}

size_t CWorkIdHistory::Sweep(time_t tNow, unsigned int nKeepSecond, size_t nMaxEntries)
{
    size_t nLeft = m_vecEntry.size();
    auto itOut = m_vecEntry.begin();
    for (Entry& entry : m_vecEntry) {
        PullBack(entry.second, static_cast<long>(tNow));
        unsigned int nAge = static_cast<unsigned int>(tNow - entry.second);
        if (nLeft > nMaxEntries || nAge >= nKeepSecond) {
            --nLeft;
        } else {
            *itOut++ = entry;
        }
    }
    size_t nDropped = static_cast<size_t>(m_vecEntry.end() - itOut);
    m_vecEntry.erase(itOut, m_vecEntry.end());
    // Survivors into an array of their own size, so that the peak's goes.
    if (m_vecEntry.capacity() > 2 * m_vecEntry.size()) std::vector<Entry>(m_vecEntry).swap(m_vecEntry);
    return nDropped;
}
