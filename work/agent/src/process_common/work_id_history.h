#pragma once
// The session's memory of recently created or deleted work ids, each with the
// time it was noted, which makes a repeated create or delete harmless.
//
// A flat array sorted by id rather than a tree: the ids a server hands out
// grow, so a new id nearly always goes at the end (an id out of order costs a
// move of the entries above it), and a lookup is a binary search. The entries
// of a sweep period lie together, and a sweep moves the survivors into an
// array of their own size: the pages of a burst go back to the system instead
// of staying pinned by the few tree nodes that outlive it among the others.
#include <stddef.h>
#include <time.h>

#include <utility>
#include <vector>

class CWorkIdHistory {
public:
    bool Contains(unsigned int nWorkId) const;
    // Notes the id at the time, or renews the time of a known id.
    void Remember(unsigned int nWorkId, long lTime);
    size_t Size() const { return m_vecEntry.size(); }
    size_t Capacity() const { return m_vecEntry.capacity(); }
    // Drops the entries nKeepSecond old or older and, while more than nMaxEntries
    // remain, the lowest ids first. A time in the future (the clock was set back)
    // is pulled back to tNow. Returns the number of entries dropped.
    size_t Sweep(time_t tNow, unsigned int nKeepSecond, size_t nMaxEntries);

private:
    typedef std::pair<unsigned int, long> Entry;  // work id, time noted
    std::vector<Entry> m_vecEntry;                // ascending work ids
};
