/* Hazard slots: a reader publishes the address it read before it dereferences it, and re-reads
 * the cell it came from; the retirer clears the cell, then waits until no slot holds the address,
 * then frees the object. Every operation is sequentially consistent, as in the library, so spin's
 * interleaving semantics model it exactly.
 *
 * Claim checked: a reader never dereferences a freed object, and the retirer never waits for ever.
 * BROKEN: the reader trusts its first read and does not re-read the cell after publishing, so the
 * retirer's scan can pass the slot before the reader fills it.
 */
#define OBJ 1

byte cell = OBJ;      /* a queue node's thread field, or any shared pointer cell */
byte slot[2];         /* one hazard slot per reader */
bool freed = false;

active [2] proctype reader() {
    byte value;
    byte again;
read:
    value = cell;
#ifdef BROKEN
    slot[_pid] = value;
#else
    do
    :: slot[_pid] = value;
       again = cell;
       if
       :: again == value -> break
       :: else -> value = again
       fi
    od;
#endif
    if
    :: value == OBJ -> assert(!freed)   /* the dereference */
    :: else -> skip
    fi;
    slot[_pid] = 0
}

active proctype retirer() {
    cell = 0;                  /* the owner leaves the cell: no new reader can find the object */
    (slot[0] != OBJ);          /* awaitUnprotected */
    (slot[1] != OBJ);
    freed = true
}
