#include "concurrent/DeadlockDetector.h"

#include <algorithm>
#include <map>

#include "SynchronizerDiagnostics.h"
#include "ThreadSurvey.h"

namespace mw {

namespace {

typedef std::vector<ThreadSnapshot> Lines;

// The waits that have an edge to the thread they wait for. A thread never waits for itself (a
// lock or monitor it holds it takes again at once); it shows itself as the owner only between
// taking the synchronizer and the end of its wait record, so that is no edge.
bool hasEdge(const ThreadSnapshot& thread) {
    switch (thread.waitKind) {
        case ThreadSnapshot::LOCK:
        case ThreadSnapshot::MONITOR_ENTER:
        case ThreadSnapshot::READ_LOCK:
        case ThreadSnapshot::WRITE_LOCK:
        case ThreadSnapshot::JOIN:
            return thread.ownerSerial != 0 && thread.ownerSerial != thread.serial;
        default:
            return false;
    }
}

// Each thread waits on one thing at most, so the graph has at most one edge out of a node, and a
// walk from any thread either ends or runs into a cycle. A walk marks what it visits with its own
// number; running into its own mark closes a new cycle, into another walk's mark an old one.
std::vector<Lines> cyclesOf(const Lines& lines) {
    std::map<unsigned long long, std::size_t> index;
    for (std::size_t i = 0; i < lines.size(); ++i) index[lines[i].serial] = i;
    std::vector<std::size_t> walkOf(lines.size(), 0);
    std::vector<Lines> cycles;
    for (std::size_t start = 0; start < lines.size(); ++start) {
        const std::size_t walk = start + 1;
        std::size_t at = start;
        bool closed = false;
        for (;;) {
            if (walkOf[at] != 0) {
                closed = walkOf[at] == walk;
                break;
            }
            walkOf[at] = walk;
            if (!hasEdge(lines[at])) break;
            std::map<unsigned long long, std::size_t>::const_iterator next =
                index.find(lines[at].ownerSerial);
            if (next == index.end()) break;  // waits for a thread that has gone
            at = next->second;
        }
        if (!closed) continue;
        Lines cycle;
        std::size_t member = at;
        do {
            cycle.push_back(lines[member]);
            member = index.find(lines[member].ownerSerial)->second;
        } while (member != at);
        std::vector<ThreadSnapshot>::iterator first = std::min_element(
            cycle.begin(), cycle.end(),
            [](const ThreadSnapshot& a, const ThreadSnapshot& b) { return a.serial < b.serial; });
        std::rotate(cycle.begin(), first, cycle.end());
        cycles.push_back(cycle);
    }
    return cycles;
}

bool allStillWaiting(const Lines& cycle) {
    for (const ThreadSnapshot& thread : cycle) {
        if (!detail::ThreadSurvey::stillWaiting(thread.serial, thread.waitSequence)) {
            return false;
        }
    }
    return true;
}

bool ownersUnchanged(const Lines& cycle) {
    for (const ThreadSnapshot& thread : cycle) {
        unsigned long long owner = 0;
        if (!detail::ThreadSurvey::ownerNow(thread.serial, thread.waitSequence, &owner) ||
            owner != thread.ownerSerial) {
            return false;
        }
    }
    return true;
}

// The first reading may mix moments. Every wait record is seen unchanged before and after every
// owner is read twice unchanged. A thread whose record is unchanged has not returned from its
// wait, so it releases nothing meanwhile: each owner held its synchronizer from its first reading
// to its second, and at any moment between the two passes over the owners every thread of the
// cycle waited on what the next one held (a thread that had already taken its synchronizer, its
// record not yet ended, would have been read as that synchronizer's owner, and no thread is its
// own successor in a cycle of two or more).
bool confirmed(const Lines& cycle) {
    return allStillWaiting(cycle) && ownersUnchanged(cycle) && ownersUnchanged(cycle) &&
           allStillWaiting(cycle);
}

}  // namespace

std::vector<DeadlockCycle> DeadlockDetector::findDeadlocks() {
    detail::SynchronizerDiagnostics::Inspector inspector;
    std::vector<DeadlockCycle> found;
    for (const Lines& cycle : cyclesOf(detail::ThreadSurvey::snapshotAll())) {
        if (!confirmed(cycle)) continue;
        DeadlockCycle deadlock;
        deadlock.threads = cycle;
        found.push_back(deadlock);
    }
    return found;
}

std::string DeadlockDetector::toString(const std::vector<DeadlockCycle>& cycles) {
    if (cycles.empty()) return "No deadlock found.\n";
    std::string text;
    for (const DeadlockCycle& cycle : cycles) text += cycle.toString();
    return text;
}

}  // namespace mw
