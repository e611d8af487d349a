// Uses the installed headers and library the way a client does: a lock, a monitor, a time unit.
#include <concurrent/Concurrent.h>

#include <cstdio>

int main() {
    mw::ReentrantLock<mw::FairLockPolicy> lock;
    lock.lock();
    unsigned long long holds = lock.getHoldCount();
    lock.unlock();
    mw::Object monitor;
    {
        mw::Guard guard(monitor);
        monitor.wait(0, 1);
    }
    long long ms = mw::TimeUnit::SECONDS().toMillis(3);
    std::printf("holds %llu, 3 s = %lld ms\n", holds, ms);
    return holds == 1 && ms == 3000 ? 0 : 1;
}
