#include "concurrent/Object.h"

#include "concurrent/Condition.h"
#include "concurrent/NonFairLockPolicy.h"
#include "concurrent/ReentrantLock.h"
#include "concurrent/TimeUnit.h"

namespace mw {

Object::Object() : m_lock(nullptr), m_condition(nullptr) {
    m_lock = new ReentrantLock<NonFairLockPolicy>();
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

}  // namespace mw
