// A recursive mutex with priority inheritance. The render thread runs at
// real-time priority and shares the FIFO lock with the pads' streaming
// threads, which run at normal priority and hold it while they convert a
// picture. Without inheritance a streaming thread preempted by ordinary load
// in the middle of a conversion keeps the render thread waiting for as long as
// the scheduler keeps it off the CPU; with it, the holder runs at the waiter's
// priority until it lets go.
#pragma once

#include <pthread.h>

#include <system_error>

class qv_pi_recursive_mutex {
public:
    qv_pi_recursive_mutex()
    {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        // Where inheritance is not supported the mutex still works, without it.
        pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
        if (pthread_mutex_init(&m_mutex, &attr) != 0) {
            pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE);
            pthread_mutex_init(&m_mutex, &attr);
        }
        pthread_mutexattr_destroy(&attr);
    }
    ~qv_pi_recursive_mutex() { pthread_mutex_destroy(&m_mutex); }
    qv_pi_recursive_mutex(const qv_pi_recursive_mutex&) = delete;
    qv_pi_recursive_mutex& operator=(const qv_pi_recursive_mutex&) = delete;

    void lock()
    {
        const int err = pthread_mutex_lock(&m_mutex);
        if (err != 0)
            throw std::system_error(err, std::generic_category(), "FIFO lock");
    }
    bool try_lock() { return pthread_mutex_trylock(&m_mutex) == 0; }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};
