// The serial execution context of the repository: one worker thread that runs
// submitted work one item at a time, in submission order, while the submitting
// coroutine waits without blocking its thread.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <QFuture>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroTask>

namespace orvik::ui {

class SerialExecutor {
  public:
    SerialExecutor();
    // Waits for the work already submitted.
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    // Runs fn() on the worker after everything submitted before it. The awaiting
    // coroutine resumes on its own thread (the main thread for the view-models)
    // with fn's result, or with fn's exception rethrown as its own type.
    template <typename F>
    auto run(F fn) -> QCoro::Task<std::invoke_result_t<F>> {
        using T = std::invoke_result_t<F>;
        auto outcome = co_await submit<T>(std::move(fn));
        if (outcome.error) {
            std::rethrow_exception(outcome.error);
        }
        if constexpr (!std::is_void_v<T>) {
            co_return std::move(*outcome.value);
        }
    }

    // Runs fn() on the worker after everything submitted before it and blocks the
    // calling thread until it has run. For the few operations whose contract is
    // synchronous.
    template <typename F>
    auto runAndWait(F fn) -> std::invoke_result_t<F> {
        using T = std::invoke_result_t<F>;
        auto future = submit<T>(std::move(fn));
        future.waitForFinished();
        auto outcome = future.result();
        if (outcome.error) {
            std::rethrow_exception(outcome.error);
        }
        if constexpr (!std::is_void_v<T>) {
            return std::move(*outcome.value);
        }
    }

  private:
    template <typename T>
    struct Outcome {
        std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> value;
        std::exception_ptr error;
    };

    // Exceptions never cross QtConcurrent (it would wrap them): the outcome
    // carries them to the awaiting side.
    template <typename T, typename F>
    QFuture<Outcome<T>> submit(F fn) {
        return QtConcurrent::run(&pool_, [fn = std::move(fn)]() mutable {
            Outcome<T> outcome;
            try {
                if constexpr (std::is_void_v<T>) {
                    fn();
                    outcome.value = true;
                } else {
                    outcome.value.emplace(fn());
                }
            } catch (...) {
                outcome.error = std::current_exception();
            }
            return outcome;
        });
    }

    // One thread: QThreadPool starts queued work of equal priority in FIFO order.
    QThreadPool pool_;
};

}  // namespace orvik::ui
