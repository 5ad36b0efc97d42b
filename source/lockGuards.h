// Scoped holds of the POSIX locks.
#pragma once

#include <pthread.h>

class [[nodiscard]] ReadLock {
  public:
    // Null holds nothing.
    explicit ReadLock(pthread_rwlock_t* lock) : m_lock(lock) {
        if (m_lock) {
            pthread_rwlock_rdlock(m_lock);
        }
    }
    ~ReadLock() {
        unlock();
    }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

    // Ends the hold early; returns the unlock result, 0 when nothing is held.
    int unlock() {
        pthread_rwlock_t* lock = m_lock;
        m_lock = nullptr;
        return lock ? pthread_rwlock_unlock(lock) : 0;
    }

  private:
    pthread_rwlock_t* m_lock;
};

class [[nodiscard]] WriteLock {
  public:
    explicit WriteLock(pthread_rwlock_t* lock) : m_lock(lock) {
        pthread_rwlock_wrlock(m_lock);
    }
    ~WriteLock() {
        pthread_rwlock_unlock(m_lock);
    }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

  private:
    pthread_rwlock_t* m_lock;
};

class [[nodiscard]] SpinLock {
  public:
    explicit SpinLock(pthread_spinlock_t* lock) : m_lock(lock) {
        pthread_spin_lock(m_lock);
    }
    ~SpinLock() {
        pthread_spin_unlock(m_lock);
    }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

  private:
    pthread_spinlock_t* m_lock;
};
