#include "answers.h"

#include <QTimer>

void resumeSoon(std::coroutine_handle<> waiter) { QTimer::singleShot(0, waiter); }

Later<bool> pause(int ms)
{
    Later<bool> over;
    auto *timer = new QTimer;
    QObject::connect(timer, &QTimer::timeout, timer, [over] { over.set(true); });
    QObject::connect(timer, &QTimer::timeout, timer, &QObject::deleteLater);
    timer->start(ms);
    return over;
}
