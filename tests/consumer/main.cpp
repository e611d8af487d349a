// A program that uses the library the way its users do, from outside its tree: through the
// installed package, pkg-config, add_subdirectory, the static library or the Windows DLL. It
// crosses the library's boundary every way a user does: inline code of the headers, exported
// functions, a thread the library starts, an exception thrown inside the library and caught here,
// and the version macros. Prints "consumer ok" when every check held.
#include <concurrent/Concurrent.h>
#include <concurrent/Version.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int g_failures = 0;

void check(bool holds, const char* what) {
    if (!holds) {
        std::printf("FAILED: %s\n", what);
        ++g_failures;
    }
}

// Counts under the lock from a thread of the library's own.
class Counter : public mw::Runnable {
public:
    explicit Counter(mw::ReentrantLock<mw::NonFairLockPolicy>& lock) : m_lock(lock) {}
    void run() override {
        for (int i = 0; i < 1000; ++i) {
            m_lock.lock();
            ++m_count;
            m_lock.unlock();
        }
    }
    int count() const { return m_count; }

private:
    mw::ReentrantLock<mw::NonFairLockPolicy>& m_lock;
    int m_count = 0;
};

void checkVersion() {
    const std::string joined = std::to_string(MW_SYNC_VERSION_MAJOR) + "." +
                               std::to_string(MW_SYNC_VERSION_MINOR) + "." +
                               std::to_string(MW_SYNC_VERSION_PATCH);
    check(joined == MW_SYNC_VERSION, "the version macros agree");
#ifdef MW_CONSUMER_EXPECTED_VERSION
    check(std::strcmp(MW_SYNC_VERSION, MW_CONSUMER_EXPECTED_VERSION) == 0,
          "Version.h carries the project version");
#endif
}

void checkLockAndThread() {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    Counter counter(lock);
    mw::Thread worker(&counter, "consumer-worker");
    worker.start();
    for (int i = 0; i < 1000; ++i) {
        lock.lock();
        lock.unlock();
    }
    worker.join();
    check(counter.count() == 1000, "a library thread ran its task to the end");
    check(worker.getState() == mw::Thread::TERMINATED, "the joined thread is terminated");
    check(std::strcmp(worker.getName(), "consumer-worker") == 0, "the thread keeps its name");
}

void checkMonitorAndTime() {
    mw::Object monitor;
    {
        mw::Guard guard(monitor);
        monitor.wait(1, 0);  // times out: nobody notifies
    }
    check(mw::TimeUnit::SECONDS().toMillis(3) == 3000, "time units convert");
    mw::CountDownLatch latch(1);
    latch.countDown();
    check(latch.await(0, mw::TimeUnit::MILLISECONDS()), "an open latch lets through");
}

// Thrown inside the library, caught here by its type: the typeinfo is the same on both sides.
void checkException() {
    mw::Object monitor;
    try {
        monitor.notify();
        check(false, "notify without the monitor throws");
    } catch (const mw::IllegalMonitorStateException& e) {
        const char* text = e.what();
        const char* file = std::strstr(text, "Error in: ");
        check(file != nullptr, "the message has the library's form");
        if (file != nullptr) {
            file += std::strlen("Error in: ");
            check(file[0] != '/' && file[1] != ':', "the message names no absolute path");
        }
    } catch (...) {
        check(false, "the library's exception is caught by its type");
    }
}

}  // namespace

int main() {
    checkVersion();
    checkLockAndThread();
    checkMonitorAndTime();
    checkException();
    if (g_failures == 0) std::printf("consumer ok: mwsync %s\n", MW_SYNC_VERSION);
    return g_failures == 0 ? 0 : 1;
}
