#include "concurrent/DefaultThreadFactory.h"

#include "concurrent/Thread.h"

namespace mw {

DefaultThreadFactory::DefaultThreadFactory()
    : m_threadNumber(1),
      m_namePrefix("pool-" + std::to_string(s_poolNumber.getAndIncrement()) + "-thread-") {}

DefaultThreadFactory::DefaultThreadFactory(const DefaultThreadFactory& other)
    : m_threadNumber(other.m_threadNumber), m_namePrefix(other.m_namePrefix) {}

DefaultThreadFactory& DefaultThreadFactory::operator=(const DefaultThreadFactory& other) {
    m_threadNumber = other.m_threadNumber;
    m_namePrefix = other.m_namePrefix;
    return *this;
}

DefaultThreadFactory::~DefaultThreadFactory() {}

Thread* DefaultThreadFactory::createThread(Runnable* target) {
    return new Thread(target, m_namePrefix + std::to_string(m_threadNumber.getAndIncrement()));
}

}  // namespace mw
