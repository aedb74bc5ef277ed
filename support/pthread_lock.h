// Holds a pthread mutex for one scope. The records of the C-style API carry
// pthread_mutex_t fields (so that C callers can lay them out), which
// std::lock_guard cannot take directly.
#pragma once

#include <pthread.h>

struct PthreadLock {
    pthread_mutex_t *mutex;
    explicit PthreadLock(pthread_mutex_t *m) : mutex(m) { pthread_mutex_lock(mutex); }
    ~PthreadLock() { pthread_mutex_unlock(mutex); }
    PthreadLock(const PthreadLock &) = delete;
    PthreadLock &operator=(const PthreadLock &) = delete;
};
