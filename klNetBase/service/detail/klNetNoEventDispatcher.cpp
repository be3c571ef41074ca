#include <klNetBase/service/detail/klNetNoEventDispatcher.h>

#include <QCoreApplication>

bool klNetNoEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags) {
    QCoreApplication::sendPostedEvents();
    return false;
}

bool klNetNoEventDispatcher::hasPendingEvents() {
    return false;
}

void klNetNoEventDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType,
                                           QObject* object) {
    m_timers.append(Timer{object, TimerInfo(timerId, interval, timerType)});
}

bool klNetNoEventDispatcher::unregisterTimer(int timerId) {
    for (int i = 0; i < m_timers.size(); ++i) {
        if (m_timers[i].info.timerId == timerId) {
            m_timers.removeAt(i);
            return true;
        }
    }
    return false;
}

bool klNetNoEventDispatcher::unregisterTimers(QObject* object) {
    const int before = m_timers.size();
    for (int i = m_timers.size() - 1; i >= 0; --i) {
        if (m_timers[i].object == object) {
            m_timers.removeAt(i);
        }
    }
    return m_timers.size() != before;
}

QList<QAbstractEventDispatcher::TimerInfo> klNetNoEventDispatcher::registeredTimers(
    QObject* object) const {
    QList<TimerInfo> timers;
    for (const Timer& timer : m_timers) {
        if (timer.object == object) {
            timers.append(timer.info);
        }
    }
    return timers;
}
