// TsanCondition: a lock's condition as a program built with ThreadSanitizer is given it
// (TsanAnnotations.h). A wait gives the lock up and takes it back inside the library, where
// ThreadSanitizer sees nothing; this wrapper, compiled with the program, tells it so around every
// wait, on the address the lock's own annotations use. Made by newCondition only where the
// annotations are on; the locks accept it (and unwrap it) wherever it comes from.
#ifndef MW_CONCURRENT_TSAN_CONDITION_H
#define MW_CONCURRENT_TSAN_CONDITION_H

#include "AbstractQueuedSynchronizer.h"
#include "Condition.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"

namespace mw {
namespace detail {

class TsanCondition final : public Condition {
public:
    // Owns condition; lock is the address of the lock's annotations.
    // Thread dumps show this object, which the program holds, for waits on condition.
    TsanCondition(Condition* condition, const void* lock) : m_condition(condition), m_lock(lock) {
        AbstractQueuedSynchronizer::ConditionObject* object =
            dynamic_cast<AbstractQueuedSynchronizer::ConditionObject*>(condition);
        if (object != nullptr) object->setDiagnosticIdentity(this);
    }
    virtual ~TsanCondition() { delete m_condition; }

    using Condition::await;
    using Condition::awaitUntil;

    virtual bool await(long long time, const TimeUnit& unit) const {
        TsanMonitorWait span(m_lock);
        return m_condition->await(time, unit);
    }
    virtual void await() const {
        TsanMonitorWait span(m_lock);
        m_condition->await();
    }
    virtual void awaitUninterruptibly() const {
        TsanMonitorWait span(m_lock);
        m_condition->awaitUninterruptibly();
    }
    virtual long long awaitNanos(long long nanosTimeout) const {
        TsanMonitorWait span(m_lock);
        return m_condition->awaitNanos(nanosTimeout);
    }
    virtual bool awaitUntil(long long deadline) const {
        TsanMonitorWait span(m_lock);
        return m_condition->awaitUntil(deadline);
    }
    virtual void signal() const { m_condition->signal(); }
    virtual void broadcast() const { m_condition->broadcast(); }

    // The condition that the library made, for the lock's own inspection of its conditions.
    static const Condition* unwrap(const Condition* condition) {
        const TsanCondition* wrapper = dynamic_cast<const TsanCondition*>(condition);
        return wrapper != nullptr ? wrapper->m_condition : condition;
    }

    TsanCondition(const TsanCondition&) = delete;
    TsanCondition& operator=(const TsanCondition&) = delete;

private:
    Condition* m_condition;
    const void* m_lock;
};

// condition as the including program should get it: wrapped where the annotations are on.
inline Condition* annotatedCondition(Condition* condition, const void* lock) {
#if MW_SYNC_TSAN_ANNOTATIONS
    try {
        return new TsanCondition(condition, lock);
    } catch (...) {
        delete condition;
        throw;
    }
#else
    (void)lock;
    return condition;
#endif
}

}  // namespace detail
}  // namespace mw

#endif
