// A bounded FIFO of untyped pointers shared between threads: many producers,
// any number of consumers. Every operation locks the FIFO's own mutex;
// consumers wait on consumer_cond, producers on producer_cond. Ownership of a
// pushed record passes to the FIFO and then to the thread that pops it.
//
// Results:
//   pmtfifo_push   0 queued; -1 bad argument, allocation failure or nullptr
//                  refused by check (a message is registered); -2 full
//                  without blocking, or a blocking wait that ran out of
//                  time; -3 released.
//   pmtfifo_pop    0 with the oldest pointer in *ptr, or 0 with nullptr in
//                  *ptr when none came (empty without blocking, or the
//                  blocking wait ran out of time); -1 bad argument (a message
//                  is registered); -3 released.
//
// After pmtfifo_release_block nothing waits any more: push and pop return -3
// at once, and what is still queued stays there for pmtfifo_destroy. The pop
// of a released FIFO fails rather than returning nullptr so that a consumer
// which only looks at its shutdown flag when pop fails leaves its loop,
// instead of spinning on empty successes for ever.
//
// check != 0: push refuses nullptr, which a consumer could not tell from
// "nothing came".
// timeout > 0 (seconds; set the field after creation): a blocking push or pop
// waits at most that long; 0 or less waits until it can proceed or release.
#pragma once

#include <pthread.h>

// One queued pointer in the doubly linked list from head (oldest) to tail.
struct MtfifoElement {
    void *ptr;
    MtfifoElement *next;  // toward the tail
    MtfifoElement *prev;  // toward the head
};

// The FIFO. The mutex guards every other field.
struct Pmtfifo {
    pthread_mutex_t mutex;
    pthread_cond_t consumer_cond;  // signalled when a pointer arrives or on release
    pthread_cond_t producer_cond;  // signalled when room appears or on release
    int maxqueue;                  // most pointers held at once
    int queue;                     // pointers held now
    int block;                     // push waits when full, pop when empty
    int check;                     // refuse nullptr pushes
    int release_block;             // set once by pmtfifo_release_block
    double timeout;                // seconds a blocking wait may last; <= 0: no limit
    MtfifoElement *head;
    MtfifoElement *tail;
};

// --- Life cycle ---

// A new empty FIFO holding at most maxqueue (>= 1) pointers; nullptr, after
// registering a message, on failure.
Pmtfifo *pmtfifo_create(int maxqueue, int block, int check);
// Frees the FIFO and, when free_item is given, every pointer still queued.
// No thread may be using it. Accepts nullptr. 0, or -1 on failure.
int pmtfifo_destroy(Pmtfifo *fifo, void (*free_item)(void *));

// --- Queueing ---

// Appends ptr at the tail; see the results above.
int pmtfifo_push(Pmtfifo *fifo, void *ptr);
// Takes the pointer at the head into *ptr; see the results above.
int pmtfifo_pop(Pmtfifo *fifo, void **ptr);

// --- Shutdown ---

// Wakes every waiter and keeps later calls from waiting. 0, or -1 on a
// nullptr FIFO.
int pmtfifo_release_block(Pmtfifo *fifo);
