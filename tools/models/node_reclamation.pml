/* Epoch reclamation of queue nodes, and the validated read of a node's next hint (Reclamation.h:
 * enterCritical [E1], tryAdvanceEpoch [E2], suspend/resumeCritical; NodePool: retire, collect,
 * makeFree, take; AbstractQueuedSynchronizer: setHead, cancellation, validSuccessor, Node::reset).
 *
 * Three nodes make a tiny queue: head, its successor, the tail (prev links back, next hints
 * forward). A reader runs one critical section: it announces (reads the global epoch, then stores
 * it: two steps), reads the head, dereferences it (reads its next hint), validates the node that
 * the hint names (status, then prev, as validSuccessor), may park (announces 0) and resume
 * (announces afresh, then reads the head again: nothing read before the park is kept),
 * dereferences what it holds once more, and leaves.
 * A retirer changes the queue up to WOPS times, in any order the queue allows:
 *  - the head's successor acquires: head moves, the new head's prev is cleared, the old head's
 *    next too, and the old head is retired with the epoch read after the head moved;
 *  - the head's successor cancels: its status becomes CANCELLED, the next node's prev moves past
 *    it, it is retired; the head's next hint still names it until a later, separate step sets
 *    the hint to the next node (as shouldParkAfterFailedAcquire does after retireCancelled);
 *  - collect frees one retired node once the global epoch is two past its stamp (makeFree:
 *    status CANCELLED, then prev null);
 *  - take reuses a free node: reset (next, then status last), prev = tail, tail, the old tail's
 *    next.
 * An advancer stands for any thread's tryAdvanceEpoch: it reads the epoch, then each announcement
 * in turn, and moves the epoch on by compare-exchange if none shows another value. The epoch
 * starts at 1 and stops at MAXE, which with WOPS bounds the state space. The loads and stores
 * whose order matters are sequentially consistent in the library ([E1], [E2], [Q6], status, the
 * head), so spin's interleaving semantics model them exactly; the stores of 0 that end a section
 * are release stores, which seen late only delay an advance. The ghost life[] counts a node's
 * reuses; isFree[] is set when the retirer decides that a node is free.
 *
 * Claims checked (assertions):
 *  - a reader never dereferences a node that was freed or reused after it read the pointer, before
 *    or after a park;
 *  - a node taken from the next hint is trusted only while it is in use and linked behind the node
 *    the hint came from, and it stays in that life for the rest of the section.
 * The correct model reaches a hint naming a node that left, that node freed and reset before the
 * reader reads its status, and a trusted node that is a reuse linked behind the head again.
 *
 * BROKEN: a retired node is freed one epoch after its stamp, not two. A reader that announced the
 * epoch current when it read the node, just before the node left, lets the epoch advance once;
 * only the second advance shows that every such reader has left.
 * Other faults, each caught with its own macro (spin -DBROKEN_... -a node_reclamation.pml):
 *  BROKEN_STAMP_BEFORE_UNLINK: the retirer reads the stamp before it moves the head; the epoch
 *    can advance in between, and a reader that announced the newer epoch still reads the node.
 *  BROKEN_NO_ANNOUNCE_CHECK: the epoch advances without looking at the announcements.
 *  BROKEN_ANNOUNCE_AFTER_READ: the reader reads the head before its announcement is stored (what
 *    a weaker order than [E1] would allow); the epoch moves on twice in between.
 *  BROKEN_KEEP_ACROSS_PARK: after a resume the reader uses the nodes it read before the park.
 *  BROKEN_PREV_BEFORE_STATUS: validation reads prev before status; the node can be freed and
 *    reset in between, and the reset's live status passes for the old life's.
 *
 * Not modelled: nested sections and refreshCritical, the retirer's own section, several
 * retirers, the caches and the shared free stack, the walk from the tail, condition nodes and
 * cancellation at the tail, memory orders weaker than sequential consistency. One reader by
 * default; -DRD=2 -DMAXE=3 -DWOPS=4 checks two (about 16 million states, 1.6 GB).
 */
#ifndef RD
#define RD 1             /* readers */
#endif
#ifndef MAXE
#define MAXE 5           /* the last epoch the advancer reaches */
#endif
#ifndef WOPS
#define WOPS 6           /* queue changes by the retirer */
#endif

#ifdef BROKEN
#define GAP 1
#else
#define GAP 2
#endif

#define N 3
#define NIL 255
#define LIVE 0           /* status <= 0: SIGNAL, PROPAGATE, 0 alike here */
#define CANCELLED 1

byte g = 1;              /* the global epoch; 0 in an announcement means outside */
byte ann[RD];
byte head = 0;
byte tail = 2;
byte status[N];
byte prev[N];
byte next[N];
/* The retirer's own bookkeeping. */
byte stamp[N];
bool retired[N];
byte fixFrom = NIL;      /* a next hint that names a node that left, until t's thread sets it */
byte fixTo = NIL;
/* Ghosts. */
bool isFree[N];
byte life[N];

/* The live queued node whose prev is p, NIL if none; the caller declares i. */
inline succOf(p, s) {
    s = NIL;
    i = 0;
    do
    :: i < N ->
        if
        :: !retired[i] && !isFree[i] && prev[i] == p && status[i] == LIVE -> s = i
        :: else -> skip
        fi;
        i++
    :: else -> break
    od
}

proctype reader(byte me) {
    byte e, h, hl, s, sl, st, pv;
    bool trusted = false;
    e = g;                                        /* enterCritical */
#ifdef BROKEN_ANNOUNCE_AFTER_READ
    atomic { h = head; hl = life[h] };
    atomic { ann[me] = e; e = 0 };
#else
    atomic { ann[me] = e; e = 0 };                /* [E1] before every node load */
    atomic { h = head; hl = life[h] };
#endif
    atomic { assert(!isFree[h] && life[h] == hl); s = next[h] };
    if
    :: s != NIL ->                                /* validSuccessor(h) */
#ifdef BROKEN_PREV_BEFORE_STATUS
        pv = prev[s];
        if
        :: pv == h ->
            atomic {
                st = status[s];
                if
                :: st == LIVE -> assert(!isFree[s] && prev[s] == h); sl = life[s]; trusted = true
                :: else -> skip
                fi;
                st = 0
            }
        :: else -> skip
        fi;
        pv = 0
#else
        st = status[s];
        if
        :: st == LIVE ->
            atomic {
                pv = prev[s];
                if
                :: pv == h -> assert(!isFree[s] && prev[s] == h); sl = life[s]; trusted = true
                :: else -> skip
                fi;
                pv = 0
            }
        :: else -> skip
        fi;
        st = 0
#endif
    :: else -> skip
    fi;
    if
    :: skip
    :: ann[me] = 0;                               /* suspendCritical: park */
       e = g;                                     /* resumeCritical */
       atomic { ann[me] = e; e = 0 };
#ifndef BROKEN_KEEP_ACROSS_PARK
       atomic { h = head; hl = life[h] };         /* nothing read before the park is kept */
       trusted = false
#endif
    fi;
    assert(!isFree[h] && life[h] == hl);          /* a later dereference of what is held */
    if
    :: trusted -> assert(!isFree[s] && life[s] == sl)
    :: else -> skip
    fi;
    ann[me] = 0                                   /* leaveCritical */
}

proctype advancer() {
    byte cur, r;
    do
    :: g < MAXE ->
        cur = g;
#ifndef BROKEN_NO_ANNOUNCE_CHECK
        r = 0;
        do
        :: r < RD && (ann[r] == 0 || ann[r] == cur) -> r++   /* [E2] one load each */
        :: r < RD && ann[r] != 0 && ann[r] != cur -> r = 0; goto failed
        :: r == RD -> r = 0; break
        od;
#endif
        atomic { if :: g == cur -> g = cur + 1 :: else -> skip fi; cur = 0 };
failed: cur = 0
    :: else -> break
    od
}

/* The retirer's locals are cleared after each change so that stale values do not split states. */
proctype retirer() {
    byte ops, i, n, s, t, old;
    bool canTakeOver, canCancel, canCollect, canReuse;
    do
    :: ops < WOPS ->
        d_step {
            succOf(head, s);
            canTakeOver = (s != NIL && fixFrom == NIL);
            canCancel = false;
            if
            :: s != NIL && fixFrom == NIL -> n = s; succOf(n, t); canCancel = (t != NIL)
            :: else -> skip
            fi;
            canCollect = false;
            canReuse = false;
            i = 0;
            do
            :: i < N ->
                canCollect = canCollect || (retired[i] && g >= stamp[i] + GAP);
                canReuse = canReuse || isFree[i];
                i++
            :: else -> break
            od;
            i = 0
        };
        if
        :: canTakeOver ->                         /* the head's successor acquires */
#ifdef BROKEN_STAMP_BEFORE_UNLINK
            atomic { old = head; stamp[old] = g };
            head = s;
#else
            atomic { old = head; head = s };      /* setHead: old is unreachable from here on */
#endif
            prev[s] = NIL;                        /* [Q6] */
            next[old] = NIL;                      /* [Q3] */
#ifdef BROKEN_STAMP_BEFORE_UNLINK
            retired[old] = true
#else
            atomic { stamp[old] = g; retired[old] = true }   /* retire: the epoch read after */
#endif
        :: canCancel ->                           /* n, the head's successor, cancels */
            status[n] = CANCELLED;                /* [Q4] */
            prev[t] = head;                       /* t's thread moves its prev past n [Q6] */
            atomic { stamp[n] = g; retired[n] = true; fixFrom = head; fixTo = t }
        :: fixFrom != NIL ->                      /* t's thread sets the hint, some time later */
            atomic { next[fixFrom] = fixTo; fixFrom = NIL; fixTo = NIL }
        :: canCollect ->                          /* collect frees one node old enough */
            atomic {
                n = 0;
                do
                :: !(retired[n] && g >= stamp[n] + GAP) -> n++
                :: else -> break
                od;
                isFree[n] = true;
                retired[n] = false;
                stamp[n] = 0
            };
            status[n] = CANCELLED;                /* makeFree */
            prev[n] = NIL
        :: canReuse ->                            /* take, reset, link at the tail */
            atomic {
                n = 0;
                do
                :: !isFree[n] -> n++
                :: else -> break
                od;
                life[n]++;
                isFree[n] = false
            };
            next[n] = NIL;                        /* reset: status last */
            status[n] = LIVE;
            prev[n] = tail;                       /* [Q1] */
            atomic { t = tail; tail = n };
            next[t] = n                           /* [Q2] */
        :: else -> break
        fi;
        d_step {
            ops++; n = 0; s = 0; t = 0; old = 0;
            canTakeOver = false; canCancel = false; canCollect = false; canReuse = false
        }
    :: else -> break
    od
}

init {
    byte r;
    atomic {
        prev[0] = NIL; prev[1] = 0; prev[2] = 1;
        next[0] = 1; next[1] = 2; next[2] = NIL;
        for (r : 0 .. RD - 1) { run reader(r) };
        run advancer();
        run retirer()
    }
}
