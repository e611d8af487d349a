/* The exclusive release without a fence, paid for by a process-wide barrier in the waiter
 * (releaseState and shouldParkAfterFailedAcquire, [A1] in AbstractQueuedSynchronizer).
 *
 * The machine is x86-64 (TSO): each thread has a FIFO store buffer; a load reads the newest value
 * its own buffer holds for the variable, else memory; a locked instruction (compare-exchange,
 * exchange) and a full fence first wait until the thread's buffer is empty, then act on memory.
 * Buffers empty in the background, one store at a time, whenever the drainer of a thread runs.
 *
 * Thread 0 (the holder) owns the lock at the start; waiter i (thread i) owns node i and waits
 * behind node i - 1. Node 0 is the head. status[] holds 0 or SIGNAL; permit[] is each waiter's
 * parker permit; a park consumes the permit or blocks until it is given, never returns early.
 *
 * Release (by the owner t): state := 0 as a plain store, then load the head and its status; if
 * the status is not 0, compare-exchange it SIGNAL -> 0 and unpark the head's successor. When it
 * finds the barrier available the store stays in t's buffer while the loads run (the store-load
 * reordering TSO allows); otherwise a full fence follows the store.
 * Waiter: while its predecessor is the head, try (load state == 0, then compare-exchange 0 -> 1);
 * if that fails and the predecessor's status is not SIGNAL, compare-exchange it to SIGNAL and,
 * when it then finds the barrier available, run the barrier; then try again. With SIGNAL already
 * set, park. The owner that took the lock moves the head by exchange, and releases the same way
 * (the last waiter keeps it).
 * The holder barges: after each release it may try to take the lock again (compare-exchange),
 * and release again if it got it, ROUNDS releases at most.
 *
 * The barrier (a private expedited membarrier): when it returns, every other thread of the
 * process had an empty store buffer at some instant of the call. A running thread gets a full
 * fence from the interrupt; a thread that is not running drained its buffer when it was switched
 * out. Each thread's instant is its own, so the barrier is one atomic drain per other thread, in
 * any order, each a separate step the other threads' steps can fall between. Loads that a thread
 * ran before its instant keep the values they read.
 *
 * The availability is one process-wide flag that turns on once, at any moment, or never (the
 * registration for the barrier may come while the lock is in use): this covers a process that
 * has the barrier from the start and one that never gets it. It is safe because the release reads
 * the flag before its load of status and the waiter reads it after its compare-exchange: a waiter
 * that found it off made its SIGNAL visible before any release that found it on read the status.
 *
 * Claim checked: no lost wake-up. Releases are bounded, so a run ends; a waiter that ends blocked
 * in park (with the lock free and nobody left to release it) is an invalid end state.
 *
 * BROKEN: the fast release without the barrier. The release's load of status overtakes its
 * buffered store of state; the waiter sets SIGNAL after that load and reads state before the
 * store reaches memory, so it parks and nobody wakes it.
 * Other variants (spin -D... -a asymmetric_release.pml):
 *  BROKEN_BARRIER_BEFORE_CAS: the barrier before the compare-exchange to SIGNAL, not after it;
 *    the release can store, and read the status, between the two. (The flag is on from the
 *    start here, else reading it before the compare-exchange would be a second fault.)
 *  BROKEN_BARRIER_IF_HEAD_BEFORE: the barrier only if the predecessor was the head at the top of
 *    the loop; with WAITERS=2 the second waiter becomes first between that read and its SIGNAL.
 *  BROKEN_FLAG_BEFORE_CAS: the waiter reads the flag at the top of its loop; it can find it off
 *    and a release on, with that release's load of status before the waiter's SIGNAL.
 *  BARRIER_IF_HEAD_AFTER: the barrier only if the predecessor is the head when read again after
 *    the compare-exchange to SIGNAL (correct: a head moved later is moved by an exchange after
 *    that compare-exchange, and the new owner's release reads the status after its exchange).
 *
 * Not modelled: cancellation, timeouts and interrupts, spurious returns from park (they only add
 * retries), the first waiter's spin (more tries before the mark), fair policy (it only forbids
 * the barging). WAITERS is 1 or 2 (two waiters by default: the second is woken by the first's
 * release, and its barrier drains two other threads).
 */
#ifndef WAITERS
#define WAITERS 2
#endif
#ifndef ROUNDS
#define ROUNDS 3         /* releases by the holder */
#endif
#if WAITERS < 1 || WAITERS > 2
#error "heavyBarrier drains three threads at most"
#endif
#define T (WAITERS + 1)  /* threads: the holder and the waiters */
#define SIGNAL 1
#ifdef BROKEN_BARRIER_BEFORE_CAS
#define BARRIER_FROM_START   /* the fault needs no late registration */
#endif

byte state = 1;          /* memory; the holder owns the lock */
byte head = 0;
byte status[T];          /* memory; status[WAITERS] is never marked */
bool buffered[T];        /* thread t's buffer holds its release's store state := 0 */
bool permit[T];
#ifdef BARRIER_FROM_START
bool barrierAvailable = true;
#else
bool barrierAvailable = false;
#endif

/* A store buffer holds at most that one store: the next store to state comes after a locked
 * instruction has emptied the buffer. */
inline drain(t) {
    if
    :: buffered[t] -> state = 0; buffered[t] = false
    :: else -> skip
    fi
}

proctype drainer(byte t) {
end:
    do
    :: atomic { buffered[t] -> state = 0; buffered[t] = false }
    od
}

/* Every other thread's buffer is empty at some instant of the call; the instants are independent. */
inline heavyBarrier(me) {
    left = ((1 << T) - 1) & ~(1 << me);
    do
    :: (left & 1) -> atomic { drain(0); left = left & ~1 }
    :: (left & 2) -> atomic { drain(1); left = left & ~2 }
    :: (left & 4) -> atomic { drain(2); left = left & ~4 }
    :: left == 0 -> break
    od
}

inline casState(me, got) {
    atomic {
        drain(me);
        if
        :: state == 0 -> state = 1; got = true
        :: else -> got = false
        fi
    }
}

inline release(me) {
    assert(!buffered[me]);
    if
    :: barrierAvailable -> buffered[me] = true /* state := 0, plain */
    :: else -> buffered[me] = true; atomic { drain(me) }   /* and the full fence */
    fi;
    h = head;                                  /* may run while the store is still buffered */
    st = status[h];
    if
    :: st != 0 ->
        atomic { drain(me); if :: status[h] == SIGNAL -> status[h] = 0 :: else -> skip fi };
        permit[h + 1] = true                   /* unpark: a node is marked only by its successor */
    :: else -> skip
    fi;
    atomic { h = 0; st = 0 }
}

proctype holder() {
    byte h, st, rounds;
    bool got;
    do
    :: release(0);
       rounds++;
       if
       :: rounds < ROUNDS -> casState(0, got)  /* barging */
       :: true -> got = false                  /* or leaves */
       fi;
       if
       :: got -> got = false
       :: else -> break
       fi
    od
}

proctype waiter(byte me) {
    byte p = me - 1;
    byte h, st, left;
    bool got, first, flag;
loop:
#ifdef BROKEN_FLAG_BEFORE_CAS
    flag = barrierAvailable;
#endif
    first = (head == p);
    if
    :: first && (buffered[me] -> 0 : state) == 0 -> casState(me, got)
    :: else -> skip
    fi;
    if
    :: got -> goto acquired
    :: else -> skip
    fi;
    st = status[p];
    if
    :: st != SIGNAL ->
#if defined(BROKEN_BARRIER_BEFORE_CAS)
        if :: barrierAvailable -> heavyBarrier(me) :: else -> skip fi;
#endif
        atomic { drain(me); if :: status[p] == st -> status[p] = SIGNAL :: else -> skip fi };
#ifndef BROKEN_FLAG_BEFORE_CAS
        flag = barrierAvailable;
#endif
#if defined(BROKEN) || defined(BROKEN_BARRIER_BEFORE_CAS)
        skip
#elif defined(BROKEN_BARRIER_IF_HEAD_BEFORE)
        if :: flag && first -> heavyBarrier(me) :: else -> skip fi
#elif defined(BARRIER_IF_HEAD_AFTER)
        if :: flag && head == p -> heavyBarrier(me) :: else -> skip fi
#else
        if :: flag -> heavyBarrier(me) :: else -> skip fi
#endif
    :: else ->
        atomic { permit[me] -> permit[me] = false }   /* park */
    fi;
    atomic { st = 0; first = false; flag = false };
    goto loop;
acquired:
    atomic { drain(me); head = me };           /* setHead: an exchange */
    if
    :: me < WAITERS -> release(me)
    :: else -> skip
    fi
}

proctype registrar() {
    if
    :: barrierAvailable = true
    :: skip
    fi
}

init {
    byte t;
    atomic {
        run registrar();
        run holder();
        for (t : 1 .. WAITERS) { run waiter(t) };
        for (t : 0 .. WAITERS) { run drainer(t) }
    }
}
