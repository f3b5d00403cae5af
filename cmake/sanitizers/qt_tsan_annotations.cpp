// Happens-before annotations for Qt's locks and threads, compiled into the test executables of a
// ThreadSanitizer build only (tests/CMakeLists.txt adds it when KTD_SANITIZE contains "thread").
//
// Debian's Qt is not instrumented: QMutex, QReadWriteLock, QSemaphore and QThread::wait() order
// threads through futexes and atomics that ThreadSanitizer never sees, so every access made safe by
// them would be reported as a race. Each function below stands in for the Qt one (the executable is
// linked with exported symbols, so the library's calls bind here first), calls the real function
// found with dlsym(RTLD_NEXT) and tells ThreadSanitizer the ordering it provided: a release on the
// lock's address before it is given up, an acquire after it is taken. Calls Qt makes internally are
// not redirected (Qt binds its own symbols), which is what tsan.supp covers.
//
// Owns nothing; every function may be called from any thread, as the Qt function it stands for.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutex>
#include <QReadWriteLock>
#include <QSemaphore>
#include <QThread>
#include <QWaitCondition>

#include <sanitizer/tsan_interface.h>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace {

template <typename F>
F real_function(const char* mangled)
{
    void* p = dlsym(RTLD_NEXT, mangled);
    if (!p) {
        // Without the real function every lock would silently do nothing: stop loudly instead.
        std::fprintf(stderr, "qt_tsan_annotations: %s not found in Qt\n", mangled);
        std::abort();
    }
    return reinterpret_cast<F>(p);
}

inline void acquire(const void* p) { __tsan_acquire(const_cast<void*>(p)); }
inline void release(const void* p) { __tsan_release(const_cast<void*>(p)); }

} // namespace

#define KTD_REAL(type, mangled) static const auto real = real_function<type>(mangled)

// --- QMutex (QMutexLocker calls these out-of-line functions) ---

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    KTD_REAL(void (*)(QMutex*), "_ZN6QMutex4lockEv");
    real(this);
    acquire(this);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    KTD_REAL(bool (*)(QMutex*, int), "_ZN6QMutex7tryLockEi");
    const bool ok = real(this, timeout);
    if (ok)
        acquire(this);
    return ok;
}

void QMutex::unlock() noexcept
{
    KTD_REAL(void (*)(QMutex*), "_ZN6QMutex6unlockEv");
    release(this);
    real(this);
}

// --- QBasicMutex: the inline fast path uses instrumented atomics; only the contended path is here ---

void QBasicMutex::lockInternal() QT_MUTEX_LOCK_NOEXCEPT
{
    KTD_REAL(void (*)(QBasicMutex*), "_ZN11QBasicMutex12lockInternalEv");
    real(this);
    acquire(this);
}

bool QBasicMutex::lockInternal(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    KTD_REAL(bool (*)(QBasicMutex*, int), "_ZN11QBasicMutex12lockInternalEi");
    const bool ok = real(this, timeout);
    if (ok)
        acquire(this);
    return ok;
}

void QBasicMutex::unlockInternal() noexcept
{
    KTD_REAL(void (*)(QBasicMutex*), "_ZN11QBasicMutex14unlockInternalEv");
    release(this);
    real(this);
}

// --- QReadWriteLock: readers release too, which orders later readers after earlier ones; readers
// holding the lock at the same time stay unordered, so a write made under a read lock is still seen ---

void QReadWriteLock::lockForRead()
{
    KTD_REAL(void (*)(QReadWriteLock*), "_ZN14QReadWriteLock11lockForReadEv");
    real(this);
    acquire(this);
}

bool QReadWriteLock::tryLockForRead()
{
    KTD_REAL(bool (*)(QReadWriteLock*), "_ZN14QReadWriteLock14tryLockForReadEv");
    const bool ok = real(this);
    if (ok)
        acquire(this);
    return ok;
}

bool QReadWriteLock::tryLockForRead(int timeout)
{
    KTD_REAL(bool (*)(QReadWriteLock*, int), "_ZN14QReadWriteLock14tryLockForReadEi");
    const bool ok = real(this, timeout);
    if (ok)
        acquire(this);
    return ok;
}

void QReadWriteLock::lockForWrite()
{
    KTD_REAL(void (*)(QReadWriteLock*), "_ZN14QReadWriteLock12lockForWriteEv");
    real(this);
    acquire(this);
}

bool QReadWriteLock::tryLockForWrite()
{
    KTD_REAL(bool (*)(QReadWriteLock*), "_ZN14QReadWriteLock15tryLockForWriteEv");
    const bool ok = real(this);
    if (ok)
        acquire(this);
    return ok;
}

bool QReadWriteLock::tryLockForWrite(int timeout)
{
    KTD_REAL(bool (*)(QReadWriteLock*, int), "_ZN14QReadWriteLock15tryLockForWriteEi");
    const bool ok = real(this, timeout);
    if (ok)
        acquire(this);
    return ok;
}

void QReadWriteLock::unlock()
{
    KTD_REAL(void (*)(QReadWriteLock*), "_ZN14QReadWriteLock6unlockEv");
    release(this);
    real(this);
}

// --- QSemaphore ---

void QSemaphore::acquire(int n)
{
    KTD_REAL(void (*)(QSemaphore*, int), "_ZN10QSemaphore7acquireEi");
    real(this, n);
    ::acquire(this);
}

bool QSemaphore::tryAcquire(int n)
{
    KTD_REAL(bool (*)(QSemaphore*, int), "_ZN10QSemaphore10tryAcquireEi");
    const bool ok = real(this, n);
    if (ok)
        ::acquire(this);
    return ok;
}

bool QSemaphore::tryAcquire(int n, int timeout)
{
    KTD_REAL(bool (*)(QSemaphore*, int, int), "_ZN10QSemaphore10tryAcquireEii");
    const bool ok = real(this, n, timeout);
    if (ok)
        ::acquire(this);
    return ok;
}

void QSemaphore::release(int n)
{
    KTD_REAL(void (*)(QSemaphore*, int), "_ZN10QSemaphore7releaseEi");
    ::release(this);
    real(this, n);
}

// --- QWaitCondition: the mutex is given up and taken again inside Qt ---

bool QWaitCondition::wait(QMutex* m, QDeadlineTimer deadline)
{
    KTD_REAL(bool (*)(QWaitCondition*, QMutex*, QDeadlineTimer),
             "_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer");
    release(m);
    const bool ok = real(this, m, deadline);
    acquire(m);
    return ok;
}

bool QWaitCondition::wait(QMutex* m, unsigned long time)
{
    KTD_REAL(bool (*)(QWaitCondition*, QMutex*, unsigned long), "_ZN14QWaitCondition4waitEP6QMutexm");
    release(m);
    const bool ok = real(this, m, time);
    acquire(m);
    return ok;
}

bool QWaitCondition::wait(QReadWriteLock* l, QDeadlineTimer deadline)
{
    KTD_REAL(bool (*)(QWaitCondition*, QReadWriteLock*, QDeadlineTimer),
             "_ZN14QWaitCondition4waitEP14QReadWriteLock14QDeadlineTimer");
    release(l);
    const bool ok = real(this, l, deadline);
    acquire(l);
    return ok;
}

bool QWaitCondition::wait(QReadWriteLock* l, unsigned long time)
{
    KTD_REAL(bool (*)(QWaitCondition*, QReadWriteLock*, unsigned long),
             "_ZN14QWaitCondition4waitEP14QReadWriteLockm");
    release(l);
    const bool ok = real(this, l, time);
    acquire(l);
    return ok;
}

// --- QThread: Qt's threads are detached, so the end of run() reaches wait() only through Qt ---

void QThread::start(Priority priority)
{
    KTD_REAL(void (*)(QThread*, Priority), "_ZN7QThread5startENS_8PriorityE");
    // finished() is emitted on the thread itself after run() returns: a direct connection runs
    // there, after everything the thread did.
    QObject::connect(this, &QThread::finished, this, [this] { release(this); }, Qt::DirectConnection);
    real(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    KTD_REAL(bool (*)(QThread*, QDeadlineTimer), "_ZN7QThread4waitE14QDeadlineTimer");
    const bool ok = real(this, deadline);
    if (ok)
        acquire(this);
    return ok;
}

bool QThread::wait(unsigned long time)
{
    KTD_REAL(bool (*)(QThread*, unsigned long), "_ZN7QThread4waitEm");
    const bool ok = real(this, time);
    if (ok)
        acquire(this);
    return ok;
}

bool QThread::isFinished() const
{
    KTD_REAL(bool (*)(const QThread*), "_ZNK7QThread10isFinishedEv");
    const bool done = real(this);
    if (done)
        acquire(this);
    return done;
}

// --- QCoreApplication::postEvent: the event changes hands through Qt's queue. The receiving side
// acquires in the notify() of tests/test_support.h's Application, which tests with receivers on
// other threads use ---

void QCoreApplication::postEvent(QObject* receiver, QEvent* event, int priority)
{
    KTD_REAL(void (*)(QObject*, QEvent*, int), "_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
    release(event);
    real(receiver, event, priority);
}
