#include "answers.h"

#include <QTimer>

static void after(int ms, const std::function<void()> &act)
{
    auto *timer = new QTimer;
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, timer, act);
    QObject::connect(timer, &QTimer::timeout, timer, &QObject::deleteLater);
    timer->start(ms);
}

void resumeSoon(std::coroutine_handle<> waiter) { after(0, waiter); }

Later<bool> pause(int ms)
{
    Later<bool> over;
    after(ms, [over] { over.set(true); });
    return over;
}
