/// @file Ledger.h
/// Accounts of numbered things, each of which must come, and once. One thread at a time keeps an account.
#ifndef LEDGER_H
#define LEDGER_H

#include <set>

namespace soak {

/// Numbers that come one after the other, from 1.
class InOrder {
public:
    void See(unsigned int number) {
        m_faults += number == m_last + 1 ? 0 : 1;
        m_last = number;
    }
    /// All up to this one have come, in order, and no other.
    bool IsComplete(unsigned int sent) const { return m_faults == 0 && m_last == sent; }

private:
    unsigned int m_last = 0;
    unsigned int m_faults = 0;
};

/// Numbers from 1 that come in any order.
class OnceEach {
public:
    void See(unsigned int number) {
        if (number <= m_upTo || !m_ahead.insert(number).second) {
            ++m_faults;
            return;
        }
        while (!m_ahead.empty() && *m_ahead.begin() == m_upTo + 1) {
            m_ahead.erase(m_ahead.begin());
            ++m_upTo;
        }
    }
    bool IsComplete(unsigned int sent) const { return m_faults == 0 && m_upTo == sent && m_ahead.empty(); }

private:
    unsigned int m_upTo = 0; ///< all up to this one have come
    std::set<unsigned int> m_ahead;
    unsigned int m_faults = 0;
};

/// Numbers from 1 that come in order where they come at all; what becomes of the others is in an account of its own.
class Ascending {
public:
    void See(unsigned int number) {
        m_faults += number > m_last ? 0 : 1;
        m_last = number;
        ++m_count;
        m_sum += number;
    }
    /// Each number up to this one stands in one of the two.
    bool IsCompleteWith(const Ascending& others, unsigned int sent) const {
        return m_faults == 0 && others.m_faults == 0 && m_count + others.m_count == sent &&
               m_sum + others.m_sum == 1ull * sent * (sent + 1ull) / 2;
    }

private:
    unsigned int m_last = 0;
    unsigned int m_faults = 0;
    unsigned long long m_count = 0;
    unsigned long long m_sum = 0;
};

} // namespace soak

#endif // LEDGER_H
