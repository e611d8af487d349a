/* The start handshake's failure report. The caller of start waits on the object's monitor; the new
 * thread either notifies it (success) or, when it cannot get as far as run(), takes the starter
 * cell by exchange and wakes the caller with an interrupt. The caller may also be interrupted by
 * somebody else. Whoever takes the starter cell first decides; the caller that finds it taken
 * waits for the new thread's end before it leaves start.
 *
 * Claims checked: start always ends (no hang: the model has no invalid end state); the new thread
 * never touches the caller after the caller has left start; a failure is never reported to the
 * caller as a success.
 * BROKEN: the caller leaves on any interrupt without taking the cell, so a failure that comes
 * later wakes a caller that is gone.
 */
bool starter = true;     /* the cell: the caller is still there to be told */
bool notified = false;
bool interrupted = false;
bool callerGone = false;
bool threadEnded = false;
bool reportedFailure = false;
bool sawSuccess = false;

active proctype newThread() {
    bool mine;
    if
    :: notified = true                     /* success: store RUNNING, notify */
    :: atomic { mine = starter; starter = false };
       if
       :: mine -> reportedFailure = true;
                  assert(!callerGone);     /* sets the caller's flag and unparks it */
                  interrupted = true
       :: else -> skip
       fi
    fi;
    threadEnded = true
}

active proctype someoneElse() {
    if
    :: interrupted = true
    :: skip
    fi
}

active proctype caller() {
    bool mine;
    (notified || interrupted);             /* wait(0, 0) ends */
#ifdef BROKEN
    if
    :: notified && !interrupted -> sawSuccess = true
    :: else -> skip
    fi;
#else
    atomic { mine = starter; starter = false };
    if
    :: mine && notified -> sawSuccess = true
    :: mine -> skip                        /* a genuine interrupt: InterruptedException */
    :: !mine -> (threadEnded)              /* the failure: wait for the thread's end */
    fi;
#endif
    assert(!(sawSuccess && reportedFailure));
    callerGone = true
}
