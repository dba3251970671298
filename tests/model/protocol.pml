/* The protocol between worker, scanner and supervisor, for `spin`; ./run checks it.
 *
 * One slot that two tasks use one after the other. Both carry the same id, the worst case: no check
 * of the id tells them apart, and their locks have one name. The second task gets a worker of its
 * own, or that of the first, if it stays. A worker may die or hang before each of its steps, also
 * with the lock. Every d_step is one step of the code, which others see done or not done; under a
 * lock there are several, so that a write without the lock is seen.
 *
 * Looks that find nothing to do change nothing and are left out. So every run is finite (./run shows
 * that there is no cycle), and a task that never ends is a run that stops where it must not.
 *
 * A final code is taken by early passes alone, which the supervisor causes: if one of them could be
 * lost, a run would stop there. The pass of each second, which would make that good, takes no more
 * than a value.
 */
/* Faults in the code, and assumptions that do not hold. ./run sets FAULT to each; spin has to find
 * it. */
#define POST_AT_ONCE 1         /* the first look that meets a busy lock already posts */
#define POST_FOR_THE_LIVING 2  /* such looks count while the worker lives */
#define NO_POST 3              /* a lock that its holder took to the grave stays taken */
#define WRITE_UNLOCKED 4       /* the supervisor writes without the lock */
#define STOP_UNLOCKED 5        /* the stop word is stored without the lock */
#define IGNORE_END_TAKEN 6     /* the supervisor speaks after the scanner has taken a final code */
#define FREE_WITH_WORKER 7     /* the slot is freed while the worker still is there */
#define FREE_UNDELIVERED 8     /* the slot is freed before the final callback has returned */
#define NO_RESTART 9           /* nobody starts a scanner that ended when a task came */
#define STOP_BY_ID 10          /* the disk watch knows the task that it looked at by its id alone */
#define SLOW_HOLDER 11         /* a living thread has the lock for longer than a look */
#define NOBODY_STOPS 12        /* the application leaves alone what hangs where no rule ends it */
#define FORGET_LATE 13         /* the scanner forgets, behind a pass, who woke it during the pass */
#define ANSWER_APART 14        /* the answer is stored behind the code, under the lock anew */
#define ANSWER_FROM_EMPTY 15   /* the scanner reads the answer when it has emptied the slot */
#define LINE_ALONE 16          /* the worker's line over the channel causes passes, not its end */
#define IDLE_TOO_EARLY 17      /* a worker says that it is idle before it has left its lock */
#define KEEP_UNDELIVERED 18    /* its slot is freed before the final callback has returned */
#define LOSE_HAND_OVER 19      /* a task fails whose worker has died before it claimed it */
#define START_BESIDE 20        /* another one is started while that worker may still claim it */

mtype = { NOBODY, WORKER, SCANNER, SUPERVISOR, APPLICATION };

bool slotId, slotPid, slotStop, slotInfo;  /* Info: code 10 or 2 */
byte slotFinal;              /* a final code: 1 of the worker, 2 of the supervisor */
byte slotText;               /* the answer: 1 that of slotInfo, 2 that of slotFinal */
byte sem[3] = 1;             /* the lock of each task: made anew, or left free and unshared */
mtype holder[3] = NOBODY;
byte name;                   /* task whose semaphore carries the name; 0: none does */
bool alive[3], hung[3];      /* worker processes: the one started for each task */
byte serving;                /* process that the watch follows */
bool idle, warm;             /* process 1: it says so; it waits, and its slot is free */
bool handed, offer;          /* task 2 goes to process 1, which has not claimed it; is on its way */
byte owner;                  /* task that has the slot and its watch; 0: both are free */
bool started, gone, answered, delivered, stopAsked, stopStored; byte missed;  /* the watch */
bool endTaken;               /* g_TaskEndTaken */
bool early;                  /* the scanner's pause ends early */
byte node;                   /* task in the map; 0: the map is empty */
bool watchMutex, mapMutex, noScanner = true;  /* the last: g_ScanThradIsExit */
bool wish;                   /* the task will be stopped at some time */
byte finals[3];              /* final callbacks of each task */

#define LOCK(t, who) d_step { sem[t] > 0 -> sem[t]--; holder[t] = who }
#define UNLOCK(t) d_step { sem[t]++; assert(sem[t] == 1); holder[t] = NOBODY }
/* What every write into the slot is: by the holder of the lock, for the task that has the slot. */
#define WRITES(t, who) assert(owner == t && holder[t] == who)
#define EMPTY (!slotId && !slotPid && !slotStop && !slotInfo && !slotFinal && !slotText)
#define CLEAR slotId = false; slotPid = false; slotStop = false; slotInfo = false; slotFinal = 0; \
    slotText = 0
/* Who takes a worker's code has the answer that goes with it. */
#define HAS_ANSWER assert((slotFinal != 1 || slotText == 2) && (!slotInfo || slotText != 0))
#define FREE sem[owner] = 1; holder[owner] = NOBODY; name = 0; owner = 0; started = false; \
    gone = false; answered = false; delivered = false; stopAsked = false; stopStored = false; \
    missed = 0; wish = false; idle = false; handed = false

#define START(t) if :: alive[t] = true :: true fi  /* the fork may fail */

/* A step of a worker, in whose place it may die, or hang until it is killed. */
#define STEP(s) if :: s :: alive[p] = false :: hung[p] = true; false fi

proctype Worker(byte p) {
    bool stop, info;
    byte final, t = p;  /* its task */
end: alive[p];
    {
        do
        :: if :: slotId :: else -> goto leave fi;
            /* Opens its lock by the name: it is the manager's. That of a later task is given. */
            STEP(d_step { assert(name == t || p != t) });
            /* The claim copies the whole slot and writes it back. */
            STEP(LOCK(t, WORKER));
            STEP(d_step { stop = slotStop; info = slotInfo; final = slotFinal });
            STEP(d_step { WRITES(t, WORKER); assert(serving == p);
                          slotPid = true; slotStop = stop; slotInfo = info; slotFinal = final;
                          stop = false; info = false; final = 0;
                          assert(!stopStored || slotStop) });  /* a stored stop word stays */
            STEP(UNLOCK(t));
            if
            :: true                              /* no answer */
            :: slotId -> STEP(LOCK(t, WORKER));  /* a value: the id is checked before the lock */
                STEP(d_step { WRITES(t, WORKER); slotInfo = true; slotText = 1 }); STEP(UNLOCK(t))
            fi;
            STEP(LOCK(t, WORKER));
            if
            :: slotId ->
                STEP(d_step { WRITES(t, WORKER); slotFinal = 1;
                              if :: FAULT == ANSWER_APART :: else -> slotText = 2 fi })
            :: else
            fi;
            STEP(UNLOCK(t));
            if
            :: true -> break
            :: STEP(early = true); break  /* its line over the channel; nobody counts on it */
            :: t == 1 ->                  /* it stays, and says so */
#if FAULT == IDLE_TOO_EARLY
                STEP(d_step { idle = true; early = true });
                STEP(name = 0);
#else
                STEP(name = 0);
                STEP(d_step { idle = true; early = true });
#endif
                STEP(d_step { offer -> offer = false; t = 2 })  /* or its time ends: it dies */
            fi
        od;
leave:  if :: p == t -> STEP(name = 0) :: else fi;
        alive[p] = false
    } unless { !alive[p] }
}

proctype Scanner() {
    byte t;
    bool info, final;
end: do
    :: !noScanner ->
        do
        :: d_step { !mapMutex && node == 0 -> CLEAR } -> break
        :: d_step { !mapMutex && node != 0 && (early || (slotInfo && !slotFinal)) -> t = node;
                    if :: FAULT == FORGET_LATE :: else -> early = false fi };
            LOCK(t, SCANNER);
            d_step { assert(slotId); info = slotInfo; final = slotFinal != 0; HAS_ANSWER };
            d_step { WRITES(t, SCANNER); slotInfo = false; slotFinal = false };
            if :: final -> endTaken = true :: else fi;
            UNLOCK(t);
            if
            :: final ->
                d_step { !mapMutex -> mapMutex = true };
                LOCK(t, SCANNER);
                d_step { WRITES(t, SCANNER); CLEAR;
                         assert(FAULT != ANSWER_FROM_EMPTY || slotText == 2) };
                UNLOCK(t);
                d_step { node = 0; name = 0 }; mapMutex = false;
                d_step { finals[t]++; assert(finals[t] == 1) };
                d_step { !watchMutex -> assert(owner == t); delivered = true }
            :: !final && info -> d_step { !watchMutex -> assert(owner == t); answered = true }
            :: else fi;
            d_step { t = 0; info = false; final = false;
                     if :: FAULT == FORGET_LATE -> early = false :: else fi }
        od;
        noScanner = true
    od
}

#define OWN_SLOT (!endTaken || FAULT == IGNORE_END_TAKEN)
#define SPEAKS (gone && OWN_SLOT && !slotFinal)
#define STORES (!gone && OWN_SLOT && !slotFinal && slotId && stopAsked && !stopStored)
#define FREES ((gone || FAULT == FREE_WITH_WORKER) && (delivered || FAULT == FREE_UNDELIVERED))
#define KEEPS (idle && !gone && (delivered || FAULT == KEEP_UNDELIVERED))
/* The task was handed over, and nobody has had it. */
#define UNANSWERED (gone && handed && !slotPid && !stopAsked && OWN_SLOT && !slotFinal)
/* A look that follows a missed one does not meet a living holder again: those have the lock for the
 * copy of one slot. The code tries for over a second; with this assumption two looks are as good. */
#define ABANDONED (FAULT == POST_AT_ONCE -> 1 : 2)
#define MISSES (sem[owner] == 0 && FAULT != NO_POST && (gone || FAULT == POST_FOR_THE_LIVING) && \
                (missed == 0 || holder[owner] == WORKER || FAULT == SLOW_HOLDER))
/* The rules that kill a worker. Their times outlast whatever still moves. */
#define OVERDUE (holder[owner] == WORKER || slotFinal || endTaken || stopAsked || \
                 !answered)

/* The lock as the supervisor takes it: tried only. */
inline Take() { if :: FAULT == WRITE_UNLOCKED :: else -> sem[owner]--; holder[owner] = SUPERVISOR fi }
inline Give() { if :: FAULT == WRITE_UNLOCKED :: else -> UNLOCK(owner) fi }

/* Each alternative is a look or a part of one. */
proctype Supervisor() {
end: do
    :: d_step { !watchMutex && started && !gone && !alive[serving] ->
                gone = true; missed = 0; early = (FAULT != LINE_ALONE || early) }
    :: d_step { !watchMutex && started && FREES -> FREE }
    :: d_step { !watchMutex && started && KEEPS -> warm = true; FREE }
    /* An idle worker has died; or hangs, which its time ends. */
    :: d_step { !watchMutex && warm && !alive[1] -> warm = false }
    :: d_step { !watchMutex && warm && alive[1] && hung[1] -> alive[1] = false; hung[1] = false }
    :: d_step { !watchMutex && started && !FREES && sem[owner] > 0 &&
                (SPEAKS || STORES || missed > 0) ->
                watchMutex = true; missed = 0; Take() };
        if
        :: UNANSWERED && FAULT != LOSE_HAND_OVER ->
            d_step { started = false; gone = false; handed = false; offer = false; serving = 2 }
        :: SPEAKS && (!UNANSWERED || FAULT == LOSE_HAND_OVER) ->
            d_step { WRITES(owner, SUPERVISOR); assert(!UNANSWERED); slotId = true; slotFinal = 2;
                            early = true }
        :: STORES -> d_step { WRITES(owner, SUPERVISOR); slotStop = true; stopStored = true }
        :: else fi;
        Give(); watchMutex = false;
        if
        :: owner == 2 && !started && serving == 2 && !alive[2] -> START(2); started = true
        :: else
        fi
#if FAULT == START_BESIDE
    :: d_step { !watchMutex && started && handed && alive[1] && !slotPid && serving == 1 ->
                serving = 2; handed = false; alive[2] = true }
#endif
#if FAULT == STOP_UNLOCKED
    :: d_step { !watchMutex && started && STORES -> slotStop = true; stopStored = true }
#endif
    :: d_step { !watchMutex && started && !FREES && MISSES -> watchMutex = true; missed++ };
        if :: missed >= ABANDONED -> missed = 0; UNLOCK(owner) :: else fi;
        watchMutex = false
    :: d_step { !watchMutex && started && alive[serving] && hung[serving] && OVERDUE ->
                alive[serving] = false; hung[serving] = false }
    :: d_step { !watchMutex && started && !delivered && noScanner && FAULT != NO_RESTART ->
                noScanner = false }
    od
}

/* The application and the disk watch. Between the look at a task and its stop the slot may go to
 * the next. The application stops, too, what hangs where no rule ends it. */
proctype Stopper() {
    byte look;
end: do
    :: d_step { !watchMutex && owner != 0 && !delivered && !stopAsked &&
                (wish || (hung[serving] && FAULT != NOBODY_STOPS)) -> look = owner };
        if
        :: d_step { !watchMutex && !stopAsked &&
                    (owner == look || (owner != 0 && FAULT == STOP_BY_ID)) ->
                    assert(owner == look); stopAsked = true }
        :: owner != look || stopAsked
        fi;
        look = 0
    od
}

#define TAKE owner = t; name = t; endTaken = false; warm = false

init {
    byte t = 1;
    atomic { run Worker(1); run Worker(2); run Scanner(); run Supervisor(); run Stopper() };
    do
    :: t <= 2 ->
        /* A worker that waits gets the task, or must not have it and is killed. */
        if
        :: d_step { !watchMutex && owner == 0 && !warm -> serving = t; TAKE }
        :: d_step { !watchMutex && owner == 0 && warm -> serving = 1; handed = true; TAKE }
        :: d_step { !watchMutex && owner == 0 && warm ->
                    alive[1] = false; hung[1] = false; serving = t; TAKE }
        fi;
        if :: wish = true :: true fi;
        d_step { !mapMutex -> mapMutex = true };
        LOCK(t, APPLICATION);
        d_step { WRITES(t, APPLICATION); assert(EMPTY); slotId = true };
        UNLOCK(t);
        node = t; mapMutex = false;
        if :: noScanner -> noScanner = false :: else fi;
        if
        :: handed ->
            if
            :: d_step { !watchMutex && alive[1] -> offer = true; started = true }
            :: d_step { !watchMutex && !alive[1] -> serving = t; handed = false }; START(t);
                d_step { !watchMutex -> started = true }
            fi
        :: else -> START(t); d_step { !watchMutex -> started = true }
        fi;
        t++
    :: else -> break
    od;
    owner == 0 && !warm;  /* a run that stops here, or before the second task, has lost a task */
    assert(finals[1] == 1 && finals[2] == 1 && !alive[1] && !alive[2] && node == 0)
}
