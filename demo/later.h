// A value that comes later, on the event loop: what an asynchronous function gives, which may be a
// coroutine (co_await waits for it, co_return sets it). Copies share the value.

#pragma once

#include <QTimer>

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>

template <typename T> class Later
{
public:
    struct promise_type
    {
        promise_type() { } // so that the coroutine's arguments do not initialise it
        Later get_return_object() const { return later; }
        std::suspend_never initial_suspend() const { return {}; }
        std::suspend_never final_suspend() const noexcept { return {}; }
        void return_value(T value) const { later.set(std::move(value)); }
        void unhandled_exception() const { std::terminate(); }

        Later later;
    };

    Later() = default;
    Later(T value) { state->value = std::move(value); } // it is here already

    bool isSet() const { return state->value.has_value(); }

    // The first value counts; whoever waits goes on from the event loop, never inside this call.
    void set(T value) const
    {
        if (state->value)
            return;
        state->value = std::move(value);
        if (state->waiter)
            QTimer::singleShot(0, [kept = state] { kept->waiter.resume(); });
    }

    bool await_ready() const { return isSet(); }
    void await_suspend(std::coroutine_handle<> waiter) const { state->waiter = waiter; }
    T await_resume() const { return *state->value; }

private:
    struct State
    {
        std::optional<T> value;
        std::coroutine_handle<> waiter; // one at most
    };

    std::shared_ptr<State> state = std::make_shared<State>();
};

// Is there after that many milliseconds.
inline Later<bool> pause(int ms)
{
    Later<bool> over;
    QTimer::singleShot(ms, [over] { over.set(true); });
    return over;
}
