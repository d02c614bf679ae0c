#include "LoopThread.h"

#include <chrono>

// The quit flag is left as it is here; start() clears it before the worker runs.
LoopThread::LoopThread(QObject* parent) : QObject(parent) {}

LoopThread::~LoopThread() {
    stop();
}

void LoopThread::start() {
    if (m_worker) return;
    m_quit = false;
    // std::system_error from a failed thread creation reaches the caller.
    m_worker = new std::thread([this] { startRoutine(); });
}

void LoopThread::stop() {
    if (!m_worker) return;
    m_quit = true;
    if (m_worker->joinable()) m_worker->join();
    // The joined thread object is forgotten but not freed.
    m_worker = nullptr;
}

void LoopThread::startRoutine() {
    if (!m_quit) {
        do {
            // A finished routine() raises the flag; a stop() that came in while routine() ran
            // is not overwritten by its "go on" answer.
            if (routine()) m_quit = true;
            if (m_pause > 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_pause));
        } while (!m_quit); // read again after the pause, so that stop() during it ends the loop
    }
    m_quit = false;
}
