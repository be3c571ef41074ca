// klNetNoEventDispatcher: the event dispatcher of a Qt thread that runs no event loop. Internal.
//
// Qt gives every thread it starts an event dispatcher, and the default one opens a wake-up
// descriptor; if that fails, Qt aborts the process. A service thread that only serves one request
// never waits for events, so it gets this dispatcher instead, which opens nothing: a service out
// of descriptors then refuses work instead of dying. processEvents() still delivers the events
// posted to the thread's objects, and timers are only remembered, so that an object moved to
// another thread takes them along.
//
// Thread safety: used by its own thread only, as Qt uses every dispatcher.
#pragma once

#include <QAbstractEventDispatcher>
#include <QList>

class klNetNoEventDispatcher : public QAbstractEventDispatcher {
public:
    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;
    void registerSocketNotifier(QSocketNotifier*) override {}
    void unregisterSocketNotifier(QSocketNotifier*) override {}
    void registerTimer(int timerId, int interval, Qt::TimerType timerType,
                       QObject* object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int) override { return -1; }
    void wakeUp() override {}
    void interrupt() override {}
    void flush() override {}

private:
    struct Timer {
        QObject* object;
        TimerInfo info;
    };
    QList<Timer> m_timers;
};
