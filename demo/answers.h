// What a tool gives: a body now, or one that comes later.

#pragma once

#include <QElapsedTimer>
#include <QJsonObject>

#include <functional>
#include <optional>

struct Answer
{
    QJsonObject body; // with "result" or "error"
    std::function<std::optional<Answer>()> later; // if set: to be asked until it gives the answer
};

inline Answer ok(const QJsonObject &result)
{
    return { { { QStringLiteral("result"), result } }, {} };
}

inline Answer fail(const QString &code, const QString &message)
{
    const QJsonObject error { { QStringLiteral("code"), code },
                              { QStringLiteral("message"), message } };
    return { { { QStringLiteral("error"), error } }, {} };
}

inline Answer wrong(const QString &message)
{
    return fail(QStringLiteral("invalid_argument"), message);
}

inline Answer unavailable()
{
    return fail(QStringLiteral("not_available"),
                QStringLiteral("not available in the demonstration"));
}

inline Answer noNetworking()
{
    return fail(QStringLiteral("not_ready"),
                QStringLiteral("the networking service is not installed (networking_install)"));
}

// An answer that poll() gives once it can; it learns whether that many milliseconds have passed.
inline Answer until(qint64 ms, std::function<std::optional<Answer>(bool timeUp)> poll)
{
    QElapsedTimer timer;
    timer.start();
    return { {}, [=, poll = std::move(poll)] { return poll(timer.elapsed() >= ms); } };
}

// An answer that act() gives once that many milliseconds have passed.
inline Answer after(qint64 ms, std::function<Answer()> act)
{
    return until(ms, [act = std::move(act)](bool timeUp) {
        return timeUp ? std::optional(act()) : std::nullopt;
    });
}
