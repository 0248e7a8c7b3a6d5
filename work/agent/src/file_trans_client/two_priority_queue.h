// Two FIFO queues under one face: the high one is always served first, with
// no fairness rule, so that a delete or a query is never held up behind a
// flood of file blocks.
#pragma once

#include <stddef.h>

#include <deque>

enum { TPQ_HIGH = 0, TPQ_LOW = 1 };

template <class T>
class CTwoPriorityQueue {
public:
    // Any priority other than TPQ_HIGH goes to the low queue.
    void push(const T& value, int nPri)
    {
        if (nPri == TPQ_HIGH) {
            m_deqReqHigh.push_back(value);
        } else {
            m_deqReqLow.push_back(value);
        }
    }
    T& front() { return m_deqReqHigh.empty() ? m_deqReqLow.front() : m_deqReqHigh.front(); }
    void pop()
    {
        if (m_deqReqHigh.empty()) {
            m_deqReqLow.pop_front();
        } else {
            m_deqReqHigh.pop_front();
        }
    }
    // Copies up to nMax values from the front of the low queue, without taking them.
    size_t PeekLow(T* pOut, size_t nMax) const
    {
        size_t n = 0;
        for (auto it = m_deqReqLow.begin(); it != m_deqReqLow.end() && n < nMax; ++it) pOut[n++] = *it;
        return n;
    }
    bool empty() const { return m_deqReqHigh.empty() && m_deqReqLow.empty(); }
    unsigned int size() const { return static_cast<unsigned int>(m_deqReqHigh.size() + m_deqReqLow.size()); }

private:
    std::deque<T> m_deqReqHigh;
    std::deque<T> m_deqReqLow;
};
