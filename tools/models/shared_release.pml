/* Shared release and the passing-on of wake-ups (AbstractQueuedSynchronizer's shared mode).
 *
 * A counting semaphore with no permits; W waiters each acquire one permit in shared mode, R
 * releasers each release one. Every waiter first barges once, then links a node at the tail and
 * runs the queued loop: at the front it tries, on success it moves the head and may pass a
 * wake-up on; otherwise it marks its predecessor SIGNAL, tries again, and parks. A parked thread
 * blocks until it is given a permit (no early returns in the model, so every wake-up counts).
 * Node 0 is the initial sentinel; node i belongs to waiter i. Nodes are never cancelled here.
 *
 * Claim checked: every waiter acquires. Permits released equal permits wanted, so a waiter left
 * parked at the end is a stranded waiter (spin reports an invalid end state).
 *
 * BROKEN: the release wakes the head's successor only if the head's status is not 0, clearing
 * it, and the passing-on stops at a result of 0; no mark records a release. Two releases back to
 * back while the first woken waiter has not moved the head strand the second waiter.
 */
#ifndef W
#define W 2              /* waiters */
#endif
#ifndef R
#define R 2              /* releasers */
#endif
#define NIL 255

#define CANCELLED 1
#define SIGNAL 255       /* -1 */
#define PROPAGATE 253    /* -3 */

byte permits = 0;
byte head = 0;
byte tail = 0;
byte status[W + 1];
byte prev[W + 1];
byte next[W + 1];
bool permit[W + 1];      /* each thread's park permit, indexed by its node */
byte acquired = 0;

inline tryAcquireShared(r) {
    atomic {
        if
        :: permits > 0 -> permits--; r = permits
        :: else -> r = 255            /* negative: failed */
        fi
    }
}

/* The first live node after h: next if set, else the walk from the tail. */
inline firstAfter(h, s) {
    s = next[h];
    if
    :: s == NIL ->
        byte t;
        t = tail;
        do
        :: t != h && t != NIL -> s = t; t = prev[t]
        :: else -> break
        od
    :: else -> skip
    fi
}

inline unparkSuccessor(h) {
    byte u;
    atomic { if :: status[h] == SIGNAL -> status[h] = 0 :: else -> skip fi };
    firstAfter(h, u);
    if
    :: u != NIL -> permit[u] = true
    :: else -> skip
    fi
}

proctype waiter(byte me) {
    byte r, p, st, oldHead;
    bool missed;
    tryAcquireShared(r);
    if
    :: r != 255 -> goto done
    :: else -> skip
    fi;
    atomic { p = tail; prev[me] = p; tail = me };
    next[p] = me;
loop:
    p = prev[me];
    if
    :: head == p ->
#ifndef BROKEN
        atomic { if :: status[p] == PROPAGATE -> status[p] = 0 :: else -> skip fi };
#endif
        tryAcquireShared(r);
        if
        :: r != 255 ->
            oldHead = head;
            head = me;
#ifdef BROKEN
            if
            :: r > 0 && status[me] != 0 ->   /* every waiter here is shared */
                unparkSuccessor(me)
            :: else -> skip
            fi;
#else
            missed = (status[oldHead] == PROPAGATE);
            if
            :: (r > 0 || missed) && status[me] == SIGNAL -> unparkSuccessor(me)
            :: else -> skip
            fi;
#endif
            next[p] = NIL;
            goto done
        :: else -> skip
        fi
    :: else -> skip
    fi;
    st = status[p];
    if
    :: st == SIGNAL -> atomic { permit[me] -> permit[me] = false }
    :: else -> atomic { if :: status[p] == st -> status[p] = SIGNAL :: else -> skip fi }
    fi;
    goto loop;
done:
    acquired++
}

proctype releaser() {
    byte h, st, s;
    atomic { permits++ };
#ifdef BROKEN
    h = head;
    if
    :: status[h] != 0 -> unparkSuccessor(h)
    :: else -> skip
    fi
#else
    do
    :: h = head;
       if
       :: h != tail ->
           st = status[h];
           if
           :: st == SIGNAL ->
               if
               :: atomic { status[h] == SIGNAL -> status[h] = PROPAGATE } ->
                   firstAfter(h, s);
                   if
                   :: s != NIL -> permit[s] = true
                   :: else -> skip
                   fi
               :: else -> goto again
               fi
           :: st == 0 ->
               if
               :: atomic { status[h] == 0 -> status[h] = PROPAGATE }
               :: else -> goto again
               fi
           :: else -> skip
           fi
       :: else -> skip
       fi;
       if
       :: h == head -> break
       :: else -> skip
       fi;
again: skip
    od
#endif
}

init {
    byte i;
    atomic {
        i = 0;
        do
        :: i <= W -> status[i] = 0; prev[i] = NIL; next[i] = NIL; permit[i] = false; i++
        :: else -> break
        od;
        i = 1;
        do
        :: i <= W -> run waiter(i); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < R -> run releaser(); i++
        :: else -> break
        od
    }
}
