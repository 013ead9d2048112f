// What a tool answers: an object with "result", or with "error".

#pragma once

#include "later.h"

#include <QJsonObject>

using Answer = QJsonObject;

inline Answer ok(const QJsonObject &result) { return { { QStringLiteral("result"), result } }; }

inline Answer fail(const QString &code, const QString &message)
{
    return { { QStringLiteral("error"), QJsonObject { { QStringLiteral("code"), code },
                                                      { QStringLiteral("message"), message } } } };
}

inline Answer wrong(const QString &message)
{
    return fail(QStringLiteral("invalid_argument"), message);
}

inline Answer wrongState(const QString &message)
{
    return fail(QStringLiteral("wrong_state"), message);
}

inline Answer unavailable(const QString &reason)
{
    return fail(QStringLiteral("not_available"), reason);
}
