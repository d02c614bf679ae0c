// A small worker-thread base: start() runs routine() over and over on a standard thread,
// with a pause between passes, until routine() returns true or stop() is called.
#pragma once

#include "utils_export.h"

#include <QObject>

#include <atomic>
#include <thread>

class UTILS_EXPORT LoopThread : public QObject {
    Q_OBJECT
public:
    // Without a parent and without a worker; the pause is 200 ms.
    explicit LoopThread(QObject* parent = nullptr); // no parent unless one is given
    // Stops the worker. A subclass whose routine() uses its own members must call stop() in its
    // own destructor, since routine() cannot run once the subclass part is gone.
    ~LoopThread() override;

    // Starts the worker when none exists; does nothing while one exists (also after routine()
    // ended the loop, until stop() has joined it).
    void start();
    // Asks the worker to quit, waits for it and forgets it.
    void stop();
    // The worker's body.
    void startRoutine();

    // Meaningful only after start() or setQuitFlag(): the constructor leaves the flag unset.
    bool quitFlag() const { return m_quit; }
    void setQuitFlag(bool quit) { m_quit = quit; }

protected:
    // One pass of work; returning true ends the loop.
    virtual bool routine() = 0;

private:
    std::thread* m_worker = nullptr;
    // Written by one thread and read by the other.
    std::atomic<bool> m_quit;

protected:
    int m_pause = 200; // milliseconds between passes; a subclass may change it
};
