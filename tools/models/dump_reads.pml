/* Inspection of another thread's wait: a thread dump reads the synchronizer that a thread waits
 * on, while that thread may end its wait and another thread may destroy the synchronizer at once.
 *
 * The waiter shows its wait in a record guarded by a sequence number; ending the wait moves the
 * sequence on ([W1]). The destroyer runs only after the wait has ended (destroying a synchronizer
 * that is waited on is the program's error), and before it frees the memory it looks at the count
 * of inspectors; if there is one, it waits until no inspection slot holds the synchronizer ([W3]).
 * The inspector counts itself in, reads the record, publishes the synchronizer in its slot, and
 * reads the sequence again ([W2]); only if it is unchanged does it read the synchronizer. Every
 * operation is sequentially consistent, as in the library, so spin's interleavings model it.
 *
 * A second round of waiting (a new wait on the same synchronizer before it is destroyed) shows that
 * an inspector that read the first wait is not misled by the second.
 *
 * Claim checked: the inspector never reads a freed synchronizer; nobody waits for ever.
 * BROKEN: the inspector counts itself in only after its re-check, so the destroyer can find no
 * inspector and free the synchronizer between the re-check and the read.
 * BROKEN_NO_RECHECK: the inspector trusts its first read of the record.
 */
#define SYNC 1

byte sequence = 0;     /* even: stable; the record shows SYNC while waiting */
byte shown = 0;        /* the record's synchronizer */
byte inspectors = 0;
byte slot = 0;         /* the inspector's INSPECT slot */
bool freed = false;
bool waitsDone = false;

active proctype waiter() {
    byte round = 0;
    do
    :: round < 2 ->
       sequence = sequence + 1; shown = SYNC; sequence = sequence + 1;   /* begin */
       sequence = sequence + 1; shown = 0; sequence = sequence + 1;      /* end [W1] */
       round++
    :: else -> break
    od;
    waitsDone = true
}

active proctype destroyer() {
    waitsDone;
    if
    :: inspectors != 0 -> (slot != SYNC)    /* awaitUnprotected [W3] */
    :: else -> skip
    fi;
    freed = true
}

active proctype inspector() {
    byte before;
    byte value;
#ifndef BROKEN
    inspectors++;
#endif
    before = sequence;
    value = shown;
    if
    :: (before % 2 == 0) && before == sequence && value == SYNC ->
       slot = SYNC;                              /* [W2] */
#ifdef BROKEN_NO_RECHECK
       if :: true -> skip fi;
#else
       if
       :: sequence == before -> skip
       :: else -> goto done
       fi;
#endif
#ifdef BROKEN
       inspectors++;
#endif
       assert(!freed);                           /* reads the name and the owner */
#ifdef BROKEN
       inspectors--;
#endif
done:
       slot = 0
    :: else -> skip
    fi;
#ifndef BROKEN
    inspectors--
#endif
}
