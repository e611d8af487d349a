#include "concurrent/Object.h"

#include "SynchronizerDiagnostics.h"
#include "concurrent/Condition.h"
#include "concurrent/NonFairLockPolicy.h"
#include "concurrent/ReentrantLock.h"
#include "concurrent/TimeUnit.h"

namespace mw {

namespace {

typedef ReentrantLock<NonFairLockPolicy> MonitorLock;

MonitorLock& monitorLock(Lock* lock) { return *static_cast<MonitorLock*>(lock); }

}  // namespace

Object::Object() : m_lock(nullptr), m_condition(nullptr) {
    MonitorLock* lock = new MonitorLock();
    detail::SynchronizerDiagnostics::setKind(lock->m_sync, detail::SynchronizerDiagnostics::MONITOR);
    lock->m_sync.setDiagnosticIdentity(this);
    m_lock = lock;
    try {
        m_condition = m_lock->newCondition();
    } catch (...) {
        delete m_lock;
        throw;
    }
}

Object::~Object() {
    delete m_lock;
    m_lock = nullptr;
    delete m_condition;
    m_condition = nullptr;
}

// ns only selects the form of the wait; it is neither added to the time nor rounds it up.
void Object::waitMonitor(long long ms, long long ns) const {
    if (ms == 0 && ns == 0) {
        m_condition->await();
        return;
    }
    m_condition->await(ms, TimeUnit::MILLISECONDS());
}

void Object::notify() const { m_condition->signal(); }

void Object::notifyAll() const { m_condition->broadcast(); }

void Object::lock() const { m_lock->lock(); }

void Object::release() const { m_lock->unlock(); }

void Object::setDiagnosticName(const std::string& name) const {
    monitorLock(m_lock).setDiagnosticName(name);
}

std::string Object::getDiagnosticName() const { return monitorLock(m_lock).getDiagnosticName(); }

ContentionStatistics Object::getContentionStatistics() const {
    return monitorLock(m_lock).getContentionStatistics();
}

}  // namespace mw
