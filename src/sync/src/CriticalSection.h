// CriticalSection: the calling thread's epoch critical section for as long as the object lives
// (see Reclamation.h). Every operation that reads queue nodes other than the caller's own holds
// one; sections nest, and a park inside one announces nothing while it blocks.
#ifndef MW_SYNC_CRITICAL_SECTION_H
#define MW_SYNC_CRITICAL_SECTION_H

#include "Park.h"
#include "Reclamation.h"

namespace mw {
namespace detail {

class CriticalSection {
public:
    CriticalSection() : m_record(currentHazards()) { m_record->enterCritical(); }
    ~CriticalSection() { m_record->leaveCritical(); }
    HazardRecord* record() const { return m_record; }
    // Where the caller keeps no node but its own: see HazardRecord::refreshCritical.
    void refresh() { m_record->refreshCritical(); }

    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

private:
    HazardRecord* m_record;
};

}  // namespace detail
}  // namespace mw

#endif
