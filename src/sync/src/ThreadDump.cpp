#include "concurrent/ThreadDump.h"

#include <set>

#include "DumpText.h"
#include "SynchronizerDiagnostics.h"
#include "ThreadSurvey.h"

namespace mw {

namespace {

// Text inside a DOT string: quotes and backslashes escaped.
std::string dotText(const std::string& text) {
    std::string result;
    for (char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result;
}

std::string threadNode(unsigned long long serial) { return "t" + std::to_string(serial); }

std::string synchronizerNode(const void* object) { return "s" + detail::hexAddress(object); }

const char* const CYCLE_COLOUR = " color=red fontcolor=red penwidth=2";

bool inCycle(const std::vector<DeadlockCycle>& cycles, unsigned long long serial) {
    for (const DeadlockCycle& cycle : cycles) {
        if (cycle.contains(serial)) return true;
    }
    return false;
}

}  // namespace

ThreadDump ThreadDump::take() {
    detail::SynchronizerDiagnostics::Inspector inspector;
    ThreadDump dump;
    dump.m_threads = detail::ThreadSurvey::snapshotAll();
    return dump;
}

const ThreadSnapshot* ThreadDump::find(unsigned long long serial) const {
    for (const ThreadSnapshot& thread : m_threads) {
        if (thread.serial == serial) return &thread;
    }
    return nullptr;
}

std::string ThreadDump::toString() const {
    std::string text = "Thread dump: " + std::to_string(m_threads.size()) + " threads\n";
    for (const ThreadSnapshot& thread : m_threads) text += thread.toString();
    return text;
}

// The graph holds the threads that wait and the threads that hold or are joined, and one node per
// object waited on (a monitor's entries and waits share one); an edge of a cycle joins two threads
// of that cycle.
std::string ThreadDump::toDot(const std::vector<DeadlockCycle>& cycles) const {
    std::set<unsigned long long> shown;
    std::set<const void*> inCycles;
    for (const ThreadSnapshot& thread : m_threads) {
        if (!thread.isWaiting()) continue;
        shown.insert(thread.serial);
        if (thread.ownerSerial != 0 && find(thread.ownerSerial) != nullptr) {
            shown.insert(thread.ownerSerial);
        }
        if (inCycle(cycles, thread.serial) && inCycle(cycles, thread.ownerSerial)) {
            inCycles.insert(thread.waitsOn);
        }
    }
    std::string dot = "digraph waits {\n  rankdir=LR;\n  node [fontname=\"Helvetica\"];\n"
                      "  edge [fontname=\"Helvetica\" fontsize=10];\n";
    for (unsigned long long serial : shown) {
        const ThreadSnapshot& thread = *find(serial);
        dot += "  " + threadNode(serial) + " [shape=box label=\"" +
               dotText(detail::quoted(thread.name)) + " #" + std::to_string(serial) + "\\n" +
               detail::stateName(thread.state) + "\"" +
               (inCycle(cycles, serial) ? CYCLE_COLOUR : "") + "];\n";
    }
    std::set<const void*> objects;
    std::set<const void*> held;
    for (const ThreadSnapshot& thread : m_threads) {
        if (!thread.isWaiting()) continue;
        const bool cycleEdge = inCycle(cycles, thread.serial) && inCycle(cycles, thread.ownerSerial);
        const std::string colour = cycleEdge ? CYCLE_COLOUR : "";
        if (thread.waitKind == ThreadSnapshot::JOIN) {
            if (shown.count(thread.ownerSerial) == 0) continue;
            dot += "  " + threadNode(thread.serial) + " -> " + threadNode(thread.ownerSerial) +
                   " [label=\"joins\"" + colour + "];\n";
            continue;
        }
        if (thread.waitsOn == nullptr) continue;
        const std::string object = "\"" + synchronizerNode(thread.waitsOn) + "\"";
        if (objects.insert(thread.waitsOn).second) {
            std::string label = ThreadSnapshot::kindName(
                thread.waitKind == ThreadSnapshot::MONITOR_WAIT ? ThreadSnapshot::MONITOR_ENTER
                                                                : thread.waitKind);
            if (!thread.waitsOnName.empty()) label += " " + detail::quoted(thread.waitsOnName);
            dot += "  " + object + " [shape=ellipse label=\"" + dotText(label) + "\\n" +
                   detail::hexAddress(thread.waitsOn) + "\"" +
                   (inCycles.count(thread.waitsOn) != 0 ? CYCLE_COLOUR : "") + "];\n";
        }
        if (thread.ownerSerial != 0 && shown.count(thread.ownerSerial) != 0 &&
            held.insert(thread.waitsOn).second) {
            dot += "  " + object + " -> " + threadNode(thread.ownerSerial) +
                   " [label=\"held by\"" + colour + "];\n";
        }
        dot += "  " + threadNode(thread.serial) + " -> " + object + " [label=\"" +
               (thread.waitKind == ThreadSnapshot::MONITOR_WAIT ? "waits in" : "waits on") +
               "\"" + colour + "];\n";
    }
    return dot + "}\n";
}

}  // namespace mw
