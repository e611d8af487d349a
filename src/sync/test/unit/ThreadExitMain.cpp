// The thread that calls exit keeps its Thread object through its atexit routines and the static
// destructors: main marks its object (name, pending interrupt) and exits holding a monitor, which
// an atexit routine can enter again only as the same thread; a static destructor, later, finds the
// same object (serial and marks, not only the address) and gives the verdict.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

const char* const MARK = "exiting main";

mw::Object* s_monitor = nullptr;
// Where main's guard lives: static storage, since exit never destroys it.
alignas(mw::Guard) unsigned char s_heldGuard[sizeof(mw::Guard)];
const mw::Thread* s_main = nullptr;
unsigned long long s_serial = 0;
std::atomic<int> s_failures{0};
std::atomic<bool> s_done{false};

void check(bool held, const char* what) {
    if (held) return;
    std::printf("FAILED: %s\n", what);
    std::fflush(stdout);
    s_failures.fetch_add(1);
}

bool isTheMainObject(const char* where) {
    const mw::Thread* self = mw::Thread::currentThread();
    bool same =
        self == s_main && self->getSerial() == s_serial && std::strcmp(self->getName(), MARK) == 0;
    if (!same) std::printf("%s runs as another Thread object\n", where);
    check(same, "the exiting thread's object changed");
    check(self->isInterrupted(), "the pending interrupt was lost");
    return same;
}

// Another object would block for ever on the monitor that main holds, so it is not tried then.
void enterTheMonitorAgain() {
    if (!isTheMainObject("an atexit routine")) return;
    mw::Guard again(s_monitor);
}

struct Verdict {
    ~Verdict() {
        isTheMainObject("a static destructor");
        if (s_failures.load() == 0) std::puts("checks passed");
        std::fflush(stdout);
        s_done.store(true);
    }
};

// Built before main, so destroyed after the atexit routine that main registers.
Verdict s_verdict;

}  // namespace

int main() {
    mwtest::startProcessWatchdog(s_done, std::chrono::seconds(60));
    s_monitor = new mw::Object;
    new (s_heldGuard) mw::Guard(s_monitor);  // never left: exit does not unwind
    mw::Thread* self = const_cast<mw::Thread*>(mw::Thread::currentThread());
    self->setName(MARK);
    self->interrupt();
    s_main = self;
    s_serial = self->getSerial();
    std::atexit(&enterTheMonitorAgain);
    std::exit(0);
}
