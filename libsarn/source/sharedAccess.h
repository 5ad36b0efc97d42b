// Accesses to what the timer thread and the analysing thread share without a lock, and a guard for spin
// locks.
#pragma once

#include <pthread.h>

#include <atomic>

// Relaxed: each value stands for itself, nothing is published through it. On the machines in question these
// are plain loads and stores.
template <typename T>
T relaxedLoad(const T& value) {
    return std::atomic_ref<T>(const_cast<T&>(value)).load(std::memory_order_relaxed);
}

template <typename T>
void relaxedStore(T& target, T value) {
    std::atomic_ref<T>(target).store(value, std::memory_order_relaxed);
}

// REQUIRES: one writer at a time.
template <typename T>
void relaxedIncrement(T& target) {
    relaxedStore(target, static_cast<T>(relaxedLoad(target) + 1));
}

class SpinGuard {
  public:
    explicit SpinGuard(pthread_spinlock_t& lock) : lock_(lock) {
        pthread_spin_lock(&lock_);
    }
    ~SpinGuard() {
        pthread_spin_unlock(&lock_);
    }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

  private:
    pthread_spinlock_t& lock_;
};
