#include "support/pmtfifo.h"
#include "support/pthread_lock.h"

#include <time.h>

#include <cerrno>
#include <memory>
#include <new>

#include "support/elog.h"

namespace {

enum { FIFO_FAILED = -1, FIFO_NOT_NOW = -2, FIFO_RELEASED = -3 };

// The moment `seconds` from now on the monotonic clock, which the
// conditions use, so that setting the wall clock neither cuts nor stretches
// a wait.
struct timespec deadline_after(double seconds) {
    if (seconds > 1e8) seconds = 1e8;  // about three years: keeps time_t from overflowing
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    time_t whole = time_t(seconds);
    long nanos = ts.tv_nsec + long((seconds - double(whole)) * 1e9);
    ts.tv_sec += whole + nanos / 1000000000L;
    ts.tv_nsec = nanos % 1000000000L;
    return ts;
}

// Waits on cond until ready() holds. 0 ready; FIFO_RELEASED once released,
// which wins over ready so that a released FIFO answers at once even with
// pointers still queued (a consumer handed them would keep writing to a
// link that may be stuck while the shutdown waits to join it); FIFO_NOT_NOW
// when the FIFO does not block or the time-out passed. Called with the mutex
// held. ready() is asked again after a time-out, because a timed-out waiter
// may have taken the signal meant for it.
template <class Ready>
int wait_for(Pmtfifo *fifo, pthread_cond_t *cond, Ready ready) {
    bool timed = fifo->timeout > 0;
    struct timespec deadline = timed ? deadline_after(fifo->timeout) : timespec{};
    for (;;) {
        if (fifo->release_block) return FIFO_RELEASED;
        if (ready()) return 0;
        if (!fifo->block) return FIFO_NOT_NOW;
        int rc = timed ? pthread_cond_timedwait(cond, &fifo->mutex, &deadline)
                       : pthread_cond_wait(cond, &fifo->mutex);
        if (rc == ETIMEDOUT && !fifo->release_block) return ready() ? 0 : FIFO_NOT_NOW;
    }
}

int init_sync(Pmtfifo *fifo) {
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) return -1;
    int rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0) rc = pthread_mutex_init(&fifo->mutex, nullptr);
    if (rc == 0 && (rc = pthread_cond_init(&fifo->consumer_cond, &attr)) != 0)
        pthread_mutex_destroy(&fifo->mutex);
    if (rc == 0 && (rc = pthread_cond_init(&fifo->producer_cond, &attr)) != 0) {
        pthread_cond_destroy(&fifo->consumer_cond);
        pthread_mutex_destroy(&fifo->mutex);
    }
    pthread_condattr_destroy(&attr);
    if (rc != 0) errno = rc;
    return rc == 0 ? 0 : -1;
}

}  // namespace

Pmtfifo *pmtfifo_create(int maxqueue, int block, int check) {
    if (maxqueue < 1) {
        elog_log(0, "pmtfifo_create: maxqueue %d is less than 1\n", maxqueue);
        return nullptr;
    }
    Pmtfifo *fifo = new (std::nothrow) Pmtfifo{};
    if (!fifo) {
        elog_log(1, "pmtfifo_create: malloc() error\n");
        return nullptr;
    }
    if (init_sync(fifo) != 0) {
        elog_log(1, "pmtfifo_create: pthread initialisation error\n");
        delete fifo;
        return nullptr;
    }
    fifo->maxqueue = maxqueue;
    fifo->block = block;
    fifo->check = check;
    return fifo;
}

int pmtfifo_destroy(Pmtfifo *fifo, void (*free_item)(void *)) {
    if (!fifo) return 0;
    for (MtfifoElement *e = fifo->head; e;) {
        MtfifoElement *next = e->next;
        if (free_item) free_item(e->ptr);
        delete e;
        e = next;
    }
    int rc = pthread_cond_destroy(&fifo->consumer_cond) | pthread_cond_destroy(&fifo->producer_cond) |
             pthread_mutex_destroy(&fifo->mutex);
    delete fifo;
    return rc == 0 ? 0 : -1;
}

int pmtfifo_push(Pmtfifo *fifo, void *ptr) {
    if (!fifo || (fifo->check && !ptr)) {
        elog_log(0, "pmtfifo_push: %s\n", fifo ? "nullptr refused" : "no FIFO");
        return FIFO_FAILED;
    }
    // Allocated before locking, so that no other thread waits on malloc.
    std::unique_ptr<MtfifoElement> element(new (std::nothrow) MtfifoElement{ptr, nullptr, nullptr});
    if (!element) {
        elog_log(1, "pmtfifo_push: malloc() error\n");
        return FIFO_FAILED;
    }
    PthreadLock lock(&fifo->mutex);
    int rc = wait_for(fifo, &fifo->producer_cond, [fifo] { return fifo->queue < fifo->maxqueue; });
    if (rc != 0) return rc;
    MtfifoElement *e = element.release();
    e->prev = fifo->tail;
    if (fifo->tail) fifo->tail->next = e;
    else fifo->head = e;
    fifo->tail = e;
    fifo->queue++;
    pthread_cond_signal(&fifo->consumer_cond);
    return 0;
}

int pmtfifo_pop(Pmtfifo *fifo, void **ptr) {
    if (!fifo || !ptr) {
        elog_log(0, "pmtfifo_pop: %s\n", fifo ? "no result address" : "no FIFO");
        return FIFO_FAILED;
    }
    *ptr = nullptr;
    std::unique_ptr<MtfifoElement> element;
    {
        PthreadLock lock(&fifo->mutex);
        int rc = wait_for(fifo, &fifo->consumer_cond, [fifo] { return fifo->queue > 0; });
        if (rc == FIFO_RELEASED) return rc;
        if (rc == FIFO_NOT_NOW) return 0;
        element.reset(fifo->head);
        fifo->head = element->next;
        if (fifo->head) fifo->head->prev = nullptr;
        else fifo->tail = nullptr;
        fifo->queue--;
        pthread_cond_signal(&fifo->producer_cond);
    }
    *ptr = element->ptr;
    return 0;
}

int pmtfifo_release_block(Pmtfifo *fifo) {
    if (!fifo) {
        elog_log(0, "pmtfifo_release_block: no FIFO\n");
        return -1;
    }
    PthreadLock lock(&fifo->mutex);
    fifo->release_block = 1;
    pthread_cond_broadcast(&fifo->consumer_cond);
    pthread_cond_broadcast(&fifo->producer_cond);
    return 0;
}
