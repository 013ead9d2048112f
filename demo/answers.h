// Values that come later, through the event loop, and the answers of tools.

#pragma once

#include <QJsonObject>
#include <QTimer>

#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

using namespace Qt::StringLiterals; // which all files here write

// Acts after that many milliseconds, from the event loop.
inline void after(int ms, const std::function<void()> &act)
{
    auto *timer = new QTimer;
    timer->setSingleShot(true);
    timer->callOnTimeout(act);
    timer->callOnTimeout(timer, &QObject::deleteLater);
    timer->start(ms);
}

// What an asynchronous function returns. It may be a coroutine: co_await waits for the value,
// co_return sets it. Copies share the value; only one may be waited for at a time.
template <typename T> class Later
{
public:
    struct promise_type
    {
        promise_type() { } // keeps the coroutine's arguments from initialising it
        Later get_return_object() const { return later; }
        std::suspend_never initial_suspend() const { return {}; }
        std::suspend_never final_suspend() const noexcept { return {}; }
        void return_value(T value) const { later.set(std::move(value)); }
        void unhandled_exception() const { std::terminate(); }
        Later later;
    };

    Later() = default;
    Later(T value) { state->value = std::move(value); } // it is here already

    // The first value counts; whoever waits goes on from the event loop, never inside this call.
    void set(T value) const
    {
        if (state->value)
            return;
        state->value = std::move(value);
        if (state->waiter)
            after(0, state->waiter);
    }

    bool isSet() const { return state->value.has_value(); }
    bool await_ready() const { return isSet(); }
    void await_suspend(std::coroutine_handle<> waiter) const { state->waiter = waiter; }
    T await_resume() const { return *state->value; }

private:
    struct State
    {
        std::optional<T> value;
        std::coroutine_handle<> waiter;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

constexpr int LookMs = 30; // between looks at what is waited for

inline Later<bool> pause(int ms) // comes after that many milliseconds
{
    Later<bool> over;
    after(ms, [over] { over.set(true); });
    return over;
}

using Answer = QJsonObject; // with "result", or with "error"

// An object of keys and values that alternate.
template <typename... Rest>
QJsonObject object(QLatin1StringView key, const QJsonValue &value, const Rest &...rest)
{
    QJsonObject whole;
    if constexpr (sizeof...(rest) > 0)
        whole = object(rest...);
    whole[key] = value;
    return whole;
}

inline Answer ok(const QJsonObject &result) { return { { u"result"_s, result } }; }

template <typename... Members> Answer ok(QLatin1StringView key, const Members &...members)
{
    return ok(object(key, members...));
}

inline Answer fail(const QString &code, const QString &message)
{
    return { { u"error"_s, object("code"_L1, code, "message"_L1, message) } };
}

inline Answer wrong(const QString &what) { return fail(u"invalid_argument"_s, what); }
inline Answer wrongState(const QString &why) { return fail(u"wrong_state"_s, why); }
inline Answer unavailable(const QString &why) { return fail(u"not_available"_s, why); }
